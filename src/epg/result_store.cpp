// Result pool and result store.
#include "result_store.h"

#include <cstdlib>
#include <new>

#include "common/log.h"
#include "hbb_platform.h"

namespace appmgr::epg {

bool ResultPool::acquire() {
    bool granted = false;
    int now = 0;
    {
        std::lock_guard<std::mutex> lock(guard_);
        if (chunks_acquired_ > kChunkCount - 1) {
            AM_ERROR("No available memory chunks !");
        } else {
            ++chunks_acquired_;
            granted = true;
        }
        now = chunks_acquired_;
    }
    AM_INFO("acquireMemoryPoolChunk status: %d, currently acquired chunks: %d", granted ? 1 : 0,
            now);
    return granted;
}

bool ResultPool::release(int chunks) {
    bool released = false;
    int now = 0;
    {
        std::lock_guard<std::mutex> lock(guard_);
        if (chunks < 0 || chunks_acquired_ - chunks < 0) {
            AM_ERROR("Client is trying to release more chunks then is allocated !");
            AM_ERROR("Curently allocated chunks: %d !", chunks_acquired_);
            AM_ERROR("Client is trying to release: %d chunks !", chunks);
        } else {
            chunks_acquired_ -= chunks;
            released = true;
        }
        now = chunks_acquired_;
    }
    AM_INFO("releaseMemoryPoolChunks status: %d, currently acquired chunks: %d",
            released ? 1 : 0, now);
    return released;
}

int ResultPool::acquired() const {
    std::lock_guard<std::mutex> lock(guard_);
    return chunks_acquired_;
}

void ResultPool::reset() {
    std::lock_guard<std::mutex> lock(guard_);
    chunks_acquired_ = 0;
}

ResultPool& result_pool() {
    static ResultPool pool;
    return pool;
}

void release_event_descriptor(tEIT_DVB_EventDescriptor* descriptor, bool log) {
    if (descriptor == nullptr || descriptor->eitEventSegmentNum <= 0) return;
    for (int i = 0; i < descriptor->eitEventSegmentNum; ++i) {
        if (log) AM_INFO("To release eitEventSegments slots: %d", i);
        if (descriptor->eitEventSegments != nullptr)
            UT_FreeDVBStringConverted(descriptor->eitEventSegments[i]);
    }
    if (descriptor->eitEventSegments != nullptr) {
        if (log) AM_INFO("To release eitEventSegments");
        std::free(descriptor->eitEventSegments);
    }
    // The array pointer is nulled too, so a second release cannot free it
    // again.
    descriptor->eitEventSegments = nullptr;
    descriptor->eitEventSegmentNum = 0;
    if (log) AM_INFO("eitEventSegments released");
}

void release_result(sSearchTaskResultsData& result, bool log) {
    std::free(result.programme.name);
    result.programme.name = nullptr;
    std::free(result.programme.channelID);
    result.programme.channelID = nullptr;
    std::free(result.programme.programmeID);
    result.programme.programmeID = nullptr;
    release_event_descriptor(&result.eitShortEventDesc, log);
    release_event_descriptor(&result.eitLongEventDesc, log);
}

ResultStore::~ResultStore() {
    if (chunks_ > 0 || !entries_.empty()) release(0);
}

ResultStore::Added ResultStore::add(sSearchTaskResultsData& result) {
    const std::size_t capacity = static_cast<std::size_t>(chunks_) * ResultPool::kChunkResults;
    if (entries_.size() + 1 > capacity) {
        if (!result_pool().acquire()) {
            AM_INFO("No free memory chunks in memory pool, result discarded...");
            return Added::NoChunk;
        }
        try {
            entries_.reserve(capacity + ResultPool::kChunkResults);
        } catch (const std::bad_alloc&) {
            AM_ERROR("Unable to reallocate results buffer, result discarded...");
            // The chunk goes back: the store did not grow.
            result_pool().release(1);
            return Added::NoMemory;
        }
        ++chunks_;
    }
    entries_.push_back(result);  // within the reserved capacity: cannot throw
    result = sSearchTaskResultsData{};
    return Added::Stored;
}

int ResultStore::release(int window_offset) {
    if (chunks_ < 1) {
        AM_INFO("No results in this structure instance !");
        return 0;
    }
    const int released = chunks_;
    const int members = size();
    AM_INFO("Used result slots: %d", members);
    // Entries below members - window_offset are released with their log
    // lines; the rest silently, so that nothing is left behind.
    const long long logged = static_cast<long long>(members) - window_offset;
    for (int i = 0; i < members; ++i) release_result(entries_[i], i < logged);
    std::vector<sSearchTaskResultsData>().swap(entries_);
    chunks_ = 0;
    AM_INFO("Acquired result chunks: %d", released);
    result_pool().release(released);
    return released;
}

const sSearchTaskResultsData* ResultStore::at(long long index) const {
    if (index < 0 || index >= static_cast<long long>(entries_.size())) return nullptr;
    return &entries_[static_cast<std::size_t>(index)];
}

}  // namespace appmgr::epg
