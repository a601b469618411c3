// The browser-facing search operations on the slot table.
#include "search_table.h"

#include <climits>
#include <cstring>

#include "common/log.h"
#include "eit_scan.h"
#include "search_task.h"

namespace appmgr::epg {

namespace {

// The one set of buffers the item getters hand out; the next item call of
// any search overwrites them (the module lock serialises the calls).
char hbbEPGEventName[256];
char hbbEPGEventCrid[256];
char hbbEPGEventCcid[32];
char hbbEPGEventDesc[1024];
char hbbEPGEventLongDesc[4096];
ShortProgramme hbbEPGEventBufferObject{hbbEPGEventName, hbbEPGEventCrid, 0, 0, 0,
                                       hbbEPGEventCcid, nullptr};

// Copies text into a buffer, cut to fit and always terminated.
template <std::size_t N>
void copy_cut(char (&buffer)[N], const char* text) {
    if (text == nullptr) text = "";
    const std::size_t length = strnlen(text, N - 1);
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

// Joins the segments of a description into a buffer, cut to fit; an event
// without segments reads "undefined".
template <std::size_t N>
char* join_segments(char (&buffer)[N], const tEIT_DVB_EventDescriptor& descriptor) {
    AM_INFO("eitEventSegmentNum = %d", descriptor.eitEventSegmentNum);
    if (descriptor.eitEventSegmentNum <= 0 || descriptor.eitEventSegments == nullptr) {
        copy_cut(buffer, "undefined");
        return buffer;
    }
    std::size_t used = 0;
    for (int i = 0; i < descriptor.eitEventSegmentNum && used < N - 1; ++i) {
        const char* segment = descriptor.eitEventSegments[i];
        if (segment == nullptr) continue;
        const std::size_t length = strnlen(segment, N - 1 - used);
        std::memcpy(buffer + used, segment, length);
        used += length;
    }
    buffer[used] = '\0';
    return buffer;
}

// Numeric value of a start-time comparison: the decimal number the text
// begins with, clamped to the int range (0 when there is none).
int number_of(const char* text) {
    if (text == nullptr) return 0;
    char* end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace

SearchTable::~SearchTable() { destroy_all(); }

int SearchTable::free_slot_index() {
    for (int i = 0; i < kSlotCount; ++i) {
        if (!slots_[i].used) {
            AM_INFO("Found free slot: %d", i);
            return i;
        }
    }
    AM_ERROR("No free search slots !");
    return -1;
}

int SearchTable::existing_slot(int pluginID, int searchID) {
    if (active_ == 0) return -1;
    for (int i = 0; i < kSlotCount; ++i) {
        const SearchSlot& slot = slots_[i];
        if (slot.used && slot.plugin_id == pluginID && slot.search_id == searchID) {
            AM_INFO("Found slot index: %d", i);
            return i;
        }
    }
    AM_ERROR("Unable to find slot...");
    return -1;
}

SearchSlot* SearchTable::find_slot(int pluginID, int searchID) {
    const int index = existing_slot(pluginID, searchID);
    return index < 0 ? nullptr : &slots_[index];
}

int SearchTable::create(int pluginID, int searchID) {
    AM_INFO("hbbCreateNewSearch called, pluginID: %d, searchID: %d", pluginID, searchID);
    const int index = free_slot_index();
    if (index < 0) {
        AM_ERROR("No free slots !");
        return 1;
    }
    SearchSlot& slot = slots_[index];
    slot.clear_query();
    slot.edit([&](Query& query, std::vector<ChannelConstraintDesc>&) {
        query.plugin_id = pluginID;
        query.search_id = searchID;
    });
    slot.task = std::make_unique<SearchTask>(slot);
    slot.plugin_id = pluginID;
    slot.search_id = searchID;
    slot.dimensioned = false;
    slot.used = true;
    ++active_;
    slot.set_initial_limit(0, 0);
    // A slot whose thread cannot be started is given back at once: nothing
    // of a half-created search stays behind.
    if (!slot.task->start()) {
        AM_ERROR("Unable to initializeSearchSyncUtil %d", index);
        release_slot(index);
        return 1;
    }
    return 0;
}

int SearchTable::stop_searching_task(int index, const char* caller) {
    SearchSlot& slot = slots_[index];
    if (!slot.is_searching()) {
        AM_INFO("stopSearchingTask not need to stop search\n");
        return 0;
    }
    slot.stop_current_search();
    if (!slot.task->enqueue(STC_CMD_ABORT_SEARCH)) {
        AM_ERROR("%s failed - unable to equeue STC_CMD_ABORT_SEARCH command !", caller);
        return 1;
    }
    // The thread reads the abort once the scan in progress has stopped (at
    // its next event), drops the results and then releases this wait.
    AM_INFO("Now wait for processing task to clean existing results");
    slot.task->wait_for_abort();
    return 0;
}

int SearchTable::destroy_searching_task(int index, const char* caller) {
    SearchSlot& slot = slots_[index];
    if (!slot.task->enqueue(STC_CMD_DESTROY_SEARCH)) {
        AM_ERROR("%s failed - unable to equeue STC_CMD_DESTROY_SEARCH command !", caller);
        return 1;
    }
    AM_INFO("To wait on searching task completition (searchID: %d, pluginID: %d)...",
            slot.search_id, slot.plugin_id);
    slot.task->join();
    AM_INFO("Searching task destroyed (searchID: %d, pluginID: %d)...", slot.search_id,
            slot.plugin_id);
    return 0;
}

void SearchTable::release_subgroups(int index) {
    SearchSlot& slot = slots_[index];
    slot.edit([&](Query& query, std::vector<ChannelConstraintDesc>&) {
        for (std::size_t g = 0; g < query.groups.size(); ++g) {
            if (!query.groups[g]) continue;
            const auto& comparisons = query.groups[g]->comparisons;
            AM_INFO("releaseSubGroups (index: %d), subgroup: %d, queries: %d", index,
                    static_cast<int>(g), static_cast<int>(comparisons.size()));
            AM_INFO("  release query descriptors");
            for (std::size_t q = 0; q < comparisons.size(); ++q)
                AM_INFO("releaseSubGroups query: %d (%s)", static_cast<int>(q),
                        comparisons[q].value ? comparisons[q].value.get() : "(null)");
            AM_INFO("  release query descriptor slots");
            AM_INFO("  release group of operations");
        }
        query.groups.clear();
        query.groups.shrink_to_fit();
        AM_INFO("releaseSubGroups groups (index: %d)", index);
    });
    book_query_bytes(index, slot.query_bytes, 0);
}

bool SearchTable::book_query_bytes(int index, std::size_t released, std::size_t added) {
    SearchSlot& slot = slots_[index];
    const std::size_t search = slot.query_bytes - released + added;
    const std::size_t total = query_bytes_ - released + added;
    if (added > released && (search > kQueryBytesPerSearch || total > kQueryBytesTotal)) {
        AM_ERROR("query of search (pluginID: %d, searchID: %d) refused: it would hold %zu bytes "
                 "(at most %zu), all searches %zu bytes (at most %zu)",
                 slot.plugin_id, slot.search_id, search, kQueryBytesPerSearch, total,
                 kQueryBytesTotal);
        return false;
    }
    slot.query_bytes = search;
    query_bytes_ = total;
    return true;
}

void SearchTable::release_slot(int index) {
    SearchSlot& slot = slots_[index];
    if (slot.dimensioned) {
        release_subgroups(index);
        AM_INFO("Subgroups for slot: %d released", index);
    } else {
        AM_ERROR("Try to release uninitialized operations slot ! (slotIndex: %d)", index);
    }
    AM_INFO("releaseSubGroups operations (index: %d)", index);
    // The thread is gone by now (joined, or never started): the slot's
    // results and query can go.
    slot.task.reset();
    if (slot.result_chunks() > 0) slot.release_results();
    slot.clear_query();
    book_query_bytes(index, slot.query_bytes, 0);
    slot.dimensioned = false;
    slot.used = false;
    --active_;
    AM_INFO("freeSLot success: %d (0 == OK)", 0);
}

int SearchTable::destroy(int pluginID, int searchID) {
    AM_INFO("hbbDestroySearch called, pluginID: %d, searchID: %d", pluginID, searchID);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbDestroySearch failed - non existing search !");
        return 1;
    }
    if (stop_searching_task(index, "hbbDestroySearch") != 0) {
        AM_ERROR("Unable to stopSearchingTask !");
        return 1;
    }
    AM_INFO("Searching task (pluginID: %d, searchID: %d) is stopped", pluginID, searchID);
    if (destroy_searching_task(index, "hbbDestroySearch") != 0) {
        AM_ERROR("Unable to destroySearchingTask !");
        return 1;
    }
    AM_INFO("Searching task (pluginID: %d, searchID: %d) is destroyed", pluginID, searchID);
    AM_INFO("Searching task (pluginID: %d, searchID: %d) util is deinitialized", pluginID,
            searchID);
    release_slot(index);
    AM_INFO("Searching task (pluginID: %d, searchID: %d) slot (slotIndex: %d) is deinitialized",
            pluginID, searchID, index);
    AM_INFO("hbbDestroySearch success (pluginID: %d, searchID: %d)", pluginID, searchID);
    return 0;
}

void SearchTable::destroy_all() {
    for (int i = 0; i < kSlotCount; ++i) {
        if (!slots_[i].used) continue;
        // The task's own tear-down stops a scan and joins the thread even
        // when no command fits into its ring any more.
        slots_[i].task.reset();
        release_slot(i);
    }
}

int SearchTable::abort(int pluginID, int searchID) {
    AM_INFO("hbbAbortSearch called, pluginID: %d, searchID: %d", pluginID, searchID);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbAbortSearch failed - non existing search !");
        return 1;
    }
    stop_searching_task(index, "hbbAbortSearch");
    return 0;
}

int SearchTable::set_subgroups_number(int pluginID, int searchID, int numberOfAndGroups,
                                      int startTime, int count, int onid, int tsid, int sid) {
    AM_INFO("hbbSetSearchQueryAndGroupsNumber called, pluginID: %d, searchID: %d, "
            "numberOfAndGroups: %d",
            pluginID, searchID, numberOfAndGroups);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbSetSearchQuerySubGroupsNumber failed - non existing search !");
        return 1;
    }
    SearchSlot& slot = slots_[index];
    if (slot.dimensioned) {
        if (stop_searching_task(index, "hbbSetSearchQuerySubGroupsNumber") != 0) {
            AM_ERROR("Unable to stopSearchingTask from hbbSetSearchQuerySubGroupsNumber");
            return 1;
        }
        AM_INFO("Searching task stopped");
        release_subgroups(index);
        AM_INFO("Existing subgroups released");
    }
    const bool set = slot.edit([&](Query& query, std::vector<ChannelConstraintDesc>&) {
        query.subgroups_number = numberOfAndGroups;
        query.groups.clear();
        if (numberOfAndGroups == 0) {
            query.start_time = startTime;
            query.count = count;
            query.onid = onid;
            query.tsid = tsid;
            query.sid = sid;
            return true;
        }
        // A negative or oversized count cannot be dimensioned; the count is
        // kept all the same (a query with a negative count is not scanned).
        if (numberOfAndGroups < 0 || numberOfAndGroups > kMaxSubgroups) return false;
        const std::size_t table =
            static_cast<std::size_t>(numberOfAndGroups) * sizeof(query.groups[0]);
        if (!book_query_bytes(index, slot.query_bytes, table)) return false;
        query.groups.resize(static_cast<std::size_t>(numberOfAndGroups));
        return true;
    });
    if (!set) {
        AM_ERROR("Unable to setSubGroupsNumber");
        return 1;
    }
    if (slot.dimensioned) AM_INFO("New setSubGroupsNumber set");
    slot.dimensioned = true;
    return 0;
}

int SearchTable::set_queries_number(int pluginID, int searchID, int subGroupIndex,
                                    int queriesNumber) {
    AM_INFO("hbbSetSearchQueryAndGroupsNumber called, pluginID: %d, searchID: %d, "
            "subGroupIndex: %d, queriesNumber: %d",
            pluginID, searchID, subGroupIndex, queriesNumber);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbSetSearchQueryNumbersInSubgroup failed - non existing search !");
        return 1;
    }
    const bool set = slots_[index].edit([&](Query& query, std::vector<ChannelConstraintDesc>&) {
        if (subGroupIndex < 0 || static_cast<std::size_t>(subGroupIndex) >= query.groups.size()) {
            AM_ERROR("Subgroup index out of range: %d (subgroups: %d)", subGroupIndex,
                     query.subgroups_number);
            return false;
        }
        if (queriesNumber < 0 || queriesNumber > kMaxQueriesInSubgroup) return false;
        auto& slot_group = query.groups[static_cast<std::size_t>(subGroupIndex)];
        const std::size_t released = slot_group ? subgroup_bytes(*slot_group) : 0;
        const std::size_t added = static_cast<std::size_t>(queriesNumber) * sizeof(Comparison);
        if (!book_query_bytes(index, released, added)) return false;
        Subgroup group;
        group.comparisons.resize(static_cast<std::size_t>(queriesNumber));
        slot_group = std::move(group);
        return true;
    });
    if (!set) {
        AM_ERROR("Unable to setQueriesNumberInAndGroup");
        return 1;
    }
    return 0;
}

