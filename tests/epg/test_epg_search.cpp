// The search functions end to end: queries built through the exported
// functions, scans over the simulated EIT cache, the status callback the
// browser receives, and the items it reads back.
#include <gtest/gtest.h>

#include <climits>

#include "epg/eit_scan.h"
#include "epg_test_support.h"
#include "hbb_platform.h"

namespace appmgr::test {
namespace {

class Search : public SearchTest {
protected:
    void SetUp() override {
        SearchTest::SetUp();
        // Service 1.1.100 (0x64) and 1.1.101 (0x65).
        feed("event 1 1 100 1 1000 600|Morning News|Headlines|Part one. |Part two.");
        feed("event 1 1 100 2 1600 600|Film");
        feed("event 1 1 100 3 2200 600|Evening NEWS|Late headlines");
        feed("event 1 1 100 4 2800 600|-");
        feed("event 1 1 101 7 1000 600|Sport");
        feed("event 1 1 101 8 1600 600|News at Ten");
    }
    const std::vector<std::vector<Cmp>> kNews{{Cmp{eTitle, eContainString, "news"}}};
};

TEST_F(Search, TitleSearchReportsTheWindowAndServesItems) {
    createWithQuery(1, 5, kNews);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));
    EXPECT_EQ(titles(1, 5, 4),
              (std::vector<std::string>{"Morning News", "Evening NEWS", "News at Ten", "<none>"}));

    ShortProgramme* first = hbbGetSearchItem(1, 5, 0);
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first->programmeID, "dvb://1.1.64;1");
    EXPECT_EQ(first->programmeIDType, 0);
    EXPECT_EQ(first->startTime, 1000);
    EXPECT_EQ(first->duration, 600);
    EXPECT_STREQ(first->channelID, "0");
    ShortProgramme* third = hbbGetSearchItem(1, 5, 2);
    ASSERT_NE(third, nullptr);
    EXPECT_STREQ(third->programmeID, "dvb://1.1.65;8");
    EXPECT_STREQ(third->channelID, "1");  // the second cache visited

    EXPECT_STREQ(hbbGetSearchItemDescriptor(1, 5, 0), "Headlines");
    EXPECT_STREQ(hbbGetSearchItemLongDescriptor(1, 5, 0), "Part one. Part two.");
    EXPECT_STREQ(hbbGetSearchItemLongDescriptor(1, 5, 1), "undefined");
    EXPECT_STREQ(hbbGetSearchItemDescriptor(1, 5, 2), "undefined");
    EXPECT_EQ(hbbGetSearchItemDescriptor(1, 5, 3), nullptr);
    EXPECT_EQ(hbbGetSearchItem(1, 5, -1), nullptr);
    EXPECT_TRUE(log_.contains("Result with index: 3 DONT exist (SearchID: 5, PluginID: 1)"));
    EXPECT_EQ(hbbGetResultsOfSearch(1, 5, 0, 10), 1);  // 1 on success too
    EXPECT_EQ(hbbDestroySearch(1, 5), 0);
}

TEST_F(Search, WindowArithmetic) {
    createWithQuery(1, 5, kNews);
    // Offset inside the results: the items are read relative to it.
    EXPECT_EQ(run(1, 5, 1, 10), (Status{5, 0, 1, 2, 3}));
    EXPECT_EQ(titles(1, 5, 3),
              (std::vector<std::string>{"Evening NEWS", "News at Ten", "<none>"}));
    // More results than the window count: the length is the count itself.
    EXPECT_EQ(run(1, 5, 1, 2), (Status{5, 0, 1, 2, 3}));
    // Offset past the results.
    EXPECT_EQ(run(1, 5, 5, 10), (Status{5, 0, 5, 0, 3}));
    EXPECT_EQ(hbbGetSearchItem(1, 5, 0), nullptr);
    // Offsets and counts at the ends of the int range: a window never
    // reports more results than are stored, and its arithmetic does not
    // overflow (the sanitizer build checks). A negative count is reported
    // as it came.
    EXPECT_EQ(run(1, 5, INT_MIN, 10), (Status{5, 0, INT_MIN, 3, 3}));
    EXPECT_EQ(hbbGetSearchItem(1, 5, INT_MAX), nullptr);
    EXPECT_EQ(run(1, 5, -1, INT_MAX), (Status{5, 0, -1, 3, 3}));
    EXPECT_EQ(run(1, 5, 0, INT_MIN), (Status{5, 0, 0, INT_MIN, 3}));
    EXPECT_EQ(run(1, 5, INT_MAX, INT_MAX), (Status{5, 0, INT_MAX, 0, 3}));
    EXPECT_EQ(hbbDestroySearch(1, 5), 0);
}

