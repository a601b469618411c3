// probe_http_app against a scripted HTTP server on 127.0.0.1: which answers
// count as reachable, redirects, the network state, refused connections,
// time-outs, and probes running side by side.
#include <chrono>
#include <thread>

#include "broadband_test.h"
#include "http_test_server.h"

namespace appmgr::test {
namespace {

using Clock = std::chrono::steady_clock;

class HttpProbeTest : public BroadbandTest {
protected:
    int probe(const std::string& url) {
        std::string copy = url;
        return probe_http_app(copy.data());
    }
    HttpTestServer server_;
};

TEST_F(HttpProbeTest, ReachableApplicationIsProbedWithHead) {
    server_.respond("/app/index.html", "200 OK", "<html></html>",
                    {"Content-Type: application/vnd.hbbtv.xhtml+xml"});
    EXPECT_EQ(probe(server_.url("/app/index.html")), 1);
    ASSERT_EQ(server_.requests().size(), 1u);
    const HttpRequest r = server_.requests()[0];
    EXPECT_EQ(r.method, "HEAD");
    EXPECT_EQ(r.path, "/app/index.html");
    EXPECT_NE(r.head.find("User-Agent: AppMgrTest/1.0\r\n"), std::string::npos) << r.head;
    EXPECT_TRUE(log_.contains("Application probed successully"));
}

// Only the three spellings of the 404 reason phrase fail a probe; the status
// code itself is not read.
TEST_F(HttpProbeTest, ReasonPhraseDecidesTheOutcome) {
    const struct {
        const char* status;
        int expected;
    } cases[] = {
        {"404 Not Found", 0}, {"404 NOT FOUND", 0}, {"404 not found", 0},
        {"404 Not found", 1}, {"404", 1},           {"500 Internal Server Error", 1},
        {"200 OK", 1},
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string path = "/case" + std::to_string(n++);
        server_.respondRaw(path, std::string("HTTP/1.1 ") + c.status +
                                     "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(probe(server_.url(path)), c.expected) << c.status;
    }
    EXPECT_TRUE(log_.contains("page_error = 404"));
}

// A start whose probe fails reports it, and the load error the recovery
// starts from, as decisions.
TEST_F(HttpProbeTest, FailedProbeOfAStartIsADecision) {
    server_.respond("/gone.html", "404 Not Found", "");
    std::string url = server_.url("/gone.html");
    EXPECT_EQ(locked([&] { return application_create(url.data()); }), 0);
    std::vector<std::string> told;
    for (const Decision& d : decisions_.all()) told.push_back(d.name + " " + d.url);
    ASSERT_GE(told.size(), 2u);
    EXPECT_EQ(told[0], "probe_failed " + url);
    EXPECT_EQ(told[1], "load_error " + url);
    EXPECT_EQ(starts_.load(), 0);
}

TEST_F(HttpProbeTest, EveryRedirectHopIsJudged) {
    server_.respond("/final", "200 OK", "ok");
    server_.respond("/moved", "302 Found", "", {"Location: /final"});
    server_.respond("/moved-noted", "302 Found", "",
                    {"Location: /final", "X-Previous-Status: 404 Not Found"});
    server_.respond("/moved-to-missing", "301 Moved Permanently", "", {"Location: /missing"});

    EXPECT_EQ(probe(server_.url("/moved")), 1);
    // The first hop carries the phrase: the probe fails although the final
    // hop answers 200.
    EXPECT_EQ(probe(server_.url("/moved-noted")), 0);
    EXPECT_EQ(probe(server_.url("/moved-to-missing")), 0);

    std::vector<std::string> paths;
    for (const auto& r : server_.requests()) paths.push_back(r.path);
    EXPECT_EQ(paths, (std::vector<std::string>{"/moved", "/final", "/moved-noted", "/final",
                                               "/moved-to-missing", "/missing"}));
}

TEST_F(HttpProbeTest, NetworkStateGatesTheTransfer) {
    server_.respond("/app", "200 OK");
    set_network(NETWORK_OFF);
    EXPECT_EQ(probe(server_.url("/app")), 0);
    EXPECT_EQ(server_.connections(), 0);
    EXPECT_FALSE(log_.contains("probe_http_app"));

    set_network(NETWORK_CHECKING);
    EXPECT_EQ(probe(server_.url("/app")), 1);
    EXPECT_EQ(server_.requests().size(), 1u);

    set_network(NETWORK_ON);
    EXPECT_EQ(probe_http_app(nullptr), 0);
    EXPECT_TRUE(log_.contains("Invalid arguments !"));
}

TEST_F(HttpProbeTest, UnreachableServersFailWithinTheTimeLimits) {
    // Nothing listens on a port that was just released.
    int closed_port;
    {
        HttpTestServer gone(std::chrono::seconds(1));
        closed_port = gone.port();
    }
    EXPECT_EQ(probe("http://127.0.0.1:" + std::to_string(closed_port) + "/"), 0);
    EXPECT_TRUE(log_.contains("curl_easy_perform---ERROR---curl_res = 7!"));

    // A server that never answers: the overall limit (3 s here) ends it.
    server_.hang("/slow");
    const auto started = Clock::now();
    EXPECT_EQ(probe(server_.url("/slow")), 0);
    const auto took = Clock::now() - started;
    EXPECT_TRUE(log_.contains("curl_easy_perform---ERROR---curl_res = 28!"));
    EXPECT_GE(took, std::chrono::milliseconds(2500));
    EXPECT_LT(took, std::chrono::seconds(6));
}

// Each probe has its own 404 marker: a failing probe on one thread does not
// fail a probe of a healthy server on another.
TEST_F(HttpProbeTest, ConcurrentProbesKeepTheirOwnOutcome) {
    HttpTestServer missing;
    server_.respond("/ok", "200 OK");
    missing.respond("/gone", "404 Not Found");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                const bool healthy = (t + i) % 2 == 0;
                const int got = healthy ? probe(server_.url("/ok")) : probe(missing.url("/gone"));
                if (got != (healthy ? 1 : 0)) ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(server_.requests().size() + missing.requests().size(), 30u);
}

}  // namespace
}  // namespace appmgr::test
