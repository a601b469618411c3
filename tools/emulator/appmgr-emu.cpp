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
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "browser_side.h"
#include "builtin_scenario.h"
#include "capture_input.h"
#include "capture_scenario.h"
#include "chromium_side.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "loopback_server.h"
#include "private_run.h"
#include "scenario.h"
#include "scenario_runner.h"
#include "steps.h"
#include "testsuite_scenario.h"

namespace {

using namespace appmgr::emu;

// ---- the command line ----------------------------------------------------------------

// What the command line asks for.
struct Options {
    bool help = false;
    std::optional<std::string> scenario_file;
    std::optional<std::string> write_builtin;
    bool shared_tmp = false;
    std::string browser = "standin";  // or "chromium"
    ChromiumOptions chromium;
    std::optional<std::string> testsuite;  // the test suite's pages
    std::vector<std::string> groups;
    // --ts SOURCE [--service SID] [--speed max|1], as written.
    std::optional<std::string> ts, service, speed;
};

// One option: its names, its argument (if it takes one), its help and what
// it sets. The help text and the parser come from this table.
struct Option {
    const char* short_name;  // "-v", or nullptr
    const char* name;        // "--verbose"
    const char* argument;    // "FILE", or nullptr for a switch
    const char* help;        // lines separated by '\n'
    void (*apply)(Options& o, const std::string& argument);
};

const Option kOptions[] = {
    {"-v", "--verbose", nullptr, "also print the library's log and the raw frames",
     [](Options&, const std::string&) { g_verbose = true; }},
    {nullptr, "--scenario", "FILE", "run the scenario in FILE",
     [](Options& o, const std::string& file) { o.scenario_file = file; }},
    {nullptr, "--shared-tmp", nullptr,
     "run in the machine's /tmp and network; refused while\nanother process holds the library's sockets or "
     "port",
     [](Options& o, const std::string&) { o.shared_tmp = true; }},
    {nullptr, "--write-builtin", "DIR",
     "write the built-in scenario and its files into DIR\n(to be run with --scenario DIR/builtin.ini)",
     [](Options& o, const std::string& dir) { o.write_builtin = dir; }},
    {nullptr, "--browser", "NAME",
     "what plays the browser: standin (the default: the stand-in\nsends what the steps say) or chromium (the real browser\nof tools/web-browser runs every page in Chromium)",
     [](Options& o, const std::string& name) { o.browser = name; }},
    {nullptr, "--screenshot", "DIR", "with chromium: a PNG of the page after each step,\nDIR/stepN.png",
     [](Options& o, const std::string& dir) { o.chromium.screenshots = dir; }},
    {nullptr, "--headed", nullptr, "with chromium: a window (for instance under Xvfb)\ninstead of headless",
     [](Options& o, const std::string&) { o.chromium.headed = true; }},
    {nullptr, "--testsuite", "PAGES_DIR",
     "with chromium: run the groups of the public HbbTV test\nsuite in PAGES_DIR and print the steps they report",
     [](Options& o, const std::string& dir) { o.testsuite = dir; }},
    {nullptr, "--group", "NAME", "with --testsuite: run this group (again for more);\nwithout it every group runs",
     [](Options& o, const std::string& name) { o.groups.push_back(name); }},
    {nullptr, "--ts", "FILE",
     "play a transport-stream capture (a file, - or\nudp://127.0.0.1:PORT) as the broadcast; alone, around\na scenario of "
     "its own, with --scenario as its [capture]",
     [](Options& o, const std::string& source) { o.ts = source; }},
    {nullptr, "--service", "SID", "with --ts: the service to play (default: the first\nwhose PMT signals an HbbTV AIT)",
     [](Options& o, const std::string& sid) { o.service = sid; }},
    {nullptr, "--speed", "max|1", "with --ts: as fast as it is read (max, the default)\nor paced by its PCR (1)",
     [](Options& o, const std::string& speed) { o.speed = speed; }},
    {"-h", "--help", nullptr, "print this help", [](Options& o, const std::string&) { o.help = true; }},
};

const char* const kUsageHead =
    "usage: appmgr-emu [--verbose] [--scenario FILE] [--ts FILE [--service SID] [--speed max|1]]\n"
    "                  [--browser chromium [--screenshot DIR] [--headed]]\n"
    "       appmgr-emu --browser chromium --testsuite PAGES_DIR [--group NAME]...\n"
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
    "network changes, browser messages and checks. With --ts a real broadcast\n"
    "capture plays into the receiver: its AITs start their applications, its\n"
    "carousels are served, its stream events fire, its guide is searchable.\n"
    "\n";

const char* const kUsageTail =
    "\n"
    "Exit status: 0 scenario passed, 1 a step failed or timed out, or another\n"
    "process holds the library's sockets or port, 2 usage error, a scenario\n"
    "file that cannot be read or a capture that cannot be opened.\n";

// "  -v, --verbose        also print ...": names in a column of 21, help
// lines beside them (under them when the names are longer).
void usage(std::FILE* to) {
    constexpr std::size_t kHelpColumn = 23;
    std::string text = kUsageHead;
    for (const Option& o : kOptions) {
        std::string names = std::string("  ") + (o.short_name ? std::string(o.short_name) + ", " : "    ") +
                            o.name + (o.argument ? std::string(" ") + o.argument : "");
        names += names.size() + 2 <= kHelpColumn ? std::string(kHelpColumn - names.size(), ' ')
                                                 : "\n" + std::string(kHelpColumn, ' ');
        for (const char* c = o.help; *c; ++c)
            names += *c == '\n' ? "\n" + std::string(kHelpColumn, ' ') : std::string(1, *c);
        text += names + "\n";
    }
    text += kUsageTail;
    std::fputs(text.c_str(), to);
}

const Option* findOption(const std::string& arg) {
    for (const Option& o : kOptions)
        if (arg == o.name || (o.short_name && arg == o.short_name)) return &o;
    return nullptr;
}

// Fills o from the arguments; a usage error is printed and returns false.
// Stops at --help.
bool parseCommandLine(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc && !o.help; ++i) {
        const std::string arg = argv[i];
        const std::size_t eq = arg.rfind("--", 0) == 0 ? arg.find('=') : std::string::npos;
        const Option* option = findOption(arg.substr(0, eq));
        const char* problem = "unknown option";
        if (option && !option->argument && eq == std::string::npos) {
            option->apply(o, "");
            continue;
        }
        if (option && option->argument && eq != std::string::npos && eq + 1 < arg.size()) {
            option->apply(o, arg.substr(eq + 1));
            continue;
        }
        if (option && option->argument && eq == std::string::npos) {
            if (i + 1 < argc) {
                option->apply(o, argv[++i]);
                continue;
            }
            problem = "missing argument after";
        }
        std::fprintf(stderr, "appmgr-emu: %s '%s'\n", problem, arg.c_str());
        usage(stderr);
        return false;
    }
    return true;
}

