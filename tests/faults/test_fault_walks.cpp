// The fault walks. A whole scenario (fault_scenario.h) runs once without
// faults, counting the failure points of a boundary: the failable platform
// calls (the simulator's fault plan) or the library's allocations
// (library_allocations.h). Then it runs once per point N with the Nth one
// failing. After each run, with the fault gone:
//   - the manager lock can be taken from another thread, and no thread
//     holds the EIT cache lock;
//   - the library starts again and answers on "dtvPlugins" and "DSMCC";
//   - the process has the threads and file descriptors it had before;
//   - under AddressSanitizer, nothing leaked.
//
// Each run is a child process of its own (forked while the library is
// closed and no other thread runs): a crash, a hang or a leak is then the
// run's alone and names its point, and the walk goes on with the next one.
// Runs go two at a time, each with its own socket directory.
//
// APPMGR_FAULT_STRIDE=K walks every Kth point (default 1: all of them),
// APPMGR_FAULT_OFFSET=O starts at point O (default 1), APPMGR_FAULT_JOBS=J
// runs J at a time (default 2).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/seams.h"
#include "fault_scenario.h"
#include "hbb_sim.h"
#include "library_allocations.h"
#include "state/state.h"

#if defined(__SANITIZE_ADDRESS__)
#define APPMGR_LEAK_CHECKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define APPMGR_LEAK_CHECKS 1
#endif
#endif
#ifdef APPMGR_LEAK_CHECKS
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

// A run that takes longer than this has hung somewhere the scenario's own
// deadlines do not reach.
constexpr auto kRunDeadline = std::chrono::seconds(90);

long env_number(const char* name, long fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && std::atol(text) > 0 ? std::atol(text) : fallback;
}

int thread_count() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("Threads:", 0) == 0) return std::atoi(line.c_str() + 8);
    return -1;
}

int fd_count() {
    int n = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd");
         it != std::filesystem::directory_iterator(); ++it)
        ++n;
    return n;
}

int record_shell(const char*) { return 0; }

// The library's last log lines, shown when a run goes wrong.
std::mutex log_mutex;
std::deque<std::string> last_lines;
void keep_line(int, const char* line, void*) {
    std::lock_guard<std::mutex> lock(log_mutex);
    last_lines.emplace_back(line);
    if (last_lines.size() > 12) last_lines.pop_front();
}
std::string recent_log() {
    std::lock_guard<std::mutex> lock(log_mutex);
    std::string out;
    for (const auto& l : last_lines) out += "    " + l + "\n";
    return out;
}

// An address as a reader can look it up: function and line under the
// sanitizer's symbolizer, else object file and offset.
std::string where(void* pc) {
#ifdef APPMGR_LEAK_CHECKS
    char text[512];
    __sanitizer_symbolize_pc(pc, "%F %L", text, sizeof text);
    return text;
#else
    Dl_info info{};
    if (dladdr(pc, &info) == 0 || info.dli_fname == nullptr) return "?";
    char text[512];
    std::snprintf(text, sizeof text, "%s+0x%lx",
                  std::filesystem::path(info.dli_fname).filename().c_str(),
                  static_cast<unsigned long>(static_cast<char*>(pc) -
                                             static_cast<char*>(info.dli_fbase)));
    return text;
#endif
}

// One boundary of the walk: the failure points a run passed, how to arm
// one, and what failed.
struct Boundary {
    const char* name;
    const char* distinct;                       // what the distinct failed points are
    std::vector<std::string> (*points)();       // after a run without faults
    void (*arm)(const std::string& point);      // "": none
    bool (*failed)();
    std::string (*what)();                      // the point that failed, for reports
};

// A platform point is "function k": the kth call of that function. Naming
// the function keeps a point where it is when the threads of a run
// interleave their calls differently.
const Boundary kPlatform = {
    "platform call", "functions",
    [] {
        std::vector<std::string> points;
        const char* function;
        for (int i = 0; (function = hbb_sim_failable_function(i, nullptr)) != nullptr; ++i)
            for (int k = 1; k <= hbb_sim_call_count(function); ++k)
                points.push_back(std::string(function) + " " + std::to_string(k));
        return points;
    },
    [](const std::string& point) {
        if (point.empty()) {
            hbb_sim_fail_call(nullptr, 0);
            return;
        }
        const size_t blank = point.find(' ');
        hbb_sim_fail_call(point.substr(0, blank).c_str(), std::atoi(point.c_str() + blank + 1));
    },
    [] { return hbb_sim_injected_failures(nullptr, 0) > 0; },
    [] {
        char name[128];
        hbb_sim_injected_failures(name, sizeof name);
        return std::string(name);
    }};

