// appmgr-emu: runs libapp-mgr as a receiver would, with the simulated
// platform underneath and the browser stand-in on the other end of the five
// browser sockets, and prints everything that crosses either boundary.
//
// Without arguments the built-in scenario runs: it brings the library up,
// activates it, exchanges a User-Agent request, sends two time zones and
// closes it. --scenario FILE runs a scenario file instead (scenario.h,
// scenario_runner.h). Every step checks what it expects; the first mismatch
// or time-out ends the run with exit status 1, a scenario file that cannot be
// read with status 2. A watchdog ends any run that takes longer than its
// limit.
//
// Before anything else the run moves into a private /tmp and loopback
// network (private_run.h), so that runs on one machine do not meet on the
// library's fixed socket paths and port.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "private_run.h"
#include "scenario.h"
#include "scenario_runner.h"

namespace {

using namespace appmgr::standin;
using namespace appmgr::emu;

constexpr int kBuiltinLimitMs = 9000;
constexpr int kFrameWaitMs = 2000;
constexpr int kReplyMs = 2000;

const char* const kUserAgent =
    "Mozilla/5.0 (Linux; appmgr-emu) AppleWebKit/537.36 (KHTML, like Gecko) "
    "HbbTV/1.5.1 (+DRM; Emu; Sim; 1.0; ;)";

void onLogLine(int, const char* line, void*) { emitLogLine(line); }

// ---- the built-in scenario -------------------------------------------------

void expectFrame(FrameLog& log, Connection c, int id, const std::vector<std::string>* fields) {
    if (!log.waitFor(c, id, fields, kFrameWaitMs))
        fail(std::string("timed out waiting for ") + connectionName(c) + " frame " + std::to_string(id) +
             " (" + commandName(id) + ")" + (fields ? " " + fieldList(*fields) : ""));
}

void runBuiltinScenario() {
    BrowserStandin standin;  // the library as shipped uses the sockets in /tmp/
    FrameLog frames;
    std::atomic<bool> stop_readers{false};
    std::vector<std::thread> readers;

    step("1. start-up: applicationManagerInit() waits for the browser; the stand-in connects");
    startLibraryWithBrowser(standin, readers, stop_readers, frames);

    step("2. activation, User-Agent, time zone");
    callLibrary("applicationManagerInit()", [] { return applicationManagerInit(); }, 1);
    expectState(APP_MANAGER_INITIALIZED);

    std::string ua = kUserAgent;
    callLibrary("setAMUserAgent(" + quoted(ua) + ")", [&] { return setAMUserAgent(ua.data()); }, 1);

    sendRequest(standin, Connection::DtvPlugins, 401, {});
    std::optional<std::string> reply = standin.readReply(Connection::DtvPlugins, kReplyMs);
    if (!reply)
        fail(std::string("no reply to CMD_GET_USER_AGENT (") +
             readStatusName(standin.lastReadStatus(Connection::DtvPlugins)) + ")");
    std::optional<std::string> rest;
    std::vector<std::string> fields = splitFields(*reply, &rest);
    emit(col(Connection::DtvPlugins) + "<- reply " + fieldList(fields, rest));
    // The reply is the stored text, with or without a closing "|".
    const std::string& got = !fields.empty() ? fields.front() : rest.value_or("");
    if (got != ua) fail("CMD_GET_USER_AGENT replied " + quoted(*reply) + ", expected " + quoted(ua));

    const std::vector<std::string> plus_one{"UTC+01:00:00"};
    callLibrary("setTimeZone(0, 1, 0)", [] { return setTimeZone(0, 1, 0); }, 1);
    expectFrame(frames, Connection::Application, 141, &plus_one);

    const std::vector<std::string> minus_five_thirty{"UTC-05:30:00"};
    callLibrary("setTimeZone(1, 5, 30)", [] { return setTimeZone(1, 5, 30); }, 1);
    expectFrame(frames, Connection::Application, 141, &minus_five_thirty);

    step("3. close: the browser is told to close, the connections end");
    callLibrary("applicationManagerClose()", [] { return applicationManagerClose(); }, 1);
    expectFrame(frames, Connection::Application, 160, nullptr);
    expectState(APP_MANAGER_DEINITIALIZED);

    stop_readers.store(true);
    for (std::thread& t : readers) t.join();
    standin.disconnectAll();
    emit("\nappmgr-emu: scenario passed (" + std::to_string(frames.count()) +
         " frames received from the library)");
}

// ---- command line ----------------------------------------------------------

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: appmgr-emu [--verbose] [--scenario FILE]\n"
                 "\n"
                 "Runs libapp-mgr on the simulated platform with a stand-in browser on the\n"
                 "browser sockets in /tmp/ and prints the platform calls and the messages\n"
                 "exchanged. Without --scenario the built-in scenario runs: start-up,\n"
                 "activation, User-Agent request, two time zones, close. A scenario file\n"
                 "(INI; see docs/emulator.md) describes a service, its applications and\n"
                 "AITs, and a timeline of deliveries, channel changes, network changes,\n"
                 "browser messages and checks.\n"
                 "\n"
                 "  -v, --verbose        also print the library's log and the raw frames\n"
                 "      --scenario FILE  run the scenario in FILE\n"
                 "      --shared-tmp     run in the machine's /tmp and network; refused while\n"
                 "                       another process holds the library's sockets or port\n"
                 "  -h, --help           print this help\n"
                 "\n"
                 "Exit status: 0 scenario passed, 1 a step failed or timed out, or another\n"
                 "process holds the library's sockets or port, 2 usage error or a scenario\n"
                 "file that cannot be read.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<std::string> scenario;
    bool shared_tmp = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else if (arg == "-v" || arg == "--verbose") {
            g_verbose = true;
        } else if (arg == "--shared-tmp") {
            shared_tmp = true;
        } else if (arg == "--scenario" && i + 1 < argc) {
            scenario = argv[++i];
        } else if (arg.rfind("--scenario=", 0) == 0 && arg.size() > 11) {
            scenario = arg.substr(11);
        } else {
            std::fprintf(stderr, "appmgr-emu: %s '%s'\n",
                         arg == "--scenario" ? "missing FILE after" : "unknown option", arg.c_str());
            usage(stderr);
            return 2;
        }
    }
    // A scenario file is read completely before anything starts: a bad file
    // ends the run with status 2 and the library is never touched.
    std::optional<Scenario> loaded;
    if (scenario) {
        std::string error;
        loaded = loadScenario(*scenario, &error);
        if (!loaded) {
            std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
            return 2;
        }
    }
    const int limit_ms = loaded ? loaded->time_limit_s * 1000 : kBuiltinLimitMs;

    // Still a single thread here, as the namespaces require. Files of the
    // scenario under /tmp stay reachable.
    std::vector<std::string> keep;
    bool key_steps = false;
    if (loaded) {
        keep.push_back(*scenario);
        for (const CarouselSpec& c : loaded->carousels) keep.push_back(c.path);
        if (loaded->http.root) keep.push_back(*loaded->http.root);
        for (const Step& st : loaded->timeline) key_steps = key_steps || st.kind == "key";
    }
    const PrivateRun private_run =
        shared_tmp ? PrivateRun{false, "--shared-tmp given"} : enterPrivateRun(keep);
    if (!private_run.isolated) {
        // Shared /tmp and network: refuse at once rather than meet another
        // run (or a browser) on the fixed sockets or port.
        const std::vector<std::string> held = heldResources(key_steps);
        if (!held.empty()) {
            std::string list;
            for (const std::string& h : held) list += (list.empty() ? "" : ", ") + h;
            std::fprintf(stderr,
                         "appmgr-emu: cannot run: another process holds %s (another appmgr-emu, a "
                         "browser or a library instance?); this run would share the machine's /tmp "
                         "and network with it (%s)\n",
                         list.c_str(), private_run.detail.c_str());
            return 1;
        }
    }
    emit("appmgr-emu: " + (private_run.isolated
                               ? private_run.detail
                               : "the machine's /tmp and network, shared (" + private_run.detail + ")"));

    hbb_sim_set_trace(onPlatformCall, nullptr);
    if (!loaded) {
        emit("appmgr-emu: libapp-mgr on the simulated platform, browser stand-in on /tmp/UNIX_*.domain");
        emit("appmgr-emu: built-in scenario" + std::string(g_verbose ? " (verbose)" : ""));
        if (g_verbose) {
            // The library's log joins the trace on stdout, in order.
            hbb_sim_set_log_level(2);
            hbb_sim_set_log_stderr(0);
            hbb_sim_set_log_hook(onLogLine, nullptr);
        } else {
            hbb_sim_set_log_level(100);  // above every library level: nothing is printed
        }
    }

    // Watchdog: whatever blocks, the run ends within the overall limit.
    std::mutex wd_mu;
    std::condition_variable wd_cv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> g(wd_mu);
        if (!wd_cv.wait_for(g, std::chrono::milliseconds(limit_ms), [&] { return done; }))
            fail("the scenario did not finish within " + std::to_string(limit_ms / 1000) + " s");
    });

    if (loaded)
        runScenario(*loaded);
    else
        runBuiltinScenario();

    {
        std::lock_guard<std::mutex> g(wd_mu);
        done = true;
    }
    wd_cv.notify_all();
    watchdog.join();
    hbb_sim_set_trace(nullptr, nullptr);
    hbb_sim_set_log_hook(nullptr, nullptr);
    return 0;
}
