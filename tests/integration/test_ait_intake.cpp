// AITs delivered through the simulated middleware's callback, judged by the
// library, with the outcome checked on the wire and in the records.
#include <gtest/gtest.h>

#include <string>

#include "ait_builder.h"
#include "app_mgr.h"
#include "ait/ait.h"
#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;
namespace state = appmgr::state;

namespace {


class AitIntakeTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        hbb_sim_set_parental_threshold(18);
        startActive();
        serveCarousel(1, {"app1/index.html", "app2/index.html", "app3/index.html",
                          "app/index.html"});
    }
    void deliver(OwnedAit& ait) { ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0); }
    std::string body() { return nextFrame(Connection::Application).body; }
    int refusals() { return hbb_sim_call_count("application_manager_invaild_app"); }
};

AppSpec carousel(int app, ControlCode control = AUTOSTART, int priority = 1) {
    AppSpec s;
    s.app = app;
    s.control = control;
    s.priority = priority;
    s.url = "dvb://1.2.3.1/app" + std::to_string(app) + "/index.html";
    return s;
}

}  // namespace

TEST_F(AitIntakeTest, AutostartIsAnnouncedAndStarted) {
    AppSpec low = carousel(1, AUTOSTART, 2);
    AppSpec high = carousel(2, AUTOSTART, 9);
    high.boundary = "http://a.example|http://b.example";
    OwnedAit ait(16, "dvb://1.2.3", {low, high, carousel(3, PRESENT, 20)});
    deliver(ait);
    EXPECT_EQ(body(), "59|http://a.example|http://b.example|");
    EXPECT_EQ(body(), "50|dvb://1.2.3.1/app2/index.html|");
    EXPECT_EQ(MiddlewareCallbacks::starts(), 1);
    EXPECT_EQ(running_app_id(), 2);
    EXPECT_EQ(current_locator(), "dvb://1.2.3");
    EXPECT_EQ(current_entries(), 3);
    EXPECT_EQ(refusals(), 0);
    const std::vector<Decision> decisions = decisions_.all();
    ASSERT_EQ(decisions.size(), 1u) << describe(decisions);
    const Decision& chosen = decisions[0];
    EXPECT_EQ(chosen.name, "autostart");
    EXPECT_EQ(chosen.org_id, 0x10);
    EXPECT_EQ(chosen.app_id, 2);
    EXPECT_EQ(chosen.priority, 9);
    EXPECT_EQ(chosen.app_name, "app");
    EXPECT_EQ(chosen.url, "dvb://1.2.3.1/app2/index.html");
}

TEST_F(AitIntakeTest, RefusedTablesLeaveTheCurrentAit) {
    OwnedAit good(16, "dvb://1.2.3", {carousel(1)});
    deliver(good);
    EXPECT_EQ(body(), "59|no boundary|");

    OwnedAit type17(17, "dvb://1.2.3", {carousel(2)});
    deliver(type17);
    EXPECT_TRUE(decisions_.contains({"refused", "unknown_type", "dvb://1.2.3"}));
    EXPECT_EQ(refusals(), 0);  // refused before the platform is told

    OwnedAit short_url(16, "dvb", {carousel(2)});
    deliver(short_url);
    OwnedAit long_url(16, std::string(255, 'd'), {carousel(2)});
    deliver(long_url);
    // 256 bytes with no terminator: the copy must not run past the field.
    OwnedAit unterminated(16, "", {carousel(2)});
    memset(unterminated->dvb_url, 'u', sizeof(unterminated->dvb_url));
    deliver(unterminated);
    std::vector<int> lengths;
    for (const Decision& d : decisions_.all())
        if (d.name == "refused" && d.reason == "locator_length") lengths.push_back(d.value);
    EXPECT_EQ(lengths, (std::vector<int>{3, 256}));
    EXPECT_EQ(refusals(), 2);  // a 255-character locator is accepted
    EXPECT_EQ(current_entries(), 1);

    AppSpec nameless = carousel(3);
    nameless.name = nullptr;
    OwnedAit bad_entry(16, "dvb://1.2.3", {carousel(2), nameless});
    deliver(bad_entry);
    OwnedAit no_url(16, "dvb://1.2.3", {carousel(2)});
    free(no_url->apps[0].transport_protocol->url);
    no_url->apps[0].transport_protocol->url = nullptr;
    deliver(no_url);
    EXPECT_EQ(refusals(), 4);
    EXPECT_EQ(decisions_.count({"refused", "incomplete_entry", "dvb://1.2.3"}), 2);
    EXPECT_EQ(locked([] { return std::string(state::carrier_url()); }), "dvb://1.2.3");
    EXPECT_EQ(current_entry_url(0), std::string(long_url->apps[0].transport_protocol->url));
}