int SearchTable::set_query(int pluginID, int searchID, int subGroupIndex, int queryIndex,
                           int fieldType, int comparison, HeapText value) {
    AM_INFO("hbbSetSearchIndividualQuery called, pluginID: %d, searchID: %d", pluginID,
            searchID);
    AM_INFO("subGroupIndex: %d called, queryIndex: %d, fieldType: %d, comparison: %d, value: %s",
            subGroupIndex, queryIndex, fieldType, comparison, value ? value.get() : "(null)");
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbSetQueryInSubgroup failed - non existing search !");
        return 1;
    }
    const bool set = slots_[index].edit([&](Query& query, std::vector<ChannelConstraintDesc>&) {
        if (subGroupIndex < 0 || static_cast<std::size_t>(subGroupIndex) >= query.groups.size() ||
            !query.groups[static_cast<std::size_t>(subGroupIndex)]) {
            AM_ERROR("hbbSetQueryInSubgroup failed - subgroup %d is not dimensioned !",
                     subGroupIndex);
            return false;
        }
        auto& comparisons = query.groups[static_cast<std::size_t>(subGroupIndex)]->comparisons;
        if (queryIndex < 0 || static_cast<std::size_t>(queryIndex) >= comparisons.size()) {
            AM_ERROR("hbbSetQueryInSubgroup failed - query index %d out of range (queries: %d) !",
                     queryIndex, static_cast<int>(comparisons.size()));
            return false;
        }
        Comparison& c = comparisons[static_cast<std::size_t>(queryIndex)];
        const std::size_t released = c.value ? std::strlen(c.value.get()) + 1 : 0;
        const std::size_t added = value ? std::strlen(value.get()) + 1 : 0;
        if (!book_query_bytes(index, released, added)) return false;
        c.set = true;
        c.field = fieldType;
        c.comparison = comparison;
        c.number = fieldType == eStartTime ? number_of(value.get()) : 0;
        c.value = std::move(value);
        return true;
    });
    return set ? 0 : 1;
}

