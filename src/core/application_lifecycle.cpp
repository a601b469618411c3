// Start and stop of applications: the middleware's start/stop callbacks,
// create (probing broadband URLs, checking carousel entries), destroy, kill,
// load-error recovery, show/hide, the running-application record and the
// one-line notifications to the browser.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/atomic_state.h"
#include "ait/ait_guard.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "hbb_platform.h"
#include "hbbtv_externals/hbbtvDSMCCExternals.h"
#include "xml/xml_ait_internal.h"

using appmgr::AitGuardScope;

namespace {

void copy_text(char* dst, std::size_t size, const char* src) {
    std::snprintf(dst, size, "%s", src != nullptr ? src : "");
}

// Replaces the URL buffer of the running record by a copy of `url`.
bool set_running_url(const char* url) {
    const std::size_t size = std::strlen(url) + 1;
    if (running_application == nullptr) {
        running_application = allocate_application(static_cast<unsigned int>(size));
        if (running_application == nullptr || running_application->transport_protocol == nullptr)
            return false;
    } else {
        if (running_application->transport_protocol == nullptr) {
            running_application->transport_protocol = static_cast<transport_protocol_descriptor*>(
                std::calloc(1, sizeof(transport_protocol_descriptor)));
            if (running_application->transport_protocol == nullptr) return false;
        }
        std::free(running_application->transport_protocol->url);
        running_application->transport_protocol->url = static_cast<char*>(std::calloc(size, 1));
    }
    if (running_application->transport_protocol->url == nullptr) return false;
    std::memcpy(running_application->transport_protocol->url, url, size);
    return true;
}

// Broadcaster portal pages are started without a probe: their servers are
// known to answer and probing them would only delay the red-button page.
constexpr const char* kPortalOrigins[] = {
    "http://www.live.bbctvapps.co.uk/",  "https://www.live.bbctvapps.co.uk/",
    "http://www.test.bbctvapps.co.uk/",  "https://www.test.bbctvapps.co.uk/",
};

}  // namespace

extern "C" int is_portal_origin(const char* url) {
    if (url == nullptr) return 0;
    for (const char* origin : kPortalOrigins)
        if (std::strncmp(url, origin, std::strlen(origin)) == 0) return 1;
    return 0;
}

