#include "remote_input.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace appmgr::emu {

namespace {
constexpr int kPollMs = 50;
}

RemoteInputListener::~RemoteInputListener() { stop(); }

bool RemoteInputListener::start(int port, std::string* error) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        if (error) *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    // A connection of an earlier run left in TIME_WAIT must not block the
    // port; a live listener still does.
    int on = 1;
    ::setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t len = sizeof(addr);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listen_fd_, 4) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        const int e = errno;
        if (error)
            *error = "cannot listen on 127.0.0.1:" + std::to_string(port) + ": " + std::strerror(e) +
                     (e == EADDRINUSE ? " (another program serves this port)" : "");
        ::close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    port_ = ntohs(addr.sin_port);
    stop_ = false;
    thread_ = std::thread([this] { serve(); });
    return true;
}

void RemoteInputListener::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
    listen_fd_ = -1;
}

void RemoteInputListener::serve() {
    int client = -1;
    while (!stop_) {
        pollfd p[2] = {{listen_fd_, POLLIN, 0}, {client, POLLIN, 0}};
        const int n = ::poll(p, client >= 0 ? 2 : 1, kPollMs);
        if (n <= 0) continue;
        if (p[0].revents & POLLIN) {
            const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                if (client >= 0) ::close(client);
                client = fd;
                ++connections_;
            }
            continue;
        }
        if (client >= 0 && (p[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            char buf[512];
            const ssize_t got = ::recv(client, buf, sizeof(buf), 0);
            if (got <= 0) {
                if (got < 0 && errno == EINTR) continue;
                ::close(client);
                client = -1;
                continue;
            }
            std::lock_guard<std::mutex> g(mu_);
            received_.append(buf, static_cast<std::size_t>(got));
            cv_.notify_all();
        }
    }
    if (client >= 0) ::close(client);
}

std::string RemoteInputListener::take(int timeout_ms) {
    std::unique_lock<std::mutex> g(mu_);
    cv_.wait_for(g, std::chrono::milliseconds(timeout_ms),
                 [&] { return received_.find('\0') != std::string::npos; });
    std::string out;
    out.swap(received_);
    return out;
}

}  // namespace appmgr::emu
