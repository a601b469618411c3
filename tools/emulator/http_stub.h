// A minimal HTTP responder on 127.0.0.1 for the library's probes of
// broadband applications: every request gets "200 OK" (a short HTML page for
// GET, headers only for HEAD) except the paths listed as missing, which get
// "404 Not Found". One request per connection, served in turn on one thread;
// every wait is bounded.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace appmgr::emu {

class HttpStub {
public:
    using Trace = std::function<void(const std::string& line)>;

    HttpStub() = default;
    ~HttpStub();
    HttpStub(const HttpStub&) = delete;
    HttpStub& operator=(const HttpStub&) = delete;

    // Listens on a free port of 127.0.0.1 and starts serving. False (with the
    // reason in *error) when the socket cannot be set up.
    bool start(std::vector<std::string> missing, Trace trace, std::string* error);
    void stop();
    // "127.0.0.1:PORT" once started.
    std::string host() const;

    // The status line answered for a request target (query ignored): pure,
    // for tests.
    static std::string statusFor(const std::string& target, const std::vector<std::string>& missing);

private:
    void serve();
    void answer(int fd);

    int listen_fd_ = -1;
    int port_ = 0;
    std::vector<std::string> missing_;
    Trace trace_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace appmgr::emu