TEST_F(AitIntakeTest, DtgTableShadowsHbbtvTablesOfTheSameService) {
    OwnedAit dtg(18, "dvb://1.2.3", {carousel(1, PRESENT)});
    deliver(dtg);
    EXPECT_EQ(getCurrentAitTableApplicationType(), DTG_CTV_APPLICATION_TYPE);
    OwnedAit hbbtv(16, "dvb://1.2.3", {carousel(2)});
    deliver(hbbtv);
    EXPECT_TRUE(decisions_.contains({"refused", "dtg_current", "dvb://1.2.3"}));
    EXPECT_EQ(getCurrentAitTableApplicationType(), DTG_CTV_APPLICATION_TYPE);
    OwnedAit other_service(16, "dvb://1.2.4", {carousel(2)});
    deliver(other_service);
    EXPECT_EQ(getCurrentAitTableApplicationType(), HBBTV_APPLICATION_TYPE);
    EXPECT_STREQ(get_current_dvb_url(), "dvb://1.2.4");
}

TEST_F(AitIntakeTest, EmptyTableEndsTheApplicationAndIsReportedRefused) {
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1)});
    deliver(ait);
    ASSERT_TRUE(app_running());
    OwnedAit empty(16, "dvb://1.2.3", {});
    deliver(empty);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(current_entries(), 0);
    EXPECT_EQ(locked([] { return state::current_ait().apps; }), nullptr);
    EXPECT_EQ(refusals(), 1);
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
    EXPECT_TRUE(decisions_.contains({"empty", "", "dvb://1.2.3"}));
}

TEST_F(AitIntakeTest, KeepOrKillOnANewTable) {
    OwnedAit first(16, "dvb://1.2.3", {carousel(1)});
    deliver(first);
    ASSERT_TRUE(app_running());
    const Application* before = running_record();

    OwnedAit present(16, "dvb://1.2.3", {carousel(1, PRESENT)});
    deliver(present);
    EXPECT_EQ(running_record(), before);
    EXPECT_EQ(MiddlewareCallbacks::stops(), 0);
    EXPECT_TRUE(decisions_.contains({"keep", "signalled", "", 0x10, 1}));

    OwnedAit killed(16, "dvb://1.2.3", {carousel(1, KILL), carousel(2, PRESENT)});
    deliver(killed);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
    EXPECT_EQ(hbb_sim_call_count("hbbBindCurrentChannel"), 1);
    EXPECT_TRUE(decisions_.contains({"kill", "signalled_kill", "", 0x10, 1}))
        << describe(decisions_.all());
}

TEST_F(AitIntakeTest, TestTableKillsEvenASignalledApplication) {
    OwnedAit first(16, "dvb://1.2.3", {carousel(1)});
    deliver(first);
    OwnedAit test_table(16, "dvb://1.2.3", {carousel(1)});
    test_table->is_test_app = 1;
    deliver(test_table);
    // Killed, then chosen again as the autostart of the same table.
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
    EXPECT_EQ(MiddlewareCallbacks::starts(), 2);
    ASSERT_TRUE(app_running());
    EXPECT_TRUE(decisions_.contains({"kill", "test_table", "", 0x10, 1}));
    EXPECT_EQ(decisions_.count({"autostart", "", "", 0x10, 1}), 2);
}

