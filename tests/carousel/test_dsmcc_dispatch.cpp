// The browser's carousel requests on the "DSMCC" connection, end to end
// through real sockets and the simulated carousel.
#include <gtest/gtest.h>

#include <string>

#include "carousel_tree.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

class DsmccDispatchTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        root_ = make_carousel_tree(dir_.path());
        ASSERT_EQ(hbb_sim_set_carousel(kTag, root_.c_str()), 0);
        startMessagingOnly();
    }
    void TearDown() override {
        LibraryTest::TearDown();
        hbb_sim_clear_carousels();
    }
    std::string ask(int id, const std::string& uri) {
        return browser_.request(Connection::Dsmcc, id, {uri}, 3000).value_or("<no reply>");
    }
    // Reads exactly n bytes (across receives) from the DSMCC connection.
    std::string readBytes(std::size_t n) {
        std::string got;
        while (got.size() < n) {
            auto part = browser_.readRaw(Connection::Dsmcc, n - got.size(), 3000);
            if (!part) break;
            got += *part;
        }
        return got;
    }
    bool nothingMore(int ms = 300) { return !browser_.readRaw(Connection::Dsmcc, 1, ms); }

    std::string root_;
};

TEST_F(DsmccDispatchTest, BinaryFileComesWithItsExactLength) {
    ASSERT_TRUE(browser_.sendRequest(Connection::Dsmcc, 131, {std::string(kBase) + "bin.dat"}));
    const std::string header = "0|0|7|";
    // Header, the seven payload bytes (zero bytes included) and the
    // terminating zero.
    EXPECT_EQ(readBytes(header.size() + 7 + 1), header + binary_bytes() + std::string(1, '\0'));
    EXPECT_TRUE(nothingMore());
    EXPECT_TRUE(log_.contains("Command CMD_DSMCC_GET_FILE_CONTENT received"));
    EXPECT_TRUE(log_.contains("Parsed DVB uri: dvb://1.2.3.65/bin.dat"));
}

TEST_F(DsmccDispatchTest, LargeFileArrivesWhole) {
    std::string big(300000, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7919) % 251);
    write_file(root_ + "/big.bin", big);
    ASSERT_TRUE(browser_.sendRequest(Connection::Dsmcc, 131, {std::string(kBase) + "big.bin"}));
    const std::string header = "0|0|300000|";
    const std::string got = readBytes(header.size() + big.size() + 1);
    ASSERT_EQ(got.size(), header.size() + big.size() + 1);
    EXPECT_EQ(got.substr(0, header.size()), header);
    EXPECT_TRUE(got.compare(header.size(), big.size(), big) == 0);
    EXPECT_EQ(got.back(), '\0');
}

TEST_F(DsmccDispatchTest, TextRepliesOfEveryKind) {
    EXPECT_EQ(ask(131, std::string(kBase) + "index.html"), "0|0|18|<html>hello</html>");
    EXPECT_EQ(ask(132, std::string(kBase) + "dir"), "1|0|18|0 page.html\n1 sub\n");
    EXPECT_TRUE(log_.contains("Command CMD_DSMCC_GET_DIR_CONTENT received"));
    EXPECT_EQ(ask(133, std::string(kBase) + "events"), "2|0|7|go,stop");
    EXPECT_TRUE(log_.contains("Command CMD_DSMCC_GET_STREAM_EVENT_LIST received"));
    EXPECT_EQ(ask(131, std::string(kBase) + "empty.txt"), "0|0|0|");

    EXPECT_EQ(ask(130, std::string(kBase) + "index.html"), "0|1|0|");
    EXPECT_EQ(ask(130, std::string(kBase) + "dir"), "1|1|0|");
    EXPECT_EQ(ask(130, std::string(kBase) + "events"), "2|1|0|");
    EXPECT_EQ(ask(130, std::string(kBase) + "nothing"), "-1|0|0|");
    EXPECT_TRUE(log_.contains("Command CMD_DSMCC_GET_ENTRY_TYPE received"));
    EXPECT_TRUE(nothingMore());
}

TEST_F(DsmccDispatchTest, MissingObjectsAreNotAvailable) {
    EXPECT_EQ(ask(131, std::string(kBase) + "nothing.html"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(131, std::string(kBase) + "dir"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(132, std::string(kBase) + "index.html"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(133, std::string(kBase) + "dir"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(131, std::string(kBase) + "../secret.txt"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(131, "http://example.com/x"), "NOT_AVAILABLE|");
    // An interrupted load that breaks again on the retry.
    hbb_sim_carousel_break_next(2);
    EXPECT_EQ(ask(131, std::string(kBase) + "index.html"), "NOT_AVAILABLE|");
    // No URI field at all.
    ASSERT_TRUE(browser_.send(Connection::Dsmcc, "131|"));
    EXPECT_EQ(browser_.readReply(Connection::Dsmcc, 3000).value_or("<no reply>"), "NOT_AVAILABLE|");
    EXPECT_TRUE(nothingMore());
}

TEST_F(DsmccDispatchTest, UriFieldOfAtMost1024Characters) {
    std::string at_limit = std::string(kBase) + std::string(500, 'a') + "/";
    at_limit += std::string(1024 - at_limit.size(), 'b');
    ASSERT_EQ(at_limit.size(), 1024u);
    EXPECT_EQ(ask(131, at_limit), "NOT_AVAILABLE|");
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetFile"), 1);

    // One character more is refused before any carousel access.
    EXPECT_EQ(ask(131, at_limit + "a"), "NOT_AVAILABLE|");
    EXPECT_EQ(ask(130, at_limit + "a"), "-1|0|0|");
    EXPECT_EQ(ask(132, std::string(kBase) + std::string(3000, 'b')), "NOT_AVAILABLE|");
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetFile"), 1);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetEntryInfo"), 0);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetDirectory"), 0);
    EXPECT_TRUE(log_.contains("DSMCC uri longer than 1024 characters refused"));
}

TEST_F(DsmccDispatchTest, UnknownIdsGetNoReply) {
    for (int id : {129, 134, 0}) {
        ASSERT_TRUE(browser_.sendRequest(Connection::Dsmcc, id, {std::string(kBase) + "index.html"}));
        EXPECT_TRUE(nothingMore()) << id;
    }
    ASSERT_TRUE(browser_.send(Connection::Dsmcc, "garbage"));
    EXPECT_TRUE(nothingMore());
    EXPECT_TRUE(log_.waitForCount(" Unknown message, id is not supported!", 4, 2000));
    EXPECT_EQ(hbb_sim_call_count("QUMA_MountCarouselObject"), 0);
    // The connection still serves requests.
    EXPECT_EQ(ask(130, std::string(kBase) + "index.html"), "0|1|0|");
}

}  // namespace
