// Starting and ending applications: the one launch path, application_create
// (probing, carousel entries, current-AIT locators, relative URLs), destroy,
// kill, restart, load-error recovery, show/hide, the running record and the
// one-line notifications to the browser.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "core/core_private.h"
#include "dsmcc/dsmcc.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace core = appmgr::core;
using appmgr::protocol::Command;
using appmgr::records::entry_url;

namespace {

constexpr const char* kNoBoundary = "no boundary";

// Starts nest: a load error chooses and starts another entry from inside
// the failed start. Each failed entry is marked, so a chain ends with the
// table; the depth limit is a second stop for tables that point at each
// other in ways the marks do not catch.
constexpr int kMaxNestedStarts = 16;
thread_local int t_start_depth = 0;
thread_local int t_starting_entry = -1;

class NestedStart {
public:
    NestedStart() { ++t_start_depth; }
    ~NestedStart() { --t_start_depth; }
    NestedStart(const NestedStart&) = delete;
    NestedStart& operator=(const NestedStart&) = delete;
    bool allowed() const { return t_start_depth <= kMaxNestedStarts; }
};

class EntryBeingStarted {
public:
    explicit EntryBeingStarted(int index) : saved_(t_starting_entry) { t_starting_entry = index; }
    ~EntryBeingStarted() { t_starting_entry = saved_; }
    EntryBeingStarted(const EntryBeingStarted&) = delete;
    EntryBeingStarted& operator=(const EntryBeingStarted&) = delete;

private:
    int saved_;
};

// Index of `entry` in the current AIT, or -1 when it belongs to another table.
int current_index_of(const Application* entry) {
    const AitTable& current = state::current_ait();
    if (entry == nullptr || current.apps == nullptr) return -1;
    if (entry < current.apps || entry >= current.apps + current.app_lenght) return -1;
    return static_cast<int>(entry - current.apps);
}

// Broadcaster portal pages are started without a probe: their servers are
// known to answer and probing them would only delay the red-button page.
constexpr const char* kPortalOrigins[] = {
    "http://www.live.bbctvapps.co.uk/",  "https://www.live.bbctvapps.co.uk/",
    "http://www.test.bbctvapps.co.uk/",  "https://www.test.bbctvapps.co.uk/",
};

int create_broadband(char* url, int type) {
    AM_INFO("Http or file protocol found!\n");
    if (type == HTTP_URL) {
        if (state::network() == NETWORK_CHECKING) {
            // Held until the network state is known; the autostart runs
            // again then.
            AM_INFO("network_status:%d is checking, hold Http App util network ok\n",
                    static_cast<int>(state::network()));
            return 0;
        }
        if (core::is_portal_origin(url) || state::portal()) {
            AM_INFO("application_create is in bbc RB+ , do not probe ,url:[%s]\n\n", url);
        } else {
            AM_INFO("Detected Http App\n");
            if (probe_http_app(url) == 0) {
                AM_INFO(" Http App probing failed !!!\n");
                handle_application_load_error(url);
                return 0;
            }
        }
    }
    core::hand_to_browser(url);
    if (state::running_type() == BROADCAST_INDEPENDENT) {
        core::stop_broadcast();
        appmgr::protocol::send_text(Command::SetBoundary, kNoBoundary);
        update_running_application_as_independent(url);
    }
    state::set_loaded_url("");
    return 1;
}

int create_carousel(char* url) {
    AM_INFO("Mounting carousel for url:[%s]\n", url);
    switch (hbbCheckDSMCCExist(url)) {
        case eHBBTV_FS_CHECK_BREAK_TYPE:
            AM_INFO("hbbCheckDSMCCEntryType break\n\n");
            return 0;
        case eHBBTV_FS_CHECK_INVALID_TYPE:
            AM_INFO("hbbCheckDSMCCEntryType failed\n\n");
            if (!state::portal()) handle_application_load_error(url);
            return 0;
        default: break;
    }
    AM_INFO("Mounting carousel successful.url:[%s]\n\n", url);
    if (state::portal()) return 0;
    core::hand_to_browser(url);
    state::set_loaded_url("");
    return 1;
}

// A relative URL, resolved against the page last loaded.
int create_relative(const char* url) {
    AM_INFO("Relative url found\n");
    std::string base = state::loaded_url();
    const auto slash = base.rfind('/');
    if (slash == std::string::npos) {
        AM_ERROR("Full URL: %s is not a good url\n", base.c_str());
        return 0;
    }
    // Past a scheme's "://" the base is cut after its last "/".
    if (slash > 7) {
        base.resize(slash + 1);
        AM_INFO("Base URL: %s\n", base.c_str());
    }
    char full[2048];
    std::snprintf(full, sizeof(full), "%s%s", base.c_str(), url);
    AM_INFO("Full URL: %s\n", full);
    // A base of no known form would give another relative URL to resolve
    // against the same base, without end.
    const int type = check_url_type(full);
    if (type == UNKNOWN_URL_TYPE || type == XML_AIT_FILE) {
        AM_ERROR("Full URL: %s cannot be started\n", full);
        return 0;
    }
    return handle_url(full);
}

}  // namespace

