// appmgr-soak: browser crashes and reconnects, over and over, while the
// page's requests and the middleware's notifications keep coming.
//
//   appmgr-soak [--cycles N] [--seed S] [--no-memory-check] [--verbose]
//
// The library (its test copy, with the socket directory moved into a
// private directory under /tmp and the process-control commands recorded
// instead of run) starts on the simulated receiver with the browser
// stand-in connected. Of every six cycles, five crash one connection each
// (in index order) while the other four pages and five middleware threads
// go on, and the sixth crashes the whole browser (soak_load.h). The
// process's file descriptors, threads, address space and resident memory
// are read once the load has settled after a warm-up of one cycle per
// connection, and again after the N cycles; then every connection must
// still be served. Exit status 0 when everything answered and the figures
// are back where they were, 1 otherwise, 2 for a bad command line. Address
// space and resident memory are only reported, not checked, under the
// sanitizers (whose allocators keep freed memory) and with
// --no-memory-check (under qemu-user, /proc describes the emulator, whose
// translation cache grows as it meets new code).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>

#include "app_mgr.h"
#include "common/seams.h"
#include "hbb_sim.h"
#include "process_figures.h"
#include "soak_load.h"

namespace {

using appmgr::soak::Connection;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Resident memory may move by what the allocator keeps of a few pages
// freed at the end of the run; anything beyond this is growth.
constexpr long kResidentSlackKb = 512;

std::atomic<int> g_shell_commands{0};
int record_shell(const char*) {
    ++g_shell_commands;
    return 0;
}

std::atomic<int> g_error_lines{0};
void count_line(int level, const char*, void*) {
    if (level >= 5) ++g_error_lines;
}

int on_start() { return application_manager_cmd_start(); }
int on_stop() { return 1; }

struct Options {
    long cycles = 1000;
    unsigned seed = 1;
    bool check_memory = !kSanitized;
    bool verbose = false;
};

bool parse(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--cycles" || arg == "--seed") && i + 1 < argc) {
            const long value = std::atol(argv[++i]);
            if (value <= 0) return false;
            if (arg == "--cycles") o->cycles = value;
            else o->seed = static_cast<unsigned>(value);
        } else if (arg == "--no-memory-check") {
            o->check_memory = false;
        } else if (arg == "--verbose") {
            o->verbose = true;
        } else {
            return false;
        }
    }
    return true;
}

// The first applicationManagerInit with the browser connecting, then the
// middleware's second call that activates the library.
bool start_library(appmgr::soak::BrowserStandin& browser) {
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    const bool connected = browser.connectAll(10000);
    if (connected) browser.send(Connection::Application, "83|1|");
    if (init.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        std::fprintf(stderr, "appmgr-soak: applicationManagerInit did not return\n");
        std::_Exit(1);
    }
    const bool started = init.get() == 1 && connected && applicationManagerInit() == 1;
    application_manager_register(on_start, on_stop);
    return started;
}

