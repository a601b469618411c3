// The browser stand-in's socket client.
//
// Locking: each connection has a send lock and a read lock. Senders take only
// the send lock, readers only the read lock; connect and disconnect change
// the socket under both, always send lock first. disconnect() shuts the
// socket down before it takes the read lock, which wakes a reader waiting in
// poll() on it, so disconnecting never waits for a reader's time-out.
#include "browser_standin.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace appmgr::standin {
namespace {

constexpr int kConnectRetryMs = 20;
constexpr std::size_t kReceiveChunk = 4096;

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int remainingMs(long long deadline) {
    long long left = deadline - nowMs();
    if (left <= 0) return 0;
    return left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
}

long long deadlineAfter(int timeout_ms) { return nowMs() + (timeout_ms > 0 ? timeout_ms : 0); }

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

struct BrowserStandin::Link {
    std::mutex send_mu;
    std::mutex read_mu;
    std::atomic<int> fd{-1};  // written under both locks
    std::string buffer;       // read_mu: received bytes not yet handed out
    bool eof = false;         // read_mu: the peer closed the socket

    mutable std::mutex status_mu;
    ReadStatus status = ReadStatus::NotConnected;
    std::string error;
};

const char* readStatusName(ReadStatus s) {
    switch (s) {
        case ReadStatus::Ok: return "ok";
        case ReadStatus::Timeout: return "time-out";
        case ReadStatus::Closed: return "closed";
        case ReadStatus::NotConnected: return "not connected";
        case ReadStatus::Malformed: return "malformed";
        case ReadStatus::Error: return "error";
    }
    return "?";
}

BrowserStandin::BrowserStandin(std::string socket_dir) : dir_(std::move(socket_dir)) {
    if (dir_.empty()) dir_ = "./";
    if (dir_.back() != '/') dir_ += '/';
    for (auto& l : links_) l = std::make_unique<Link>();
}

BrowserStandin::~BrowserStandin() { disconnectAll(); }

BrowserStandin::Link& BrowserStandin::link(Connection c) const {
    return *links_[static_cast<std::size_t>(c)];
}

std::string BrowserStandin::socketPath(Connection c) const { return dir_ + socketFileName(c); }

void BrowserStandin::setStatus(Link& l, ReadStatus s, std::string why) {
    std::lock_guard<std::mutex> g(l.status_mu);
    l.status = s;
    l.error = std::move(why);
}

ReadStatus BrowserStandin::lastReadStatus(Connection c) const {
    Link& l = link(c);
    std::lock_guard<std::mutex> g(l.status_mu);
    return l.status;
}

std::string BrowserStandin::lastError(Connection c) const {
    Link& l = link(c);
    std::lock_guard<std::mutex> g(l.status_mu);
    return l.error;
}

bool BrowserStandin::connected(Connection c) const { return link(c).fd.load() >= 0; }

bool BrowserStandin::connect(Connection c, int timeout_ms) {
    Link& l = link(c);
    if (l.fd.load() >= 0) return true;

    const std::string path = socketPath(c);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        setStatus(l, ReadStatus::NotConnected, "socket path too long: " + path);
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    const long long deadline = deadlineAfter(timeout_ms);
    std::string why;
    for (;;) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            why = errnoText("socket");
        } else if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
            std::lock_guard<std::mutex> s(l.send_mu);
            std::lock_guard<std::mutex> r(l.read_mu);
            if (l.fd.load() >= 0) {
                ::close(fd);  // another thread connected meanwhile
            } else {
                l.fd.store(fd);
                l.buffer.clear();
                l.eof = false;
            }
            setStatus(l, ReadStatus::Ok, "");
            return true;
        } else {
            why = errnoText(("connect " + path).c_str());
            ::close(fd);
        }
        int left = remainingMs(deadline);
        if (left == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(left < kConnectRetryMs ? left : kConnectRetryMs));
    }
    setStatus(l, ReadStatus::NotConnected, why);
    return false;
}

bool BrowserStandin::connectAll(int timeout_ms) {
    const long long deadline = deadlineAfter(timeout_ms);
    for (Connection c : kAllConnections)
        if (!connect(c, remainingMs(deadline))) return false;
    return true;
}

void BrowserStandin::disconnect(Connection c) {
    Link& l = link(c);
    std::lock_guard<std::mutex> s(l.send_mu);
    const int fd = l.fd.load();
    if (fd >= 0) ::shutdown(fd, SHUT_RDWR);  // wakes a reader polling this socket
    std::lock_guard<std::mutex> r(l.read_mu);
    if (fd >= 0) ::close(fd);
    l.fd.store(-1);
    l.buffer.clear();
    l.eof = false;
    setStatus(l, ReadStatus::NotConnected, "disconnected");
}

void BrowserStandin::disconnectAll() {
    for (Connection c : kAllConnections) disconnect(c);
}

