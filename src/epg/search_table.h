// The table of the 128 search slots and the operations the browser-facing
// functions perform on it. The caller serialises all calls (the module lock
// in epg.cpp); the search threads never touch the table, only their slot.
#pragma once

#include <array>

#include "search_slot.h"
#include "search_types.h"

namespace appmgr::epg {

class SearchTable {
public:
    SearchTable() = default;
    // Ends every live search.
    ~SearchTable();
    SearchTable(const SearchTable&) = delete;
    SearchTable& operator=(const SearchTable&) = delete;

    int create(int pluginID, int searchID);
    int destroy(int pluginID, int searchID);
    int abort(int pluginID, int searchID);
    int set_subgroups_number(int pluginID, int searchID, int numberOfAndGroups, int startTime,
                             int count, int onid, int tsid, int sid);
    int set_queries_number(int pluginID, int searchID, int subGroupIndex, int queriesNumber);
    int set_query(int pluginID, int searchID, int subGroupIndex, int queryIndex, int fieldType,
                  int comparison, HeapText value);
    int start(int pluginID, int searchID, int offset, int count);
    int results_of_search(int pluginID, int searchID, int offset, int count);
    ShortProgramme* item(int pluginID, int searchID, int index);
    char* item_description(int pluginID, int searchID, int index);
    char* item_long_description(int pluginID, int searchID, int index);
    int set_constraints_number(int pluginID, int searchID, int numberConstrains);
    int set_constraint(int pluginID, int searchID, int constraintIndex, int onid, int tsid,
                       int sid);
    int remove_constraints(int pluginID, int searchID);

    // Ends every live search and frees its slot.
    void destroy_all();

    int active_slots() const { return active_; }
    // Bytes the queries of all searches hold, as the budget counts them.
    std::size_t held_query_bytes() const { return query_bytes_; }
    // The slot of a key, or null (for tests).
    SearchSlot* find_slot(int pluginID, int searchID);

private:
    int free_slot_index();
    int existing_slot(int pluginID, int searchID);
    int stop_searching_task(int index, const char* caller);
    int destroy_searching_task(int index, const char* caller);
    void release_slot(int index);
    void release_subgroups(int index);
    // Books an edit of a slot's query that frees `released` bytes and takes
    // `added`: false (logged) when either query budget would be passed.
    bool book_query_bytes(int index, std::size_t released, std::size_t added);

    std::array<SearchSlot, kSlotCount> slots_;
    int active_ = 0;
    std::size_t query_bytes_ = 0;
};

}  // namespace appmgr::epg
