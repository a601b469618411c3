#include "loopback_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace appmgr::loopback {

namespace {

// A poll timeout for `until`: -1 (no limit) for time_point::max().
int pollTimeout(Server::Clock::time_point until) {
    if (until == Server::Clock::time_point::max()) return -1;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(until - Server::Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace

int listenOn(int* port, std::string* error) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A connection of an earlier run left in TIME_WAIT must not block a given
    // port; a live listener still does.
    int on = 1;
    if (fd >= 0 && *port != 0) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(*port));
    socklen_t len = sizeof(addr);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd, 16) != 0 || ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        const int e = errno;
        if (error)
            *error = "cannot listen on 127.0.0.1:" + std::to_string(*port) + ": " + std::strerror(e) +
                     (e == EADDRINUSE ? " (another program serves this port)" : "");
        if (fd >= 0) ::close(fd);
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

int connectTo(int port, int receive_timeout_ms) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (receive_timeout_ms > 0) {
        timeval tv{receive_timeout_ms / 1000, (receive_timeout_ms % 1000) * 1000};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

Server::~Server() { stop(); }

bool Server::start(int port, Handler handler, std::string* error, std::chrono::milliseconds lifetime) {
    stop();
    listen_fd_ = listenOn(&port, error);
    if (listen_fd_ < 0) return false;
    if (::pipe2(wake_pipe_, O_CLOEXEC) != 0) {
        if (error) *error = std::string("pipe: ") + std::strerror(errno);
        ::close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    port_ = port;
    deadline_ = lifetime.count() > 0 ? Clock::now() + lifetime : Clock::time_point::max();
    handler_ = std::move(handler);
    thread_ = std::thread([this] { run(); });
    return true;
}

void Server::stop() {
    if (listen_fd_ < 0) return;
    const char byte = 'x';
    (void)!::write(wake_pipe_[1], &byte, 1);  // stays readable: every later wait ends at once
    if (thread_.joinable()) thread_.join();
    for (int* fd : {&listen_fd_, &wake_pipe_[0], &wake_pipe_[1]}) {
        ::close(*fd);
        *fd = -1;
    }
}

bool Server::waitReadable(int fd, Clock::time_point until) const {
    pollfd p[2] = {{wake_pipe_[0], POLLIN, 0}, {fd, POLLIN, 0}};
    int rc;
    while ((rc = ::poll(p, 2, pollTimeout(std::min(until, deadline_)))) < 0 && errno == EINTR) {
    }
    return rc > 0 && p[0].revents == 0 && p[1].revents != 0;
}

void Server::waitForStop() const { waitReadable(-1, Clock::time_point::max()); }

bool Server::pause(int fd, std::chrono::milliseconds duration) const {
    const auto until = Clock::now() + duration;
    if (waitReadable(fd, until)) return false;
    return Clock::now() >= until && Clock::now() < deadline_;
}

void Server::run() {
    while (waitReadable(listen_fd_, Clock::time_point::max())) {
        const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        handler_(fd);
        ::close(fd);
    }
}

Request Server::readRequest(int fd, std::size_t max_bytes, std::chrono::milliseconds timeout) const {
    Request request;
    std::string& head = request.head;
    const auto until = Clock::now() + timeout;
    std::size_t end;
    while ((end = head.find("\r\n\r\n")) == std::string::npos && head.size() < max_bytes &&
           waitReadable(fd, until)) {
        char buf[4096];
        const ssize_t n = ::recv(fd, buf, std::min(sizeof(buf), max_bytes - head.size()), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        head.append(buf, static_cast<std::size_t>(n));
    }
    request.complete = end != std::string::npos;
    if (request.complete) head.resize(end);
    const std::string line = head.substr(0, head.find("\r\n"));
    const std::size_t sp1 = line.find(' ');
    const std::size_t sp2 = sp1 == std::string::npos ? std::string::npos : line.find(' ', sp1 + 1);
    if (sp2 != std::string::npos) {
        request.method = line.substr(0, sp1);
        request.target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    }
    return request;
}

void Server::finish(int fd, std::chrono::milliseconds linger) const {
    ::shutdown(fd, SHUT_WR);
    const auto until = Clock::now() + linger;
    for (char buf[512]; waitReadable(fd, until) && ::recv(fd, buf, sizeof(buf), 0) > 0;) {
    }
}

}  // namespace appmgr::loopback
