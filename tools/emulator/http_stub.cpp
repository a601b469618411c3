#include "http_stub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace appmgr::emu {

namespace {

constexpr int kPollMs = 100;
constexpr int kRequestMs = 2000;
constexpr std::size_t kMaxRequest = 8192;

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sendAll(int fd, const std::string& data) {
    std::size_t off = 0;
    while (off < data.size()) {
        ssize_t n = ::send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return;
        }
        off += static_cast<std::size_t>(n);
    }
}

}  // namespace

HttpStub::~HttpStub() { stop(); }

bool HttpStub::start(std::vector<std::string> missing, Trace trace, std::string* error) {
    missing_ = std::move(missing);
    trace_ = std::move(trace);
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        if (error) *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listen_fd_, 8) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (error) *error = std::string("bind/listen on 127.0.0.1: ") + std::strerror(errno);
        ::close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    port_ = ntohs(addr.sin_port);
    stop_ = false;
    thread_ = std::thread([this] { serve(); });
    return true;
}

void HttpStub::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
    listen_fd_ = -1;
}

std::string HttpStub::host() const { return "127.0.0.1:" + std::to_string(port_); }

std::string HttpStub::statusFor(const std::string& target, const std::vector<std::string>& missing) {
    const std::string path = target.substr(0, target.find('?'));
    return std::find(missing.begin(), missing.end(), path) != missing.end() ? "404 Not Found" : "200 OK";
}

void HttpStub::serve() {
    while (!stop_) {
        pollfd p{listen_fd_, POLLIN, 0};
        int r = ::poll(&p, 1, kPollMs);
        if (r <= 0) continue;
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        answer(fd);
        ::close(fd);
    }
}

void HttpStub::answer(int fd) {
    std::string request;
    const long long deadline = nowMs() + kRequestMs;
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < kMaxRequest) {
        const long long left = deadline - nowMs();
        if (left <= 0 || stop_) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(std::min<long long>(left, kPollMs))) <= 0) continue;
        char buf[1024];
        ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) break;
        request.append(buf, static_cast<std::size_t>(n));
    }
    const std::string line = request.substr(0, request.find("\r\n"));
    const std::size_t sp1 = line.find(' ');
    const std::size_t sp2 = sp1 == std::string::npos ? std::string::npos : line.find(' ', sp1 + 1);
    if (sp2 == std::string::npos) {
        if (trace_) trace_("http      malformed request dropped");
        sendAll(fd, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        return;
    }
    const std::string method = line.substr(0, sp1);
    const std::string target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    const std::string status = statusFor(target, missing_);
    const std::string body = status[0] == '2'
                                 ? "<!DOCTYPE html><html><body>appmgr-emu " + target + "</body></html>\n"
                                 : "not found\n";
    std::string response = "HTTP/1.1 " + status + "\r\nContent-Type: text/html\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    if (method != "HEAD") response += body;
    if (trace_) trace_("http      " + method + " " + target + " -> " + status);
    sendAll(fd, response);
}

}  // namespace appmgr::emu