int SearchTable::start(int pluginID, int searchID, int offset, int count) {
    AM_INFO("hbbStartSearch called, pluginID: %d, searchID: %d, offset: %d, count: %d", pluginID,
            searchID, offset, count);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbStartSearch failed - non existing search !");
        return 1;
    }
    SearchSlot& slot = slots_[index];
    slot.edit([](Query& query, std::vector<ChannelConstraintDesc>&) { dump_query(query); });
    slot.set_new_limit(offset, count);
    slot.set_initial_limit(offset, count);
    slot.mark_started();
    if (!slot.task->enqueue(STC_CMD_START_SEARCH)) {
        AM_ERROR("Unable to equeue STC_CMD_START_SEARCH command !");
        return 1;
    }
    return 0;
}

int SearchTable::results_of_search(int pluginID, int searchID, int offset, int count) {
    AM_INFO("hbbGetResultsOfSearch called, pluginID: %d, searchID: %d, offset: %d, count: %d",
            pluginID, searchID, offset, count);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbGetResultsOfSearch failed - non existing search !");
        return 1;
    }
    (void)slots_[index].total_results();
    AM_INFO("Wanted window acquired");
    return 1;
}

ShortProgramme* SearchTable::item(int pluginID, int searchID, int index) {
    AM_INFO("hbbGetSearchItem called, pluginID: %d, searchID: %d, index: %d", pluginID, searchID,
            index);
    const int slot_index = existing_slot(pluginID, searchID);
    if (slot_index < 0) {
        AM_ERROR("hbbGetSearchItem failed - non existing search !");
        return nullptr;
    }
    const bool found =
        slots_[slot_index].read_result(index, [](const sSearchTaskResultsData& entry) {
            copy_cut(hbbEPGEventName, entry.programme.name);
            copy_cut(hbbEPGEventCrid, entry.programme.programmeID);
            copy_cut(hbbEPGEventCcid, entry.programme.channelID);
            hbbEPGEventBufferObject.programmeIDType = 0;
            hbbEPGEventBufferObject.startTime = entry.programme.startTime;
            hbbEPGEventBufferObject.duration = entry.programme.duration;
            hbbEPGEventBufferObject.parentalRating = nullptr;
        });
    return found ? &hbbEPGEventBufferObject : nullptr;
}

