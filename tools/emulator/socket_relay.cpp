// The relay between the library's sockets and a browser process.
//
// Threads and locks: one thread per connection accepts the browser,
// connects the library and copies bytes ("pump"); it alone reads both
// sockets, writes the browser's and closes them. Writes to the library's
// socket come from that thread (the browser's messages) and from the
// emulator's thread (send()); write_mu keeps them whole and in order. mu
// guards the rest of a pair: the sockets' numbers, who owns the outstanding
// request, the held requests and the reply bytes for the emulator. Order:
// write_mu before mu; nothing blocks on a socket while holding mu.
#include "socket_relay.h"

#include "emu_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace appmgr::emu {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLibraryConnectMs = 10000;  // the library listens again after a browser crash
constexpr int kConnectRetryMs = 20;
constexpr int kWriteMs = 2000;        // a peer that takes nothing for this long is dropped
constexpr int kPollMs = 200;          // how often a waiting thread looks at the stop flag
constexpr int kMessageGapMs = 30;     // the library takes one received block as one message
constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kMaxHeld = 32;  // browser requests held while the emulator's is answered
constexpr std::size_t kMaxUndecoded = 64 * 1024;

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

bool fillAddress(const std::string& path, sockaddr_un& addr) {
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Writes everything, waiting for room at most timeout_ms in all.
bool writeAll(int fd, std::string_view bytes, int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return false;
            pollfd p{fd, POLLOUT, 0};
            ::poll(&p, 1, static_cast<int>(left));
            continue;
        }
        return false;
    }
    return true;
}

enum class Owner { None, Browser, Emulator };

}  // namespace

// ---- replies ---------------------------------------------------------------------------

void ReplyScanner::begin(bool content) {
    phase_ = content ? Phase::Header : Phase::Text;
    header_.clear();
    payload_left_ = 0;
}

std::size_t ReplyScanner::take(std::string_view data) {
    std::size_t used = 0;
    while (used < data.size() && phase_ != Phase::Done) {
        const char b = data[used];
        switch (phase_) {
            case Phase::Text:
                ++used;
                if (b == '\0') phase_ = Phase::Done;
                break;
            case Phase::Header: {
                ++used;
                // A reply without payload ("NOT_AVAILABLE|") ends at its zero.
                if (b == '\0') {
                    phase_ = Phase::Done;
                    break;
                }
                header_ += b;
                if (b != '|' || std::count(header_.begin(), header_.end(), '|') < 3) break;
                const std::size_t second = header_.find('|', header_.find('|') + 1);
                const std::string length = header_.substr(second + 1, header_.size() - second - 2);
                if (length.empty() || length.size() > 9 ||
                    length.find_first_not_of("0123456789") != std::string::npos) {
                    // Not a content header: read it as a text reply.
                    phase_ = Phase::Text;
                    break;
                }
                payload_left_ = std::stoul(length);
                phase_ = payload_left_ ? Phase::Payload : Phase::Terminator;
                break;
            }
            case Phase::Payload: {
                const std::size_t n = std::min(payload_left_, data.size() - used);
                used += n;
                payload_left_ -= n;
                if (payload_left_ == 0) phase_ = Phase::Terminator;
                break;
            }
            case Phase::Terminator:
                ++used;
                phase_ = Phase::Done;
                break;
            case Phase::Done: break;
        }
    }
    return used;
}

bool answersRequests(Connection c) {
    return c == Connection::DtvPlugins || c == Connection::VodPlugins || c == Connection::Dsmcc;
}

namespace {
bool isContentRequest(Connection c, int id) { return c == Connection::Dsmcc && id >= 131 && id <= 133; }
}  // namespace

// ---- a connection ------------------------------------------------------------------------

struct SocketRelay::Pair {
    Connection conn = Connection::Application;
    int listen_fd = -1;
    std::thread thread;
    std::atomic<bool> stopping{false};

    std::mutex write_mu;             // one writer on the library's socket at a time
    Clock::time_point last_write{};  // write_mu

    std::mutex mu;
    std::condition_variable cv;
    int browser_fd = -1;  // mu for others; the pump thread uses it freely
    int library_fd = -1;
    bool paired = false;
    Owner owner = Owner::None;
    int owner_id = -1;
    ReplyScanner scanner;
    std::deque<std::string> held;  // browser requests waiting for the emulator's reply
    std::string to_emulator;       // reply bytes not yet read by the emulator
    std::string to_browser;        // the browser's current reply so far (for the hook)
    ReadStatus status = ReadStatus::NotConnected;

