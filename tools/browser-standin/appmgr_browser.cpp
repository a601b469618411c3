// appmgr-browser: plays the browser on one connection of a running
// libapp-mgr. It sends one request by id with the given fields and prints
// the reply decoded, or prints the commands and callbacks the library sends.
//
//   appmgr-browser [--dir DIR] [--timeout MS] CONNECTION ID [FIELD...]
//   appmgr-browser [--dir DIR] [--timeout MS] --listen CONNECTION COUNT
//
// CONNECTION is Application, dtvPlugins, vodPlugins, Callbacks or DSMCC
// (case does not matter). The library accepts one client per socket, so
// this cannot share a connection with a browser that is connected.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <strings.h>
#include <vector>

#include "browser_standin.h"

using namespace appmgr::standin;

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: appmgr-browser [--dir DIR] [--timeout MS] CONNECTION ID [FIELD...]\n"
                 "       appmgr-browser [--dir DIR] [--timeout MS] --listen CONNECTION COUNT\n"
                 "CONNECTION: Application, dtvPlugins, vodPlugins, Callbacks, DSMCC\n");
    return 2;
}

std::optional<Connection> connection_named(const char* name) {
    for (Connection c : kAllConnections)
        if (strcasecmp(name, connectionName(c)) == 0) return c;
    return std::nullopt;
}

std::string quoted(const std::vector<std::string>& fields) {
    std::string out = "[";
    for (std::size_t i = 0; i < fields.size(); ++i)
        out += (i ? ", \"" : "\"") + escapeBytes(fields[i]) + "\"";
    return out + "]";
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = "/tmp/";
    int timeout_ms = 2000;
    bool listen = false;
    int arg = 1;
    for (; arg < argc && argv[arg][0] == '-' && argv[arg][1] == '-'; ++arg) {
        const std::string option = argv[arg];
        if (option == "--listen") {
            listen = true;
        } else if ((option == "--dir" || option == "--timeout") && arg + 1 < argc) {
            if (option == "--dir")
                dir = std::string(argv[++arg]) + "/";
            else
                timeout_ms = std::atoi(argv[++arg]);
        } else {
            return usage();
        }
    }
    if (argc - arg < 2) return usage();
    const std::optional<Connection> c = connection_named(argv[arg]);
    if (!c) return usage();
    const int number = std::atoi(argv[arg + 1]);

    BrowserStandin browser(dir);
    if (!browser.connect(*c, timeout_ms)) {
        std::fprintf(stderr, "appmgr-browser: %s: %s\n", connectionName(*c),
                     browser.lastError(*c).c_str());
        return 1;
    }
    if (listen) {
        for (int i = 0; i < number; ++i) {
            std::optional<Frame> frame = browser.readFrame(*c, timeout_ms);
            if (!frame) {
                std::fprintf(stderr, "appmgr-browser: %s\n", browser.lastError(*c).c_str());
                return 1;
            }
            std::printf("%-12s <- %d %s: %s\n", connectionName(*c), frame->id,
                        commandName(frame->id), describe(decodeFrame(*frame)).c_str());
        }
        return 0;
    }
    const std::vector<std::string> fields(argv + arg + 2, argv + argc);
    std::printf("%-12s -> %d %s %s\n", connectionName(*c), number, requestName(*c, number),
                quoted(fields).c_str());
    if (!browser.sendRequest(*c, number, fields, timeout_ms)) {
        std::fprintf(stderr, "appmgr-browser: send failed: %s\n", browser.lastError(*c).c_str());
        return 1;
    }
    if (*c == Connection::Application || *c == Connection::Callbacks) return 0;  // never answered
    const std::optional<std::string> reply = browser.readReply(*c, timeout_ms);
    if (!reply) {
        std::printf("%-12s <- no reply (%s)\n", connectionName(*c), readStatusName(browser.lastReadStatus(*c)));
        return 1;
    }
    std::printf("%-12s <- %s\n", connectionName(*c), describe(decodeReply(*c, number, *reply)).c_str());
    return 0;
}
