// The pure decision rules of AIT processing: autostart eligibility and
// tie-break, keep-or-kill, URL classes and locators, version wrap.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ait_builder.h"
#include "app_mgr.h"
#include "ait/ait.h"
#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"

using namespace appmgr::test;
namespace state = appmgr::state;

namespace {

// The rules run as the library runs them: with the manager lock held.
class RulesTest : public ::testing::Test {
protected:
    void SetUp() override {
        hbb_sim_reset();
        hbb_sim_set_log_stderr(0);
        hbb_sim_set_parental_threshold(12);
        state::set_terminal_version({1, 7, 1});
        state::set_network(NETWORK_ON);
    }
    void TearDown() override {
        state::clear_running();
        state::clear_current_ait();
    }
    // Index of the entry chosen by the autostart rule, -1 for none.
    int chosen(Application* apps, int length) {
        find_autostart_app(apps, length);
        const Application* a = state::autostart();
        return a == nullptr ? -1 : static_cast<int>(a - apps);
    }
    int chosen(OwnedAit& ait) { return chosen(ait->apps, ait->app_lenght); }
    void run(Application& a) { update_running_application(&a); }
    const Application& running() { return *state::running(); }

    state::ManagerLock lock_;
};

// Makes a table with this locator current.
void set_current_locator(const char* locator) {
    OwnedAit ait(16, locator, {AppSpec{}});
    state::replace_current_ait(*ait.get());
}

AppSpec with_priority(AppSpec s, int priority) {
    s.priority = priority;
    return s;
}

}  // namespace

TEST_F(RulesTest, PriorityTieBreakKeepsTableOrder) {
    AppSpec a;
    OwnedAit equal(16, "dvb://1.2.3", {with_priority(a, 5), with_priority(a, 5)});
    EXPECT_EQ(chosen(equal), 0);
    OwnedAit higher(16, "dvb://1.2.3", {with_priority(a, 5), with_priority(a, 7)});
    EXPECT_EQ(chosen(higher), 1);
    OwnedAit lower(16, "dvb://1.2.3", {with_priority(a, 7), with_priority(a, 5), with_priority(a, 7)});
    EXPECT_EQ(chosen(lower), 0);
}

TEST_F(RulesTest, ControlCodesAndSchemes) {
    AppSpec present;
    present.control = PRESENT;
    AppSpec file;
    file.url = "file:///app/index.html";
    file.priority = 9;
    AppSpec ok;
    OwnedAit ait(16, "dvb://1.2.3", {present, file, ok});
    EXPECT_EQ(chosen(ait), 2);
    OwnedAit none(16, "dvb://1.2.3", {present, file});
    EXPECT_EQ(chosen(none), -1);
    EXPECT_EQ(hbb_sim_call_count("application_manager_invaild_app"), 1);
}

TEST_F(RulesTest, NetworkStatesGateBroadbandEntries) {
    AppSpec http = http_app(1, 1, "http://host/app.html");
    http.priority = 5;
    AppSpec needs_ip;  // a carousel entry that still needs the network
    needs_ip.ip_required = 1;
    needs_ip.priority = 4;
    AppSpec carousel;
    OwnedAit ait(16, "dvb://1.2.3", {http, needs_ip, carousel});

    state::set_network(NETWORK_ON);
    EXPECT_EQ(chosen(ait), 0);
    state::set_network(NETWORK_OFF);
    EXPECT_EQ(chosen(ait), 2);
    state::set_network(NETWORK_CHECKING);
    EXPECT_EQ(chosen(ait), 0);

    // Nothing eligible while checking: the platform is not told yet.
    OwnedAit only_ip(16, "dvb://1.2.3", {needs_ip});
    EXPECT_EQ(chosen(only_ip), -1);
    EXPECT_EQ(hbb_sim_call_count("application_manager_invaild_app"), 0);
    state::set_network(NETWORK_OFF);
    EXPECT_EQ(chosen(only_ip), -1);
    EXPECT_EQ(hbb_sim_call_count("application_manager_invaild_app"), 1);
}

