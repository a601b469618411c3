// Real captures played through the simulated receiver into the library:
// the AIT reaches aitUpdate, the autostart decision goes out on the
// browser socket, and the EIT fills the cache the EPG search walks.
#include <gtest/gtest.h>

#include "hbb_sim.h"
#include "test_support.h"
#include "ts_test_support.h"

using namespace appmgr::test;
using tstest::data_path;

namespace {

class CapturePlayback : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ts::set_log_sink(nullptr);
        hbb_sim_eit_clear();
        startActive();
    }
    void TearDown() override {
        ts::set_log_default();
        hbb_sim_eit_clear();
        LibraryTest::TearDown();
    }
    // Plays a capture to its end.
    void play(ts::CapturePlayer& player, ts::PlayerOptions options) {
        ASSERT_TRUE(player.open(options)) << player.error();
        ASSERT_TRUE(player.run()) << player.error();
    }
};

}  // namespace

TEST_F(CapturePlayback, AutostartApplicationOfARealCaptureStartsFromItsCarousel) {
    // Rai's HbbTV AIT signals application 0x65 over HTTP (label 1) and a
    // carousel (label 2, tag 0x2A); a receiver without broadband takes the
    // carousel. The carousel here is a directory standing in for it.
    serveCarousel(0x2A, {"RemoteControl/index.html"});
    ts::CapturePlayer player;
    ts::PlayerOptions options;
    options.source = data_path("tsduck-test/test-108.ait-pids-only.ts");
    options.service = 0xD49;  // Rai 1 (the cut capture has no PMT naming the AIT PIDs)
    options.broadband = false;
    play(player, options);

    EXPECT_EQ(nextFrame(Connection::Application).body, "59|no boundary|");
    EXPECT_EQ(nextFrame(Connection::Application).body,
              "50|dvb://13e.4800.d49.2a/RemoteControl/index.html?delivery=2|");
    EXPECT_EQ(running_org_id(), 0x3C0);
    EXPECT_EQ(running_app_id(), 0x65);
    EXPECT_EQ(current_locator(), "dvb://13e.4800.d49");
    EXPECT_EQ(current_entries(), 2);
    // The HbbTV table was delivered once; the MHP table beside it only listed.
    EXPECT_EQ(player.stats().ait_delivered, 1u);
    EXPECT_EQ(player.stats().ait_not_delivered, 1u);
    EXPECT_EQ(hbb_sim_call_count("application_manager_invaild_app"), 0);
    // The SDT's services became channels, the played one current, with
    // the name the SDT gave it after its PAT entry had made the channel.
    EXPECT_EQ(hbb_sim_channel_count(), 8);
    Channel* current = hbbGetCurrentChannel();
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(current->sid, 0xD49);
    EXPECT_EQ(current->onid, 0x13E);
    EXPECT_EQ(current->tsid, 0x4800);
    EXPECT_STREQ(current->name, "Rai 1");
    EXPECT_STREQ(current->ccid, "ccid:3401");
    channel_destroy(current);
}

// Played again, as a playout loops its file, the capture brings nothing the
// receiver had already: the AIT version delivered before is not delivered
// again. Standard input cannot be read again.
TEST_F(CapturePlayback, PlayedAgainOnlyWhatChangedIsDelivered) {
    serveCarousel(0x2A, {"RemoteControl/index.html"});
    ts::CapturePlayer player;
    ts::PlayerOptions options;
    options.source = data_path("tsduck-test/test-108.ait-pids-only.ts");
    options.service = 0xD49;
    options.broadband = false;
    int delivering = 0, delivered = 0;
    player.on_ait_delivering([&](const AitTable& table, uint16_t pid) {
        EXPECT_EQ(pid, 0x7D2);
        EXPECT_STREQ(table.dvb_url, "dvb://13e.4800.d49");
        EXPECT_EQ(delivered, delivering++);  // before the library has it
    });
    player.on_ait_delivered([&](const AitTable&) { ++delivered; });
    play(player, options);
    EXPECT_EQ(player.stats().ait_delivered, 1u);
    EXPECT_EQ(nextFrame(Connection::Application).body, "59|no boundary|");

    ASSERT_TRUE(player.replay()) << player.error();
    ASSERT_TRUE(player.run()) << player.error();
    EXPECT_EQ(player.stats().packets, 40u);
    EXPECT_EQ(player.stats().ait_versions, 2u);
    EXPECT_EQ(player.stats().ait_delivered, 1u);
    EXPECT_EQ(delivered, 1);

    ts::PacketReader input;
    ASSERT_TRUE(input.open("-"));
    EXPECT_FALSE(input.replay());
    EXPECT_NE(input.error().find("standard input"), std::string::npos) << input.error();
}

