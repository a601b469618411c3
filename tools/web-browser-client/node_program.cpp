#include "node_program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace appmgr::webbrowser {

namespace {

std::string fromEnvironment(const char* name, const std::string& fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : fallback;
}

std::string scriptPath(const char* file) {
    std::string dir = fromEnvironment("APPMGR_WEB_BROWSER_DIR", APPMGR_WEB_BROWSER_SOURCE_DIR);
    if (!dir.empty() && dir.back() != '/') dir += '/';
    return dir + file;
}

}  // namespace

std::string nodeBinary() { return fromEnvironment("APPMGR_NODE", APPMGR_NODE_BINARY); }
std::string browserScript() { return scriptPath("hbbtv-web-browser.js"); }
std::string testsuiteScript() { return scriptPath("testsuite.js"); }

NodeProgram::NodeProgram(const std::string& script, const std::vector<std::string>& args) {
    start(script, args);
}

NodeProgram::NodeProgram(const std::string& script, const std::vector<std::string>& args, Options options)
    : options_(std::move(options)) {
    start(script, args);
}

void NodeProgram::start(const std::string& script, const std::vector<std::string>& extra) {
    int to_child[2];
    int from_child[2];
    if (::pipe2(to_child, O_CLOEXEC) != 0) return;
    if (::pipe2(from_child, O_CLOEXEC) != 0) {
        ::close(to_child[0]);
        ::close(to_child[1]);
        return;
    }
    std::vector<std::string> args = {nodeBinary(), script};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
    if (options_.quiet_stderr) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (::posix_spawnp(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(to_child[0]);
    ::close(from_child[1]);
    in_ = to_child[1];
    const int out = from_child[0];
    reader_ = std::thread([this, out] { readLoop(out); });
}

NodeProgram::~NodeProgram() { finish(); }

void NodeProgram::readLoop(int fd) {
    std::string pending;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buf, static_cast<size_t>(n));
        for (size_t nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
            std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            if (options_.on_line) options_.on_line(line);
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back({std::move(line), false});
            if (lines_.size() > kKeptLines) {
                lines_.pop_front();
                ++dropped_;
            }
            cv_.notify_all();
        }
    }
    ::close(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    eof_ = true;
    cv_.notify_all();
}

bool NodeProgram::ended() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return eof_;
}

bool NodeProgram::send(const std::string& line) {
    const std::string text = line + "\n";
    std::lock_guard<std::mutex> lock(write_mutex_);
    return in_ >= 0 && ::write(in_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::optional<std::string> NodeProgram::command(const std::string& line, int timeout_ms) {
    const std::string word = line.substr(0, line.find(' '));
    size_t from;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        from = dropped_ + lines_.size();
    }
    const bool written = send(line);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!written) {
        last_error_ = "cannot write";
        return std::nullopt;
    }
    std::optional<std::string> answer;
    std::string error;
    const bool answered = cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (size_t i = from > dropped_ ? from - dropped_ : 0; i < lines_.size(); ++i) {
            const std::string& l = lines_[i].text;
            if (l.rfind("ok " + word, 0) == 0) {
                answer = l.size() > word.size() + 4 ? l.substr(word.size() + 4) : "";
                return true;
            }
            if (l.rfind("error " + word, 0) == 0) {
                error = l;
                return true;
            }
        }
        return eof_;
    });
    last_error_ = answer ? "" : !error.empty() ? error : answered ? "program ended" : "timed out";
    return answer;
}

std::string NodeProgram::lastError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_error_;
}

std::string NodeProgram::eval(const std::string& expression, int timeout_ms) {
    return command("eval " + expression, timeout_ms).value_or("<no answer>");
}

bool NodeProgram::waitEvent(const std::string& prefix, int timeout_ms) {
    return waitLine("event " + prefix, timeout_ms).has_value();
}

std::optional<std::string> NodeProgram::waitLine(const std::string& prefix, int timeout_ms) {
    return waitLine([&prefix](const std::string& line) { return line.rfind(prefix, 0) == 0; }, timeout_ms);
}

std::optional<std::string> NodeProgram::waitLine(const std::function<bool(const std::string&)>& match,
                                                 int timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<std::string> found;
    cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (Line& l : lines_) {
            if (!l.taken && match(l.text)) {
                l.taken = true;
                found = l.text;
                return true;
            }
        }
        return false;
    });
    return found;
}

bool NodeProgram::sawEvent(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Line& l : lines_)
        if (l.text.rfind("event " + prefix, 0) == 0) return true;
    return false;
}

std::string NodeProgram::transcript() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (const Line& l : lines_) out += l.text + "\n";
    return out;
}

int NodeProgram::finish(int timeout_ms) {
    {
        std::lock_guard<std::mutex> lock(write_mutex_);
        if (in_ >= 0) {
            ::close(in_);
            in_ = -1;
        }
    }
    if (pid_ > 0) {
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        pid_t done = 0;
        while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (done == 0) {
            // Our own child, by its id, did not end in time: asked first
            // (it then ends its chromium too), forced after a while.
            ::kill(pid_, SIGTERM);
            const auto forced = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < forced)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (done == 0) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
            }
        }
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        pid_ = -1;
    }
    if (reader_.joinable()) reader_.join();
    return status_;
}

}  // namespace appmgr::webbrowser
