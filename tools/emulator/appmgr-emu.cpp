// appmgr-emu: runs libapp-mgr as a receiver would, with the simulated
// platform underneath and the browser stand-in on the other end of the five
// browser sockets, and prints everything that crosses either boundary.
//
// The built-in scenario brings the library up, activates it, exchanges a
// User-Agent request, sends two time zones and closes it. Every step checks
// what it expects; the first mismatch or time-out ends the run with exit
// status 1. A watchdog ends any run that takes longer than kOverallLimitMs.
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
#include "hbb_sim.h"

namespace {

using namespace appmgr::standin;

constexpr int kOverallLimitMs = 9000;
constexpr int kConnectMs = 5000;  // the library's sockets must appear by then
constexpr int kInitMs = 6000;     // first applicationManagerInit() must return by then
constexpr int kFrameWaitMs = 2000;
constexpr int kReplyMs = 2000;
constexpr int kReaderPollMs = 100;

const char* const kUserAgent =
    "Mozilla/5.0 (Linux; appmgr-emu) AppleWebKit/537.36 (KHTML, like Gecko) "
    "HbbTV/1.5.1 (+DRM; Emu; Sim; 1.0; ;)";

// ---- output ----------------------------------------------------------------
// Lines come from the main thread, the two reader threads and the library's
// threads (trace and log hooks); each line is written whole.

std::mutex g_out_mu;
bool g_verbose = false;

void emit(const std::string& line) {
    std::lock_guard<std::mutex> g(g_out_mu);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string padded(const std::string& s, std::size_t width) {
    return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

// Connection column: "Application   ".
std::string col(Connection c) { return padded(connectionName(c), 13) + " "; }

// "141 time zone              " : id and name columns of a message line.
std::string idAndName(int id, const char* name) {
    return padded(std::to_string(id), 3) + " " + padded(name, 26) + " ";
}

std::string trimRight(std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string quoted(const std::string& s) { return "\"" + escapeBytes(s) + "\""; }

std::string fieldList(const std::vector<std::string>& fields,
                      const std::optional<std::string>& trailing = std::nullopt) {
    std::string out = "[";
    for (std::size_t i = 0; i < fields.size(); ++i) out += (i ? ", " : "") + quoted(fields[i]);
    out += "]";
    if (trailing) out += " +unterminated " + quoted(*trailing);
    return out;
}

const char* stateName(int s) {
    switch (s) {
        case APP_MANAGER_DEINITIALIZED: return "APP_MANAGER_DEINITIALIZED";
        case APP_MANAGER_SUSPENDED: return "APP_MANAGER_SUSPENDED";
        case APP_MANAGER_INITIALIZING: return "APP_MANAGER_INITIALIZING";
        case APP_MANAGER_INITIALIZED: return "APP_MANAGER_INITIALIZED";
    }
    return "?";
}

// The library writes its state from its own threads; read it atomically.
int libraryState() { return static_cast<int>(__atomic_load_n(&appmgr_state, __ATOMIC_ACQUIRE)); }

[[noreturn]] void fail(const std::string& why) {
    emit("appmgr-emu: FAILED: " + why);
    if (!g_verbose) emit("appmgr-emu: run with --verbose to see the library's log");
    // Library threads may still be blocked inside the library: do not wait
    // for them.
    std::_Exit(1);
}

void step(const std::string& what) { emit("\n== " + what); }

// A library call is shown before it is made (what it causes is printed by
// other threads meanwhile) and its result after it returned.
void libraryCall(const std::string& call) { emit("library   " + call); }
void libraryResult(int result) {
    emit("          -> " + std::to_string(result) + "  (state " + stateName(libraryState()) + ")");
}

void expectResult(const std::string& call, int result, int expected) {
    if (result != expected)
        fail(call + " returned " + std::to_string(result) + ", expected " + std::to_string(expected));
}

void expectState(int expected) {
    int s = libraryState();
    if (s != expected)
        fail(std::string("library state is ") + stateName(s) + ", expected " + stateName(expected));
}

// ---- platform hooks --------------------------------------------------------

void onPlatformCall(const char* function, const char* details, void*) {
    emit(std::string("platform  ") + function + "(" + (details ? details : "") + ")");
}

void onLogLine(int, const char* line, void*) {
    std::string text = line ? line : "";
    for (char& ch : text)
        if (ch == '\n' || ch == '\r') ch = ' ';
    emit("log       " + text);
}

// ---- frames seen by the readers --------------------------------------------

class FrameLog {
public:
    void add(Connection c, Frame f) {
        std::lock_guard<std::mutex> g(mu_);
        seen_.push_back({c, std::move(f), false});
        cv_.notify_all();
    }
    // Waits for a frame with this id (and these fields, if given) that no
    // earlier wait has claimed.
    bool waitFor(Connection c, int id, const std::vector<std::string>* fields, int timeout_ms) {
        std::unique_lock<std::mutex> g(mu_);
        return cv_.wait_for(g, std::chrono::milliseconds(timeout_ms), [&] {
            for (Entry& e : seen_) {
                if (e.claimed || e.conn != c || e.frame.id != id) continue;
                if (fields && e.frame.fields != *fields) continue;
                e.claimed = true;
                return true;
            }
            return false;
        });
    }
    std::size_t count() {
        std::lock_guard<std::mutex> g(mu_);
        return seen_.size();
    }

private:
    struct Entry {
        Connection conn;
        Frame frame;
        bool claimed;
    };
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Entry> seen_;
};

// Prints and records every frame the library pushes on one connection until
// stop is set or the connection ends.
void readFrames(BrowserStandin& standin, Connection c, const std::atomic<bool>& stop, FrameLog& log) {
    while (!stop.load()) {
        std::optional<Frame> f = standin.readFrame(c, kReaderPollMs);
        if (f) {
            emit(col(c) + "<- " + idAndName(f->id, commandName(f->id)) +
                 fieldList(f->fields, f->trailing));
            if (g_verbose) emit(col(c) + "   raw " + quoted(f->raw));
            log.add(c, std::move(*f));
            continue;
        }
        switch (standin.lastReadStatus(c)) {
            case ReadStatus::Ok:
            case ReadStatus::Timeout: break;
            case ReadStatus::Malformed:
                emit(col(c) + "<- malformed data dropped: " + standin.lastError(c));
                break;
            case ReadStatus::Closed:
                emit(col(c) + "-- connection closed by the library");
                return;
            case ReadStatus::NotConnected: return;
            case ReadStatus::Error:
                emit(col(c) + "-- read error: " + standin.lastError(c));
                return;
        }
    }
}

// ---- the built-in scenario -------------------------------------------------

void sendRequest(BrowserStandin& standin, Connection c, int id, const std::vector<std::string>& fields) {
    emit(trimRight(col(c) + "-> " + idAndName(id, requestName(c, id)) +
                   (fields.empty() ? "" : fieldList(fields))));
    if (!standin.sendRequest(c, id, fields))
        fail(std::string("could not send request ") + std::to_string(id) + " on " + connectionName(c));
}

void expectFrame(FrameLog& log, Connection c, int id, const std::vector<std::string>* fields) {
    if (!log.waitFor(c, id, fields, kFrameWaitMs))
        fail(std::string("timed out waiting for ") + connectionName(c) + " frame " + std::to_string(id) +
             " (" + commandName(id) + ")" + (fields ? " " + fieldList(*fields) : ""));
}

// Shows a library call, makes it, shows and checks its result.
template <typename Fn>
int callLibrary(const std::string& call, Fn fn, int expected) {
    libraryCall(call);
    int r = fn();
    libraryResult(r);
    expectResult(call, r, expected);
    return r;
}

void runBuiltinScenario() {
    BrowserStandin standin;  // the library as shipped uses the sockets in /tmp/
    FrameLog frames;
    std::atomic<bool> stop_readers{false};
    std::vector<std::thread> readers;

    step("1. start-up: applicationManagerInit() waits for the browser; the stand-in connects");
    libraryCall("applicationManagerInit()   [on its own thread]");
    std::packaged_task<int()> first_init([] { return applicationManagerInit(); });
    std::future<int> first_result = first_init.get_future();
    std::thread init_thread(std::move(first_init));  // if it never returns, fail() ends the process

    for (Connection c : kAllConnections) {
        if (!standin.connect(c, kConnectMs))
            fail(std::string("could not connect ") + connectionName(c) + ": " + standin.lastError(c));
        emit(col(c) + "connected to " + standin.socketPath(c));
    }
    for (Connection c : {Connection::Application, Connection::Callbacks})
        readers.emplace_back(readFrames, std::ref(standin), c, std::cref(stop_readers), std::ref(frames));

    sendRequest(standin, Connection::Application, 83, {"1"});
    if (first_result.wait_for(std::chrono::milliseconds(kInitMs)) != std::future_status::ready)
        fail("timed out waiting for the first applicationManagerInit() to return");
    int r = first_result.get();
    init_thread.join();
    libraryResult(r);
    expectResult("applicationManagerInit()", r, 1);
    expectState(APP_MANAGER_SUSPENDED);

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
                 "activation, User-Agent request, two time zones, close.\n"
                 "\n"
                 "  -v, --verbose        also print the library's log and the raw frames\n"
                 "      --scenario FILE  run the scenario in FILE (not supported yet)\n"
                 "  -h, --help           print this help\n"
                 "\n"
                 "Exit status: 0 scenario passed, 1 a step failed or timed out, 2 usage error.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<std::string> scenario;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else if (arg == "-v" || arg == "--verbose") {
            g_verbose = true;
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
    if (scenario) {
        std::fprintf(stderr, "appmgr-emu: scenario files are not supported yet (%s)\n", scenario->c_str());
        return 2;
    }

    emit("appmgr-emu: libapp-mgr on the simulated platform, browser stand-in on /tmp/UNIX_*.domain");
    emit("appmgr-emu: built-in scenario" + std::string(g_verbose ? " (verbose)" : ""));

    hbb_sim_set_trace(onPlatformCall, nullptr);
    if (g_verbose) {
        // The library's log joins the trace on stdout, in order.
        hbb_sim_set_log_level(2);
        hbb_sim_set_log_stderr(0);
        hbb_sim_set_log_hook(onLogLine, nullptr);
    } else {
        hbb_sim_set_log_level(100);  // above every library level: nothing is printed
    }

    // Watchdog: whatever blocks, the run ends within the overall limit.
    std::mutex wd_mu;
    std::condition_variable wd_cv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> g(wd_mu);
        if (!wd_cv.wait_for(g, std::chrono::milliseconds(kOverallLimitMs), [&] { return done; }))
            fail("the scenario did not finish within " + std::to_string(kOverallLimitMs / 1000) + " s");
    });

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
