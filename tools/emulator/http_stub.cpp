#include "http_stub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "scenario.h"

namespace appmgr::emu {

namespace {

constexpr int kPollMs = 100;
constexpr int kRequestMs = 2000;
constexpr std::size_t kMaxRequest = 8192;
constexpr long kMaxServedBytes = 4 << 20;  // larger files are refused (500)

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

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decoding; nullopt for a malformed escape.
std::optional<std::string> percentDecoded(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        const int hi = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
        const int lo = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
    }
    return out;
}

std::string realPath(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

bool isTextType(const std::string& type) {
    return type.rfind("text/", 0) == 0 || type.find("xml") != std::string::npos ||
           type == "application/javascript" || type == "application/json";
}

HttpAnswer notFound() { return {"404 Not Found", "text/plain", "not found\n", ""}; }

}  // namespace

HttpStub::~HttpStub() { stop(); }

std::optional<std::string> HttpStub::fileFor(const std::string& root, const std::string& path) {
    if (path.empty() || path[0] != '/') return std::nullopt;
    std::string relative;
    std::size_t b = 1;
    while (b < path.size()) {
        std::size_t slash = path.find('/', b);
        const std::string raw = path.substr(b, slash == std::string::npos ? std::string::npos : slash - b);
        std::optional<std::string> part = percentDecoded(raw);
        if (!part || part->empty() || *part == "." || *part == ".." ||
            part->find_first_of(std::string("/\\\0", 3)) != std::string::npos)
            return std::nullopt;
        relative += "/" + *part;
        if (slash == std::string::npos) break;
        b = slash + 1;
    }
    std::string file = root + relative;
    struct stat st {};
    if (::stat(file.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) file += "/index.html";
    return file;
}

std::string HttpStub::contentType(const std::string& file) {
    static const std::pair<const char*, const char*> kTypes[] = {
        {".html", "text/html"},
        {".htm", "text/html"},
        {".xml", "text/xml"},
        {".aitx", "application/vnd.dvb.ait+xml"},
        {".txt", "text/plain"},
        {".css", "text/css"},
        {".js", "application/javascript"},
        {".json", "application/json"},
        {".png", "image/png"},
        {".jpg", "image/jpeg"},
    };
    const std::size_t slash = file.rfind('/');
    const std::size_t dot = file.rfind('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
        std::string ext = file.substr(dot);
        for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        for (const auto& t : kTypes)
            if (ext == t.first) return t.second;
    }
    return "application/octet-stream";
}

HttpAnswer HttpStub::answerFor(const std::string& target, const Config& config, const std::string& host) {
    const std::string path = target.substr(0, target.find_first_of("?#"));
    if (std::find(config.missing.begin(), config.missing.end(), path) != config.missing.end())
        return notFound();
    if (!config.root)
        return {"200 OK", "text/html",
                "<!DOCTYPE html><html><body>appmgr-emu " + target + "</body></html>\n", ""};

    std::optional<std::string> file = fileFor(*config.root, path);
    if (!file) return notFound();
    // The file must exist and, links resolved, still lie inside the root.
    const std::string real = realPath(*file);
    const std::string root = realPath(*config.root);
    struct stat st {};
    if (real.empty() || root.empty() || real.compare(0, root.size(), root) != 0 ||
        (real.size() > root.size() && real[root.size()] != '/') || ::stat(real.c_str(), &st) != 0 ||
        !S_ISREG(st.st_mode))
        return notFound();
    const std::string shown = file->substr(config.root->size());
    if (st.st_size > kMaxServedBytes)
        return {"500 Internal Server Error", "text/plain", "file too large\n", shown};
    std::ifstream in(real, std::ios::binary);
    std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof()) return {"500 Internal Server Error", "text/plain", "read error\n", shown};
    const std::string type = contentType(real);
    if (isTextType(type)) body = expandPlaceholders(body, host);
    return {"200 OK", type, body, shown};
}

bool HttpStub::start(Config config, Trace trace, std::string* error) {
    config_ = std::move(config);
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
    const HttpAnswer a = answerFor(target, config_, host());
    std::string response = "HTTP/1.1 " + a.status + "\r\nContent-Type: " + a.content_type +
                           "\r\nContent-Length: " + std::to_string(a.body.size()) +
                           "\r\nConnection: close\r\n\r\n";
    if (method != "HEAD") response += a.body;
    if (trace_)
        trace_("http      " + method + " " + target + " -> " + a.status +
               (a.source.empty() ? "" : " (" + a.content_type + ", " + std::to_string(a.body.size()) +
                                            " bytes from " + a.source + ")"));
    sendAll(fd, response);
}

}  // namespace appmgr::emu