// An allocation point is its number in the run.
const Boundary kAllocation = {
    "allocation", "call sites",
    [] {
        std::vector<std::string> points;
        for (long n = 1; n <= appmgr_alloc_count(); ++n) points.push_back(std::to_string(n));
        return points;
    },
    [](const std::string& point) { appmgr_alloc_fail(std::atol(point.c_str())); },
    [] { return appmgr_alloc_failed() > 0; },
    [] {
        void* frames[16];
        const int n = appmgr_alloc_failed_stack(frames, 16);
        // Frames 0 and 1 are the counter and the wrapper; 2 is the call.
        // Symbolized, the allocator's and the standard library's frames
        // are skipped: the point is the library's own function and the
        // one that called it.
        std::string out;
        int shown = 0;
        for (int i = 2; i < n && shown < 2; ++i) {
            const std::string frame = where(frames[i]);
            const bool own = frame.find("/src/") != std::string::npos ||
                             frame.find(".so+0x") != std::string::npos;
            if (!own || frame.find("/usr/include/") != std::string::npos) continue;
            out += (shown++ > 0 ? " <- " : "") + frame;
        }
        return out;
    }};

// What a run reports to the walk, one "key value" line each.
struct Report {
    std::vector<std::string> points;  // the failure points the run passed
    bool reached = false;             // the planned failure happened
    std::string what;       // where
    std::string problems;   // what went wrong ("" when nothing did)
};

std::string one_line(std::string text) {
    for (char& c : text)
        if (c == '\n') c = '|';
    return text;
}

Report parse(const std::string& text) {
    Report r;
    std::istringstream in(text);
    std::string key;
    while (in >> key) {
        std::string value;
        std::getline(in, value);
        if (!value.empty() && value[0] == ' ') value.erase(0, 1);
        if (key == "point") r.points.push_back(value);
        if (key == "reached") r.reached = value == "1";
        if (key == "what") r.what = value;
        if (key == "problems") r.problems = value;
    }
    return r;
}