TEST_F(CapturePlayback, BroadbandApplicationWaitsForTheNetworkWithItsSignalledUrl) {
    // The PMT names the AIT's PID, so the AIT is its program's.
    const std::string pmt = data_path("dvbts-hbbtv/pmt0.ts");
    const std::string ait = data_path("dvbts-hbbtv/ait0.ts");
    std::vector<uint8_t> capture = tstest::read_file(pmt);
    const auto ait_bytes = tstest::read_file(ait);
    capture.insert(capture.end(), ait_bytes.begin(), ait_bytes.end());
    const std::string path = dir_.path() + "ait0-with-pmt.ts";
    {
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(capture.data()), static_cast<std::streamsize>(capture.size()));
    }
    ts::CapturePlayer player;
    ts::PlayerOptions options;
    options.source = path;
    play(player, options);

    ASSERT_EQ(player.stats().ait_delivered, 1u);
    EXPECT_EQ(player.service(), 1);
    EXPECT_EQ(current_locator(), "dvb://0.0.1");
    EXPECT_EQ(current_entry_url(0), "https://hbbtv-staging.lovestv.es/lovestv/master/index.php");
    // The network is off: the HTTP autostart entry is held, nothing starts.
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::starts(), 0);
}

TEST_F(CapturePlayback, EpgOfTheCaptureFillsTheEitCache) {
    ts::CapturePlayer player;
    ts::PlayerOptions options;
    options.source = data_path("tsduck-test/test-184.ts");
    options.feed_channels = false;
    play(player, options);
    EXPECT_EQ(player.stats().eit_events, 346u);
    EXPECT_EQ(player.stats().eit_fed, 346u);
    EXPECT_EQ(hbb_sim_eit_event_count(), 346);

    // TF1's "Le journal" as the search thread reads it from the cache.
    const int handle = EIT_DVB_ClientRegister();
    ASSERT_GE(handle, 0);
    ASSERT_GE(EIT_DVB_GetServiceCacheForSpecificService(handle, 0x20FA, 0x6, 0x601), 0);
    ASSERT_EQ(EIT_DVB_LockCache(), 0);
    bool found = false;
    for (int on = EIT_DVB_GetFirstEventFromCacheNonLock(handle); on != 0 && !found;
         on = EIT_DVB_GetNextEventFromCacheNonLock(handle)) {
        tEIT_DVB_HbbTVDescriptor event{};
        ASSERT_EQ(EIT_DVB_GetEventDataNonLock(handle, &event), 0);
        if (event.eitEventID != 0x3840) continue;
        found = true;
        EXPECT_STREQ(event.eitName, "Le journal");
        EXPECT_EQ(event.eitStartTime, 1548158400);  // 2019-01-22 12:00:00 UTC
        EXPECT_EQ(event.eitDuration, 55 * 60);
    }
    EXPECT_EQ(EIT_DVB_UnlockCache(), 0);
    EXPECT_EQ(EIT_DVB_ClientUnregister(handle), 0);
    EXPECT_TRUE(found);
}
