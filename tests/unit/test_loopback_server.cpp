// The loopback server: request heads read within their limits, and stops
// that end every wait of a handler at once.
#include "loopback_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using appmgr::loopback::Request;
using appmgr::loopback::Server;
using Clock = std::chrono::steady_clock;

// True when the peer closes the connection (rather than the read timing out).
bool closedByPeer(int fd) {
    char buf[64];
    return ::recv(fd, buf, sizeof(buf), 0) == 0;
}

// Sends the pieces (20 ms apart, then closing the sending side) to a server
// that reads one request head of at most max_bytes; what the server read.
Request exchange(const std::vector<std::string>& pieces, std::size_t max_bytes) {
    std::promise<Request> got;
    Server server;
    std::string error;
    EXPECT_TRUE(server.start(0, [&](int fd) { got.set_value(server.readRequest(fd, max_bytes, 2s)); },
                             &error)) << error;
    const int fd = appmgr::loopback::connectTo(server.port());
    EXPECT_GE(fd, 0);
    for (const std::string& piece : pieces) {
        EXPECT_EQ(::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL), static_cast<ssize_t>(piece.size()));
        std::this_thread::sleep_for(20ms);
    }
    ::shutdown(fd, SHUT_WR);
    auto result = got.get_future();
    EXPECT_EQ(result.wait_for(3s), std::future_status::ready);
    ::close(fd);
    return result.get();
}

TEST(LoopbackServer, ReadsOneRequestHeadWithinItsLimit) {
    // In pieces: the head ends at its blank line, a body after it is left.
    Request r = exchange({"GET /a?b HT", "TP/1.1\r\nHost: x\r", "\n\r\nbody"}, 1024);
    EXPECT_TRUE(r.complete);
    EXPECT_EQ(r.method, "GET");
    EXPECT_EQ(r.target, "/a?b");
    EXPECT_EQ(r.head, "GET /a?b HTTP/1.1\r\nHost: x");

    // Over the limit: no more than the limit is read, and the head is cut.
    r = exchange({"GET /" + std::string(200, 'x') + " HTTP/1.1\r\n\r\n"}, 64);
    EXPECT_FALSE(r.complete);
    EXPECT_EQ(r.head.size(), 64u);
    EXPECT_EQ(r.method, "");

    // Cut short by the peer: what came is kept.
    r = exchange({"HEAD /x HTTP/1.1\r\n"}, 1024);
    EXPECT_FALSE(r.complete);
    EXPECT_EQ(r.method, "HEAD");
    EXPECT_EQ(r.target, "/x");

    // A request line without a target.
    r = exchange({"GARBAGE\r\n\r\n"}, 1024);
    EXPECT_TRUE(r.complete);
    EXPECT_EQ(r.method, "");
}

TEST(LoopbackServer, StopEndsTheWaitsOfAHandlerAtOnce) {
    for (const bool hang : {false, true}) {
        Server server;
        std::atomic<bool> serving{false};
        std::string error;
        ASSERT_TRUE(server.start(0, [&](int fd) {
            serving = true;
            if (hang)
                server.waitForStop();
            else
                server.readRequest(fd, 1024, 30s);  // a client that never sends
        }, &error)) << error;
        const int fd = appmgr::loopback::connectTo(server.port());
        ASSERT_GE(fd, 0);
        for (int i = 0; i < 200 && !serving; ++i) std::this_thread::sleep_for(5ms);
        ASSERT_TRUE(serving);
        const auto t0 = Clock::now();
        server.stop();
        EXPECT_LT(Clock::now() - t0, 1s) << (hang ? "hang" : "read");
        EXPECT_TRUE(closedByPeer(fd));
        ::close(fd);
    }
}

TEST(LoopbackServer, ALifetimeEndsTheServerByItself) {
    Server server;
    std::string error;
    ASSERT_TRUE(server.start(0, [&](int) { server.waitForStop(); }, &error, 300ms)) << error;
    const int fd = appmgr::loopback::connectTo(server.port());
    ASSERT_GE(fd, 0);
    const auto t0 = Clock::now();
    EXPECT_TRUE(closedByPeer(fd));  // the handler's wait ended with the lifetime
    EXPECT_LT(Clock::now() - t0, 1500ms);
    ::close(fd);
    server.stop();
    EXPECT_LT(appmgr::loopback::connectTo(server.port()), 0);  // the listening socket is closed
}

}  // namespace
