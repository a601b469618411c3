// The library against the real browser process: Debian's chromium, driven
// by tools/web-browser, on a private socket directory. Applications come
// from the simulated carousel (tests/data/web-browser/carousel), so every
// page is also read through the "DSMCC" connection.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "common/seams.h"
#include "hbb_sim.h"
#include "node_program.h"
#include "test_support.h"

namespace appmgr::test {
namespace {

using webbrowser::browserScript;
using webbrowser::NodeProgram;
using webbrowser::testsuiteScript;

constexpr int kTag = 1;
const std::string kIndex = "dvb://1.2.3.1/index.html";
const std::string kSecond = "dvb://1.2.3.1/second.html";

class WebBrowserTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        // Chromium's start counts against the library's wait for the browser.
        seams::set_browser_wait_seconds(30);
        add_tv_channel("ccid:1.2.3", 3, "One");
        add_tv_channel("ccid:1.2.4", 4, "Two");
        hbb_sim_set_current_channel(0);
        ASSERT_EQ(hbb_sim_set_carousel(kTag, APPMGR_WEB_BROWSER_DATA "/carousel/"), 0);
        set_terminal_version(1, 7, 1);
        startBrowser();
        ASSERT_EQ(applicationManagerInit(), 1);
        ASSERT_EQ(state(), APP_MANAGER_INITIALIZED);
        // The middleware's callbacks as a receiver's: start and stop tell
        // the browser (commands 50 and 51).
        application_manager_register([] { return application_manager_cmd_start(); },
                                     [] { return application_manager_cmd_stop(); });
    }

    void TearDown() override {
        // The library tells the browser to close (160); it then ends.
        LibraryTest::TearDown();
        if (browser) {
            EXPECT_EQ(browser->finish(), 0) << browser->transcript();
        }
    }

    // The first applicationManagerInit waits for the browser's report.
    void startBrowser() {
        auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
        browser = std::make_unique<NodeProgram>(browserScript(), std::vector<std::string>{"--socket-dir", dir_.path()});
        ASSERT_TRUE(browser->started());
        ASSERT_EQ(init.wait_for(std::chrono::seconds(40)), std::future_status::ready) << browser->transcript();
        ASSERT_EQ(init.get(), 1);
        ASSERT_EQ(state(), APP_MANAGER_SUSPENDED) << browser->transcript();
        ASSERT_TRUE(browser->waitEvent("connected")) << browser->transcript();
    }

    void deliver(const std::vector<AppSpec>& apps) {
        OwnedAit ait(16, "dvb://1.2.3", apps);
        ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    }