// ---- the modes -----------------------------------------------------------------------

int writeBuiltin(const std::string& dir) {
    std::string error;
    if (::mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
        std::perror(("appmgr-emu: mkdir " + dir).c_str());
        return 2;
    }
    const std::string path = writeBuiltinScenario(dir, &error);
    if (path.empty()) {
        std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
        return 2;
    }
    std::printf("appmgr-emu: wrote %s; run it with appmgr-emu --scenario %s\n", path.c_str(), path.c_str());
    return 0;
}

std::optional<Scenario> load(const std::string& path) {
    std::string error;
    std::optional<Scenario> s = loadScenario(path, &error);
    if (!s) std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
    return s;
}

// The files of a scenario that must stay reachable in the private /tmp.
std::vector<std::string> filesOf(const Scenario& s, const std::string& file) {
    std::vector<std::string> keep{file};
    for (const CarouselSpec& c : s.carousels) keep.push_back(c.path);
    if (s.capture && s.capture->isFile()) keep.push_back(s.capture->path);
    if (s.http.root) keep.push_back(*s.http.root);
    return keep;
}

// What plays the browser; nullptr for an unknown name.
std::unique_ptr<BrowserSide> makeBrowserSide(const Options& o) {
    if (o.browser == "standin") return makeStandinSide();
    if (o.browser == "chromium") return std::make_unique<ChromiumSide>(o.chromium);
    return nullptr;
}

