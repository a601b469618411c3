#include "test_support.h"

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/seams.h"
#include "hbb_sim.h"

namespace appmgr::test {

TempDir::TempDir() {
    char tmpl[] = "/tmp/appmgr-test-XXXXXX";
    const char* made = ::mkdtemp(tmpl);
    if (made == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = std::string(made) + "/";
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

LogCapture::LogCapture() { hbb_sim_set_log_hook(&LogCapture::hook, this); }

LogCapture::~LogCapture() { hbb_sim_set_log_hook(nullptr, nullptr); }

void LogCapture::hook(int, const char* line, void* user) {
    auto* self = static_cast<LogCapture*>(user);
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->lines_.emplace_back(line);
    }
    self->cv_.notify_all();
}

bool LogCapture::contains(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

bool LogCapture::waitFor(const std::string& text, int timeout_ms) const {
    return waitForCount(text, 1, timeout_ms);
}

bool LogCapture::waitForCount(const std::string& text, int count, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        int seen = 0;
        for (const auto& l : lines_)
            if (l.find(text) != std::string::npos) ++seen;
        return seen >= count;
    });
}

int LogCapture::count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int seen = 0;
    for (const auto& l : lines_)
        if (l.find(text) != std::string::npos) ++seen;
    return seen;
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

bool DecisionMatch::matches(const Decision& d) const {
    if (d.name != name) return false;
    if (!reason.empty() && d.reason != reason) return false;
    if (!url.empty() && d.url != url) return false;
    if (org_id >= 0 && (d.org_id != org_id || d.app_id != app_id)) return false;
    return true;
}

DecisionCapture::DecisionCapture() { hbb_sim_set_decision_hook(&DecisionCapture::hook, this); }

DecisionCapture::~DecisionCapture() { hbb_sim_set_decision_hook(nullptr, nullptr); }

void DecisionCapture::hook(const hbbDecision* d, void* user) {
    auto* self = static_cast<DecisionCapture*>(user);
    auto text = [](const char* t) { return std::string(t != nullptr ? t : ""); };
    Decision copy{text(d->name), d->org_id,      d->app_id,        d->priority,
                  text(d->app_name), text(d->url), text(d->reason), d->value};
    {
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->decisions_.push_back(std::move(copy));
    }
    self->cv_.notify_all();
}

int DecisionCapture::count(const DecisionMatch& match) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int seen = 0;
    for (const Decision& d : decisions_)
        if (match.matches(d)) ++seen;
    return seen;
}

bool DecisionCapture::waitFor(const DecisionMatch& match, int timeout_ms, int count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
        int seen = 0;
        for (const Decision& d : decisions_)
            if (match.matches(d)) ++seen;
        return seen >= count;
    });
}

std::vector<Decision> DecisionCapture::all() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return decisions_;
}

std::string describe(const std::vector<Decision>& decisions) {
    std::string out;
    for (const Decision& d : decisions) {
        out += out.empty() ? "" : ", ";
        out += d.name;
        if (d.org_id >= 0) out += " " + std::to_string(d.org_id) + "." + std::to_string(d.app_id);
        if (!d.reason.empty()) out += " (" + d.reason + ")";
        if (!d.url.empty()) out += " " + d.url;
    }
    return out.empty() ? "none" : out;
}

namespace {
std::atomic<int> g_starts{0};
std::atomic<int> g_stops{0};
int on_start() {
    ++g_starts;
    return application_manager_cmd_start();
}
int on_stop() {
    ++g_stops;
    return 1;
}
}  // namespace

void MiddlewareCallbacks::install() {
    g_starts = 0;
    g_stops = 0;
    application_manager_register(on_start, on_stop);
}
int MiddlewareCallbacks::starts() { return g_starts.load(); }
int MiddlewareCallbacks::stops() { return g_stops.load(); }

namespace {
std::mutex g_shell_mutex;
std::vector<std::string> g_shell;

int record_shell(const char* command) {
    std::lock_guard<std::mutex> lock(g_shell_mutex);
    g_shell.emplace_back(command);
    return 0;
}
}  // namespace

std::vector<std::string> shell_commands() {
    std::lock_guard<std::mutex> lock(g_shell_mutex);
    return g_shell;
}

void LibraryTest::SetUp() {
    hbb_sim_reset();
    // Lines reach the capture hook; only errors are echoed to stderr.
    hbb_sim_set_log_level(2);
    seams::set_socket_dir(dir_.path());
    seams::set_browser_wait_seconds(5);
    seams::set_settle_millis(0);
    seams::set_shell_runner(record_shell);
    seams::set_tessel_marker(dir_.path() + "tessel");
}

void LibraryTest::TearDown() {
    // The library closes first, so the stand-in's disconnect is not taken
    // for a browser crash.
    if (messaging_only_) {
        tools_msg_close(&gData);
    } else if (state() != APP_MANAGER_DEINITIALIZED || browser_running()) {
        // Make sure the browser counts as present so close tears everything down.
        appmgr::state::set_browser_running(true);
        if (state() == APP_MANAGER_DEINITIALIZED) set_state(APP_MANAGER_SUSPENDED);
        applicationManagerClose();
    }
    browser_.disconnectAll();
}

int LibraryTest::startWithBrowser() {
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    EXPECT_TRUE(browser_.connectAll(5000)) << browser_.lastError(Connection::Application);
    EXPECT_TRUE(browser_.send(Connection::Application, "83|1|"));
    if (init.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "applicationManagerInit did not return";
        return -1;
    }
    // The browser's connects complete before the server threads accept;
    // commands on a connection work once it has logged the accept.
    EXPECT_TRUE(log_.waitForCount("server_task() - connected", MNG_CONNECTION_TYPE_SIZE, 5000));
    return init.get();
}

void LibraryTest::startActive() {
    set_terminal_version(1, 7, 1);
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
    MiddlewareCallbacks::install();
}

void LibraryTest::startMessagingOnly() {
    messaging_only_ = true;
    ASSERT_EQ(tools_msg_init(&gData, 0, nullptr), RET_OK);
    ASSERT_EQ(tools_msg_connect(&gData), RET_OK);
    ASSERT_TRUE(browser_.connectAll(5000));
    // A client's connect completes before the server thread has accepted;
    // sends work only once all five have logged the accepted connection.
    ASSERT_TRUE(log_.waitForCount("server_task() - connected", MNG_CONNECTION_TYPE_SIZE, 5000));
}

std::string LibraryTest::serveCarousel(int component_tag, const std::vector<std::string>& files) {
    std::string root = dir_.path() + "carousel" + std::to_string(component_tag) + "/";
    for (const auto& f : files) {
        std::filesystem::path path(root + f);
        std::filesystem::create_directories(path.parent_path());
        FILE* out = std::fopen(path.c_str(), "w");
        if (out == nullptr) {
            ADD_FAILURE() << "cannot create " << path;
            continue;
        }
        std::fprintf(out, "<html><body>%s</body></html>\n", f.c_str());
        std::fclose(out);
    }
    EXPECT_EQ(hbb_sim_set_carousel(component_tag, root.c_str()), 0);
    return root;
}

standin::Frame LibraryTest::nextFrame(Connection c, int timeout_ms) {
    auto frame = browser_.readFrame(c, timeout_ms);
    if (!frame) {
        ADD_FAILURE() << "no frame on " << standin::connectionName(c) << ": "
                      << browser_.lastError(c);
        return standin::Frame{};
    }
    return *frame;
}

}  // namespace appmgr::test
