// Application start and stop around the running record: destroy, show and
// hide, teletext, portal, launch, the browser's page events and the
// settings passed to the browser.
#include <gtest/gtest.h>

#include <cstring>
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

// The media-delivery service is replaced for these tests: URLs containing
// "player" are served by a player page.
extern "C" int tvh_mds_get_player_url(const char* location, char* playerUrl, int playerUrlSize) {
    if (location == nullptr || std::strstr(location, "player") == nullptr) return -1;
    std::snprintf(playerUrl, static_cast<size_t>(playerUrlSize), "http://player.example/play?src=%s",
                  location);
    return 0;
}

namespace {

class AppLifecycleTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startActive();
        serveCarousel(1, {"index.html", "ttx1/index.html", "ttx3/index.html"});
    }
    std::string body(Connection c = Connection::Application) { return nextFrame(c).body; }
    // Skips frames until one with the given id arrives.
    std::string bodyOf(int id) {
        for (int i = 0; i < 20; ++i) {
            auto f = nextFrame(Connection::Application);
            if (f.id == id) return f.body;
            if (f.id < 0) break;
        }
        return "";
    }
    void deliver(OwnedAit& ait) { ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0); }
    void send(const std::string& msg) { ASSERT_TRUE(browser_.send(Connection::Application, msg)); }
    bool activated() { return locked([] { return state::activated(); }); }
    bool visible() { return locked([] { return state::visible(); }); }
    bool portal_mode() { return locked([] { return state::portal(); }); }
    VideoBroadcastState broadcast() { return locked([] { return state::broadcast(); }); }
    bool startable(int index) { return locked([&] { return state::entry_startable(index); }); }
};

AppSpec teletext(int app, int priority, int protocol = 1) {
    AppSpec s;
    s.app = app;
    s.control = PRESENT;
    s.usage = 1;
    s.priority = priority;
    s.protocol = protocol;
    s.url = protocol == 3 ? "http://ttx.example/" + std::to_string(app) + "/"
                          : "dvb://1.2.3.1/ttx" + std::to_string(app) + "/index.html";
    return s;
}

}  // namespace

TEST_F(AppLifecycleTest, DestroyNeedsMatchingIdsButAlwaysDeactivates) {
    AppSpec a;
    a.control = PRESENT;
    OwnedAit ait(16, "dvb://1.2.3", {a});
    locked([&] { update_running_application(&ait->apps[0]); });
    EXPECT_TRUE(activated());  // PRESENT activates
    application_destroy(a.org, a.app + 1);
    EXPECT_TRUE(app_running());
    EXPECT_FALSE(activated());
    EXPECT_TRUE(log_.contains("Ignoring destroy command"));
    application_destroy(a.org, a.app);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
    EXPECT_EQ(hbb_sim_display_mode(), 0);
}

TEST_F(AppLifecycleTest, ShowAndHideRespectFullScreenVideo) {
    locked([] { application_show(0); });
    EXPECT_EQ(bodyOf(53), "53|(null)|");
    EXPECT_TRUE(visible());
    EXPECT_EQ(hbb_sim_display_state(), EN_HBB_FULLSCREEN_NO_VOD);
    locked([] { application_hide(0); });
    EXPECT_EQ(bodyOf(54), "54|(null)|");
    EXPECT_EQ(body(), "402|0|");
    EXPECT_FALSE(visible());
    EXPECT_EQ(hbb_sim_display_state(), EN_HBB_RED_BUTTON);

    hbbStateChange(EN_HBB_FULLSCREEN_VOD);
    locked([] {
        application_show(0);
        application_hide(0);
    });
    EXPECT_EQ(hbb_sim_display_state(), EN_HBB_FULLSCREEN_VOD);
    EXPECT_FALSE(visible());
    // Nothing reached the browser: the next frame is this marker.
    setTimeZone(0, 0, 0);
    EXPECT_EQ(body(), "141|UTC+00:00:00|");

    // Display-state only requests do not touch the page.
    hbbStateChange(EN_HBB_OFF);
    locked([] { application_show(1); });
    EXPECT_EQ(hbb_sim_display_state(), EN_HBB_FULLSCREEN_NO_VOD);
    EXPECT_FALSE(visible());
}