    // Waits until the page of `url` has loaded and run its onload handler.
    void expectReady(const std::string& url) {
        ASSERT_TRUE(browser->waitEvent("loaded " + url)) << browser->transcript();
        expectReady();
    }
    void expectReady() {
        for (int i = 0; i < 50 && browser->eval("document.getElementById('status') ? "
                                                "document.getElementById('status').textContent : ''") != "\"ready\"";
             ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_EQ(browser->eval("document.getElementById('status').textContent"), "\"ready\"");
    }

    std::unique_ptr<NodeProgram> browser;
};

// Waits (bounded) until the library's record shows what the browser has
// already seen: the library sends its commands before it finishes its own
// bookkeeping.
template <typename F>
bool eventually(F&& done) {
    for (int i = 0; i < 100 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done();
}

// The library tells the browser a key set (220) before it registers it
// with the platform: the registration is waited for (bounded).
int registered_keyset(int expected) {
    for (int i = 0; i < 100 && hbb_sim_registered_keyset() != expected; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return hbb_sim_registered_keyset();
}

AppSpec app(int id, const std::string& url, ControlCode control) {
    AppSpec a;
    a.org = 0x10;
    a.app = id;
    a.url = url;
    a.control = control;
    return a;
}

// A broadcast AIT starts its application in Chromium; the page's key set
// reaches the library (clamped until the application is activated); a
// colour key in the set reaches the page, one outside it does not; the
// first key activates the application and the rest of the key set applies.
TEST_F(WebBrowserTest, AutostartApplicationRunsWithItsKeySet) {
    deliver({app(1, kIndex, AUTOSTART)});
    expectReady(kIndex);
    EXPECT_EQ(browser->eval("document.title"), "\"first\"");
    // The page is XHTML from the carousel, and its objects are there.
    EXPECT_EQ(browser->eval("document.contentType"), "\"application/xhtml+xml\"");
    EXPECT_EQ(browser->eval("document.getElementById('video').playState"), "2");
    EXPECT_EQ(browser->eval("document.querySelector('[data-hbbtv-test-picture]').textContent"), "\"One\"");

    // Asked 0x111; before activation only colour and navigation keys pass.
    ASSERT_TRUE(browser->waitEvent("keyset 0x11")) << browser->transcript();
    EXPECT_EQ(registered_keyset(0x11), 0x11);

    EXPECT_EQ(browser->command("key GREEN"), std::optional<std::string>("VK_GREEN withheld"));
    EXPECT_EQ(browser->command("key 5"), std::optional<std::string>("VK_5 withheld"));
    EXPECT_EQ(browser->command("key RED"), std::optional<std::string>("VK_RED delivered"));
    EXPECT_EQ(browser->eval("keys.join(',')"), "\"403\"");

    // The delivered key activated the application: 0x111 in full.
    ASSERT_TRUE(browser->waitEvent("keyset 0x111")) << browser->transcript();
    EXPECT_EQ(registered_keyset(0x111), 0x111);
    browser->eval("window.presses = []; document.addEventListener('keypress', function (e) {"
                  " presses.push(e.keyCode); }), 1");
    EXPECT_EQ(browser->command("key 5"), std::optional<std::string>("VK_5 delivered"));
    EXPECT_EQ(browser->command("key LEFT"), std::optional<std::string>("VK_LEFT delivered"));
    EXPECT_EQ(browser->eval("keys.join(',')"), "\"403,53,37\"");
    // Every key is followed by a keypress, as on a receiver.
    EXPECT_EQ(browser->eval("presses.join(',')"), "\"53,37\"");
    EXPECT_EQ(browser->eval("owner().privateData.keyset.value"), "273");
}

// createApplication starts another application through the library; its
// destroyApplication ends it and the library falls back to the autostart
// application.
TEST_F(WebBrowserTest, CreateAndDestroyApplicationGoThroughTheLibrary) {
    deliver({app(1, kIndex, AUTOSTART), app(2, kSecond, PRESENT)});
    expectReady(kIndex);
    EXPECT_TRUE(eventually([] { return running_app_id() == 1; }));

    // The call's page goes away while it returns: it runs after the eval.
    browser->eval("setTimeout(function () { owner().createApplication('dvb://current.ait/10.2', false); }, 0)");
    ASSERT_TRUE(browser->waitEvent("loaded " + kSecond)) << browser->transcript();
    EXPECT_TRUE(eventually([] { return running_app_id() == 2; }));
    EXPECT_EQ(browser->eval("document.title"), "\"second\"");

    browser->eval("setTimeout(function () { owner().destroyApplication(); }, 0)");
    ASSERT_TRUE(browser->waitEvent("destroyed")) << browser->transcript();
    expectReady(kIndex);
    EXPECT_TRUE(eventually([] { return running_app_id() == 1; }));

    // An application that cannot be started gives null.
    EXPECT_EQ(browser->eval("owner().createApplication('dvb://1.2.3.1/missing.html', false)"), "null");
    // A relative URL is resolved against the page's carousel URL.
    browser->eval("setTimeout(function () { owner().createApplication('second.html', false); }, 0)");
    ASSERT_TRUE(browser->waitEvent("loaded " + kSecond)) << browser->transcript();
}

// A page that starts another application and then destroys itself (the
// public test suite's way) leaves the new one running: the new application
// replaced it, and its Application object stands for itself alone.
TEST_F(WebBrowserTest, DestroyAfterCreateEndsOnlyTheCaller) {
    deliver({app(1, kIndex, AUTOSTART), app(2, kSecond, PRESENT)});
    expectReady(kIndex);
    EXPECT_TRUE(eventually([] { return running_app_id() == 1; }));
    browser->eval("setTimeout(function () { var a = owner();"
                  " if (a.createApplication('dvb://current.ait/10.2', false)) a.destroyApplication(); }, 0)");
    // The destroy request was answered before the call returned, and the
    // page loads after that.
    ASSERT_TRUE(browser->waitEvent("loaded " + kSecond)) << browser->transcript();
    EXPECT_TRUE(eventually([] { return running_app_id() == 2; }));
    EXPECT_EQ(browser->eval("document.title"), "\"second\"");
    EXPECT_FALSE(browser->sawEvent("destroyed")) << browser->transcript();
}

// setChannel(null) makes the application broadcast-independent through the
// library; its broadcast object then refuses to present the broadcast.
TEST_F(WebBrowserTest, LettingTheBroadcastGoMakesThePageBroadcastIndependent) {
    deliver({app(1, kIndex, AUTOSTART)});
    expectReady(kIndex);
    EXPECT_EQ(browser->eval("document.getElementById('video').programmes.length"), "0");
    browser->eval("document.getElementById('video').setChannel(null)");
    EXPECT_TRUE(eventually([] { return locked([] { return appmgr::state::running_type(); }) == 1; }));
    EXPECT_EQ(hbb_sim_broadcast_presenting(), 0);
    EXPECT_EQ(browser->eval("(function () { try { document.getElementById('video').bindToCurrentChannel();"
                            " return 'bound'; } catch (e) { return e.name; } })()"),
              "\"SecurityError\"");
}

// A channel change ends the service-bound application in the browser.
TEST_F(WebBrowserTest, ChannelChangeKillsServiceBoundApplication) {
    deliver({app(1, kIndex, AUTOSTART)});
    expectReady(kIndex);
    ASSERT_EQ(hbb_sim_set_current_channel(1), 0);
    Channel* now = hbbGetCurrentChannel();
    ASSERT_NE(now, nullptr);
    channelChanged(now);
    channel_destroy(now);
    ASSERT_TRUE(browser->waitEvent("destroyed")) << browser->transcript();
    EXPECT_TRUE(eventually([] { return !app_running(); }));
    EXPECT_EQ(browser->eval("location.href"), "\"about:blank\"");
}

// A stream event of a carousel stream-event object reaches the listener
// the page added on its video/broadcast object; an event name the object
// does not have gives the listener an error.
TEST_F(WebBrowserTest, StreamEventReachesListener) {
    deliver({app(1, kIndex, AUTOSTART)});
    expectReady(kIndex);
    const std::string events = "dvb://1.2.3.1/events";
    browser->eval("listen('" + events + "', 'go')");
    ASSERT_EQ(hbb_sim_stream_event_subscribed(events.c_str(), "go", nullptr, nullptr), 1);
    ASSERT_EQ(hbb_sim_fire_stream_event(events.c_str(), "go", eQUMAm_DSMCC_EVENT_FIRE, "hi", 2), 1);
    ASSERT_TRUE(browser->waitEvent("callback 66")) << browser->transcript();
    std::string seen;
    for (int i = 0; i < 100 && (seen = browser->eval("events.join(';')")) == "\"\""; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(seen, "\"go:6869:hi:trigger\"");

    browser->eval("listen('" + events + "', 'nosuch')");
    for (int i = 0; i < 100 && (seen = browser->eval("events.length")) == "1"; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(browser->eval("events[1]"), "\"nosuch:::error\"");
}

// A Chromium crash is a browser crash to the library: the connections
// drop, the browser comes back and reports itself, and once the middleware
// activates the library again the autostart application runs again.
TEST_F(WebBrowserTest, ChromiumCrashIsRecoveredAsABrowserRestart) {
    deliver({app(1, kIndex, AUTOSTART)});
    expectReady(kIndex);
    ASSERT_TRUE(browser->command("kill-chromium"));
    ASSERT_TRUE(browser->waitEvent("chromium-restarted", 30000)) << browser->transcript();
    ASSERT_TRUE(browser->waitEvent("connected", 30000)) << browser->transcript();
    for (int i = 0; i < 200 && state() != APP_MANAGER_SUSPENDED; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_EQ(state(), APP_MANAGER_SUSPENDED);
    ASSERT_EQ(applicationManagerInit(), 1);
    expectReady(kIndex);
}

// Pages that misbehave: wrong arguments, requests the library does not
// serve, a flood of requests, a script that never returns. The library
// stays up and the browser still obeys it.
TEST_F(WebBrowserTest, MisbehavingPageDoesNotWedgeTheBrowser) {
    deliver({app(1, kIndex, AUTOSTART), app(2, kSecond, PRESENT)});
    expectReady(kIndex);
    EXPECT_EQ(browser->eval("(function () { var v = document.getElementById('video');"
                            " try { v.setChannel({}); } catch (e) {}"
                            " try { owner().privateData.keyset.setValue('x', 'y'); } catch (e) {}"
                            " try { v.addStreamEventListener(null, null, null); } catch (e) {}"
                            " try { owner().createApplication(new Array(3000).join('x')); } catch (e) {}"
                            " return 'done'; })()"),
              "\"done\"");
    // A flood of requests with a wrong token (the endpoint is found as any
    // local process could: from the browser's status) is refused, and a
    // burst of the objects' own requests is served one by one.
    const std::string status = browser->command("status").value_or("");
    const auto at = status.find("\"endpoint\":\"");
    ASSERT_NE(at, std::string::npos) << status;
    const std::string endpoint = status.substr(at + 12, status.find('"', at + 12) - at - 12);
    EXPECT_EQ(browser->eval("new Promise(function (done) { var n = 0, refused = 0, all = 300;"
                            " for (var i = 0; i < all; i++) { var x = new XMLHttpRequest();"
                            "  x.open('POST', '" + endpoint + "/rpc', true);"
                            "  x.onloadend = function () { if (this.status === 403) refused++;"
                            "   if (++n === all) done(refused); };"
                            "  x.send(JSON.stringify({token: 'guess', connection: 'dtvPlugins', id: 3, fields: []})); } })"),
              "300");
    EXPECT_EQ(browser->eval("(function () { var s = 0; for (var i = 0; i < 200; i++)"
                            " s += document.getElementById('video').currentChannel ? 1 : 0; return s; })()"),
              "200");
    // A script that never returns: the page cannot be left any more, so the
    // browser restarts Chromium, which the library sees as a browser crash;
    // once activated again its autostart application runs.
    browser->command("eval setTimeout(function () { for (;;) {} }, 50), 1");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    OwnedAit ait(16, "dvb://1.2.3", {app(2, kSecond, AUTOSTART)});
    ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    ASSERT_TRUE(browser->waitEvent("chromium-restarted", 30000)) << browser->transcript();
    ASSERT_TRUE(browser->waitEvent("connected", 30000)) << browser->transcript();
    for (int i = 0; i < 200 && state() != APP_MANAGER_SUSPENDED; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_EQ(applicationManagerInit(), 1);
    ASSERT_TRUE(browser->waitEvent("loaded " + kSecond, 30000)) << browser->transcript();
    EXPECT_EQ(browser->eval("document.title"), "\"second\"");
}

// One group of the public HbbTV test suite runs itself: its page is the
// AUTOSTART application of a broadcast AIT, the automation cookie is set,
// and every step the page reports comes back as a step line.
TEST_F(WebBrowserTest, TestSuiteGroupRunsAndReports) {
    NodeProgram suite(testsuiteScript(), {"--pages", APPMGR_TESTSUITE_PAGES, "--group", "capabilities"});
    const auto cookie = suite.waitLine("cookie ");
    const auto index = suite.waitLine("index ");
    const auto group = suite.waitLine("group capabilities ");
    ASSERT_TRUE(cookie && index && group) << suite.transcript();
    const std::string index_url = index->substr(6);
    const std::string group_url = group->substr(19);
    const std::string origin = index_url.substr(0, index_url.size() - 9);  // without "index.php"

    // What the group's steps look for.
    hbb_sim_set_capability("+DL", 1);
    hbb_sim_set_video_decodes(1, 2);
    hbb_sim_set_xml_capabilities("<profilelist><ui_profile name=\"OITF_HD_UIPROF+DL\"/></profilelist>");
    ASSERT_TRUE(browser->command("cookie " + origin + " " + cookie->substr(7))) << browser->transcript();
    ASSERT_EQ(hbb_sim_fire_network_status(1), 0);
    deliver({http_app(0x10, 1, group_url)});
    ASSERT_TRUE(browser->waitEvent("loaded " + group_url, 20000)) << browser->transcript();
    // The group's last step returns to the suite's start page.
    ASSERT_TRUE(browser->waitEvent("loaded " + index_url, 90000)) << browser->transcript() << suite.transcript();

    ASSERT_TRUE(suite.command("end").has_value() || true);
    const auto summary = suite.waitLine("6 passed, 0 failed, 0 manual", 10000);
    EXPECT_TRUE(summary) << suite.transcript();
    const std::string steps = suite.transcript();
    for (const char* line : {"step capabilities.xml PASS XML capabilities are valid.",
                             "step capabilities.+DL PASS +DL capability is available.",
                             "step capabilities.+PVR PASS +PVR capability is not available.",
                             "step capabilities.extrasd PASS extraSDVideoDecodes = 1",
                             "step capabilities.extrahd PASS extraHDVideoDecodes = 2"})
        EXPECT_NE(steps.find(line), std::string::npos) << line << "\n" << steps;
    EXPECT_EQ(suite.finish(), 0);
}

}  // namespace
}  // namespace appmgr::test
