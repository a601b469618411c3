// Queries of the running application and of the current AIT.
#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "state/state.h"

namespace state = appmgr::state;

extern "C" {

void get_application_info(ApplicationInfo* info) {
    if (info == nullptr) return;
    const Application* running = state::running();
    if (running == nullptr) {
        AM_ERROR("Application should not run, we should never be here\n");
        info->orgid = 0;
        info->appid = 0;
        return;
    }
    info->orgid = running->organisation_id;
    info->appid = running->app_id;
}

int get_application_type(void) { return state::running_type(); }

void getRuningApplicationType(ApplicationType* type) {
    if (type != nullptr) *type = state::running_type();
}

int find_application_index(char* u) { return state::find_entry(u); }

int hasApplicationRuning(void) {
    if (state::running() != nullptr || state::portal()) return 1;
    AM_INFO("running_application == NULL,is_portal_mode = %d\n\n", state::portal() ? 1 : 0);
    return 0;
}

int isCurrentApplicationVisible(void) {
    return state::running() != nullptr && state::visible() ? 1 : 0;
}

APPMGR_API AitTableApplicationType getCurrentAitTableApplicationType(void) {
    return appmgr::c_entry(__func__, static_cast<AitTableApplicationType>(0), [] {
        state::ManagerLock lock;
        return static_cast<AitTableApplicationType>(state::current_ait().app_type);
    });
}

// The locator buffer itself, as the middleware expects; reading it races
// with a table being replaced, which is the middleware's to order.
APPMGR_API char* get_current_dvb_url(void) { return state::current_dvb_url_buffer(); }

}  // extern "C"
