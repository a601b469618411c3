// The programs of tools/web-browser (Node.js) as children of a C++ process:
// the browser process (driving Debian's chromium) on a socket directory, or
// the test-suite server. A child is driven through its standard input (one
// command a line) and observed through the lines it writes on its standard
// output: answers ("ok WORD ...", "error WORD ...") and events
// ("event NAME ..."). Used by the emulator's real browser and by the tests
// of the browser process.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace appmgr::webbrowser {

// Where the Node.js programs are: the browser process and the test-suite
// server of tools/web-browser. The build gives the source tree's copies;
// APPMGR_WEB_BROWSER_DIR (a directory holding hbbtv-web-browser.js and
// testsuite.js) and APPMGR_NODE (the node binary) override them.
std::string nodeBinary();
std::string browserScript();
std::string testsuiteScript();

class NodeProgram {
public:
    // Called on the reader thread with each line as it arrives (before a
    // waiter can take it); must not call back into the program.
    using LineHook = std::function<void(const std::string& line)>;

    struct Options {
        LineHook on_line;
        // The child's standard error goes to /dev/null instead of ours.
        bool quiet_stderr = false;
    };

    // Starts `node script args...`; started() says whether it could.
    NodeProgram(const std::string& script, const std::vector<std::string>& args);
    NodeProgram(const std::string& script, const std::vector<std::string>& args, Options options);
    ~NodeProgram();
    NodeProgram(const NodeProgram&) = delete;
    NodeProgram& operator=(const NodeProgram&) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // Whether the child closed its standard output (it has ended, or is
    // ending).
    bool ended() const;

    // Writes one line to the child's standard input; false when it cannot.
    bool send(const std::string& line);
    // Sends a control command and waits (bounded) for its answer line:
    // "ok WORD rest" gives rest, "error ..." or a time-out gives nothing
    // (lastError() then says which).
    std::optional<std::string> command(const std::string& line, int timeout_ms = 10000);
    // The JSON value of a page expression (the rest of "ok eval"), or
    // "<no answer>".
    std::string eval(const std::string& expression, int timeout_ms = 10000);
    // Why the last command() gave nothing: its "error ..." line, "timed
    // out", "program ended" or "cannot write".
    std::string lastError() const;

    // Waits for the earliest event line "event NAME rest" not matched
    // before whose text starts with `prefix` ("loaded dvb://..."), and
    // takes it. Returns whether one came within the time.
    bool waitEvent(const std::string& prefix, int timeout_ms = 15000);
    // The same for any line starting with `prefix`; returns the line.
    std::optional<std::string> waitLine(const std::string& prefix, int timeout_ms = 15000);
    // The same for the first line not taken before that `match` accepts.
    std::optional<std::string> waitLine(const std::function<bool(const std::string&)>& match, int timeout_ms);
    // Whether such an event arrived (without waiting, without taking it).
    bool sawEvent(const std::string& prefix) const;

    // The lines kept so far (for failure messages): the last kKeptLines.
    std::string transcript() const;

    // Closes standard input (the programs then end by themselves) and waits
    // for the child; after the bound, asks it to end (SIGTERM), and after
    // five seconds more forces it. Returns its exit status (128 + signal
    // when a signal ended it).
    int finish(int timeout_ms = 10000);

    // Lines kept for waiters and the transcript; older ones are dropped.
    static constexpr std::size_t kKeptLines = 20000;

private:
    struct Line {
        std::string text;
        bool taken = false;
    };
    void start(const std::string& script, const std::vector<std::string>& args);
    void readLoop(int fd);

    Options options_;
    pid_t pid_ = -1;
    int in_ = -1;
    std::mutex write_mutex_;  // commands from several threads stay whole lines
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<Line> lines_;
    std::size_t dropped_ = 0;  // lines dropped from the front of lines_
    std::string last_error_;
    bool eof_ = false;
    int status_ = -1;
};

}  // namespace appmgr::webbrowser
