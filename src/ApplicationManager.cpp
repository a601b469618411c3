// The library's front door: start-up, activation, suspension, restart and
// close of the application manager, the wait for the browser process, the
// User-Agent store and the time-zone notification.
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "ait/ait_guard.h"
#include "common/atomic_state.h"
#include "common/log.h"
#include "common/seams.h"
#include "core/core_internal.h"
#include "hbb_platform.h"
#include "lifecycle_internal.h"
#include "lifecycle_user_agent.h"

extern "C" {
APPMGR_API AppMgrState appmgr_state = APP_MANAGER_DEINITIALIZED;
APPMGR_API pthread_mutex_t appmgr_mutex = PTHREAD_MUTEX_INITIALIZER;
APPMGR_API pthread_cond_t appmgr_cond_var;
APPMGR_API pthread_condattr_t appmgr_condattr;
APPMGR_API int webkit_running = 0;
APPMGR_API int is_deinit = 0;
APPMGR_API int is_portal_mode = 0;
APPMGR_API int is_tessel = 0;
APPMGR_API int epgExternalsInitialized = 0;
APPMGR_API sem_t sem;
APPMGR_API char activeAMUserAgent[4096];
APPMGR_API int activeAMUserAgentSet = 0;
APPMGR_API GlobalData_t gData;
}

namespace appmgr::lifecycle {
namespace {

constexpr const char* kDefaultUserAgent =
    "Mozilla/5.0 (X11;Linux x86_64;ZORVANEXQTL)(KHTML, like Gecko)Safari/534.24 ";

// The condition variable is created once per process, before the first
// connection can deliver a browser report, and never destroyed: a restarted
// wait may still be blocked on it.
std::once_flag g_cond_once;
void ensure_cond_var() {
    std::call_once(g_cond_once, [] {
        pthread_condattr_init(&appmgr_condattr);
        pthread_condattr_setclock(&appmgr_condattr, CLOCK_MONOTONIC);
        pthread_cond_init(&appmgr_cond_var, &appmgr_condattr);
    });
}

// Browser waits started after a crash of the browser. They are woken and
// joined when the library closes, so none outlives the messaging it serves.
std::mutex g_waiters_mutex;
std::vector<pthread_t> g_waiters;
bool g_closing = false;  // guarded by appmgr_mutex
bool g_messaging_up = false;

void* browser_wait_thread(void*) {
    start_web_browser();
    return nullptr;
}

void stop_browser_waits() {
    pthread_mutex_lock(&appmgr_mutex);
    g_closing = true;
    pthread_cond_broadcast(&appmgr_cond_var);
    pthread_mutex_unlock(&appmgr_mutex);

    std::vector<pthread_t> waiters;
    {
        std::lock_guard<std::mutex> lock(g_waiters_mutex);
        waiters.swap(g_waiters);
    }
    for (pthread_t t : waiters) pthread_join(t, nullptr);

    pthread_mutex_lock(&appmgr_mutex);
    g_closing = false;
    pthread_mutex_unlock(&appmgr_mutex);
}

void close_messaging() {
    if (!g_messaging_up) return;
    tools_msg_close(&gData);
    g_messaging_up = false;
    stop_browser_waits();
}

// The User-Agent buffer is written by the middleware and read by the
// browser's requests on another thread.
std::mutex g_user_agent_mutex;

void destroy_running_application() {
    if (running_application != nullptr)
        application_destroy(running_application->organisation_id, running_application->app_id);
}

}  // namespace

void on_browser_crashed() {
    AM_INFO("Web browser crashed. Restarting...\n\n");
    hbbBindCurrentChannel();
    setVideoToFullscreen();
    set_library_state(APP_MANAGER_INITIALIZING);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, browser_wait_thread, nullptr) != 0) {
        AM_ERROR("cannot start the browser wait thread");
        return;
    }
    std::lock_guard<std::mutex> lock(g_waiters_mutex);
    g_waiters.push_back(thread);
}

void on_browser_state_report(int value) {
    if (value != 0) {
        set_library_state(APP_MANAGER_SUSPENDED);
        AM_INFO("app-man in web-browser SUSPENDED\n\n");
    } else {
        set_library_state(APP_MANAGER_DEINITIALIZED);
        AM_INFO("app-man in web-browser de-initialized\n\n");
    }
    ensure_cond_var();
    pthread_mutex_lock(&appmgr_mutex);
    // Every wait re-checks the state, so waking all of them is safe.
    pthread_cond_broadcast(&appmgr_cond_var);
    pthread_mutex_unlock(&appmgr_mutex);
}

std::string user_agent_copy(bool* available) {
    std::lock_guard<std::mutex> lock(g_user_agent_mutex);
    *available = atomic_get(activeAMUserAgentSet) != 0;
    return *available ? std::string(activeAMUserAgent) : std::string();
}

