#include "http_test_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace appmgr::test {

namespace {

using Clock = std::chrono::steady_clock;

int millis_until(Clock::time_point t) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(t - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

bool send_all(int fd, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

HttpTestServer::HttpTestServer(std::chrono::seconds lifetime) : deadline_(Clock::now() + lifetime) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) throw std::runtime_error("socket failed");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof(addr);
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listen_fd_, 16) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        ::close(listen_fd_);
        throw std::runtime_error("bind/listen failed");
    }
    port_ = ntohs(addr.sin_port);
    if (::pipe2(wake_pipe_, O_CLOEXEC) != 0) {
        ::close(listen_fd_);
        throw std::runtime_error("pipe failed");
    }
    thread_ = std::thread([this] { run(); });
}

HttpTestServer::~HttpTestServer() {
    char stop = 'x';
    (void)!::write(wake_pipe_[1], &stop, 1);
    if (thread_.joinable()) thread_.join();
    ::close(listen_fd_);
    ::close(wake_pipe_[0]);
    ::close(wake_pipe_[1]);
}

std::string HttpTestServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpTestServer::respond(const std::string& path, const std::string& status,
                             const std::string& body, const std::vector<std::string>& headers) {
    std::lock_guard<std::mutex> lock(mutex_);
    Script& s = scripts_[path];
    s.kind = Script::Kind::Normal;
    s.status = status;
    s.headers = headers;
    s.body = body;
}

void HttpTestServer::respondRaw(const std::string& path, const std::string& raw) {
    std::lock_guard<std::mutex> lock(mutex_);
    Script& s = scripts_[path];
    s.kind = Script::Kind::Raw;
    s.body = raw;
}

void HttpTestServer::hang(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_[path].kind = Script::Kind::Hang;
}

std::vector<HttpRequest> HttpTestServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

int HttpTestServer::connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
}

bool HttpTestServer::waitForRequests(std::size_t count, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [&] { return requests_.size() >= count; });
}

// True when the stop byte arrived before `until`.
bool HttpTestServer::waitUntilStopped(Clock::time_point until) const {
    pollfd p{wake_pipe_[0], POLLIN, 0};
    int rc;
    do {
        rc = ::poll(&p, 1, millis_until(until));
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
}

void HttpTestServer::run() {
    for (;;) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_pipe_[0], POLLIN, 0}};
        const int wait = millis_until(deadline_);
        if (wait == 0) return;
        int rc = ::poll(fds, 2, wait);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0 || (fds[1].revents & POLLIN)) return;
        int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++connections_;
        }
        cv_.notify_all();
        serve(fd);
        ::close(fd);
    }
}

void HttpTestServer::serve(int fd) {
    // The request head, read within two seconds.
    std::string head;
    const auto read_until = std::min(deadline_, Clock::now() + std::chrono::seconds(2));
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, millis_until(read_until)) <= 0) return;
        char buf[4096];
        ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) return;
        head.append(buf, static_cast<std::size_t>(n));
    }
    HttpRequest request;
    request.head = head.substr(0, head.find("\r\n\r\n"));
    const auto sp1 = request.head.find(' ');
    const auto sp2 = request.head.find(' ', sp1 == std::string::npos ? 0 : sp1 + 1);
    if (sp1 != std::string::npos && sp2 != std::string::npos) {
        request.method = request.head.substr(0, sp1);
        request.path = request.head.substr(sp1 + 1, sp2 - sp1 - 1);
    }
    Script script;
    bool scripted;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = scripts_.find(request.path);
        scripted = it != scripts_.end();
        if (scripted) script = it->second;
        requests_.push_back(request);
    }
    cv_.notify_all();

    std::string response;
    if (!scripted) {
        script.status = "404 Not Found";
        script.body = "no such test resource\n";
    }
    switch (script.kind) {
        case Script::Kind::Hang:
            waitUntilStopped(deadline_);
            return;
        case Script::Kind::Raw:
            response = script.body;
            break;
        case Script::Kind::Normal:
            response = "HTTP/1.1 " + script.status + "\r\n";
            for (const auto& h : script.headers) response += h + "\r\n";
            response += "Content-Length: " + std::to_string(script.body.size()) + "\r\n";
            response += "Connection: close\r\n\r\n";
            if (request.method != "HEAD") response += script.body;
            break;
    }
    send_all(fd, response);
    ::shutdown(fd, SHUT_WR);
    // Wait (bounded) for the client to close, so that closing here cannot
    // reset the connection before the client has read everything.
    const auto linger_until = std::min(deadline_, Clock::now() + std::chrono::seconds(1));
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, millis_until(linger_until)) <= 0) return;
        char buf[512];
        if (::recv(fd, buf, sizeof(buf), 0) <= 0) return;
    }
}

}  // namespace appmgr::test