TEST_F(Search, OrOfAndOverTheCache) {
    // (contains "news" AND start >= 2000) OR (title == "Sport")
    createWithQuery(1, 5,
                    {{Cmp{eTitle, eContainString, "news"}, Cmp{eStartTime, eGreaterOrEqual, "2000"}},
                     {Cmp{eTitle, eEqual, "Sport"}}});
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 2, 2}));
    EXPECT_EQ(titles(1, 5, 2), (std::vector<std::string>{"Evening NEWS", "Sport"}));
    // A programme id picks one event.
    setQuery(1, 5, {{Cmp{eProgrammeID, eEqual, "dvb://1.1.65;7"}}});
    EXPECT_EQ(nextStatus(), (Status{5, 2, 0, 0, 0}));  // the finished scan was aborted
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 1, 1}));
    EXPECT_EQ(titles(1, 5, 1), (std::vector<std::string>{"Sport"}));
}

TEST_F(Search, OneStreamRequestIgnoresItsCount) {
    ASSERT_EQ(hbbCreateNewSearch(2, 7), 0);
    ASSERT_EQ(hbbSetSearchQuerySubGroupsNumber(2, 7, 0, 1700, 1, 1, 1, 100), 0);
    EXPECT_EQ(run(2, 7, 0, 10), (Status{7, 0, 0, 3, 3}));
    // On air at 1700, then every later programme; a nameless one reads
    // "undefined".
    EXPECT_EQ(titles(2, 7, 3), (std::vector<std::string>{"Film", "Evening NEWS", "undefined"}));

    // A service without a cache still ends with a (zero) notification.
    ASSERT_EQ(hbbSetSearchQuerySubGroupsNumber(2, 7, 0, 0, 10, 9, 9, 9), 0);
    EXPECT_EQ(nextStatus(), (Status{7, 2, 0, 0, 0}));
    EXPECT_EQ(run(2, 7, 0, 10), (Status{7, 0, 0, 0, 0}));
    EXPECT_TRUE(log_.contains("No service cache available for this service (onid: 9, tsid: 9, sid: 9)"));
}

TEST_F(Search, ChannelConstraintsLimitTheWalk) {
    createWithQuery(1, 5, kNews);
    ASSERT_EQ(hbbSetNumberOfChannelConstraints(1, 5, 1), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 0, 1, 1, 101), 0);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 1, 1}));
    EXPECT_EQ(titles(1, 5, 1), (std::vector<std::string>{"News at Ten"}));
    EXPECT_STREQ(hbbGetSearchItem(1, 5, 0)->channelID, "0");

    // A first channel without a cache is skipped...
    ASSERT_EQ(hbbSetNumberOfChannelConstraints(1, 5, 2), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 0, 9, 9, 9), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 1, 1, 1, 101), 0);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 1, 1}));
    // ...a later one ends the walk.
    ASSERT_EQ(hbbSetNumberOfChannelConstraints(1, 5, 3), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 0, 1, 1, 100), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 1, 9, 9, 9), 0);
    ASSERT_EQ(hbbSetChannelConstraint(1, 5, 2, 1, 1, 101), 0);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 2, 2}));

    ASSERT_EQ(hbbRemoveChannelConstraints(1, 5), 0);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));
}

