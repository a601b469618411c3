// Peers at their worst, each ending within the bound docs/robustness.md
// states: browsers that pipeline thousands of requests, send 64 KiB without
// a separator or a zero byte, or connect and never report; HTTP servers that
// drip, redirect forever, send 10 MB bodies or headers, or cut TLS half way,
// for every transfer the library makes; transfers that lose the connection
// they serve, or the library, half way; and a middleware that delivers AITs
// and channel changes from several threads at once.
//
// Deadlines (`within`) are bounds on what the library may take, not speed
// targets: the time limits of the transfers are shortened through the test
// seams, and each deadline leaves a wide margin above them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "common/seams.h"
#include "core/core.h"
#include "hbb_sim.h"
#include "hostile_http_server.h"
#include "test_support.h"
#include "tls_server.h"

using namespace appmgr::test;
namespace seams = appmgr::seams;
using std::chrono::seconds;

namespace {

class HostilePeersTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startActive();
    }

    std::string ask(Connection c, int id, const std::vector<std::string>& fields = {}) {
        EXPECT_TRUE(browser_.sendRequest(c, id, fields));
        return browser_.readReply(c, 5000).value_or("<no reply>");
    }

    // Reads and drops replies until none arrives for a while: what the
    // library had to answer has been answered.
    int drainReplies(Connection c) {
        int replies = 0;
        while (browser_.readReply(c, 500)) ++replies;
        return replies;
    }

    // The library still serves the page's requests: the free memory on
    // "dtvPlugins".
    void expectAnswering() {
        hbb_sim_set_free_memory(4321);
        EXPECT_EQ(ask(Connection::DtvPlugins, 44), "4321|");
    }
};

}  // namespace

// ---- browsers ----------------------------------------------------------------

// Thousands of requests written back to back, never read while they go out:
// each block received is one message, every reply waits in the
// connection's bounded queue, and the middleware is served meanwhile.
TEST_F(HostilePeersTest, ABrowserThatPipelinesThousandsOfRequests) {
    std::string burst;
    for (int i = 0; i < 5000; ++i) burst += i % 3 == 0 ? "401|" : i % 3 == 1 ? "44|" : "30|";
    std::thread flood([&] { EXPECT_TRUE(browser_.send(Connection::DtvPlugins, burst, 20000)); });
    serveCarousel(1, {"app/index.html"});
    AppSpec app;
    app.url = "dvb://1.2.3.1/app/index.html";
    OwnedAit ait(16, "dvb://1.2.3", {app});
    EXPECT_EQ(within(seconds(20), "an AIT during the flood", [&] { return hbb_sim_fire_ait(ait.get()); }),
              0);
    within(seconds(30), "the flood", [&] {
        flood.join();
        return 0;
    });
    const int replies = within(seconds(60), "reading the replies",
                               [&] { return drainReplies(Connection::DtvPlugins); });
    EXPECT_GE(replies, 1);
    EXPECT_LE(replies, 5000);
    expectAnswering();
}

// 64 KiB without a "|" or a zero byte on every connection: sixteen full
// blocks each, read as messages without fields (an empty id is 0).
TEST_F(HostilePeersTest, ABrowserThatSends64KiBWithoutASeparator) {
    const std::string letters(64 * 1024, 'A');
    const std::string digits(64 * 1024, '7');
    for (Connection c : {Connection::Application, Connection::DtvPlugins, Connection::VodPlugins,
                         Connection::Dsmcc}) {
        within(seconds(20), "64 KiB without a separator", [&] {
            EXPECT_TRUE(browser_.send(c, letters, 10000));
            EXPECT_TRUE(browser_.send(c, digits, 10000));
            return drainReplies(c);
        });
    }
    // Bytes on the connection the library only writes to are not read as
    // requests.
    EXPECT_TRUE(browser_.send(Connection::Callbacks, letters, 10000));
    EXPECT_TRUE(log_.waitFor("input_data_received: Error mng_type(3) not supported!!!", 5000));
    expectAnswering();
    EXPECT_EQ(ask(Connection::Dsmcc, 130, {"dvb://1.2.3.1/none"}), "-1|0|0|");
}

