// What the middleware asks of the application core from its own menus: the
// digital teletext application, the web portal, probing and launching URLs,
// and the browser settings it passes through.
#include <cstdio>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/atomic_state.h"
#include "ait/ait_guard.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "hbb_platform.h"
#include "hbbtv_externals/hbbtvDSMCCExternals.h"
#include "xml/xml_ait_internal.h"

extern "C" {
// The display window saved when the portal opens (logged when it closes).
APPMGR_API fpi_zoom_setting_window_t nZoomdisplayWindow;
}

namespace {

constexpr int kAllKeys = 1023;
constexpr const char* kPortalErrorPage = "file:///system/hbbtv/config/invaild_url.html";
constexpr int kHttpTransport = 3;

void copy_text(char* dst, std::size_t size, const char* src) {
    std::snprintf(dst, size, "%s", src != nullptr ? src : "");
}

void show_with_all_keys() {
    application_show(0);
    setKeySet(kAllKeys, nullptr);
}

void stop_broadcast() {
    hbbStopChannel();
    current_broadcast_state = VBOS_STOPPED;
}

void start_error_page() {
    copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), kPortalErrorPage);
    application_manager_request_start();
}

// The text of an integer setting, sent as a browser command.
void send_setting(int command, int value) {
    char text[8];
    std::snprintf(text, sizeof(text), "%d", value);
    send_command(command, text);
}

}  // namespace

extern "C" {

void start_player_page(char* player_url) {
    copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), player_url);
    application_manager_request_start();
    running_application_type = BROADCAST_INDEPENDENT;
    char no_boundary[] = "no boundary";
    send_command(59, no_boundary);
    update_running_application_as_independent(player_url);
    loaded_application[0] = '\0';
    stop_broadcast();
}

int hasTeletextApplication(void) { return has_teletext_application; }

int find_teletext_application_index(void) {
    int best = -1;
    for (int i = 0; current_ait.apps != nullptr && i < current_ait.app_lenght; ++i) {
        const Application& app = current_ait.apps[i];
        if (app.app_usage_type != 1) continue;
        if (app.transport_protocol != nullptr &&
            app.transport_protocol->protocol_id == kHttpTransport && network_status == NETWORK_OFF)
            continue;
        if (best < 0 || app.app_priority > current_ait.apps[best].app_priority) best = i;
    }
    return best;
}

APPMGR_API int toggleTeletextApplication(int state) {
    appmgr::AitGuardScope guard;
    if (state == 1) {
        if (!has_teletext_application) {
            AM_INFO("HbbTV teletext application not signaled\n");
            return 0;
        }
        if (running_application != nullptr && running_application->app_usage_type == 1) {
            AM_INFO("HbbTV teletext application is already running\n");
            return 1;
        }
        teletext_application_index = find_teletext_application_index();
        if (teletext_application_index < 0) return 0;
        Application& entry = current_ait.apps[teletext_application_index];
        if (entry.transport_protocol == nullptr || !application_create(entry.transport_protocol->url))
            return 0;
        AM_INFO("Updating running application for teletext application\n");
        update_running_application(&entry);
        return 1;
    }
    if (state == 0) {
        // Nothing running: nothing to switch off.
        if (running_application == nullptr) return 1;
        if (running_application->app_usage_type == 1) {
            application_destroy(running_application->organisation_id, running_application->app_id);
            return 1;
        }
        AM_INFO("Running application is not teletext application\n");
        return 0;
    }
    AM_INFO("Invalid argument for teletext state\n");
    return 0;
}

APPMGR_API int openWebPortal(char* webPortalURL) {
    if (webPortalURL == nullptr) {
        AM_INFO("openWebPortal failed in bad param\n\n");
        return 0;
    }
    fpi_zoom_get_current_display_window(&nZoomdisplayWindow);
    AM_INFO("saved display window %u,%u %ux%u\n", nZoomdisplayWindow.un16_hposition,
            nZoomdisplayWindow.un16_vposition, nZoomdisplayWindow.un16_hsize,
            nZoomdisplayWindow.un16_vsize);
    is_portal_mode = 1;

    char player_url[1024] = {0};
    if (tvh_mds_get_player_url(webPortalURL, player_url, sizeof(player_url)) == 0) {
        player_url[sizeof(player_url) - 1] = '\0';
        start_player_page(player_url);
        show_with_all_keys();
        return 1;
    }
    if (check_url_type(webPortalURL) == HTTP_URL && parse_xml_ait(webPortalURL) == 1) {
        stop_broadcast();
        show_with_all_keys();
        AM_INFO("this url = [%s] is xml ait file url\n\n", webPortalURL);
        return 1;
    }
    if (handle_url(webPortalURL) == 0) {
        AM_INFO("call handle_url fail url = %s\n", webPortalURL);
        start_error_page();
        return 0;
    }
    show_with_all_keys();
    return 1;
}

int openWebPortalFailed(void) {
    if (is_portal_mode) {
        AM_INFO("openWebPortalFailed\n");
        start_error_page();
    }
    return 1;
}