TEST_F(Search, ChannelConstraintCalls) {
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    ASSERT_EQ(hbbSetNumberOfChannelConstraints(1, 5, 2), 0);
    EXPECT_EQ(hbbSetChannelConstraint(1, 5, 2, 1, 1, 1), 1);
    EXPECT_TRUE(log_.contains("Index out of range, available constrains number: 2 (constraintIndex: 2)"));
    EXPECT_EQ(hbbSetChannelConstraint(1, 5, -1, 1, 1, 1), 0);  // accepted, stores nothing
    EXPECT_EQ(hbbSetChannelConstraint(1, 5, INT_MIN, 1, 1, 1), 0);
    EXPECT_EQ(hbbRemoveChannelConstraints(1, 5), 0);
    EXPECT_EQ(hbbRemoveChannelConstraints(1, 5), 1);
    EXPECT_TRUE(log_.contains("has no channel constrains"));
    EXPECT_EQ(hbbSetNumberOfChannelConstraints(1, 5, -4), 1);
    EXPECT_EQ(hbbSetNumberOfChannelConstraints(1, 5, INT_MAX), 1);
    EXPECT_TRUE(log_.contains("Allocation failed, size: -48"));
    EXPECT_EQ(hbbSetChannelConstraint(1, 5, 0, 1, 1, 1), 1);  // no list after a failure
    EXPECT_EQ(hbbSetNumberOfChannelConstraints(1, 5, 0), 0);
    EXPECT_EQ(hbbRemoveChannelConstraints(1, 5), 1);           // an empty list is none
    EXPECT_EQ(hbbSetNumberOfChannelConstraints(2, 5, 1), 1);   // unknown search
    EXPECT_TRUE(log_.contains("hbbGetSearchItemLongDescriptor failed - non existing search !"));
}

TEST_F(Search, KeysSlotsAndReuse) {
    // The same key twice takes two slots; lookups find the lower one first.
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    epg::SearchSlot* lower = epg::find_search_slot(1, 5);
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    EXPECT_EQ(epg::active_search_count(), 2);
    EXPECT_EQ(epg::find_search_slot(1, 5), lower);
    EXPECT_EQ(hbbDestroySearch(1, 5), 0);
    epg::SearchSlot* upper = epg::find_search_slot(1, 5);
    ASSERT_NE(upper, nullptr);
    EXPECT_NE(upper, lower);
    EXPECT_EQ(hbbDestroySearch(1, 5), 0);
    EXPECT_EQ(hbbDestroySearch(1, 5), 1);
    EXPECT_TRUE(log_.contains("hbbDestroySearch failed - non existing search !"));
    // A freed slot is handed out again.
    ASSERT_EQ(hbbCreateNewSearch(3, 3), 0);
    EXPECT_EQ(epg::find_search_slot(3, 3), lower);
    EXPECT_EQ(epg::active_search_count(), 1);
}

TEST_F(Search, UnknownSearchesAreRefused) {
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    EXPECT_EQ(hbbDestroySearch(1, 6), 1);
    EXPECT_EQ(hbbAbortSearch(2, 5), 1);
    EXPECT_EQ(hbbSetSearchQuerySubGroupsNumber(1, 6, 1, 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 6, 0, 1), 1);
    // The value is taken over (and freed) even when the call fails.
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 6, 0, 0, eTitle, eEqual, strdup("x")), 1);
    EXPECT_EQ(hbbStartSearch(1, 6, 0, 10), 1);
    EXPECT_EQ(hbbGetResultsOfSearch(1, 6, 0, 10), 1);
    EXPECT_EQ(hbbGetSearchItem(1, 6, 0), nullptr);
    EXPECT_EQ(hbbGetSearchItemDescriptor(1, 6, 0), nullptr);
    EXPECT_EQ(hbbGetSearchItemLongDescriptor(1, 6, 0), nullptr);
    EXPECT_EQ(hbbRemoveChannelConstraints(1, 6), 1);
    EXPECT_TRUE(log_.contains("hbbStartSearch failed - non existing search !"));
    // Before the module is up (or after it went) nothing is found either.
    ASSERT_EQ(deinitializeEPGExternal(), 0);
    EXPECT_EQ(deinitializeEPGExternal(), 1);
    EXPECT_EQ(hbbCreateNewSearch(1, 5), 1);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 0, eTitle, eEqual, strdup("x")), 1);
    ASSERT_EQ(initializeEPGExternal(), 0);
}