char* SearchTable::item_description(int pluginID, int searchID, int index) {
    AM_INFO("hbbGetSearchItemDescriptor called, pluginID: %d, searchID: %d, index: %d",
            pluginID, searchID, index);
    const int slot_index = existing_slot(pluginID, searchID);
    if (slot_index < 0) {
        AM_ERROR("hbbGetSearchItemDescriptor failed - non existing search !");
        return nullptr;
    }
    char* text = nullptr;
    slots_[slot_index].read_result(index, [&](const sSearchTaskResultsData& entry) {
        text = join_segments(hbbEPGEventDesc, entry.eitShortEventDesc);
    });
    return text;
}

char* SearchTable::item_long_description(int pluginID, int searchID, int index) {
    AM_INFO("hbbGetSearchItemLongDescriptor called, pluginID: %d, searchID: %d, index: %d",
            pluginID, searchID, index);
    const int slot_index = existing_slot(pluginID, searchID);
    if (slot_index < 0) {
        AM_ERROR("hbbGetSearchItemLongDescriptor failed - non existing search !");
        return nullptr;
    }
    char* text = nullptr;
    slots_[slot_index].read_result(index, [&](const sSearchTaskResultsData& entry) {
        text = join_segments(hbbEPGEventLongDesc, entry.eitLongEventDesc);
    });
    return text;
}

