// Evaluation of a query against one event of the EIT cache. Pure functions,
// called by the search threads for every event they walk.
#pragma once

#include <cstddef>

#include "app_mgr_platform_types.h"
#include "search_types.h"

namespace appmgr::epg {

// True when some position of str begins with sub, compared case-
// insensitively (ASCII letters only). False when either is null or sub is
// empty.
bool contains_ignore_case(const char* str, const char* sub);

// Room for "dvb://ffffffff.ffffffff.ffffffff;ffffffff" and the terminator.
constexpr std::size_t kProgrammeIdSize = 48;

// Writes the event's programme id "dvb://%x.%x.%x;%x" (onid, tsid, sid,
// event id; lower-case hexadecimal without padding) into out. Returns its
// length.
std::size_t format_programme_id(const tEIT_DVB_HbbTVDescriptor& event,
                                char (&out)[kProgrammeIdSize]);

// One event as the comparisons see it; the programme id is formatted on
// first use only.
class EventView {
public:
    explicit EventView(const tEIT_DVB_HbbTVDescriptor& event) : event_(event) {}
    const tEIT_DVB_HbbTVDescriptor& event() const { return event_; }
    const char* programme_id();

private:
    const tEIT_DVB_HbbTVDescriptor& event_;
    char id_[kProgrammeIdSize] = {};
    bool id_ready_ = false;
};

// Whether one comparison holds for the event. Unsupported field or
// comparison types never hold (and are logged).
bool comparison_holds(EventView& event, const Comparison& comparison);

// Whether a subgroup holds: every comparison, checked in order and given up
// at the first that fails. A subgroup without comparisons holds.
bool subgroup_holds(EventView& event, const Subgroup& subgroup);

// The OR of the query's subgroups, in index order, stopping at the first
// that holds. Undimensioned subgroups never hold.
bool query_matches(const Query& query, const tEIT_DVB_HbbTVDescriptor& event);

// The programmes-of-one-stream test: the programme on air at start_time
// (start <= start_time < start + duration) or any later one.
bool on_air_or_later(int start_time, const tEIT_DVB_HbbTVDescriptor& event);

}  // namespace appmgr::epg
