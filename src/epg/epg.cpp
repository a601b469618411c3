// EPG metadata search support.
#include "epg/epg.h"

#include "common/log.h"

extern "C" {

// Placeholders until the search module lands: start-up carries on without
// it (a non-zero result leaves the module marked as not initialised).
int initializeEPGExternal(void) {
    AM_WARN("EPG search support is not available");
    return 1;
}

int deinitializeEPGExternal(void) { return 0; }

}  // extern "C"
