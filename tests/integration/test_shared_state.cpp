// The manager's state shared between the middleware's threads and the
// browser's receive threads: writers and readers driven at the same time.
// Run under ThreadSanitizer and AddressSanitizer, these catch any access
// that bypasses the manager lock and any record freed while in use.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ait_builder.h"
#include "app_mgr.h"
#include "hbb_sim.h"
#include "http_test_server.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

AppSpec carousel(int app, ControlCode control = AUTOSTART) {
    AppSpec s;
    s.app = app;
    s.control = control;
    s.url = "dvb://1.2.3.1/app" + std::to_string(app) + "/index.html";
    return s;
}

std::string xml_ait(const std::string& applications) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<mhp:ServiceDiscovery xmlns:mhp=\"urn:dvb:mhp:2009\"><mhp:ApplicationDiscovery "
           "DomainName=\"example.com\"><mhp:ApplicationList>" +
           applications + "</mhp:ApplicationList></mhp:ApplicationDiscovery></mhp:ServiceDiscovery>\n";
}

std::string xml_app(int org, int app, const std::string& url) {
    return "<mhp:Application><mhp:appName Language=\"eng\">x</mhp:appName>"
           "<mhp:applicationIdentifier><mhp:orgId>" + std::to_string(org) +
           "</mhp:orgId><mhp:appId>" + std::to_string(app) +
           "</mhp:appId></mhp:applicationIdentifier><mhp:applicationDescriptor><mhp:type>"
           "<mhp:OtherApp>application/vnd.hbbtv.xhtml+xml</mhp:OtherApp></mhp:type>"
           "<mhp:controlCode>AUTOSTART</mhp:controlCode><mhp:priority>1</mhp:priority>"
           "<mhp:mhpVersion><mhp:profile>0</mhp:profile><mhp:versionMajor>1</mhp:versionMajor>"
           "<mhp:versionMinor>1</mhp:versionMinor><mhp:versionMicro>1</mhp:versionMicro>"
           "</mhp:mhpVersion></mhp:applicationDescriptor><mhp:applicationTransport><mhp:URLBase>" +
           url + "</mhp:URLBase></mhp:applicationTransport><mhp:applicationLocation>"
                 "</mhp:applicationLocation></mhp:Application>";
}

// An active library with a browser whose commands are read (and dropped)
// by a thread of their own, so the library never waits for it.
class SharedStateTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startActive();
        serveCarousel(1, {"app1/index.html", "app2/index.html", "app3/index.html"});
        drain_ = std::thread([this] {
            while (!stop_) {
                browser_.readFrame(Connection::Application, 20);
                browser_.readFrame(Connection::Callbacks, 20);
            }
        });
    }
    void TearDown() override {
        stop_ = true;
        drain_.join();
        LibraryTest::TearDown();
    }
    // Runs `first` and `second` on two threads at once.
    template <typename A, typename B>
    void together(A first, B second) {
        std::thread t(first);
        second();
        t.join();
    }
    // Sends one message and waits until the library took it: a block
    // received is one message, so messages sent back to back would merge.
    void sendApplication(const std::string& message) {
        const int before = log_.count("Reply received: ");
        ASSERT_TRUE(browser_.send(Connection::Application, message));
        ASSERT_TRUE(log_.waitForCount("Reply received: ", before + 1, 10000)) << message;
    }

    std::atomic<bool> stop_{false};
    std::thread drain_;
};

template <typename T>
T zero() {
    return T{};
}

}  // namespace

TEST_F(SharedStateTest, NetworkStatusWhileProbing) {
    together(
        [] {
            for (int i = 0; i < 200; ++i) sendNetworkStatus(i % 2 == 0 ? NETWORK_ON : NETWORK_OFF);
        },
        [] {
            // Port 1 refuses at once: each probe reads the network state and fails.
            char url[] = "http://127.0.0.1:1/app.html";
            for (int i = 0; i < 50; ++i) Hbbtv_AM_Probe_Url(url);
        });
    EXPECT_TRUE(log_.contains("Handling network status done"));
}

TEST_F(SharedStateTest, RestartWhileKeySetsChange) {
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1)});
    ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    auto restarts = [] { for (int i = 0; i < 100; ++i) applicationManagerRestart(); };
    auto key_sets = [] { for (int i = 0; i < 300; ++i) setKeySet(i % 2 ? 0x1F : 0x3FF, nullptr); };
    together(restarts, key_sets);
    // Suspended, a key set depends on the portal mode that restart clears.
    applicationManagerDeInit();
    together(restarts, key_sets);
    EXPECT_FALSE(portal_mode());
}

TEST_F(SharedStateTest, BrowserPageMessagesDuringAitUpdates) {
    OwnedAit one(16, "dvb://1.2.3", {carousel(1)});
    OwnedAit two(16, "dvb://1.2.3", {carousel(2), carousel(3, PRESENT)});
    together(
        [&] {
            for (int i = 0; i < 150; ++i) hbb_sim_fire_ait(i % 2 == 0 ? one.get() : two.get());
        },
        [&] {
            // Load errors, page-destroyed reports and page loads, each of
            // which reads or writes the running application.
            for (int i = 0; i < 150; ++i) {
                sendApplication("68|");
                sendApplication("51|");
                sendApplication("82|http://host.example/dir/page" + std::to_string(i) + ".html|");
            }
        });
    sendApplication("82|http://host.example/last.html|");
    ASSERT_TRUE(decisions_.waitFor({"page_loaded", "", "http://host.example/last.html"}, 10000));
}

