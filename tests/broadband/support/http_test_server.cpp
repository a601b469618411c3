#include "http_test_server.h"

#include <stdexcept>

namespace appmgr::test {

HttpTestServer::HttpTestServer(std::chrono::seconds lifetime) {
    std::string error;
    if (!server_.start(0, [this](int fd) { serve(fd); }, &error, lifetime))
        throw std::runtime_error(error);
}

std::string HttpTestServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
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

void HttpTestServer::serve(int fd) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
    }
    cv_.notify_all();
    // The request head, read within two seconds.
    const loopback::Request read = server_.readRequest(fd, 65536, std::chrono::seconds(2));
    if (!read.complete) return;
    const HttpRequest request{read.method, read.target, read.head};
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
            server_.waitForStop();
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
    loopback::sendAll(fd, response);
    server_.finish(fd, std::chrono::seconds(1));
}

}  // namespace appmgr::test
