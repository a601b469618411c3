// What the middleware asks of the application core from its own menus: the
// digital teletext application, the web portal, probing and launching URLs.
// The browser settings it passes through are in browser_settings.cpp.
//
// Downloads (XML AITs) run without the manager lock; each step that reads or
// changes the manager record takes it.
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

constexpr int kAllKeys = 1023;
constexpr int kHttpTransport = 3;

void show_with_all_keys() {
    application_show(0);
    setKeySet(kAllKeys, nullptr);
}

int teletext_on() {
    if (!state::has_teletext()) {
        AM_INFO("HbbTV teletext application not signaled\n");
        return 0;
    }
    const Application* running = state::running();
    if (running != nullptr && running->app_usage_type == 1) {
        AM_INFO("HbbTV teletext application is already running\n");
        return 1;
    }
    const int index = find_teletext_application_index();
    state::set_teletext_index(index);
    const Application* entry = state::current_entry(index);
    if (entry == nullptr) return 0;
    // The running application, if any, is not ended first: the new page
    // replaces it in the browser.
    core::Launch start;
    start.url = entry_url(*entry);
    start.entry = entry;
    if (!core::launch(start)) return 0;
    AM_INFO("Updating running application for teletext application\n");
    return 1;
}

int teletext_off() {
    const Application* running = state::running();
    // Nothing running: nothing to switch off.
    if (running == nullptr) return 1;
    if (running->app_usage_type == 1) {
        application_destroy(running->organisation_id, running->app_id);
        return 1;
    }
    AM_INFO("Running application is not teletext application\n");
    return 0;
}

int open_portal(char* url) {
    {
        state::ManagerLock lock;
        fpi_zoom_setting_window_t& window = state::saved_window();
        fpi_zoom_get_current_display_window(&window);
        AM_INFO("saved display window %u,%u %ux%u\n", window.un16_hposition, window.un16_vposition,
                window.un16_hsize, window.un16_vsize);
        state::set_portal(true);
        if (core::start_player_page_of(url)) {
            show_with_all_keys();
            return 1;
        }
    }
    // The download runs without the manager lock.
    if (core::classify_url(url) == HTTP_URL && parse_xml_ait(url) == 1) {
        state::ManagerLock lock;
        core::stop_broadcast();
        show_with_all_keys();
        AM_INFO("this url = [%s] is xml ait file url\n\n", url);
        return 1;
    }
    state::ManagerLock lock;
    if (handle_url(url) == 0) {
        AM_INFO("call handle_url fail url = %s\n", url);
        core::hand_to_browser(core::kPortalErrorPage);
        return 0;
    }
    show_with_all_keys();
    return 1;
}

int close_portal() {
    {
        state::ManagerLock lock;
        AM_INFO("closeWebPortal call\n\n");
        setKeySet(0, nullptr);
        state::set_portal(false);
        appmgr::protocol::send(Command::HideApplication);
        state::set_running_type(BROADCAST_RELATED);
        application_manager_request_stop();
        state::clear_running();
        const fpi_zoom_setting_window_t& window = state::saved_window();
        AM_INFO("current_broadcast_state:%d window %u,%u %ux%u\n",
                static_cast<int>(state::broadcast()), window.un16_hposition,
                window.un16_vposition, window.un16_hsize, window.un16_vsize);
        if (state::broadcast() == VBOS_STOPPED) {
            tune_to_current_channel();
            state::set_broadcast(VBOS_PRESENTING);
        }
    }
    // Blocks for a second or two: not under the manager lock.
    hbbWaitingVodDecoderRelease();
    AM_INFO("closeWebPortal call end\n\n");
    return 1;
}

int launch_from_menu(eLaunchType type, char* url) {
    AM_INFO("Hbbtv_AM_Launch_Application type:%d url:%s\n", static_cast<int>(type),
            url != nullptr ? url : "(null)");
    if (url == nullptr || type < eLaunchFormBroadcastApp || type > eLaunchFormOther) {
        AM_INFO("Bad Param in %s\n\n", "Hbbtv_AM_Launch_Application");
        state::ManagerLock lock;
        state::set_portal(false);
        return 0;
    }
    const int url_type = core::classify_url(url);
    if (type != eLaunchFormBroadcastApp || (url_type != XML_FILE_URL && url_type != HTTP_URL)) {
        if (type != eLaunchFormBroadcastApp)
            AM_INFO("this part is not OK in %s\n\n", "Hbbtv_AM_Launch_Application");
        state::ManagerLock lock;
        state::set_portal(false);
        return 0;
    }
    {
        state::ManagerLock lock;
        state::set_portal(true);
    }
    // The download runs without the manager lock.
    const int updated = xmlAitUpdate(url);
    state::ManagerLock lock;
    if (updated == 1) {
        const Application* running = state::running();
        AM_INFO("launched application org_id:%d app_id:%d\n",
                running != nullptr ? running->organisation_id : -1,
                running != nullptr ? running->app_id : -1);
        show_with_all_keys();
        return 1;
    }
    if (handle_url(url)) {
        show_with_all_keys();
        return 1;
    }
    // Not startable as an application: the browser gets the URL anyway.
    core::hand_to_browser(url);
    show_with_all_keys();
    return 0;
}

