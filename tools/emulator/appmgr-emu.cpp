// appmgr-emu: runs libapp-mgr as a receiver would, with the simulated
// platform underneath and the browser stand-in on the other end of the five
// browser sockets, and prints everything that crosses either boundary.
//
// A run follows a scenario (scenario.h, scenario_runner.h): the built-in
// one (builtin_scenario.h) or --scenario FILE. Every step checks what it
// expects; the first mismatch or time-out ends the run with exit status 1,
// a scenario file that cannot be read with status 2. A watchdog ends any run
// that takes longer than its limit.
//
// Before anything else the run moves into a private /tmp and loopback
// network (private_run.h), so that runs on one machine do not meet on the
// library's fixed socket paths and port.
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "builtin_scenario.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "private_run.h"
#include "scenario.h"
#include "scenario_runner.h"

namespace {

using namespace appmgr::emu;

void usage(std::FILE* to) {
    std::fprintf(to,
                 "usage: appmgr-emu [--verbose] [--scenario FILE]\n"
                 "       appmgr-emu --write-builtin DIR\n"
                 "\n"
                 "Runs libapp-mgr on the simulated platform with a stand-in browser on the\n"
                 "browser sockets in /tmp/ and prints the platform calls and the messages\n"
                 "exchanged, in a private /tmp and loopback network of its own. Without\n"
                 "--scenario the built-in scenario runs: an AIT starts an application from\n"
                 "the object carousel, a key set, channel changes that kill or keep the\n"
                 "running application, and an application from an XML AIT over HTTP. A\n"
                 "scenario file (INI; see docs/emulator.md) describes a service, its\n"
                 "applications and AITs, and a timeline of deliveries, channel changes,\n"
                 "network changes, browser messages and checks.\n"
                 "\n"
                 "  -v, --verbose        also print the library's log and the raw frames\n"
                 "      --scenario FILE  run the scenario in FILE\n"
                 "      --shared-tmp     run in the machine's /tmp and network; refused while\n"
                 "                       another process holds the library's sockets or port\n"
                 "      --write-builtin DIR\n"
                 "                       write the built-in scenario and its files into DIR\n"
                 "                       (to be run with --scenario DIR/builtin.ini)\n"
                 "  -h, --help           print this help\n"
                 "\n"
                 "Exit status: 0 scenario passed, 1 a step failed or timed out, or another\n"
                 "process holds the library's sockets or port, 2 usage error or a scenario\n"
                 "file that cannot be read.\n");
}

std::optional<Scenario> load(const std::string& path) {
    std::string error;
    std::optional<Scenario> s = loadScenario(path, &error);
    if (!s) std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
    return s;
}

bool usesKeySteps(const Scenario& s) {
    for (const Step& st : s.timeline)
        if (st.kind == "key") return true;
    return false;
}

// The directory the built-in scenario's files are written to: in a private
// /tmp a fixed one, which goes with the run; in the shared /tmp one of its
// own, removed at the end.
std::string builtinDirectory(bool isolated) {
    if (isolated) {
        const std::string dir = "/tmp/appmgr-emu";
        if (::mkdir(dir.c_str(), 0700) == 0) return dir;
        std::perror("appmgr-emu: mkdir /tmp/appmgr-emu");
        return "";
    }
    char tmpl[] = "/tmp/appmgr-emu-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        std::perror("appmgr-emu: mkdtemp");
        return "";
    }
    removeOnExit(tmpl);
    return tmpl;
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<std::string> scenario_file;
    std::optional<std::string> write_builtin;
    bool shared_tmp = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else if (arg == "-v" || arg == "--verbose") {
            g_verbose = true;
        } else if (arg == "--scenario" && i + 1 < argc) {
            scenario_file = argv[++i];
        } else if (arg.rfind("--scenario=", 0) == 0 && arg.size() > 11) {
            scenario_file = arg.substr(11);
        } else if (arg == "--shared-tmp") {
            shared_tmp = true;
        } else if (arg == "--write-builtin" && i + 1 < argc) {
            write_builtin = argv[++i];
        } else {
            std::fprintf(stderr, "appmgr-emu: %s '%s'\n",
                         arg == "--scenario" || arg == "--write-builtin" ? "missing argument after"
                                                                         : "unknown option",
                         arg.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (write_builtin) {
        std::string error;
        if (::mkdir(write_builtin->c_str(), 0777) != 0 && errno != EEXIST) {
            std::perror(("appmgr-emu: mkdir " + *write_builtin).c_str());
            return 2;
        }
        const std::string path = writeBuiltinScenario(*write_builtin, &error);
        if (path.empty()) {
            std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
            return 2;
        }
        std::printf("appmgr-emu: wrote %s; run it with appmgr-emu --scenario %s\n", path.c_str(),
                    path.c_str());
        return 0;
    }

    // A scenario file is read completely before anything starts: a bad file
    // ends the run with status 2 and the library is never touched.
    std::optional<Scenario> loaded;
    std::vector<std::string> keep;
    if (scenario_file) {
        loaded = load(*scenario_file);
        if (!loaded) return 2;
        keep.push_back(*scenario_file);
        for (const CarouselSpec& c : loaded->carousels) keep.push_back(c.path);
        if (loaded->http.root) keep.push_back(*loaded->http.root);
    }

    // Still a single thread here, as the namespaces require.
    const PrivateRun private_run =
        shared_tmp ? PrivateRun{false, "--shared-tmp given"} : enterPrivateRun(keep);

    if (!scenario_file) {
        std::string error;
        const std::string dir = builtinDirectory(private_run.isolated);
        if (dir.empty()) return 1;
        const std::string path = writeBuiltinScenario(dir, &error);
        if (path.empty()) {
            std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
            removeRunFiles();
            return 1;
        }
        loaded = load(path);
        if (!loaded) {
            removeRunFiles();
            return 1;
        }
        loaded->path = kBuiltinScenarioName;
    }

    if (!private_run.isolated) {
        // Shared /tmp and network: refuse at once rather than meet another
        // run (or a browser) on the fixed sockets or port.
        const std::vector<std::string> held = heldResources(usesKeySteps(*loaded));
        if (!held.empty()) {
            std::string list;
            for (const std::string& h : held) list += (list.empty() ? "" : ", ") + h;
            std::fprintf(stderr,
                         "appmgr-emu: cannot run: another process holds %s (another appmgr-emu, a "
                         "browser or a library instance?); this run would share the machine's /tmp "
                         "and network with it (%s)\n",
                         list.c_str(), private_run.detail.c_str());
            removeRunFiles();
            return 1;
        }
    }

    emit("appmgr-emu: libapp-mgr on the simulated platform, browser stand-in on /tmp/UNIX_*.domain");
    emit("appmgr-emu: " + (private_run.isolated
                               ? private_run.detail
                               : "the machine's /tmp and network, shared (" + private_run.detail + ")"));

    if (!scenario_file) {
        emit("appmgr-emu: the first word of a line says who acts:");
        emit("  library      the middleware calls libapp-mgr; \"->\" shows the result");
        emit("  platform     libapp-mgr calls the simulated receiver");
        emit("  receiver     the simulated receiver acts (tuning, start callback, carousel)");
        emit("  http         the loopback HTTP server answers libapp-mgr");
        emit("  Application, dtvPlugins, Callbacks, DSMCC ...");
        emit("               a message on a browser socket: -> from the browser, <- from libapp-mgr");
        emit("  decision     what libapp-mgr decided (read from its log)");
        emit("  check        an expectation of the scenario was met");
    }
    hbb_sim_set_trace(onPlatformCall, nullptr);

    // Watchdog: whatever blocks, the run ends within the overall limit.
    const int limit_ms = loaded->time_limit_s * 1000;
    std::mutex wd_mu;
    std::condition_variable wd_cv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> g(wd_mu);
        if (!wd_cv.wait_for(g, std::chrono::milliseconds(limit_ms), [&] { return done; }))
            fail("the scenario did not finish within " + std::to_string(limit_ms / 1000) + " s");
    });

    runScenario(*loaded);

    {
        std::lock_guard<std::mutex> g(wd_mu);
        done = true;
    }
    wd_cv.notify_all();
    watchdog.join();
    hbb_sim_set_trace(nullptr, nullptr);
    removeRunFiles();
    if (!scenario_file)
        emit("appmgr-emu: more in examples/*.ini (appmgr-emu --scenario examples/broadband.ini);\n"
             "            docs/emulator.md describes the output and the scenario files");
    return 0;
}
