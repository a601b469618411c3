// The run of a scenario: the receiver and the stand-in servers are set up,
// the library starts with the browser side connected, each step runs by its
// kind (steps.h) and the library is closed.
#include "scenario_runner.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "hbb_sim.h"
#include "receiver.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

constexpr int kQuietMs = 30;   // frames still arriving after a step (see settle())
constexpr int kInitMs = 6000;  // the first applicationManagerInit() must return by then

const char* const kUserAgentHead =
    "Mozilla/5.0 (Linux; appmgr-emu) AppleWebKit/537.36 (KHTML, like Gecko) HbbTV/";
const char* const kUserAgentTail = " (+DRM; Emu; Sim; 1.0; ;)";

// The middleware's start and stop callbacks take no argument: they reach the
// run through this pointer, set while it executes.
Run* g_run = nullptr;

int startCallback() { return g_run ? g_run->onStart() : 0; }
int stopCallback() { return g_run ? g_run->onStop() : 0; }

}  // namespace

void Run::decided(const Decision& d) {
    emit("decision  " + describe(d) + ": " + d.text);
    decisions_.add(d);
}

void Run::pageLoaded(const std::string& url) { loaded_pages_.add(url); }

// The start callback stands for the middleware: it starts its HbbTV mode
// and asks the library to hand the start URL to the browser.
int Run::onStart() {
    emit("receiver  start callback: calls application_manager_cmd_start()");
    const int r = application_manager_cmd_start();
    emit("receiver  application_manager_cmd_start() -> " + std::to_string(r));
    return 1;
}

int Run::onStop() {
    emit("receiver  stop callback: calls application_manager_cmd_stop()");
    const int r = application_manager_cmd_stop();
    emit("receiver  application_manager_cmd_stop() -> " + std::to_string(r));
    return 1;
}

void Run::callResult(int result) {
    libraryResult(result);
    last_.result = result;
}

// The library sends its frames before the call returns, but the reader
// threads print them when they get to run: waiting until no frame came for a
// short while keeps a step's frames in its part of the trace. Bounded.
void Run::settle() {
    for (int i = 0; i < 10; ++i) {
        const std::size_t before = frames_.count();
        std::this_thread::sleep_for(std::chrono::milliseconds(kQuietMs));
        if (frames_.count() == before) return;
    }
}

// ---- before the library starts ---------------------------------------------------------

void Run::setUp() {
    setUpReceiver(s_);
    if (s_.capture) {
        if (!capture_ || !capture_->isOpen()) fail("the scenario's capture was not opened");
        capture_->attach(decisions_);
    }
    if (s_.http.enabled) startHttp();
    if (usesRemoteInput(s_)) startRemoteInput();
    if (s_.testsuite) startTestsuite();
    stream_events_.start(s_.stream_events);
}

void Run::startHttp() {
    std::string error;
    HttpStub::Config config{s_.http.missing, s_.http.root};
    if (!http_.start(
            config, [](const std::string& l) { emit(l); }, &error))
        fail("HTTP responder: " + error);
    http_host_ = http_.host();
    std::string missing;
    for (const std::string& p : s_.http.missing) missing += (missing.empty() ? "" : " ") + p;
    emit("http      answering on " + http_host_ + (s_.http.root ? ", files from " + *s_.http.root : "") +
         (missing.empty() ? "" : " (404 for " + missing + ")"));
}

// The library connects to the remote-input service on a fixed port.
void Run::startRemoteInput() {
    std::string error;
    if (!remote_.start(kRemoteInputPort, &error))
        fail("remote-input service stand-in: " + error +
             "; the key steps need this port (the shipped library's port is fixed)");
    emit("remote    remote-input service listening on 127.0.0.1:" + std::to_string(remote_.port()));
}

// The groups the timeline runs are the ones the server lists.
void Run::startTestsuite() {
    std::vector<std::string> groups;
    for (const Step& st : s_.timeline)
        if (st.kind == "testsuite_group" || st.kind == "testsuite_start") groups.push_back(st.args.at(0));
    testsuite_ = std::make_unique<TestsuiteServer>();
    std::string error;
    if (!testsuite_->start(*s_.testsuite, groups, &error)) fail(error);
}

// ---- start-up ----------------------------------------------------------------------------

