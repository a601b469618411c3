// DecisionWatch by the library's log: the lines that carry a decision,
// matched by the start of their message, one row each.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "app_mgr_state.h"
#include "decisions.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "scenario_text.h"

namespace appmgr::emu {

namespace {

std::atomic<DecisionListener*> g_listener{nullptr};

// A kill is logged after the check that caused it, and a failed probe after
// the line naming its URL: what those earlier lines said is kept per thread
// until the decision comes.
struct PendingReasons {
    std::string kill_reason;
    std::string probe_url;
};
thread_local PendingReasons t_pending;

void decide(const std::string& kind, int org, int app, const std::string& text) {
    if (DecisionListener* l = g_listener.load()) l->decided(Decision{kind, org, app, text});
}

void decide(const std::string& kind, const std::string& text) { decide(kind, -1, -1, text); }

// Logged by the thread that judges the running application, while it still
// holds it.
void decideOnRunning(const std::string& kind, const std::string& text) {
    const Application* a = running_application;
    decide(kind, a ? a->organisation_id : -1, a ? a->app_id : -1, text);
}

void autostartChosen(const std::string&) {
    const Application* a = autostart_app;
    if (!a) return decide("autostart", "(entry not readable)");
    const std::string url =
        a->transport_protocol && a->transport_protocol->url ? a->transport_protocol->url : "";
    decide("autostart", a->organisation_id, a->app_id,
           "\"" + std::string(a->app_name ? a->app_name : "") + "\" priority " +
               std::to_string(a->app_priority) + ": " + url);
}

void killed(const std::string&) {
    decideOnRunning("kill",
                    t_pending.kill_reason.empty() ? "not signalled in the new AIT" : t_pending.kill_reason);
    t_pending.kill_reason.clear();
}

void keptSignalled(const std::string&) {
    decideOnRunning("keep", "still signalled in the new AIT");
    t_pending.kill_reason = "the new AIT is a test table (is_test_app)";
}

void held(const std::string& message) {
    if (message.find("is checking, hold Http App") != std::string::npos)
        decide("held", "HTTP application not started while the network state is being checked");
}

// "page URL is loaded...".
void pageLoaded(const std::string& message) {
    std::string m = message;
    while (!m.empty() && (m.back() == '\n' || m.back() == '\r')) m.pop_back();
    const std::string head = "page ";
    const std::string tail = " is loaded...";
    if (m.size() < head.size() + tail.size() || m.compare(m.size() - tail.size(), tail.size(), tail) != 0)
        return;
    if (DecisionListener* l = g_listener.load())
        l->pageLoaded(m.substr(head.size(), m.size() - head.size() - tail.size()));
}

struct LogRow {
    const char* phrase;  // the start of the message
    void (*on)(const std::string& message);
};

const LogRow kRows[] = {
    {"Application IS running running_application_type",
     [](const std::string&) { t_pending.kill_reason.clear(); }},
    {"running_application signaled with control code KILL",
     [](const std::string&) { t_pending.kill_reason = "signalled KILL"; }},
    {"application not signaled anymore",
     [](const std::string&) { t_pending.kill_reason = "not signalled in the new AIT"; }},
    {"running_application signaled with is_IP_connect_require = 1,but network is off",
     [](const std::string&) {
         t_pending.kill_reason = "needs broadband (is_IP_connect_require) and the network is not on";
     }},
    {"running application is still signaled in new ait -> keep it running", keptSignalled},
    {"kill running application because it is not signaled anymore", killed},
    {"application IS service bound",
     [](const std::string&) { decideOnRunning("kill", "service bound, and the service changed"); }},
    {"autostart_app found", autostartChosen},
    {"no autostart application available",
     [](const std::string&) { decide("no_autostart", "no AUTOSTART entry is eligible"); }},
    {"Unknown application type. Rejecting AIT table.",
     [](const std::string&) { decide("refused", "unknown application type, the AIT is not taken"); }},
    {"Invalid DVB url len: ",
     [](const std::string& m) {
         decide("refused", "dvb_url length " + m.substr(std::strlen("Invalid DVB url len: ")) +
                               ", the AIT is not taken");
     }},
    {"Ignoring AIT table since we are in DTG mode",
     [](const std::string&) {
         decide("refused", "a DTG AIT of the same service is current, the HbbTV AIT is ignored");
     }},
    {"Empty AIT, loading empty page..appmgr_state",
     [](const std::string&) { decide("empty", "AIT without applications: the current AIT is cleared"); }},
    {"network_status:", held},
    {"CALLED probe_http_app WAITING...: ",
     [](const std::string& m) {
         t_pending.probe_url = m.substr(std::strlen("CALLED probe_http_app WAITING...: "));
     }},
    {" Http App probing failed",
     [](const std::string&) {
         decide("probe_failed", t_pending.probe_url.empty() ? "HTTP probe failed" : t_pending.probe_url);
     }},
    {"page ", pageLoaded},
    {"There is running http application,but we not stop it",
     [](const std::string&) {
         decideOnRunning("keep", "HTTP application left running with the network off");
     }},
};

void onLogLine(int, const char* line, void*) {
    if (g_verbose) emitLogLine(line);
    // "<time> INFO lyra[19]: [function:line]:message": only the message is
    // compared, and only at its start, so texts the library logs on behalf
    // of others (URLs, browser messages) cannot pass for a decision.
    const std::string text = line ? line : "";
    std::string message = text;
    const std::size_t open = text.find(": [");
    const std::size_t close = open == std::string::npos ? open : text.find("]:", open + 3);
    if (close != std::string::npos) message = text.substr(close + 2);
    for (const LogRow& row : kRows) {
        if (message.rfind(row.phrase, 0) != 0) continue;
        row.on(message);
        return;
    }
}

}  // namespace

std::string describe(const Decision& d) {
    return d.kind + (d.org >= 0 ? " " + formatAppIds(d.org, d.app) : "");
}

const std::vector<std::string>& decisionKinds() {
    static const std::vector<std::string> kinds{"autostart", "no_autostart", "keep", "kill",
                                                "refused",   "empty",        "held", "probe_failed"};
    return kinds;
}

DecisionWatch::DecisionWatch(DecisionListener& listener) {
    g_listener.store(&listener);
    // The log is printed only with --verbose.
    hbb_sim_set_log_level(2);
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_hook(onLogLine, nullptr);
}

DecisionWatch::~DecisionWatch() {
    hbb_sim_set_log_hook(nullptr, nullptr);
    g_listener.store(nullptr);
}

}  // namespace appmgr::emu