int probe_url(char* url) {
    if (!state::active()) {
        AM_INFO("appmgr_state != APP_MANAGER_INITIALIZED\n");
        return 0;
    }
    if (core::is_portal_origin(url)) {
        AM_INFO("Hbbtv_AM_Probe_Url is in bbc RB+ , do not probe ,pUrl:[%s]\n\n", url);
        return 1;
    }
    if (probe_http_app(url) != 1) {
        AM_INFO("This url is not able to be open\n\n");
        return 0;
    }
    AM_INFO("Hbbtv_AM_Probe_Url OK ,pUrl:[%s]\n\n", url);
    return 1;
}

}  // namespace

namespace appmgr::core {

bool start_player_page_of(const char* location) {
    char player_url[1024] = {0};
    if (tvh_mds_get_player_url(location, player_url, sizeof(player_url)) != 0) return false;
    player_url[sizeof(player_url) - 1] = '\0';
    Launch page;
    page.url = player_url;
    page.boundary = "no boundary";
    page.kind = BROADCAST_INDEPENDENT;
    page.checked = false;
    launch(page);
    return true;
}

}  // namespace appmgr::core

extern "C" {

int hasTeletextApplication(void) { return state::has_teletext() ? 1 : 0; }

int find_teletext_application_index(void) {
    int best = -1;
    const AitTable& ait = state::current_ait();
    const NetworkStatus network = state::network();
    for (int i = 0; ait.apps != nullptr && i < ait.app_lenght; ++i) {
        const Application& app = ait.apps[i];
        if (app.app_usage_type != 1) continue;
        if (app.transport_protocol != nullptr &&
            app.transport_protocol->protocol_id == kHttpTransport && network == NETWORK_OFF)
            continue;
        if (best < 0 || app.app_priority > ait.apps[best].app_priority) best = i;
    }
    return best;
}

int openWebPortalFailed(void) {
    if (state::portal()) {
        AM_INFO("openWebPortalFailed\n");
        core::hand_to_browser(core::kPortalErrorPage);
    }
    return 1;
}

int send_curr_epg_update_msg(void) {
    AM_INFO("send_curr_epg_update_msg\n\n");
    return appmgr::protocol::send_text(Command::EpgUpdate, "about:portalerror");
}

int delete_all_fsa_file(void) { return hbbtvDeleteDsmccFSAFile(); }

int get_free_mem(void) {
    int kilobytes = hbbGetFreeMemory();
    if (kilobytes == -1) AM_WARN("MEMORY INFO NOT AVAILABLE\n");
    return kilobytes;
}

// ---- exported ----

APPMGR_API int toggleTeletextApplication(int on) {
    return appmgr::c_entry(__func__, 0, [&] {
        state::ManagerLock lock;
        if (on == 1) return teletext_on();
        if (on == 0) return teletext_off();
        AM_INFO("Invalid argument for teletext state\n");
        return 0;
    });
}

APPMGR_API int openWebPortal(char* webPortalURL) {
    if (webPortalURL == nullptr) {
        AM_INFO("openWebPortal failed in bad param\n\n");
        return 0;
    }
    return appmgr::c_entry(__func__, 0, [&] { return open_portal(webPortalURL); });
}

APPMGR_API int closeWebPortal(void) {
    return appmgr::c_entry(__func__, 0, [] { return close_portal(); });
}

APPMGR_API int Hbbtv_AM_Probe_Url(char* pUrl) {
    if (pUrl == nullptr) {
        AM_INFO("pUrl is NULL in %s\n\n", __func__);
        return 0;
    }
    return appmgr::c_entry(__func__, 0, [&] { return probe_url(pUrl); });
}

APPMGR_API int Hbbtv_AM_Launch_Application(eLaunchType eType, char* pUrl) {
    return appmgr::c_entry(__func__, 0, [&] { return launch_from_menu(eType, pUrl); });
}

}  // extern "C"
