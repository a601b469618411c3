// HTTP servers on 127.0.0.1 that misbehave the way real ones do: they drip
// their answer a byte a second, redirect without end, send a body or header
// block far larger than anything the library keeps, cut a TLS handshake
// half way, or accept a request and never answer. One behaviour per server;
// every path gets it. Like HttpTestServer it serves one connection at a
// time and every wait ends when it is destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "loopback_server.h"

namespace appmgr::test {

enum class Hostility {
    Drip,             // the whole answer, status line first, one byte a second
    RedirectForever,  // 302 to a new path, every time
    HugeBody,         // 200 with a 10 MB body
    HugeHeaders,      // 200 followed by header lines without end (10 MB)
    CutTls,           // answers a TLS ClientHello with half a handshake record, then closes
    Silent,           // reads the request and never answers
};

const char* describe(Hostility hostility);

class HostileHttpServer {
public:
    explicit HostileHttpServer(Hostility hostility,
                               std::chrono::seconds lifetime = std::chrono::seconds(60));
    HostileHttpServer(const HostileHttpServer&) = delete;
    HostileHttpServer& operator=(const HostileHttpServer&) = delete;

    // "http://127.0.0.1:<port><path>", or "https://..." for CutTls.
    std::string url(const std::string& path) const;
    // Connections accepted so far.
    int connections() const;
    // Waits (bounded) until `count` requests have been read: a transfer is
    // then in flight.
    bool waitForRequests(int count, int timeout_ms) const;
    // Bytes of the answer written so far, over all connections.
    long long bytesSent() const { return bytes_sent_; }

private:
    void serve(int fd);
    bool send(int fd, const std::string& bytes);

    Hostility hostility_;
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    int connections_ = 0;
    int requests_ = 0;
    std::atomic<long long> bytes_sent_{0};
    loopback::Server server_;  // last: stopped first
};

}  // namespace appmgr::test
