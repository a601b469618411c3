// appmgr-memory: the address space and resident memory of a process that
// runs libapp-mgr.so the way the middleware does, at the points that matter
// for a 32-bit receiver (see README.md):
//   1. the libraries loaded, nothing started;
//   2. after start-up: applicationManagerInit with a browser (the stand-in)
//      on the five sockets, the library active;
//   3. with the simulated EIT cache filled (the middleware's memory, shown
//      so that it is not counted as the library's);
//   4. 128 searches created, idle;
//   5. after each of them ran one full scan of the cache.
//
// The figures come from /proc/self/maps (address space) and
// /proc/self/smaps (resident), not from /proc/self/status: under qemu-user
// the first two describe the emulated 32-bit process, while status
// describes the emulator's own 64-bit process. On a device both ways agree.
//
// The run moves into a private /tmp and network first (the library's socket
// paths are fixed), as appmgr-emu does. Exit status 0 when every step
// worked.
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_search.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "hbb_sim.h"
#include "private_run.h"

using appmgr::standin::BrowserStandin;
using appmgr::standin::Connection;

namespace {

constexpr int kSearches = 128;
constexpr int kPlugin = 2;
// The benchmark's cache: 50 services of 2,000 events.
constexpr int kServices = 50;
constexpr int kEventsPerService = 2000;
constexpr int kFirstStart = 1790000000;

struct Mapping {
    std::uintptr_t start = 0, end = 0;
    std::string perms, path;
    long rss_kib = 0;
};

// The mappings of /proc/self/maps, each with the Rss of the /proc/self/smaps
// ranges that overlap it. Under qemu-user, smaps lists the emulator's own
// mappings of the guest's memory (their bounds need not match the guest's),
// its reservations around them (never resident) and, after the last guest
// range, its own memory (translated code, heap): ranges that overlap no
// guest mapping are not the guest's and do not count.
struct Memory {
    std::vector<Mapping> maps;
};

Memory read_memory() {
    Memory memory;
    char line[1024];
    if (FILE* f = std::fopen("/proc/self/maps", "r")) {
        while (std::fgets(line, sizeof line, f)) {
            Mapping m;
            char perms[8] = "";
            int path_at = 0;
            if (std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %7s %*s %*s %*s %n", &m.start, &m.end,
                            perms, &path_at) < 3)
                continue;
            m.perms = perms;
            m.path = path_at > 0 ? line + path_at : "";
            while (!m.path.empty() && (m.path.back() == '\n' || m.path.back() == ' '))
                m.path.pop_back();
            memory.maps.push_back(m);
        }
        std::fclose(f);
    }
    if (FILE* f = std::fopen("/proc/self/smaps", "r")) {
        Mapping* current = nullptr;
        while (std::fgets(line, sizeof line, f)) {
            std::uintptr_t start = 0, end = 0;
            long kib = 0;
            if (std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " ", &start, &end) == 2) {
                current = nullptr;
                for (Mapping& m : memory.maps) {
                    if (m.start < end && start < m.end) {
                        current = &m;
                        break;
                    }
                }
            } else if (current != nullptr && std::sscanf(line, "Rss: %ld kB", &kib) == 1) {
                current->rss_kib += kib;
            }
        }
        std::fclose(f);
    }
    return memory;
}

struct Figures {
    long size_kib = 0;
    long rss_kib = 0;
};

Figures figures(const Memory& memory) {
    Figures f;
    for (const Mapping& m : memory.maps) f.size_kib += static_cast<long>((m.end - m.start) / 1024);
    for (const Mapping& m : memory.maps) f.rss_kib += m.rss_kib;
    return f;
}

Figures measure() { return figures(read_memory()); }

// The Markdown rows of README.md, written with --figures=FILE.
std::vector<std::string> g_rows;

std::string kib(long value, bool sign) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%ld", value < 0 ? -value : value);
    std::string grouped;
    const std::string d = digits;
    for (std::size_t i = 0; i < d.size(); ++i) {
        if (i > 0 && (d.size() - i) % 3 == 0) grouped += ',';
        grouped += d[i];
    }
    return (value < 0 ? "-" : sign ? "+" : "") + grouped + " KiB";
}