// The first applicationManagerInit() waits for the browser: it runs on a
// thread of its own while the browser side connects, and must leave the
// library suspended.
void Run::startUp() {
    step("start-up: applicationManagerInit() waits for the browser; " +
         std::string(browser_.hasPage() ? "the browser starts and connects" : "the stand-in connects"));
    libraryCall("applicationManagerInit()   [on its own thread]");
    std::packaged_task<int()> first_init([] { return applicationManagerInit(); });
    std::future<int> first_result = first_init.get_future();
    std::thread init_thread(std::move(first_init));  // if it never returns, fail() ends the process
    browser_.connect(frames_);
    if (first_result.wait_for(std::chrono::milliseconds(kInitMs)) != std::future_status::ready)
        fail("timed out waiting for the first applicationManagerInit() to return");
    const int r = first_result.get();
    init_thread.join();
    libraryResult(r);
    expectResult("applicationManagerInit()", r, 1);
    expectState(APP_MANAGER_SUSPENDED);

    step("activation, start/stop callbacks, terminal version");
    callLibrary(
        "applicationManagerInit()", [] { return applicationManagerInit(); }, 1);
    expectState(APP_MANAGER_INITIALIZED);
    libraryCall("application_manager_register(start callback, stop callback)");
    application_manager_register(startCallback, stopCallback);
    libraryDone();
    configureTerminal();
    settle();
}

// The terminal's HbbTV version through the User-Agent add-on, and the
// network state the scenario starts with.
void Run::configureTerminal() {
    const int* v = s_.terminal.version;
    std::string ua = kUserAgentHead + formatVersion(v) + kUserAgentTail;
    libraryCall("configureUserAgentAddon(" + quoted(ua) + ")");
    configureUserAgentAddon(ua.data());
    libraryDone();
    if (teminal_version_major != v[0] || teminal_version_minor != v[1] || teminal_version_micro != v[2])
        fail("terminal version is " + std::to_string(teminal_version_major) + "." +
             std::to_string(teminal_version_minor) + "." + std::to_string(teminal_version_micro) +
             " after configureUserAgentAddon, expected " + formatVersion(v));
    if (s_.terminal.network) {
        // As a "network" step would.
        Step st;
        st.args = {std::to_string(*s_.terminal.network)};
        findStepKind("network")->run(*this, st);
    }
}

// ---- the timeline --------------------------------------------------------------------------

void Run::runStep(const Step& st) {
    const StepKind* kind = findStepKind(st.kind);
    if (kind->role == StepRole::Action) step(st.key + ": " + st.text);
    setFailContext(s_.path + (st.line ? ":" + std::to_string(st.line) : "") + ": " + st.key + " (" + st.text +
                   ")");
    kind->run(*this, st);
    settle();
    if (kind->role == StepRole::Action) browser_.afterStep(st.key);
}

void Run::close() {
    // Nothing of the broadcast reaches the library while it closes.
    stream_events_.stop();
    if (capture_) capture_->stop();
    callLibrary(
        "applicationManagerClose()", [] { return applicationManagerClose(); }, 1);
    if (!frames_.waitFor(Connection::Application, 160, nullptr, kWaitMs))
        fail("timed out waiting for frame 160 (browser close)");
    expectState(APP_MANAGER_DEINITIALIZED);
    closed_ = true;
    browser_.disconnect();
    if (testsuite_) {
        const std::optional<std::string> summary = testsuite_->finish();
        report(summary ? *summary : "the test-suite server gave no summary");
    }
}

void Run::execute() {
    report("appmgr-emu: scenario " + s_.path + (s_.title.empty() ? "" : ": " + s_.title) +
         (g_verbose ? " (verbose)" : ""));
    setUp();
    startUp();
    if (s_.capture && std::none_of(s_.timeline.begin(), s_.timeline.end(),
                                   [](const Step& st) { return st.kind == "play_capture"; })) {
        // A capture that no step plays is played before the timeline.
        step("the capture plays");
        setFailContext("playing the capture");
        capture_->play();
        settle();
    }
    for (const Step& st : s_.timeline) runStep(st);
    if (!closed_) {
        step("end: close");
        setFailContext("closing");
        close();
    }
    setFailContext("");
    const auto steps = std::count_if(s_.timeline.begin(), s_.timeline.end(), [](const Step& st) {
        return findStepKind(st.kind)->role != StepRole::Note;
    });
    report("\nappmgr-emu: scenario passed (" + std::to_string(steps) + " steps, " +
         std::to_string(frames_.count()) + " frames received, " + std::to_string(decisions_.count()) +
         " decisions)");
}

void runScenario(const Scenario& s, BrowserSide& browser, CaptureInput* capture) {
    // The HTTP responder is local: keep proxies of the environment out of
    // the library's probes.
    for (const char* var : {"no_proxy", "NO_PROXY"}) {
        const char* old = std::getenv(var);
        std::string v = old && *old ? std::string(old) + ",127.0.0.1" : "127.0.0.1";
        setenv(var, v.c_str(), 1);
    }
    Run run(s, browser, capture);
    g_run = &run;
    {
        DecisionWatch watch(run);
        run.execute();
    }
    g_run = nullptr;
}

}  // namespace appmgr::emu
