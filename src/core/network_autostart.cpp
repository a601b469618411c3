// The broadband network state and the autostart run it triggers, and the
// carousel module notification.
#include "app_mgr.h"
#include "common/decision.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "dsmcc/dsmcc.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
using appmgr::protocol::Command;
using appmgr::records::entry_url;

namespace {

int network_changed(int status) {
    state::ManagerLock lock;
    AM_INFO("Old network status %d new network status %d\n", static_cast<int>(state::network()),
            status);
    if (status != NETWORK_OFF && status != NETWORK_ON && status != NETWORK_CHECKING) {
        AM_INFO("INVALID NETWORK STATUS\n");
        return 0;
    }
    if (status == state::network()) {
        AM_INFO("Same status received, ignoring...\n");
        return 0;
    }
    state::set_network(static_cast<NetworkStatus>(status));
    const bool active = state::active();
    const Application* running = state::running();
    if (status == NETWORK_ON) {
        AM_INFO(" Network status from OFF to ON\n");
        if (running == nullptr && active) {
            AM_INFO("No running application\n");
            runAutostartApplication(const_cast<AitTable*>(&state::current_ait()));
        }
    } else if (status == NETWORK_OFF) {
        AM_INFO(" Network status from ON to OFF\n");
        if (running != nullptr && check_url_type(const_cast<char*>(entry_url(*running))) == HTTP_URL) {
            AM_DECISION(AM_LOG_INFO, decision::about(decision::Kind::Keep, running, "network_off"),
                        "There is running http application,but we not stop it\n");
        } else if (running == nullptr && active) {
            AM_INFO("No running application in network off , found dsmcc app\n");
            runAutostartApplication(const_cast<AitTable*>(&state::current_ait()));
        }
    }
    AM_INFO("Handling network status done\n");
    return 1;
}

}  // namespace

extern "C" {

void runAutostartApplication(AitTable* ait) {
    if (ait == nullptr || ait->app_lenght <= 0 || ait->apps == nullptr) {
        AM_INFO("no applications available -> cannot run auto-start application\n\n");
        return;
    }
    find_autostart_app(ait->apps, ait->app_lenght);
    if (state::autostart() == nullptr) {
        AM_INFO("no autostart application available\n");
        return;
    }
    appmgr::core::start_autostart_app();
}

APPMGR_API int sendNetworkStatus(int status) {
    return appmgr::c_entry(__func__, 0, [&] { return network_changed(status); });
}

// A carousel module changed: a changed directory reference unmounts the
// carousel; the browser is told the module id either way.
APPMGR_API void send_dsmcc_module_date_update_msg(unsigned short nModuleID,
                                                  unsigned char bIsDirRef, void* pData) {
    AM_INFO("send_dsmcc_module_date_update_msg nModuleID = %u, bIsDirRef = %u, pData = %p\n",
            static_cast<unsigned>(nModuleID), static_cast<unsigned>(bIsDirRef), pData);
    appmgr::c_entry_void(__func__, [&] {
        if (bIsDirRef == 1) hbbUnmountCarousel();
        // Command 27 carries an int; the 16-bit id is widened first rather
        // than read through a pointer of the wrong size.
        int module_id = nModuleID;
        appmgr::protocol::send(Command::CarouselModuleUpdated, &module_id);
    });
}

}  // extern "C"