// Queries are held within a byte budget per search and over all searches:
// the documented maxima (256 x 256 comparisons of 1023 characters) would
// hold 69 MB. Beyond the budget an edit is refused like an allocation
// failure, and what the searches hold is given back when they go.
TEST_F(Search, QueriesHoldABoundedNumberOfBytes) {
    auto query_of = [](int plugin, int id) {
        epg::SearchSlot* slot = epg::find_search_slot(plugin, id);
        EXPECT_NE(slot, nullptr);
        const std::size_t held =
            slot->edit([](epg::Query& q, std::vector<ChannelConstraintDesc>&) { return epg::query_bytes(q); });
        EXPECT_EQ(held, slot->query_bytes) << "the booked bytes are the bytes held";
        return held;
    };
    const std::string value(1023, 'v');
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    ASSERT_EQ(hbbSetSearchQuerySubGroupsNumber(1, 5, 256, 0, 0, 0, 0, 0), 0);
    int subgroups = 0;
    while (subgroups < 256 && hbbSetSearchQueryNumbersInSubgroup(1, 5, subgroups, 256) == 0) ++subgroups;
    EXPECT_GT(subgroups, 0);
    EXPECT_LT(subgroups, 256);
    EXPECT_TRUE(log_.contains("Unable to setQueriesNumberInAndGroup"));
    EXPECT_TRUE(log_.contains("query of search (pluginID: 1, searchID: 5) refused"));
    EXPECT_LE(query_of(1, 5), epg::kQueryBytesPerSearch);

    // Values fill what the comparisons leave; a shorter value still fits.
    setQuery(1, 5, {std::vector<Cmp>(256)});
    int values = 0;
    while (values < 256 && hbbSetQueryInSubgroup(1, 5, 0, values, eTitle, eContainString,
                                                 strdup(value.c_str())) == 0)
        ++values;
    EXPECT_GT(values, 30);
    EXPECT_LT(values, 256);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, values, eTitle, eContainString, strdup("news")), 0);
    EXPECT_LE(query_of(1, 5), epg::kQueryBytesPerSearch);
    // Re-dimensioning gives the bytes back, and a small query runs.
    setQuery(1, 5, kNews);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));

    // All searches together: full queries until the total budget refuses.
    int full = 0;
    for (int id = 100; id < 100 + 127; ++id) {
        ASSERT_EQ(hbbCreateNewSearch(1, id), 0);
        if (hbbSetSearchQuerySubGroupsNumber(1, id, 1, 0, 0, 0, 0, 0) != 0 ||
            hbbSetSearchQueryNumbersInSubgroup(1, id, 0, 60) != 0)
            break;
        bool filled = true;
        for (int q = 0; q < 60 && filled; ++q)
            filled = hbbSetQueryInSubgroup(1, id, 0, q, eTitle, eEqual, strdup(value.c_str())) == 0;
        if (!filled) break;
        ++full;
    }
    EXPECT_GT(full, 10);
    EXPECT_LT(full, 126);
    EXPECT_LE(epg::held_query_bytes(), epg::kQueryBytesTotal);
    for (int id = 100; id < 100 + 127; ++id) hbbDestroySearch(1, id);
    EXPECT_EQ(hbbDestroySearch(1, 5), 0);
    EXPECT_EQ(epg::held_query_bytes(), 0u);
}

