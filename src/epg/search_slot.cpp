// Search slot: the locked accessors shared by the browser-facing calls and
// the search thread.
#include "search_slot.h"

#include "common/log.h"
#include "search_task.h"

namespace appmgr::epg {

SearchSlot::SearchSlot() = default;
SearchSlot::~SearchSlot() = default;

ScanInput SearchSlot::scan_input() {
    std::lock_guard<std::mutex> lock(guard_);
    return ScanInput{query_.copy(), constraints_};
}

void SearchSlot::clear_query() {
    std::lock_guard<std::mutex> lock(guard_);
    query_ = Query{};
    constraints_.clear();
    constraints_.shrink_to_fit();
}

bool SearchSlot::is_searching() {
    std::lock_guard<std::mutex> lock(guard_);
    return should_run_.load();
}

void SearchSlot::stop_current_search() {
    std::lock_guard<std::mutex> lock(guard_);
    should_run_ = false;
}

bool SearchSlot::stopProccesing() {
    stop_current_search();
    return true;
}

bool SearchSlot::checkSearchCompletetion() {
    std::lock_guard<std::mutex> lock(guard_);
    return search_complete_;
}

void SearchSlot::mark_started() {
    std::lock_guard<std::mutex> lock(guard_);
    should_run_ = true;
    search_complete_ = false;
}

void SearchSlot::update_result_state(int found_events) {
    std::lock_guard<std::mutex> lock(guard_);
    results_found_ = found_events;
}

int SearchSlot::total_results() {
    std::lock_guard<std::mutex> lock(guard_);
    return results_.size();
}

bool SearchSlot::set_new_limit(int offset, int limit) {
    std::lock_guard<std::mutex> lock(guard_);
    if (limit <= notification_limit_) return false;
    AM_INFO("New search limit set: %d (old search limit: %d)", limit, notification_limit_);
    AM_INFO("New search offset set: %d (old search offset: %d)", offset, search_offset_);
    notification_limit_ = limit;
    search_offset_ = offset;
    return true;
}

void SearchSlot::set_initial_limit(int offset, int limit) {
    std::lock_guard<std::mutex> lock(guard_);
    search_offset_ = offset;
    notification_limit_ = limit;
}

namespace {

// Window arithmetic is done in 64 bits: the browser chooses offset and count
// freely (-2147483648 included), and a window never reports more results
// than are stored. A negative count is reported as it came.
int bounded_length(long long length, int stored) {
    return length > stored ? stored : static_cast<int>(length);
}

}  // namespace

bool SearchSlot::current_window(int& offset, int& length, int& total_found) {
    std::lock_guard<std::mutex> lock(guard_);
    const int members = results_.size();
    if (members != notification_limit_) return false;
    offset = search_offset_;
    length = bounded_length(static_cast<long long>(notification_limit_) - search_offset_, members);
    total_found = members;
    AM_INFO("Will dispatch search event to JavaScript (offset: %d, length: %d, totalFound: %d)",
            offset, length, total_found);
    return true;
}

// The length is the window count when more results than that were stored,
// else the results past the offset; the log line shows the count past the
// offset, as asked.
void SearchSlot::end_window(int& offset, int& length, int& total_found) {
    std::lock_guard<std::mutex> lock(guard_);
    const int members = results_.size();
    offset = search_offset_;
    total_found = members;
    long long wanted = 0;
    if (members > notification_limit_)
        wanted = notification_limit_;
    else if (search_offset_ < members)
        wanted = static_cast<long long>(members) - search_offset_;
    length = bounded_length(wanted, members);
    AM_INFO("End of search event to JavaScript (offset: %d, length: %lld, totalFound: %d)", offset,
            static_cast<long long>(notification_limit_) - search_offset_, total_found);
}

ResultStore::Added SearchSlot::add_result(sSearchTaskResultsData& result) {
    std::lock_guard<std::mutex> lock(guard_);
    return results_.add(result);
}

int SearchSlot::release_results() {
    std::lock_guard<std::mutex> lock(guard_);
    return results_.release(search_offset_);
}

bool SearchSlot::log_lookup(bool exists, int resultIndex) const {
    if (exists)
        AM_INFO("Result with index: %d exist (SearchID: %d, PluginID: %d)", resultIndex,
                search_id, plugin_id);
    else
        AM_INFO("Result with index: %d DONT exist (SearchID: %d, PluginID: %d)", resultIndex,
                search_id, plugin_id);
    return exists;
}

int SearchSlot::result_chunks() {
    std::lock_guard<std::mutex> lock(guard_);
    return results_.chunks();
}

int SearchSlot::window_offset() {
    std::lock_guard<std::mutex> lock(guard_);
    return search_offset_;
}

int SearchSlot::notification_limit() {
    std::lock_guard<std::mutex> lock(guard_);
    return notification_limit_;
}

}  // namespace appmgr::epg