TEST_F(RulesTest, ValidityFlagsRatingAndVersionChecks) {
    AppSpec first;
    first.priority = 9;
    AppSpec rated;
    rated.priority = 8;
    rated.ratings = {{"FRA", 12}, {"DEU", 3}};  // only the first counts: 12 is not below 12
    AppSpec newer;
    newer.priority = 7;
    newer.version_minor = 8;  // 1.8.1 on a 1.7.1 terminal
    AppSpec profile;
    profile.priority = 6;
    profile.profile = 1;
    AppSpec fallback;
    fallback.ratings = {{"FRA", 11}};
    OwnedAit ait(16, "dvb://1.2.3", {first, rated, newer, profile, fallback});

    // A load error marked the first entry of the current table.
    state::replace_current_ait(*ait.get());
    state::mark_entry_failed(0);
    const AitTable& current = state::current_ait();
    EXPECT_EQ(chosen(current.apps, current.app_lenght), 4);
    // The marks belong to the current table: another table's first entry
    // is still eligible.
    EXPECT_EQ(chosen(ait), 0);
    // Version parts are compared one by one: 0.9.0 passes on 1.7.1 ...
    EXPECT_EQ(check_support_version(0, 0, 9, 0), 0);
    EXPECT_EQ(check_support_version(0, 0, 7, 0), 1);
    // ... and 1.5.1 fails on a 2.0.1 terminal.
    state::set_terminal_version({2, 0, 1});
    EXPECT_EQ(check_support_version(0, 1, 5, 1), 0);
}

TEST_F(RulesTest, KeepOrKillForEachControlCode) {
    OwnedAit start(16, "dvb://1.2.3", {AppSpec{}});
    run(start->apps[0]);
    ASSERT_NE(state::running(), nullptr);
    for (ControlCode code : {AUTOSTART, PRESENT, DISABLED, KILL}) {
        AppSpec s;
        s.control = code;
        OwnedAit ait(16, "dvb://1.2.3", {s});
        EXPECT_EQ(check_running_application(ait.get()), code == KILL ? 0 : 1) << code;
    }
    AppSpec other;
    other.app = 2;
    OwnedAit gone(16, "dvb://1.2.3", {other});
    EXPECT_EQ(check_running_application(gone.get()), 0);
    AppSpec needs_ip;
    needs_ip.ip_required = 1;
    OwnedAit ip(16, "dvb://1.2.3", {needs_ip});
    state::set_network(NETWORK_CHECKING);
    EXPECT_EQ(check_running_application(ip.get()), 0);
    state::set_network(NETWORK_ON);
    EXPECT_EQ(check_running_application(ip.get()), 1);
}

TEST_F(RulesTest, IndependentApplicationAdoption) {
    // Started from a plain URL: ids -1, never adopted.
    char url[] = "http://host.example/app/index.html";
    update_running_application_as_independent(url);
    state::set_running_type(BROADCAST_INDEPENDENT);
    OwnedAit same(16, "dvb://1.2.3", {http_app(-1, -1, "http://host.example/app/x.html")});
    EXPECT_EQ(check_independent_application_signalling(same.get()), 0);

    // An independent application that a table's entry once recorded.
    OwnedAit signalled(16, "dvb://1.2.3", {http_app(5, 6, "http://host.example/app/index.html")});
    run(signalled->apps[0]);
    state::set_loaded_url("http://host.example/app/index.html");
    OwnedAit origin(16, "dvb://1.2.3", {http_app(5, 6, "http://host.example/app/x.html", PRESENT)});
    EXPECT_EQ(check_independent_application_signalling(origin.get()), 1);
    EXPECT_EQ(state::running_type(), BROADCAST_RELATED);

    // Loaded elsewhere: the boundary decides.
    state::set_running_type(BROADCAST_INDEPENDENT);
    state::set_loaded_url("http://cdn.example/page.html");
    AppSpec bounded = http_app(5, 6, "http://host.example/app/x.html");
    bounded.boundary = "http://nope.example|http://cdn.example";
    OwnedAit via_boundary(16, "dvb://1.2.3", {bounded});
    EXPECT_EQ(check_independent_application_signalling(via_boundary.get()), 1);
    // The boundary is read, not cut up: the table is unchanged.
    EXPECT_STREQ(via_boundary->apps[0].app_boundary, "http://nope.example|http://cdn.example");

    state::set_running_type(BROADCAST_INDEPENDENT);
    bounded.boundary = "http://nope.example";
    OwnedAit outside(16, "dvb://1.2.3", {bounded});
    EXPECT_EQ(check_independent_application_signalling(outside.get()), 0);
    // Not HTTP, or a KILL entry: never adopted.
    AppSpec carousel;
    carousel.org = 5;
    carousel.app = 6;
    OwnedAit dvb(16, "dvb://1.2.3", {carousel, http_app(5, 6, "http://host.example/app/", KILL)});
    EXPECT_EQ(check_independent_application_signalling(dvb.get()), 0);
}