TEST_F(Search, BadIndicesCountsAndStrings) {
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    // Before any dimensioning there is no subgroup to fill.
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, 0, 1), 1);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 0, eTitle, eEqual, strdup("x")), 1);
    EXPECT_EQ(hbbSetSearchQuerySubGroupsNumber(1, 5, INT_MAX, 0, 0, 0, 0, 0), 1);
    ASSERT_EQ(hbbSetSearchQuerySubGroupsNumber(1, 5, 2, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, 2, 1), 1);
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, -1, 1), 1);
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, 0, -1), 1);
    EXPECT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, 0, INT_MAX), 1);
    ASSERT_EQ(hbbSetSearchQueryNumbersInSubgroup(1, 5, 0, 2), 0);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 2, eTitle, eEqual, strdup("x")), 1);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 1, 0, eTitle, eEqual, strdup("x")), 1);  // undimensioned
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, -1, eTitle, eEqual, strdup("x")), 1);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 0, eTitle, eEqual, nullptr), 0);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 0, static_cast<eQueryFieldType>(77),
                                    static_cast<eQueryComparisonType>(-5), strdup("")),
              0);
    const std::string kilobyte(1024, 'n');
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 0, eTitle, eContainString, strdup(kilobyte.c_str())), 0);
    EXPECT_EQ(hbbSetQueryInSubgroup(1, 5, 0, 1, eStartTime, eGreater,
                                    strdup("99999999999999999999")), 0);
    // Subgroup 1 was never dimensioned and query 0 matches nothing: the scan
    // runs over everything and finds nothing.
    EXPECT_EQ(run(1, 5, -5, -5), (Status{5, 0, -5, -5, 0}));  // length: the count
    EXPECT_EQ(hbbGetSearchItem(1, 5, INT_MAX), nullptr);
    EXPECT_EQ(hbbGetSearchItem(1, 5, INT_MIN), nullptr);
    // An empty contains-value matches nothing, so "does not contain" all.
    setQuery(1, 5, {{Cmp{eTitle, eDontContainString, ""}}});
    EXPECT_EQ(nextStatus(), (Status{5, 2, 0, 0, 0}));
    EXPECT_EQ(run(1, 5, 0, 100), (Status{5, 0, 0, 5, 5}));  // the nameless event never
}

TEST_F(Search, NegativeSubgroupCountIsNotScanned) {
    ASSERT_EQ(hbbCreateNewSearch(1, 5), 0);
    EXPECT_EQ(hbbSetSearchQuerySubGroupsNumber(1, 5, -3, 0, 0, 0, 0, 0), 1);
    EXPECT_EQ(hbbStartSearch(1, 5, 0, 10), 0);
    EXPECT_TRUE(log_.waitFor("Ignore this search command...", 5000));
    // No notification: the next frame belongs to the next scan.
    createWithQuery(1, 6, kNews);
    EXPECT_EQ(run(1, 6, 0, 10), (Status{6, 0, 0, 3, 3}));
}

TEST_F(Search, StartTwiceRescansAndAbortDropsTheResults) {
    createWithQuery(1, 5, kNews);
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));  // not 6: the old results went
    EXPECT_EQ(epg::result_pool().acquired(), 1);
    // A finished search still counts as running: an abort drops its
    // results and tells the browser.
    EXPECT_EQ(hbbAbortSearch(1, 5), 0);
    EXPECT_EQ(nextStatus(), (Status{5, 2, 0, 0, 0}));
    EXPECT_EQ(hbbGetSearchItem(1, 5, 0), nullptr);
    EXPECT_EQ(epg::result_pool().acquired(), 0);
    // An abort with nothing running changes nothing and sends nothing.
    EXPECT_EQ(hbbAbortSearch(1, 5), 0);
    EXPECT_TRUE(log_.contains("stopSearchingTask not need to stop search"));
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));
}

