// What the benchmark programs share: per-iteration samples with their
// percentiles, pinning every thread of the process to one core, a raw
// UNIX-socket client, and the Markdown rows of bench/README.md, where each
// figure stands beside the limit it is compared with (its baseline,
// measured in the same run) and the ratio of the two.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace appmgr::bench {

// ---- samples -------------------------------------------------------------------------

// Durations of single iterations, in nanoseconds.
class Samples {
public:
    using Clock = std::chrono::steady_clock;
    void reserve(std::size_t n) { ns_.reserve(n); }
    void add(Clock::time_point begin, Clock::time_point end) {
        ns_.push_back(static_cast<double>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count()));
    }
    void add_ns(double ns) { ns_.push_back(ns); }
    std::size_t size() const { return ns_.size(); }
    // The p-th percentile (0..100, nearest rank); 0 without samples.
    double percentile(double p) const;

private:
    std::vector<double> ns_;
};

// ---- cores -----------------------------------------------------------------------------

// Every thread of the process (the library's included) on one core, or
// back on every core the process started with. Threads started later
// inherit the calling thread's set.
bool pin_process_to_one_core();
// The calling thread on one core, every other thread on another: each
// wake-up crosses cores. False with fewer than two usable cores.
bool pin_process_apart();
void unpin_process();
// Called once at start-up, before any thread exists: remembers the cores
// the process may use.
void remember_cores();
int usable_cores();

// ---- sockets ---------------------------------------------------------------------------

// A blocking client of a UNIX stream socket path; -1 when it cannot connect.
int connect_unix(const std::string& path, int timeout_ms);
// Sends all bytes; false on error.
bool send_all(int fd, const void* bytes, std::size_t length);
// Receives until `length` bytes arrived; false on error or end of stream.
bool receive_exactly(int fd, void* bytes, std::size_t length);

// ---- the table -------------------------------------------------------------------------

// What a run of Google Benchmark left: per benchmark (function name and
// arguments, "BM_AitIntake/8"), the median over repetitions of the real
// time and the CPU time per iteration and of each counter. Console output
// goes on as usual.
class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override;
    std::optional<double> time_ns(const std::string& name) const;
    // The calling thread's CPU time: for work on one thread, what other
    // processes on a shared machine take from it does not count.
    std::optional<double> cpu_ns(const std::string& name) const;
    std::optional<double> counter(const std::string& name, const std::string& counter) const;

private:
    struct Result {
        double time_ns = 0;
        double cpu_ns = 0;
        std::map<std::string, double> counters;
    };
    std::map<std::string, Result> results_;
};

// One figure beside its limit.
struct Row {
    std::string figure;      // what is measured
    std::optional<double> value_ns;
    std::string limit;       // what it is compared with
    std::optional<double> limit_ns;
    std::string target;      // the ratio it must stay within ("1.3"), or "" when none is set
    std::string note;
};

// "| figure | measured | limit | measured | ratio | target |" and its rule.
std::string table_header();
// One Markdown row; a figure that is missing shows as "n/a".
std::string table_row(const Row& row);
// "3.21 µs", "1.26 ms", "812 ns".
std::string format_duration(double ns);

// Writes lines to the file named by "--figures=FILE" (taken out of argv), if
// given. Returns false when the file cannot be written.
class FiguresFile {
public:
    FiguresFile(int* argc, char** argv);
    bool wanted() const { return !path_.empty(); }
    bool write(const std::vector<std::string>& lines) const;

private:
    std::string path_;
};

}  // namespace appmgr::bench
