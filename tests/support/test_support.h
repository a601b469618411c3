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
#include "common/atomic_state.h"

namespace appmgr::test {

using standin::BrowserStandin;
using standin::Connection;

// Library globals that other threads write are read atomically.
inline AppMgrState state() { return appmgr::library_state(); }
inline void set_state(AppMgrState s) { appmgr::set_library_state(s); }
inline int browser_running() { return appmgr::atomic_get(webkit_running); }

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

private:
    static void hook(int level, const char* line, void* user);
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<std::string> lines_;
};

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
    // Brings only the five connections up (no lifecycle), stand-in connected.
    void startMessagingOnly();

    // Serves a directory under the test's temp dir as the object carousel of
    // a component tag, with the given files (relative paths) in it.
    std::string serveCarousel(int component_tag, const std::vector<std::string>& files);

    // Next frame on a connection, failing the test on time-out.
    standin::Frame nextFrame(Connection c, int timeout_ms = 3000);

    TempDir dir_;
    LogCapture log_;
    BrowserStandin browser_{dir_.path()};
    bool messaging_only_ = false;
};

}  // namespace appmgr::test