// The body of a run's process: the scenario with `point` failing ("":
// none), then the checks. Writes its report to `out`.
void run_point(const Boundary& boundary, const std::string& point, const std::string& dir, int out) {
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_level(2);
    hbb_sim_set_log_hook(keep_line, nullptr);
    namespace seams = appmgr::seams;
    seams::set_socket_dir(dir);
    seams::set_browser_wait_seconds(1);
    seams::set_settle_millis(0);
    seams::set_shell_runner(record_shell);
    seams::set_tessel_marker(dir + "tessel");
    seams::set_http_timeouts(2, 3);

    appmgr::faults::Scenario scenario(dir);
    scenario.prepare();
    const int threads = thread_count();
    const int fds = fd_count();
    const bool clean = point.empty();
    const std::string label =
        clean ? std::string("the run without faults") : std::string(boundary.name) + " " + point;
    boundary.arm(point);
    const auto steps = scenario.run(label, !clean);
    Report report;
    if (clean) report.points = boundary.points();
    report.reached = boundary.failed();
    if (report.reached) report.what = boundary.what();
    boundary.arm("");

    std::string problems;
    // A run without faults must give every answer.
    if (clean)
        for (const auto& s : steps) problems += " " + s + ";";
    auto lock = std::async(std::launch::async, [] { appmgr::state::ManagerLock held; });
    if (lock.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        std::fprintf(stderr, "HANG: the manager lock is still held after %s\n", label.c_str());
        std::fflush(nullptr);
        std::_Exit(3);
    }
    if (hbb_sim_eit_cache_locked() != 0) problems += " EIT cache left locked;";
    scenario.prepare();
    const std::string answers = scenario.stillAnswers(label);
    if (!answers.empty()) problems += " afterwards: " + answers + ";";
    // The simulator's notifier thread stops with the reset; a joined thread
    // can still be listed for a moment while the kernel releases it.
    hbb_sim_reset();
    const auto until = Clock::now() + std::chrono::seconds(2);
    while ((thread_count() != threads || fd_count() != fds) && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (thread_count() != threads)
        problems += " threads " + std::to_string(threads) + " -> " + std::to_string(thread_count()) + ";";
    if (fd_count() != fds)
        problems += " descriptors " + std::to_string(fds) + " -> " + std::to_string(fd_count()) + ";";
#ifdef APPMGR_LEAK_CHECKS
    if (__lsan_do_recoverable_leak_check() != 0) problems += " memory leaked (report above);";
#endif
    if (!problems.empty()) problems += " last log lines:\n" + recent_log();
    report.problems = one_line(problems);

    std::string text = std::string("reached ") + (report.reached ? "1" : "0") + "\nwhat " +
                       one_line(report.what) + "\nproblems " + report.problems + "\n";
    for (const auto& p : report.points) text += "point " + p + "\n";
    for (size_t done = 0; done < text.size();) {
        const ssize_t w = ::write(out, text.data() + done, text.size() - done);
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
}

// A run in its own process, from fork to exit.
struct Child {
    std::string point;
    pid_t pid = -1;
    int out = -1;  // the report pipe
    std::string dir;
    std::string stderr_path;
    std::string text;
    Clock::time_point started;
};

Child start_child(const Boundary& boundary, const std::string& point, int number,
                  const std::string& base) {
    Child c;
    c.point = point;
    c.dir = base + "run-" + std::to_string(number) + "/";
    std::filesystem::create_directories(c.dir);
    c.stderr_path = base + "stderr-" + std::to_string(number) + ".txt";
    int fds[2];
    if (::pipe(fds) != 0) return c;
    std::fflush(nullptr);
    c.pid = ::fork();
    if (c.pid == 0) {
        ::close(fds[0]);
        if (std::freopen(c.stderr_path.c_str(), "w", stderr) == nullptr) std::_Exit(4);
        run_point(boundary, point, c.dir, fds[1]);
        std::fflush(nullptr);
        std::_Exit(0);
    }
    ::close(fds[1]);
    c.out = fds[0];
    c.started = Clock::now();
    return c;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Collects what a finished (or killed) child said; its problems include
// how it ended when that was not a normal exit.
Report finish_child(Child& c, int status, bool killed) {
    char buffer[4096];
    for (ssize_t r; (r = ::read(c.out, buffer, sizeof buffer)) > 0;) c.text.append(buffer, static_cast<size_t>(r));
    ::close(c.out);
    Report r = parse(c.text);
    std::string ended;
    if (killed)
        ended = "hung (killed after " + std::to_string(kRunDeadline.count()) + " s)";
    else if (WIFSIGNALED(status))
        ended = "crashed (signal " + std::to_string(WTERMSIG(status)) + ")";
    else if (WEXITSTATUS(status) != 0 || c.text.empty())
        ended = "ended with status " + std::to_string(WEXITSTATUS(status));
    if (!ended.empty()) r.problems = ended + "; " + r.problems + "\n" + read_file(c.stderr_path);
    else if (!r.problems.empty()) r.problems += "\n" + read_file(c.stderr_path);
    std::error_code ec;
    std::filesystem::remove_all(c.dir, ec);
    std::filesystem::remove(c.stderr_path, ec);
    return r;
}

// Runs each point (one "" for the run without faults), `jobs` at a time,
// and hands each report to `done`.
template <typename Done>
void run_children(const Boundary& boundary, const std::vector<std::string>& points, int jobs,
                  const std::string& base, Done done) {
    std::vector<Child> running;
    size_t next = 0;
    while (next < points.size() || !running.empty()) {
        while (static_cast<int>(running.size()) < jobs && next < points.size()) {
            running.push_back(start_child(boundary, points[next], static_cast<int>(next), base));
            ++next;
        }
        std::vector<pollfd> polls;
        for (const Child& c : running) polls.push_back({c.out, POLLIN, 0});
        ::poll(polls.data(), polls.size(), 100);
        for (size_t i = 0; i < running.size();) {
            Child& c = running[i];
            if ((polls[i].revents & POLLIN) != 0) {
                char buffer[4096];
                const ssize_t r = ::read(c.out, buffer, sizeof buffer);
                if (r > 0) c.text.append(buffer, static_cast<size_t>(r));
            }
            int status = 0;
            const bool killed = Clock::now() - c.started > kRunDeadline;
            if (killed) ::kill(c.pid, SIGKILL);
            const pid_t ended = ::waitpid(c.pid, &status, killed ? 0 : WNOHANG);
            if (ended == c.pid) {
                done(c.point, finish_child(c, status, killed));
                running.erase(running.begin() + static_cast<long>(i));
                polls.erase(polls.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
    }
}

void walk(const Boundary& boundary) {
    char pattern[] = "/tmp/appmgr-faults-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string base = std::string(pattern) + "/";

    // The run without faults: every step answers; it lists the points.
    std::vector<std::string> points;
    run_children(boundary, {""}, 1, base, [&](const std::string&, const Report& r) {
        EXPECT_EQ(r.problems, "") << "the run without faults";
        points = r.points;
    });
    ASSERT_FALSE(points.empty());

    const long stride = env_number("APPMGR_FAULT_STRIDE", 1);
    const long first = env_number("APPMGR_FAULT_OFFSET", 1);
    const int jobs = static_cast<int>(env_number("APPMGR_FAULT_JOBS", 2));
    std::vector<std::string> walked_points;
    for (size_t i = static_cast<size_t>(first - 1); i < points.size(); i += static_cast<size_t>(stride))
        walked_points.push_back(points[i]);
    const auto started = Clock::now();
    int walked = 0;
    int reached = 0;
    std::set<std::string> failed_points;
    run_children(boundary, walked_points, jobs, base, [&](const std::string& point, const Report& r) {
        ++walked;
        if (r.reached) {
            ++reached;
            failed_points.insert(r.what);
        }
        EXPECT_EQ(r.problems, "") << boundary.name << " " << point << " ("
                                  << (r.reached ? r.what : "not reached") << ")";
    });
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    std::printf("%s walk: %zu points in the scenario, %d walked (stride %ld), %d failed as planned, "
                "%zu distinct %s, %.1f s\n",
                boundary.name, points.size(), walked, stride, reached, failed_points.size(),
                boundary.distinct, seconds);
    for (const auto& p : failed_points) std::printf("  %s\n", p.c_str());
    // Every walked point but a few whose count shifts with thread timing
    // is reached.
    EXPECT_GE(reached, walked - walked / 20);
    std::error_code ec;
    std::filesystem::remove_all(base, ec);
}

TEST(FaultWalk, EveryFailablePlatformCall) { walk(kPlatform); }

TEST(FaultWalk, EveryAllocationOfTheLibrary) { walk(kAllocation); }

}  // namespace