// Options that only make sense together, checked before anything starts.
bool optionsAgree(const Options& o) {
    const char* problem = nullptr;
    if (o.browser != "standin" && o.browser != "chromium")
        problem = "--browser takes standin or chromium";
    else if (o.browser != "chromium" && (o.chromium.screenshots || o.chromium.headed || o.testsuite))
        problem = "--screenshot, --headed and --testsuite need --browser chromium";
    else if (!o.groups.empty() && !o.testsuite)
        problem = "--group needs --testsuite";
    else if (o.testsuite && (o.scenario_file || o.write_builtin || o.ts))
        problem = "--testsuite runs its own scenario: no --scenario, --ts or --write-builtin with it";
    if (!problem) return true;
    std::fprintf(stderr, "appmgr-emu: %s\n", problem);
    usage(stderr);
    return false;
}

// The screenshots' directory, made before the run moves into its own /tmp
// (where a directory under the machine's /tmp stays reachable).
bool makeScreenshotDirectory(const Options& o) {
    if (!o.chromium.screenshots) return true;
    const std::string& dir = *o.chromium.screenshots;
    if (::mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST) return true;
    std::perror(("appmgr-emu: mkdir " + dir).c_str());
    return false;
}

// The directory a generated scenario's files are written to: in a private
// /tmp a fixed one, which goes with the run; in the shared /tmp one of its
// own, removed at the end.
std::string runDirectory(bool isolated) {
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

// A scenario the emulator writes itself (with the files it serves) into the
// run's directory and reads back, going by `name` in the output.
using WriteScenario = std::function<std::string(const std::string& dir, std::string* error)>;
std::optional<Scenario> loadWritten(bool isolated, const WriteScenario& write, const char* name) {
    std::string error;
    const std::string dir = runDirectory(isolated);
    if (dir.empty()) return std::nullopt;
    const std::string path = write(dir, &error);
    if (path.empty()) {
        std::fprintf(stderr, "appmgr-emu: %s\n", error.c_str());
        return std::nullopt;
    }
    std::optional<Scenario> s = load(path);
    if (s) s->path = name;
    return s;
}

// The groups of a --testsuite run: those given (each must be a group of
// the pages), or every group. Empty after a usage error.
std::vector<std::string> chosenGroups(const Options& o) {
    const std::vector<std::string> all = testsuiteGroups(*o.testsuite);
    if (all.empty()) {
        std::fprintf(stderr, "appmgr-emu: %s has no group folder with an index.php\n", o.testsuite->c_str());
        return {};
    }
    if (o.groups.empty()) return all;
    for (const std::string& g : o.groups) {
        if (std::find(all.begin(), all.end(), g) == all.end()) {
            std::fprintf(stderr, "appmgr-emu: no group %s in %s (groups: %s)\n", g.c_str(), o.testsuite->c_str(),
                         joined(all).c_str());
            return {};
        }
    }
    return o.groups;
}

// The test-suite scenario for these groups: written into the run's
// directory with a free port for PHP, and read back. Its time limit is the
// groups' limits together.
std::optional<Scenario> loadTestsuite(const Options& o, const std::vector<std::string>& groups, bool isolated) {
    std::string error;
    // The pages build some URLs from the server's name alone (the video
    // URL of the user-agent group, the media of the video groups): in the
    // run's own network PHP serves on port 80, so that those work too.
    int port = isolated ? 80 : 0;
    int probe = appmgr::loopback::listenOn(&port, &error);
    if (probe < 0 && isolated) probe = appmgr::loopback::listenOn(&(port = 0), &error);
    if (probe < 0) {
        std::fprintf(stderr, "appmgr-emu: no free port for the test suite's pages: %s\n", error.c_str());
        return std::nullopt;
    }
    ::close(probe);
    const std::string& pages = *o.testsuite;
    std::optional<Scenario> s = loadWritten(
        isolated,
        [&](const std::string& dir, std::string* why) { return writeTestsuiteScenario(dir, pages, port, groups, why); },
        kTestsuiteScenarioName);
    if (!s) return std::nullopt;
    s->time_limit_s = static_cast<int>(groups.size()) * (s->testsuite->group_time_limit_s + 30) + 60;
    return s;
}

// ---- a capture -----------------------------------------------------------------------

bool captureUsageError(const std::string& problem) {
    std::fprintf(stderr, "appmgr-emu: %s\n", problem.c_str());
    usage(stderr);
    return false;
}

// The run's capture: the scenario's [capture], or --ts (with --service and
// --speed) in its place; none without either. False after a usage error.
bool captureOf(const Options& o, const std::optional<Scenario>& scenario, std::optional<CaptureSpec>* out) {
    if ((o.service || o.speed) && !o.ts) return captureUsageError("--service and --speed go with --ts");
    std::optional<CaptureSpec> c = scenario ? scenario->capture : std::nullopt;
    if (o.ts) {
        if (!c) c = CaptureSpec{};
        c->source = *o.ts;
        c->path = c->isFile() ? std::filesystem::absolute(*o.ts).string() : *o.ts;
    }
    if (o.service) {
        std::optional<long> sid = number(*o.service, 0, 0xFFFF);
        if (!sid) return captureUsageError("--service takes a service id from 0 to 0xffff, not '" + *o.service + "'");
        c->service = static_cast<int>(*sid);
    }
    if (o.speed) {
        std::optional<bool> realtime = captureSpeed(*o.speed);
        if (!realtime) return captureUsageError("--speed takes " + std::string(kCaptureSpeedHelp));
        c->realtime = *realtime;
    }
    *out = c;
    return true;
}

// In the shared /tmp and network: refuses at once rather than meet another
// run (or a browser) on the fixed sockets or port.
bool resourcesFree(const Scenario& s, const PrivateRun& run) {
    const std::vector<std::string> held = heldResources(usesRemoteInput(s));
    if (held.empty()) return true;
    std::fprintf(
        stderr,
        "appmgr-emu: cannot run: another process holds %s (another appmgr-emu, a browser or a library "
        "instance?); this run would share the machine's /tmp and network with it (%s)\n",
        joined(held).c_str(), run.detail.c_str());
    return false;
}

void printBanner(const PrivateRun& run, const BrowserSide& browser, bool builtin) {
    report("appmgr-emu: libapp-mgr on the simulated platform, " + browser.description());
    report("appmgr-emu: " +
         (run.isolated ? run.detail : "the machine's /tmp and network, shared (" + run.detail + ")"));
    if (!builtin) return;
    emit("appmgr-emu: the first word of a line says who acts:");
    emit("  library      the middleware calls libapp-mgr; \"->\" shows the result");
    emit("  platform     libapp-mgr calls the simulated receiver");
    emit("  receiver     the simulated receiver acts (tuning, start callback, carousel)");
    emit("  http         the loopback HTTP server answers libapp-mgr");
    emit("  Application, dtvPlugins, Callbacks, DSMCC ...");
    emit("               a message on a browser socket: -> from the browser, <- from libapp-mgr");
    emit("  decision     what libapp-mgr decided (its decision trace)");
    emit("  check        an expectation of the scenario was met");
}

// Runs s; whatever blocks, the watchdog ends the run within its limit.
void runWithWatchdog(const Scenario& s, BrowserSide& browser, CaptureInput* capture) {
    const int limit_ms = s.time_limit_s * 1000;
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> g(mu);
        if (!cv.wait_for(g, std::chrono::milliseconds(limit_ms), [&] { return done; }))
            fail("the scenario did not finish within " + std::to_string(limit_ms / 1000) + " s");
    });
    runScenario(s, browser, capture);
    {
        std::lock_guard<std::mutex> g(mu);
        done = true;
    }
    cv.notify_all();
    watchdog.join();
}

