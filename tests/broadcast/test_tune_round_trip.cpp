// A tune asked for by the page, end to end: the browser sends
// CMD_SET_CHANNEL (20) on "dtvPlugins", the simulated middleware tunes and
// reports channelChanged from its own notifier thread, the library judges
// the running application and tells the browser (CB_CHANNEL_CHANGED, 60).
//
// The request is served without the manager lock, so the notifier thread's
// channelChanged (which takes it) never waits for the request thread; the
// last test runs tunes while AITs arrive on another thread, under TSan in
// the sanitizer build, with every wait bounded.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "broadcast_fixture.h"
#include "hbb_sim.h"
#include "state/state.h"

using namespace appmgr::test;
namespace state = appmgr::state;

namespace {

// CMD_SET_CHANNEL for a service: type, ccid, onid, tsid, sid, name, dsd,
// idType, nid, TerminalChannel, MajorChannel, then quiet.
const std::vector<std::string> kTuneToTwo = {"0", "ccid:1.2.4", "1", "2", "4", "Two", "dsd-a",
                                             "12", "10", "2", "2", "0"};
const std::vector<std::string> kTuneToOne = {"0", "ccid:1.2.3", "1", "2", "3", "One", "dsd-a",
                                             "12", "10", "1", "1", "0"};

class TuneTest : public BroadcastTest {
protected:
    void SetUp() override {
        BroadcastTest::SetUp();
        MiddlewareCallbacks::install();
        serveCarousel(1, {"index.html"});
    }

    // Delivers the service's AIT with one AUTOSTART carousel application and
    // waits until it runs.
    void startApplication(bool service_bound) {
        AppSpec app;
        app.service_bound = service_bound ? 1 : 0;
        OwnedAit ait(16, "dvb://1.2.3", {app});
        ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
        ASSERT_TRUE(app_running());
    }

    // The page's tune: the reply to 20 and the channel-changed callback.
    void tune(const std::vector<std::string>& fields, const char* record) {
        EXPECT_EQ(ask(Connection::DtvPlugins, 20, fields), "0|");
        EXPECT_EQ(callback(60).body, "60|" + std::string(record));
    }

    TunningRequestType requester() { return locked([] { return state::tune_requester(); }); }
};

}  // namespace

// channelChanged sends 60 under the manager lock and judges the
// application before it lets go, so a read under the lock after the frame
// sees the outcome.
TEST_F(TuneTest, ServiceBoundApplicationEndsWithTheTune) {
    startApplication(true);
    tune(kTuneToTwo, kTwoRecord);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(hbb_sim_current_channel(), kTwo);
    EXPECT_TRUE(decisions_.contains({"kill", "service_bound"}));
    EXPECT_EQ(requester(), NOT_REQUESTED);
    EXPECT_TRUE(log_.contains("CMD_SET_CHANNEL called!"));
}

TEST_F(TuneTest, UnboundApplicationIsKeptAndJudgedByTheNextTable) {
    startApplication(false);
    tune(kTuneToTwo, kTwoRecord);
    EXPECT_TRUE(app_running());
    // The new service signals the application too: it stays.
    AppSpec app;
    app.service_bound = 0;
    OwnedAit next(16, "dvb://1.2.4", {app});
    ASSERT_EQ(hbb_sim_fire_ait(next.get()), 0);
    EXPECT_TRUE(app_running());
    EXPECT_TRUE(decisions_.contains({"keep", "signalled"}));
    EXPECT_FALSE(decisions_.contains({"kill"}));
}

// A broadcast-independent application survives only a tune it asked for.
TEST_F(TuneTest, IndependentApplicationSurvivesItsOwnTuneOnly) {
    locked([] {
        state::set_running_independent("http://portal.example/app.html");
        state::set_running_type(BROADCAST_INDEPENDENT);
    });
    tune(kTuneToTwo, kTwoRecord);
    EXPECT_TRUE(app_running());
    EXPECT_EQ(requester(), NOT_REQUESTED);

    // The middleware's own tune (no request of the page) ends it.
    Channel one{};
    one.onid = 1;
    one.tsid = 2;
    one.sid = 3;
    ASSERT_EQ(hbbSetChannel(&one, 0), 0);
    EXPECT_EQ(callback(60).body, "60|" + std::string(kOneRecord));
    EXPECT_FALSE(app_running());
}

TEST_F(TuneTest, RequesterFollowsTheRunningType) {
    locked([] {
        state::set_running_type(INVALID_APPLICATION_TYPE);
        state::set_tune_requester(REQUESTED_BY_INDEPENDENT_TYPE);
    });
    Channel two{};
    two.onid = 1;
    two.tsid = 2;
    two.sid = 4;
    // Without a running type the requester stays as it was.
    hbb_sim_set_listeners(nullptr);
    EXPECT_EQ(broadcast_set_channel(&two, 1), 0);
    EXPECT_EQ(requester(), REQUESTED_BY_INDEPENDENT_TYPE);
    locked([] { state::set_running_type(BROADCAST_RELATED); });
    EXPECT_EQ(broadcast_set_channel(&two, 1), 0);
    EXPECT_EQ(requester(), REQUESTED_BY_RELATED_TYPE);
    char details[128];
    hbb_sim_last_call("hbbSetChannel", details, sizeof details);
    EXPECT_STREQ(details, "1.2.4 quiet=1 -> 0");
}

TEST_F(TuneTest, FailedTuneReportsItsError) {
    startApplication(true);
    hbb_sim_fail_next_tune(CCE_TUNER_IN_USE);
    EXPECT_EQ(ask(Connection::DtvPlugins, 20, kTuneToTwo), "0|");
    EXPECT_EQ(callback(61).body, "61|2|" + std::string(kTwoRecord));
    EXPECT_EQ(hbb_sim_current_channel(), kOne);
    EXPECT_TRUE(app_running());
    // An unknown service is refused at once, with nothing to report later.
    std::vector<std::string> nowhere = kTuneToTwo;
    nowhere[4] = "77";
    EXPECT_EQ(ask(Connection::DtvPlugins, 20, nowhere), "-1|");
    EXPECT_EQ(hbb_sim_wait_notifications(2000), 0);
    EXPECT_EQ(hbb_sim_current_channel(), kOne);
}

// Tunes from the page while the middleware delivers AITs on another
// thread: each tune is answered and reported, whatever the AIT thread holds.
TEST_F(TuneTest, TunesAndTablesInterleaveWithoutDeadlock) {
    startApplication(true);
    std::atomic<bool> stop{false};
    std::thread tables([&] {
        AppSpec app;
        OwnedAit ait(16, "dvb://1.2.3", {app});
        for (int i = 0; i < 40 && !stop; ++i) hbb_sim_fire_ait(ait.get());
    });
    for (int i = 0; i < 10; ++i) {
        tune(kTuneToTwo, kTwoRecord);
        tune(kTuneToOne, kOneRecord);
        if (HasFailure()) break;
    }
    stop = true;
    tables.join();
    EXPECT_EQ(hbb_sim_wait_notifications(3000), 0);
    EXPECT_EQ(hbb_sim_current_channel(), kOne);
}
