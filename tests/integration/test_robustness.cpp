// A browser that stops reading or crashes over and over, servers that stall
// or redirect in circles, and pages that point at themselves: every case
// ends within a deadline, and threads and address space stay bounded.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include "ait_builder.h"
#include "app_mgr.h"
#include "common/seams.h"
#include "core/core.h"
#include "hbb_sim.h"
#include "http_test_server.h"
#include "test_support.h"

using namespace appmgr::test;
using Clock = std::chrono::steady_clock;

namespace {

// The library never tears libxml2 down: this definition stands in for
// libxml2's own and counts the calls.
std::atomic<int> g_parser_cleanups{0};

long status_field(const char* name) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(name, 0) == 0) return std::atol(line.c_str() + std::strlen(name));
    return -1;
}

int thread_count() { return static_cast<int>(status_field("Threads:")); }
long address_space_kb() { return status_field("VmSize:"); }

class RobustnessTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startActive();
    }
    void reconnectApplication(int crashes_so_far) {
        browser_.disconnect(Connection::Application);
        ASSERT_TRUE(log_.waitForCount("Web browser crashed. Restarting...", crashes_so_far + 1, 5000));
        ASSERT_TRUE(browser_.connect(Connection::Application, 5000));
        ASSERT_TRUE(log_.waitForCount("server_task() - connected",
                                      MNG_CONNECTION_TYPE_SIZE + crashes_so_far + 1, 5000));
        ASSERT_TRUE(browser_.send(Connection::Application, "83|1|"));
        ASSERT_TRUE(log_.waitForCount("app-man in web-browser SUSPENDED", crashes_so_far + 2, 5000));
    }
};

}  // namespace

extern "C" void xmlCleanupParser(void) { ++g_parser_cleanups; }

TEST_F(RobustnessTest, CloseDoesNotWaitForABrowserThatDoesNotRead) {
    const std::string root = serveCarousel(1, {"index.html"});
    std::ofstream(root + "big.bin", std::ios::binary) << std::string(2 << 20, 'b');
    // A 2 MiB file the browser asks for and never reads.
    ASSERT_TRUE(browser_.send(Connection::Dsmcc, "131|dvb://1.2.3.1/big.bin|"));
    ASSERT_TRUE(log_.waitFor("Command CMD_DSMCC_GET_FILE_CONTENT received", 5000));
    EXPECT_EQ(within(std::chrono::seconds(10), "applicationManagerClose",
                     [] { return applicationManagerClose(); }),
              1);
}

TEST_F(RobustnessTest, ABrowserThatStopsReadingDoesNotWedgeTheMiddleware) {
    // Large replies the browser never reads: far more than a socket holds.
    const std::string ua(4000, 'u');
    setAMUserAgent(const_cast<char*>(ua.c_str()));
    // One request at a time (a block received is one message), until the
    // replies waiting for the browser pass what the library keeps for it.
    for (int i = 0; i < 1200 && !log_.contains("browser is not reading"); ++i) {
        const int before = log_.count("Command CMD_GET_USER_AGENT received");
        ASSERT_TRUE(browser_.send(Connection::DtvPlugins, "401|"));
        ASSERT_TRUE(log_.waitForCount("Command CMD_GET_USER_AGENT received", before + 1, 5000));
    }
    EXPECT_TRUE(log_.contains("browser is not reading"));
    serveCarousel(1, {"app/index.html"});
    AppSpec app;
    app.url = "dvb://1.2.3.1/app/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {app});
    // Commands on "Application" and callbacks on "Callbacks", never read either.
    const std::string text(3000, 't');
    within(std::chrono::seconds(10), "sending to a browser that does not read", [&] {
        for (int i = 0; i < 400; ++i) {
            send_command(52, const_cast<char*>(text.c_str()));
            send_command(209, const_cast<char*>(text.c_str()));
        }
        return 0;
    });
    within(std::chrono::seconds(10), "aitUpdate", [&] { return hbb_sim_fire_ait(ait.get()); });
    within(std::chrono::seconds(10), "channelChanged", [] {
        channelChanged(nullptr);
        return 0;
    });
    EXPECT_EQ(within(std::chrono::seconds(10), "applicationManagerClose",
                     [] { return applicationManagerClose(); }),
              1);
}

TEST_F(RobustnessTest, BrowserCrashesLeaveNoThreadsBehind) {
    reconnectApplication(0);
    const int threads = thread_count();
    const long address_space = address_space_kb();
    for (int i = 1; i < 200; ++i) reconnectApplication(i);
    // One wait at a time, joined by the next crash: at most one more thread,
    // and no stacks piling up.
    EXPECT_LE(thread_count(), threads + 1);
    EXPECT_LT(address_space_kb() - address_space, 64 * 1024);
    EXPECT_TRUE(shell_commands().empty());
}

TEST_F(RobustnessTest, ALeftoverWaitDoesNotKillAHealthyBrowser) {
    // Each reconnect must end well inside the wait, or the wait rightly
    // times out: 3 s leaves room for a loaded machine under ThreadSanitizer.
    appmgr::seams::set_browser_wait_seconds(3);
    for (int i = 0; i < 20; ++i) {
        reconnectApplication(i);
        // The middleware activates the library as soon as the browser is back.
        ASSERT_EQ(applicationManagerInit(), 1);
        ASSERT_EQ(state(), APP_MANAGER_INITIALIZED);
    }
    // Past the wait's deadline nothing was killed and the library is active.
    EXPECT_FALSE(log_.waitFor("TIMEOUT: Browser was not started in expected time", 4000));
    EXPECT_TRUE(shell_commands().empty());
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZED);
}

