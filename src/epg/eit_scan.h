// The scans over the middleware's EIT cache, run by a search thread, and the
// notification that tells the browser a scan ended.
#pragma once

#include "app_mgr_search.h"
#include "search_slot.h"

namespace appmgr::epg {

// Scan for a query with subgroups: every service cache (or the services of
// the channel list, in its order), every event, the matches stored in the
// slot. Sends the end notification unless the scan was stopped or failed.
// False on a platform failure.
bool search_for_events(SearchSlot& slot, const ScanInput& input);

// Scan for a programmes-of-one-stream request: the programme on air at the
// query's start time and every later one of the service of its triplet.
bool search_one_stream(SearchSlot& slot, const Query& query);

// Builds a stored result from an event: copies of the name ("undefined"
// when it has none), the programme id and the service ordinal (decimal), and
// the event's description segments, which move to the result. False when
// out of memory (the event's segments are released then).
bool fill_result(tEIT_DVB_HbbTVDescriptor& event, sSearchTaskResultsData& result,
                 int channel_index);

// Sends CB_SEARCH_STATUS_EVENT to the browser.
void search_status_notify(int searchID, int searchStatus, int offset, int length,
                          int eventsFound);

// Logs the name and short description of the event under a cache client's
// cursor (the caller holds the cache lock); a debugging aid the scans do not
// call.
void displayEventInformation(int eitHandle);

// Logs a query, group by group.
void dump_query(const Query& query);

}  // namespace appmgr::epg
