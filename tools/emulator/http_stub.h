// A small HTTP/1.1 responder on 127.0.0.1 for the library's probes and
// downloads. Paths listed as missing get "404 Not Found". With a root
// directory, the files under it are served (text files with {http} replaced
// by the responder's own "127.0.0.1:PORT", so documents can name their own
// server) and every other path gets "404 Not Found"; without one, every
// other path gets "200 OK" and a short HTML page. HEAD answers carry the
// headers only. One request per connection, served in turn on one thread;
// every wait is bounded.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "loopback_server.h"

namespace appmgr::emu {

struct HttpAnswer {
    std::string status;        // "200 OK"
    std::string content_type;  // "text/html"
    std::string body;          // what a GET receives
    std::string source;        // for the trace: the file served, or "" for a canned answer
};

class HttpStub {
public:
    using Trace = std::function<void(const std::string& line)>;

    struct Config {
        std::vector<std::string> missing;  // paths answered 404
        std::optional<std::string> root;   // directory served
    };

    HttpStub() = default;
    HttpStub(const HttpStub&) = delete;
    HttpStub& operator=(const HttpStub&) = delete;

    // Listens on a free port of 127.0.0.1 and starts serving. False (with the
    // reason in *error) when the socket cannot be set up.
    bool start(Config config, Trace trace, std::string* error);
    void stop();
    // "127.0.0.1:PORT" once started.
    std::string host() const;

    // The answer for a request target (query and fragment ignored), with
    // host put in for {http} in served text files. Reads the root directory
    // but nothing else: pure otherwise, for tests.
    static HttpAnswer answerFor(const std::string& target, const Config& config, const std::string& host);
    // The file under root that a request path names: percent-decoded, no
    // empty, "." or ".." components, no NUL; a directory gives its
    // index.html. Nullopt when the path cannot name a file under root (the
    // file itself need not exist).
    static std::optional<std::string> fileFor(const std::string& root, const std::string& path);
    // Content type by file name extension; application/octet-stream when
    // unknown.
    static std::string contentType(const std::string& file);

private:
    void answer(int fd);

    Config config_;
    Trace trace_;
    loopback::Server server_;  // last: stopped first, before the config goes
};

}  // namespace appmgr::emu