extern "C" {

void setCheckPageTransparent(int mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", mode);
    send_command(402, text);
}

void setApplicationActivate(unsigned int bIsActivate) {
    appmgr::atomic_set(bIsApplicationActivated, bIsActivate);
    AM_INFO("setApplicationActivate bIsApplicationActivated = %u\n", bIsActivate);
}

APPMGR_API void application_manager_register(application_mngr_callback start,
                                             application_mngr_callback stop) {
    s_application_mngr_callback.hbbtv_start_app_callback = start;
    s_application_mngr_callback.hbbtv_stop_app_callback = stop;
    s_application_mngr_callback.enable_flag = 1;
}

void application_manager_request_start(void) {
    if (s_application_mngr_callback.enable_flag == 1 &&
        s_application_mngr_callback.hbbtv_start_app_callback != nullptr) {
        hbbIsAllowStopChannel(1);
        s_application_mngr_callback.hbbtv_start_app_callback();
    }
}

void application_manager_request_stop(void) {
    if (s_application_mngr_callback.enable_flag == 1 &&
        s_application_mngr_callback.hbbtv_stop_app_callback != nullptr) {
        hbbIsAllowStopChannel(0);
        s_application_mngr_callback.hbbtv_stop_app_callback();
    }
}

APPMGR_API int application_manager_cmd_start(void) {
    AM_INFO("call application_manager_cmd_start,is_portal_mode=%d\n\n", is_portal_mode);
    if (!is_portal_mode) {
        send_command(50, hbbtv_start_url);
        hbbStateChange(EN_HBB_RED_BUTTON);
    } else {
        send_command(140, hbbtv_start_url);
    }
    return 1;
}

APPMGR_API int application_manager_cmd_stop(void) {
    send_command(51, nullptr);
    setCheckPageTransparent(0);
    hbbStateChange(EN_HBB_OFF);
    setKeySet(0, nullptr);
    return 1;
}

int application_create(char* param_url) {
    if (param_url == nullptr) {
        AM_ERROR("param_url is NULL\n");
        return 0;
    }
    // Longer URLs are cut to 1023 characters; every later step uses the copy.
    char url[1024];
    copy_text(url, sizeof(url), param_url);
    AM_INFO("int application_create(%s) CALLED!\n", url);
    const int type = check_url_type(url);
    switch (type) {
        case HTTP_URL:
        case FILE_URL:
            AM_INFO("Http or file protocol found!\n");
            if (type == HTTP_URL) {
                if (network_status == NETWORK_CHECKING) {
                    // Held until the network state is known; the autostart
                    // runs again then.
                    AM_INFO("network_status:%d is checking, hold Http App util network ok\n",
                            static_cast<int>(network_status));
                    return 0;
                }
                if (is_portal_origin(url) || is_portal_mode == 1) {
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
            copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), url);
            application_manager_request_start();
            if (running_application_type == BROADCAST_INDEPENDENT) {
                hbbStopChannel();
                current_broadcast_state = VBOS_STOPPED;
                char no_boundary[] = "no boundary";
                send_command(59, no_boundary);
                update_running_application_as_independent(url);
            }
            loaded_application[0] = '\0';
            return 1;
        case DVB_URL:
            AM_INFO("Mounting carousel for url:[%s]\n", url);
            switch (hbbCheckDSMCCExist(url)) {
                case eHBBTV_FS_CHECK_BREAK_TYPE:
                    AM_INFO("hbbCheckDSMCCEntryType break\n\n");
                    return 0;
                case eHBBTV_FS_CHECK_INVALID_TYPE:
                    AM_INFO("hbbCheckDSMCCEntryType failed\n\n");
                    if (!is_portal_mode) handle_application_load_error(url);
                    return 0;
                default:
                    break;
            }
            AM_INFO("Mounting carousel successful.url:[%s]\n\n", url);
            if (is_portal_mode) return 0;
            copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), url);
            application_manager_request_start();
            loaded_application[0] = '\0';
            return 1;
        case DVB_CURRENT_URL: {
            AM_INFO("DVB_CURRENT_URL found!\n");
            int found = find_app_from_ait(url);
            if (found == 0) handle_application_load_error(url);
            return found;
        }
        default:
            break;
    }

    // A relative URL, resolved against the application last loaded.
    AM_INFO("Relative url found\n");
    std::string base = loaded_application;
    auto slash = base.rfind('/');
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
    return handle_url(full);
}

void handle_application_load_error(char* app_url) {
    AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
    if (app_url == nullptr) return;
    if (is_portal_mode) {
        AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
        copy_text(hbbtv_start_url, sizeof(hbbtv_start_url), app_url);
        application_manager_request_start();
        if (running_application_type == BROADCAST_INDEPENDENT) {
            hbbStopChannel();
            current_broadcast_state = VBOS_STOPPED;
        }
        loaded_application[0] = '\0';
        application_show(0);
        return;
    }
    // The failed entry is not tried again until the next accepted table.
    const int index = find_application_index(app_url);
    if (index >= 0 && application_vadility_flags != nullptr) application_vadility_flags[index] = 0;
    if (running_application == nullptr) {
        AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
        find_autostart_app(current_ait.apps, current_ait.app_lenght);
        if (autostart_app != nullptr) start_autostart_app();
        return;
    }
    AM_INFO("FUNCTION: %s | LINE: %d\n", __func__, __LINE__);
    if (index >= 0) {
        // Another transport of the same application may still be taken.
        URIInfo info{};
        info.org_id = current_ait.apps[index].organisation_id;
        info.app_id = current_ait.apps[index].app_id;
        if (load_app_from_current_ait(info)) return;
    }
    application_load_error();
}

void application_load_error(void) { send_command(68, nullptr); }

int restartApplication(void) {
    AitGuardScope guard;
    if (!guard.locked()) return 0;
    AM_INFO(" Now retart Application\n\n");
    return applicationManagerRestart();
}

APPMGR_API void memoryLow(void) {
    if (appmgr::library_state() == APP_MANAGER_INITIALIZED) send_command(65, nullptr);
}

APPMGR_API void dispatchStreamEvent(char* location, StreamEvent* event) {
    StreamEventCallbackData data{location, event};
    send_command(66, &data);
}

APPMGR_API void displayModeChanged(int newMode) {
    AM_INFO("Display mode changed..\n");
    send_command(81, &newMode);
}

