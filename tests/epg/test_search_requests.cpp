// The search family of "dtvPlugins" through the real sockets: each request's
// reply shape, a whole search from creation to its items, and requests with
// fields missing or out of range.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app_mgr.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

class SearchRequestsTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        hbb_sim_eit_clear();
        ASSERT_EQ(hbb_sim_eit_feed_line("service 1 1 100"), 0);
        ASSERT_EQ(hbb_sim_eit_feed_line(
                      "event 1 1 100 0x10 1790000000 1800|Evening News|Headlines|Part one."),
                  0);
        ASSERT_EQ(hbb_sim_eit_feed_line("event 1 1 100 0x11 1790001800 3600|Film|A film|"), 0);
        ASSERT_EQ(startWithBrowser(), 1);
    }
    void TearDown() override {
        LibraryTest::TearDown();
        hbb_sim_eit_clear();
    }
    std::string ask(int id, const std::vector<std::string>& fields = {}) {
        EXPECT_TRUE(browser_.sendRequest(Connection::DtvPlugins, id, fields));
        auto reply = browser_.readReply(Connection::DtvPlugins, 3000);
        EXPECT_TRUE(reply.has_value()) << "no reply to " << id;
        return reply.value_or("<none>");
    }
    // Creates search 5 of plug-in 1 with one "title contains" comparison.
    void titleSearch(const std::string& text) {
        ASSERT_EQ(ask(90, {"1", "5"}), "0|");
        ASSERT_EQ(ask(92, {"1", "5", "1", "0", "0", "0", "0", "0"}), "0|");
        ASSERT_EQ(ask(93, {"1", "5", "0", "1"}), "0|");
        ASSERT_EQ(ask(94, {"1", "5", "0", "0", "0", "6", text}), "0|");
    }
};

}  // namespace

TEST_F(SearchRequestsTest, ASearchFromCreationToItsItems) {
    titleSearch("news");
    ASSERT_EQ(ask(96, {"1", "5", "0", "10"}), "0|");
    // The end of the scan reaches the browser as callback 67:
    // searchID, status, offset, result, eventsFound.
    auto done = nextFrame(Connection::Callbacks, 5000);
    ASSERT_EQ(done.id, 67) << done.raw;
    ASSERT_EQ(done.fields.size(), 5u);
    EXPECT_EQ(done.fields[0], "5");
    EXPECT_EQ(done.fields[4], "1");

    EXPECT_EQ(ask(95, {"1", "5", "0", "10"}), "1|");
    const std::string item = ask(99, {"1", "5", "0"});
    EXPECT_EQ(item.rfind("Evening News|", 0), 0u) << item;
    EXPECT_NE(item.find("|1790000000|1800|"), std::string::npos) << item;
    EXPECT_EQ(ask(100, {"1", "5", "0"}), "Headlines|");
    EXPECT_EQ(ask(102, {"1", "5", "0"}), "Part one.|");
    EXPECT_EQ(ask(99, {"1", "5", "7"}), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(101, {"1", "5"}), "0|");
    EXPECT_EQ(ask(99, {"1", "5", "0"}), "NOT_AVAILABLE|");
}

TEST_F(SearchRequestsTest, RepliesOfTheOtherRequests) {
    titleSearch("film");
    EXPECT_EQ(ask(122, {"1", "5", "1"}), "0|");
    EXPECT_EQ(ask(123, {"1", "5", "0", "1", "1", "100"}), "0|");
    EXPECT_EQ(ask(124, {"1", "5"}), "0|");
    EXPECT_EQ(ask(98, {"1", "5"}), "0|");
    EXPECT_EQ(ask(91), "-1|");
    hbb_sim_set_current_time(1790000123);
    EXPECT_EQ(ask(125), "1790000123|");
    // 97 is not served: no reply; the next request's reply is the marker.
    ASSERT_TRUE(browser_.sendRequest(Connection::DtvPlugins, 97, {"1", "5"}));
    ASSERT_TRUE(log_.waitFor("Reply received: 97|1|5|", 3000));
    EXPECT_EQ(ask(125), "1790000123|");
    EXPECT_TRUE(log_.contains(" Unknown message, id is not supported!"));
}

