// AIT intake: the AIT guard, the checks that refuse unusable tables, the
// deep copy into the current AIT and the keep-or-kill / autostart judgement
// made when a table arrives.
#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "common/atomic_state.h"
#include "core/core_internal.h"
#include "hbb_platform.h"

namespace {

// The guard is recursive: application start and kill take it again while
// aitUpdate already holds it.
pthread_mutexattr_t g_guard_attr;
pthread_mutex_t mutexAitGuard;
int iAitGuardInitalized = 0;

}  // namespace

extern "C" {

APPMGR_API int initAitGuard(void) {
    if (iAitGuardInitalized) return 1;
    if (pthread_mutexattr_init(&g_guard_attr) != 0) return 0;
    pthread_mutexattr_settype(&g_guard_attr, PTHREAD_MUTEX_RECURSIVE);
    if (pthread_mutex_init(&mutexAitGuard, &g_guard_attr) != 0) return 0;
    iAitGuardInitalized = 1;
    return 1;
}

APPMGR_API int deinitAitGuard(void) {
    if (!iAitGuardInitalized) return 1;
    if (pthread_mutex_destroy(&mutexAitGuard) != 0) return 0;
    pthread_mutexattr_destroy(&g_guard_attr);
    iAitGuardInitalized = 0;
    return 1;
}

APPMGR_API int lockAitGuard(void) {
    if (!iAitGuardInitalized) return 0;
    return pthread_mutex_lock(&mutexAitGuard) == 0;
}

APPMGR_API int unlockAitGuard(void) {
    if (!iAitGuardInitalized) return 0;
    return pthread_mutex_unlock(&mutexAitGuard) == 0;
}

void init_current_ait(void) {
    current_ait.is_test_app = 0;
    current_ait.app_type = 0;
    current_ait.version = 0;
    current_ait.app_lenght = 0;
    current_ait.apps = nullptr;
    current_ait.CRC_count = 0;
    current_ait.CRC = nullptr;
    first_run = 1;
}

void clear_current_ait(void) {
    std::memset(current_ait.dvb_url, 0, sizeof(current_ait.dvb_url));
    // The current AIT owns its deep copies, boundary and type included.
    for (int i = 0; current_ait.apps != nullptr && i < current_ait.app_lenght; ++i)
        appmgr::records::release_application_fields(current_ait.apps[i]);
    std::free(current_ait.apps);
    std::free(current_ait.CRC);
    current_ait.CRC_count = 0;
    current_ait.is_test_app = 0;
    current_ait.app_type = 0;
    current_ait.version = 0;
    current_ait.app_lenght = 0;
    current_ait.apps = nullptr;
    current_ait.CRC = nullptr;
    has_teletext_application = 0;
    teletext_application_index = -1;
}

// Refusal checks of a new table; 1 when it is to become the current AIT.
int checkNewAITTable(AitTable* ait) {
    if (ait == nullptr) {
        AM_INFO("AitTable NULL, rejecting AIT table\n");
        return 0;
    }
    std::memcpy(s_dvb_url, ait->dvb_url, sizeof(s_dvb_url));
    s_dvb_url[sizeof(s_dvb_url) - 1] = '\0';
    if (ait->app_type == HBBTV_APPLICATION_TYPE) {
        const std::size_t len = strnlen(ait->dvb_url, sizeof(ait->dvb_url));
        if (len <= 3 || len >= 256) {
            AM_INFO("Invalid DVB url len: %d\n", static_cast<int>(len));
            return 0;
        }
    }
    if (current_ait.app_type == DTG_CTV_APPLICATION_TYPE && ait->app_type == HBBTV_APPLICATION_TYPE &&
        std::strncmp(current_ait.dvb_url, ait->dvb_url, sizeof(ait->dvb_url)) == 0) {
        AM_INFO("Ignoring AIT table since we are in DTG mode...\n");
        return 0;
    }
    if (ait->app_lenght == 0) {
        AM_INFO("Empty AIT, loading empty page..appmgr_state:%d,is_portal_mode: %d\n\n",
                static_cast<int>(appmgr::library_state()), is_portal_mode);
        service_bound = 0;
        clear_current_ait();
        if (running_application != nullptr && appmgr::library_state() == APP_MANAGER_INITIALIZED)
            application_destroy(running_application->organisation_id, running_application->app_id);
        else
            AM_INFO("Empty AIT, loading empty page... running_application = NULL\n");
        return 0;
    }
    if (ait->apps == nullptr || ait->app_lenght < 0) {
        AM_INFO("Apps NULL, rejecting AIT table\n");
        return 0;
    }
    for (int i = 0; i < ait->app_lenght; ++i) {
        const Application& app = ait->apps[i];
        if (app.transport_protocol == nullptr || app.transport_protocol->url == nullptr ||
            app.app_name == nullptr) {
            AM_INFO("Transport protocol NULL, rejecting AIT table\n");
            return 0;
        }
    }
    AM_INFO("AIT pointers valid...\n");
    return 1;
}

// Replaces the current AIT by a deep copy of `ait`.
void update_current_ait(AitTable* ait) {
    if (ait == nullptr || ait == &current_ait) return;
    clear_current_ait();
    current_ait.is_test_app = ait->is_test_app;
    current_ait.app_type = ait->app_type;
    current_ait.version = ait->version;
    std::snprintf(current_ait.dvb_url, sizeof(current_ait.dvb_url), "%.*s",
                  static_cast<int>(sizeof(ait->dvb_url) - 1), ait->dvb_url);
    if (ait->CRC_count > 0 && ait->CRC != nullptr) {
        const std::size_t bytes = static_cast<std::size_t>(ait->CRC_count) * sizeof(uint32_t);
        current_ait.CRC = static_cast<char*>(std::malloc(bytes));
        if (current_ait.CRC != nullptr) {
            std::memcpy(current_ait.CRC, ait->CRC, bytes);
            current_ait.CRC_count = ait->CRC_count;
        }
        AM_INFO("current_ait.CRC_count: is %d\n\n", current_ait.CRC_count);
    }
    const int count = ait->app_lenght > 0 ? ait->app_lenght : 0;
    current_ait.apps = static_cast<Application*>(std::calloc(count ? count : 1, sizeof(Application)));
    if (current_ait.apps == nullptr) {
        AM_ERROR("out of memory copying the AIT");
        return;
    }
    current_ait.app_lenght = count;
    for (int i = 0; i < count; ++i) {
        const Application& src = ait->apps[i];
        Application& dst = current_ait.apps[i];
        appmgr::records::copy_application_numbers(src, dst);
        if (src.app_usage_type == 1) has_teletext_application = 1;
        dst.app_name = src.app_name != nullptr ? strdup(src.app_name) : nullptr;
        if (src.app_boundary != nullptr && src.app_boundary[0] != '\0')
            dst.app_boundary = strdup(src.app_boundary);
        if (src.transport_protocol != nullptr) {
            auto* tp = static_cast<transport_protocol_descriptor*>(
                std::calloc(1, sizeof(transport_protocol_descriptor)));
            if (tp != nullptr) {
                *tp = *src.transport_protocol;
                tp->url = src.transport_protocol->url != nullptr ? strdup(src.transport_protocol->url)
                                                                 : nullptr;
            }
            dst.transport_protocol = tp;
        }
        const int ratings = src.app_parental.count;
        dst.app_parental.count = ratings;
        if (ratings > 0 && src.app_parental.parental != nullptr) {
            dst.app_parental.parental =
                static_cast<parental_rating*>(std::calloc(ratings, sizeof(parental_rating)));
            if (dst.app_parental.parental != nullptr) {
                for (int r = 0; r < ratings; ++r) {
                    dst.app_parental.parental[r].rating = src.app_parental.parental[r].rating;
                    std::memcpy(dst.app_parental.parental[r].country,
                                src.app_parental.parental[r].country, 3);
                    dst.app_parental.parental[r].country[3] = '\0';
                }
            } else {
                dst.app_parental.count = 0;
            }
        } else {
            dst.app_parental.count = 0;
        }
    }
    first_run = 0;
}

// AIT versions are 5 bits: only 31 -> 0 counts as a wrap.
int check_version(int version) {
    if (!(current_version == 31 && version == 0) && version <= current_version) return 0;
    current_version = version;
    return 1;
}

void displayTransportProtocolDescriptorInfo(transport_protocol_descriptor* tpd) {
    if (tpd == nullptr) return;
    AM_INFO("Aplication URI %s\n", tpd->url != nullptr ? tpd->url : "(null)");
    AM_INFO("Application Protocol %d\n", tpd->protocol_id);
}

void displayApplicationInfo(Application* app) {
    if (app == nullptr) return;
    AM_INFO("Org id: %4d; App id: %4d; Ctr code: %4d;\n", app->organisation_id, app->app_id,
            static_cast<int>(app->control_code));
    AM_INFO("Aplication is service bound %d\n", app->is_service_bound);
    AM_INFO("Aplication usage type %d\n", app->app_usage_type);
    AM_INFO("Aplication name %s\n", app->app_name != nullptr ? app->app_name : "(null)");
    displayTransportProtocolDescriptorInfo(app->transport_protocol);
}

void aitUpdateInfo(AitTable* ait) {
    if (ait == nullptr) {
        AM_INFO("Passed ait pointer is NULL!\n");
        return;
    }
    AM_INFO("Passed ait info:\n");
    AM_INFO("Aplication type: %d\n", ait->app_type);
    AM_INFO("Version: %d\n", ait->version);
    if (ait->app_lenght <= 0) {
        AM_INFO("Lenght: 0\n");
        return;
    }
    AM_INFO("Lenght: %d\n", ait->app_lenght);
    if (ait->apps == nullptr) {
        AM_INFO("Passed ait->apps pointer is NULL!\n");
        return;
    }
    for (int i = 0; i < ait->app_lenght; ++i) {
        AM_INFO("_____Aplication number: %d info_____\n", i);
        displayApplicationInfo(&ait->apps[i]);
    }
}

namespace {

void reset_validity_flags(int count) {
    std::free(application_vadility_flags);
    application_vadility_flags =
        static_cast<unsigned char*>(std::malloc(count > 0 ? static_cast<std::size_t>(count) : 1));
    if (application_vadility_flags != nullptr && count > 0)
        std::memset(application_vadility_flags, 1, static_cast<std::size_t>(count));
}

}  // namespace

APPMGR_API void aitUpdate(AitTable* ait) {
    if (!lockAitGuard()) {
        AM_ERROR("Error: lockAitGuard failed !\n");
        return;
    }
    if (ait == nullptr || (ait->app_type != HBBTV_APPLICATION_TYPE &&
                           ait->app_type != DTG_CTV_APPLICATION_TYPE)) {
        AM_ERROR("Unknown application type. Rejecting AIT table.\n");
        unlockAitGuard();
        return;
    }
    current_ait_app_type = static_cast<AitTableApplicationType>(ait->app_type);

    if (checkNewAITTable(ait) == 0) {
        if (!unlockAitGuard()) {
            AM_ERROR("Error: unlockAitGuard failed !\n");
            return;
        }
        AM_INFO("aitupdate s_dvb_url=%s\n\n", s_dvb_url);
        application_manager_invaild_app(s_dvb_url);
        return;
    }

    update_current_ait(ait);
    reset_validity_flags(current_ait.app_lenght);

    if (appmgr::library_state() != APP_MANAGER_INITIALIZED) {
        unlockAitGuard();
        AM_INFO("appmgr_state != APP_MANAGER_INITIALIZED\n");
        return;
    }

    if (running_application != nullptr) {
        AM_INFO("Application IS running running_application_type:%d\n\n",
                static_cast<int>(running_application_type));
        const int keep = running_application_type == BROADCAST_INDEPENDENT
                             ? check_independent_application_signalling(ait)
                             : check_running_application(ait);
        if (!keep || ait->is_test_app) {
            AM_INFO("kill running application because it is not signaled anymore\n");
            kill_application();
        } else {
            setKeySet(current_key_set_value(), nullptr);
            application_show(0);
        }
    }

    if (running_application == nullptr) {
        AM_INFO("Application IS NOT running\n");
        autostart_app = nullptr;
        find_autostart_app(ait->apps, ait->app_lenght);
        if (autostart_app != nullptr) {
            start_autostart_app();
        } else {
            AM_INFO("no autostart application available\n");
        }
    }

    if (!unlockAitGuard()) AM_ERROR("Error: unlockAitGuard failed !\n");
}

}  // extern "C"
