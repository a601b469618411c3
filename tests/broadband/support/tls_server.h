// HTTPS for the broadband tests: certificates made with the openssl command
// at test time, and `openssl s_server -WWW` serving the files of a directory
// on 127.0.0.1.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace appmgr::test {

// A CA, a server certificate for 127.0.0.1 / localhost and a client
// certificate issued by it, plus a second CA with a client certificate of its
// own (one the server does not trust). All PEM files in `dir`.
struct TlsMaterial {
    std::string ca_cert, ca_key;
    std::string server_cert, server_key;
    std::string client_cert, client_key;
    std::string other_ca_cert;
    std::string other_client_cert, other_client_key;

    // Makes the files in `dir` (ending with "/"); false with *error set when
    // an openssl command failed.
    bool make(const std::string& dir, std::string* error);
};

// `openssl s_server -WWW` on a free port of 127.0.0.1, serving the files of
// `docroot`. With `require_client_cert` the handshake fails unless the client
// presents a certificate issued by the material's CA. The server is killed
// when the object goes; it ends by itself after `lifetime` in any case.
class OpensslServer {
public:
    OpensslServer(const TlsMaterial& tls, const std::string& docroot, bool require_client_cert,
                  std::chrono::seconds lifetime = std::chrono::seconds(20));
    ~OpensslServer();
    OpensslServer(const OpensslServer&) = delete;
    OpensslServer& operator=(const OpensslServer&) = delete;

    // True once the server reported that it accepts connections.
    bool ready() const { return ready_; }
    int port() const { return port_; }
    // "https://127.0.0.1:<port><path>".
    std::string url(const std::string& path) const;
    // What the server printed so far (for failure messages).
    std::string output() const;

private:
    bool start(const TlsMaterial& tls, const std::string& docroot, bool require_client_cert,
               std::chrono::seconds lifetime);
    void stop();

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int port_ = 0;
    bool ready_ = false;
    mutable std::mutex mutex_;
    std::string output_;
    std::thread drain_;
};

}  // namespace appmgr::test
