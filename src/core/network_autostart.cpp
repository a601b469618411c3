// Broadband network state, the autostart run, and the two checks every
// application start passes (parental rating, terminal version).
#include <cstdio>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/atomic_state.h"
#include "ait/ait_guard.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "dsmcc/DSMCCUtils.h"
#include "hbb_platform.h"

extern "C" {

void runAutostartApplication(AitTable* ait) {
    if (ait == nullptr || ait->app_lenght <= 0 || ait->apps == nullptr) {
        AM_INFO("no applications available -> cannot run auto-start application\n\n");
        return;
    }
    find_autostart_app(ait->apps, ait->app_lenght);
    if (autostart_app == nullptr) {
        AM_INFO("no autostart application available\n");
        return;
    }
    start_autostart_app();
}

void start_autostart_app(void) {
    running_application_type = BROADCAST_RELATED;
    char no_boundary[] = "no boundary";
    send_command(59, autostart_app->app_boundary != nullptr ? autostart_app->app_boundary
                                                           : no_boundary);
    if (autostart_app->transport_protocol != nullptr &&
        application_create(autostart_app->transport_protocol->url))
        update_running_application(autostart_app);
}

APPMGR_API int sendNetworkStatus(int status) {
    AM_INFO("Old network status %d new network status %d\n", static_cast<int>(network_status),
            status);
    if (status != NETWORK_OFF && status != NETWORK_ON && status != NETWORK_CHECKING) {
        AM_INFO("INVALID NETWORK STATUS\n");
        return 0;
    }
    if (status == network_status) {
        AM_INFO("Same status received, ignoring...\n");
        return 0;
    }
    network_status = static_cast<NetworkStatus>(status);
    // Starting the autostart application judges the running record.
    appmgr::AitGuardScope guard;
    const bool active = appmgr::library_state() == APP_MANAGER_INITIALIZED;
    if (status == NETWORK_ON) {
        AM_INFO(" Network status from OFF to ON\n");
        if (running_application == nullptr && active) {
            AM_INFO("No running application\n");
            runAutostartApplication(&current_ait);
        }
    } else if (status == NETWORK_OFF) {
        AM_INFO(" Network status from ON to OFF\n");
        if (running_application != nullptr && running_application->transport_protocol != nullptr &&
            check_url_type(running_application->transport_protocol->url) == HTTP_URL) {
            AM_INFO("There is running http application,but we not stop it\n");
        } else if (running_application == nullptr && active) {
            AM_INFO("No running application in network off , found dsmcc app\n");
            runAutostartApplication(&current_ait);
        }
    }
    AM_INFO("Handling network status done\n");
    return 1;
}

int check_parental_rating(parental_rating_descriptor* app_parental) {
    if (app_parental == nullptr) return 1;
    AM_INFO("app_parental->count = %d\n", app_parental->count);
    if (app_parental->count <= 0 || app_parental->parental == nullptr) return 1;
    char scheme[] = "dvb-si";
    ParentalRating* threshold = parental_rating_get_threshold(scheme);
    // Only the first rating is compared; the country is not.
    const int allowed =
        threshold != nullptr && app_parental->parental[0].rating < threshold->value ? 1 : 0;
    parental_rating_destroy(threshold);
    return allowed;
}

int check_support_version(int app_profile, int version_major, int version_minor,
                          int version_micro) {
    if (app_profile != 0) return 0;
    // Part by part, not as one number: 1.5.1 on a 2.0.1 terminal fails.
    if (version_major > teminal_version_major || version_minor > teminal_version_minor ||
        version_micro > teminal_version_micro)
        return 0;
    // Terminals up to 1.2.1 activate applications at once.
    if (teminal_version_major < 2 && teminal_version_minor < 3 && teminal_version_micro < 2)
        setApplicationActivate(1);
    return 1;
}

}  // extern "C"

extern "C" {

// A carousel module changed: a changed directory reference unmounts the
// carousel; the browser is told the module id either way.
APPMGR_API void send_dsmcc_module_date_update_msg(unsigned short nModuleID,
                                                  unsigned char bIsDirRef, void* pData) {
    AM_INFO("send_dsmcc_module_date_update_msg nModuleID = %u, bIsDirRef = %u, pData = %p\n",
            static_cast<unsigned>(nModuleID), static_cast<unsigned>(bIsDirRef), pData);
    if (bIsDirRef == 1) hbbUnmountCarousel();
    // Command 27 carries an int; the 16-bit id is widened first rather than
    // read through a pointer of the wrong size.
    int module_id = nModuleID;
    send_command(27, &module_id);
}

}  // extern "C"
