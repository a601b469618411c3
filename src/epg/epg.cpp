// EPG metadata search support.
#include "common/log.h"
#include "core/core_internal.h"

extern "C" {

// Placeholders until the search module lands: start-up carries on without
// it (a non-zero result leaves the module marked as not initialised).
int initializeEPGExternal(void) {
    AM_WARN("EPG search support is not available");
    return 1;
}

void deinitializeEPGExternal(void) {}

}  // extern "C"