TEST_F(AppLifecycleTest, TeletextTogglesByPriority) {
    OwnedAit ait(16, "dvb://1.2.3", {teletext(1, 3), teletext(2, 8, 3), teletext(3, 5)});
    deliver(ait);
    ASSERT_EQ(locked([] { return hasTeletextApplication(); }), 1);
    // Network off: the HTTP teletext entry (priority 8) is skipped.
    EXPECT_EQ(locked([] { return find_teletext_application_index(); }), 2);
    ASSERT_EQ(toggleTeletextApplication(1), 1);
    EXPECT_EQ(bodyOf(50), "50|dvb://1.2.3.1/ttx3/index.html|");
    EXPECT_EQ(running_app_id(), 3);
    EXPECT_EQ(toggleTeletextApplication(1), 1);  // already running
    EXPECT_EQ(MiddlewareCallbacks::starts(), 1);
    EXPECT_EQ(toggleTeletextApplication(7), 0);
    EXPECT_EQ(toggleTeletextApplication(0), 1);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(toggleTeletextApplication(0), 1);  // nothing to switch off

    OwnedAit none(16, "dvb://1.2.3", {AppSpec{}});
    deliver(none);
    EXPECT_EQ(toggleTeletextApplication(1), 0);
}

TEST_F(AppLifecycleTest, PortalThroughAPlayerPageAndClose) {
    char portal[] = "http://portal.example/player/home";
    ASSERT_EQ(openWebPortal(portal), 1);
    EXPECT_TRUE(portal_mode());
    // The boundary reaches the browser before the page it bounds; in portal
    // mode the start URL goes out as command 140 (from the middleware's
    // start callback).
    EXPECT_EQ(body(), "59|no boundary|");
    EXPECT_EQ(bodyOf(140), "140|http://player.example/play?src=http://portal.example/player/home|");
    EXPECT_EQ(running_org_id(), -1);
    EXPECT_EQ(broadcast(), VBOS_STOPPED);
    EXPECT_EQ(locked([] { return hasApplicationRuning(); }), 1);

    ASSERT_EQ(closeWebPortal(), 1);
    EXPECT_FALSE(portal_mode());
    EXPECT_FALSE(app_running());
    EXPECT_EQ(broadcast(), VBOS_PRESENTING);
    EXPECT_EQ(hbb_sim_call_count("hbbSetChannel"), 1);  // re-tuned
    EXPECT_EQ(hbb_sim_call_count("hbbWaitingVodDecoderRelease"), 1);
    EXPECT_EQ(MiddlewareCallbacks::stops(), 1);
}

TEST_F(AppLifecycleTest, PortalThroughAPlainUrlIsNotProbed) {
    char portal[] = "http://portal.example/home.html";
    ASSERT_EQ(openWebPortal(portal), 1);
    EXPECT_EQ(bodyOf(140), "140|http://portal.example/home.html|");
    EXPECT_EQ(running_type(), BROADCAST_INDEPENDENT);
    EXPECT_FALSE(log_.contains("Detected Http App"));
    // A load failure in portal mode shows the portal error page.
    send("88|");
    EXPECT_EQ(bodyOf(140), "140|file:///system/hbbtv/config/invaild_url.html|");
    EXPECT_EQ(openWebPortal(nullptr), 0);
}

TEST_F(AppLifecycleTest, LaunchTypes) {
    char url[] = "http://launch.example/app.html";
    locked([] { state::set_portal(true); });
    EXPECT_EQ(Hbbtv_AM_Launch_Application(eLaunchFormEpg, url), 0);
    EXPECT_FALSE(portal_mode());
    EXPECT_EQ(Hbbtv_AM_Launch_Application(static_cast<eLaunchType>(10), url), 0);
    EXPECT_EQ(Hbbtv_AM_Launch_Application(eLaunchFormBroadcastApp, nullptr), 0);
    char dvb[] = "dvb://1.2.3.1/index.html";
    EXPECT_EQ(Hbbtv_AM_Launch_Application(eLaunchFormBroadcastApp, dvb), 0);
    EXPECT_EQ(MiddlewareCallbacks::starts(), 0);
}

TEST_F(AppLifecycleTest, PageEventsFromTheBrowser) {
    send("82|http://host.example/dir/page.html|");
    ASSERT_TRUE(decisions_.waitFor({"page_loaded", "", "http://host.example/dir/page.html"}, 3000));
    EXPECT_EQ(locked([] { return std::string(state::loaded_url()); }),
              "http://host.example/dir/page.html");

    send("89|1|");
    ASSERT_TRUE(log_.waitFor("application hidden... is_css = 1", 3000));
    EXPECT_EQ(hbb_sim_display_state(), EN_HBB_RED_BUTTON);
    send("89|0|");
    ASSERT_TRUE(log_.waitFor("application_show ,is_css = 1", 3000));

    AppSpec a;
    a.url = "dvb://1.2.3.1/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {a});
    deliver(ait);
    ASSERT_TRUE(app_running());
    EXPECT_EQ(bodyOf(50), "50|dvb://1.2.3.1/index.html|");
    send("51|");
    // Destroyed, then the autostart of the current table runs again.
    EXPECT_EQ(bodyOf(51), "51|");
    EXPECT_EQ(bodyOf(50), "50|dvb://1.2.3.1/index.html|");
    EXPECT_EQ(MiddlewareCallbacks::starts(), 2);
    EXPECT_TRUE(log_.contains("CMD_DESTROY_APPLICATION come from hbbtv-web-brower"));
}

