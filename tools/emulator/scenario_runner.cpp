#include "scenario_runner.h"


#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "http_stub.h"
#include "remote_input.h"

namespace appmgr::emu {

namespace {

using namespace appmgr::standin;

constexpr int kWaitMs = 2000;   // expected frames, decisions and replies
constexpr int kSettleMs = 300;  // before checking that something did not happen
constexpr int kQuietMs = 30;    // frames still arriving after a step (see settle())
constexpr std::size_t kShownPayload = 160;  // payload bytes shown of a content reply

// The library's key injection (KeySetImpl): looked up at run time, since the
// shared object need not export it.

const char* const kUserAgentHead =
    "Mozilla/5.0 (Linux; appmgr-emu) AppleWebKit/537.36 (KHTML, like Gecko) HbbTV/";
const char* const kUserAgentTail = " (+DRM; Emu; Sim; 1.0; ;)";

std::string hex(int v) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%x", static_cast<unsigned>(v));
    return text;
}

std::string versionText(const int v[3]) {
    return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]);
}

std::string controlText(int code) {
    const char* name = controlCodeName(code);
    return name ? name : "control " + std::to_string(code);
}

std::string transportText(int protocol) {
    if (protocol == kTransportHttp) return "http";
    if (protocol == kTransportCarousel) return "dvb";
    return "protocol " + std::to_string(protocol);
}

char* dup(const std::string& s) { return strdup(s.c_str()); }

// ---- what the middleware hands over ----------------------------------------------

// An AitTable built the way the middleware builds one: every text on the
// heap, owned by the caller; the library only copies it.
class BuiltAit {
public:
    BuiltAit(const Scenario& s, const AitSpec& table, const std::string& host) {
        const ChannelSpec* ch = s.channel(table.channel);
        t_.is_test_app = table.test ? 1 : 0;
        t_.app_type = table.type;
        t_.version = table.version;
        std::snprintf(t_.dvb_url, sizeof(t_.dvb_url), "%s", table.dvb_url.c_str());
        t_.app_lenght = static_cast<int>(table.apps.size());
        t_.apps = static_cast<Application*>(std::calloc(table.apps.size() + 1, sizeof(Application)));
        for (std::size_t i = 0; i < table.apps.size(); ++i) {
            const AppSpec& a = *s.app(table.apps[i].app);
            Application& out = t_.apps[i];
            out.organisation_id = a.org_id;
            out.app_id = a.app_id;
            out.control_code = static_cast<ControlCode>(table.apps[i].control.value_or(a.control));
            out.app_profile = a.profile;
            out.version_major = a.version[0];
            out.version_minor = a.version[1];
            out.version_micro = a.version[2];
            out.is_service_bound = a.service_bound ? 1 : 0;
            out.visibility = a.visibility;
            out.app_priority = a.priority;
            out.app_usage_type = a.usage;
            out.app_name = dup(a.name);
            out.app_boundary = a.boundary ? dup(expandPlaceholders(*a.boundary, host)) : nullptr;
            out.is_IP_connect_require = a.ip_required ? 1 : 0;
            auto* tp = static_cast<transport_protocol_descriptor*>(
                std::calloc(1, sizeof(transport_protocol_descriptor)));
            tp->protocol_id = a.transport;
            tp->transport_protocol_label = 1;
            if (a.transport != kTransportHttp && ch) {
                tp->original_network_id = ch->onid;
                tp->transport_stream_id = ch->tsid;
                tp->service_id = ch->sid;
            }
            tp->url = dup(expandPlaceholders(a.url, host));
            out.transport_protocol = tp;
            if (!a.parental.empty()) {
                out.app_parental.count = static_cast<int>(a.parental.size());
                out.app_parental.parental = static_cast<parental_rating*>(
                    std::calloc(a.parental.size(), sizeof(parental_rating)));
                for (std::size_t r = 0; r < a.parental.size(); ++r) {
                    std::snprintf(out.app_parental.parental[r].country, 4, "%s",
                                  a.parental[r].country.c_str());
                    out.app_parental.parental[r].rating = a.parental[r].rating;
                }
            }
        }
    }
    ~BuiltAit() {
        for (int i = 0; i < t_.app_lenght; ++i) {
            Application& a = t_.apps[i];
            if (a.transport_protocol) std::free(a.transport_protocol->url);
            std::free(a.transport_protocol);
            std::free(a.app_name);
            std::free(a.app_boundary);
            std::free(a.app_parental.parental);
        }
        std::free(t_.apps);
    }
    BuiltAit(const BuiltAit&) = delete;
    BuiltAit& operator=(const BuiltAit&) = delete;
    AitTable* get() { return &t_; }

private:
    AitTable t_{};
};

// A Channel record whose texts live as long as it does.
struct ChannelRecord {
    ChannelRecord(const ChannelSpec& c, int position)
        : ccid("ccid:" + std::to_string(position + 1)), name(c.label) {
        rec.type = static_cast<ChannelType>(c.type);
        rec.ccid = ccid.data();
        rec.onid = c.onid;
        rec.tsid = c.tsid;
        rec.sid = c.sid;
        rec.name = name.data();
        rec.idType = 12;  // DVB-T
        rec.nid = c.onid;
        rec.TerminalChannel = position + 1;
        rec.MajorChannel = position + 1;
    }
    std::string ccid;
    std::string name;
    Channel rec{};
};

std::string describeChannel(const ChannelSpec& c) {
    return "\"" + c.label + "\" " + hex(c.onid) + "." + hex(c.tsid) + "." + hex(c.sid);
}

// ---- decisions ------------------------------------------------------------------------

