// Which application of an AIT is to run: the autostart choice, the
// keep-or-kill judgement of the running application, adoption of a
// broadcast-independent application, the reaction to a change of service and
// the start of a named application from the current AIT.
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

namespace {

constexpr int kHttpTransport = 3;
char g_no_boundary[] = "no boundary";

const char* entry_url(const Application& app) {
    return app.transport_protocol != nullptr ? app.transport_protocol->url : nullptr;
}

bool begins_with(const char* text, const char* prefix) {
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

char* boundary_or_default(Application& app) {
    return app.app_boundary != nullptr ? app.app_boundary : g_no_boundary;
}

enum class Purpose { Autostart, Named };

// The eligibility rule shared by the autostart choice and the start of a
// named application; the checks run in this order and all must pass.
bool eligible(Application& app, int index, Purpose purpose) {
    if (purpose == Purpose::Autostart) {
        if (app.control_code != AUTOSTART) return false;
    } else if (app.control_code == DISABLED || app.control_code == KILL) {
        return false;
    }
    if (app.transport_protocol == nullptr) return false;
    if (app.transport_protocol->protocol_id == kHttpTransport && network_status == NETWORK_OFF)
        return false;
    if (purpose == Purpose::Autostart && app.is_IP_connect_require == 1 &&
        network_status != NETWORK_ON)
        return false;
    if (purpose == Purpose::Autostart) {
        if (application_vadility_flags != nullptr && application_vadility_flags[index] == 0)
            return false;
    } else if (application_vadility_flags == nullptr || application_vadility_flags[index] == 0) {
        return false;
    }
    if (purpose == Purpose::Autostart) {
        const char* url = entry_url(app);
        if (!begins_with(url, "http://") && !begins_with(url, "https://") &&
            !begins_with(url, "dvb://")) {
            std::printf("find_autostart_app called but not a good typen");
            std::fflush(stdout);
            return false;
        }
    }
    if (!check_parental_rating(&app.app_parental)) return false;
    int supported = check_support_version(app.app_profile, app.version_major, app.version_minor,
                                          app.version_micro);
    AM_INFO("check_support_version[%d] app_profile:%d, version:%d.%d.%d\n\n", supported,
            app.app_profile, app.version_major, app.version_minor, app.version_micro);
    return supported != 0;
}

// Table order; a later eligible entry wins only with a strictly higher
// priority.
Application* choose(Application* apps, int length, Purpose purpose, int org_id = 0, int app_id = 0) {
    Application* best = nullptr;
    for (int i = 0; apps != nullptr && i < length; ++i) {
        Application& app = apps[i];
        if (purpose == Purpose::Named) {
            AM_INFO("current_ait::org_id: %d, current_ait::app_id: %d\n", app.organisation_id,
                    app.app_id);
            if (app.organisation_id != org_id || app.app_id != app_id) continue;
        }
        if (!eligible(app, i, purpose)) continue;
        if (best == nullptr || app.app_priority > best->app_priority) best = &app;
    }
    return best;
}

void start_entry(Application* entry, char* url) {
    if (application_create(url)) {
        update_running_application(entry);
        loaded_application[0] = '\0';
    }
}

}  // namespace

extern "C" {

void find_autostart_app(Application* applications, int length) {
    Application* chosen = choose(applications, length, Purpose::Autostart);
    if (chosen != nullptr) {
        autostart_app = chosen;
        AM_INFO("autostart_app found\n");
        return;
    }
    AM_INFO("find autostart app s_dvb_url = %s\n\n", s_dvb_url);
    // While the network is still being checked an HTTP entry may yet become
    // eligible, so the platform is not told.
    if (network_status != NETWORK_CHECKING) application_manager_invaild_app(s_dvb_url);
    autostart_app = nullptr;
    AM_INFO("autostart_app NOT found\n");
}

int check_running_application(AitTable* ait) {
    if (ait == nullptr || running_application == nullptr || ait->apps == nullptr) return 0;
    for (int i = 0; i < ait->app_lenght; ++i) {
        const Application& app = ait->apps[i];
        if (app.organisation_id != running_application->organisation_id ||
            app.app_id != running_application->app_id)
            continue;
        if (app.control_code == KILL) {
            AM_INFO("running_application signaled with control code KILL\n");
            return 0;
        }
        if (app.is_IP_connect_require == 1 && network_status != NETWORK_ON) {
            AM_INFO("running_application signaled with is_IP_connect_require = 1,but network is off\n");
            return 0;
        }
        AM_INFO("running application is still signaled in new ait -> keep it running\n\n");
        return 1;
    }
    AM_INFO("application not signaled anymore\n");
    return 0;
}

int check_independent_application_signalling(AitTable* table) {
    if (table == nullptr || table->apps == nullptr || running_application == nullptr) return 0;
    if (running_application->organisation_id <= 0 || running_application->app_id <= 0) return 0;
    char* running_url = running_application->transport_protocol != nullptr
                            ? running_application->transport_protocol->url
                            : nullptr;
    for (int i = 0; i < table->app_lenght; ++i) {
        Application& app = table->apps[i];
        if (app.organisation_id != running_application->organisation_id ||
            app.app_id != running_application->app_id)
            continue;
        if (app.control_code != AUTOSTART && app.control_code != PRESENT) continue;
        if (app.transport_protocol == nullptr || app.transport_protocol->protocol_id != kHttpTransport)
            continue;
        if (compareUrlOrigin(app.transport_protocol->url, running_url) != 1) continue;

        bool adopt = false;
        if (compareUrlOrigin(app.transport_protocol->url, loaded_application) == 1) {
            AM_INFO("B-I application has the same origin\n");
            adopt = true;
        } else if (app.app_boundary == nullptr || app.app_boundary[0] == '\0') {
            adopt = true;
        } else {
            AM_INFO("table->apps[counter].app_boundary len is not zero\n\n");
            // The boundary is split in place: its separators are overwritten.
            char* save = nullptr;
            for (char* piece = strtok_r(app.app_boundary, "|", &save); piece != nullptr;
                 piece = strtok_r(nullptr, "|", &save)) {
                if (std::strstr(loaded_application, piece) != nullptr) {
                    adopt = true;
                    break;
                }
            }
            if (!adopt) return 0;
        }
        running_application_type = BROADCAST_RELATED;
        update_running_application(&app);
        int related = 0;
        send_command(76, &related);
        return 1;
    }
    return 0;
}

int check_independent_application_signalling_current_ait(void) {
    return check_independent_application_signalling(&current_ait);
}

void check_application_new_signaling(AitTable* ait) {
    if (ait == nullptr || running_application == nullptr) return;
    for (int i = 0; ait->apps != nullptr && i < ait->app_lenght; ++i) {
        Application& app = ait->apps[i];
        if (app.organisation_id != running_application->organisation_id ||
            app.app_id != running_application->app_id || app.control_code != AUTOSTART)
            continue;
        send_command(59, boundary_or_default(app));
        if (app.transport_protocol != nullptr && application_create(app.transport_protocol->url)) {
            update_running_application(&app);
            running_application_type = BROADCAST_RELATED;
        }
        return;
    }
    kill_application();
}

APPMGR_API void channelChanged(Channel* channel) {
    if (appmgr::library_state() != APP_MANAGER_INITIALIZED) return;
    // The running record is read and killed here while the browser's
    // threads may change it: judge it under the AIT guard.
    appmgr::AitGuardScope guard;
    AM_INFO("channel changed (tsid/onid/sid:%d/%d/%d)\n\n", channel ? channel->tsid : -1,
            channel ? channel->onid : -1, channel ? channel->sid : -1);
    // Any version is new on the new service.
    current_version = -1;
    if (channel != nullptr) send_command(60, channel);
    if (running_application != nullptr && running_application_type == BROADCAST_INDEPENDENT) {
        AM_INFO("running_application_type:%d tunning_requested_by:%d\n",
                static_cast<int>(running_application_type), static_cast<int>(tunning_requested_by));
        DSMCC_Disconnect();
        // An independent application survives only a tune it asked for.
        if (tunning_requested_by != REQUESTED_BY_INDEPENDENT_TYPE) kill_application();
    }
    tunning_requested_by = NOT_REQUESTED;
    if (running_application != nullptr && running_application_type == BROADCAST_RELATED &&
        running_application->is_service_bound) {
        AM_INFO("application IS service bound\n");
        kill_application();
    }
}

int load_app_from_current_ait(URIInfo info) {
    Application* entry =
        choose(current_ait.apps, current_ait.app_lenght, Purpose::Named, info.org_id, info.app_id);
    if (entry == nullptr) {
        AM_INFO("application not found in current_ait\n");
        return 0;
    }
    AM_INFO("application found in current_ait\n");
    AM_INFO("URL: %s\n", entry_url(*entry) != nullptr ? entry_url(*entry) : "(null)");
    char* url = entry->transport_protocol != nullptr ? entry->transport_protocol->url : nullptr;
    if (info.URIptr == nullptr) {
        send_command(59, boundary_or_default(*entry));
        start_entry(entry, url);
        return 1;
    }
    char* joined = combinationUrl(info.URIptr, url);
    send_command(59, boundary_or_default(*entry));
    if (joined == nullptr) {
        start_entry(entry, url);
    } else {
        start_entry(entry, joined);
        std::free(joined);
    }
    return 1;
}

int find_app_from_ait(char* url) {
    URIInfo info{};
    info.org_id = -1;
    info.app_id = -1;
    if (parseURI(url, &info) != URI_VALID) return 0;
    int result = load_app_from_current_ait(info);
    std::free(info.URIptr);
    return result;
}

int compareUrlOrigin(char* url1, char* url2) {
    if (url1 == nullptr || url2 == nullptr) return 0;
    const char* scheme_end = std::strstr(url1, "//");
    if (scheme_end == nullptr) return 0;
    const char* path = std::strchr(scheme_end + 2, '/');
    if (path == nullptr) return 0;
    const std::size_t origin_length = static_cast<std::size_t>(path - url1) + 1;
    return std::strncmp(url1, url2, origin_length) == 0 ? 1 : 0;
}

char* combinationUrl(char* dvb_url, char* location_url) {
    if (dvb_url == nullptr || location_url == nullptr) {
        AM_ERROR("dvb_url == NULL || location_url == NULL\n");
        return nullptr;
    }
    std::string result;
    std::string fragment;
    const char* hash = std::strchr(location_url, '#');
    if (hash != nullptr) {
        result.assign(location_url, static_cast<std::size_t>(hash - location_url));
        fragment = hash;
        AM_INFO("fragment_url = %s\n", fragment.c_str());
    } else {
        result = location_url;
    }
    const char* remainder = dvb_url;
    if (remainder[0] == '?') {
        ++remainder;
        result += result.find('?') != std::string::npos ? "&" : "?";
    }
    result += remainder;
    if (result.find('#') == std::string::npos && !fragment.empty()) result += fragment;
    AM_INFO("resulte_url = %s\n", result.c_str());
    // The caller frees the joined URL with free().
    return strdup(result.c_str());
}

}  // extern "C"
