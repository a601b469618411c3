// The simulated EIT cache as the search relies on it: feeding, per-client
// cursors, the lock rule of the NonLock calls, and text conversion.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "hbb_sim.h"

namespace {

class SimEit : public ::testing::Test {
protected:
    void SetUp() override {
        hbb_sim_set_log_stderr(0);
        hbb_sim_eit_clear();
    }
    void TearDown() override { hbb_sim_eit_clear(); }
};

// Names of the events of the service under the client's cursor.
std::string walk(int handle) {
    std::string names;
    EXPECT_EQ(EIT_DVB_LockCache(), 0);
    for (int more = EIT_DVB_GetFirstEventFromCacheNonLock(handle); more;
         more = EIT_DVB_GetNextEventFromCacheNonLock(handle)) {
        tEIT_DVB_HbbTVDescriptor e{};
        EXPECT_EQ(EIT_DVB_GetEventDataNonLock(handle, &e), 0);
        names += e.eitName ? e.eitName : "(none)";
        names += ";";
    }
    EXPECT_EQ(EIT_DVB_UnlockCache(), 0);
    return names;
}

TEST_F(SimEit, ScenarioLinesFeedServicesInStartOrder) {
    ASSERT_EQ(hbb_sim_eit_feed_line("# a comment"), 0);
    ASSERT_EQ(hbb_sim_eit_feed_line("service 1 2 3"), 0);
    ASSERT_EQ(hbb_sim_eit_feed_line("event 1 2 4 0x10 2000 60|Later"), 0);
    ASSERT_EQ(hbb_sim_eit_feed_line("event 1 2 4 0x11 1000 60|Earlier|Short \\| bar|Ext"), 0);
    ASSERT_EQ(hbb_sim_eit_feed_line("event 1 2 4 0x12 3000 60|-"), 0);
    EXPECT_EQ(hbb_sim_eit_feed_line("event 1 2 4 1 2"), -1);
    EXPECT_EQ(hbb_sim_eit_feed_line("event 1 2 4 1 2 x|y"), -1);
    EXPECT_EQ(hbb_sim_eit_feed_line("event 1 2 4 1 2 3|bad \\q escape"), -1);
    EXPECT_EQ(hbb_sim_eit_feed_line("channel 1 2 3"), -1);
    EXPECT_EQ(hbb_sim_eit_service_count(), 2);
    EXPECT_EQ(hbb_sim_eit_event_count(), 3);

    int h = EIT_DVB_ClientRegister();
    ASSERT_GE(h, 0);
    ASSERT_EQ(EIT_DVB_GetFirstServiceCache(h), 1);  // 1.2.3, empty
    EXPECT_EQ(walk(h), "");
    ASSERT_EQ(EIT_DVB_GetNextServiceCache(h), 1);
    EXPECT_EQ(walk(h), "Earlier;Later;(none);");
    EXPECT_EQ(EIT_DVB_GetNextServiceCache(h), 0);
    EXPECT_EQ(EIT_DVB_GetServiceCacheForSpecificService(h, 1, 2, 4), 1);
    EXPECT_EQ(EIT_DVB_GetServiceCacheForSpecificService(h, 9, 9, 9), -1);

    ASSERT_EQ(EIT_DVB_GetServiceCacheForSpecificService(h, 1, 2, 4), 1);
    ASSERT_EQ(EIT_DVB_LockCache(), 0);
    ASSERT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(h), 1);
    tEIT_DVB_HbbTVDescriptor e{};
    ASSERT_EQ(EIT_DVB_GetEventDataNonLock(h, &e), 0);
    EXPECT_EQ(e.eitEventID, 0x11);
    EXPECT_EQ(e.eitSid, 4);
    ASSERT_EQ(EIT_DVB_GetRestOfEventDataNonLock(h, &e), 0);
    ASSERT_EQ(e.eitShortEventDesc.eitEventSegmentNum, 1);
    EXPECT_STREQ(e.eitShortEventDesc.eitEventSegments[0], "Short | bar");
    ASSERT_EQ(e.eitLongEventDesc.eitEventSegmentNum, 1);
    EXPECT_STREQ(e.eitLongEventDesc.eitEventSegments[0], "Ext");
    UT_FreeDVBStringConverted(e.eitShortEventDesc.eitEventSegments[0]);
    free(e.eitShortEventDesc.eitEventSegments);
    UT_FreeDVBStringConverted(e.eitLongEventDesc.eitEventSegments[0]);
    free(e.eitLongEventDesc.eitEventSegments);
    // The locking variant advances while the lock is held (it is recursive).
    EXPECT_EQ(EIT_DVB_GetNextEventFromCache(h), 1);
    ASSERT_EQ(EIT_DVB_GetEventDataNonLock(h, &e), 0);
    EXPECT_STREQ(e.eitName, "Later");
    ASSERT_EQ(EIT_DVB_UnlockCache(), 0);
    EXPECT_EQ(EIT_DVB_ClientUnregister(h), 0);
    EXPECT_EQ(EIT_DVB_ClientUnregister(h), -1);
}

