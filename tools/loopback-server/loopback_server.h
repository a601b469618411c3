// A small TCP server on 127.0.0.1 for HTTP/1.1 stand-ins: it listens on a
// given or a free port and hands each accepted connection, one at a time, to
// a handler on its own thread. Every wait a handler makes through it ends as
// soon as the server stops, or at the latest when its lifetime has passed.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace appmgr::loopback {

// A listening socket on 127.0.0.1:*port (0: a free port, written back to
// *port). -1 with the reason in *error when the port cannot be had.
int listenOn(int* port, std::string* error);

// Writes all of data; false when the peer has gone.
bool sendAll(int fd, const std::string& data);
// A client connection to 127.0.0.1:port whose receives give up after
// receive_timeout_ms (0: block); -1 when the connection fails.
int connectTo(int port, int receive_timeout_ms = 2000);

struct Request {
    std::string method;  // "GET"; empty when the request line is malformed
    std::string target;  // "/path?query"
    std::string head;    // what was read of the request line and header lines
    bool complete = false;  // the blank line ending the head arrived
};

class Server {
public:
    using Clock = std::chrono::steady_clock;
    // Serves one connection; the server closes it when the handler returns.
    using Handler = std::function<void(int fd)>;

    Server() = default;
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Listens on 127.0.0.1:port (0: a free port) and starts serving. A zero
    // lifetime means until stop(). False with the reason in *error when the
    // socket cannot be set up.
    bool start(int port, Handler handler, std::string* error,
               std::chrono::milliseconds lifetime = std::chrono::milliseconds(0));
    // Wakes every wait of the handler and joins the serving thread.
    void stop();
    int port() const { return port_; }

    // For handlers. Reads a request head of at most max_bytes, within timeout.
    Request readRequest(int fd, std::size_t max_bytes, std::chrono::milliseconds timeout) const;
    // Shuts down the sending side and waits (at most linger) for the peer to
    // close, so that closing cannot reset the connection before the peer has
    // read the answer.
    void finish(int fd, std::chrono::milliseconds linger) const;
    // Returns once the server stops or its lifetime has passed.
    void waitForStop() const;
    // Waits at most `duration`: less when the server stops or the peer sends
    // or closes. True when the whole duration passed.
    bool pause(int fd, std::chrono::milliseconds duration) const;

private:
    void run();
    // True when fd (ignored when negative) is readable before `until`, and
    // the server is not stopping.
    bool waitReadable(int fd, Clock::time_point until) const;

    int listen_fd_ = -1;
    int wake_pipe_[2] = {-1, -1};
    int port_ = 0;
    Clock::time_point deadline_ = Clock::time_point::max();
    Handler handler_;
    std::thread thread_;
};

}  // namespace appmgr::loopback
