// The hand-shake with the browser process: the wait for its state report at
// start-up and after a crash, the report itself, and the crash handling.
//
// appmgr_mutex and appmgr_cond_var carry the wait. Every non-zero report is
// counted, so a wait ends as soon as the browser it waits for has reported,
// whatever state the library has moved on to since (the middleware may have
// activated it already). At most one wait runs at a time: a crash during a
// wait re-arms that wait (a fresh deadline, reports counted from now on)
// instead of starting another, and the thread of a wait started after a
// crash is joined, by the next crash or by close.
#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <mutex>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/c_api.h"
#include "common/log.h"
#include "common/seams.h"
#include "common/threads.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "state/state.h"

namespace state = appmgr::state;

namespace {

// The condition variable is created once per process, before the first
// connection can deliver a browser report, and never destroyed: a wait may
// still be blocked on it.
std::once_flag g_cond_once;
void ensure_cond_var() {
    std::call_once(g_cond_once, [] {
        pthread_condattr_init(&appmgr_condattr);
        pthread_condattr_setclock(&appmgr_condattr, CLOCK_MONOTONIC);
        pthread_cond_init(&appmgr_cond_var, &appmgr_condattr);
    });
}

// Guarded by appmgr_mutex.
unsigned long g_reports = 0;           // non-zero browser reports so far
unsigned long g_crashes = 0;           // browser crashes so far
unsigned long g_reports_at_crash = 0;  // g_reports when the last crash happened
int g_waits = 0;                       // waits in progress
bool g_closing = false;                // the library is closing: waits give up

// The thread of the wait started after a crash (joined by the next crash
// that needs a thread, or by stop_browser_waits).
std::mutex g_thread_mutex;
pthread_t g_wait_thread;
bool g_wait_thread_joinable = false;  // guarded by g_thread_mutex

void join_wait_thread_locked() {
    if (!g_wait_thread_joinable) return;
    pthread_join(g_wait_thread, nullptr);
    g_wait_thread_joinable = false;
}

timespec deadline_from_now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += appmgr::seams::browser_wait_seconds();
    return t;
}

// The wait itself, for a report after the first `reports`; appmgr_mutex is
// held on entry and on return.
int wait_locked(unsigned long reports) {
    unsigned long crashes = g_crashes;
    timespec deadline = deadline_from_now();
    for (;;) {
        if (g_crashes != crashes) {
            // The browser crashed again: wait for a report of the new one,
            // counted from the crash (it may have come before this thread
            // ran again), with a fresh deadline.
            crashes = g_crashes;
            reports = g_reports_at_crash;
            deadline = deadline_from_now();
        }
        if (g_reports != reports || state::library() == APP_MANAGER_SUSPENDED) {
            state::set_browser_running(true);
            return 1;
        }
        // The library is closing: give up without touching the browser.
        if (g_closing) return 0;
        AM_INFO("check if browser is already running");
        if (pthread_cond_timedwait(&appmgr_cond_var, &appmgr_mutex, &deadline) == ETIMEDOUT &&
            g_crashes == crashes && g_reports == reports)
            break;
    }
    // The state changes before the log line so that whoever reads the line
    // also sees the new state.
    state::set_library(APP_MANAGER_DEINITIALIZED);
    appmgr::seams::run_shell("busybox killall -9 hbbtv-web-browser");
    AM_ERROR("TIMEOUT: Browser was not started in expected time");
    return 0;
}

// Reports are counted from the crash, not from when this thread runs: the
// browser may have reconnected and reported in between.
void* wait_after_crash(void*) {
    appmgr::threads::StackWatch stack_watch(appmgr::threads::Kind::BrowserWait);
    pthread_mutex_lock(&appmgr_mutex);
    wait_locked(g_reports_at_crash);
    --g_waits;
    pthread_mutex_unlock(&appmgr_mutex);
    return nullptr;
}

}  // namespace

namespace appmgr::core {

int wait_for_browser() {
    ensure_cond_var();
    pthread_mutex_lock(&appmgr_mutex);
    ++g_waits;
    const int reported = wait_locked(g_reports);
    --g_waits;
    pthread_mutex_unlock(&appmgr_mutex);
    return reported;
}

void on_browser_state_report(int value) {
    if (value != 0) {
        // A browser that reports is running, also when its report comes
        // after a wait gave up: close must tear it down. Set before the
        // state and the log line, so whoever sees either sees it too.
        state::set_browser_running(true);
        state::set_library(APP_MANAGER_SUSPENDED);
        AM_INFO("app-man in web-browser SUSPENDED\n\n");
    } else {
        state::set_library(APP_MANAGER_DEINITIALIZED);
        AM_INFO("app-man in web-browser de-initialized\n\n");
    }
    ensure_cond_var();
    pthread_mutex_lock(&appmgr_mutex);
    if (value != 0) ++g_reports;
    pthread_cond_broadcast(&appmgr_cond_var);
    pthread_mutex_unlock(&appmgr_mutex);
}

void on_browser_crashed() {
    AM_INFO("Web browser crashed. Restarting...\n\n");
    hbbBindCurrentChannel();
    setVideoToFullscreen();
    state::set_library(APP_MANAGER_INITIALIZING);
    ensure_cond_var();

    pthread_mutex_lock(&appmgr_mutex);
    ++g_crashes;
    g_reports_at_crash = g_reports;
    const bool start_thread = g_waits == 0 && !g_closing;
    if (start_thread) ++g_waits;
    pthread_cond_broadcast(&appmgr_cond_var);  // a running wait re-arms
    pthread_mutex_unlock(&appmgr_mutex);
    if (!start_thread) return;

    std::lock_guard<std::mutex> lock(g_thread_mutex);
    // The thread of an earlier wait has ended (no wait is in progress) or
    // is about to: join it before its successor starts.
    join_wait_thread_locked();
    const int error = appmgr::threads::start(&g_wait_thread, appmgr::threads::Kind::BrowserWait,
                                             wait_after_crash, nullptr);
    g_wait_thread_joinable = error == 0;
    if (error != 0) {
        AM_ERROR("cannot start the browser wait thread (%d)", error);
        pthread_mutex_lock(&appmgr_mutex);
        --g_waits;
        pthread_mutex_unlock(&appmgr_mutex);
    }
}

void stop_browser_waits() {
    ensure_cond_var();
    pthread_mutex_lock(&appmgr_mutex);
    g_closing = true;
    pthread_cond_broadcast(&appmgr_cond_var);
    pthread_mutex_unlock(&appmgr_mutex);
    {
        std::lock_guard<std::mutex> lock(g_thread_mutex);
        join_wait_thread_locked();
    }
    pthread_mutex_lock(&appmgr_mutex);
    g_closing = false;
    pthread_mutex_unlock(&appmgr_mutex);
}

}  // namespace appmgr::core

extern "C" APPMGR_API int start_web_browser(void) {
    return appmgr::c_entry(__func__, 0, [] { return appmgr::core::wait_for_browser(); });
}