void application_destroy(int orgid, int appid) {
    AitGuardScope guard;
    if (!guard.locked()) return;
    if (running_application == nullptr) {
        AM_WARN("Application is not running! Ignoring destroy command\n");
        return;
    }
    AM_INFO("Destroying application...\n");
    AM_INFO("running_application: %d %d \n\n", running_application->organisation_id,
            running_application->app_id);
    AM_INFO("Received destroy for: %d %d \n\n", orgid, appid);
    setApplicationActivate(0);
    if (running_application->organisation_id != orgid || running_application->app_id != appid) {
        AM_INFO("Ignoring destroy command\n");
        return;
    }
    free_application(&running_application);
    if (current_broadcast_state == VBOS_STOPPED) {
        tune_to_current_channel();
        current_broadcast_state = VBOS_PRESENTING;
    }
    setKeySet(0, nullptr);
    int restarted = 0;
    if (!is_deinit && current_ait.app_type == HBBTV_APPLICATION_TYPE)
        restarted = applicationManagerRestart();
    if (!restarted) application_manager_request_stop();
}

void kill_application(void) {
    setApplicationActivate(0);
    application_manager_request_stop();
    {
        AitGuardScope guard;
        if (!guard.locked()) return;
        free_application(&running_application);
    }
    running_application_type = BROADCAST_RELATED;
    hbbBindCurrentChannel();
    setVideoToFullscreen();
    setKeySet(0, nullptr);
}

void update_running_application(Application* a) {
    if (a == nullptr) return;
    const char* url = a->transport_protocol != nullptr ? a->transport_protocol->url : nullptr;
    if (url == nullptr) {
        char blank[] = "about:blank";
        send_command(50, blank);
        return;
    }
    if (!set_running_url(url)) {
        AM_ERROR("out of memory copying the running application\n");
        return;
    }
    Application* r = running_application;
    r->organisation_id = a->organisation_id;
    r->app_id = a->app_id;
    r->control_code = a->control_code;
    r->is_service_bound = a->is_service_bound;
    r->app_usage_type = a->app_usage_type;
    r->transport_protocol->protocol_id = a->transport_protocol->protocol_id;
    std::free(r->app_parental.parental);
    r->app_parental.parental = nullptr;
    r->app_parental.count = 0;
    if (a->app_parental.count > 0 && a->app_parental.parental != nullptr) {
        r->app_parental.parental = static_cast<parental_rating*>(
            std::calloc(static_cast<std::size_t>(a->app_parental.count), sizeof(parental_rating)));
        if (r->app_parental.parental != nullptr) {
            r->app_parental.count = a->app_parental.count;
            for (int i = 0; i < a->app_parental.count; ++i) {
                std::memcpy(r->app_parental.parental[i].country, a->app_parental.parental[i].country,
                            3);
                r->app_parental.parental[i].rating = a->app_parental.parental[i].rating;
            }
        }
    }
    if (r->control_code == PRESENT) setApplicationActivate(1);
}

void update_running_application_as_independent(char* uri) {
    if (uri == nullptr || !set_running_url(uri)) return;
    running_application->organisation_id = -1;
    running_application->app_id = -1;
    running_application->control_code = static_cast<ControlCode>(-1);
    running_application->is_service_bound = 0;
}

void application_switch_to_independent(void) {
    hbbStopChannel();
    if (is_tessel) clear_current_ait();
    setApplicationActivate(1);
    running_application_type = BROADCAST_INDEPENDENT;
    current_broadcast_state = VBOS_STOPPED;
}

void tune_to_current_channel(void) {
    Channel* channel = channel_create();
    if (channel == nullptr) return;
    getCurrentChannelData(channel);
    hbbSetChannel(channel, 2);
    channel_destroy(channel);
}

void application_show(int is_css) {
    AM_INFO(" application_show ,is_css = %d,screen_saver =%d,is_portal_mode = %d", is_css,
            screen_saver, is_portal_mode);
    if (hbbGetState() == EN_HBB_FULLSCREEN_VOD) {
        AM_INFO("old state is EN_HBB_FULLSCREEN_VOD,so don't change\n");
        return;
    }
    if (is_css != 0 || screen_saver == 0 || is_portal_mode) hbbStateChange(EN_HBB_FULLSCREEN_NO_VOD);
    if (is_css == 0) {
        is_app_visible = 1;
        restoreCoordinates();
        send_command(53, nullptr);
        setCheckPageTransparent(screen_saver && !is_portal_mode ? 1 : 0);
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
        is_app_visible = 0;
        setVideoToFullscreen();
        send_command(54, nullptr);
        setCheckPageTransparent(0);
    }
}

}  // extern "C"
