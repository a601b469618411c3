// The EPG metadata search: the one header other folders include.
//
// The browser-facing functions (hbbCreateNewSearch ... hbbRemoveChannelConstraints)
// are declared in the public header app_mgr_search.h. Library start-up and
// shut-down use the two functions below.
#pragma once

#include "app_mgr_search.h"

extern "C" {

// Creates the 128-slot search table and the result pool. 0 on success, 1 on
// failure. Calling it again while the module is up changes nothing and
// returns 0.
int initializeEPGExternal(void);

// Ends every live search (stopping its scan and joining its thread), then
// frees the table. 0 on success, 1 when the module was not initialised.
int deinitializeEPGExternal(void);

}  // extern "C"

namespace appmgr::epg {

// hbbSetQueryInSubgroup with the field and the comparison as the integers
// the browser sent (any value: unknown ones never hold). Takes `value` over
// (a malloc'ed text) in every case.
int set_query_in_subgroup(int pluginID, int searchID, int subGroupIndex, int queryIndex,
                          int fieldType, int comparison, char* value);

}  // namespace appmgr::epg
