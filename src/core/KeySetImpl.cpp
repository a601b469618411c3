// Key sets of the running application.
#include "app_mgr.h"
#include "common/atomic_state.h"
#include "common/log.h"
#include "core/core_internal.h"

namespace {
int g_key_set_value = 0;
}

extern "C" {

// Placeholder until key-set handling lands: the mask is remembered and
// reported back, nothing is sent or registered.
APPMGR_API int setKeySet(int value, int* otherKeys) {
    (void)otherKeys;
    AM_INFO("setKeySet(0x%x): key-set handling is not available yet", value);
    appmgr::atomic_set(g_key_set_value, value);
    return value;
}

int current_key_set_value(void) { return appmgr::atomic_get(g_key_set_value); }

}  // extern "C"