    std::string frames;  // pump thread: library bytes not yet decoded
};

SocketRelay::SocketRelay(std::string library_dir, std::string browser_dir, RelayHooks hooks)
    : library_dir_(std::move(library_dir)), browser_dir_(std::move(browser_dir)), hooks_(std::move(hooks)) {
    for (std::string* d : {&library_dir_, &browser_dir_})
        if (d->empty() || d->back() != '/') *d += '/';
    for (Connection c : standin::kAllConnections) {
        auto p = std::make_unique<Pair>();
        p->conn = c;
        pairs_[static_cast<std::size_t>(c)] = std::move(p);
    }
}

SocketRelay::~SocketRelay() { stop(); }

bool SocketRelay::start(std::string* error) {
    if (::pipe2(wake_, O_CLOEXEC) != 0) {
        *error = errnoText("pipe");
        return false;
    }
    for (auto& p : pairs_) {
        const std::string path = browser_dir_ + standin::socketFileName(p->conn);
        sockaddr_un addr;
        if (!fillAddress(path, addr)) {
            *error = path + ": path too long";
            return false;
        }
        ::unlink(path.c_str());
        p->listen_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (p->listen_fd < 0 || ::bind(p->listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(p->listen_fd, 4) != 0) {
            *error = errnoText("listen on " + path);
            return false;
        }
    }
    for (auto& p : pairs_) p->thread = std::thread([this, &p] { serve(*p); });
    return true;
}

void SocketRelay::stop() {
    for (auto& p : pairs_) p->stopping = true;
    if (wake_[1] >= 0) {
        const char b = 0;
        (void)!::write(wake_[1], &b, 1);
    }
    for (auto& p : pairs_) {
        if (p->thread.joinable()) p->thread.join();
        closePair(*p, "");
        if (p->listen_fd >= 0) {
            ::close(p->listen_fd);
            p->listen_fd = -1;
            ::unlink((browser_dir_ + standin::socketFileName(p->conn)).c_str());
        }
    }
    for (int& fd : wake_) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

bool SocketRelay::waitPaired(int timeout_ms) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (auto& p : pairs_) {
        std::unique_lock<std::mutex> g(p->mu);
        if (!p->cv.wait_until(g, deadline, [&] { return p->paired; })) return false;
    }
    return true;
}

// ---- the pump thread -----------------------------------------------------------------------

void SocketRelay::serve(Pair& p) {
    while (!p.stopping) {
        if (!pairUp(p)) continue;
        if (hooks_.note) hooks_.note(p.conn, "connected");
        pump(p);
    }
}

// Accepts the browser, then connects to the library (which may still be
// starting, or listening again after a crash). False when either did not
// happen (stopping, or the library did not come).
bool SocketRelay::pairUp(Pair& p) {
    pollfd waits[2] = {{p.listen_fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (::poll(waits, 2, kPollMs) <= 0 || !(waits[0].revents & POLLIN)) return false;
    const int browser = ::accept4(p.listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (browser < 0) return false;

    const std::string path = library_dir_ + standin::socketFileName(p.conn);
    sockaddr_un addr;
    fillAddress(path, addr);
    const auto deadline = Clock::now() + std::chrono::milliseconds(kLibraryConnectMs);
    int library = -1;
    while (!p.stopping && Clock::now() < deadline) {
        library = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (library >= 0 && ::connect(library, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) break;
        if (library >= 0) ::close(library);
        library = -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(kConnectRetryMs));
    }
    if (library < 0) {
        ::close(browser);
        if (hooks_.note && !p.stopping) hooks_.note(p.conn, "the library does not listen on " + path);
        return false;
    }
    setNonBlocking(library);
    std::lock_guard<std::mutex> g(p.mu);
    p.browser_fd = browser;
    p.library_fd = library;
    p.paired = true;
    p.owner = Owner::None;
    p.status = ReadStatus::Ok;
    p.cv.notify_all();
    return true;
}

void SocketRelay::pump(Pair& p) {
    while (!p.stopping) {
        pollfd fds[3] = {{p.browser_fd, POLLIN, 0}, {p.library_fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        const int n = ::poll(fds, 3, kPollMs);
        if (n < 0 && errno != EINTR) break;
        if (n <= 0) continue;
        // The library's bytes first: a reply completes before the next
        // request of the browser is looked at.
        if ((fds[1].revents & (POLLIN | POLLHUP | POLLERR)) && !fromLibrary(p)) return;
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) && !fromBrowser(p)) return;
    }
    closePair(p, "");
}

bool SocketRelay::fromBrowser(Pair& p) {
    char buf[kChunk];
    const ssize_t n = ::recv(p.browser_fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) {
        closePair(p, "closed by the browser");
        return false;
    }
    std::string block(buf, static_cast<std::size_t>(n));
    if (hooks_.browser_message) hooks_.browser_message(p.conn, block);
    if (answersRequests(p.conn)) {
        std::unique_lock<std::mutex> g(p.mu);
        if (p.owner != Owner::None || !p.held.empty()) {
            // One request at a time: this one goes when the current reply
            // is complete. A browser that sends without waiting for its
            // replies is cut off beyond a bound.
            if (p.held.size() >= kMaxHeld) {
                g.unlock();
                closePair(p, "closed: the browser sent more than " + std::to_string(kMaxHeld) +
                                 " requests without waiting for replies");
                return false;
            }
            p.held.push_back(std::move(block));
            return true;
        }
        p.owner = Owner::Browser;
        p.owner_id = messageId(block);
        p.scanner.begin(isContentRequest(p.conn, p.owner_id));
        p.to_browser.clear();
    }
    if (!writeLibrary(p, block)) {
        closePair(p, "closed: the library takes nothing");
        return false;
    }
    return true;
}

bool SocketRelay::fromLibrary(Pair& p) {
    char buf[kChunk];
    const ssize_t n = ::recv(p.library_fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
    if (n <= 0) {
        closePair(p, "closed by the library");
        return false;
    }
    const std::string_view data(buf, static_cast<std::size_t>(n));
    if (answersRequests(p.conn)) {
        takeReplyBytes(p, data);
        return p.browser_fd >= 0;
    }
    if (!writeAll(p.browser_fd, data, kWriteMs)) {
        closePair(p, "closed: the browser takes nothing");
        return false;
    }
    p.frames.append(data);
    for (;;) {
        standin::DecodeStatus status;
        std::optional<Frame> f = standin::decodeFrame(p.frames, &status);
        if (f) {
            if (hooks_.frame) hooks_.frame(p.conn, *f);
            continue;
        }
        // Frames are at most 4096 bytes: far more without one is not a frame.
        if (status == standin::DecodeStatus::Malformed || p.frames.size() > kMaxUndecoded) {
            if (hooks_.malformed) hooks_.malformed(p.conn, p.frames);
            p.frames.clear();
        }
        break;
    }
    return true;
}

// Hands the library's bytes on a request connection to whoever asked: the
// browser (relayed) or the emulator (kept for its reads). Bytes nobody asked
// for are dropped.
void SocketRelay::takeReplyBytes(Pair& p, std::string_view data) {
    while (!data.empty()) {
        std::unique_lock<std::mutex> g(p.mu);
        if (p.owner == Owner::None) {
            g.unlock();
            if (hooks_.note)
                hooks_.note(p.conn, "dropped " + std::to_string(data.size()) +
                                        " bytes of a reply nobody waits for: " + standin::escapeBytes(data.substr(0, 80)));
            return;
        }
        const std::size_t used = p.scanner.take(data);
        const std::string_view part = data.substr(0, used);
        data.remove_prefix(used);
        const Owner owner = p.owner;
        const int id = p.owner_id;
        const bool done = p.scanner.done();
        if (owner == Owner::Emulator) {
            p.to_emulator.append(part);
            p.cv.notify_all();
        } else {
            p.to_browser.append(part);
        }
        std::string reply;
        if (done) {
            if (owner == Owner::Browser) reply.swap(p.to_browser);
            p.owner = Owner::None;
            p.cv.notify_all();
        }
        g.unlock();
        if (owner == Owner::Browser && !writeAll(p.browser_fd, part, kWriteMs)) {
            closePair(p, "closed: the browser takes nothing");
            return;
        }
        if (done && owner == Owner::Browser && hooks_.browser_reply) {
            if (!reply.empty() && reply.back() == '\0') reply.pop_back();
            hooks_.browser_reply(p.conn, id, reply);
        }
        if (done) sendHeldRequest(p);
        if (used == 0) return;  // cannot happen while a reply is open; never spin
    }
}

void SocketRelay::sendHeldRequest(Pair& p) {
    std::string next;
    {
        std::lock_guard<std::mutex> g(p.mu);
        if (p.owner != Owner::None || p.held.empty() || !p.paired) return;
        next = std::move(p.held.front());
        p.held.pop_front();
        p.owner = Owner::Browser;
        p.owner_id = messageId(next);
        p.scanner.begin(isContentRequest(p.conn, p.owner_id));
        p.to_browser.clear();
    }
    writeLibrary(p, next);
}

bool SocketRelay::writeLibrary(Pair& p, std::string_view bytes) {
    std::lock_guard<std::mutex> w(p.write_mu);
    int fd;
    {
        std::lock_guard<std::mutex> g(p.mu);
        fd = p.library_fd;
    }
    if (fd < 0) return false;
    // Two messages written back to back could arrive as one block.
    const auto since = Clock::now() - p.last_write;
    if (since < std::chrono::milliseconds(kMessageGapMs))
        std::this_thread::sleep_for(std::chrono::milliseconds(kMessageGapMs) - since);
    const bool ok = writeAll(fd, bytes, kWriteMs);
    p.last_write = Clock::now();
    return ok;
}

void SocketRelay::closePair(Pair& p, const std::string& why) {
    {
        std::lock_guard<std::mutex> w(p.write_mu);
        std::lock_guard<std::mutex> g(p.mu);
        if (!p.paired) return;
        ::close(p.browser_fd);
        ::close(p.library_fd);
        p.browser_fd = p.library_fd = -1;
        p.paired = false;
        p.owner = Owner::None;
        p.held.clear();
        p.status = ReadStatus::Closed;
        p.cv.notify_all();
    }
    p.frames.clear();
    if (!why.empty() && hooks_.note) hooks_.note(p.conn, why);
}

// ---- the emulator as the browser ---------------------------------------------------------

bool SocketRelay::send(Connection c, const std::string& raw, int timeout_ms) {
    Pair& p = *pairs_[static_cast<std::size_t>(c)];
    if (answersRequests(c)) {
        std::unique_lock<std::mutex> g(p.mu);
        if (!p.cv.wait_for(g, std::chrono::milliseconds(timeout_ms),
                           [&] { return p.paired && p.owner == Owner::None && p.held.empty(); }))
            return false;
        p.owner = Owner::Emulator;
        p.owner_id = messageId(raw);
        p.scanner.begin(isContentRequest(c, p.owner_id));
        p.to_emulator.clear();
        p.status = ReadStatus::Ok;
    }
    return writeLibrary(p, raw);
}

// A read of the emulator that got nothing in time. The library does not
// answer this id, or is stuck: the browser's requests go on, and bytes of a
// late reply are dropped as long as nothing else is outstanding.
std::optional<std::string> SocketRelay::nothingRead(Pair& p, std::unique_lock<std::mutex>& g) {
    p.status = p.paired ? ReadStatus::Timeout : ReadStatus::Closed;
    const bool release = p.owner == Owner::Emulator;
    if (release) p.owner = Owner::None;
    g.unlock();
    if (release) sendHeldRequest(p);
    return std::nullopt;
}

std::optional<std::string> SocketRelay::readReply(Connection c, int timeout_ms) {
    Pair& p = *pairs_[static_cast<std::size_t>(c)];
    std::unique_lock<std::mutex> g(p.mu);
    const bool got = p.cv.wait_for(g, std::chrono::milliseconds(timeout_ms), [&] {
        return p.to_emulator.find('\0') != std::string::npos || !p.paired;
    });
    const std::size_t zero = p.to_emulator.find('\0');
    if (got && zero != std::string::npos) {
        std::string reply = p.to_emulator.substr(0, zero);
        p.to_emulator.erase(0, zero + 1);
        p.status = ReadStatus::Ok;
        return reply;
    }
    return nothingRead(p, g);
}

std::optional<std::string> SocketRelay::readRaw(Connection c, std::size_t max, int timeout_ms) {
    Pair& p = *pairs_[static_cast<std::size_t>(c)];
    std::unique_lock<std::mutex> g(p.mu);
    const bool got =
        p.cv.wait_for(g, std::chrono::milliseconds(timeout_ms), [&] { return !p.to_emulator.empty() || !p.paired; });
    if (got && !p.to_emulator.empty()) {
        std::string bytes = p.to_emulator.substr(0, max);
        p.to_emulator.erase(0, bytes.size());
        p.status = ReadStatus::Ok;
        return bytes;
    }
    return nothingRead(p, g);
}

ReadStatus SocketRelay::lastReadStatus(Connection c) {
    Pair& p = *pairs_[static_cast<std::size_t>(c)];
    std::lock_guard<std::mutex> g(p.mu);
    return p.status;
}

}  // namespace appmgr::emu