// A scenario file is read completely before anything starts: a bad file
// ends the run with status 2 and the library is never touched.
int runEmulator(const Options& o) {
    std::optional<Scenario> scenario;
    if (o.scenario_file && !(scenario = load(*o.scenario_file))) return 2;
    if (!makeScreenshotDirectory(o)) return 2;
    std::vector<std::string> groups;
    if (o.testsuite && (groups = chosenGroups(o)).empty()) return 2;
    std::optional<CaptureSpec> capture_spec;
    if (!captureOf(o, scenario, &capture_spec)) return 2;
    if (scenario && capture_spec) scenario->capture = capture_spec;
    // Opened before the run moves into its own /tmp and network: a UDP
    // stream is received on the machine's loopback, where its sender is.
    CaptureInput capture;
    if (capture_spec) {
        const std::string why = capture.open(*capture_spec);
        if (!why.empty()) {
            std::fprintf(stderr, "appmgr-emu: %s\n", why.c_str());
            return 2;
        }
    }

    // Still a single thread here, as the namespaces require.
    std::vector<std::string> keep = scenario ? filesOf(*scenario, *o.scenario_file) : std::vector<std::string>{};
    if (capture_spec && capture_spec->isFile()) keep.push_back(capture_spec->path);
    if (o.chromium.screenshots) keep.push_back(*o.chromium.screenshots);
    // A window needs the X server's socket and its authority file, which
    // live in the machine's /tmp (xvfb-run puts the file there).
    if (o.chromium.headed) {
        struct stat x11 {};
        if (::stat("/tmp/.X11-unix", &x11) == 0) keep.push_back("/tmp/.X11-unix");
        const char* authority = std::getenv("XAUTHORITY");
        if (authority && ::stat(authority, &x11) == 0) keep.push_back(authority);
    }
    if (o.testsuite) keep.push_back(*o.testsuite);
    const PrivateRun private_run =
        o.shared_tmp ? PrivateRun{false, "--shared-tmp given"} : enterPrivateRun(keep);
    if (o.testsuite) {
        // The steps alone, unless the whole trace is asked for.
        g_trace = g_verbose;
        scenario = loadTestsuite(o, groups, private_run.isolated);
    } else if (!scenario && capture_spec) {
        // The scenario around a capture given alone.
        const CaptureSpec wanted = *capture_spec;
        scenario = loadWritten(
            private_run.isolated,
            [&wanted](const std::string& dir, std::string* error) { return writeCaptureScenario(dir, wanted, error); },
            kCaptureScenarioName);
    } else if (!scenario) {
        scenario = loadWritten(private_run.isolated, writeBuiltinScenario, kBuiltinScenarioName);
    }
    if (!scenario) {
        removeRunFiles();
        return 1;
    }
    if (!private_run.isolated && !resourcesFree(*scenario, private_run)) {
        removeRunFiles();
        return 1;
    }
    if (o.browser == "chromium" && !scenario->time_limit_given)
        scenario->time_limit_s = std::max(scenario->time_limit_s, kDefaultChromiumTimeLimitSeconds);
    const bool builtin = !o.scenario_file && !capture_spec && !o.testsuite;
    std::unique_ptr<BrowserSide> browser = makeBrowserSide(o);
    printBanner(private_run, *browser, builtin);
    hbb_sim_set_trace(onPlatformCall, nullptr);
    runWithWatchdog(*scenario, *browser, capture_spec ? &capture : nullptr);
    hbb_sim_set_trace(nullptr, nullptr);
    removeRunFiles();
    if (builtin)
        emit(
            "appmgr-emu: more in examples/*.ini (appmgr-emu --scenario examples/broadband.ini);\n"
            "            docs/emulator.md describes the output and the scenario files");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseCommandLine(argc, argv, options)) return 2;
    if (options.help) {
        usage(stdout);
        return 0;
    }
    if (!optionsAgree(options)) return 2;
    if (options.write_builtin) return writeBuiltin(*options.write_builtin);
    return runEmulator(options);
}