std::string expand_user_agent(const char* ua) {
    // The text used to be written with itself as the print format and no
    // arguments. The defined part of that is kept ("%%" becomes "%"); any
    // other '%' is copied as it stands instead of reading arguments that do
    // not exist.
    std::string out;
    for (const char* p = ua; *p != '\0'; ++p) {
        out.push_back(*p);
        if (p[0] == '%' && p[1] == '%') ++p;
    }
    return out;
}

}  // namespace appmgr::lifecycle

using namespace appmgr;
using namespace appmgr::lifecycle;
using appmgr::AitGuardScope;

extern "C" {

APPMGR_API int start_web_browser(void) {
    ensure_cond_var();
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seams::browser_wait_seconds();

    pthread_mutex_lock(&appmgr_mutex);
    for (;;) {
        if (library_state() == APP_MANAGER_SUSPENDED) {
            pthread_mutex_unlock(&appmgr_mutex);
            atomic_set(webkit_running, 1);
            return 1;
        }
        if (g_closing) {
            // The library is closing: give up without touching the browser.
            pthread_mutex_unlock(&appmgr_mutex);
            return 0;
        }
        AM_INFO("check if browser is already running");
        if (pthread_cond_timedwait(&appmgr_cond_var, &appmgr_mutex, &deadline) == ETIMEDOUT) break;
    }
    // The state changes before the log line so that whoever reads the line
    // also sees the new state.
    set_library_state(APP_MANAGER_DEINITIALIZED);
    seams::run_shell("busybox killall -9 hbbtv-web-browser");
    AM_ERROR("TIMEOUT: Browser was not started in expected time");
    pthread_mutex_unlock(&appmgr_mutex);
    return 0;
}

APPMGR_API int applicationManagerInit(void) {
    switch (library_state()) {
        case APP_MANAGER_SUSPENDED:
            AM_INFO("\nCurrent appmgr_state is SUSPENDED\n\n");
            set_library_state(APP_MANAGER_INITIALIZED);
            if (!lockAitGuard()) {
                AM_ERROR("Error: lockAitGuard failed !");
                return 0;
            }
            runAutostartApplication(&current_ait);
            if (!unlockAitGuard()) {
                AM_ERROR("Error: unlockAitGuard failed !");
                return 0;
            }
            return 1;
        case APP_MANAGER_INITIALIZED:
            AM_INFO("\nCurrent appmgr_state is INITIALIZED,so return\n\n");
            return 1;
        case APP_MANAGER_DEINITIALIZED:
            if (!initAitGuard()) {
                AM_ERROR("Initialization error - initAitGuard fail !!!");
                return 0;
            }
            set_library_state(APP_MANAGER_INITIALIZING);
            sem_init(&sem, 0, 0);
            AM_INFO("Application manager initialization...");
            if (initializeEPGExternal() == 0) epgExternalsInitialized = 1;
            init_current_ait();
            ensure_cond_var();
            // After a start whose browser never reported, the connections are
            // still up and serving: a new start only waits again.
            if (!g_messaging_up) {
                if (tools_msg_init(&gData, 0, nullptr) != RET_OK) {
                    AM_ERROR("Initialization error!!!");
                    set_library_state(APP_MANAGER_DEINITIALIZED);
                    return 0;
                }
                g_messaging_up = true;
                if (tools_msg_connect(&gData) != RET_OK) {
                    AM_ERROR("Connection error!!!");
                    close_messaging();
                    set_library_state(APP_MANAGER_DEINITIALIZED);
                    return 0;
                }
            }
            // A time-out has already put the state back to de-initialised;
            // start-up goes on regardless.
            start_web_browser();
            if (access(seams::tessel_marker().c_str(), R_OK) == 0) {
                AM_INFO("\nNow is TESSEL TEST\n\n");
                is_tessel = 1;
            }
            break;
        case APP_MANAGER_INITIALIZING:
            break;
    }
    if (QUMAm_Broadcast_SubscribeForAIT(aitUpdate) != 0)
        AM_ERROR("Application-manager: QUMAm_Broadcast_SubscribeForAIT ERROR");
    QUMAm_Broadcast_NetworkStatusChangeCallback(sendNetworkStatus);
    QUMAm_DSMCCModuleDataChangeCallback(send_dsmcc_module_date_update_msg);
    AM_INFO("Application-manager initialized");
    return 1;
}

APPMGR_API int applicationManagerDeInit(void) {
    AM_INFO("Call applicationManagerDeInit \n\n");
    setKeySet(0, nullptr);
    send_command(54, nullptr);
    AM_INFO("applicationManagerDeInit-->going to set appmgr_state = APP_MANAGER_SUSPENDED\n\n");
    set_library_state(APP_MANAGER_SUSPENDED);
    is_portal_mode = 0;
    {
        // The running record is judged and ended under the AIT guard, like
        // every other change of it.
        AitGuardScope guard;
        if (running_application != nullptr) {
            is_deinit = 1;
            AM_INFO("Call applicationManagerDeInit application_manager_request_stop\n\n");
            destroy_running_application();
        }
        is_deinit = 0;
    }
    return 1;
}

APPMGR_API int applicationManagerRestart(void) {
    AM_INFO("Restarting application manager.appmgr_state:%d.", static_cast<int>(library_state()));
    AM_INFO("Restarting application manager.is_portal_mode:%d to 0", is_portal_mode);
    is_portal_mode = 0;
    if (library_state() != APP_MANAGER_INITIALIZED) {
        AM_INFO("Restarting application manager.appmgr_state is not init,so do hbbtv stop\n\n");
        application_manager_request_stop();
        return 0;
    }
    setKeySet(0, nullptr);
    AitGuardScope guard;
    if (current_ait.app_type == DTG_CTV_APPLICATION_TYPE && running_application != nullptr) {
        destroy_running_application();
        return 0;
    }
    if (current_ait.app_lenght > 0) {
        find_autostart_app(current_ait.apps, current_ait.app_lenght);
        if (autostart_app != nullptr) {
            if (current_broadcast_state == VBOS_STOPPED &&
                library_state() == APP_MANAGER_INITIALIZED) {
                hbbBindCurrentChannel();
                current_broadcast_state = VBOS_PRESENTING;
            }
            running_application_type = BROADCAST_RELATED;
            AM_INFO("call send_command(CMD_DESTROY_APPLICATION, NULL)\n\n");
            send_command(51, nullptr);
            setCheckPageTransparent(0);
            hbbStateChange(EN_HBB_OFF);
            if (autostart_app->transport_protocol != nullptr &&
                application_create(autostart_app->transport_protocol->url)) {
                update_running_application(autostart_app);
                return 1;
            }
        } else {
            AM_INFO("no autostart application available");
        }
    } else {
        AM_INFO("No applications found");
        setKeySet(0, nullptr);
    }
    if (running_application != nullptr) {
        destroy_running_application();
        setKeySet(0, nullptr);
    }
    return 0;
}

APPMGR_API int applicationManagerClose(void) {
    if (library_state() == APP_MANAGER_DEINITIALIZED) return 1;
    set_library_state(APP_MANAGER_DEINITIALIZED);
    if (!atomic_get(webkit_running)) {
        AM_WARN("Web browser is not running");
        return 0;
    }
    AM_INFO("Closing Web Browser...");
    char empty[] = "";
    send_command(160, empty);
    AM_INFO("Web Browser closed...");
    {
        // Not held across close_messaging: that joins the receive threads,
        // which may be waiting for the guard.
        AitGuardScope guard;
        if (running_application != nullptr) {
            is_deinit = 1;
            destroy_running_application();
        }
    }
    close_messaging();
    atomic_set(webkit_running, 0);
    clear_current_ait();
    is_deinit = 0;
    if (epgExternalsInitialized) {
        deinitializeEPGExternal();
        epgExternalsInitialized = 0;
    }
    if (!deinitAitGuard()) {
        AM_ERROR("Deinitialization error - deinitAitGuard fail !!!");
        return 0;
    }
    AM_INFO("ApplicationManager closed");
    return 1;
}

APPMGR_API void ctrlc_handler(void) {
    seams::run_shell("killall -SIGQUIT hbbtv-web-browser");
    AM_INFO("Web Browser closed...");
    AM_INFO("ApplicationManager closed");
    seams::exit_process(0);
}

APPMGR_API int setAMUserAgent(char* ua) {
    if (ua == nullptr) {
        AM_ERROR("setAMUserAgent error - invalid argument");
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(g_user_agent_mutex);
        if (std::strlen(ua) < sizeof(activeAMUserAgent)) {
            std::string text = expand_user_agent(ua);
            std::memcpy(activeAMUserAgent, text.c_str(), text.size() + 1);
            AM_INFO("UserAgent = %s", activeAMUserAgent);
        } else {
            std::memcpy(activeAMUserAgent, kDefaultUserAgent, std::strlen(kDefaultUserAgent) + 1);
        }
        atomic_set(activeAMUserAgentSet, 1);
    }
    return 1;
}

APPMGR_API char* getAMUserAgent(void) {
    if (!atomic_get(activeAMUserAgentSet)) return nullptr;
    AM_INFO("UserAgent = %s\n\n", activeAMUserAgent);
    return activeAMUserAgent;
}

APPMGR_API int setTimeZone(int polarity, int hour, int minute) {
    // 13 bytes hold "UTC+hh:mm:00"; larger numbers are cut, never overflow.
    char zone[13] = {0};
    if (polarity == 1)
        std::snprintf(zone, sizeof(zone), "UTC-%02d:%02d:00", hour, minute);
    else if (polarity == 0)
        std::snprintf(zone, sizeof(zone), "UTC+%02d:%02d:00", hour, minute);
    return send_command(141, zone);
}

}  // extern "C"