namespace appmgr::core {

bool is_portal_origin(const char* url) {
    if (url == nullptr) return false;
    for (const char* origin : kPortalOrigins)
        if (std::strncmp(url, origin, std::strlen(origin)) == 0) return true;
    return false;
}

void stop_broadcast() {
    hbbStopChannel();
    state::set_broadcast(VBOS_STOPPED);
}

void hand_to_browser(const char* url) {
    state::set_start_url(url);
    application_manager_request_start();
}

const char* boundary_of(const Application& entry) {
    return entry.app_boundary != nullptr ? entry.app_boundary : kNoBoundary;
}

int entry_being_started() { return t_starting_entry; }

int launch(const Launch& request) {
    if (request.url == nullptr) return 0;
    // The start may replace the table the entry lives in (an XML AIT
    // empties the current AIT), so it works on copies.
    std::string url = request.url;
    records::ApplicationPtr entry;
    if (request.entry != nullptr) {
        entry = records::copy_application(*request.entry);
        if (entry == nullptr) {
            AM_ERROR("out of memory starting %s\n", url.c_str());
            return 0;
        }
    }
    const std::string boundary = request.boundary != nullptr ? request.boundary : "";
    EntryBeingStarted starting(current_index_of(request.entry));

    if (request.kind != INVALID_APPLICATION_TYPE) state::set_running_type(request.kind);
    if (request.boundary != nullptr) protocol::send_text(Command::SetBoundary, boundary.c_str());
    if (request.checked) {
        if (!application_create(url.data())) return 0;
    } else {
        hand_to_browser(url.c_str());
    }
    if (entry != nullptr) {
        update_running_application(entry.get());
    } else if (!request.checked) {
        update_running_application_as_independent(url.data());
        stop_broadcast();
    }
    state::set_loaded_url("");
    return 1;
}

void start_autostart_app() {
    const Application* chosen = state::autostart();
    if (chosen == nullptr) return;
    Launch start;
    start.url = entry_url(*chosen);
    start.entry = chosen;
    start.boundary = boundary_of(*chosen);
    start.kind = BROADCAST_RELATED;
    launch(start);
}

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
        find_autostart_app(ait.apps, ait.app_lenght);
        if (const Application* chosen = state::autostart()) {
            if (state::broadcast() == VBOS_STOPPED && state::active()) {
                hbbBindCurrentChannel();
                state::set_broadcast(VBOS_PRESENTING);
            }
            AM_INFO("call send_command(CMD_DESTROY_APPLICATION, NULL)\n\n");
            protocol::send(Command::DestroyApplication);
            setCheckPageTransparent(0);
            hbbStateChange(EN_HBB_OFF);
            Launch start;
            start.url = entry_url(*chosen);
            start.entry = chosen;
            start.kind = BROADCAST_RELATED;
            if (launch(start)) return 1;
        } else {
            AM_INFO("no autostart application available");
        }
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

void deinit() {
    AM_INFO("Call applicationManagerDeInit \n\n");
    state::ManagerLock lock;
    setKeySet(0, nullptr);
    protocol::send(Command::HideApplication);
    AM_INFO("applicationManagerDeInit-->going to set appmgr_state = APP_MANAGER_SUSPENDED\n\n");
    state::set_library(APP_MANAGER_SUSPENDED);
    state::set_portal(false);
    if (state::running() != nullptr) {
        state::set_deinit_in_progress(true);
        AM_INFO("Call applicationManagerDeInit application_manager_request_stop\n\n");
        destroy_running_application();
    }
    state::set_deinit_in_progress(false);
}

void end_for_close() {
    state::ManagerLock lock;
    if (state::running() != nullptr) {
        state::set_deinit_in_progress(true);
        destroy_running_application();
    }
    state::set_deinit_in_progress(false);
}

void on_exit_key() {
    if (hbbExitKeyHandle() == 0) restartApplication();
}

void on_application_activated() {
    setApplicationActivate(1);
    setActivateKeySet();
}

}  // namespace appmgr::core

