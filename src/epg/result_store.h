// Where search results live: the library-wide pool that rations result
// memory in chunks, and the per-search store that grows by whole chunks.
#pragma once

#include <mutex>
#include <vector>

#include "app_mgr_search.h"

namespace appmgr::epg {

// Counts chunks granted to the searches. A chunk is the permission to grow
// one result store by kChunkResults entries; the pool allocates nothing
// itself. All searches together hold at most kChunkCount chunks.
class ResultPool {
public:
    static constexpr int kChunkCount = 100;
    static constexpr int kChunkResults = 20;

    // One more chunk, when fewer than kChunkCount are out.
    bool acquire();
    // Gives chunks back; refused (count unchanged) when more would be given
    // back than are out.
    bool release(int chunks);
    int acquired() const;
    void reset();

private:
    mutable std::mutex guard_;
    int chunks_acquired_ = 0;
};

// The pool all searches share.
ResultPool& result_pool();

// Releases a descriptor's segments (with UT_FreeDVBStringConverted) and its
// array; nothing when it has no segments. With `log` the release is logged
// segment by segment.
void release_event_descriptor(tEIT_DVB_EventDescriptor* descriptor, bool log = true);

// Frees the texts of a result and releases both descriptors.
void release_result(sSearchTaskResultsData& result, bool log = true);

// The results of one search. Not locked itself: the owning slot's guard is
// held around every call (the pool's guard is taken inside it).
class ResultStore {
public:
    enum class Added { Stored, NoChunk, NoMemory };

    ResultStore() = default;
    ~ResultStore();
    ResultStore(const ResultStore&) = delete;
    ResultStore& operator=(const ResultStore&) = delete;

    // Takes the result over when it returns Stored; otherwise the result
    // stays with the caller.
    Added add(sSearchTaskResultsData& result);
    // Drops every result and gives the chunks back to the pool; returns the
    // number of chunks the store held. Only the first size() - window_offset
    // entries are released with log lines.
    int release(int window_offset);

    int size() const { return static_cast<int>(entries_.size()); }
    int chunks() const { return chunks_; }
    // Entry at index, or null outside 0..size()-1.
    const sSearchTaskResultsData* at(long long index) const;

private:
    std::vector<sSearchTaskResultsData> entries_;
    int chunks_ = 0;
};

}  // namespace appmgr::epg