TEST_F(SharedStateTest, PortalAndLaunchDuringAitUpdates) {
    HttpTestServer server;
    server.respond("/portal.aitx", "200 OK", xml_ait(xml_app(7, 8, "http://127.0.0.1:1/p.html")));
    server.respond("/list.aitx", "200 OK",
                   xml_ait(xml_app(7, 9, "http://www.live.bbctvapps.co.uk/l.html")));
    set_network(NETWORK_ON);
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1), carousel(2, PRESENT)});
    std::string portal = server.url("/portal.aitx");
    std::string list = server.url("/list.aitx");
    std::atomic<bool> done{false};
    together(
        // Tables keep arriving for as long as the portal is being used.
        [&] { while (!done) hbb_sim_fire_ait(ait.get()); },
        [&] {
            for (int i = 0; i < 30; ++i) {
                openWebPortal(portal.data());
                Hbbtv_AM_Launch_Application(eLaunchFormBroadcastApp, list.data());
                closeWebPortal();
            }
            done = true;
        });
    // Both XML paths ran every time.
    EXPECT_EQ(log_.count("########## XML APPLICATION #########"), 30);
    EXPECT_EQ(log_.count("XML parsed successfully and update ait success"), 30);
    EXPECT_FALSE(portal_mode());
}

// A launched XML AIT smaller than the broadcast table must not change what
// the load-error marks of the broadcast table cover: the exit key, the
// network and a failed start afterwards all index the broadcast table.
TEST_F(SharedStateTest, SmallerXmlAitLeavesTheBroadcastMarksAlone) {
    HttpTestServer server;
    server.respond("/one.aitx", "200 OK",
                   xml_ait(xml_app(7, 9, "http://www.live.bbctvapps.co.uk/l.html")));
    set_network(NETWORK_ON);
    AppSpec missing = carousel(4);  // not in the carousel: its start fails
    missing.priority = 9;
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1, PRESENT), carousel(2, PRESENT), missing});
    ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    EXPECT_FALSE(locked([] { return appmgr::state::entry_startable(2); }));

    std::string url = server.url("/one.aitx");
    ASSERT_EQ(Hbbtv_AM_Launch_Application(eLaunchFormBroadcastApp, url.data()), 1);
    EXPECT_EQ(current_entries(), 3);
    EXPECT_TRUE(locked([] { return appmgr::state::entry_startable(1); }));
    EXPECT_FALSE(locked([] { return appmgr::state::entry_startable(2); }));

    hbb_sim_set_exit_key_handled(0);
    sendApplication("86|");
    sendNetworkStatus(NETWORK_OFF);
    sendNetworkStatus(NETWORK_ON);
    EXPECT_EQ(closeWebPortal(), 1);
    sendApplication("82|http://host.example/marker.html|");
    ASSERT_TRUE(decisions_.waitFor({"page_loaded", "", "http://host.example/marker.html"}, 5000));
}

TEST_F(SharedStateTest, CloseWhileAitUpdatesArrive) {
    OwnedAit ait(16, "dvb://1.2.3", {carousel(1)});
    std::atomic<bool> done{false};
    std::thread updates([&] {
        while (!done) hbb_sim_fire_ait(ait.get());
    });
    ASSERT_TRUE(log_.waitForCount("AIT pointers valid", 5, 5000));
    EXPECT_EQ(applicationManagerClose(), 1);
    // Tables after the close are refused, not processed against a library
    // that is gone.
    ASSERT_TRUE(log_.waitFor("Error: lockAitGuard failed !", 5000));
    done = true;
    updates.join();
    EXPECT_EQ(lockAitGuard(), 0);
}

// Every accessor of the manager record, and the operations on its tables,
// stop the test build when the calling thread does not hold the manager
// lock; with the lock the same calls pass. The field list is expanded here
// as the library expands it, so a row added without its check fails.
TEST(ManagerLockDeathTest, EveryAccessWithoutTheLockAborts) {
    namespace state = appmgr::state;
    std::vector<std::pair<std::string, std::function<void()>>> accesses;
#define READ_AND_WRITE(name, Type, storage)                                 \
    accesses.emplace_back(#name, [] { (void)state::name(); });                \
    accesses.emplace_back("set_" #name, [] { state::set_##name(zero<Type>()); });
#define TEXT(name, storage)                                                   \
    accesses.emplace_back(#name, [] { (void)state::name(); });                \
    accesses.emplace_back("set_" #name, [] { state::set_##name("x"); });
#define OBJECT(name, Type, storage) accesses.emplace_back(#name, [] { (void)&state::name(); });
#define WRITE_ONLY(name, Type, storage) \
    accesses.emplace_back("set_" #name, [] { state::set_##name(zero<Type>()); });
    APPMGR_MANAGER_FIELDS(READ_AND_WRITE, TEXT, OBJECT, WRITE_ONLY)
#undef READ_AND_WRITE
#undef TEXT
#undef OBJECT
#undef WRITE_ONLY
    accesses.emplace_back("current_ait", [] { (void)&state::current_ait(); });
    accesses.emplace_back("current_entry", [] { (void)state::current_entry(0); });
    accesses.emplace_back("find_entry", [] { (void)state::find_entry("x"); });
    accesses.emplace_back("mark_entry_failed", [] { state::mark_entry_failed(0); });
    accesses.emplace_back("accept_version", [] { (void)state::accept_version(1); });
    accesses.emplace_back("running", [] { (void)state::running(); });
    accesses.emplace_back("clear_running", [] { state::clear_running(); });
    accesses.emplace_back("terminal_version", [] { (void)state::terminal_version(); });

    for (const auto& [name, access] : accesses) {
        SCOPED_TRACE(name);
        EXPECT_DEATH(access(), "manager state accessed without the manager lock: " + name + "\n");
        appmgr::state::ManagerLock lock;
        access();
    }
}
