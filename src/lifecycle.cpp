// Start-up, suspension, restart and close of the library: the order in
// which the modules are brought up and torn down, and what each state
// change does to the running application.
#include "lifecycle.h"

#include <unistd.h>

#include <atomic>

#include "ait/ait.h"
#include "app_mgr.h"
#include "app_mgr_stream_events.h"
#include "common/log.h"
#include "common/seams.h"
#include "connection/connection.h"
#include "core/core.h"
#include "epg/epg.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace appmgr::lifecycle {
namespace {

// The connections stay up after a start whose browser never reported, so
// that a later start only waits again.
std::atomic<bool> g_messaging_up{false};

void close_messaging() {
    if (!g_messaging_up.exchange(false)) return;
    tools_msg_close(&connection::connections());
    core::stop_browser_waits();
}

// The first start: guard, EPG search, current AIT, connections, the wait
// for the browser. 0 when messaging cannot be brought up.
int first_start() {
    if (!initAitGuard()) {
        AM_ERROR("Initialization error - initAitGuard fail !!!");
        return 0;
    }
    state::set_library(APP_MANAGER_INITIALIZING);
    state::init_semaphore();
    AM_INFO("Application manager initialization...");
    if (initializeEPGExternal() == 0) state::set_epg_initialized(true);
    init_current_ait();
    initializeStreamEventsUtil();
    connection::set_browser_lost_handler(core::on_browser_crashed);
    if (!g_messaging_up) {
        if (tools_msg_init(&connection::connections(), 0, nullptr) != RET_OK) {
            AM_ERROR("Initialization error!!!");
            state::set_library(APP_MANAGER_DEINITIALIZED);
            return 0;
        }
        g_messaging_up = true;
        if (tools_msg_connect(&connection::connections()) != RET_OK) {
            AM_ERROR("Connection error!!!");
            close_messaging();
            state::set_library(APP_MANAGER_DEINITIALIZED);
            return 0;
        }
    }
    // A time-out has already put the state back to de-initialised; start-up
    // goes on regardless.
    core::wait_for_browser();
    if (access(seams::tessel_marker().c_str(), R_OK) == 0) {
        AM_INFO("\nNow is TESSEL TEST\n\n");
        state::set_tessel(true);
    }
    return 1;
}

}  // namespace

int init() {
    switch (state::library()) {
        case APP_MANAGER_SUSPENDED: {
            AM_INFO("\nCurrent appmgr_state is SUSPENDED\n\n");
            state::set_library(APP_MANAGER_INITIALIZED);
            state::ManagerLock lock;
            runAutostartApplication(const_cast<AitTable*>(&state::current_ait()));
            return 1;
        }
        case APP_MANAGER_INITIALIZED:
            AM_INFO("\nCurrent appmgr_state is INITIALIZED,so return\n\n");
            return 1;
        case APP_MANAGER_DEINITIALIZED:
            if (!first_start()) return 0;
            break;
        case APP_MANAGER_INITIALIZING: break;
    }
    if (QUMAm_Broadcast_SubscribeForAIT(aitUpdate) != 0)
        AM_ERROR("Application-manager: QUMAm_Broadcast_SubscribeForAIT ERROR");
    QUMAm_Broadcast_NetworkStatusChangeCallback(sendNetworkStatus);
    QUMAm_DSMCCModuleDataChangeCallback(send_dsmcc_module_date_update_msg);
    AM_INFO("Application-manager initialized");
    return 1;
}

int deinit() {
    AM_INFO("Call applicationManagerDeInit \n\n");
    state::ManagerLock lock;
    setKeySet(0, nullptr);
    protocol::send(protocol::Command::HideApplication);
    AM_INFO("applicationManagerDeInit-->going to set appmgr_state = APP_MANAGER_SUSPENDED\n\n");
    state::set_library(APP_MANAGER_SUSPENDED);
    state::set_portal(false);
    if (state::running() != nullptr)
        AM_INFO("Call applicationManagerDeInit application_manager_request_stop\n\n");
    core::end_for_shutdown();
    return 1;
}

int restart() { return core::restart(); }

int close() {
    if (state::library() == APP_MANAGER_DEINITIALIZED) return 1;
    state::set_library(APP_MANAGER_DEINITIALIZED);
    if (!state::browser_running()) {
        AM_WARN("Web browser is not running");
        return 0;
    }
    AM_INFO("Closing Web Browser...");
    protocol::send_text(protocol::Command::CloseBrowser, "");
    AM_INFO("Web Browser closed...");
    // Not under the manager lock across close_messaging: that joins the
    // receive threads, which may be waiting for the lock.
    {
        state::ManagerLock lock;
        core::end_for_shutdown();
    }
    close_messaging();
    state::set_browser_running(false);
    clear_current_ait();
    deinitializeStreamEventsUtil();
    if (state::epg_initialized()) {
        deinitializeEPGExternal();
        state::set_epg_initialized(false);
    }
    if (!deinitAitGuard()) {
        AM_ERROR("Deinitialization error - deinitAitGuard fail !!!");
        return 0;
    }
    AM_INFO("ApplicationManager closed");
    return 1;
}

}  // namespace appmgr::lifecycle