// Every connection is served: a reply on each request connection, a
// command on "Application" and a callback on "Callbacks".
std::string still_served(appmgr::soak::BrowserStandin& browser) {
    std::string missing;
    auto frame = [&browser](Connection c, int id) {
        for (int i = 0; i < 100; ++i) {
            auto f = browser.readFrame(c, 100);
            if (f && f->id == id) return true;
        }
        return false;
    };
    if (!browser.request(Connection::DtvPlugins, 30, {}, 10000)) missing += " dtvPlugins";
    if (!browser.request(Connection::VodPlugins, 234, {}, 10000)) missing += " vodPlugins";
    if (!browser.request(Connection::Dsmcc, 130, {"dvb://1.2.3.1/app/index.html"}, 10000))
        missing += " DSMCC";
    setTimeZone(0, 1, 0);
    if (!frame(Connection::Application, 141)) missing += " Application";
    hbb_sim_fire_programmes_changed();
    if (!frame(Connection::Callbacks, 500)) missing += " Callbacks";
    return missing;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, &options)) {
        std::fprintf(stderr,
                     "usage: appmgr-soak [--cycles N] [--seed S] [--no-memory-check] [--verbose]\n");
        return 2;
    }
    char pattern[] = "/tmp/appmgr-soak-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        std::perror("appmgr-soak: mkdtemp");
        return 1;
    }
    const std::string dir = std::string(pattern) + "/";

    hbb_sim_set_log_stderr(options.verbose ? 1 : 0);
    hbb_sim_set_log_hook(count_line, nullptr);
    namespace seams = appmgr::seams;
    seams::set_socket_dir(dir);
    seams::set_browser_wait_seconds(10);
    seams::set_settle_millis(0);
    seams::set_shell_runner(record_shell);
    seams::set_tessel_marker(dir + "tessel");

    appmgr::soak::Load::prepare_receiver(dir + "carousel/");
    appmgr::soak::BrowserStandin browser(dir);
    appmgr::soak::Tally tally;
    appmgr::soak::Load load(browser, tally, options.seed);
    bool ok = start_library(browser);
    if (!ok) tally.error("the library did not start");

    // Warm-up: one cycle of each kind, so that what is made once (the
    // browser-wait thread, the simulator's notifier, allocator arenas of
    // each thread) exists before the first reading.
    load.start();
    for (Connection c : appmgr::standin::kAllConnections) ok = ok && load.crash(c, 60000);
    ok = ok && load.crash_browser(60000);
    load.stop();
    const auto before = appmgr::soak::read_process_figures();
    tally.reset_counts();

    long cycles = 0;
    const auto started = Clock::now();
    load.start();
    for (; ok && cycles < options.cycles; ++cycles) {
        const size_t kind = static_cast<size_t>(cycles % 6);
        ok = kind < 5 ? load.crash(appmgr::standin::kAllConnections[kind], 60000)
                      : load.crash_browser(60000);
        if (options.verbose && (cycles + 1) % 100 == 0)
            std::fprintf(stderr, "appmgr-soak: %ld cycles\n", cycles + 1);
    }
    load.stop();
    const auto after = appmgr::soak::read_process_figures();
    const std::string missing = still_served(browser);
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();

    std::printf("appmgr-soak: %ld of %ld cycles in %.1f s (whole browser %ld; alone: "
                "Application %ld, dtvPlugins %ld, vodPlugins %ld, Callbacks %ld, DSMCC %ld)\n",
                cycles, options.cycles, seconds, tally.browser_crashes.load(),
                tally.crashes[0].load(), tally.crashes[1].load(), tally.crashes[2].load(),
                tally.crashes[3].load(), tally.crashes[4].load());
    std::printf("  pages: %ld answers read, %ld requests left in flight by a crash, %ld searches\n",
                tally.answered.load(), tally.in_flight.load(), tally.searches.load());
    std::printf("  middleware: %ld AIT updates, %ld channel changes, %ld network changes, "
                "%ld key sets, %ld stream events\n",
                tally.ait_updates.load(), tally.channel_changes.load(),
                tally.network_changes.load(), tally.key_sets.load(), tally.stream_events.load());
    std::printf("  library: %d error lines logged, %d process-control commands\n",
                g_error_lines.load(), g_shell_commands.load());
    std::printf("%s", appmgr::soak::compare(before, after).c_str());
    std::printf("  at the end:%s\n", missing.empty() ? " every connection served" :
                                                       (" no answer on" + missing).c_str());

    bool flat = before.descriptors == after.descriptors && before.threads == after.threads;
    if (options.check_memory)
        flat = flat && before.address_space_kb == after.address_space_kb &&
               after.resident_kb - before.resident_kb <= kResidentSlackKb;
    for (const auto& e : tally.errors()) std::printf("  error: %s\n", e.c_str());
    const bool passed = ok && cycles == options.cycles && tally.errors().empty() &&
                        missing.empty() && flat;
    std::printf("%s\n", passed ? "soak passed" : "soak FAILED");

    applicationManagerClose();
    browser.disconnectAll();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return passed ? 0 : 1;
}
