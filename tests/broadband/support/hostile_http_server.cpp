#include "hostile_http_server.h"

#include <sys/socket.h>

#include <stdexcept>

namespace appmgr::test {

namespace {

constexpr std::size_t kTenMegabytes = 10u * 1024u * 1024u;

}  // namespace

const char* describe(Hostility hostility) {
    switch (hostility) {
        case Hostility::Drip: return "a server that drips one byte a second";
        case Hostility::RedirectForever: return "a server that redirects forever";
        case Hostility::HugeBody: return "a server that sends a 10 MB body";
        case Hostility::HugeHeaders: return "a server that sends 10 MB of headers";
        case Hostility::CutTls: return "a server that cuts the TLS handshake half way";
        case Hostility::Silent: return "a server that never answers";
    }
    return "?";
}

HostileHttpServer::HostileHttpServer(Hostility hostility, std::chrono::seconds lifetime)
    : hostility_(hostility) {
    std::string error;
    if (!server_.start(0, [this](int fd) { serve(fd); }, &error, lifetime))
        throw std::runtime_error(error);
}

std::string HostileHttpServer::url(const std::string& path) const {
    const char* scheme = hostility_ == Hostility::CutTls ? "https" : "http";
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(server_.port()) + path;
}

int HostileHttpServer::connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
}

bool HostileHttpServer::waitForRequests(int count, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [&] { return requests_ >= count; });
}

bool HostileHttpServer::send(int fd, const std::string& bytes) {
    if (!loopback::sendAll(fd, bytes)) return false;
    bytes_sent_ += static_cast<long long>(bytes.size());
    return true;
}

void HostileHttpServer::serve(int fd) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
    }
    auto counted = [this] {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++requests_;
        }
        cv_.notify_all();
    };
    if (hostility_ == Hostility::CutTls) {
        // A TLS record header announcing a 16 KB handshake message, and half
        // of a ServerHello's start; then the connection goes.
        char hello[512];
        if (::recv(fd, hello, sizeof(hello), 0) <= 0) return;
        counted();
        std::string record("\x16\x03\x03\x40\x00\x02\x00\x3f\xfc\x03\x03", 11);
        record += std::string(40, '\x5a');
        send(fd, record);
        return;
    }
    const loopback::Request request = server_.readRequest(fd, 65536, std::chrono::seconds(2));
    if (!request.complete) return;
    counted();
    switch (hostility_) {
        case Hostility::Drip: {
            const std::string answer =
                "HTTP/1.1 200 OK\r\nContent-Length: 64\r\nConnection: close\r\n\r\n" +
                std::string(64, 'd');
            for (char c : answer)
                if (!send(fd, std::string(1, c)) || !server_.pause(fd, std::chrono::seconds(1)))
                    return;
            return;
        }
        case Hostility::RedirectForever:
            send(fd, "HTTP/1.1 302 Found\r\nLocation: " + request.target + "x\r\n"
                     "Content-Length: 0\r\nConnection: close\r\n\r\n");
            server_.finish(fd, std::chrono::seconds(1));
            return;
        case Hostility::HugeBody: {
            if (!send(fd, "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " +
                              std::to_string(kTenMegabytes) + "\r\nConnection: close\r\n\r\n"))
                return;
            if (request.method == "HEAD") break;
            const std::string chunk(64 * 1024, '<');
            for (std::size_t sent = 0; sent < kTenMegabytes; sent += chunk.size())
                if (!send(fd, chunk)) return;
            break;
        }
        case Hostility::HugeHeaders: {
            if (!send(fd, "HTTP/1.1 200 OK\r\n")) return;
            const std::string line = "X-Filler: " + std::string(1000, 'h') + "\r\n";
            for (std::size_t sent = 0; sent < kTenMegabytes; sent += line.size())
                if (!send(fd, line)) return;
            send(fd, "Content-Length: 0\r\n\r\n");
            break;
        }
        case Hostility::Silent: server_.waitForStop(); return;
        case Hostility::CutTls: return;
    }
    server_.finish(fd, std::chrono::seconds(1));
}

}  // namespace appmgr::test