TEST(UrlRules, ClassesInTestOrder) {
    state::ManagerLock lock;
    set_current_locator("dvb://1.2.3");
    struct {
        const char* url;
        int type;
    } cases[] = {
        {"dvb://current.ait/1.2", DVB_CURRENT_URL},
        {"https://host/list.aitx", XML_FILE_URL},
        {"http://host/x?nids%5B%5D=1", XML_FILE_URL},
        {"http://host/x?nids%5B%5D=1&lloc=2", HTTP_URL},
        {"http://host/get_xml_ait", XML_FILE_URL},
        {"https://host/app.html", HTTP_URL},
        {"dvb://1.2.3.ait/10.2", DVB_CURRENT_URL},
        {"dvb://1.2.4.ait/10.2", DVB_URL},
        {"dvb://1.2.3/index.html", DVB_URL},
        {"file:///a.html", FILE_URL},
        {"<?xml version=\"1.0\"?><x/>", XML_AIT_FILE},
        {"page2.html", UNKNOWN_URL_TYPE},
        {"", UNKNOWN_URL_TYPE},
    };
    for (auto& c : cases) EXPECT_EQ(check_url_type(const_cast<char*>(c.url)), c.type) << c.url;
    EXPECT_EQ(check_url_type(nullptr), UNKNOWN_URL_TYPE);
}

TEST(UrlRules, ApplicationLocators) {
    state::ManagerLock lock;
    set_current_locator("dvb://1.2.3");
    struct {
        const char* uri;
        int result, org, app;
        const char* rest;
    } cases[] = {
        {"dvb://current.ait/10.2?x=1", URI_VALID, 16, 2, "?x=1"},
        {"dvb://current.ait/13.1a", URI_VALID, 0x13, 0x1a, nullptr},
        {"dvb://current.ait10.2#frag", URI_VALID, 16, 2, "#frag"},
        {"dvb://1.2.3.ait/ff.1", URI_VALID, 255, 1, nullptr},
        {"dvb://9.9.9/index.html", URI_VALID, -7, -7, nullptr},  // another form: untouched
        {"http://host/app", URI_NOT_VALID, -7, -7, nullptr},
        {"dvb://current.ait/102", URI_NOT_VALID, -7, -7, nullptr},  // no "." before the end
    };
    for (auto& c : cases) {
        URIInfo info{-7, -7, -7, nullptr};
        EXPECT_EQ(parseURI(const_cast<char*>(c.uri), &info), c.result) << c.uri;
        EXPECT_EQ(info.org_id, c.org) << c.uri;
        EXPECT_EQ(info.app_id, c.app) << c.uri;
        EXPECT_EQ(info.type, -7) << c.uri;
        if (c.rest == nullptr)
            EXPECT_EQ(info.URIptr, nullptr) << c.uri;
        else
            EXPECT_STREQ(info.URIptr, c.rest) << c.uri;
        std::free(info.URIptr);
    }
    // An identifier longer than the 1024-byte scratch buffer is refused.
    std::string huge = "dvb://current.ait/" + std::string(5000, '1') + ".2";
    URIInfo info{-7, -7, -7, nullptr};
    EXPECT_EQ(parseURI(huge.data(), &info), URI_NOT_VALID);
    EXPECT_EQ(info.URIptr, nullptr);
}

TEST(UrlRules, OriginAndJoin) {
    char a[] = "http://host/app/index.html", b[] = "http://host/other", c[] = "http://hostile/app";
    char no_path[] = "http://host", no_scheme[] = "host/app";
    EXPECT_EQ(compareUrlOrigin(a, b), 1);
    EXPECT_EQ(compareUrlOrigin(a, c), 0);
    EXPECT_EQ(compareUrlOrigin(no_path, a), 0);
    EXPECT_EQ(compareUrlOrigin(no_scheme, a), 0);
    EXPECT_EQ(compareUrlOrigin(nullptr, a), 0);

    struct {
        const char* rest;
        const char* app;
        const char* joined;
    } joins[] = {
        {"?a=1", "http://h/app.html?x=2#top", "http://h/app.html?x=2&a=1#top"},
        {"?a=1", "http://h/app.html", "http://h/app.html?a=1"},
        {"/x", "http://h/a", "http://h/a/x"},
        {"#f2", "http://h/a#f1", "http://h/a#f2"},
    };
    for (auto& j : joins) {
        char* r = combinationUrl(const_cast<char*>(j.rest), const_cast<char*>(j.app));
        ASSERT_NE(r, nullptr);
        EXPECT_STREQ(r, j.joined);
        std::free(r);
    }
    EXPECT_EQ(combinationUrl(nullptr, a), nullptr);
}

TEST(VersionRules, FiveBitWrap) {
    initAitGuard();
    EXPECT_EQ(check_version(31), 1);
    EXPECT_EQ(check_version(0), 1) << "31 -> 0 is a wrap";
    EXPECT_EQ(check_version(5), 1);
    EXPECT_EQ(check_version(5), 0);
    EXPECT_EQ(check_version(3), 0);
    EXPECT_EQ(check_version(6), 1);
    EXPECT_EQ(check_version(30), 1);
    EXPECT_EQ(check_version(0), 0) << "only 31 wraps";
}