struct Decision {
    std::string kind;
    int org = -1;
    int app = -1;
    std::string text;
};

std::string describe(const Decision& d) {
    return d.kind + (d.org >= 0 ? " " + formatAppIds(d.org, d.app) : "");
}

// The running application's ids, read under the AIT guard.
std::optional<std::pair<int, int>> runningIds() {
    lockAitGuard();
    std::optional<std::pair<int, int>> ids;
    if (running_application)
        ids = std::make_pair(running_application->organisation_id, running_application->app_id);
    unlockAitGuard();
    return ids;
}

// ---- the run ------------------------------------------------------------------------------

class Run;
Run* g_run = nullptr;

class Run {
public:
    explicit Run(const Scenario& s) : s_(s) {}

    void execute();

    // Hooks (library and platform threads).
    void onLog(const char* line);
    int onStart();
    int onStop();

    // Step kinds.
    void deliverAit(const Step& st);
    void network(const Step& st);
    void channel(const Step& st);
    void wait(const Step& st);
    void waitFrame(const Step& st);
    void browser(const Step& st);
    void expect(const Step& st);
    void portal(const Step& st);
    void teletext(const Step& st);
    void launch(const Step& st);
    void keyset(const Step& st);
    void key(const Step& st);
    void close(const Step& st);
    void say(const Step& st);
    void streamEvent(const Step& st);
    void notify(const Step& st);

private:
    void setUp();
    void setUpBroadcast();
    void startUp();
    void decide(const std::string& kind, int org, int app, const std::string& detail);
    void settle();
    void readContentReply(Connection c);
    void callResult(int result);
    bool usesStep(const std::string& kind) const;
    std::string expand(const std::string& t) const { return expandPlaceholders(t, http_host_); }

    const Scenario& s_;
    BrowserStandin standin_;
    FrameLog frames_;
    ClaimLog<Decision> decisions_;
    HttpStub http_;
    std::string http_host_ = "127.0.0.1";
    std::atomic<bool> stop_readers_{false};
    std::vector<std::thread> readers_;
    // Pages the library took as loaded (browser message 82), from its log:
    // its receive thread stores the URL without a lock the emulator could
    // take, so the stored copy is not read.
    ClaimLog<std::string> loaded_pages_;
    std::optional<std::string> last_reply_;
    std::optional<std::string> last_content_;  // payload of the last content reply
    std::optional<int> last_result_;           // of the last portal/teletext/launch/keyset/key step
    std::optional<std::string> last_remote_;   // bytes the remote-input service got in the last key step
    RemoteInputListener remote_;
    bool closed_ = false;
};

using RunFn = void (Run::*)(const Step&);

const std::map<std::string, RunFn>& runTable() {
    static const std::map<std::string, RunFn> table{
        {"deliver_ait", &Run::deliverAit}, {"network", &Run::network},
        {"channel", &Run::channel},        {"wait", &Run::wait},
        {"wait_frame", &Run::waitFrame},   {"browser", &Run::browser},
        {"expect", &Run::expect},          {"close", &Run::close},
        {"portal", &Run::portal},          {"teletext", &Run::teletext},
        {"launch", &Run::launch},          {"keyset", &Run::keyset},
        {"key", &Run::key},                {"say", &Run::say},
        {"stream_event", &Run::streamEvent}, {"notify", &Run::notify},
    };
    return table;
}

void logHook(int, const char* line, void*) {
    if (g_run) g_run->onLog(line);
}
int startCallback() { return g_run ? g_run->onStart() : 0; }
int stopCallback() { return g_run ? g_run->onStop() : 0; }