APPMGR_API int closeWebPortal(void) {
    AM_INFO("closeWebPortal call\n\n");
    setKeySet(0, nullptr);
    is_portal_mode = 0;
    send_command(54, nullptr);
    running_application_type = BROADCAST_RELATED;
    application_manager_request_stop();
    if (!lockAitGuard()) {
        AM_ERROR("Error: lockAitGuard failed !\n");
        return 0;
    }
    free_application(&running_application);
    if (!unlockAitGuard()) {
        AM_ERROR("Error: lockAitGuard failed !\n");
        return 0;
    }
    AM_INFO("current_broadcast_state:%d window %u,%u %ux%u\n",
            static_cast<int>(current_broadcast_state), nZoomdisplayWindow.un16_hposition,
            nZoomdisplayWindow.un16_vposition, nZoomdisplayWindow.un16_hsize,
            nZoomdisplayWindow.un16_vsize);
    if (current_broadcast_state == VBOS_STOPPED) {
        tune_to_current_channel();
        current_broadcast_state = VBOS_PRESENTING;
    }
    hbbWaitingVodDecoderRelease();
    AM_INFO("closeWebPortal call end\n\n");
    return 1;
}

APPMGR_API int Hbbtv_AM_Probe_Url(char* pUrl) {
    if (pUrl == nullptr) {
        AM_INFO("pUrl is NULL in %s\n\n", __func__);
        return 0;
    }
    if (appmgr::library_state() != APP_MANAGER_INITIALIZED) {
        AM_INFO("appmgr_state != APP_MANAGER_INITIALIZED\n");
        return 0;
    }
    if (is_portal_origin(pUrl)) {
        AM_INFO("Hbbtv_AM_Probe_Url is in bbc RB+ , do not probe ,pUrl:[%s]\n\n", pUrl);
        return 1;
    }
    if (probe_http_app(pUrl) != 1) {
        AM_INFO("This url is not able to be open\n\n");
        return 0;
    }
    AM_INFO("Hbbtv_AM_Probe_Url OK ,pUrl:[%s]\n\n", pUrl);
    return 1;
}

APPMGR_API int Hbbtv_AM_Launch_Application(eLaunchType eType, char* pUrl) {
    AM_INFO("Hbbtv_AM_Launch_Application type:%d url:%s\n", static_cast<int>(eType),
            pUrl != nullptr ? pUrl : "(null)");
    if (pUrl == nullptr || eType < eLaunchFormBroadcastApp || eType > eLaunchFormOther) {
        AM_INFO("Bad Param in %s\n\n", __func__);
        is_portal_mode = 0;
        return 0;
    }
    const int type = check_url_type(pUrl);
    if (eType == eLaunchFormBroadcastApp && (type == XML_FILE_URL || type == HTTP_URL)) {
        is_portal_mode = 1;
        if (xmlAitUpdate(pUrl) == 1) {
            AM_INFO("launched application org_id:%d app_id:%d\n",
                    running_application ? running_application->organisation_id : -1,
                    running_application ? running_application->app_id : -1);
            show_with_all_keys();
            return 1;
        }
        if (handle_url(pUrl)) {
            show_with_all_keys();
            return 1;
        }
        // Not startable as an application: the browser gets the URL anyway.
        copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), pUrl);
        application_manager_request_start();
        show_with_all_keys();
        return 0;
    }
    if (eType != eLaunchFormBroadcastApp) AM_INFO("this part is not OK in %s\n\n", __func__);
    is_portal_mode = 0;
    return 0;
}

APPMGR_API void configureUserAgentAddon(char* userAgentAddOn) {
    if (userAgentAddOn == nullptr) {
        AM_INFO("configureUserAgentAddon error - invalid argument\n");
        return;
    }
    setAMUserAgent(userAgentAddOn);
    send_command(24, userAgentAddOn);
    // The terminal version is read from the single digits 6, 8 and 10
    // characters after "HbbTV/" starts ("HbbTV/1.4.1 "); the text from "H" on
    // must be at least 12 characters long, so a text ending right after the
    // micro digit leaves the version unchanged.
    const char* h = std::strstr(userAgentAddOn, "HbbTV/");
    if (h != nullptr && std::strlen(h) >= 12) {
        teminal_version_major = h[6] - '0';
        teminal_version_minor = h[8] - '0';
        teminal_version_micro = h[10] - '0';
    }
}

APPMGR_API void configureCookies(int enableCookies) { send_setting(26, enableCookies); }

APPMGR_API void configureDNT(int state) { send_setting(400, state); }

APPMGR_API void configureAcceptLanguage(char* acceptLanguage) { send_command(25, acceptLanguage); }

APPMGR_API void signalStatusNotification(int saver) {
    if (saver == screen_saver) return;
    screen_saver = saver;
    setCheckPageTransparent(saver && is_app_visible && !is_portal_mode ? 1 : 0);
}

int send_curr_epg_update_msg(void) {
    AM_INFO("send_curr_epg_update_msg\n\n");
    char text[] = "about:portalerror";
    return send_command(161, text);
}

int delete_all_fsa_file(void) { return hbbtvDeleteDsmccFSAFile(); }

int get_free_mem(void) {
    int kilobytes = hbbGetFreeMemory();
    if (kilobytes == -1) AM_WARN("MEMORY INFO NOT AVAILABLE\n");
    return kilobytes;
}

}  // extern "C"
