// The query model of a search as the module keeps it, and the module's
// fixed sizes. Private to src/epg.
#pragma once

#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "app_mgr_search.h"

namespace appmgr::epg {

// Number of searches that can be live at once.
constexpr int kSlotCount = 128;

// Bounds on counts the browser sends. A count above them is refused as an
// allocation failure would be: the browser's queries are a few comparisons
// long, and an unchecked count would let one message reserve gigabytes.
constexpr int kMaxSubgroups = 256;
constexpr int kMaxQueriesInSubgroup = 256;
constexpr int kMaxChannelConstraints = 4096;

// Bytes of query one search may hold (its subgroup table, comparison arrays
// and value texts), and all searches together. The counts above alone would
// let one query hold about 69 MB (256 x 256 comparisons of 1023
// characters), twice that while a scan works on its copy, and 128 searches
// nine gigabytes; a page's queries are a few comparisons long. An edit that
// would pass either budget is refused as an allocation failure would be.
constexpr std::size_t kQueryBytesPerSearch = 64 * 1024;
constexpr std::size_t kQueryBytesTotal = 2 * 1024 * 1024;

// A malloc'ed text (texts handed over through the C interface are malloc'ed).
struct FreeDeleter {
    void operator()(char* text) const noexcept { std::free(text); }
};
using HeapText = std::unique_ptr<char, FreeDeleter>;

// A malloc'ed copy of text; null stays null. Throws std::bad_alloc.
HeapText copy_text(const char* text);

// One comparison of a subgroup. `set` is false until the browser filled it;
// an unfilled comparison never holds.
struct Comparison {
    bool set = false;
    int field = -1;
    int comparison = -1;
    HeapText value;
    int number = 0;  // the value as a number, for start-time comparisons
};

struct Subgroup {
    std::vector<Comparison> comparisons;
};

// The query of one search. `groups` has one entry per subgroup that could be
// dimensioned; an entry stays empty until its subgroup is dimensioned, and
// an undimensioned subgroup never matches. subgroups_number keeps the count
// the browser sent (negative counts included: such a query is not scanned).
struct Query {
    int subgroups_number = 0;
    std::vector<std::optional<Subgroup>> groups;
    // The programmes-of-one-stream request (subgroups_number 0).
    int start_time = 0;
    int count = 0;
    int onid = 0;
    int tsid = 0;
    int sid = 0;
    int plugin_id = 0;
    int search_id = 0;

    // A deep copy, texts included. Throws std::bad_alloc.
    Query copy() const;
};

// Bytes a subgroup holds (its comparisons and their value texts), and a
// whole query (its subgroup table and every subgroup): what the query
// budgets count.
std::size_t subgroup_bytes(const Subgroup& group);
std::size_t query_bytes(const Query& query);

}  // namespace appmgr::epg
