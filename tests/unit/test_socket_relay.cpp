// The emulator's relay between the library's sockets and a real browser:
// where replies end in the byte stream, and a relay between a stand-in
// library (five listening sockets of a test directory) and the browser
// stand-in, with the emulator speaking on the same connections. Also the
// small decoders the real browser's side needs (JSON strings, key names).
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "browser_standin.h"
#include "chromium_side.h"
#include "remote_keys.h"
#include "socket_relay.h"

using namespace appmgr::emu;
using appmgr::standin::BrowserStandin;

namespace {

using namespace std::string_literals;

// How many bytes the reply took, and whether it was complete.
using Scanned = std::pair<std::size_t, bool>;

// Feeds data in pieces of `piece` bytes.
Scanned scan(bool content, const std::string& data, std::size_t piece) {
    ReplyScanner s;
    s.begin(content);
    std::size_t used = 0;
    for (std::size_t at = 0; at < data.size() && !s.done(); at += piece) {
        const std::string_view chunk = std::string_view(data).substr(at, piece);
        const std::size_t n = s.take(chunk);
        used += n;
        if (n < chunk.size()) break;
    }
    return {used, s.done()};
}

TEST(ReplyScanner, FindsTheEndOfEachKindOfReplyInAnyPieces) {
    for (std::size_t piece : {1u, 3u, 100u}) {
        SCOPED_TRACE(piece);
        // A text reply ends at its zero byte; what follows is not taken.
        EXPECT_EQ(scan(false, "0|ccid:1|One|\0next"s, piece), Scanned(14, true));
        // Content: the payload may hold zero bytes and bars.
        EXPECT_EQ(scan(true, "0|0|5|a\0|\0b\0rest"s, piece), Scanned(12, true));
        EXPECT_EQ(scan(true, "0|0|0|\0"s, piece), Scanned(7, true));
        // A carousel request answered without content.
        EXPECT_EQ(scan(true, "NOT_AVAILABLE|\0"s, piece), Scanned(15, true));
        // A header without a length is a text reply after all.
        EXPECT_EQ(scan(true, "a|b|c|\0"s, piece), Scanned(7, true));
        // Incomplete: everything taken, not done.
        EXPECT_EQ(scan(true, "0|0|9|abc"s, piece), Scanned(9, false));
    }
}

TEST(ChromiumSide, JsonStringsAndKeyNames) {
    EXPECT_EQ(jsonString("\"a\\\"b\\\\c\\nd\""), "a\"b\\c\nd");
    EXPECT_EQ(jsonString("\"\\u00e4\\ud83d\\ude00\""), "\xc3\xa4\xf0\x9f\x98\x80");
    EXPECT_EQ(jsonString("null"), std::nullopt);
    EXPECT_EQ(jsonString("\"cut\\"), std::nullopt);

    EXPECT_EQ(findRemoteKey("red")->code, 403);
    EXPECT_EQ(findRemoteKey("OK")->name, "VK_ENTER");
    EXPECT_EQ(findRemoteKey("VK_5")->group, 0x100);
    EXPECT_EQ(findRemoteKey("ffwd")->group, 0x20);
    EXPECT_FALSE(findRemoteKey("purple"));
}

// The library's side of the five sockets, in a test directory: it listens,
// accepts the relay and reads and writes raw bytes.
class StandinLibrary {
public:
    explicit StandinLibrary(const std::string& dir) {
        for (int i = 0; i < appmgr::standin::kConnectionCount; ++i) {
            const auto c = static_cast<Connection>(i);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            const std::string path = dir + "/" + appmgr::standin::socketFileName(c);
            std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
            listen_[i] = ::socket(AF_UNIX, SOCK_STREAM, 0);
            EXPECT_EQ(::bind(listen_[i], reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
            EXPECT_EQ(::listen(listen_[i], 1), 0);
        }
    }
    ~StandinLibrary() {
        for (int fd : listen_) ::close(fd);
        for (int fd : conn_)
            if (fd >= 0) ::close(fd);
    }
    bool accept(Connection c) {
        pollfd p{listen_[static_cast<int>(c)], POLLIN, 0};
        if (::poll(&p, 1, 5000) != 1) return false;
        conn_[static_cast<int>(c)] = ::accept(listen_[static_cast<int>(c)], nullptr, nullptr);
        return conn_[static_cast<int>(c)] >= 0;
    }
    void write(Connection c, const std::string& bytes) {
        ASSERT_EQ(::send(conn_[static_cast<int>(c)], bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // What arrives within timeout_ms ("" when nothing does).
    std::string read(Connection c, int timeout_ms = 2000) {
        pollfd p{conn_[static_cast<int>(c)], POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) != 1) return "";
        char buf[4096];
        const ssize_t n = ::recv(conn_[static_cast<int>(c)], buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
    }
    void close(Connection c) {
        ::close(conn_[static_cast<int>(c)]);
        conn_[static_cast<int>(c)] = -1;
    }

private:
    std::array<int, appmgr::standin::kConnectionCount> listen_{};
    std::array<int, appmgr::standin::kConnectionCount> conn_{-1, -1, -1, -1, -1};
};

class Relay : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/test_relay.XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        base_ = tmpl;
        std::filesystem::create_directories(base_ + "/library");
        std::filesystem::create_directories(base_ + "/browser");
        library_ = std::make_unique<StandinLibrary>(base_ + "/library");
        RelayHooks hooks;
        hooks.frame = [this](Connection c, const appmgr::standin::Frame& f) {
            std::lock_guard<std::mutex> g(mu_);
            frames_.push_back(std::to_string(static_cast<int>(c)) + ":" + f.body);
            cv_.notify_all();
        };
        hooks.browser_reply = [this](Connection, int id, const std::string& reply) {
            std::lock_guard<std::mutex> g(mu_);
            replies_.push_back(std::to_string(id) + "=" + reply);
            cv_.notify_all();
        };
        relay_ = std::make_unique<SocketRelay>(base_ + "/library", base_ + "/browser", hooks);
        std::string error;
        ASSERT_TRUE(relay_->start(&error)) << error;
        browser_ = std::make_unique<BrowserStandin>(base_ + "/browser");
        ASSERT_TRUE(browser_->connectAll(5000));
        for (Connection c : appmgr::standin::kAllConnections) ASSERT_TRUE(library_->accept(c));
        ASSERT_TRUE(relay_->waitPaired(5000));
    }
    void TearDown() override {
        browser_.reset();
        relay_.reset();
        library_.reset();
        std::filesystem::remove_all(base_);
    }
    // What the relay told, once it has told `count` things (bounded wait:
    // it tells after it relayed).
    std::vector<std::string> seen(std::vector<std::string>& what, std::size_t count) {
        std::unique_lock<std::mutex> g(mu_);
        cv_.wait_for(g, std::chrono::seconds(2), [&] { return what.size() >= count; });
        return what;
    }

    std::string base_;
    std::unique_ptr<StandinLibrary> library_;
    std::unique_ptr<SocketRelay> relay_;
    std::unique_ptr<BrowserStandin> browser_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<std::string> frames_, replies_;
};

TEST_F(Relay, CopiesBothWaysAndDecodesWhatPasses) {
    library_->write(Connection::Application, "  7220|31|");
    const auto frame = browser_->readFrame(Connection::Application, 2000);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->raw, "  7220|31|");
    EXPECT_EQ(seen(frames_, 1), std::vector<std::string>{"0:220|31|"});

    ASSERT_TRUE(browser_->send(Connection::DtvPlugins, "30|"));
    EXPECT_EQ(library_->read(Connection::DtvPlugins), "30|");
    library_->write(Connection::DtvPlugins, "0|ccid:1|One|"s + '\0');
    EXPECT_EQ(browser_->readReply(Connection::DtvPlugins, 2000), std::optional<std::string>("0|ccid:1|One|"));
    EXPECT_EQ(seen(replies_, 1), std::vector<std::string>{"30=0|ccid:1|One|"});
}

// One request at a time on a request connection: the emulator's waits for
// the browser's reply, a browser request waits for the emulator's, and each
// reply goes to whoever asked.
TEST_F(Relay, EachReplyGoesToWhoeverAsked) {
    ASSERT_TRUE(browser_->send(Connection::DtvPlugins, "35|"));
    EXPECT_EQ(library_->read(Connection::DtvPlugins), "35|");
    auto sent = std::async(std::launch::async, [this] { return relay_->send(Connection::DtvPlugins, "41|x|", 5000); });
    EXPECT_EQ(library_->read(Connection::DtvPlugins, 300), "") << "sent while the browser's request was open";
    library_->write(Connection::DtvPlugins, "3|"s + '\0');
    EXPECT_EQ(browser_->readReply(Connection::DtvPlugins, 2000), std::optional<std::string>("3|"));
    EXPECT_EQ(library_->read(Connection::DtvPlugins), "41|x|");
    EXPECT_TRUE(sent.get());

    ASSERT_TRUE(browser_->send(Connection::DtvPlugins, "43|"));
    EXPECT_EQ(library_->read(Connection::DtvPlugins, 300), "") << "sent while the emulator's request was open";
    library_->write(Connection::DtvPlugins, "threshold|"s + '\0');
    EXPECT_EQ(relay_->readReply(Connection::DtvPlugins, 2000), std::optional<std::string>("threshold|"));
    EXPECT_EQ(library_->read(Connection::DtvPlugins), "43|");
    library_->write(Connection::DtvPlugins, "2|"s + '\0');
    EXPECT_EQ(browser_->readReply(Connection::DtvPlugins, 2000), std::optional<std::string>("2|"));
}

TEST_F(Relay, CarouselContentReachesTheEmulatorWhole) {
    ASSERT_TRUE(relay_->send(Connection::Dsmcc, "131|dvb://1.2.3.1/a|", 2000));
    EXPECT_EQ(library_->read(Connection::Dsmcc), "131|dvb://1.2.3.1/a|");
    library_->write(Connection::Dsmcc, "0|0|5|a\0"s);
    library_->write(Connection::Dsmcc, "|\0b\0"s);
    std::string got;
    while (got.size() < 12) {
        const auto part = relay_->readRaw(Connection::Dsmcc, 64, 2000);
        ASSERT_TRUE(part);
        got += *part;
    }
    EXPECT_EQ(got, "0|0|5|a\0|\0b\0"s);
    EXPECT_FALSE(browser_->readRaw(Connection::Dsmcc, 64, 200)) << "the browser got the emulator's reply";
}

// The library closing a connection closes the browser's too; the browser
// that connects again is paired with the library's next connection.
TEST_F(Relay, AClosedSideClosesTheOtherAndTheBrowserComesBack) {
    library_->close(Connection::Callbacks);
    EXPECT_FALSE(browser_->readFrame(Connection::Callbacks, 2000));
    EXPECT_EQ(browser_->lastReadStatus(Connection::Callbacks), appmgr::standin::ReadStatus::Closed);
    browser_->disconnect(Connection::Callbacks);
    ASSERT_TRUE(browser_->connect(Connection::Callbacks, 2000));
    ASSERT_TRUE(library_->accept(Connection::Callbacks));
    library_->write(Connection::Callbacks, "  566|a|b|c|d|e|");
    EXPECT_TRUE(browser_->readFrame(Connection::Callbacks, 2000));
}

}  // namespace
