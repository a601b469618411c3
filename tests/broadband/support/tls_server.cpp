#include "tls_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#ifndef APPMGR_OPENSSL_EXECUTABLE
#define APPMGR_OPENSSL_EXECUTABLE "/usr/bin/openssl"
#endif
#ifndef APPMGR_TIMEOUT_EXECUTABLE
#define APPMGR_TIMEOUT_EXECUTABLE "/usr/bin/timeout"
#endif

namespace appmgr::test {

namespace {

using Clock = std::chrono::steady_clock;

bool run(const std::string& command, const std::string& log, std::string* error) {
    const std::string full = command + " >>" + log + " 2>&1";
    if (std::system(full.c_str()) == 0) return true;
    if (error != nullptr) *error = "failed: " + command + " (see " + log + ")";
    return false;
}

// A port of 127.0.0.1 that was free a moment ago.
int free_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

}  // namespace

bool TlsMaterial::make(const std::string& dir, std::string* error) {
    const std::string openssl = APPMGR_OPENSSL_EXECUTABLE;
    const std::string log = dir + "openssl.log";
    const std::string newkey = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes";
    ca_cert = dir + "ca.pem";
    ca_key = dir + "ca.key";
    server_cert = dir + "server.pem";
    server_key = dir + "server.key";
    client_cert = dir + "client.pem";
    client_key = dir + "client.key";
    other_ca_cert = dir + "other-ca.pem";
    const std::string other_ca_key = dir + "other-ca.key";
    other_client_cert = dir + "other-client.pem";
    other_client_key = dir + "other-client.key";
    const std::string server_ext = dir + "server.ext";
    const std::string client_ext = dir + "client.ext";

    auto make_ca = [&](const std::string& cert, const std::string& key, const std::string& cn) {
        return run(openssl + " req -x509" + newkey + " -keyout " + key + " -out " + cert +
                       " -days 2 -subj '/CN=" + cn + "'" +
                       " -addext basicConstraints=critical,CA:TRUE" +
                       " -addext keyUsage=critical,keyCertSign,cRLSign",
                   log, error);
    };
    auto issue = [&](const std::string& cert, const std::string& key, const std::string& cn,
                     const std::string& ca, const std::string& cakey, const std::string& ext) {
        const std::string csr = cert + ".csr";
        return run(openssl + " req" + newkey + " -keyout " + key + " -out " + csr +
                       " -subj '/CN=" + cn + "'",
                   log, error) &&
               run(openssl + " x509 -req -in " + csr + " -CA " + ca + " -CAkey " + cakey +
                       " -CAcreateserial -days 2 -out " + cert + " -extfile " + ext,
                   log, error);
    };
    return run("printf "
               "'subjectAltName=IP:127.0.0.1,DNS:localhost\\nextendedKeyUsage=serverAuth\\n' > " +
                   server_ext,
               log, error) &&
           run("printf 'extendedKeyUsage=clientAuth\\n' > " + client_ext, log, error) &&
           make_ca(ca_cert, ca_key, "appmgr test CA") &&
           issue(server_cert, server_key, "127.0.0.1", ca_cert, ca_key, server_ext) &&
           issue(client_cert, client_key, "appmgr test client", ca_cert, ca_key, client_ext) &&
           make_ca(other_ca_cert, other_ca_key, "unrelated CA") &&
           issue(other_client_cert, other_client_key, "stranger", other_ca_cert, other_ca_key,
                 client_ext);
}

OpensslServer::OpensslServer(const TlsMaterial& tls, const std::string& docroot,
                             bool require_client_cert, std::chrono::seconds lifetime) {
    // The port may be taken between the probe and s_server's bind: retry.
    for (int attempt = 0; attempt < 5 && !ready_; ++attempt) {
        if (start(tls, docroot, require_client_cert, lifetime)) break;
        stop();
    }
}

OpensslServer::~OpensslServer() { stop(); }

std::string OpensslServer::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(port_) + path;
}

std::string OpensslServer::output() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return output_;
}

bool OpensslServer::start(const TlsMaterial& tls, const std::string& docroot,
                          bool require_client_cert, std::chrono::seconds lifetime) {
    port_ = free_port();
    if (port_ == 0) return false;
    std::vector<std::string> args = {APPMGR_TIMEOUT_EXECUTABLE,
                                     std::to_string(lifetime.count()),
                                     APPMGR_OPENSSL_EXECUTABLE,
                                     "s_server",
                                     "-accept",
                                     "127.0.0.1:" + std::to_string(port_),
                                     "-cert",
                                     tls.server_cert,
                                     "-key",
                                     tls.server_key,
                                     "-WWW"};
    if (require_client_cert) {
        for (const char* a : {"-Verify", "1", "-verify_return_error", "-CAfile"}) args.push_back(a);
        args.push_back(tls.ca_cert);
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
    pid_ = ::fork();
    if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec.
        if (::chdir(docroot.c_str()) != 0) ::_exit(126);
        ::dup2(pipe_fds[1], STDOUT_FILENO);
        ::dup2(pipe_fds[1], STDERR_FILENO);
        int devnull = ::open("/dev/null", O_RDONLY);
        if (devnull >= 0) ::dup2(devnull, STDIN_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipe_fds[1]);
    out_fd_ = pipe_fds[0];
    if (pid_ < 0) return false;

    // s_server prints "ACCEPT" once it listens; it exits at once when the
    // port is taken.
    const auto until = Clock::now() + std::chrono::seconds(5);
    std::string seen;
    while (seen.find("ACCEPT") == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        if (left <= 0) break;
        pollfd p{out_fd_, POLLIN, 0};
        int rc = ::poll(&p, 1, static_cast<int>(left));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) break;
        char buf[1024];
        ssize_t n = ::read(out_fd_, buf, sizeof(buf));
        if (n <= 0) break;
        seen.append(buf, static_cast<std::size_t>(n));
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        output_ += seen;
    }
    ready_ = seen.find("ACCEPT") != std::string::npos;
    if (!ready_) return false;
    // Keep reading so that s_server never blocks on a full pipe.
    drain_ = std::thread([this] {
        char buf[1024];
        for (;;) {
            ssize_t n = ::read(out_fd_, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            std::lock_guard<std::mutex> lock(mutex_);
            if (output_.size() < 65536) output_.append(buf, static_cast<std::size_t>(n));
        }
    });
    return true;
}

void OpensslServer::stop() {
    if (pid_ > 0) {
        // `timeout` passes the signal on to s_server.
        ::kill(pid_, SIGTERM);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    pid_ = -1;
    if (drain_.joinable()) drain_.join();
    if (out_fd_ >= 0) ::close(out_fd_);
    out_fd_ = -1;
}

}  // namespace appmgr::test
