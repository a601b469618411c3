// Output and checking helpers of appmgr-emu: whole-line output from many
// threads, the column layout of the trace, failure exits, and the logs of
// frames and events that steps wait for.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "browser_standin.h"

namespace appmgr::emu {

using standin::Connection;
using standin::Frame;

// --verbose: library log lines and raw frames are printed too.
extern bool g_verbose;
// The trace (every call, message and decision) is printed; off, only what
// report() writes is (a test-suite run prints its steps alone).
extern bool g_trace;

// Writes one line of the trace to stdout, whole (lines come from several
// threads).
void emit(const std::string& line);
// Writes one line to stdout whether or not the trace is printed.
void report(const std::string& line);

std::string padded(const std::string& s, std::size_t width);
// Connection column: "Application   ".
std::string col(Connection c);
// "141 time zone              " : id and name columns of a message line.
std::string idAndName(int id, const char* name);
std::string trimRight(std::string s);
std::string quoted(const std::string& s);
std::string fieldList(const std::vector<std::string>& fields,
                      const std::optional<std::string>& trailing = std::nullopt);

// The trace lines of messages on the browser sockets: a frame of the
// library ("<- 50 ..."), a message of the browser ("-> 82 ..."), the
// library's reply to request id (records shown field by field as well;
// carousel content as its header and size).
void emitFrame(Connection c, const Frame& f);
void emitSent(Connection c, const std::string& raw);
void emitReply(Connection c, int id, const std::string& reply);
// The id a browser message starts with ("82|..."), or -1.
int messageId(std::string_view raw);

const char* stateName(int s);
// The library writes its state from its own threads; read it atomically.
int libraryState();

// Text put before every failure message (the step that failed); empty for
// the built-in scenario.
void setFailContext(const std::string& context);
// A directory the run made for itself, removed however the run ends.
void removeOnExit(const std::string& dir);
// Removes those directories now (the normal end of a run).
void removeRunFiles();
// Prints the failure and ends the process with status 1 at once: library
// threads may still be blocked inside the library.
[[noreturn]] void fail(const std::string& why);

void step(const std::string& what);
void libraryCall(const std::string& call);
void libraryResult(int result);
// The result line of a call that returns nothing.
void libraryDone();
void expectResult(const std::string& call, int result, int expected);
void expectState(int expected);

// Shows a library call, makes it, shows and checks its result.
template <typename Fn>
int callLibrary(const std::string& call, Fn fn, int expected) {
    libraryCall(call);
    int r = fn();
    libraryResult(r);
    expectResult(call, r, expected);
    return r;
}

// Things seen during a run (frames, decisions) that steps wait for. A wait
// claims the earliest unclaimed entry that matches, so two waits for the
// same kind of entry need two entries.
template <typename T>
class ClaimLog {
public:
    using Match = std::function<bool(const T&)>;

    void add(T entry) {
        std::lock_guard<std::mutex> g(mu_);
        seen_.push_back({std::move(entry), false});
        cv_.notify_all();
    }
    bool waitFor(const Match& match, int timeout_ms) {
        std::unique_lock<std::mutex> g(mu_);
        return cv_.wait_for(g, std::chrono::milliseconds(timeout_ms), [&] {
            for (Slot& s : seen_) {
                if (s.claimed || !match(s.entry)) continue;
                s.claimed = true;
                return true;
            }
            return false;
        });
    }
    // The earliest unclaimed match, left unclaimed.
    std::optional<T> findUnclaimed(const Match& match) {
        std::lock_guard<std::mutex> g(mu_);
        for (const Slot& s : seen_)
            if (!s.claimed && match(s.entry)) return s.entry;
        return std::nullopt;
    }
    std::vector<T> unclaimed() {
        std::lock_guard<std::mutex> g(mu_);
        std::vector<T> out;
        for (const Slot& s : seen_)
            if (!s.claimed) out.push_back(s.entry);
        return out;
    }
    std::size_t count() {
        std::lock_guard<std::mutex> g(mu_);
        return seen_.size();
    }

private:
    struct Slot {
        T entry;
        bool claimed;
    };
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Slot> seen_;
};

struct SeenFrame {
    Connection conn;
    Frame frame;
};

class FrameLog : public ClaimLog<SeenFrame> {
public:
    void add(Connection c, Frame f) { ClaimLog<SeenFrame>::add({c, std::move(f)}); }
    // Waits for a frame on c with this id (and these fields, if given).
    bool waitFor(Connection c, int id, const std::vector<std::string>* fields, int timeout_ms);
};

// Platform trace hook: "platform  name(details)".
void onPlatformCall(const char* function, const char* details, void* user);
// Renders a library log line for the trace ("log       ...").
void emitLogLine(const char* line);

}  // namespace appmgr::emu
