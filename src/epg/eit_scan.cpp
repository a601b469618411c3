// Scans over the EIT cache. A scan holds the cache lock while it walks the
// events of one service and takes the slot's guard only briefly inside it
// (to store a result and update the window; the stop check reads an atomic
// flag), so the lock order is always cache, then slot, then pool.
#include "eit_scan.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "common/log.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "query_eval.h"

namespace appmgr::epg {

namespace {

// A registration with the EIT cache, unregistered at the latest when the
// guard goes.
class CacheClient {
public:
    CacheClient() : handle_(EIT_DVB_ClientRegister()) {}
    ~CacheClient() {
        if (handle_ != -1) EIT_DVB_ClientUnregister(handle_);
    }
    CacheClient(const CacheClient&) = delete;
    CacheClient& operator=(const CacheClient&) = delete;
    int handle() const { return handle_; }
    bool unregister() {
        const int handle = handle_;
        handle_ = -1;
        return EIT_DVB_ClientUnregister(handle) == 0;
    }

private:
    int handle_;
};

// The cache lock, released at the latest when the guard goes.
class CacheLock {
public:
    CacheLock() = default;
    ~CacheLock() {
        if (held_) EIT_DVB_UnlockCache();
    }
    CacheLock(const CacheLock&) = delete;
    CacheLock& operator=(const CacheLock&) = delete;
    bool lock() {
        held_ = EIT_DVB_LockCache() == 0;
        return held_;
    }
    bool unlock() {
        held_ = false;
        return EIT_DVB_UnlockCache() == 0;
    }

private:
    bool held_ = false;
};

struct ScanStatistics {
    timeval started{};
    int caches = 0;
    int events = 0;
    int found = 0;
};

void log_statistics(const SearchSlot& slot, const ScanStatistics& stats) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const double seconds = static_cast<double>(now.tv_sec - stats.started.tv_sec) +
                           static_cast<double>(now.tv_usec - stats.started.tv_usec) / 1e6;
    AM_INFO("Search ID = %d,Plugin ID = %d\n", slot.search_id, slot.plugin_id);
    AM_INFO("Searched channels caches = %d\n", stats.caches);
    AM_INFO("Searched events = %d\n", stats.events);
    AM_INFO("Total search time = %.6lf (sec)\n", seconds);
    AM_INFO("Found EPG events = %d\n", stats.found);
}

void log_unregister_failure(const SearchSlot& slot) {
    AM_ERROR("!!! Unable to unregister to EIT manager !!! (searchID: %d, pluginID: %d)",
             slot.search_id, slot.plugin_id);
}

// The end of a scan that ran to its end (or to a full pool): unregister,
// then tell the browser which window it may read.
bool finish_scan(SearchSlot& slot, CacheClient& client) {
    if (!client.unregister()) {
        log_unregister_failure(slot);
        return false;
    }
    int offset = 0;
    int length = 0;
    int total = 0;
    slot.end_window(offset, length, total);
    search_status_notify(slot.search_id, APPMGR_SEARCH_STATUS_FINISHED, offset, length, total);
    return true;
}

// The end of a scan that was asked to stop: no notification.
bool stop_scan(SearchSlot& slot, CacheClient& client, CacheLock& lock) {
    AM_INFO("Processing task (searchID: %d, pluginID: %d) should stop current search !",
            slot.search_id, slot.plugin_id);
    lock.unlock();
    if (!client.unregister()) {
        log_unregister_failure(slot);
        return false;
    }
    return true;
}

enum class Stored { Yes, EndScan };

// Builds and stores the result of a matching event; on failure the
// event's texts are released and the scan must end (with notification).
Stored store_match(SearchSlot& slot, tEIT_DVB_HbbTVDescriptor& event, int channel_index,
                   int found) {
    sSearchTaskResultsData result{};
    if (!fill_result(event, result, channel_index)) {
        AM_ERROR("Unable to fillResult");
        return Stored::EndScan;
    }
    if (slot.add_result(result) != ResultStore::Added::Stored) {
        AM_ERROR("Unable to addNewResult");
        release_result(result, false);
        return Stored::EndScan;
    }
    slot.update_result_state(found);
    int offset = 0;
    int length = 0;
    int total = 0;
    slot.current_window(offset, length, total);
    return Stored::Yes;
}

char* heap_copy(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

void release_descriptions(tEIT_DVB_HbbTVDescriptor& event) {
    release_event_descriptor(&event.eitShortEventDesc, false);
    release_event_descriptor(&event.eitLongEventDesc, false);
}

// The data of the event under the cursor; false (logged) when the cache
// refuses it.
bool read_event(int handle, tEIT_DVB_HbbTVDescriptor& event) {
    if (EIT_DVB_GetEventDataNonLock(handle, &event) == 0) return true;
    AM_ERROR("EIT_DVB_GetEventData ERROR stop search !");
    return false;
}

// The descriptions of the event under the cursor; false (logged, anything
// partly fetched released) when the cache refuses them.
bool read_descriptions(int handle, tEIT_DVB_HbbTVDescriptor& event) {
    if (EIT_DVB_GetRestOfEventDataNonLock(handle, &event) == 0) return true;
    AM_ERROR("EIT_DVB_GetRestOfEventDataNonLock ERROR stop search !");
    release_descriptions(event);
    return false;
}

// A registered cache client for a scan; false (logged) when the cache
// refuses one.
bool registered(const SearchSlot& slot, int handle) {
    AM_INFO("Acquired handle/index from EIM manager: %d", handle);
    if (handle != -1) return true;
    AM_ERROR("!!! Unable to register to EIT manager !!! (searchID: %d, pluginID: %d)",
             slot.search_id, slot.plugin_id);
    return false;
}

// Takes the cache lock for a walk over one service; false (logged) when the
// cache refuses it.
bool locked(CacheLock& lock) {
    if (lock.lock()) return true;
    AM_ERROR("Unable to EIT_DVB_LockCache !");
    return false;
}

// Walks the services of a scan: all service caches, or the channel list.
class ServiceWalk {
public:
    ServiceWalk(int handle, const std::vector<ChannelConstraintDesc>& constraints)
        : handle_(handle), constraints_(constraints) {}

    // The first service with a cache; channels of the list without a cache
    // are skipped here.
    bool first() {
        if (constraints_.empty()) return EIT_DVB_GetFirstServiceCache(handle_) != 0;
        for (index_ = 0; index_ < constraints_.size(); ++index_)
            if (select(constraints_[index_])) return true;
        return false;
    }
    // The next service; a channel of the list without a cache ends the walk.
    bool next() {
        if (constraints_.empty()) return EIT_DVB_GetNextServiceCache(handle_) != 0;
        if (++index_ >= constraints_.size()) return false;
        return select(constraints_[index_]);
    }

private:
    bool select(const ChannelConstraintDesc& c) {
        return EIT_DVB_GetServiceCacheForSpecificService(handle_, c.iOnid, c.iTsid, c.iSid) != -1;
    }

    int handle_;
    const std::vector<ChannelConstraintDesc>& constraints_;
    std::size_t index_ = 0;
};

}  // namespace

bool fill_result(tEIT_DVB_HbbTVDescriptor& event, sSearchTaskResultsData& result,
                 int channel_index) {
    ShortProgramme& p = result.programme;
    p.name = heap_copy(event.eitName != nullptr ? event.eitName : "undefined");
    if (p.name == nullptr) {
        AM_ERROR("Unable to allocate result event name!");
        release_descriptions(event);
        return false;
    }
    result.eitShortEventDesc = event.eitShortEventDesc;
    result.eitLongEventDesc = event.eitLongEventDesc;
    event.eitShortEventDesc = tEIT_DVB_EventDescriptor{};
    event.eitLongEventDesc = tEIT_DVB_EventDescriptor{};

    char id[kProgrammeIdSize];
    format_programme_id(event, id);
    p.programmeID = heap_copy(id);
    if (p.programmeID == nullptr) {
        AM_ERROR("Unable to allocate result event programmeID!");
        release_result(result, false);
        return false;
    }
    p.programmeIDType = 0;
    char channel[16];
    std::snprintf(channel, sizeof channel, "%d", channel_index);
    p.channelID = heap_copy(channel);
    if (p.channelID == nullptr) {
        AM_ERROR("Unable to allocate result event channelID!");
        release_result(result, false);
        return false;
    }
    p.parentalRating = nullptr;
    p.startTime = event.eitStartTime;
    p.duration = event.eitDuration;
    return true;
}

bool search_for_events(SearchSlot& slot, const ScanInput& input) {
    ScanStatistics stats;
    gettimeofday(&stats.started, nullptr);
    CacheClient client;
    const int handle = client.handle();
    if (!registered(slot, handle)) return false;
    ServiceWalk services(handle, input.constraints);
    bool end_scan = false;
    for (bool have = services.first(); have;) {
        ++stats.caches;
        CacheLock lock;
        if (!locked(lock)) return false;
        for (int more = EIT_DVB_GetFirstEventFromCacheNonLock(handle); more != 0;
             more = EIT_DVB_GetNextEventFromCacheNonLock(handle)) {
            ++stats.events;
            if (slot.should_stop()) return stop_scan(slot, client, lock);
            tEIT_DVB_HbbTVDescriptor event{};
            if (!read_event(handle, event)) return false;
            if (!query_matches(input.query, event)) continue;
            ++stats.found;
            if (!read_descriptions(handle, event)) return false;
            if (store_match(slot, event, stats.caches - 1, stats.found) == Stored::EndScan) {
                end_scan = true;
                break;
            }
        }
        if (!lock.unlock()) AM_ERROR("Unable to EIT_DVB_LockCache !");
        if (end_scan) break;
        have = services.next();
    }
    if (!finish_scan(slot, client)) return false;
    // The statistics block of a full scan goes to the log twice in a row,
    // as the receiver's log readers know it.
    log_statistics(slot, stats);
    log_statistics(slot, stats);
    return true;
}

bool search_one_stream(SearchSlot& slot, const Query& query) {
    ScanStatistics stats;
    gettimeofday(&stats.started, nullptr);
    CacheClient client;
    const int handle = client.handle();
    if (!registered(slot, handle)) return false;
    if (EIT_DVB_GetServiceCacheForSpecificService(handle, query.onid, query.tsid, query.sid) ==
        -1) {
        AM_INFO("No service cache available for this service (onid: %d, tsid: %d, sid: %d)",
                query.onid, query.tsid, query.sid);
        if (!client.unregister()) {
            log_unregister_failure(slot);
            return false;
        }
        search_status_notify(slot.search_id, APPMGR_SEARCH_STATUS_FINISHED, 0, 0, 0);
        return false;
    }
    AM_INFO("Service sache available for this service (onid: %d, tsid: %d, sid: %d)",
            query.onid, query.tsid, query.sid);
    ++stats.caches;
    {
        CacheLock lock;
        if (!locked(lock)) return false;
        for (int more = EIT_DVB_GetFirstEventFromCacheNonLock(handle); more != 0;
             more = EIT_DVB_GetNextEventFromCache(handle)) {
            ++stats.events;
            if (slot.should_stop()) return stop_scan(slot, client, lock);
            tEIT_DVB_HbbTVDescriptor event{};
            if (!read_event(handle, event)) return false;
            if (!read_descriptions(handle, event)) return false;
            AM_INFO("searchOperations->startTime = %d", query.start_time);
            AM_INFO("eventDescriptor.eitStartTime = %d", event.eitStartTime);
            AM_INFO("eventDescriptor.eitDuration = %d", event.eitDuration);
            if (!on_air_or_later(query.start_time, event)) {
                release_descriptions(event);
                continue;
            }
            ++stats.found;
            if (store_match(slot, event, stats.caches - 1, stats.found) == Stored::EndScan) break;
        }
        if (!lock.unlock()) AM_ERROR("Unable to EIT_DVB_LockCache !");
    }
    if (!finish_scan(slot, client)) return false;
    log_statistics(slot, stats);
    return true;
}

void search_status_notify(int searchID, int searchStatus, int offset, int length,
                          int eventsFound) {
    SearchEvent event{};
    event.searchID = searchID;
    event.searchStatus = searchStatus;
    event.eventsFound = eventsFound;
    event.searchOffset = offset;
    event.searchResult = length;
    protocol::send(protocol::Command::SearchStatus, &event);
}

void displayEventInformation(int eitHandle) {
    tEIT_DVB_HbbTVDescriptor event{};
    if (EIT_DVB_GetEventDataNonLock(eitHandle, &event) != 0) {
        AM_INFO("No event under the cursor of EIT client %d", eitHandle);
        return;
    }
    AM_INFO("Event name: %s", event.eitName != nullptr ? event.eitName : "(null)");
    AM_INFO("Event description: %s",
            event.eitDescription != nullptr ? event.eitDescription : "(null)");
}

void dump_query(const Query& query) {
    AM_INFO("\n\n");
    AM_INFO("---------------------------------");
    for (std::size_t g = 0; g < query.groups.size(); ++g) {
        AM_INFO("*** Group %d informations ***", static_cast<int>(g));
        if (!query.groups[g]) continue;
        for (const Comparison& c : query.groups[g]->comparisons)
            AM_INFO("Query type: %d, comparison %d, value: %s", c.field, c.comparison,
                    c.value ? c.value.get() : "(null)");
    }
}

}  // namespace appmgr::epg
