// Views into the search module for tests and benchmarks (the test build
// links the module statically). Private to src/epg and its tests.
#pragma once

#include "search_slot.h"

namespace appmgr::epg {

// Number of live searches.
int active_search_count();
// The slot of a live search, or null. The pointer stays valid until the
// search is destroyed.
SearchSlot* find_search_slot(int pluginID, int searchID);
// Bytes the queries of all live searches hold, as the query budget counts
// them.
std::size_t held_query_bytes();

}  // namespace appmgr::epg