TEST_F(Search, PoolExhaustionAcrossSearches) {
    hbb_sim_eit_clear();
    hbb_sim_set_log_level(3);  // a few thousand results: keep the info lines out
    ASSERT_EQ(hbb_sim_eit_generate(2, 1100, 0, 7), 2200);
    const std::vector<std::vector<Cmp>> all{{Cmp{eStartTime, eGreaterOrEqual, "0"}}};
    createWithQuery(1, 1, all);
    createWithQuery(1, 2, all);
    // The first search takes the whole pool; its 2001st match ends its scan.
    EXPECT_EQ(run(1, 1, 0, 5000), (Status{1, 0, 0, 2000, 2000}));
    EXPECT_EQ(epg::result_pool().acquired(), epg::ResultPool::kChunkCount);
    EXPECT_TRUE(log_.contains("Unable to addNewResult"));
    // The second one's first match is discarded; the browser still hears.
    EXPECT_EQ(run(1, 2, 0, 5000), (Status{2, 0, 0, 0, 0}));
    EXPECT_EQ(hbbDestroySearch(1, 1), 0);
    EXPECT_EQ(nextStatus(), (Status{1, 2, 0, 0, 0}));
    EXPECT_EQ(epg::result_pool().acquired(), 0);
    EXPECT_EQ(run(1, 2, 0, 5000), (Status{2, 0, 0, 2000, 2000}));
}

TEST_F(Search, PlatformFailuresEndTheScanQuietly) {
    createWithQuery(1, 5, kNews);
    // Each failing scan must be over (the thread back at its command wait)
    // before the next failure is armed.
    int commands_done = 1;
    auto fail_once = [&](const char* function, int nth, const char* logged) {
        ASSERT_EQ(hbb_sim_eit_fail_call(function, nth), 0);
        ASSERT_EQ(hbbStartSearch(1, 5, 0, 10), 0);
        EXPECT_TRUE(log_.waitFor(logged, 5000)) << logged;
        EXPECT_TRUE(log_.waitForCount("Search task waiting for command...", ++commands_done, 5000));
    };
    fail_once("EIT_DVB_ClientRegister", 1,
              "!!! Unable to register to EIT manager !!! (searchID: 5, pluginID: 1)");
    fail_once("EIT_DVB_GetEventDataNonLock", 2, "EIT_DVB_GetEventData ERROR stop search !");
    fail_once("EIT_DVB_GetRestOfEventDataNonLock", 1,
              "EIT_DVB_GetRestOfEventDataNonLock ERROR stop search !");
    fail_once("EIT_DVB_LockCache", 1, "Unable to EIT_DVB_LockCache !");
    fail_once("EIT_DVB_ClientUnregister", 1, "!!! Unable to unregister to EIT manager !!!");
    // None of them notified the browser: the next frame is the next scan's.
    EXPECT_EQ(run(1, 5, 0, 10), (Status{5, 0, 0, 3, 3}));
    EXPECT_EQ(hbb_sim_eit_cache_locked(), 0);
}

// The debugging aids of the interface: nothing in the scans calls them.
TEST_F(Search, DebuggingAidsReadWhatTheyName) {
    const int handle = EIT_DVB_ClientRegister();
    ASSERT_GE(handle, 0);
    ASSERT_NE(EIT_DVB_GetFirstServiceCache(handle), 0);
    EIT_DVB_LockCache();
    ASSERT_NE(EIT_DVB_GetFirstEventFromCacheNonLock(handle), 0);
    epg::displayEventInformation(handle);
    EIT_DVB_UnlockCache();
    EIT_DVB_ClientUnregister(handle);
    // The first event of the first service, as the cache gives it out.
    EXPECT_TRUE(log_.contains("Event name: Morning News"));
    EXPECT_TRUE(log_.contains("Event description: "));

    epg::SearchSlot slot;
    slot.mark_started();
    EXPECT_FALSE(slot.checkSearchCompletetion());
    EXPECT_TRUE(slot.is_searching());
    EXPECT_TRUE(slot.stopProccesing());
    EXPECT_FALSE(slot.is_searching());
}

}  // namespace
}  // namespace appmgr::test
