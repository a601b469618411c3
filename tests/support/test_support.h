// Shared fixtures for the library's tests: a private socket directory, the
// test seams set for fast runs, log capture and the browser stand-in.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "app_mgr_state.h"
#include "browser_standin.h"
#include "hbb_sim.h"
#include "state/state.h"

namespace appmgr::test {

using standin::BrowserStandin;
using standin::Connection;

// Library globals that other threads write are read atomically.
inline AppMgrState state() { return appmgr::state::library(); }
inline void set_state(AppMgrState s) { appmgr::state::set_library(s); }
inline int browser_running() { return appmgr::state::browser_running() ? 1 : 0; }

// Runs f with the manager lock held, as the library's own code does when it
// reads or changes the manager state.
template <typename F>
auto locked(F&& f) {
    appmgr::state::ManagerLock lock;
    return f();
}

// Observations of the manager record, each read under the lock.
inline const Application* running_record() {
    return locked([] { return appmgr::state::running(); });
}
inline bool app_running() { return running_record() != nullptr; }
inline int running_app_id() {
    return locked([] { auto* a = appmgr::state::running(); return a ? a->app_id : -1; });
}
inline int running_org_id() {
    return locked([] { auto* a = appmgr::state::running(); return a ? a->organisation_id : -1; });
}
inline std::string running_url() {
    return locked([] {
        auto* a = appmgr::state::running();
        const char* url = a ? appmgr::records::entry_url(*a) : nullptr;
        return std::string(url ? url : "");
    });
}
inline std::string start_url() {
    return locked([] { return std::string(appmgr::state::start_url()); });
}
inline bool portal_mode() { return locked([] { return appmgr::state::portal(); }); }
inline void set_portal_mode(bool on) { locked([&] { appmgr::state::set_portal(on); }); }
inline void set_network(NetworkStatus s) { locked([&] { appmgr::state::set_network(s); }); }
inline void set_terminal_version(int major, int minor, int micro) {
    locked([&] { appmgr::state::set_terminal_version({major, minor, micro}); });
}
inline VideoBroadcastState broadcast_state() {
    return locked([] { return appmgr::state::broadcast(); });
}
inline ApplicationType running_type() { return locked([] { return appmgr::state::running_type(); }); }
inline int current_entries() { return locked([] { return appmgr::state::current_ait().app_lenght; }); }
inline std::string current_locator() {
    return locked([] { return std::string(appmgr::state::current_ait().dvb_url); });
}
inline std::string current_entry_url(int index) {
    return locked([&] {
        auto* e = appmgr::state::current_entry(index);
        const char* url = e ? appmgr::records::entry_url(*e) : nullptr;
        return std::string(url ? url : "");
    });
}

// A fresh directory under /tmp, removed with its content on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }  // ends with '/'

private:
    std::string path_;
};

// Collects the library's log lines through the simulated platform.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    bool contains(const std::string& text) const;
    // Waits (bounded) until a line containing text was logged.
    bool waitFor(const std::string& text, int timeout_ms) const;
    // Waits (bounded) until at least `count` lines containing text were logged.
    bool waitForCount(const std::string& text, int count, int timeout_ms) const;
    std::vector<std::string> lines() const;
    // Number of lines containing text so far.
    int count(const std::string& text) const;

private:
    static void hook(int level, const char* line, void* user);
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<std::string> lines_;
};

// One decision the library reported through the decision trace, its texts
// copied.
struct Decision {
    std::string name;
    int org_id = -1;
    int app_id = -1;
    int priority = 0;
    std::string app_name;
    std::string url;
    std::string reason;
    int value = 0;
};

// What a test looks for in the decisions: the event's name and, when given,
// its reason, URL and application ids.
struct DecisionMatch {
    DecisionMatch(std::string name_, std::string reason_ = "", std::string url_ = "",
                  int org_id_ = -1, int app_id_ = -1)
        : name(std::move(name_)), reason(std::move(reason_)), url(std::move(url_)),
          org_id(org_id_), app_id(app_id_) {}
    std::string name;
    std::string reason;
    std::string url;
    int org_id;
    int app_id;
    bool matches(const Decision& d) const;
};

// Collects the library's decisions through the simulated platform. Tests
// check decisions here, never in the log's wording.
class DecisionCapture {
public:
    DecisionCapture();
    ~DecisionCapture();
    // Number of decisions matching so far.
    int count(const DecisionMatch& match) const;
    bool contains(const DecisionMatch& match) const { return count(match) > 0; }
    // Waits (bounded) until at least `count` decisions match.
    bool waitFor(const DecisionMatch& match, int timeout_ms, int count = 1) const;
    std::vector<Decision> all() const;

private:
    static void hook(const hbbDecision* decision, void* user);
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<Decision> decisions_;
};
// Readable list of decisions, for failure messages.
std::string describe(const std::vector<Decision>& decisions);

// The middleware's start/stop callbacks as a receiver registers them: the
// start callback answers with application_manager_cmd_start (which sends the
// start URL to the browser). Counts are reset by install().
struct MiddlewareCallbacks {
    static void install();
    static int starts();
    static int stops();
};

// Shell commands the library ran (recorded instead of executed).
std::vector<std::string> shell_commands();

// Base fixture: private socket directory, no settle pauses, a short browser
// wait, recorded shell commands and a reset simulator. Closes the library
// on tear-down.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the first applicationManagerInit on a thread while the stand-in
    // connects all five sockets and reports the browser present.
    int startWithBrowser();
    // The usual start of a test of an active library: a terminal of version
    // 1.7.1, the browser reported, the library activated and the
    // middleware's start/stop callbacks installed.
    void startActive();
    // Brings only the five connections up (no lifecycle), stand-in connected.
    void startMessagingOnly();

    // Serves a directory under the test's temp dir as the object carousel of
    // a component tag, with the given files (relative paths) in it.
    std::string serveCarousel(int component_tag, const std::vector<std::string>& files);

    // Next frame on a connection, failing the test on time-out.
    standin::Frame nextFrame(Connection c, int timeout_ms = 3000);

    TempDir dir_;
    LogCapture log_;
    DecisionCapture decisions_;
    BrowserStandin browser_{dir_.path()};
    bool messaging_only_ = false;
};

}  // namespace appmgr::test