int SearchTable::set_constraints_number(int pluginID, int searchID, int numberConstrains) {
    AM_INFO("hbbSetNumberOfChannelConstraints called, pluginID: %d, searchID: %d, "
            "numberConstrains: %d",
            pluginID, searchID, numberConstrains);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        // This text is shared by the three channel-list functions.
        AM_ERROR("hbbGetSearchItemLongDescriptor failed - non existing search !");
        return 1;
    }
    const bool set = slots_[index].edit([&](Query&, std::vector<ChannelConstraintDesc>& list) {
        list.clear();
        list.shrink_to_fit();
        if (numberConstrains < 0 || numberConstrains > kMaxChannelConstraints) {
            const long long bytes =
                static_cast<long long>(numberConstrains) * sizeof(ChannelConstraintDesc);
            AM_ERROR("Allocation failed, size: %lld", bytes);
            return false;
        }
        list.assign(static_cast<std::size_t>(numberConstrains), ChannelConstraintDesc{0, 0, 0});
        return true;
    });
    return set ? 0 : 1;
}

int SearchTable::set_constraint(int pluginID, int searchID, int constraintIndex, int onid,
                                int tsid, int sid) {
    AM_INFO("hbbSetNumberOfChannelConstraints called, pluginID: %d, searchID: %d, "
            "constraintIndex: %d, onid: %d, tsid: %d, sid: %d",
            pluginID, searchID, constraintIndex, onid, tsid, sid);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbGetSearchItemLongDescriptor failed - non existing search !");
        return 1;
    }
    const bool set = slots_[index].edit([&](Query&, std::vector<ChannelConstraintDesc>& list) {
        const int available = static_cast<int>(list.size());
        if (constraintIndex > available - 1) {
            AM_ERROR("Index out of range, available constrains number: %d (constraintIndex: %d)",
                     available, constraintIndex);
            return false;
        }
        // A negative index is accepted, as it always was, but there is no
        // entry to store it in.
        if (constraintIndex < 0) {
            AM_WARN("Negative constraint index %d accepted and ignored", constraintIndex);
            return true;
        }
        list[static_cast<std::size_t>(constraintIndex)] = ChannelConstraintDesc{onid, tsid, sid};
        return true;
    });
    return set ? 0 : 1;
}

int SearchTable::remove_constraints(int pluginID, int searchID) {
    AM_INFO("hbbSetNumberOfChannelConstraints called, pluginID: %d, searchID: %d", pluginID,
            searchID);
    const int index = existing_slot(pluginID, searchID);
    if (index < 0) {
        AM_ERROR("hbbGetSearchItemLongDescriptor failed - non existing search !");
        return 1;
    }
    const bool removed = slots_[index].edit([](Query&, std::vector<ChannelConstraintDesc>& list) {
        if (list.empty()) return false;
        list.clear();
        list.shrink_to_fit();
        return true;
    });
    if (!removed) {
        AM_ERROR("Search with index: %d, has no channel constrains", index);
        return 1;
    }
    return 0;
}

}  // namespace appmgr::epg
