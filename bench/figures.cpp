#include "figures.h"

#include <dirent.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

namespace appmgr::bench {

// ---- samples -------------------------------------------------------------------------

double Samples::percentile(double p) const {
    if (ns_.empty()) return 0;
    std::vector<double> sorted(ns_);
    std::sort(sorted.begin(), sorted.end());
    const double rank = std::ceil(p / 100.0 * static_cast<double>(sorted.size()));
    const std::size_t index =
        std::min(sorted.size() - 1, static_cast<std::size_t>(std::max(1.0, rank)) - 1);
    return sorted[index];
}

// ---- cores -----------------------------------------------------------------------------

namespace {

cpu_set_t g_all_cores;
bool g_remembered = false;

// Applies `set` to every thread of the process.
bool set_every_thread(const cpu_set_t& set) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return false;
    bool ok = true;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        const pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
        // A thread that ended since the listing does not matter.
        if (sched_setaffinity(tid, sizeof(set), &set) != 0 && errno != ESRCH) ok = false;
    }
    closedir(tasks);
    return ok;
}

}  // namespace

void remember_cores() {
    CPU_ZERO(&g_all_cores);
    g_remembered = sched_getaffinity(0, sizeof(g_all_cores), &g_all_cores) == 0;
}

int usable_cores() { return g_remembered ? CPU_COUNT(&g_all_cores) : 0; }

bool pin_process_to_one_core() {
    if (!g_remembered) return false;
    // The core this thread runs on now, if the process may use it.
    int core = sched_getcpu();
    if (core < 0 || !CPU_ISSET(core, &g_all_cores)) {
        core = -1;
        for (int i = 0; i < CPU_SETSIZE && core < 0; ++i)
            if (CPU_ISSET(i, &g_all_cores)) core = i;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    return set_every_thread(one);
}

bool pin_process_apart() {
    if (!g_remembered || CPU_COUNT(&g_all_cores) < 2) return false;
    int mine = sched_getcpu();
    if (mine < 0 || !CPU_ISSET(mine, &g_all_cores)) mine = -1;
    int other = -1;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (!CPU_ISSET(i, &g_all_cores)) continue;
        if (mine < 0)
            mine = i;
        else if (i != mine && other < 0)
            other = i;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(other, &set);
    if (!set_every_thread(set)) return false;
    CPU_ZERO(&set);
    CPU_SET(mine, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

void unpin_process() {
    if (g_remembered) set_every_thread(g_all_cores);
}

// ---- sockets ---------------------------------------------------------------------------

int connect_unix(const std::string& path, int timeout_ms) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) return fd;
        ::close(fd);
        if (std::chrono::steady_clock::now() > deadline) return -1;
        // The server is still setting the socket up.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool send_all(int fd, const void* bytes, std::size_t length) {
    const char* p = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t n = ::send(fd, p, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

bool receive_exactly(int fd, void* bytes, std::size_t length) {
    char* p = static_cast<char*>(bytes);
    while (length > 0) {
        const ssize_t n = ::recv(fd, p, length, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

// ---- the table -------------------------------------------------------------------------

void Collector::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        // With repetitions only the median counts; without, the single run.
        const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
        if (!median && !single) continue;
        std::string name = run.run_name.function_name;
        if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
        Result& r = results_[name];
        const double to_ns = benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                             benchmark::GetTimeUnitMultiplier(run.time_unit);
        r.time_ns = run.GetAdjustedRealTime() * to_ns;
        r.cpu_ns = run.GetAdjustedCPUTime() * to_ns;
        for (const auto& [name, c] : run.counters) r.counters[name] = c.value;
    }
    ConsoleReporter::ReportRuns(runs);
}

std::optional<double> Collector::time_ns(const std::string& name) const {
    auto it = results_.find(name);
    if (it == results_.end()) return std::nullopt;
    return it->second.time_ns;
}

std::optional<double> Collector::cpu_ns(const std::string& name) const {
    auto it = results_.find(name);
    if (it == results_.end()) return std::nullopt;
    return it->second.cpu_ns;
}

std::optional<double> Collector::counter(const std::string& name, const std::string& counter) const {
    auto it = results_.find(name);
    if (it == results_.end()) return std::nullopt;
    auto c = it->second.counters.find(counter);
    if (c == it->second.counters.end()) return std::nullopt;
    return c->second;
}

std::string format_duration(double ns) {
    char text[32];
    if (ns >= 1e6)
        std::snprintf(text, sizeof text, "%.2f ms", ns / 1e6);
    else if (ns >= 1e3)
        std::snprintf(text, sizeof text, "%.2f µs", ns / 1e3);
    else
        std::snprintf(text, sizeof text, "%.0f ns", ns);
    return text;
}

std::string table_header() {
    return "| figure | measured | limit (baseline, same run) | measured | ratio | target |\n"
           "|---|---:|---|---:|---:|---:|";
}

std::string table_row(const Row& row) {
    auto value = [](const std::optional<double>& ns) {
        return ns ? format_duration(*ns) : std::string("n/a");
    };
    std::string ratio = "n/a";
    if (row.value_ns && row.limit_ns && *row.limit_ns > 0) {
        char text[16];
        std::snprintf(text, sizeof text, "%.2f", *row.value_ns / *row.limit_ns);
        ratio = text;
    }
    std::string figure = row.figure;
    if (!row.note.empty()) figure += " (" + row.note + ")";
    return "| " + figure + " | " + value(row.value_ns) + " | " + row.limit + " | " +
           value(row.limit_ns) + " | " + ratio + " | " +
           (row.target.empty() ? std::string("—") : "≤ " + row.target) + " |";
}

FiguresFile::FiguresFile(int* argc, char** argv) {
    const std::string flag = "--figures=";
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind(flag, 0) == 0)
            path_ = arg.substr(flag.size());
        else
            argv[kept++] = argv[i];
    }
    *argc = kept;
}

bool FiguresFile::write(const std::vector<std::string>& lines) const {
    if (path_.empty()) return true;
    std::ofstream out(path_);
    for (const std::string& line : lines) out << line << '\n';
    return static_cast<bool>(out);
}

}  // namespace appmgr::bench