bool BrowserStandin::send(Connection c, std::string_view raw, int timeout_ms) {
    Link& l = link(c);
    std::lock_guard<std::mutex> s(l.send_mu);
    const int fd = l.fd.load();
    if (fd < 0) return false;
    const long long deadline = deadlineAfter(timeout_ms);
    std::size_t off = 0;
    while (off < raw.size()) {
        ssize_t n = ::send(fd, raw.data() + off, raw.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            off += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd, POLLOUT, 0};
            int r = ::poll(&p, 1, remainingMs(deadline));
            if (r < 0 && errno != EINTR) return false;
            if (r == 0) return false;  // socket stayed full
            continue;
        }
        return false;
    }
    return true;
}

bool BrowserStandin::sendRequest(Connection c, int id, const std::vector<std::string>& fields,
                                 int timeout_ms) {
    return send(c, buildRequest(id, fields), timeout_ms);
}

// Receives once into l.buffer, waiting until the deadline. Read lock held.
ReadStatus BrowserStandin::fill(Link& l, long long deadline) {
    if (l.eof) return ReadStatus::Closed;
    const int fd = l.fd.load();
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int r = ::poll(&p, 1, remainingMs(deadline));
        if (r < 0) {
            if (errno == EINTR) continue;
            setStatus(l, ReadStatus::Error, errnoText("poll"));
            return ReadStatus::Error;
        }
        if (r == 0) return ReadStatus::Timeout;
        char chunk[kReceiveChunk];
        ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) {
            l.buffer.append(chunk, static_cast<std::size_t>(n));
            return ReadStatus::Ok;
        }
        if (n == 0 || errno == ECONNRESET || errno == EPIPE) {
            l.eof = true;
            return ReadStatus::Closed;
        }
        if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
        setStatus(l, ReadStatus::Error, errnoText("recv"));
        return ReadStatus::Error;
    }
}

std::optional<std::string> BrowserStandin::readReply(Connection c, int timeout_ms) {
    Link& l = link(c);
    std::lock_guard<std::mutex> r(l.read_mu);
    if (l.fd.load() < 0) {
        setStatus(l, ReadStatus::NotConnected, "not connected");
        return std::nullopt;
    }
    const long long deadline = deadlineAfter(timeout_ms);
    for (;;) {
        std::size_t zero = l.buffer.find('\0');
        if (zero != std::string::npos) {
            std::string reply = l.buffer.substr(0, zero);
            l.buffer.erase(0, zero + 1);
            setStatus(l, ReadStatus::Ok, "");
            return reply;
        }
        ReadStatus f = fill(l, deadline);
        if (f == ReadStatus::Error) return std::nullopt;
        if (f != ReadStatus::Ok) {
            setStatus(l, f,
                      l.buffer.empty() ? "" : "incomplete reply: " + escapeBytes(l.buffer));
            return std::nullopt;
        }
    }
}

std::optional<std::string> BrowserStandin::readRaw(Connection c, std::size_t max, int timeout_ms) {
    Link& l = link(c);
    std::lock_guard<std::mutex> r(l.read_mu);
    if (l.fd.load() < 0) {
        setStatus(l, ReadStatus::NotConnected, "not connected");
        return std::nullopt;
    }
    if (l.buffer.empty() && max > 0) {
        ReadStatus f = fill(l, deadlineAfter(timeout_ms));
        if (f == ReadStatus::Error) return std::nullopt;
        if (f != ReadStatus::Ok) {
            setStatus(l, f, "");
            return std::nullopt;
        }
    }
    std::size_t n = max < l.buffer.size() ? max : l.buffer.size();
    std::string out = l.buffer.substr(0, n);
    l.buffer.erase(0, n);
    setStatus(l, ReadStatus::Ok, "");
    return out;
}

std::optional<Frame> BrowserStandin::readFrame(Connection c, int timeout_ms) {
    Link& l = link(c);
    std::lock_guard<std::mutex> r(l.read_mu);
    if (l.fd.load() < 0) {
        setStatus(l, ReadStatus::NotConnected, "not connected");
        return std::nullopt;
    }
    const long long deadline = deadlineAfter(timeout_ms);
    for (;;) {
        DecodeStatus ds = DecodeStatus::Incomplete;
        std::optional<Frame> frame = decodeFrame(l.buffer, &ds);
        if (frame) {
            setStatus(l, ReadStatus::Ok, "");
            return frame;
        }
        if (ds == DecodeStatus::Malformed) {
            // No way to find the next frame boundary: drop what is buffered.
            setStatus(l, ReadStatus::Malformed, "not a frame: " + escapeBytes(l.buffer));
            l.buffer.clear();
            return std::nullopt;
        }
        ReadStatus f = fill(l, deadline);
        if (f == ReadStatus::Error) return std::nullopt;
        if (f != ReadStatus::Ok) {
            setStatus(l, f,
                      l.buffer.empty() ? "" : "incomplete frame: " + escapeBytes(l.buffer));
            return std::nullopt;
        }
    }
}

std::optional<std::string> BrowserStandin::request(Connection c, int id,
                                                   const std::vector<std::string>& fields,
                                                   int timeout_ms) {
    const long long deadline = deadlineAfter(timeout_ms);
    if (!sendRequest(c, id, fields, timeout_ms)) {
        setStatus(link(c), connected(c) ? ReadStatus::Error : ReadStatus::NotConnected,
                  "request not sent");
        return std::nullopt;
    }
    return readReply(c, remainingMs(deadline));
}

}  // namespace appmgr::standin
