// A small HTTP/1.1 server for the broadband tests: it listens on 127.0.0.1
// with an ephemeral port, serves one connection at a time on its own thread
// and answers each path with the response a test scripted for it. Every
// connection is closed after its answer. The server stops when destroyed or,
// at the latest, when its lifetime has passed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace appmgr::test {

struct HttpRequest {
    std::string method;
    std::string path;
    std::string head;  // request line and header lines as received
};

class HttpTestServer {
public:
    explicit HttpTestServer(std::chrono::seconds lifetime = std::chrono::seconds(20));
    ~HttpTestServer();
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    int port() const { return port_; }
    // "http://127.0.0.1:<port><path>"; path begins with "/".
    std::string url(const std::string& path) const;

    // Answers `path` with a status line "HTTP/1.1 <status>", the extra header
    // lines, Content-Length and "Connection: close", then the body (left out
    // for HEAD requests).
    void respond(const std::string& path, const std::string& status, const std::string& body = "",
                 const std::vector<std::string>& headers = {});
    // Answers `path` with exactly these bytes, whatever the method.
    void respondRaw(const std::string& path, const std::string& raw);
    // Reads the request for `path` and then never answers; the connection is
    // held until the server stops.
    void hang(const std::string& path);

    std::vector<HttpRequest> requests() const;
    int connections() const;
    // Waits (bounded) until `count` requests have been read.
    bool waitForRequests(std::size_t count, int timeout_ms) const;

private:
    struct Script {
        enum class Kind { Normal, Raw, Hang } kind = Kind::Normal;
        std::string status;
        std::vector<std::string> headers;
        std::string body;
    };

    void run();
    void serve(int fd);
    bool waitUntilStopped(std::chrono::steady_clock::time_point until) const;

    int listen_fd_ = -1;
    int wake_pipe_[2] = {-1, -1};
    int port_ = 0;
    std::chrono::steady_clock::time_point deadline_;
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::map<std::string, Script> scripts_;
    std::vector<HttpRequest> requests_;
    int connections_ = 0;
    std::thread thread_;
};

}  // namespace appmgr::test
