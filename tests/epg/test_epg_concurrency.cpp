// Searches and their threads under concurrency: 128 live searches at once,
// an abort or a destroy while a scan runs (held at a known event), and a
// loop of starts, aborts and destroys racing the scans (run under TSan).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <set>
#include <thread>

#include "epg_test_support.h"

namespace appmgr::test {
namespace {

// Holds the scanning thread at one event until released (bounded waits).
class ScanGate {
public:
    explicit ScanGate(int event_id) : event_id_(event_id) {
        hbb_sim_eit_set_event_hook(&ScanGate::hook, this);
    }
    ~ScanGate() {
        open();
        hbb_sim_eit_set_event_hook(nullptr, nullptr);
    }
    bool waitReached() {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(10), [this] { return reached_; });
    }
    void open() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            open_ = true;
        }
        cv_.notify_all();
    }

private:
    static void hook(int, int event_id, void* user) {
        auto* gate = static_cast<ScanGate*>(user);
        if (event_id != gate->event_id_) return;
        std::unique_lock<std::mutex> lock(gate->mutex_);
        gate->reached_ = true;
        gate->cv_.notify_all();
        gate->cv_.wait_for(lock, std::chrono::seconds(10), [gate] { return gate->open_; });
    }
    const int event_id_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool reached_ = false;
    bool open_ = false;
};

class SearchThreads : public SearchTest {
protected:
    const std::vector<std::vector<Cmp>> kNews{{Cmp{eTitle, eContainString, "news"}}};
    void feedNewsService(int events) {
        for (int i = 1; i <= events; ++i)
            feed("event 1 1 100 " + std::to_string(i) + " " + std::to_string(i * 100) +
                 " 100|News " + std::to_string(i));
    }
};

TEST_F(SearchThreads, HundredTwentyEightLiveSearches) {
    hbb_sim_set_log_level(3);
    ASSERT_EQ(hbb_sim_eit_generate(4, 200, 0, 3), 800);
    for (int id = 0; id < epg::kSlotCount; ++id) createWithQuery(1, id, kNews);
    EXPECT_EQ(epg::active_search_count(), epg::kSlotCount);
    EXPECT_EQ(hbbCreateNewSearch(1, 999), 1);
    EXPECT_TRUE(log_.contains("No free slots !"));
    for (int id = 0; id < epg::kSlotCount; ++id) ASSERT_EQ(hbbStartSearch(1, id, 0, 1000), 0);
    // Each search finds the same few events (one chunk's worth); the pool's
    // 100 chunks go to the first 100 searches to store one, the other 28
    // have their first result discarded.
    std::set<int> ended;
    int with_results = 0;
    int found = -1;
    for (int i = 0; i < epg::kSlotCount; ++i) {
        Status s = nextStatus();
        ASSERT_EQ(s.status, 0);
        EXPECT_TRUE(ended.insert(s.search_id).second) << "twice: " << s.search_id;
        if (s.found == 0) continue;
        ++with_results;
        if (found < 0) found = s.found;
        EXPECT_EQ(s.found, found);
    }
    EXPECT_GT(found, 0);
    EXPECT_LE(found, epg::ResultPool::kChunkResults);
    EXPECT_EQ(with_results, epg::ResultPool::kChunkCount);
    EXPECT_EQ(epg::result_pool().acquired(), epg::ResultPool::kChunkCount);
    for (int id = 0; id < epg::kSlotCount; ++id) ASSERT_EQ(hbbDestroySearch(1, id), 0);
    EXPECT_EQ(epg::active_search_count(), 0);
}

