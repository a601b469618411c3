#include "http_stub.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "scenario.h"

namespace appmgr::emu {

namespace {

constexpr std::chrono::milliseconds kRequestTime{2000};
constexpr std::size_t kMaxRequest = 8192;
constexpr long kMaxServedBytes = 4 << 20;  // larger files are refused (500)

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
    return server_.start(0, [this](int fd) { answer(fd); }, error);
}

void HttpStub::stop() { server_.stop(); }

std::string HttpStub::host() const { return "127.0.0.1:" + std::to_string(server_.port()); }

void HttpStub::answer(int fd) {
    const loopback::Request request = server_.readRequest(fd, kMaxRequest, kRequestTime);
    // A browser opens connections ahead of need and may never use them: one
    // that brought nothing is closed without an answer (a 400 there would be
    // taken as the answer to a request the browser sends on it later).
    if (request.head.empty()) return;
    if (request.method.empty()) {
        if (trace_) trace_("http      malformed request dropped");
        loopback::sendAll(fd, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        return;
    }
    const HttpAnswer a = answerFor(request.target, config_, host());
    std::string response = "HTTP/1.1 " + a.status + "\r\nContent-Type: " + a.content_type +
                           "\r\nContent-Length: " + std::to_string(a.body.size()) +
                           "\r\nConnection: close\r\n\r\n";
    if (request.method != "HEAD") response += a.body;
    if (trace_)
        trace_("http      " + request.method + " " + request.target + " -> " + a.status +
               (a.source.empty() ? "" : " (" + a.content_type + ", " + std::to_string(a.body.size()) +
                                            " bytes from " + a.source + ")"));
    loopback::sendAll(fd, response);
}

}  // namespace appmgr::emu