TEST_F(SimEit, NonLockCallsNeedTheLockAndAKnownClient) {
    ASSERT_EQ(hbb_sim_eit_feed_line("event 1 1 1 1 0 60|A"), 0);
    int h = EIT_DVB_ClientRegister();
    ASSERT_EQ(EIT_DVB_GetFirstServiceCache(h), 1);
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(h), 0);  // lock not held
    tEIT_DVB_HbbTVDescriptor e{};
    EXPECT_EQ(EIT_DVB_GetEventDataNonLock(h, &e), -1);
    EXPECT_EQ(EIT_DVB_UnlockCache(), -1);  // not held by this thread
    ASSERT_EQ(EIT_DVB_LockCache(), 0);
    EXPECT_EQ(hbb_sim_eit_cache_locked(), 1);
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(h + 1), 0);  // unknown client
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(-1), 0);
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(1 << 20), 0);
    // Two clients walk independently.
    int other = EIT_DVB_ClientRegister();
    ASSERT_EQ(EIT_DVB_GetFirstServiceCache(other), 1);
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(h), 1);
    EXPECT_EQ(EIT_DVB_GetNextEventFromCacheNonLock(h), 0);
    EXPECT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(other), 1);
    ASSERT_EQ(EIT_DVB_UnlockCache(), 0);
    EXPECT_EQ(hbb_sim_eit_cache_locked(), 0);
    EXPECT_EQ(hbb_sim_eit_client_count(), 2);
    EIT_DVB_ClientUnregister(h);
    EIT_DVB_ClientUnregister(other);
    EXPECT_EQ(hbb_sim_eit_client_count(), 0);
}