void print_row(const char* what, const Figures& now, const Figures* base,
               const char* target = "") {
    std::string name = what;
    name.erase(0, name.find_first_not_of(' '));
    if (base == nullptr) {
        std::printf("  %-44s %9ld KiB %9ld KiB\n", what, now.size_kib, now.rss_kib);
        g_rows.push_back("| " + name + " | " + kib(now.size_kib, false) + " | " +
                         kib(now.rss_kib, false) + " | " + target + " |");
    } else {
        std::printf("  %-44s %+9ld KiB %+9ld KiB\n", what, now.size_kib - base->size_kib,
                    now.rss_kib - base->rss_kib);
        g_rows.push_back("| " + name + " | " + kib(now.size_kib - base->size_kib, true) +
                         " | " + kib(now.rss_kib - base->rss_kib, true) + " | " + target + " |");
    }
}

// Address space by file at start-up (anonymous mappings together), largest
// first: what a 32-bit process gives to each library.
void print_breakdown(const Memory& memory, std::uintptr_t main_stack_at) {
    std::map<std::string, Figures> by_name;
    long main_stack_kib = 0;
    for (const Mapping& m : memory.maps) {
        const long kib = static_cast<long>((m.end - m.start) / 1024);
        if (m.start <= main_stack_at && main_stack_at < m.end) main_stack_kib = kib;
        std::string name = m.path.empty() ? "(anonymous: heap, thread stacks, arenas)" : m.path;
        if (name[0] == '/') name = name.substr(name.rfind('/') + 1);
        by_name[name].size_kib += kib;
        by_name[name].rss_kib += m.rss_kib;
    }
    std::vector<std::pair<std::string, Figures>> rows(by_name.begin(), by_name.end());
    std::sort(rows.begin(), rows.end(),
              [](const auto& a, const auto& b) { return a.second.size_kib > b.second.size_kib; });
    std::printf("\n  address space after start-up, largest first:\n");
    for (std::size_t i = 0; i < rows.size() && i < 10; ++i)
        std::printf("    %-44s %9ld KiB %9ld KiB\n", rows[i].first.c_str(), rows[i].second.size_kib,
                    rows[i].second.rss_kib);
    for (const auto& row : rows)
        if (row.first.rfind("libapp-mgr.so", 0) == 0)
            std::printf("    %-44s %9ld KiB %9ld KiB\n", row.first.c_str(), row.second.size_kib,
                        row.second.rss_kib);
    std::printf("  (main thread's stack mapping: %ld KiB)\n", main_stack_kib);
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "appmgr-memory: %s\n", what.c_str());
    std::exit(1);
}

// Reads Callbacks until `count` end-of-search callbacks (67) arrived.
void wait_search_ends(BrowserStandin& browser, int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    int seen = 0;
    while (seen < count) {
        if (std::chrono::steady_clock::now() > deadline)
            fail("only " + std::to_string(seen) + " of " + std::to_string(count) +
                 " searches ended in time");
        auto frame = browser.readFrame(Connection::Callbacks, 1000);
        if (frame && frame->id == 67) ++seen;
    }
}

// This program's own threads get a small stack, so that the address space
// of thread stacks after start-up is the library's.
bool start_small_thread(pthread_t* thread, void* (*body)(void*)) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return false;
    const bool ok = pthread_attr_setstacksize(&attr, 64 * 1024) == 0 &&
                    pthread_create(thread, &attr, body, nullptr) == 0;
    pthread_attr_destroy(&attr);
    return ok;
}

// The stack size of threads started without attributes (glibc takes the
// stack limit, RLIMIT_STACK).
long default_thread_stack_kib() {
    pthread_attr_t attr;
    std::size_t size = 0;
    if (pthread_getattr_default_np(&attr) != 0) return -1;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    return static_cast<long>(size / 1024);
}

}  // namespace

