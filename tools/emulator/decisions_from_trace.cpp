// DecisionWatch by the library's decision trace: the simulator hands every
// decision the library reports (hbbTraceDecision) to the hook below, with
// its name and fields; each name the run knows is one row that turns the
// event into the trace's wording. The library's log lines are only printed
// (--verbose), never read.
#include <atomic>
#include <cstring>
#include <string>

#include "decisions.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "scenario_text.h"

namespace appmgr::emu {

namespace {

std::atomic<DecisionListener*> g_listener{nullptr};

// What a reason of the library's event says in the trace.
struct ReasonText {
    const char* reason;
    const char* text;
};

const ReasonText kKeepReasons[] = {
    {"signalled", "still signalled in the new AIT"},
    {"network_off", "HTTP application left running with the network off"},
};

const ReasonText kKillReasons[] = {
    {"signalled_kill", "signalled KILL"},
    {"not_signalled", "not signalled in the new AIT"},
    {"needs_broadband", "needs broadband (is_IP_connect_require) and the network is not on"},
    {"test_table", "the new AIT is a test table (is_test_app)"},
    {"service_bound", "service bound, and the service changed"},
};

const ReasonText kRefusalReasons[] = {
    {"unknown_type", "unknown application type, the AIT is not taken"},
    {"dtg_current", "a DTG AIT of the same service is current, the HbbTV AIT is ignored"},
    {"no_entries", "no application list, the AIT is not taken"},
    {"incomplete_entry", "an entry without URL or name, the AIT is not taken"},
};

template <std::size_t N>
std::string textOf(const ReasonText (&table)[N], const hbbDecision& d) {
    for (const ReasonText& row : table)
        if (std::strcmp(row.reason, d.reason) == 0) return row.text;
    return d.reason;
}

void decide(const std::string& kind, const hbbDecision& d, const std::string& text) {
    if (DecisionListener* l = g_listener.load()) l->decided(Decision{kind, d.org_id, d.app_id, text});
}

void refused(const hbbDecision& d) {
    if (std::strcmp(d.reason, "locator_length") == 0)
        return decide("refused", d,
                      "dvb_url length " + std::to_string(d.value) + ", the AIT is not taken");
    decide("refused", d, textOf(kRefusalReasons, d));
}

void pageLoaded(const hbbDecision& d) {
    if (DecisionListener* l = g_listener.load()) l->pageLoaded(d.url);
}

struct EventRow {
    const char* name;  // the library's event
    void (*on)(const hbbDecision& d);
};

const EventRow kRows[] = {
    {"autostart",
     [](const hbbDecision& d) {
         decide("autostart", d,
                "\"" + std::string(d.app_name) + "\" priority " + std::to_string(d.priority) +
                    ": " + d.url);
     }},
    {"no_autostart", [](const hbbDecision& d) { decide("no_autostart", d, "no AUTOSTART entry is eligible"); }},
    {"keep", [](const hbbDecision& d) { decide("keep", d, textOf(kKeepReasons, d)); }},
    {"kill", [](const hbbDecision& d) { decide("kill", d, textOf(kKillReasons, d)); }},
    {"refused", refused},
    {"empty",
     [](const hbbDecision& d) { decide("empty", d, "AIT without applications: the current AIT is cleared"); }},
    {"held",
     [](const hbbDecision& d) {
         decide("held", d, "HTTP application not started while the network state is being checked");
     }},
    {"probe_failed",
     [](const hbbDecision& d) { decide("probe_failed", d, *d.url ? d.url : "HTTP probe failed"); }},
    {"page_loaded", pageLoaded},
};

// Events of other names (a load error, names added later) are not part of
// the trace.
void onDecision(const hbbDecision* d, void*) {
    for (const EventRow& row : kRows) {
        if (std::strcmp(row.name, d->name) != 0) continue;
        row.on(*d);
        return;
    }
}

void onLogLine(int, const char* line, void*) {
    if (g_verbose) emitLogLine(line);
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
    hbb_sim_set_decision_hook(onDecision, nullptr);
    // The log is printed only with --verbose.
    hbb_sim_set_log_level(2);
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_hook(onLogLine, nullptr);
}

DecisionWatch::~DecisionWatch() {
    hbb_sim_set_log_hook(nullptr, nullptr);
    hbb_sim_set_decision_hook(nullptr, nullptr);
    g_listener.store(nullptr);
}

}  // namespace appmgr::emu
