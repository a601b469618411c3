// The exported search functions and the module's start and end. Each entry
// point checks nothing beyond what the table checks itself, takes the module
// lock (so that the browser-facing calls never overlap) and crosses the
// exception barrier into the table.
#include "epg.h"

#include <memory>
#include <mutex>

#include "common/c_api.h"
#include "common/log.h"
#include "epg_internal.h"
#include "result_store.h"
#include "search_table.h"

namespace appmgr::epg {

namespace {

std::mutex module_mutex;
std::unique_ptr<SearchTable> module_table;

// Runs op on the table under the module lock; `absent` when the module is
// not initialised.
template <typename Result, typename Op>
Result with_table(const char* entry_point, Result absent, Op&& op) {
    return c_entry(entry_point, absent, [&]() -> Result {
        std::lock_guard<std::mutex> lock(module_mutex);
        if (!module_table) {
            AM_ERROR("%s: EPG search support is not initialized", entry_point);
            return absent;
        }
        return op(*module_table);
    });
}

}  // namespace

int active_search_count() {
    std::lock_guard<std::mutex> lock(module_mutex);
    return module_table ? module_table->active_slots() : 0;
}

SearchSlot* find_search_slot(int pluginID, int searchID) {
    std::lock_guard<std::mutex> lock(module_mutex);
    return module_table ? module_table->find_slot(pluginID, searchID) : nullptr;
}

std::size_t held_query_bytes() {
    std::lock_guard<std::mutex> lock(module_mutex);
    return module_table ? module_table->held_query_bytes() : 0;
}

}  // namespace appmgr::epg

int appmgr::epg::set_query_in_subgroup(int pluginID, int searchID, int subGroupIndex,
                                       int queryIndex, int fieldType, int comparison,
                                       char* value) {
    // The text is ours from here on, whatever happens to the call.
    HeapText owned(value);
    return with_table("hbbSetQueryInSubgroup", 1, [&](SearchTable& t) {
        return t.set_query(pluginID, searchID, subGroupIndex, queryIndex, fieldType, comparison,
                           std::move(owned));
    });
}

using appmgr::epg::HeapText;
using appmgr::epg::SearchTable;
using appmgr::epg::with_table;

extern "C" {

int initializeEPGExternal(void) {
    return appmgr::c_entry(__func__, 1, [] {
        std::lock_guard<std::mutex> lock(appmgr::epg::module_mutex);
        if (!appmgr::epg::module_table) {
            appmgr::epg::module_table = std::make_unique<SearchTable>();
            appmgr::epg::result_pool().reset();
        }
        AM_INFO("initializeEPGExternal complete...");
        return 0;
    });
}

int deinitializeEPGExternal(void) {
    return appmgr::c_entry(__func__, 1, [] {
        std::unique_ptr<SearchTable> table;
        {
            std::lock_guard<std::mutex> lock(appmgr::epg::module_mutex);
            if (!appmgr::epg::module_table) return 1;
            // Live searches end with the table (their threads are joined).
            appmgr::epg::module_table->destroy_all();
            table = std::move(appmgr::epg::module_table);
        }
        appmgr::epg::result_pool().reset();
        return 0;
    });
}

APPMGR_API int hbbCreateNewSearch(int pluginID, int searchID) {
    return with_table(__func__, 1, [&](SearchTable& t) { return t.create(pluginID, searchID); });
}

APPMGR_API int hbbDestroySearch(int pluginID, int searchID) {
    return with_table(__func__, 1, [&](SearchTable& t) { return t.destroy(pluginID, searchID); });
}

APPMGR_API int hbbAbortSearch(int pluginID, int searchID) {
    return with_table(__func__, 1, [&](SearchTable& t) { return t.abort(pluginID, searchID); });
}

APPMGR_API int hbbSetSearchQuerySubGroupsNumber(int pluginID, int searchID, int numberOfAndGroups,
                                                int startTime, int count, int onid, int tsid,
                                                int sid) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.set_subgroups_number(pluginID, searchID, numberOfAndGroups, startTime, count,
                                      onid, tsid, sid);
    });
}

APPMGR_API int hbbSetSearchQueryNumbersInSubgroup(int pluginID, int searchID, int subGroupIndex,
                                                  int queriesNumber) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.set_queries_number(pluginID, searchID, subGroupIndex, queriesNumber);
    });
}

// A C caller may pass any number as field or comparison.
APPMGR_API int hbbSetQueryInSubgroup(int pluginID, int searchID, int subGroupIndex, int queryIndex,
                                     eQueryFieldType fieldType, eQueryComparisonType comparison,
                                     char* value) {
    return appmgr::epg::set_query_in_subgroup(pluginID, searchID, subGroupIndex, queryIndex,
                                              appmgr::c_enum(fieldType),
                                              appmgr::c_enum(comparison), value);
}

APPMGR_API int hbbStartSearch(int pluginID, int searchID, int offset, int count) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.start(pluginID, searchID, offset, count);
    });
}

APPMGR_API int hbbGetResultsOfSearch(int pluginID, int searchID, int offset, int count) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.results_of_search(pluginID, searchID, offset, count);
    });
}

APPMGR_API ShortProgramme* hbbGetSearchItem(int pluginID, int searchID, int index) {
    return with_table(__func__, static_cast<ShortProgramme*>(nullptr),
                      [&](SearchTable& t) { return t.item(pluginID, searchID, index); });
}

APPMGR_API char* hbbGetSearchItemDescriptor(int pluginID, int searchID, int index) {
    return with_table(__func__, static_cast<char*>(nullptr), [&](SearchTable& t) {
        return t.item_description(pluginID, searchID, index);
    });
}

APPMGR_API char* hbbGetSearchItemLongDescriptor(int pluginID, int searchID, int index) {
    return with_table(__func__, static_cast<char*>(nullptr), [&](SearchTable& t) {
        return t.item_long_description(pluginID, searchID, index);
    });
}

APPMGR_API int hbbSetNumberOfChannelConstraints(int pluginID, int searchID, int numberConstrains) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.set_constraints_number(pluginID, searchID, numberConstrains);
    });
}

APPMGR_API int hbbSetChannelConstraint(int pluginID, int searchID, int constraintIndex, int onid,
                                       int tsid, int sid) {
    return with_table(__func__, 1, [&](SearchTable& t) {
        return t.set_constraint(pluginID, searchID, constraintIndex, onid, tsid, sid);
    });
}

APPMGR_API int hbbRemoveChannelConstraints(int pluginID, int searchID) {
    return with_table(__func__, 1,
                      [&](SearchTable& t) { return t.remove_constraints(pluginID, searchID); });
}

}  // extern "C"
