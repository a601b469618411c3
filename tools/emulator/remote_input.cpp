#include "remote_input.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "loopback_server.h"

namespace appmgr::emu {

namespace {
constexpr int kPollMs = 50;
}

RemoteInputListener::~RemoteInputListener() { stop(); }

bool RemoteInputListener::start(int port, std::string* error) {
    listen_fd_ = loopback::listenOn(&port, error);
    if (listen_fd_ < 0) return false;
    port_ = port;
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
