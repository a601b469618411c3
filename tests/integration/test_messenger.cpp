// The socket transport on its own: one messenger served to the stand-in.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

// Collects what the messenger's callback receives.
struct Inbox {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::string> blocks;
    std::vector<bool> terminated;

    static int callback(void* data, char* buff, int len) {
        auto* m = static_cast<Messenger_t*>(data);
        auto* self = static_cast<Inbox*>(m->priv);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->blocks.emplace_back(buff, static_cast<size_t>(len));
        self->terminated.push_back(buff[len] == '\0');
        self->cv.notify_all();
        return 0;
    }
    bool waitFor(size_t n, int timeout_ms = 3000) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return blocks.size() >= n; });
    }
};

class MessengerTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        messaging_only_ = false;
        initAitGuard();
    }
    void TearDown() override {
        messenger_stop(&m_);
        LibraryTest::TearDown();
    }
    void start(const char* name, int port) {
        m_.msg_type = MESSENGER_TYPE_SERVER;
        strncpy(m_.name, name, sizeof(m_.name) - 1);
        m_.msg_port = port;
        ASSERT_EQ(messenger_init(&m_, &Inbox::callback, &inbox_), RET_OK);
        ASSERT_EQ(messenger_start(&m_), RET_OK);
    }
    bool connected(int count = 1) { return log_.waitForCount("server_task() - connected", count, 3000); }
    bool fileExists(Connection c) {
        struct stat st;
        return stat(browser_.socketPath(c).c_str(), &st) == 0;
    }

    Messenger_t m_{};
    Inbox inbox_;
};

}  // namespace

TEST_F(MessengerTest, SendBeforeAClientConnectsFails) {
    start("dtvPlugins", 9514);
    char b[] = "x";
    EXPECT_EQ(messenger_send(&m_, b, 1), RET_ERROR);
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected());
    EXPECT_EQ(messenger_send(&m_, b, 1), RET_OK);
    EXPECT_EQ(browser_.readRaw(Connection::DtvPlugins, 16, 2000).value_or(""), "x");
}

TEST_F(MessengerTest, FullBlockReachesTheCallbackWithItsLength) {
    start("dtvPlugins", 9514);
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected());
    std::string block(4096, 'q');
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, block));
    ASSERT_TRUE(inbox_.waitFor(1));
    std::lock_guard<std::mutex> lock(inbox_.mutex);
    EXPECT_EQ(inbox_.blocks[0], block);
    EXPECT_TRUE(inbox_.terminated[0]);
}

TEST_F(MessengerTest, OneClientAtATimeAndReacceptAfterClose) {
    start("dtvPlugins", 9514);
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected());
    // The socket file is gone while a client is served.
    EXPECT_FALSE(fileExists(Connection::DtvPlugins));
    browser_.disconnect(Connection::DtvPlugins);
    ASSERT_TRUE(log_.waitFor("socket closed (dtvPlugins)", 3000));
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected(2));
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, "1|"));
    ASSERT_TRUE(inbox_.waitFor(1));
    EXPECT_FALSE(log_.contains("Web browser crashed"));
}

TEST_F(MessengerTest, StopEndsTheThreadWhileListeningOrConnected) {
    start("DSMCC", 9515);
    ASSERT_TRUE(log_.waitFor("waiting on port 9515", 3000));
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(messenger_stop(&m_), RET_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    EXPECT_EQ(m_.t_msg_dispatcher, pthread_t{});
    EXPECT_EQ(m_.state, MESSENGER_STATE_STOPPED);
    EXPECT_FALSE(fileExists(Connection::Dsmcc));

    start("DSMCC", 9515);
    ASSERT_TRUE(browser_.connect(Connection::Dsmcc, 3000));
    ASSERT_TRUE(connected());
    EXPECT_EQ(messenger_stop(&m_), RET_OK);
    EXPECT_EQ(m_.s_msg_connection, -1);
    // The stand-in sees the connection closed.
    EXPECT_FALSE(browser_.readRaw(Connection::Dsmcc, 16, 2000));
    EXPECT_EQ(browser_.lastReadStatus(Connection::Dsmcc), appmgr::standin::ReadStatus::Closed);
}

TEST_F(MessengerTest, UnknownPortHasNoSocketPath) {
    start("Other", 9600);
    ASSERT_TRUE(log_.waitFor("Unknown message port", 3000));
    EXPECT_TRUE(log_.waitFor("MESSENGER-TASK-SERVER: Server error", 3000));
}

// The receive buffer is cleared only as far as the last block reached: a
// short block after a long one, and after a callback that wrote all over
// the buffer, still arrives terminated right after its last byte.
TEST_F(MessengerTest, ShortBlockAfterALongOneIsTerminated) {
    start("dtvPlugins", 9514);
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected());
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, std::string(3000, 'a')));
    ASSERT_TRUE(inbox_.waitFor(1));
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, "bc|"));
    ASSERT_TRUE(inbox_.waitFor(2));
    std::lock_guard<std::mutex> lock(inbox_.mutex);
    EXPECT_EQ(inbox_.blocks[1], "bc|");
    EXPECT_TRUE(inbox_.terminated[1]);
}

namespace {
// The first block: the callback writes over the whole buffer; the second
// block is recorded up to its first zero byte.
struct Scribbler {
    std::mutex mutex;
    std::condition_variable cv;
    int calls = 0;
    std::string second;
    static int callback(void* data, char* buff, int) {
        auto* self = static_cast<Scribbler*>(static_cast<Messenger_t*>(data)->priv);
        std::lock_guard<std::mutex> lock(self->mutex);
        if (self->calls++ == 0)
            std::memset(buff, 'x', 4096);
        else
            self->second.assign(buff);
        self->cv.notify_all();
        return 0;
    }
    bool waitFor(int calls_wanted) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(3), [&] { return calls >= calls_wanted; });
    }
};
}  // namespace

TEST_F(MessengerTest, CallbackWritingIntoTheBufferCannotUnterminateTheNextBlock) {
    Scribbler scribbler;
    m_.msg_type = MESSENGER_TYPE_SERVER;
    strncpy(m_.name, "dtvPlugins", sizeof(m_.name) - 1);
    m_.msg_port = 9514;
    ASSERT_EQ(messenger_init(&m_, &Scribbler::callback, &scribbler), RET_OK);
    ASSERT_EQ(messenger_start(&m_), RET_OK);
    ASSERT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
    ASSERT_TRUE(connected());
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, "1|"));
    ASSERT_TRUE(scribbler.waitFor(1));
    ASSERT_TRUE(browser_.send(Connection::DtvPlugins, "22|"));
    ASSERT_TRUE(scribbler.waitFor(2));
    messenger_stop(&m_);
    EXPECT_EQ(scribbler.second, "22|");
}