TEST_F(SimEit, TextsAreConvertedByTheirCharacterTable) {
    // UCS-2 name (table 0x11), Latin-1 short text (0x05 selects ISO 8859-9,
    // read as Latin-1 here), raw UTF-8 with a DVB line break in the default
    // table: 0x8A becomes a line feed.
    const unsigned char ucs2[] = {0x11, 0x00, 'N', 0x00, 0xE4, 0x00, 'x'};
    const unsigned char latin[] = {0x05, 'c', 0xE9};
    const unsigned char breaks[] = {'a', 0x8A, 'b', 0x86};
    hbb_sim_dvb_text ext[] = {{breaks, 4}};
    hbb_sim_eit_event event{};
    event.onid = 1;
    event.tsid = 1;
    event.sid = 1;
    event.name = {ucs2, sizeof ucs2};
    event.short_description = {latin, sizeof latin};
    event.extended_description = ext;
    event.extended_segments = 1;
    ASSERT_EQ(hbb_sim_eit_add_event(&event), 0);
    event.extended_segments = -1;
    EXPECT_EQ(hbb_sim_eit_add_event(&event), -1);
    EXPECT_EQ(hbb_sim_eit_add_event(nullptr), -1);

    int h = EIT_DVB_ClientRegister();
    ASSERT_EQ(EIT_DVB_GetFirstServiceCache(h), 1);
    ASSERT_EQ(EIT_DVB_LockCache(), 0);
    ASSERT_EQ(EIT_DVB_GetFirstEventFromCacheNonLock(h), 1);
    tEIT_DVB_HbbTVDescriptor e{};
    ASSERT_EQ(EIT_DVB_GetEventDataNonLock(h, &e), 0);
    EXPECT_STREQ(e.eitName, "N\xc3\xa4x");
    ASSERT_EQ(EIT_DVB_GetRestOfEventDataNonLock(h, &e), 0);
    EXPECT_STREQ(e.eitShortEventDesc.eitEventSegments[0], "c\xc3\xa9");
    EXPECT_STREQ(e.eitLongEventDesc.eitEventSegments[0], "a\nb");
    ASSERT_EQ(EIT_DVB_UnlockCache(), 0);
    for (auto* d : {&e.eitShortEventDesc, &e.eitLongEventDesc}) {
        UT_FreeDVBStringConverted(d->eitEventSegments[0]);
        free(d->eitEventSegments);
    }
    EIT_DVB_ClientUnregister(h);

    int length = -1;
    char* converted = mUT_ConvertCurStdToUTF8(latin, sizeof latin, &length);
    EXPECT_STREQ(converted, "c\xc3\xa9");
    EXPECT_EQ(length, 3);
    UT_FreeDVBStringConverted(converted);
    EXPECT_EQ(mUT_ConvertCurStdToUTF8(nullptr, 3, nullptr), nullptr);
}

TEST_F(SimEit, FilesAndGenerator) {
    char path[] = "/tmp/sim-eit-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE* out = fdopen(fd, "w");
    std::fputs("service 1 1 1\nevent 1 1 1 1 0 60|A\n\nevent 1 1 1 2 60 60|B\nnonsense\n", out);
    std::fclose(out);
    int bad_line = -1;
    EXPECT_EQ(hbb_sim_eit_load_file(path, &bad_line), -1);
    EXPECT_EQ(bad_line, 5);
    EXPECT_EQ(hbb_sim_eit_event_count(), 2);  // the lines before the bad one
    std::remove(path);
    EXPECT_EQ(hbb_sim_eit_load_file("/nonexistent/eit", &bad_line), -1);
    EXPECT_EQ(bad_line, 0);

    hbb_sim_eit_clear();
    ASSERT_EQ(hbb_sim_eit_generate(3, 100, 500, 1), 300);
    EXPECT_EQ(hbb_sim_eit_service_count(), 3);
    EXPECT_EQ(hbb_sim_eit_generate(-1, 10, 0, 1), -1);
    int h = EIT_DVB_ClientRegister();
    ASSERT_EQ(EIT_DVB_GetServiceCacheForSpecificService(h, 1, 1, 102), 2);
    ASSERT_EQ(EIT_DVB_LockCache(), 0);
    int previous_end = 500;
    for (int more = EIT_DVB_GetFirstEventFromCacheNonLock(h); more;
         more = EIT_DVB_GetNextEventFromCacheNonLock(h)) {
        tEIT_DVB_HbbTVDescriptor e{};
        ASSERT_EQ(EIT_DVB_GetEventDataNonLock(h, &e), 0);
        EXPECT_EQ(e.eitStartTime, previous_end);  // consecutive programmes
        EXPECT_GT(e.eitDuration, 0);
        previous_end = e.eitStartTime + e.eitDuration;
    }
    ASSERT_EQ(EIT_DVB_UnlockCache(), 0);
    EIT_DVB_ClientUnregister(h);
}

}  // namespace
