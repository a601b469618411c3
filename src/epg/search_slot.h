// One live search: its key, query, result store, window and thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "result_store.h"
#include "search_types.h"

namespace appmgr::epg {

class SearchTask;

// What a scan works on: copies of the query and of the channel list, taken
// under the slot's guard when the scan starts. The browser may change the
// slot's own query meanwhile without touching a running scan.
struct ScanInput {
    Query query;
    std::vector<ChannelConstraintDesc> constraints;
};

// Lock order: the EIT cache lock (held by a scan), then the slot's guard,
// then the pool's guard. The guard is only ever held briefly.
class SearchSlot {
public:
    SearchSlot();
    ~SearchSlot();
    SearchSlot(const SearchSlot&) = delete;
    SearchSlot& operator=(const SearchSlot&) = delete;

    // ---- owned by the browser-facing calls (the module lock is held) ----
    bool used = false;
    // A query was dimensioned at least once.
    bool dimensioned = false;
    // Bytes the query holds, as the query budgets count them.
    std::size_t query_bytes = 0;
    // The key; fixed while the slot is used (the thread reads it unlocked).
    int plugin_id = 0;
    int search_id = 0;
    std::unique_ptr<SearchTask> task;

    // Runs edit(query, constraints) under the guard.
    template <typename Edit>
    auto edit(Edit&& edit) {
        std::lock_guard<std::mutex> lock(guard_);
        return edit(query_, constraints_);
    }
    // Copies of the query and channel list (throws std::bad_alloc).
    ScanInput scan_input();
    // Puts the query and the channel list back to their start values.
    void clear_query();

    // ---- shared with the search thread: each call takes the guard ----
    // True when the running scan is asked to stop. Called for every event:
    // it reads the flag without the guard (the flag is atomic; it is still
    // only written under the guard).
    bool should_stop() const { return !should_run_.load(std::memory_order_acquire); }
    // True while a scan is wanted (from a start until a stop; the end of a
    // scan does not clear it).
    bool is_searching();
    void stop_current_search();
    // stopProccesing: the same stop, answering whether it was made. Kept
    // for the interface; the library stops scans with stop_current_search.
    bool stopProccesing();
    // checkSearchCompletetion: the completion flag, which a start clears and
    // nothing sets (a finished scan is told to the browser instead).
    bool checkSearchCompletetion();
    // A start was asked for: scan wanted, not complete.
    void mark_started();
    void update_result_state(int found_events);
    int total_results();

    // Result window.
    bool set_new_limit(int offset, int limit);
    void set_initial_limit(int offset, int limit);
    // Logs when the results reached the notification limit; the scan does
    // not act on it.
    bool current_window(int& offset, int& length, int& total_found);
    void end_window(int& offset, int& length, int& total_found);

    ResultStore::Added add_result(sSearchTaskResultsData& result);
    // Drops the results; returns the number of chunks given back.
    int release_results();

    // Runs read(entry) under the guard for result resultIndex of the window
    // (window offset + resultIndex), logging whether it exists. Returns
    // false (without calling read) when it does not.
    template <typename Read>
    bool read_result(int resultIndex, Read&& read) {
        std::lock_guard<std::mutex> lock(guard_);
        const sSearchTaskResultsData* entry =
            results_.at(static_cast<long long>(search_offset_) + resultIndex);
        if (!log_lookup(entry != nullptr, resultIndex)) return false;
        read(*entry);
        return true;
    }

    // For tests and statistics.
    int result_chunks();
    int window_offset();
    int notification_limit();

private:
    bool log_lookup(bool exists, int resultIndex) const;

    std::mutex guard_;
    Query query_;
    std::vector<ChannelConstraintDesc> constraints_;
    std::atomic<bool> should_run_{false};
    bool search_complete_ = false;
    int results_found_ = 0;
    int search_offset_ = 0;
    int notification_limit_ = 0;
    ResultStore results_;
};

}  // namespace appmgr::epg
