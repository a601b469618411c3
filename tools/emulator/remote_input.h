// A stand-in for the graphics system's remote-input service: a TCP listener
// on 127.0.0.1 that accepts the library's connection and collects the key
// commands written to it. The library connects once and keeps the
// connection; a new connection replaces the old one. Every wait is bounded.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace appmgr::emu {

class RemoteInputListener {
public:
    RemoteInputListener() = default;
    ~RemoteInputListener();
    RemoteInputListener(const RemoteInputListener&) = delete;
    RemoteInputListener& operator=(const RemoteInputListener&) = delete;

    // Listens on 127.0.0.1:port (0: a free port) and starts accepting. False
    // with the reason in *error when the port cannot be had, for instance
    // because another service listens on it.
    bool start(int port, std::string* error);
    void stop();
    int port() const { return port_; }

    // Takes every byte received so far, waiting up to timeout_ms for the
    // first zero byte (the end of a key command) when none is there yet.
    std::string take(int timeout_ms);

private:
    void serve();

    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::string received_;
};

}  // namespace appmgr::emu
