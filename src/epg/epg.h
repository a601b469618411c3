// EPG metadata search: the module's start and end as the library lifecycle
// uses them. The search API itself is exported in app_mgr_search.h.
#pragma once

extern "C" {

// 0 when the search module started.
int initializeEPGExternal(void);
int deinitializeEPGExternal(void);

}  // extern "C"