TEST_F(SearchThreads, AbortWhileScanning) {
    feedNewsService(50);
    createWithQuery(1, 5, kNews);
    ScanGate gate(10);
    ASSERT_EQ(hbbStartSearch(1, 5, 0, 100), 0);
    ASSERT_TRUE(gate.waitReached());
    auto aborted = std::async(std::launch::async, [] { return hbbAbortSearch(1, 5); });
    // The abort waits for the scan, which stops at its next event.
    ASSERT_TRUE(log_.waitFor("Now wait for processing task to clean existing results", 5000));
    gate.open();
    ASSERT_EQ(aborted.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(aborted.get(), 0);
    // The stopped scan sent nothing: the first frame is the abort's.
    EXPECT_EQ(nextStatus(), (Status{5, 2, 0, 0, 0}));
    EXPECT_TRUE(log_.contains("Processing task (searchID: 5, pluginID: 1) should stop current search !"));
    EXPECT_EQ(hbbGetSearchItem(1, 5, 0), nullptr);
    // The query stayed: the search runs again to its end.
    EXPECT_EQ(run(1, 5, 0, 100), (Status{5, 0, 0, 50, 50}));
}

TEST_F(SearchThreads, DestroyWhileScanning) {
    feedNewsService(50);
    createWithQuery(1, 5, kNews);
    ScanGate gate(20);
    ASSERT_EQ(hbbStartSearch(1, 5, 0, 100), 0);
    ASSERT_TRUE(gate.waitReached());
    auto destroyed = std::async(std::launch::async, [] { return hbbDestroySearch(1, 5); });
    ASSERT_TRUE(log_.waitFor("Now wait for processing task to clean existing results", 5000));
    gate.open();
    ASSERT_EQ(destroyed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(destroyed.get(), 0);
    EXPECT_EQ(nextStatus(), (Status{5, 2, 0, 0, 0}));
    EXPECT_EQ(epg::active_search_count(), 0);
    EXPECT_EQ(epg::result_pool().acquired(), 0);
}

TEST_F(SearchThreads, DeinitializeEndsScansInProgress) {
    feedNewsService(50);
    createWithQuery(1, 5, kNews);
    ScanGate gate(5);
    ASSERT_EQ(hbbStartSearch(1, 5, 0, 100), 0);
    ASSERT_TRUE(gate.waitReached());
    auto ended = std::async(std::launch::async, [] { return deinitializeEPGExternal(); });
    // The tear-down asks the scan to stop before it joins the thread.
    std::this_thread::yield();
    gate.open();
    ASSERT_EQ(ended.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(ended.get(), 0);
    EXPECT_EQ(epg::result_pool().acquired(), 0);
    ASSERT_EQ(initializeEPGExternal(), 0);
}

// Starts, aborts, re-dimensions and destroys race the scans; a second
// thread reads items and totals of the same searches meanwhile.
TEST_F(SearchThreads, AbortAndDestroyRaceTheScansInALoop) {
    // The reader asks for searches that come and go: no log lines at all.
    hbb_sim_set_log_level(6);
    ASSERT_EQ(hbb_sim_eit_generate(4, 1500, 0, 11), 6000);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done.load()) {
            for (int id = 0; id < 4; ++id) {
                hbbGetSearchItem(1, id, 0);
                hbbGetSearchItemLongDescriptor(1, id, 1);
                hbbGetResultsOfSearch(1, id, 0, 10);
            }
            std::this_thread::yield();
        }
    });
    int expected_frames = 0;
    for (int round = 0; round < 24; ++round) {
        const int id = round % 4;
        createWithQuery(1, id, {{Cmp{eTitle, eContainString, "o"}}});
        ASSERT_EQ(hbbStartSearch(1, id, 0, 50), 0);
        switch (round % 4) {
            case 0:  // destroy at once
                break;
            case 1:  // abort, then start again and destroy
                ASSERT_EQ(hbbAbortSearch(1, id), 0);
                ASSERT_EQ(hbbStartSearch(1, id, 0, 50), 0);
                break;
            case 2:  // a new query stops the scan first
                setQuery(1, id, {{Cmp{eStartTime, eLess, "100000"}}});
                ASSERT_EQ(hbbStartSearch(1, id, 0, 50), 0);
                break;
            case 3:  // started twice
                ASSERT_EQ(hbbStartSearch(1, id, 0, 50), 0);
                break;
        }
        ASSERT_EQ(hbbDestroySearch(1, id), 0);
        // Every round ends with one abort notification at least (the
        // destroy's); finished scans add theirs.
        ++expected_frames;
    }
    done = true;
    reader.join();
    // Drain what arrived: at least one abort per round, nothing else than
    // status 0 or 2.
    int aborts = 0;
    while (auto frame = browser_.readFrame(Connection::Callbacks, 200)) {
        ASSERT_EQ(frame->id, 67);
        ASSERT_EQ(frame->fields.size(), 5u);
        const int status = std::stoi(frame->fields[1]);
        EXPECT_TRUE(status == 0 || status == 2) << frame->raw;
        if (status == 2) ++aborts;
    }
    EXPECT_GE(aborts, expected_frames);
    EXPECT_EQ(epg::active_search_count(), 0);
}

}  // namespace
}  // namespace appmgr::test
