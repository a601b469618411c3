#include "chromium_side.h"

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "node_program.h"
#include "socket_relay.h"

namespace appmgr::emu {

namespace {

using webbrowser::NodeProgram;

// Chromium's start (about 0.4 s alone, several seconds on a loaded machine)
// and the five connections.
constexpr int kBrowserStartMs = 30000;
constexpr int kStartPollMs = 200;
constexpr int kCommandMs = 10000;
constexpr int kEndMs = 10000;  // the browser ends by itself after command 160
constexpr int kShotAttempts = 4;
constexpr int kShotRetryMs = 300;

// Events of the browser process that only repeat a library command already
// shown as a frame.
const char* const kEchoEvents[] = {"callback", "command", "keyset", "boundary", "timezone", "user-agent"};

// "event loaded dvb://..." as "page      loaded dvb://...".
void showEvent(const std::string& line) {
    if (line.rfind("event ", 0) != 0) return;
    const std::string rest = line.substr(6);
    const std::string name = rest.substr(0, rest.find(' '));
    for (const char* echo : kEchoEvents)
        if (name == echo) return;
    emit("page      " + rest);
}

void appendUtf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

}  // namespace

std::optional<std::string> jsonString(const std::string& text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return std::nullopt;
    std::string out;
    for (std::size_t i = 1; i + 1 < text.size(); ++i) {
        char c = text[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i + 1 >= text.size()) return std::nullopt;
        switch (text[i]) {
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case 'r': out += '\r'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'u': {
                if (i + 5 > text.size() - 1) return std::nullopt;
                unsigned cp = static_cast<unsigned>(std::stoul(text.substr(i + 1, 4), nullptr, 16));
                i += 4;
                // A surrogate pair stands for one character beyond 0xFFFF.
                if (cp >= 0xD800 && cp < 0xDC00 && i + 7 <= text.size() - 1 && text[i + 1] == '\\' &&
                    text[i + 2] == 'u') {
                    const unsigned low = static_cast<unsigned>(std::stoul(text.substr(i + 3, 4), nullptr, 16));
                    if (low >= 0xDC00 && low < 0xE000) {
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                        i += 6;
                    }
                }
                appendUtf8(out, cp);
                break;
            }
            default: out += text[i]; break;  // \" \\ \/
        }
    }
    return out;
}

struct ChromiumSide::Impl {
    ChromiumOptions options;
    std::string dir;
    std::unique_ptr<SocketRelay> relay;
    std::unique_ptr<NodeProgram> node;
};

ChromiumSide::ChromiumSide(ChromiumOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
}

ChromiumSide::~ChromiumSide() { disconnect(); }

std::string ChromiumSide::description() const {
    return std::string("Chromium (") + (impl_->options.headed ? "headed" : "headless") +
           ", tools/web-browser) through a relay on /tmp/UNIX_*.domain";
}

void ChromiumSide::connect(FrameLog& frames) {
    char tmpl[] = "/tmp/appmgr-emu-browser-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) fail("cannot make the browser's socket directory in /tmp");
    impl_->dir = tmpl;
    removeOnExit(impl_->dir);

    RelayHooks hooks;
    hooks.frame = [&frames](Connection c, const Frame& f) {
        emitFrame(c, f);
        frames.add(c, f);
    };
    hooks.malformed = [](Connection c, const std::string& bytes) {
        emit(col(c) + "<- malformed data (relayed, not decoded): " + quoted(bytes.substr(0, 160)));
    };
    hooks.browser_message = [](Connection c, const std::string& raw) { emitSent(c, raw); };
    hooks.browser_reply = [](Connection c, int id, const std::string& reply) { emitReply(c, id, reply); };
    hooks.note = [](Connection c, const std::string& what) { emit(col(c) + "-- " + what); };
    impl_->relay = std::make_unique<SocketRelay>("/tmp/", impl_->dir, std::move(hooks));
    std::string error;
    if (!impl_->relay->start(&error)) fail("browser relay: " + error);

    std::vector<std::string> args{"--socket-dir", impl_->relay->browserDir()};
    if (impl_->options.headed) args.push_back("--headed");
    NodeProgram::Options node_options;
    node_options.on_line = showEvent;
    impl_->node =
        std::make_unique<NodeProgram>(webbrowser::browserScript(), std::move(args), std::move(node_options));
    if (!impl_->node->started())
        fail("cannot start the browser process: " + webbrowser::nodeBinary() + " " + webbrowser::browserScript() +
             " (scripts/bootstrap.sh installs node, chromium and the npm packages)");
    emit("page      browser process " + std::to_string(impl_->node->pid()) + " on " + impl_->relay->browserDir());
    // Connected, or ended (Chromium did not start: its reason is on
    // standard error), or out of time.
    bool paired = false;
    for (int waited = 0; !paired && waited < kBrowserStartMs && !impl_->node->ended(); waited += kStartPollMs)
        paired = impl_->relay->waitPaired(kStartPollMs);
    if (!paired) {
        const std::string said = impl_->node->transcript();
        fail(std::string(impl_->node->ended() ? "the browser process ended before it connected"
                                              : "the browser did not connect within " +
                                                    std::to_string(kBrowserStartMs / 1000) + " s") +
             (said.empty() ? " (see its messages above)" : "; it printed:\n" + said));
    }
}

bool ChromiumSide::send(Connection c, const std::string& raw) {
    return impl_->relay && impl_->relay->send(c, raw, kCommandMs);
}

std::optional<std::string> ChromiumSide::readReply(Connection c, int timeout_ms) {
    return impl_->relay ? impl_->relay->readReply(c, timeout_ms) : std::nullopt;
}

std::optional<std::string> ChromiumSide::readRaw(Connection c, std::size_t max, int timeout_ms) {
    return impl_->relay ? impl_->relay->readRaw(c, max, timeout_ms) : std::nullopt;
}

standin::ReadStatus ChromiumSide::lastReadStatus(Connection c) {
    return impl_->relay ? impl_->relay->lastReadStatus(c) : standin::ReadStatus::NotConnected;
}

std::optional<std::string> ChromiumSide::command(const std::string& line, int timeout_ms, std::string* error) {
    if (!impl_->node) {
        *error = "no browser process";
        return std::nullopt;
    }
    std::optional<std::string> answer = impl_->node->command(line, timeout_ms);
    if (!answer) *error = impl_->node->lastError();
    return answer;
}

bool ChromiumSide::waitEvent(const std::string& prefix, int timeout_ms) {
    return impl_->node && impl_->node->waitEvent(prefix, timeout_ms);
}

std::optional<std::string> ChromiumSide::pressKey(const RemoteKey& key, std::string* error) {
    // "ok key VK_RED delivered"
    std::optional<std::string> answer = command("key " + key.name, kCommandMs, error);
    if (!answer) return std::nullopt;
    return answer->substr(answer->rfind(' ') + 1);
}

std::optional<std::string> ChromiumSide::pageText(const std::string& id, std::string* error) {
    std::string quoted_id = "\"";
    for (char c : id) quoted_id += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
    quoted_id += "\"";
    std::optional<std::string> answer =
        command("eval (function () { var e = document.getElementById(" + quoted_id +
                    "); return e ? e.textContent.replace(/\\s+/g, ' ').trim() : null; })()",
                kCommandMs, error);
    if (!answer) return std::nullopt;
    std::optional<std::string> text = jsonString(*answer);
    if (!text) *error = "the page has no element \"" + id + "\"";
    return text;
}

std::optional<std::string> ChromiumSide::control(const std::string& line, std::string* error) {
    return command(line, kCommandMs, error);
}

bool ChromiumSide::waitPageLoaded(const std::string& url, int timeout_ms) {
    return waitEvent("loaded " + url, timeout_ms);
}

void ChromiumSide::afterStep(const std::string& step_key) {
    if (!impl_->options.screenshots || !impl_->node) return;
    const std::string file = *impl_->options.screenshots + "/" + step_key + ".png";
    std::string error;
    // A page that is being replaced cannot be captured: again a little
    // later, a few times.
    bool taken = false;
    for (int attempt = 0; attempt < kShotAttempts && !taken; ++attempt) {
        if (attempt) std::this_thread::sleep_for(std::chrono::milliseconds(kShotRetryMs));
        taken = command("screenshot " + file, kCommandMs, &error).has_value();
    }
    emit(taken ? "page      screenshot " + file : "page      no screenshot " + file + ": " + error);
}

void ChromiumSide::disconnect() {
    if (impl_->node) {
        // After command 160 the browser ends by itself; closing its input
        // ends it otherwise.
        const int status = impl_->node->finish(kEndMs);
        if (status != 0) emit("page      the browser process ended with status " + std::to_string(status));
        impl_->node.reset();
    }
    if (impl_->relay) {
        impl_->relay->stop();
        impl_->relay.reset();
    }
}

}  // namespace appmgr::emu
