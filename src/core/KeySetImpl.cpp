// Key sets of the running application.
#include "app_mgr.h"
#include "common/log.h"

// Placeholder until key-set handling lands: the request is logged and the
// mask reported back unchanged.
extern "C" APPMGR_API int setKeySet(int value, int* otherKeys) {
    (void)otherKeys;
    AM_INFO("setKeySet(0x%x): key-set handling is not available yet", value);
    return value;
}