TEST_F(SearchRequestsTest, BadFieldsAreAnsweredAsFailures) {
    // Unknown search, missing fields, a subgroup out of range, negative
    // counts: each gets the failure result.
    EXPECT_EQ(ask(96, {"1", "9", "0", "10"}), "1|");
    EXPECT_EQ(ask(90), "0|") << "missing fields read as plug-in 0, search 0";
    EXPECT_EQ(ask(90, {"0", "0"}), "0|") << "the same key twice takes a second slot";
    titleSearch("x");
    EXPECT_EQ(ask(94, {"1", "5", "7", "0", "0", "6", "x"}), "1|");
    EXPECT_EQ(ask(94, {"1", "5", "0", "3", "0", "6", "x"}), "1|");
    EXPECT_EQ(ask(93, {"1", "5", "0", "-4"}), "1|");
    // A 1 KB value is taken whole.
    EXPECT_EQ(ask(94, {"1", "5", "0", "0", "0", "6", std::string(1023, 'k')}), "0|");
    EXPECT_EQ(ask(99, {"abc", "def", "ghi"}), "NOT_AVAILABLE|");
}

// The programme object's SI-descriptor and long-description requests, and
// the log lines of the time request.
TEST_F(SearchRequestsTest, ProgrammeDescriptorsAndTheTime) {
    ASSERT_EQ(hbb_sim_add_si_descriptor("ccid:1", "0x10", 0x54, -1, 0, "54020010"), 0);
    ASSERT_EQ(hbb_sim_add_si_descriptor("ccid:1", "0x10", 0x54, -1, 0, "54021020"), 0);
    EXPECT_EQ(ask(103, {"ccid:1", "0x10", "84", "-1", "-1"}), "2|");
    EXPECT_EQ(ask(103, {"ccid:1", "0x11", "84", "-1", "-1"}), "0|");
    EXPECT_EQ(ask(104, {"ccid:1", "0x10", "84", "-1", "1"}), "54021020|");
    EXPECT_EQ(ask(104, {"ccid:1", "0x10", "84", "-1", "2"}), "NOT_AVAILABLE|");
    EXPECT_TRUE(log_.contains("Information about SI descriptor not available!"));
    // A channel id longer than its 16 characters is cut and names nothing.
    EXPECT_EQ(ask(103, {"ccid:1" + std::string(20, '0'), "0x10", "84", "-1", "-1"}), "0|");
    Channel channel{};
    channel.ccid = const_cast<char*>("ccid:1");
    Programme programme{};
    programme.name = const_cast<char*>("News");
    programme.programmeID = const_cast<char*>("0x10");
    programme.longDescription = const_cast<char*>("All the news.");
    ASSERT_EQ(hbb_sim_add_programme(hbb_sim_add_channel(&channel), &programme), 0);
    EXPECT_EQ(ask(105, {"ccid:1", "0x10"}), "All the news.|");
    EXPECT_EQ(ask(105, {"ccid:1", "0x11"}), "NOT_AVAILABLE|");
    EXPECT_TRUE(log_.contains("Information about long descriptor not available!"));

    hbb_sim_set_current_time(1790000123);
    EXPECT_EQ(ask(125), "1790000123|");
    EXPECT_TRUE(log_.contains("Command CMD_GET_CURRENT_TIME received"));
    EXPECT_TRUE(log_.contains("Command CMD_GET_CURRENT_TIME : 1790000123"));
}

// Found by fuzz_dispatch_dtvplugins (the input is below): field type 94,
// outside its enumeration, stopped the sanitizer build (clang) before the
// search was even looked up. Field and comparison numbers are taken as the
// browser sent them; unknown ones never hold.
TEST_F(SearchRequestsTest, FieldNumbersOutsideTheEnumerationsAreTakenAsTheyCame) {
    const std::string found("94\xf7\xff|\n\xb7|\n94\xf7\xff|\n94\xf7\xff|\n\xb7|\n94\xf7\xb7|");
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, found));
    EXPECT_EQ(browser_.readReply(Connection::DtvPlugins, 3000).value_or("<none>"), "1|");
    titleSearch("news");
    EXPECT_EQ(ask(94, {"1", "5", "0", "0", "94", "-9", "news"}), "0|");
    ASSERT_EQ(ask(96, {"1", "5", "0", "10"}), "0|");
    auto done = nextFrame(Connection::Callbacks, 5000);
    ASSERT_EQ(done.id, 67) << done.raw;
    ASSERT_EQ(done.fields.size(), 5u);
    EXPECT_EQ(done.fields[4], "0") << "an unknown field never holds";
}
