// The stand-in's socket client against a local listening socket playing the
// library's end.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "browser_standin.h"

using namespace appmgr::standin;
using Clock = std::chrono::steady_clock;

namespace {

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

class StandinClient : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/standin-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        if (peer_ >= 0) close(peer_);
        if (listener_ >= 0) close(listener_);
        unlink((dir_ + "/" + socketFileName(Connection::Application)).c_str());
        rmdir(dir_.c_str());
    }
    void listenOn(Connection c) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::string path = dir_ + "/" + socketFileName(c);
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ASSERT_EQ(listen(listener_, 1), 0);
    }
    // Listens on "Application", connects the stand-in and accepts it.
    void connectApplication(BrowserStandin& s) {
        listenOn(Connection::Application);
        ASSERT_TRUE(s.connect(Connection::Application, 1000));
        pollfd p{listener_, POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 1000), 1);
        peer_ = accept(listener_, nullptr, nullptr);
        ASSERT_GE(peer_, 0);
    }
    void put(const std::string& bytes) {
        ASSERT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    std::string dir_;
    int listener_ = -1;
    int peer_ = -1;
};

TEST_F(StandinClient, ConnectRetriesUntilTheSocketAppearsAndGivesUpInTime) {
    BrowserStandin s(dir_);
    auto start = Clock::now();
    EXPECT_FALSE(s.connect(Connection::Application, 150));
    EXPECT_GE(msSince(start), 140);
    EXPECT_LT(msSince(start), 1000);
    EXPECT_EQ(s.lastReadStatus(Connection::Application), ReadStatus::NotConnected);
    EXPECT_FALSE(s.readFrame(Connection::Application, 10));

    auto later = std::async(std::launch::async, [&] { return s.connect(Connection::Application, 2000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    listenOn(Connection::Application);
    EXPECT_TRUE(later.get());
    EXPECT_TRUE(s.connected(Connection::Application));
}

TEST_F(StandinClient, ReassemblesFramesAndSplitsReplies) {
    BrowserStandin s(dir_);
    connectApplication(s);
    auto reader = std::async(std::launch::async, [&] { return s.readFrame(Connection::Application, 2000); });
    put(" 17141|UTC");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    put("-05:30:00|  351|");
    auto f = reader.get();
    ASSERT_TRUE(f);
    EXPECT_EQ(f->fields, std::vector<std::string>{"UTC-05:30:00"});
    auto g = s.readFrame(Connection::Application, 100);
    ASSERT_TRUE(g);
    EXPECT_EQ(g->id, 51);

    put(std::string("ACK|\0" "7|\0" "x", 9));
    EXPECT_EQ(s.readReply(Connection::Application, 100), std::optional<std::string>("ACK|"));
    EXPECT_EQ(s.readReply(Connection::Application, 100), std::optional<std::string>("7|"));
    auto start = Clock::now();
    EXPECT_FALSE(s.readReply(Connection::Application, 80));
    EXPECT_LT(msSince(start), 1000);
    EXPECT_EQ(s.lastReadStatus(Connection::Application), ReadStatus::Timeout);
    EXPECT_EQ(s.readRaw(Connection::Application, 10, 10), std::optional<std::string>("x"));
}

TEST_F(StandinClient, RequestsGoOutAsOneBlock) {
    BrowserStandin s(dir_);
    connectApplication(s);
    ASSERT_TRUE(s.sendRequest(Connection::Application, 83, {"1"}));
    char buf[64] = {};
    EXPECT_EQ(read(peer_, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "83|1|");
    EXPECT_FALSE(s.send(Connection::Dsmcc, "130|"));  // never connected
}

TEST_F(StandinClient, GarbageIsDroppedAndTheStreamGoesOn) {
    BrowserStandin s(dir_);
    connectApplication(s);
    put("xyz");
    EXPECT_FALSE(s.readFrame(Connection::Application, 200));
    EXPECT_EQ(s.lastReadStatus(Connection::Application), ReadStatus::Malformed);
    EXPECT_NE(s.lastError(Connection::Application).find("xyz"), std::string::npos);
    put("  351|");
    auto f = s.readFrame(Connection::Application, 200);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->id, 51);
}

TEST_F(StandinClient, PeerCloseAndDisconnectEndWaitingReads) {
    BrowserStandin s(dir_);
    connectApplication(s);
    auto start = Clock::now();
    auto reader = std::async(std::launch::async, [&] { return s.readFrame(Connection::Application, 5000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    s.disconnect(Connection::Application);
    EXPECT_FALSE(reader.get());
    EXPECT_LT(msSince(start), 2000);
    EXPECT_FALSE(s.connected(Connection::Application));

    close(peer_);
    peer_ = -1;
    ASSERT_TRUE(s.connect(Connection::Application, 1000));
    peer_ = accept(listener_, nullptr, nullptr);
    ASSERT_GE(peer_, 0);
    put("  4");
    close(peer_);
    peer_ = -1;
    EXPECT_FALSE(s.readFrame(Connection::Application, 2000));
    EXPECT_EQ(s.lastReadStatus(Connection::Application), ReadStatus::Closed);
}

}  // namespace