TEST_F(RobustnessTest, ABrowserReportingLateIsClosedProperly) {
    applicationManagerClose();
    browser_.disconnectAll();
    appmgr::seams::set_browser_wait_seconds(1);
    ASSERT_EQ(applicationManagerInit(), 1);  // times out: no browser
    ASSERT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    // The browser comes late; the middleware activates the library.
    ASSERT_TRUE(browser_.connectAll(5000));
    ASSERT_TRUE(browser_.send(Connection::Application, "83|1|"));
    ASSERT_TRUE(log_.waitForCount("app-man in web-browser SUSPENDED", 2, 5000));
    ASSERT_EQ(applicationManagerInit(), 1);
    ASSERT_EQ(state(), APP_MANAGER_INITIALIZED);
    // Close tears everything down: the browser is told, the sockets close.
    EXPECT_EQ(applicationManagerClose(), 1);
    EXPECT_EQ(nextFrame(Connection::Application).body, "160|");
    EXPECT_FALSE(browser_.readRaw(Connection::DtvPlugins, 16, 2000));
    EXPECT_EQ(browser_.lastReadStatus(Connection::DtvPlugins), appmgr::standin::ReadStatus::Closed);
}

TEST_F(RobustnessTest, XmlAitDownloadsAreBoundedAsAWholeAndInRedirects) {
    // Two servers: one that holds its connection serves nobody else.
    HttpTestServer server(std::chrono::seconds(30));
    server.hang("/stalls.aitx");
    HttpTestServer redirects;
    redirects.respond("/circle", "302 Found", "", {"Location: /circle"});
    appmgr::seams::set_http_timeouts(1, 2);
    std::string stalls = server.url("/stalls.aitx");
    const auto t0 = Clock::now();
    EXPECT_EQ(within(std::chrono::seconds(15), "openWebPortal on a stalled server",
                     [&] { return openWebPortal(stalls.data()); }),
              0);
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(10));
    std::string circle = redirects.url("/circle");
    within(std::chrono::seconds(15), "a download redirected in a circle", [&] {
        return Hbbtv_AM_Launch_Application(eLaunchFormBroadcastApp, circle.data());
    });
    int followed = 0;
    for (const auto& r : redirects.requests()) followed += r.path == "/circle";
    EXPECT_GE(followed, 2);
    EXPECT_LE(followed, 2 * 11) << "at most 10 redirects per transfer";
    appmgr::seams::set_http_timeouts(0, 0);
}

TEST_F(RobustnessTest, XmlParsingLeavesLibxml2SetUp) {
    std::string doc =
        "<?xml version=\"1.0\"?><mhp:ServiceDiscovery xmlns:mhp=\"urn:dvb:mhp:2009\">"
        "<mhp:ApplicationDiscovery><mhp:ApplicationList><mhp:Application><mhp:orgId>1"
        "</mhp:orgId><mhp:appId>2</mhp:appId><mhp:URLBase>http://www.live.bbctvapps.co.uk/"
        "</mhp:URLBase></mhp:Application></mhp:ApplicationList></mhp:ApplicationDiscovery>"
        "</mhp:ServiceDiscovery>";
    EXPECT_EQ(locked([&] { return ParseXmlAitFile(doc.data(), static_cast<int>(doc.size())); }), 1);
    EXPECT_EQ(g_parser_cleanups.load(), 0);
}

TEST_F(RobustnessTest, StartsThatPointAtThemselvesEnd) {
    // A page loaded from a base of no known form: resolving a relative URL
    // against it would give another relative URL, without end.
    ASSERT_TRUE(browser_.send(Connection::Application, "82|app/dir/page.html|"));
    ASSERT_TRUE(decisions_.waitFor({"page_loaded", "", "app/dir/page.html"}, 5000));
    char relative[] = "next.html";
    EXPECT_EQ(locked([&] { return application_create(relative); }), 0);
    EXPECT_TRUE(log_.contains("cannot be started"));

    // An entry whose own URL names itself in the current AIT.
    AppSpec self;
    self.org = 0x10;
    self.app = 0x1;
    self.url = "dvb://current.ait/10.1";
    OwnedAit ait(16, "dvb://1.2.3", {self});
    ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    EXPECT_FALSE(app_running());
    EXPECT_TRUE(log_.contains("points at the current AIT itself"));

    // An entry URL cut to 1023 characters on its way to the probe: the load
    // error still marks the entry, which is not chosen again.
    set_network(NETWORK_ON);
    OwnedAit longer(16, "dvb://1.2.3",
                    {http_app(0x10, 0x2, "http://127.0.0.1:1/" + std::string(1500, 'p'))});
    ASSERT_EQ(hbb_sim_fire_ait(longer.get()), 0);
    EXPECT_FALSE(app_running());
    EXPECT_FALSE(locked([] { return appmgr::state::entry_startable(0); }));
    int probes = 0;
    for (const auto& line : log_.lines()) probes += line.find("CALLED probe_http_app") != std::string::npos;
    EXPECT_EQ(probes, 1);
}