// The library's log lines that carry a decision become "decision" lines. A
// kill is logged after the check that caused it, so the check's reason is
// kept per thread until the kill line comes.
void Run::onLog(const char* line) {
    if (g_verbose) emitLogLine(line);
    // "<time> INFO lyra[19]: [function:line]:message": only the message is
    // compared, and only at its start, so texts the library logs on behalf
    // of others (URLs, browser messages) cannot pass for a decision.
    const std::string text = line ? line : "";
    std::string message = text;
    const std::size_t open = text.find(": [");
    const std::size_t close = open == std::string::npos ? open : text.find("]:", open + 3);
    if (close != std::string::npos) message = text.substr(close + 2);
    auto is = [&](const char* phrase) { return message.rfind(phrase, 0) == 0; };
    auto after = [&](const char* phrase) { return message.substr(std::strlen(phrase)); };
    thread_local std::string reason;
    thread_local std::string probe_url;

    auto running = [] {
        // Logged by the thread that judges the running application, while
        // it still holds it.
        Application* a = running_application;
        return a ? std::make_pair(a->organisation_id, a->app_id) : std::make_pair(-1, -1);
    };

    if (is("Application IS running running_application_type")) {
        reason.clear();
    } else if (is("running_application signaled with control code KILL")) {
        reason = "signalled KILL";
    } else if (is("application not signaled anymore")) {
        reason = "not signalled in the new AIT";
    } else if (is("running_application signaled with is_IP_connect_require = 1,but network is off")) {
        reason = "needs broadband (is_IP_connect_require) and the network is not on";
    } else if (is("running application is still signaled in new ait -> keep it running")) {
        auto ids = running();
        decide("keep", ids.first, ids.second, "still signalled in the new AIT");
        reason = "the new AIT is a test table (is_test_app)";
    } else if (is("kill running application because it is not signaled anymore")) {
        auto ids = running();
        decide("kill", ids.first, ids.second, reason.empty() ? "not signalled in the new AIT" : reason);
        reason.clear();
    } else if (is("application IS service bound")) {
        auto ids = running();
        decide("kill", ids.first, ids.second, "service bound, and the service changed");
    } else if (is("autostart_app found")) {
        Application* a = autostart_app;
        if (a) {
            std::string url =
                a->transport_protocol && a->transport_protocol->url ? a->transport_protocol->url : "";
            decide("autostart", a->organisation_id, a->app_id,
                   "\"" + std::string(a->app_name ? a->app_name : "") + "\" priority " +
                       std::to_string(a->app_priority) + ": " + url);
        } else {
            decide("autostart", -1, -1, "(entry not readable)");
        }
    } else if (is("no autostart application available")) {
        decide("no_autostart", -1, -1, "no AUTOSTART entry is eligible");
    } else if (is("Unknown application type. Rejecting AIT table.")) {
        decide("refused", -1, -1, "unknown application type, the AIT is not taken");
    } else if (is("Invalid DVB url len: ")) {
        decide("refused", -1, -1,
               "dvb_url length " + after("Invalid DVB url len: ") + ", the AIT is not taken");
    } else if (is("Ignoring AIT table since we are in DTG mode")) {
        decide("refused", -1, -1, "a DTG AIT of the same service is current, the HbbTV AIT is ignored");
    } else if (is("Empty AIT, loading empty page..appmgr_state")) {
        decide("empty", -1, -1, "AIT without applications: the current AIT is cleared");
    } else if (is("network_status:") && message.find("is checking, hold Http App") != std::string::npos) {
        decide("held", -1, -1, "HTTP application not started while the network state is being checked");
    } else if (is("CALLED probe_http_app WAITING...: ")) {
        probe_url = after("CALLED probe_http_app WAITING...: ");
    } else if (is(" Http App probing failed")) {
        decide("probe_failed", -1, -1, probe_url.empty() ? "HTTP probe failed" : probe_url);
    } else if (is("page ")) {
        std::string m = message;
        while (!m.empty() && (m.back() == '\n' || m.back() == '\r')) m.pop_back();
        const std::string tail = " is loaded...";
        if (m.size() >= 5 + tail.size() && m.compare(m.size() - tail.size(), tail.size(), tail) == 0)
            loaded_pages_.add(m.substr(5, m.size() - 5 - tail.size()));
    } else if (is("There is running http application,but we not stop it")) {
        auto ids = running();
        decide("keep", ids.first, ids.second, "HTTP application left running with the network off");
    }
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

void Run::decide(const std::string& kind, int org, int app, const std::string& detail) {
    Decision d{kind, org, app, detail};
    emit("decision  " + describe(d) + ": " + detail);
    decisions_.add(d);
}

// The start callback stands for the middleware: it starts its HbbTV mode
// and asks the library to hand the start URL to the browser.
int Run::onStart() {
    emit("receiver  start callback: calls application_manager_cmd_start()");
    int r = application_manager_cmd_start();
    emit("receiver  application_manager_cmd_start() -> " + std::to_string(r));
    return 1;
}

int Run::onStop() {
    emit("receiver  stop callback: calls application_manager_cmd_stop()");
    int r = application_manager_cmd_stop();
    emit("receiver  application_manager_cmd_stop() -> " + std::to_string(r));
    return 1;
}

void Run::setUp() {
    for (const auto& kind : stepKinds())
        if (!runTable().count(kind.name)) fail("step kind '" + kind.name + "' has no runner");

    for (std::size_t i = 0; i < s_.channels.size(); ++i) {
        ChannelRecord rec(s_.channels[i], static_cast<int>(i));
        if (hbb_sim_add_channel(&rec.rec) < 0)
            fail("the simulator refused channel " + s_.channels[i].name);
    }
    hbb_sim_set_current_channel(0);
    emit("receiver  channels: " + [&] {
        std::string list;
        for (const ChannelSpec& c : s_.channels)
            list += (list.empty() ? "" : ", ") + c.name + " " + describeChannel(c);
        return list;
    }() + "; current: service");
    if (s_.terminal.parental_threshold) {
        hbb_sim_set_parental_threshold(*s_.terminal.parental_threshold);
        emit("receiver  parental rating threshold " + std::to_string(*s_.terminal.parental_threshold));
    }
    setUpBroadcast();
    for (const CarouselSpec& c : s_.carousels) {
        if (hbb_sim_set_carousel(c.tag, c.path.c_str()) != 0)
            fail("the simulator refused directory " + c.path + " as the carousel of tag " +
                 std::to_string(c.tag));
        emit("receiver  object carousel of component tag " + hex(c.tag) + ": directory " + c.path);
    }
    if (s_.http.enabled) {
        std::string error;
        HttpStub::Config config{s_.http.missing, s_.http.root};
        if (!http_.start(
                config, [](const std::string& l) { emit(l); }, &error))
            fail("HTTP responder: " + error);
        http_host_ = http_.host();
        emit("http      answering on " + http_host_ +
             (s_.http.root ? ", files from " + *s_.http.root : "") +
             (s_.http.missing.empty() ? "" : " (404 for " + [&] {
                 std::string l;
                 for (const std::string& p : s_.http.missing) l += (l.empty() ? "" : " ") + p;
                 return l;
             }() + ")"));
    }
    if (usesStep("key")) {
        // The library connects to the remote-input service on a fixed port.
        std::string error;
        if (!remote_.start(kRemoteInputPort, &error))
            fail("remote-input service stand-in: " + error +
                 "; the key steps need this port (the shipped library's port is fixed)");
        emit("remote    remote-input service listening on 127.0.0.1:" + std::to_string(remote_.port()));
    }
}

bool Run::usesStep(const std::string& kind) const {
    for (const Step& st : s_.timeline)
        if (st.kind == kind) return true;
    return false;
}

void Run::startUp() {
    step("start-up: applicationManagerInit() waits for the browser; the stand-in connects");
    startLibraryWithBrowser(standin_, readers_, stop_readers_, frames_);

    step("activation, start/stop callbacks, terminal version");
    callLibrary(
        "applicationManagerInit()", [] { return applicationManagerInit(); }, 1);
    expectState(APP_MANAGER_INITIALIZED);
    libraryCall("application_manager_register(start callback, stop callback)");
    application_manager_register(startCallback, stopCallback);
    libraryDone();

    std::string ua = kUserAgentHead + versionText(s_.terminal.version) + kUserAgentTail;
    libraryCall("configureUserAgentAddon(" + quoted(ua) + ")");
    configureUserAgentAddon(ua.data());
    libraryDone();
    if (teminal_version_major != s_.terminal.version[0] ||
        teminal_version_minor != s_.terminal.version[1] ||
        teminal_version_micro != s_.terminal.version[2])
        fail("terminal version is " + std::to_string(teminal_version_major) + "." +
             std::to_string(teminal_version_minor) + "." + std::to_string(teminal_version_micro) +
             " after configureUserAgentAddon, expected " + versionText(s_.terminal.version));

    if (s_.terminal.network) {
        Step st;
        st.args = {std::to_string(*s_.terminal.network)};
        network(st);
    }
    settle();
}

void Run::execute() {
    emit("appmgr-emu: scenario " + s_.path + (s_.title.empty() ? "" : ": " + s_.title) +
         (g_verbose ? " (verbose)" : ""));
    setUp();
    startUp();
    for (const Step& st : s_.timeline) {
        // Checks print their one line under the step they check.
        if (st.kind != "say" && st.kind != "expect" && st.kind != "wait_frame")
            step(st.key + ": " + st.text);
        setFailContext(s_.path + (st.line ? ":" + std::to_string(st.line) : "") + ": " + st.key + " (" +
                       st.text + ")");
        (this->*runTable().at(st.kind))(st);
        settle();
    }
    if (!closed_) {
        step("end: close");
        setFailContext("closing");
        close(Step{});
    }
    setFailContext("");
    const auto steps = std::count_if(s_.timeline.begin(), s_.timeline.end(),
                                     [](const Step& st) { return st.kind != "say"; });
    emit("\nappmgr-emu: scenario passed (" + std::to_string(steps) + " steps, " +
         std::to_string(frames_.count()) + " frames received, " + std::to_string(decisions_.count()) +
         " decisions)");
}

// ---- step kinds --------------------------------------------------------------------------

void Run::deliverAit(const Step& st) {
    const AitSpec& table = *s_.ait(st.args.at(0));
    BuiltAit ait(s_, table, http_host_);
    libraryCall("aitUpdate(AIT \"" + table.name + "\": type " + std::to_string(table.type) + ", version " +
                std::to_string(table.version) + (table.test ? ", test" : "") + ", " +
                quoted(table.dvb_url) + ", " + std::to_string(table.apps.size()) + " application" +
                (table.apps.size() == 1 ? "" : "s") + ")   [AIT subscription]");
    for (int i = 0; i < ait.get()->app_lenght; ++i) {
        const Application& a = ait.get()->apps[i];
        const AppSpec& as = *s_.app(table.apps[static_cast<std::size_t>(i)].app);
        std::string extra;
        if (!as.service_bound) extra += ", unbound";
        if (as.ip_required) extra += ", needs IP";
        for (const RatingSpec& r : as.parental)
            extra += ", " + r.country + ":" + std::to_string(r.rating);
        if (as.profile != 0) extra += ", profile " + std::to_string(as.profile);
        emit("          [" + std::to_string(i) + "] " + formatAppIds(a.organisation_id, a.app_id) + " " +
             controlText(a.control_code) + " priority " + std::to_string(a.app_priority) + ", " +
             transportText(a.transport_protocol->protocol_id) + ", version " + versionText(as.version) +
             extra + ": " + a.transport_protocol->url);
    }
    if (hbb_sim_fire_ait(ait.get()) != 0)
        fail("the library has not subscribed to AITs (hbb_sim_fire_ait found no callback)");
    libraryDone();
}

void Run::network(const Step& st) {
    const int status = std::stoi(st.args.at(0));
    const char* name = status == 0 ? " (off)" : status == 1 ? " (on)" : status == 2 ? " (checking)" : "";
    libraryCall("sendNetworkStatus(" + std::to_string(status) + name +
                ")   [network status notification]");
    if (hbb_sim_fire_network_status(status) != 0)
        fail("the library has not registered for the network status");
    libraryDone();
}

void Run::channel(const Step& st) {
    const int pos = s_.channelIndex(st.args.at(0));
    const ChannelSpec& c = s_.channels[static_cast<std::size_t>(pos)];
    if (hbb_sim_set_current_channel(pos) != 0) fail("the simulator has no channel " + c.name);
    emit("receiver  tuned to " + c.name + " " + describeChannel(c));
    ChannelRecord rec(c, pos);
    libraryCall("channelChanged(" + describeChannel(c) + ")");
    channelChanged(&rec.rec);
    libraryDone();
}

void Run::wait(const Step& st) {
    const int ms = std::stoi(st.args.at(0));
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    emit("          (waited " + std::to_string(ms) + " ms)");
}

void Run::waitFrame(const Step& st) {
    const int id = std::stoi(st.args.at(0));
    std::optional<std::vector<std::string>> fields;
    if (st.tail) fields = splitExpectedFields(expand(*st.tail));
    const bool ok = frames_.ClaimLog<SeenFrame>::waitFor(
        [&](const SeenFrame& e) { return e.frame.id == id && (!fields || e.frame.fields == *fields); },
        kWaitMs);
    const std::string what = "frame " + std::to_string(id) + " (" + commandName(id) + ")" +
                             (fields ? " " + fieldList(*fields) : "");
    if (!ok) {
        std::string seen;
        for (const SeenFrame& f : frames_.unclaimed())
            if (f.frame.id == id) seen += " " + fieldList(f.frame.fields);
        fail("timed out waiting for " + what +
             (seen.empty() ? "" : "; unmatched frames " + std::to_string(id) + ":" + seen));
    }
    emit("check     " + what + " received");
}

void Run::browser(const Step& st) {
    const Connection c = static_cast<Connection>(std::stoi(st.args.at(0)));
    const std::string raw = expand(st.tail.value_or(""));
    const std::size_t bar = raw.find('|');
    const std::string id_text = raw.substr(0, bar);
    int id = -1;
    if (!id_text.empty() && id_text.size() < 7 &&
        id_text.find_first_not_of("0123456789") == std::string::npos)
        id = std::stoi(id_text);
    std::optional<std::string> trailing;
    std::vector<std::string> fields = bar == std::string::npos
                                          ? std::vector<std::string>{}
                                          : splitFields(raw.substr(bar + 1), &trailing);
    emit(trimRight(col(c) + "-> " + (id >= 0 ? idAndName(id, requestName(c, id)) : std::string("raw ")) +
                   (id >= 0 ? fieldList(fields, trailing) : quoted(raw))));
    if (!standin_.send(c, raw)) fail(std::string("could not send on ") + connectionName(c));
    last_content_.reset();
    if (c == Connection::Dsmcc && id >= 131 && id <= 133) {
        readContentReply(c);
        return;
    }
    if (c == Connection::DtvPlugins || c == Connection::VodPlugins || c == Connection::Dsmcc) {
        last_reply_ = standin_.readReply(c, kWaitMs);
        if (!last_reply_) {
            emit(col(c) + "<- no reply (" + readStatusName(standin_.lastReadStatus(c)) + ")");
            return;
        }
        std::optional<std::string> rest;
        std::vector<std::string> rf = splitFields(*last_reply_, &rest);
        emit(col(c) + "<- reply " + fieldList(rf, rest));
        // Records are shown field by field as well.
        const Decoded decoded = decodeReply(c, id, *last_reply_);
        if (decoded.fields.size() > 1) emit(col(c) + "   = " + standin::describe(decoded));
    }
}

// A carousel content reply: "kind|0|length|", exactly length payload bytes
// (binary, zero bytes included), then the zero byte that ends every reply;
// or "NOT_AVAILABLE|" and the zero byte. The header becomes the reply that
// "expect reply" checks, the payload the content "expect content" checks.
void Run::readContentReply(Connection c) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    auto left = [&] {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        return static_cast<int>(std::max<long long>(0, rest.count()));
    };
    auto noReply = [&](const std::string& got) {
        emit(col(c) + "<- no complete reply (" + readStatusName(standin_.lastReadStatus(c)) + ")" +
             (got.empty() ? "" : ", got " + quoted(got)));
        last_reply_.reset();
    };
    // The header, a byte at a time so that nothing after it is taken early.
    std::string header;
    int bars = 0;
    while (bars < 3) {
        std::optional<std::string> b = standin_.readRaw(c, 1, left());
        if (!b || b->empty()) return noReply(header);
        header += *b;
        if ((*b)[0] == '|') ++bars;
        if ((*b)[0] == '\0') {
            header.pop_back();
            last_reply_ = header;
            std::optional<std::string> rest;
            emit(col(c) + "<- reply " + fieldList(splitFields(header, &rest), rest));
            return;
        }
    }
    std::vector<std::string> fields = splitFields(header);
    long length = -1;
    if (fields.size() == 3 && !fields[2].empty() &&
        fields[2].find_first_not_of("0123456789") == std::string::npos && fields[2].size() < 10)
        length = std::stol(fields[2]);
    if (length < 0) fail("content reply header " + quoted(header) + " has no payload length");
    std::string payload;
    while (static_cast<long>(payload.size()) < length + 1) {
        std::optional<std::string> b =
            standin_.readRaw(c, static_cast<std::size_t>(length + 1) - payload.size(), left());
        if (!b || b->empty()) return noReply(header + payload);
        payload += *b;
    }
    if (payload.back() != '\0')
        fail("content reply of " + std::to_string(length) + " bytes is not followed by a zero byte (got " +
             quoted(payload.substr(payload.size() - 1)) + ")");
    payload.pop_back();
    last_reply_ = header;
    last_content_ = payload;
    const std::string shown = payload.substr(0, kShownPayload);
    emit(col(c) + "<- reply " + fieldList(fields) + " + " + std::to_string(length) + " byte" +
         (length == 1 ? "" : "s") + " " + quoted(shown) + (payload.size() > shown.size() ? "..." : ""));
}

