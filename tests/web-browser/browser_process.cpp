#include "browser_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

extern char** environ;

namespace appmgr::test {

std::unique_ptr<BrowserProcess> BrowserProcess::browser(const std::string& socket_dir) {
    return std::make_unique<BrowserProcess>(APPMGR_WEB_BROWSER_SCRIPT,
                                            std::vector<std::string>{"--socket-dir", socket_dir});
}

BrowserProcess::BrowserProcess(const std::string& script, const std::vector<std::string>& extra) {
    int to_child[2];
    int from_child[2];
    if (::pipe2(to_child, O_CLOEXEC) != 0) return;
    if (::pipe2(from_child, O_CLOEXEC) != 0) {
        ::close(to_child[0]);
        ::close(to_child[1]);
        return;
    }
    std::vector<std::string> args = {APPMGR_NODE, script};
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
    if (::posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(to_child[0]);
    ::close(from_child[1]);
    in_ = to_child[1];
    const int out = from_child[0];
    reader_ = std::thread([this, out] { readLoop(out); });
}

BrowserProcess::~BrowserProcess() { finish(); }

void BrowserProcess::readLoop(int fd) {
    std::string pending;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buf, static_cast<size_t>(n));
        for (size_t nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(pending.substr(0, nl));
            taken_.push_back(false);
            pending.erase(0, nl + 1);
            cv_.notify_all();
        }
    }
    ::close(fd);
    std::lock_guard<std::mutex> lock(mutex_);
    eof_ = true;
    cv_.notify_all();
}

std::optional<std::string> BrowserProcess::command(const std::string& line, int timeout_ms) {
    const std::string word = line.substr(0, line.find(' '));
    size_t from;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        from = lines_.size();
    }
    const std::string text = line + "\n";
    if (in_ < 0 || ::write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return std::nullopt;
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<std::string> answer;
    bool answered = cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (size_t i = from; i < lines_.size(); ++i) {
            const std::string& l = lines_[i];
            if (l.rfind("ok " + word, 0) == 0) {
                answer = l.size() > word.size() + 4 ? l.substr(word.size() + 4) : "";
                return true;
            }
            if (l.rfind("error " + word, 0) == 0) return true;
        }
        return eof_;
    });
    return answered ? answer : std::nullopt;
}

std::string BrowserProcess::eval(const std::string& expression, int timeout_ms) {
    return command("eval " + expression, timeout_ms).value_or("<no answer>");
}

bool BrowserProcess::waitEvent(const std::string& prefix, int timeout_ms) {
    return waitLine("event " + prefix, timeout_ms).has_value();
}

std::optional<std::string> BrowserProcess::waitLine(const std::string& prefix, int timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::optional<std::string> found;
    cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        for (size_t i = 0; i < lines_.size(); ++i) {
            if (!taken_[i] && lines_[i].rfind(prefix, 0) == 0) {
                taken_[i] = true;
                found = lines_[i];
                return true;
            }
        }
        return false;
    });
    return found;
}

bool BrowserProcess::sawEvent(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_)
        if (l.rfind("event " + prefix, 0) == 0) return true;
    return false;
}

std::string BrowserProcess::transcript() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (const auto& l : lines_) out += l + "\n";
    return out;
}

int BrowserProcess::finish(int timeout_ms) {
    if (in_ >= 0) {
        ::close(in_);
        in_ = -1;
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

}  // namespace appmgr::test
