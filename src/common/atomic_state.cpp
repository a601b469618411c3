#include "common/atomic_state.h"

#include "app_mgr_state.h"

namespace appmgr {

AppMgrState library_state() { return atomic_get(appmgr_state); }

void set_library_state(AppMgrState state) { atomic_set(appmgr_state, state); }

const char* library_state_name(AppMgrState state) {
    switch (state) {
        case APP_MANAGER_DEINITIALIZED: return "DEINITIALIZED";
        case APP_MANAGER_SUSPENDED: return "SUSPENDED";
        case APP_MANAGER_INITIALIZING: return "INITIALIZING";
        case APP_MANAGER_INITIALIZED: return "INITIALIZED";
    }
    return "UNKNOWN";
}

}  // namespace appmgr
