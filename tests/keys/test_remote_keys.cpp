// Remote-key injection against a real TCP listener on the local host: the
// bytes on the wire, unknown keys, refused connections, the kept connection
// and reconnection after a reset.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/seams.h"
#include "app_mgr.h"
#include "core/core.h"
#include "test_support.h"

using namespace appmgr::test;
using namespace std::string_literals;

namespace {

// A socket descriptor closed on destruction.
struct Fd {
    int fd = -1;
    explicit Fd(int f = -1) : fd(f) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    void reset() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) == 1;
}

std::ptrdiff_t openFds() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator{});
}

// Up to n bytes from fd: fewer when the peer closes or 2 s pass.
std::string readBytes(int fd, std::size_t n) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (out.size() < n) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now()).count();
        char buf[256];
        if (left <= 0 || !readable(fd, static_cast<int>(left))) break;
        const ssize_t got = ::recv(fd, buf, std::min(sizeof(buf), n - out.size()), 0);
        if (got <= 0) break;
        out.append(buf, static_cast<std::size_t>(got));
    }
    return out;
}

// Stands in for the remote-input service: a TCP socket bound to 127.0.0.1
// on an ephemeral port (listening unless asked not to), made the library's
// remote-input port.
class RemoteKeyTest : public LibraryTest {
protected:
    void bindService(bool listening = true) {
        service_.fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        ASSERT_EQ(::bind(service_.fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        ASSERT_EQ(::getsockname(service_.fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
        appmgr::seams::set_remote_input_port(ntohs(addr.sin_port));
        if (listening) {
            ASSERT_EQ(::listen(service_.fd, 4), 0);
        }
    }
    void TearDown() override {
        resetRemoteKeySocket();
        appmgr::seams::set_remote_input_port(0);
        LibraryTest::TearDown();
    }
    bool pending(int timeout_ms = 200) { return readable(service_.fd, timeout_ms); }
    // Accepts the next connection; fd -1 when none comes within 2 s.
    int accept() {
        const int fd = pending(2000) ? ::accept(service_.fd, nullptr, nullptr) : -1;
        conns_.push_back(std::make_unique<Fd>(fd));
        return conns_.back()->fd;
    }

    Fd service_;
    std::vector<std::unique_ptr<Fd>> conns_;
};

}  // namespace

TEST(KeyTable, LookupsByEightBitKey) {
    const std::vector<std::pair<int, const char*>> expected = {
        {10, "key 0\n"}, {1, "key 1\n"}, {2, "key 2\n"}, {3, "key 3\n"}, {4, "key 4\n"},
        {5, "key 5\n"}, {6, "key 6\n"}, {7, "key 7\n"}, {8, "key 8\n"}, {9, "key 9\n"},
        {40, "function key 8\n"}, {43, "function key 7\n"}, {41, "function key 6\n"},
        {42, "function key 5\n"}, {22, "key up\n"}, {23, "key down\n"}, {24, "key left\n"},
        {25, "key right\n"}, {37, "key back\n"}, {21, "key return\n"}, {191, "key subtitle\n"},
    };
    for (const auto& [key, text] : expected) {
        const char* got = map_key(static_cast<uint8_t>(key));
        ASSERT_NE(got, nullptr) << key;
        EXPECT_STREQ(got, text) << key;
    }
    // Nothing else maps: not the end marker 0, not the low bytes of the media
    // keys 485, 365, 366, 363, 364.
    int mapped = 0;
    for (int key = 0; key < 256; ++key) mapped += map_key(static_cast<uint8_t>(key)) != nullptr;
    EXPECT_EQ(mapped, static_cast<int>(expected.size()));
}

TEST_F(RemoteKeyTest, CommandAndItsNulOnOneKeptConnection) {
    bindService();
    EXPECT_EQ(sendIrCmd(10), 0);
    const int conn = accept();
    ASSERT_GE(conn, 0);
    EXPECT_EQ(readBytes(conn, 7), "key 0\n\0"s);

    EXPECT_EQ(sendIrCmd(40), 0);
    EXPECT_EQ(sendIrCmd(25), 0);
    EXPECT_EQ(sendIrCmd(266), 0);  // the low eight bits: key 10
    const std::string expected = "function key 8\n\0key right\n\0key 0\n\0"s;
    EXPECT_EQ(readBytes(conn, expected.size()), expected);
    EXPECT_FALSE(pending());
    EXPECT_TRUE(log_.contains("Send IrCmd ('40'): function key 8"));
}

TEST_F(RemoteKeyTest, UnknownKeysWriteNothing) {
    bindService();
    for (int key : {363, 485, 364, 0, 255, 107}) EXPECT_EQ(sendIrCmd(static_cast<uint16_t>(key)), 0);
    EXPECT_TRUE(log_.contains("Unknown IrCmd ('363')"));
    const int conn = accept();
    ASSERT_GE(conn, 0);
    EXPECT_FALSE(readable(conn, 200));
    EXPECT_EQ(sendIrCmd(1), 0);
    EXPECT_EQ(readBytes(conn, 7), "key 1\n\0"s);
}

TEST_F(RemoteKeyTest, RefusedConnectionFailsUntilReset) {
    bindService(false);  // bound, not listening: connects are refused
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sendIrCmd(10), -1);
    EXPECT_TRUE(log_.contains("Connecting to DFB remote-input failed."));
    // The failed socket is kept: no new attempt, known keys fail, unknown
    // keys still answer 0.
    EXPECT_EQ(sendIrCmd(10), -1);
    EXPECT_TRUE(log_.contains("Could not send key to DFB remote-input:"));
    EXPECT_EQ(sendIrCmd(363), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    ASSERT_EQ(::listen(service_.fd, 4), 0);
    EXPECT_EQ(sendIrCmd(2), -1);
    EXPECT_FALSE(pending());
    resetRemoteKeySocket();
    EXPECT_EQ(sendIrCmd(2), 0);
    const int conn = accept();
    ASSERT_GE(conn, 0);
    EXPECT_EQ(readBytes(conn, 7), "key 2\n\0"s);
}

// A reset closes the connection and the next key opens a new one; the
// service closing its end makes writes fail (no SIGPIPE, no hang) until a
// reset.
TEST_F(RemoteKeyTest, ResetAndServiceCloseReconnectOnNextKey) {
    bindService();
    EXPECT_EQ(sendIrCmd(1), 0);
    const int first = accept();
    ASSERT_GE(first, 0);
    EXPECT_EQ(readBytes(first, 7), "key 1\n\0"s);
    const auto fds = openFds();
    resetRemoteKeySocket();
    resetRemoteKeySocket();
    EXPECT_EQ(openFds(), fds - 1);  // the library's socket is closed
    EXPECT_EQ(readBytes(first, 1), "");  // closed by the library
    EXPECT_FALSE(pending());

    EXPECT_EQ(sendIrCmd(22), 0);
    const int second = accept();
    ASSERT_GE(second, 0);
    EXPECT_EQ(readBytes(second, 8), "key up\n\0"s);
    conns_.back()->reset();
    // The first write into the closed peer may still be taken; later fail.
    int result = 0;
    for (int i = 0; i < 5 && result == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        result = sendIrCmd(3);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(sendIrCmd(3), -1);
    EXPECT_FALSE(pending());
    resetRemoteKeySocket();
    EXPECT_EQ(sendIrCmd(4), 0);
    const int third = accept();
    ASSERT_GE(third, 0);
    EXPECT_EQ(readBytes(third, 7), "key 4\n\0"s);
}

// Keys from several threads share the one connection and arrive whole.
TEST_F(RemoteKeyTest, ConcurrentKeysArriveIntact) {
    bindService();
    const std::vector<uint16_t> keys = {1, 22, 40, 191};
    const std::set<std::string> commands = {"key 1\n", "key up\n", "function key 8\n",
                                            "key subtitle\n"};
    constexpr int kKeys = 25;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (uint16_t key : keys)
        threads.emplace_back([&failures, key] {
            for (int i = 0; i < kKeys; ++i) failures += sendIrCmd(key) != 0;
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    const int conn = accept();
    ASSERT_GE(conn, 0);
    EXPECT_FALSE(pending());
    resetRemoteKeySocket();
    const std::string all = readBytes(conn, 1 << 16);  // up to the library's close

    int count = 0;
    for (std::size_t pos = 0; pos < all.size(); ++count) {
        const std::size_t nul = all.find('\0', pos);
        ASSERT_NE(nul, std::string::npos) << "partial command at the end";
        EXPECT_EQ(commands.count(all.substr(pos, nul - pos)), 1u) << all.substr(pos, nul - pos);
        pos = nul + 1;
    }
    EXPECT_EQ(count, static_cast<int>(keys.size()) * kKeys);
}
