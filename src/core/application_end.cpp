// How an application ends, and what starts after it.
//
// An application ends in one of three ways: the browser or the middleware
// destroys it by its ids (application_destroy: the broadcast comes back and
// the autostart application of the current AIT starts again, unless the
// library is shutting down), the table or a channel change kills it
// (kill_application: nothing starts in its place until the next table), or
// the browser cannot load it (handle_application_load_error: the entry is
// marked and another one is chosen). The library's own shut-down ends the
// running application through end_for_shutdown (lifecycle.cpp).
#include <string>

#include "app_mgr.h"
#include "common/decision.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "core/core_private.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
namespace core = appmgr::core;
using appmgr::protocol::Command;
using appmgr::records::entry_url;

namespace {

// The broadcast comes back before an application of the table starts.
void present_broadcast() {
    if (state::broadcast() == VBOS_STOPPED && state::active()) {
        hbbBindCurrentChannel();
        state::set_broadcast(VBOS_PRESENTING);
    }
}

// Starts the autostart entry of the current AIT in place of what runs;
// 1 when it started.
int restart_autostart(const AitTable& ait) {
    find_autostart_app(ait.apps, ait.app_lenght);
    const Application* chosen = state::autostart();
    if (chosen == nullptr) {
        AM_INFO("no autostart application available");
        return 0;
    }
    present_broadcast();
    AM_INFO("call send_command(CMD_DESTROY_APPLICATION, NULL)\n\n");
    appmgr::protocol::send(Command::DestroyApplication);
    setCheckPageTransparent(0);
    hbbStateChange(EN_HBB_OFF);
    core::Launch start;
    start.url = entry_url(*chosen);
    start.entry = chosen;
    start.kind = BROADCAST_RELATED;
    return core::launch(start);
}

// A load error in portal mode: the portal shows the page anyway (with its
// own error page inside it).
void show_portal_page_anyway(char* url) {
    core::finish_start(url, state::running_type() == BROADCAST_INDEPENDENT);
    application_show(0);
}

}  // namespace

namespace appmgr::core {

void destroy_running_application() {
    if (const Application* running = state::running())
        application_destroy(running->organisation_id, running->app_id);
}

void handle_load_error(const char* url) {
    // A copy: the recovery rewrites the start URL it may come from.
    std::string failed = url != nullptr ? url : "";
    handle_application_load_error(failed.data());
}

int restart() {
    state::ManagerLock lock;
    AM_INFO("Restarting application manager.appmgr_state:%d.", static_cast<int>(state::library()));
    AM_INFO("Restarting application manager.is_portal_mode:%d to 0", state::portal() ? 1 : 0);
    state::set_portal(false);
    if (!state::active()) {
        AM_INFO("Restarting application manager.appmgr_state is not init,so do hbbtv stop\n\n");
        application_manager_request_stop();
        return 0;
    }
    setKeySet(0, nullptr);
    const AitTable& ait = state::current_ait();
    if (ait.app_type == DTG_CTV_APPLICATION_TYPE && state::running() != nullptr) {
        destroy_running_application();
        return 0;
    }
    if (ait.app_lenght > 0) {
        if (restart_autostart(ait)) return 1;
    } else {
        AM_INFO("No applications found");
        setKeySet(0, nullptr);
    }
    if (state::running() != nullptr) {
        destroy_running_application();
        setKeySet(0, nullptr);
    }
    return 0;
}

void end_for_shutdown() {
    if (state::running() != nullptr) {
        state::set_deinit_in_progress(true);
        destroy_running_application();
    }
    state::set_deinit_in_progress(false);
}

void on_exit_key() {
    if (hbbExitKeyHandle() == 0) restartApplication();
}

}  // namespace appmgr::core

extern "C" {

void application_manager_request_stop(void) { appmgr::core::ask_middleware(false); }

void handle_application_load_error(char* app_url) {
    AM_DECISION(AM_LOG_INFO, decision::at(decision::Kind::LoadError, app_url),
                "FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
    if (app_url == nullptr) return;
    if (state::portal()) {
        AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
        show_portal_page_anyway(app_url);
        return;
    }
    // The failed entry is not tried again until the next accepted table.
    int index = state::find_entry(app_url);
    if (index < 0) index = core::entry_being_started();
    state::mark_entry_failed(index);
    if (state::running() == nullptr) {
        AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
        const AitTable& ait = state::current_ait();
        find_autostart_app(ait.apps, ait.app_lenght);
        if (state::autostart() != nullptr) core::start_autostart_app();
        return;
    }
    AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
    if (const Application* failed = state::current_entry(index)) {
        // Another transport of the same application may still be taken.
        URIInfo info{};
        info.org_id = failed->organisation_id;
        info.app_id = failed->app_id;
        if (load_app_from_current_ait(info)) return;
    }
    application_load_error();
}

void application_load_error(void) { appmgr::protocol::send(Command::ApplicationLoadError); }

int restartApplication(void) {
    state::ManagerLock lock;
    AM_INFO(" Now retart Application\n\n");
    return core::restart();
}

void application_destroy(int orgid, int appid) {
    state::ManagerLock lock;
    const Application* running = state::running();
    if (running == nullptr) {
        AM_WARN("Application is not running! Ignoring destroy command\n");
        return;
    }
    AM_INFO("Destroying application...\n");
    AM_INFO("running_application: %d %d \n\n", running->organisation_id, running->app_id);
    AM_INFO("Received destroy for: %d %d \n\n", orgid, appid);
    setApplicationActivate(0);
    if (running->organisation_id != orgid || running->app_id != appid) {
        AM_INFO("Ignoring destroy command\n");
        return;
    }
    state::clear_running();
    if (state::broadcast() == VBOS_STOPPED) {
        tune_to_current_channel();
        state::set_broadcast(VBOS_PRESENTING);
    }
    setKeySet(0, nullptr);
    int restarted = 0;
    if (!state::deinit_in_progress() && state::current_ait().app_type == HBBTV_APPLICATION_TYPE)
        restarted = core::restart();
    if (!restarted) application_manager_request_stop();
}

void kill_application(void) {
    state::ManagerLock lock;
    setApplicationActivate(0);
    application_manager_request_stop();
    state::clear_running();
    state::set_running_type(BROADCAST_RELATED);
    hbbBindCurrentChannel();
    setVideoToFullscreen();
    setKeySet(0, nullptr);
}

void tune_to_current_channel(void) {
    Channel* channel = channel_create();
    if (channel == nullptr) return;
    getCurrentChannelData(channel);
    hbbSetChannel(channel, 2);
    channel_destroy(channel);
}

// ---- exported ----

APPMGR_API int application_manager_cmd_stop(void) {
    return appmgr::c_entry(__func__, 0, [] {
        appmgr::protocol::send(Command::DestroyApplication);
        setCheckPageTransparent(0);
        hbbStateChange(EN_HBB_OFF);
        setKeySet(0, nullptr);
        return 1;
    });
}

}  // extern "C"