void Run::expect(const Step& st) {
    const std::string& what = st.args.at(0);
    if (what == "running") {
        std::optional<std::pair<int, int>> ids = runningIds();
        const std::string got = ids ? formatAppIds(ids->first, ids->second) : "none";
        const std::string want = st.args.at(1) == "none"
                                     ? "none"
                                     : formatAppIds(std::stoi(st.args.at(1)), std::stoi(st.args.at(2)));
        if (got != want) fail("running application is " + got + ", expected " + want);
        emit("check     running application: " + got);
    } else if (what == "decision" || what == "no_decision") {
        const std::string kind = st.args.at(1);
        const bool with_ids = st.args.size() == 4;
        const int org = with_ids ? std::stoi(st.args.at(2)) : -1;
        const int app = with_ids ? std::stoi(st.args.at(3)) : -1;
        auto match = [&](const Decision& d) {
            return d.kind == kind && (!with_ids || (d.org == org && d.app == app));
        };
        const std::string want = kind + (with_ids ? " " + formatAppIds(org, app) : "");
        if (what == "decision") {
            if (!decisions_.waitFor(match, kWaitMs)) {
                std::string seen;
                for (const Decision& d : decisions_.unclaimed())
                    seen += (seen.empty() ? "" : ", ") + describe(d);
                fail("no decision " + want +
                     " (decisions not yet matched: " + (seen.empty() ? "none" : seen) + ")");
            }
            emit("check     decision " + want);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
            if (std::optional<Decision> d = decisions_.findUnclaimed(match))
                fail("unexpected decision " + describe(*d) + ": " + d->text);
            emit("check     no decision " + want);
        }
    } else if (what == "no_frame") {
        const int id = std::stoi(st.args.at(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
        if (std::optional<SeenFrame> f =
                frames_.findUnclaimed([&](const SeenFrame& e) { return e.frame.id == id; }))
            fail("unexpected frame " + std::to_string(id) + " (" + commandName(id) + ") " +
                 fieldList(f->frame.fields));
        emit("check     no frame " + std::to_string(id) + " (" + commandName(id) + ")");
    } else if (what == "state") {
        const int want = std::stoi(st.args.at(1));
        expectState(want);
        emit(std::string("check     state ") + stateName(want));
    } else if (what == "result") {
        const int want = std::stoi(st.args.at(1));
        if (!last_result_) fail("no earlier portal, teletext, launch, keyset or key step returned a result");
        if (*last_result_ != want)
            fail("the last call returned " + std::to_string(*last_result_) + ", expected " +
                 std::to_string(want));
        emit("check     result " + std::to_string(want));
    } else if (what == "keyset") {
        const int want = std::stoi(st.args.at(1));
        const int got = hbb_sim_registered_keyset();
        if (got != want)
            fail("the platform's registered key set is " + hex(got) + ", expected " + hex(want));
        emit("check     registered key set " + hex(want));
    } else if (what == "content") {
        if (!last_content_) fail("the last browser step received no carousel content");
        const std::string want = expand(st.tail.value_or(""));
        if (*last_content_ != want)
            fail("content is " + quoted(*last_content_) + " (" + std::to_string(last_content_->size()) +
                 " bytes), expected " + quoted(want) + " (" + std::to_string(want.size()) + " bytes)");
        emit("check     content " + std::to_string(want.size()) + " bytes, as expected");
    } else if (what == "remote") {
        if (!last_remote_) fail("no earlier key step");
        const std::string want = st.tail.value_or("");
        if (*last_remote_ != want)
            fail("the remote-input service received " + quoted(*last_remote_) + ", expected " + quoted(want));
        emit("check     remote-input bytes " + quoted(want));
    } else if (what == "loaded") {
        const std::string want = expand(st.tail.value_or(""));
        if (!loaded_pages_.waitFor([&](const std::string& url) { return url == want; }, kWaitMs)) {
            std::string seen;
            for (const std::string& url : loaded_pages_.unclaimed()) seen += " " + quoted(url);
            fail("the library took no page " + quoted(want) + " as loaded" +
                 (seen.empty() ? "" : " (pages not yet matched:" + seen + ")"));
        }
        emit("check     the library took " + quoted(want) + " as the loaded page");
    } else if (what == "portal") {
        const int want = std::stoi(st.args.at(1));
        // The library writes the application state under the AIT guard.
        lockAitGuard();
        const int got = is_portal_mode;
        unlockAitGuard();
        if ((got != 0) != (want != 0))
            fail(std::string("portal mode is ") + (got ? "on" : "off") + ", expected " +
                 (want ? "on" : "off"));
        emit(std::string("check     portal mode ") + (want ? "on" : "off"));
    } else if (what == "listening" || what == "not_listening") {
        const std::string url = expand(st.args.at(1));
        const bool want = what == "listening";
        int tag = -1, id = -1;
        const bool got = hbb_sim_stream_event_subscribed(url.c_str(), st.args.at(2).c_str(), &tag, &id) == 1;
        if (got != want)
            fail(std::string("the library ") + (got ? "listens" : "does not listen") + " for " +
                 st.args.at(2) + " of " + url);
        emit("check     " + std::string(want ? "listening for " : "not listening for ") + st.args.at(2) +
             " of " + url + (got && tag >= 0 ? " (component tag " + std::to_string(tag) + ", event id " +
                                                   std::to_string(id) + ")"
                                             : ""));
    } else if (what == "reply") {
        if (!last_reply_) fail("no reply was received by an earlier browser step");
        std::optional<std::string> rest;
        std::vector<std::string> got = splitFields(*last_reply_, &rest);
        if (rest) got.push_back(*rest);
        const std::vector<std::string> want = splitExpectedFields(expand(st.tail.value_or("")));
        if (got != want) fail("reply is " + fieldList(got) + ", expected " + fieldList(want));
        emit("check     reply " + fieldList(want));
    }
}

// Shows the result of a call made by a step and keeps it for "expect result".
void Run::callResult(int result) {
    libraryResult(result);
    last_result_ = result;
}

// Programmes, components and the receiver's answers, and the library's
// notification entry points when the scenario wants the middleware to report
// tunes and changes itself.
void Run::setUpBroadcast() {
    if (s_.receiver.eit) {
        hbb_sim_eit_clear();
        // Searches walk the cache event by event: those calls are not shown.
        hbb_sim_eit_trace_event_calls(0);
        int bad_line = 0;
        if (hbb_sim_eit_load_file(s_.receiver.eit->c_str(), &bad_line) < 0)
            fail("the EIT file " + *s_.receiver.eit + " is not valid at line " +
                 std::to_string(bad_line));
        emit("receiver  EIT cache: " + std::to_string(hbb_sim_eit_service_count()) +
             " services, " + std::to_string(hbb_sim_eit_event_count()) + " events from " +
             *s_.receiver.eit);
    }
    for (const ProgrammeSpec& p : s_.programmes) {
        Programme rec{};
        rec.name = const_cast<char*>(p.title.c_str());
        rec.description = const_cast<char*>(p.description.c_str());
        rec.startTime = static_cast<int>(p.start);
        rec.duration = p.duration;
        rec.programmeID = const_cast<char*>(p.id.c_str());
        rec.programmeIDType = PROGRAMME_ID_DVB_EVENT;
        rec.longDescription = p.long_description ? const_cast<char*>(p.long_description->c_str()) : nullptr;
        const std::string value = std::to_string(p.rating_value);
        const std::string scheme = p.rating_scheme.value_or("");
        ParentalRating rating{const_cast<char*>(value.c_str()), const_cast<char*>(scheme.c_str()),
                              p.rating_value, 0, nullptr};
        if (p.rating_scheme) rec.parentalRatings = &rating;
        if (hbb_sim_add_programme(s_.channelIndex(p.channel), &rec) < 0)
            fail("the simulator refused programme " + p.section);
        emit("receiver  programme \"" + p.title + "\" on " + p.channel + " at " + std::to_string(p.start) +
             " for " + std::to_string(p.duration) + " s");
    }
    static const char* const kKinds[] = {"video", "audio", "subtitle"};
    for (const ComponentSpec& c : s_.components) {
        AVComponent inner{static_cast<AVComponentType>(c.kind), const_cast<char*>(c.encoding.c_str()), 0,
                          c.tag, c.pid};
        char* language = const_cast<char*>(c.language.c_str());
        const int position = s_.channelIndex(c.channel);
        int index = -1;
        if (c.kind == 0) {
            AVVideoComponent v{&inner, c.aspect_ratio};
            index = hbb_sim_add_video_component(position, &v, c.active);
        } else if (c.kind == 1) {
            AVAudioComponent a{&inner, language, c.audio_description ? 1 : 0, c.audio_channels};
            index = hbb_sim_add_audio_component(position, &a, c.active);
        } else {
            AVSubtitleComponent t{&inner, language, c.hearing_impaired ? 1 : 0};
            index = hbb_sim_add_subtitle_component(position, &t, c.active);
        }
        if (index < 0) fail("the simulator refused component " + c.section);
        emit("receiver  " + std::string(kKinds[c.kind]) + " component " + c.section + " on " + c.channel +
             ": tag " + std::to_string(c.tag) + ", pid " + std::to_string(c.pid) +
             (c.language.empty() ? "" : ", " + c.language) + (c.active ? ", active" : ""));
    }
    const ReceiverSpec& r = s_.receiver;
    for (const std::string& name : r.capabilities) hbb_sim_set_capability(name.c_str(), 1);
    if (r.decodes) hbb_sim_set_video_decodes(r.decodes->first, r.decodes->second);
    if (r.rating_schemes) hbb_sim_set_parental_rating_schemes(*r.rating_schemes);
    if (r.xml_capabilities) {
        std::FILE* in = std::fopen(r.xml_capabilities->c_str(), "rb");
        if (!in) fail("cannot read " + *r.xml_capabilities);
        std::string document;
        char chunk[4096];
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) document.append(chunk, n);
        std::fclose(in);
        hbb_sim_set_xml_capabilities(document.c_str());
    }
    if (r.audio_language || r.subtitle_language || r.ui_language || r.country || r.device_id) {
        const std::string audio = r.audio_language.value_or("eng");
        const std::string subtitle = r.subtitle_language.value_or("eng");
        const std::string ui = r.ui_language.value_or("eng");
        const std::string country = r.country.value_or("GBR");
        const std::string device = r.device_id.value_or("hbb-sim-0001");
        Configuration config{};
        config.preferredAudioLanguage = const_cast<char*>(audio.c_str());
        config.preferredSubtitleLanguage = const_cast<char*>(subtitle.c_str());
        config.preferredUILanguage = const_cast<char*>(ui.c_str());
        config.countryID = const_cast<char*>(country.c_str());
        config.DeviceId = const_cast<char*>(device.c_str());
        hbb_sim_set_configuration(&config);
    }
    if (r.notifications) {
        hbb_sim_listeners listeners{};
        listeners.channel_changed = channelChanged;
        listeners.channel_change_error = channelChangeError;
        listeners.programmes_list_changed = programmesListChanged;
        listeners.programmes_changed = programmesChanged;
        listeners.selected_component_changed = selectedComponentChanged;
        listeners.component_changed = componentChanged;
        listeners.parental_rating_changed = parentalRatingChanged;
        listeners.parental_rating_error = parentalRatingError;
        hbb_sim_set_listeners(&listeners);
        emit("receiver  reports tunes and broadcast changes to the library from its notifier thread");
    }
}

void Run::streamEvent(const Step& st) {
    const std::string url = expand(st.args.at(0));
    const std::string& name = st.args.at(1);
    const bool error = st.args.at(2) == "error";
    const std::string payload = st.tail.value_or("");
    emit("receiver  stream event " + name + " of " + url +
         (error ? ": error" : ": fired with " + std::to_string(payload.size()) + " bytes \"" +
                                  escapeBytes(payload) + "\""));
    const int reached = hbb_sim_fire_stream_event(url.c_str(), name.c_str(),
                                                  error ? eQUMAm_DSMCC_EVENT_ERROR : eQUMAm_DSMCC_EVENT_FIRE,
                                                  payload.data(), static_cast<int>(payload.size()));
    if (reached == 0) fail("nothing listens for " + name + " of " + url);
    if (hbb_sim_wait_notifications(kWaitMs) != 0) fail("the stream event was not delivered in time");
}

void Run::notify(const Step& st) {
    const std::string& what = st.args.at(0);
    auto arg = [&](std::size_t i) { return std::stoi(st.args.at(i)); };
    int posted = -1;
    if (what == "programmes_changed") posted = hbb_sim_fire_programmes_changed();
    if (what == "programme_list_changed") posted = hbb_sim_fire_programmes_list_changed();
    if (what == "component_changed") posted = hbb_sim_fire_component_changed(arg(1));
    if (what == "rating_changed") posted = hbb_sim_fire_parental_rating_changed(arg(1), arg(2));
    if (what == "rating_error") posted = hbb_sim_fire_parental_rating_error(arg(1));
    if (posted != 0) fail("the receiver does not report changes ([receiver] notifications = yes)");
    emit("receiver  notifies " + what);
    if (hbb_sim_wait_notifications(kWaitMs) != 0) fail("the notification was not delivered in time");
}

void Run::portal(const Step& st) {
    if (st.args.at(0) == "open") {
        std::string url = expand(st.tail.value_or(""));
        libraryCall("openWebPortal(" + quoted(url) + ")   [the middleware's portal menu]");
        callResult(openWebPortal(url.data()));
    } else {
        libraryCall("closeWebPortal()");
        callResult(closeWebPortal());
    }
}

void Run::teletext(const Step& st) {
    const int state = std::stoi(st.args.at(0));
    libraryCall("toggleTeletextApplication(" + std::to_string(state) + ")   [the middleware's TEXT key]");
    callResult(toggleTeletextApplication(state));
}

void Run::launch(const Step& st) {
    const int type = std::stoi(st.args.at(0));
    std::string url = expand(st.tail.value_or(""));
    const char* name = launchTypeName(type);
    libraryCall("Hbbtv_AM_Launch_Application(" + std::to_string(type) +
                (name ? std::string(" ") + name : "") + ", " + quoted(url) + ")");
    callResult(Hbbtv_AM_Launch_Application(static_cast<eLaunchType>(type), url.data()));
}

void Run::keyset(const Step& st) {
    const int mask = std::stoi(st.args.at(0));
    const bool other = st.args.at(1) == "1";
    int other_keys[1] = {0};  // the library only looks at whether a list is given
    libraryCall("setKeySet(" + hex(mask) + ", " + (other ? "other-keys list" : "NULL") + ")");
    callResult(setKeySet(mask, other ? other_keys : nullptr));
    emit("receiver  key set registered with the platform: " + hex(hbb_sim_registered_keyset()));
}

void Run::key(const Step& st) {
    const int key = std::stoi(st.args.at(0));
    const std::string before = remote_.take(0);
    if (!before.empty()) emit("remote    received before the step: " + quoted(before));
    libraryCall("sendIrCmd(" + std::to_string(key) + ")   [remote-key injection]");
    callResult(sendIrCmd(static_cast<uint16_t>(key)));
    // Known keys arrive before the call returns; for others nothing comes.
    last_remote_ = remote_.take(kSettleMs);
    emit("remote    " + (last_remote_->empty() ? std::string("nothing received")
                                               : "received " + quoted(*last_remote_) + " (" +
                                                     std::to_string(last_remote_->size()) + " bytes)"));
}

void Run::say(const Step& st) { emit("\n=== " + st.tail.value_or("")); }

void Run::close(const Step&) {
    callLibrary(
        "applicationManagerClose()", [] { return applicationManagerClose(); }, 1);
    if (!frames_.waitFor(Connection::Application, 160, nullptr, kWaitMs))
        fail("timed out waiting for frame 160 (browser close)");
    expectState(APP_MANAGER_DEINITIALIZED);
    closed_ = true;
    stop_readers_.store(true);
    for (std::thread& t : readers_) t.join();
    readers_.clear();
    standin_.disconnectAll();
}

}  // namespace

void runScenario(const Scenario& s) {
    // The HTTP responder is local: keep proxies of the environment out of
    // the library's probes.
    for (const char* var : {"no_proxy", "NO_PROXY"}) {
        const char* old = std::getenv(var);
        std::string v = old && *old ? std::string(old) + ",127.0.0.1" : "127.0.0.1";
        setenv(var, v.c_str(), 1);
    }
    Run run(s);
    g_run = &run;
    // The library's log feeds the decisions; it is printed only with --verbose.
    hbb_sim_set_log_level(2);
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_hook(logHook, nullptr);
    run.execute();
    hbb_sim_set_log_hook(nullptr, nullptr);
    g_run = nullptr;
}

}  // namespace appmgr::emu