extern "C" {

void setCheckPageTransparent(int mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", mode);
    appmgr::protocol::send_text(Command::PageTransparencyCheck, text);
}

void setApplicationActivate(unsigned int bIsActivate) {
    state::set_activated(bIsActivate == 1U);
    AM_INFO("setApplicationActivate bIsApplicationActivated = %u\n", bIsActivate);
}

void application_manager_request_start(void) {
    const application_mngr_callback_item_t callbacks = state::callbacks();
    if (callbacks.enable_flag == 1 && callbacks.hbbtv_start_app_callback != nullptr) {
        hbbIsAllowStopChannel(1);
        callbacks.hbbtv_start_app_callback();
    }
}

void application_manager_request_stop(void) {
    const application_mngr_callback_item_t callbacks = state::callbacks();
    if (callbacks.enable_flag == 1 && callbacks.hbbtv_stop_app_callback != nullptr) {
        hbbIsAllowStopChannel(0);
        callbacks.hbbtv_stop_app_callback();
    }
}

int application_create(char* param_url) {
    if (param_url == nullptr) {
        AM_ERROR("param_url is NULL\n");
        return 0;
    }
    NestedStart nested;
    if (!nested.allowed()) {
        AM_ERROR("application starts nested %d deep: %s not started\n", t_start_depth, param_url);
        return 0;
    }
    // Longer URLs are cut to 1023 characters; every later step uses the copy.
    char url[1024];
    std::snprintf(url, sizeof(url), "%s", param_url);
    AM_INFO("int application_create(%s) CALLED!\n", url);
    const int type = check_url_type(url);
    switch (type) {
        case HTTP_URL:
        case FILE_URL: return create_broadband(url, type);
        case DVB_URL: return create_carousel(url);
        case DVB_CURRENT_URL: {
            AM_INFO("DVB_CURRENT_URL found!\n");
            const int found = find_app_from_ait(url);
            if (found == 0) handle_application_load_error(url);
            return found;
        }
        default: return create_relative(url);
    }
}

void handle_application_load_error(char* app_url) {
    AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
    if (app_url == nullptr) return;
    if (state::portal()) {
        AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
        core::hand_to_browser(app_url);
        if (state::running_type() == BROADCAST_INDEPENDENT) core::stop_broadcast();
        state::set_loaded_url("");
        application_show(0);
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

void update_running_application(Application* a) {
    if (a == nullptr) return;
    if (entry_url(*a) == nullptr) {
        appmgr::protocol::send_text(Command::StartApplication, "about:blank");
        return;
    }
    if (!state::set_running(*a)) {
        AM_ERROR("out of memory copying the running application\n");
        return;
    }
    if (a->control_code == PRESENT) setApplicationActivate(1);
}

void update_running_application_as_independent(char* uri) {
    if (uri != nullptr && !state::set_running_independent(uri))
        AM_ERROR("out of memory recording the running application\n");
}

void application_switch_to_independent(void) {
    hbbStopChannel();
    if (state::tessel()) state::clear_current_ait();
    setApplicationActivate(1);
    state::set_running_type(BROADCAST_INDEPENDENT);
    state::set_broadcast(VBOS_STOPPED);
}

void tune_to_current_channel(void) {
    Channel* channel = channel_create();
    if (channel == nullptr) return;
    getCurrentChannelData(channel);
    hbbSetChannel(channel, 2);
    channel_destroy(channel);
}

void application_show(int is_css) {
    const bool portal = state::portal();
    const int saver = state::screen_saver();
    AM_INFO(" application_show ,is_css = %d,screen_saver =%d,is_portal_mode = %d", is_css, saver,
            portal ? 1 : 0);
    if (hbbGetState() == EN_HBB_FULLSCREEN_VOD) {
        AM_INFO("old state is EN_HBB_FULLSCREEN_VOD,so don't change\n");
        return;
    }
    if (is_css != 0 || saver == 0 || portal) hbbStateChange(EN_HBB_FULLSCREEN_NO_VOD);
    if (is_css == 0) {
        state::set_visible(true);
        restoreCoordinates();
        appmgr::protocol::send(Command::ShowApplication);
        setCheckPageTransparent(saver && !portal ? 1 : 0);
    }
}

void application_hide(int is_css) {
    AM_INFO(" application_hide ,is_css = %d", is_css);
    if (hbbGetState() == EN_HBB_FULLSCREEN_VOD) {
        AM_INFO("old state is EN_HBB_FULLSCREEN_VOD,so don't change\n");
        return;
    }
    hbbStateChange(EN_HBB_RED_BUTTON);
    AM_INFO(" application hidden... is_css = %d\n", is_css);
    if (is_css == 0) {
        state::set_visible(false);
        setVideoToFullscreen();
        appmgr::protocol::send(Command::HideApplication);
        setCheckPageTransparent(0);
    }
}

// ---- exported ----

APPMGR_API void application_manager_register(application_mngr_callback start,
                                             application_mngr_callback stop) {
    state::register_callbacks(start, stop);
}

APPMGR_API int application_manager_cmd_start(void) {
    return appmgr::c_entry(__func__, 0, [] {
        state::ManagerLock lock;
        const bool portal = state::portal();
        AM_INFO("call application_manager_cmd_start,is_portal_mode=%d\n\n", portal ? 1 : 0);
        if (!portal) {
            appmgr::protocol::send_text(Command::StartApplication, state::start_url());
            hbbStateChange(EN_HBB_RED_BUTTON);
        } else {
            appmgr::protocol::send_text(Command::StartPortal, state::start_url());
        }
        return 1;
    });
}

APPMGR_API int application_manager_cmd_stop(void) {
    return appmgr::c_entry(__func__, 0, [] {
        appmgr::protocol::send(Command::DestroyApplication);
        setCheckPageTransparent(0);
        hbbStateChange(EN_HBB_OFF);
        setKeySet(0, nullptr);
        return 1;
    });
}

APPMGR_API void memoryLow(void) {
    if (state::active()) appmgr::protocol::send(Command::MemoryLow);
}

APPMGR_API void dispatchStreamEvent(char* location, StreamEvent* event) {
    StreamEventCallbackData data{location, event};
    appmgr::protocol::send(Command::StreamEvent, &data);
}

APPMGR_API void displayModeChanged(int newMode) {
    AM_INFO("Display mode changed..\n");
    appmgr::protocol::send(Command::DisplayModeChanged, &newMode);
}

}  // extern "C"
