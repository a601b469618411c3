// The programs of tools/web-browser (Node.js) as children of a test: the
// browser process (driving Debian's chromium) started on a socket
// directory, or the test-suite server; driven through standard input,
// observed through the lines they write (answers and events).
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace appmgr::test {

class BrowserProcess {
public:
    // Starts `node script args...`.
    BrowserProcess(const std::string& script, const std::vector<std::string>& args);
    // The browser process on a socket directory.
    static std::unique_ptr<BrowserProcess> browser(const std::string& socket_dir);
    ~BrowserProcess();
    BrowserProcess(const BrowserProcess&) = delete;
    BrowserProcess& operator=(const BrowserProcess&) = delete;

    bool started() const { return pid_ > 0; }

    // Sends a control command and waits (bounded) for its answer line:
    // "ok WORD rest" gives rest, "error ..." or a time-out gives nothing.
    std::optional<std::string> command(const std::string& line, int timeout_ms = 10000);
    // The JSON value of a page expression (the rest of "ok eval").
    std::string eval(const std::string& expression, int timeout_ms = 10000);

    // Waits for the earliest event line "event NAME rest" not matched
    // before whose text starts with `prefix` ("loaded dvb://..."), and
    // takes it. Returns whether one came within the time.
    bool waitEvent(const std::string& prefix, int timeout_ms = 15000);
    // The same for any line starting with `prefix`; returns the line.
    std::optional<std::string> waitLine(const std::string& prefix, int timeout_ms = 15000);
    // Whether such an event arrived (without waiting, without taking it).
    bool sawEvent(const std::string& prefix) const;

    // Every line written so far (for failure messages).
    std::string transcript() const;

    // Closes standard input (the process then ends by itself) and waits for
    // it; after the bound, ends it.
    int finish(int timeout_ms = 10000);

private:
    void readLoop(int fd);

    pid_t pid_ = -1;
    int in_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> lines_;
    std::vector<bool> taken_;
    bool eof_ = false;
    int status_ = -1;
};

}  // namespace appmgr::test