int main(int argc, char** argv) {
    std::string figures_path;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--figures=", 0) == 0)
            figures_path = arg.substr(10);
        else
            fail("unknown argument " + arg + " (only --figures=FILE)");
    }
    // Still a single thread, as the namespaces require.
    // The figures file may lie under /tmp, which the run replaces.
    std::vector<std::string> keep;
    if (!figures_path.empty()) {
        const std::size_t slash = figures_path.rfind('/');
        keep.push_back(slash == std::string::npos ? "." : figures_path.substr(0, slash + 1));
    }
    const appmgr::emu::PrivateRun run = appmgr::emu::enterPrivateRun(keep);
    if (!run.isolated && !appmgr::emu::heldResources(false).empty())
        fail("another process holds the library's sockets in /tmp (" + run.detail + ")");
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_level(5);
    hbb_sim_eit_trace_event_calls(0);
    int stack_marker = 0;
    const auto main_stack_at = reinterpret_cast<std::uintptr_t>(&stack_marker);

    std::printf("appmgr-memory: %zu-bit process, %s; default thread stack %ld KiB\n",
                sizeof(void*) * 8, run.detail.c_str(), default_thread_stack_kib());
    std::printf("  %-44s %13s %13s\n", "", "address space", "resident");
    const Figures loaded = measure();
    print_row("libraries loaded, nothing started", loaded, nullptr);

    // Start-up as the middleware does it: the first applicationManagerInit
    // waits for the browser, which connects and reports; the second one
    // activates the library.
    BrowserStandin browser("/tmp/");
    pthread_t first_init;
    if (!start_small_thread(&first_init, [](void*) -> void* {
            applicationManagerInit();
            return nullptr;
        }))
        fail("could not start a thread");
    if (!browser.connectAll(5000)) fail("the browser stand-in could not connect");
    if (!browser.sendRequest(Connection::Application, 83, {"1"})) fail("could not report the browser");
    pthread_join(first_init, nullptr);
    applicationManagerInit();
    if (appmgr_state != APP_MANAGER_INITIALIZED) fail("the library did not become active");
    const Memory started_memory = read_memory();
    const Figures started = figures(started_memory);
    print_row("after start-up (library active, browser on)", started, nullptr);
    // The target is a 32-bit receiver's; 64-bit malloc arenas alone are larger.
    print_row("  start-up itself", started, &loaded, sizeof(void*) == 4 ? "≤ +8,192 KiB" : "");

    if (hbb_sim_eit_generate(kServices, kEventsPerService, kFirstStart, 2024) < 0)
        fail("could not fill the simulated EIT cache");
    const Figures cache = measure();
    print_row("  simulated EIT cache (the platform's)", cache, &started);

    int created = 0;
    for (int id = 0; id < kSearches; ++id) {
        if (hbbCreateNewSearch(kPlugin, id) != 0) break;
        ++created;
        hbbSetSearchQuerySubGroupsNumber(kPlugin, id, 1, 0, 0, 0, 0, 0);
        hbbSetSearchQueryNumbersInSubgroup(kPlugin, id, 0, 1);
        hbbSetQueryInSubgroup(kPlugin, id, 0, 0, eTitle, eContainString, strdup("news"));
    }
    if (created != kSearches) fail("only " + std::to_string(created) + " searches could be created");
    const Figures idle = measure();
    print_row("  128 searches created, idle", idle, &cache);

    for (int id = 0; id < created; ++id) hbbStartSearch(kPlugin, id, 0, 100);
    wait_search_ends(browser, created);
    const Figures scanned = measure();
    print_row("  128 searches after one full scan each", scanned, &cache);
    print_row("process with 128 scanned searches", scanned, nullptr);

    print_breakdown(started_memory, main_stack_at);

    for (int id = 0; id < created; ++id) hbbDestroySearch(kPlugin, id);
    applicationManagerClose();
    browser.disconnectAll();
    if (!figures_path.empty()) {
        FILE* out = std::fopen(figures_path.c_str(), "w");
        if (out == nullptr) fail("cannot write " + figures_path);
        for (const std::string& row : g_rows) std::fprintf(out, "%s\n", row.c_str());
        std::fclose(out);
    }
    return 0;
}
