// Start-up, activation, the browser wait, crash restart and close, driven
// through the five real sockets by the browser stand-in.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/seams.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;
using appmgr::standin::ReadStatus;

namespace {

class LifecycleTest : public LibraryTest {};

bool socket_file_exists(const BrowserStandin& b, Connection c) {
    struct stat st;
    return stat(b.socketPath(c).c_str(), &st) == 0;
}

}  // namespace

TEST_F(LifecycleTest, HandshakeThenActivation) {
    ASSERT_EQ(startWithBrowser(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
    EXPECT_EQ(browser_running(), 1);
    EXPECT_EQ(hbb_sim_call_count("QUMAm_Broadcast_SubscribeForAIT"), 1);
    EXPECT_EQ(hbb_sim_call_count("QUMAm_Broadcast_NetworkStatusChangeCallback"), 1);
    EXPECT_EQ(hbb_sim_call_count("QUMAm_DSMCCModuleDataChangeCallback"), 1);
    EXPECT_TRUE(shell_commands().empty());

    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZED);
    EXPECT_TRUE(log_.contains("Current appmgr_state is SUSPENDED"));
    // Already active: nothing is registered again.
    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_TRUE(log_.contains("Current appmgr_state is INITIALIZED,so return"));
    EXPECT_EQ(hbb_sim_call_count("QUMAm_Broadcast_SubscribeForAIT"), 1);
}

TEST_F(LifecycleTest, InitializingStateOnlyRegistersTheCallbacksAgain) {
    set_state(APP_MANAGER_INITIALIZING);
    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(hbb_sim_call_count("QUMAm_Broadcast_SubscribeForAIT"), 1);
    EXPECT_FALSE(log_.contains("Application manager initialization..."));
    EXPECT_FALSE(socket_file_exists(browser_, Connection::Application));
    set_state(APP_MANAGER_DEINITIALIZED);
}

TEST_F(LifecycleTest, BrowserThatNeverReportsIsKilledAndStartUpGoesOn) {
    appmgr::seams::set_browser_wait_seconds(1);
    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    EXPECT_EQ(browser_running(), 0);
    ASSERT_EQ(shell_commands().size(), 1u);
    EXPECT_EQ(shell_commands()[0], "busybox killall -9 hbbtv-web-browser");
    EXPECT_TRUE(log_.contains("TIMEOUT: Browser was not started in expected time"));
    EXPECT_EQ(hbb_sim_call_count("QUMAm_Broadcast_SubscribeForAIT"), 1);

    // Already de-initialised: close has nothing to do.
    EXPECT_EQ(applicationManagerClose(), 1);
    // The connections stayed up: a new start-up waits on them again, and a
    // browser connecting now is served.
    appmgr::seams::set_browser_wait_seconds(5);
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    ASSERT_TRUE(log_.waitForCount("check if browser is already running", 2, 3000));
    ASSERT_TRUE(browser_.connectAll(3000));
    ASSERT_TRUE(browser_.send(Connection::Application, "83|1|"));
    ASSERT_EQ(init.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(init.get(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
    EXPECT_EQ(shell_commands().size(), 1u);
}

TEST_F(LifecycleTest, ReportBeforeTheWaitIsSeenAtOnce) {
    set_state(APP_MANAGER_SUSPENDED);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(start_web_browser(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    EXPECT_EQ(browser_running(), 1);
    EXPECT_FALSE(log_.contains("check if browser is already running"));
    appmgr::state::set_browser_running(false);
    set_state(APP_MANAGER_DEINITIALIZED);
}

TEST_F(LifecycleTest, DeinitReportKeepsTheWaitGoingUntilPresent) {
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    ASSERT_TRUE(browser_.connectAll(5000));
    ASSERT_TRUE(browser_.send(Connection::Application, "83|0|"));
    ASSERT_TRUE(log_.waitFor("app-man in web-browser de-initialized", 3000));
    EXPECT_NE(init.wait_for(std::chrono::milliseconds(200)), std::future_status::ready);
    ASSERT_TRUE(browser_.send(Connection::Application, "83|7|"));
    ASSERT_EQ(init.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(init.get(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
}

TEST_F(LifecycleTest, CloseTellsTheBrowserAndTearsDown) {
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(applicationManagerClose(), 1);
    EXPECT_EQ(nextFrame(Connection::Application).raw, "  4160|");
    EXPECT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    EXPECT_TRUE(log_.contains("ApplicationManager closed"));
    // The library side of every connection is gone.
    EXPECT_FALSE(browser_.readRaw(Connection::DtvPlugins, 8, 2000));
    EXPECT_EQ(browser_.lastReadStatus(Connection::DtvPlugins), ReadStatus::Closed);
    EXPECT_FALSE(socket_file_exists(browser_, Connection::Application));
    // Twice: nothing left to close.
    EXPECT_EQ(applicationManagerClose(), 1);
}

// A de-init after close leaves the library suspended, and the next init
// reports success with no connection listening, as the sequence of states
// prescribes; it says so in the log. Close and init again bring it back.
TEST_F(LifecycleTest, InitAfterCloseAndDeinitSaysNothingListens) {
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    ASSERT_EQ(applicationManagerClose(), 1);
    ASSERT_EQ(applicationManagerDeInit(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
    EXPECT_EQ(applicationManagerInit(), 1);
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZED);
    EXPECT_FALSE(socket_file_exists(browser_, Connection::Application));
    EXPECT_TRUE(log_.contains("applicationManagerInit: resumed after applicationManagerClose"));
    // The way back: close (nothing runs), then a first start.
    browser_.disconnectAll();
    EXPECT_EQ(applicationManagerClose(), 0);
    EXPECT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    EXPECT_EQ(startWithBrowser(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
}

TEST_F(LifecycleTest, DeinitSuspendsAndHidesThePage) {
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    ASSERT_EQ(applicationManagerDeInit(), 1);
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
    // The key set is cleared first, then the page is hidden.
    EXPECT_EQ(nextFrame(Connection::Application).body, "220|0|");
    EXPECT_EQ(nextFrame(Connection::Application).body, "54|(null)|");
    EXPECT_EQ(is_deinit, 0);
}

TEST_F(LifecycleTest, ApplicationDisconnectRestartsTheBrowserWait) {
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    browser_.disconnect(Connection::Application);
    ASSERT_TRUE(log_.waitFor("Web browser crashed. Restarting...", 3000));
    ASSERT_TRUE(log_.waitForCount("check if browser is already running", 2, 3000));
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZING);
    EXPECT_EQ(hbb_sim_call_count("hbbBindCurrentChannel"), 1);
    EXPECT_EQ(hbb_sim_call_count("setVideoToFullscreen"), 1);

    // The browser comes back and reports itself.
    ASSERT_TRUE(browser_.connect(Connection::Application, 3000));
    ASSERT_TRUE(browser_.send(Connection::Application, "83|1|"));
    ASSERT_TRUE(log_.waitForCount("app-man in web-browser SUSPENDED", 2, 3000));
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
    EXPECT_EQ(setTimeZone(0, 2, 0), 1);
    EXPECT_EQ(nextFrame(Connection::Application).body, "141|UTC+02:00:00|");
}

TEST_F(LifecycleTest, RestartedWaitTimesOutAndKillsTheBrowser) {
    appmgr::seams::set_browser_wait_seconds(1);
    ASSERT_EQ(startWithBrowser(), 1);
    browser_.disconnect(Connection::Application);
    ASSERT_TRUE(log_.waitFor("TIMEOUT: Browser was not started in expected time", 4000));
    EXPECT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    ASSERT_EQ(shell_commands().size(), 1u);
    EXPECT_EQ(shell_commands()[0], "busybox killall -9 hbbtv-web-browser");
}

TEST_F(LifecycleTest, PluginReconnectKeepsTheStateAndServesRequests) {
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    browser_.disconnect(Connection::DtvPlugins);
    ASSERT_TRUE(log_.waitFor("socket closed (dtvPlugins)", 3000));
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    char ua[] = "TestUA/2.0";
    ASSERT_EQ(setAMUserAgent(ua), 1);
    auto reply = browser_.request(Connection::DtvPlugins, 401, {}, 3000);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, "TestUA/2.0|");
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZED);
    EXPECT_FALSE(log_.contains("Web browser crashed"));
}

TEST_F(LifecycleTest, UserAgentRequestWithoutUserAgentAndUnknownIds) {
    ASSERT_EQ(startWithBrowser(), 1);
    auto reply = browser_.request(Connection::DtvPlugins, 401, {}, 3000);
    ASSERT_TRUE(reply);
    EXPECT_EQ(*reply, "NOT_AVAILABLE|");
    // Ids outside a connection's table get no reply at all.
    EXPECT_FALSE(browser_.request(Connection::DtvPlugins, 9999, {}, 300));
    EXPECT_TRUE(log_.contains("Unknown message, id is not supported!"));
    EXPECT_FALSE(browser_.request(Connection::VodPlugins, 9999, {}, 300));
}

TEST_F(LifecycleTest, TesselMarkerIsDetected) {
    FILE* f = fopen((dir_.path() + "tessel").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    ASSERT_EQ(startWithBrowser(), 1);
    EXPECT_EQ(is_tessel, 1);
}

namespace {
int record_nothing(const char*) { return 0; }
}  // namespace

TEST(CtrlcHandler, ExitsWithStatusZero) {
    appmgr::seams::set_shell_runner(record_nothing);
    EXPECT_EXIT(ctrlc_handler(), ::testing::ExitedWithCode(0), "");
}