TEST_F(AitIntakeTest, TablesBeforeActivationBecomeCurrentButStartNothing) {
    applicationManagerDeInit();
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1)});
    deliver(ait);
    EXPECT_EQ(current_entries(), 1);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::starts(), 0);
    // Activation starts the autostart entry of the current table.
    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(MiddlewareCallbacks::starts(), 1);
    ASSERT_TRUE(app_running());
}

TEST_F(AitIntakeTest, HttpAutostartWaitsForTheNetwork) {
    // A broadcaster portal origin: started without a probe.
    const std::string url = "http://www.live.bbctvapps.co.uk/app/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {http_app(7, 8, url)});
    deliver(ait);
    EXPECT_FALSE(app_running());  // network off
    EXPECT_TRUE(decisions_.contains({"no_autostart"}));
    // While the network state is checked the entry is chosen but held.
    ASSERT_EQ(hbb_sim_fire_network_status(NETWORK_CHECKING), 0);
    deliver(ait);
    EXPECT_TRUE(decisions_.contains({"autostart", "", url, 7, 8}));
    EXPECT_TRUE(decisions_.contains({"held", "", url}));
    EXPECT_FALSE(app_running());
    EXPECT_EQ(body(), "59|no boundary|");  // announced before the check held it
    ASSERT_EQ(hbb_sim_fire_network_status(NETWORK_ON), 0);
    EXPECT_EQ(body(), "59|no boundary|");
    EXPECT_EQ(body(), "50|" + url + "|");
    EXPECT_EQ(running_app_id(), 8);
}

TEST_F(AitIntakeTest, ChannelChangeAppliesServiceBinding) {
    AppSpec unbound = carousel(1);
    unbound.service_bound = 0;
    OwnedAit ait(16, "dvb://1.2.3", {unbound});
    deliver(ait);
    ASSERT_TRUE(app_running());
    char ccid[] = "ccid:9", name[] = "Nine", dsd[] = "";
    Channel ch{CHANNEL_TYPE_TV, ccid, 1, 2, 9, name, dsd, 0, 1, 0, 0};
    channelChanged(&ch);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "60|0|ccid:9|1|1|2|9|Nine||0|0|0|");
    EXPECT_TRUE(app_running());  // not service bound: kept
    EXPECT_EQ(check_version(0), 1) << "any version is new after a channel change";

    // A service-bound application of the new table is killed by the next change.
    AppSpec bound = carousel(1, PRESENT);
    bound.service_bound = 1;
    OwnedAit next(16, "dvb://1.2.3", {bound});
    locked([&] { update_running_application(&next->apps[0]); });
    channelChanged(&ch);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
}

TEST_F(AitIntakeTest, ChannelChangeKeepsAnIndependentApplicationOnlyAfterItsOwnTune) {
    char url[] = "http://host.example/app.html";
    locked([&] {
        update_running_application_as_independent(url);
        state::set_running_type(BROADCAST_INDEPENDENT);
        state::set_tune_requester(REQUESTED_BY_INDEPENDENT_TYPE);
    });
    channelChanged(nullptr);
    EXPECT_TRUE(app_running());
    EXPECT_EQ(locked([] { return state::tune_requester(); }), NOT_REQUESTED);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_Disconnect"), 1);
    channelChanged(nullptr);
    EXPECT_FALSE(app_running());
}

TEST_F(AitIntakeTest, NamedApplicationFromTheCurrentAit) {
    AppSpec named = carousel(0x1a, PRESENT);
    named.org = 0x13;
    named.url = "dvb://1.2.3.1/app/index.html?lang=fr";
    OwnedAit ait(16, "dvb://1.2.3", {named});
    deliver(ait);
    ASSERT_FALSE(app_running());  // PRESENT is not started by itself
    char locator[] = "dvb://current.ait/13.1a?page=2";
    EXPECT_EQ(locked([&] { return application_create(locator); }), 1);
    EXPECT_EQ(body(), "59|no boundary|");
    EXPECT_EQ(body(), "50|dvb://1.2.3.1/app/index.html?lang=fr&page=2|");
    EXPECT_EQ(running_org_id(), 0x13);
    char unknown[] = "dvb://current.ait/13.1b";
    EXPECT_EQ(locked([&] { return application_create(unknown); }), 0);
}