TEST_F(AppLifecycleTest, SettingsAndNotifications) {
    char ua[] = "Mozilla/5.0 HbbTV/1.4.1 (; Vendor; Model; 1.0; ;)";
    configureUserAgentAddon(ua);
    EXPECT_EQ(body(), std::string("24|") + ua + "|");
    auto version = [] { return locked([] { return state::terminal_version(); }); };
    EXPECT_EQ(version().major, 1);
    EXPECT_EQ(version().minor, 4);
    EXPECT_EQ(version().micro, 1);
    char too_short[] = "Mozilla/5.0 HbbTV/2.0.3";
    configureUserAgentAddon(too_short);
    EXPECT_EQ(version().minor, 4);  // one character short: unchanged
    body();
    configureCookies(1);
    EXPECT_EQ(body(), "26|1|");
    configureDNT(0);
    EXPECT_EQ(body(), "400|0|");
    char lang[] = "fr-FR,fr;q=0.9";
    configureAcceptLanguage(lang);
    EXPECT_EQ(body(), "25|fr-FR,fr;q=0.9|");
    displayModeChanged(2);
    EXPECT_EQ(body(), "81|2|");
    memoryLow();
    EXPECT_EQ(body(Connection::Callbacks), "65|");
    EXPECT_EQ(send_curr_epg_update_msg(), 1);
    EXPECT_EQ(body(Connection::Callbacks), "161|");
}

TEST_F(AppLifecycleTest, NetworkStatusTransitions) {
    EXPECT_EQ(sendNetworkStatus(3), 0);
    EXPECT_EQ(locked([] { return state::network(); }), NETWORK_OFF);
    EXPECT_EQ(sendNetworkStatus(0), 0);
    EXPECT_TRUE(log_.contains("Same status received, ignoring..."));
    char url[] = "http://host.example/app.html";
    locked([&] { update_running_application_as_independent(url); });
    EXPECT_EQ(sendNetworkStatus(1), 1);
    EXPECT_EQ(sendNetworkStatus(0), 1);
    EXPECT_TRUE(decisions_.contains({"keep", "network_off", "http://host.example/app.html"}));
    EXPECT_TRUE(app_running());
}

TEST_F(AppLifecycleTest, LoadErrorMarksTheEntryAndTheNextOneStarts) {
    AppSpec missing;  // not in the carousel
    missing.app = 1;
    missing.priority = 9;
    missing.url = "dvb://1.2.3.1/missing/index.html";
    AppSpec present;
    present.app = 2;
    present.url = "dvb://1.2.3.1/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {missing, present});
    deliver(ait);
    EXPECT_EQ(running_app_id(), 2);
    EXPECT_FALSE(startable(0));
    EXPECT_TRUE(startable(1));
    std::vector<std::string> told;
    for (const Decision& d : decisions_.all())
        told.push_back(d.name + " " + std::to_string(d.app_id) + " " + d.url);
    EXPECT_EQ(told, (std::vector<std::string>{"autostart 1 dvb://1.2.3.1/missing/index.html",
                                              "load_error -1 dvb://1.2.3.1/missing/index.html",
                                              "autostart 2 dvb://1.2.3.1/index.html"}));
    EXPECT_EQ(bodyOf(50), "50|dvb://1.2.3.1/index.html|");
    EXPECT_EQ(MiddlewareCallbacks::starts(), 1);

    // The page then fails in the browser: with nothing else startable the
    // browser is told the load failed.
    send("68|");
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "68|");
}

TEST_F(AppLifecycleTest, InterruptedCarouselCheckStartsNothing) {
    AppSpec a;
    a.url = "dvb://1.2.3.1/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {a});
    hbb_sim_carousel_break_next(4);
    deliver(ait);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(MiddlewareCallbacks::starts(), 0);
    EXPECT_TRUE(log_.contains("hbbCheckDSMCCEntryType break"));
    // Not a load error: the entry may be tried again.
    EXPECT_TRUE(startable(0));
}

TEST_F(AppLifecycleTest, SwitchToIndependentStopsTheBroadcast) {
    locked([] { application_switch_to_independent(); });
    EXPECT_EQ(running_type(), BROADCAST_INDEPENDENT);
    EXPECT_EQ(broadcast(), VBOS_STOPPED);
    EXPECT_TRUE(activated());
    EXPECT_EQ(hbb_sim_call_count("hbbStopChannel"), 1);
}