// A browser that connects all five sockets and never reports: the start
// gives up after the browser wait, the connections keep serving, and the
// browser may still report and be closed properly.
TEST_F(LibraryTest, ABrowserThatConnectsAndNeverReports) {
    seams::set_browser_wait_seconds(1);
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    ASSERT_TRUE(browser_.connectAll(5000));
    ASSERT_EQ(within(seconds(15), "the start with a browser that never reports",
                     [&] { return init.get(); }),
              1);
    EXPECT_EQ(state(), APP_MANAGER_DEINITIALIZED);
    EXPECT_EQ(shell_commands(), std::vector<std::string>{"busybox killall -9 hbbtv-web-browser"});
    ASSERT_TRUE(log_.waitForCount("server_task() - connected", MNG_CONNECTION_TYPE_SIZE, 5000));
    hbb_sim_set_free_memory(4321);
    EXPECT_EQ(browser_.request(Connection::DtvPlugins, 44, {}, 5000).value_or(""), "4321|");
    // Close of a library the wait left de-initialised has nothing to tear
    // down: the connections keep serving.
    EXPECT_EQ(within(seconds(5), "close", [] { return applicationManagerClose(); }), 1);
    EXPECT_EQ(browser_.request(Connection::DtvPlugins, 44, {}, 5000).value_or(""), "4321|");
    ASSERT_TRUE(browser_.send(Connection::Application, "83|1|"));
    ASSERT_TRUE(log_.waitFor("app-man in web-browser SUSPENDED", 5000));
    EXPECT_EQ(within(seconds(10), "close", [] { return applicationManagerClose(); }), 1);
}

// ---- servers -------------------------------------------------------------------

// Every transfer the library makes against each kind of hostile server: the
// single-application XML AIT (HTTPS with the client certificate), the list
// XML AIT, the probe, and the stream-event description (asked for by the
// page on "dtvPlugins"). Each ends within its limits (shortened here to a
// 1 s connect time-out and 3 s in all) and fails, except a probe that got
// its answer's head.
class HostileServers : public HostilePeersTest, public ::testing::WithParamInterface<Hostility> {
protected:
    void SetUp() override {
        HostilePeersTest::SetUp();
        seams::set_http_timeouts(1, 3);
        set_network(NETWORK_ON);
        if (GetParam() == Hostility::CutTls) {
            std::string error;
            ASSERT_TRUE(tls_.make(tls_dir_.path(), &error)) << error;
            seams::set_tls_paths(tls_.ca_cert, tls_.client_cert, tls_.client_key);
        }
    }
    void TearDown() override {
        seams::set_http_timeouts(0, 0);
        seams::set_tls_paths("", "", "");
        HostilePeersTest::TearDown();
    }
    TempDir tls_dir_;
    TlsMaterial tls_;
};

TEST_P(HostileServers, EveryTransferEndsWithinItsLimits) {
    HostileHttpServer server(GetParam());
    SCOPED_TRACE(describe(GetParam()));
    std::string single = server.url("/single.aitx");
    std::string list = server.url("/list.aitx");
    std::string page = server.url("/index.html");
    EXPECT_EQ(within(seconds(15), "the XML AIT download", [&] { return parse_xml_ait(single.data()); }),
              0);
    EXPECT_FALSE(app_running());
    EXPECT_EQ(within(seconds(15), "the list XML AIT download", [&] { return xmlAitUpdate(list.data()); }),
              0);
    const int reachable = GetParam() == Hostility::HugeBody ? 1 : 0;
    EXPECT_EQ(within(seconds(15), "the probe", [&] { return probe_http_app(page.data()); }), reachable);
    // The description cannot be read: tag 0 and id 0, which the receiver
    // refuses.
    EXPECT_EQ(within(seconds(15), "the stream-event description",
                     [&] { return ask(Connection::DtvPlugins, 46, {server.url("/sevent.xml"), "go"}); }),
              "2|");
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 0);
    if (GetParam() == Hostility::RedirectForever) {
        EXPECT_LE(server.connections(), 4 * 11) << "at most 10 redirects per transfer";
    }
    expectAnswering();
}

