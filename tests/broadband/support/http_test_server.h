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
#include <vector>

#include "loopback_server.h"

namespace appmgr::test {

struct HttpRequest {
    std::string method;
    std::string path;
    std::string head;  // request line and header lines as received
};

class HttpTestServer {
public:
    explicit HttpTestServer(std::chrono::seconds lifetime = std::chrono::seconds(20));
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    int port() const { return server_.port(); }
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

    void serve(int fd);

    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::map<std::string, Script> scripts_;
    std::vector<HttpRequest> requests_;
    int connections_ = 0;
    loopback::Server server_;  // last: stopped first, before the scripts go
};

}  // namespace appmgr::test