INSTANTIATE_TEST_SUITE_P(Kinds, HostileServers,
                         ::testing::Values(Hostility::Drip, Hostility::RedirectForever,
                                           Hostility::HugeBody, Hostility::HugeHeaders,
                                           Hostility::CutTls),
                         [](const ::testing::TestParamInfo<Hostility>& info) {
                             switch (info.param) {
                                 case Hostility::Drip: return "Drip";
                                 case Hostility::RedirectForever: return "RedirectForever";
                                 case Hostility::HugeBody: return "HugeBody";
                                 case Hostility::HugeHeaders: return "HugeHeaders";
                                 case Hostility::CutTls: return "CutTls";
                                 case Hostility::Silent: return "Silent";
                             }
                             return "Unknown";
                         });

// A description server that accepts and never answers holds the
// "dtvPlugins" thread only until the library closes: close ends the
// transfer at once, whatever its time limits (30 s here).
TEST_F(HostilePeersTest, CloseEndsATransferInFlight) {
    HostileHttpServer silent(Hostility::Silent);
    ASSERT_TRUE(browser_.sendRequest(Connection::DtvPlugins, 46, {silent.url("/sevent.xml"), "go"}));
    ASSERT_TRUE(silent.waitForRequests(1, 5000));
    EXPECT_EQ(within(seconds(10), "close with a description download in flight",
                     [] { return applicationManagerClose(); }),
              1);
    EXPECT_TRUE(log_.contains("transfer ended: the browser connection it serves is gone"));
}

// ... and until the browser drops the connection that asked: the browser
// that connects again is served at once.
TEST_F(HostilePeersTest, ALostConnectionEndsItsTransfer) {
    HostileHttpServer silent(Hostility::Silent);
    ASSERT_TRUE(browser_.sendRequest(Connection::DtvPlugins, 46, {silent.url("/sevent.xml"), "go"}));
    ASSERT_TRUE(silent.waitForRequests(1, 5000));
    browser_.disconnect(Connection::DtvPlugins);
    within(seconds(10), "the reconnected browser's first request", [&] {
        EXPECT_TRUE(browser_.connect(Connection::DtvPlugins, 10000));
        expectAnswering();
        return 0;
    });
    EXPECT_TRUE(log_.contains("transfer ended: the browser connection it serves is gone"));
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 0);
}

// ---- the middleware --------------------------------------------------------------

// AITs and channel changes delivered from four threads at once, while the
// browser reads: the manager lock keeps every record whole (ASan and TSan
// check), and the library answers afterwards.
TEST_F(HostilePeersTest, AMiddlewareThatCallsFromSeveralThreadsAtOnce) {
    serveCarousel(1, {"app1/index.html", "app2/index.html"});
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            browser_.readFrame(Connection::Application, 20);
            browser_.readFrame(Connection::Callbacks, 20);
        }
    });
    auto app = [](int id, ControlCode control, bool bound) {
        AppSpec s;
        s.app = id;
        s.control = control;
        s.service_bound = bound ? 1 : 0;
        s.url = "dvb://1.2.3.1/app" + std::to_string(id) + "/index.html";
        return s;
    };
    OwnedAit first(16, "dvb://1.2.3", {app(1, AUTOSTART, true)});
    OwnedAit second(16, "dvb://1.2.3", {app(2, AUTOSTART, false), app(1, PRESENT, true)});
    OwnedAit kill(16, "dvb://1.2.3", {app(2, KILL, false)});
    Channel one{};
    one.onid = 1;
    one.tsid = 2;
    one.sid = 3;
    Channel other = one;
    other.sid = 4;
    std::vector<std::thread> middleware;
    for (int t = 0; t < 4; ++t) {
        middleware.emplace_back([&, t] {
            for (int i = 0; i < 150; ++i) {
                if (t < 2) {
                    AitTable* tables[] = {first.get(), second.get(), kill.get()};
                    hbb_sim_fire_ait(tables[(i + t) % 3]);
                } else {
                    channelChanged(i % 2 == 0 ? &one : &other);
                }
            }
        });
    }
    within(seconds(120), "four middleware threads", [&] {
        for (std::thread& m : middleware) m.join();
        return 0;
    });
    stop = true;
    reader.join();
    const int running = running_app_id();
    EXPECT_TRUE(running == -1 || running == 1 || running == 2) << running;
    expectAnswering();
    EXPECT_EQ(within(seconds(10), "close", [] { return applicationManagerClose(); }), 1);
}
