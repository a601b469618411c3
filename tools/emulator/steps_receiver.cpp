// Steps in which the receiver tells the library something: an AIT arrives,
// the channel or the network changes, a stream event fires, the broadcast
// changes. Each kind's parse and run functions stand together; the rows are
// at the end.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "receiver.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

// One name of those the scenario defines, lower-cased, as the only
// argument; `missing` starts the message for a name it does not define.
std::string parseName(Step& st, const std::string& rest, const std::string& what, const std::string& missing,
                      const std::vector<std::string>& known) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects one " + what + " name";
    const std::string name = lower(w[0]);
    if (std::find(known.begin(), known.end(), name) == known.end())
        return missing + "'" + name + "' (defined: " + joined(known) + ")";
    st.args = {name};
    return "";
}

// ---- deliver_ait NAME ------------------------------------------------------------

std::string parseDeliverAit(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> known;
    for (const AitSpec& a : s.aits) known.push_back(a.name);
    return parseName(st, rest, "AIT", "no AIT named ", known);
}

char* dup(const std::string& s) { return strdup(s.c_str()); }

// An AitTable built the way the middleware builds one: every text on the
// heap, owned by the caller; the library only copies it.
class BuiltAit {
public:
    BuiltAit(const Scenario& s, const AitSpec& table, const std::string& host) {
        t_.is_test_app = table.test ? 1 : 0;
        t_.app_type = table.type;
        t_.version = table.version;
        std::snprintf(t_.dvb_url, sizeof(t_.dvb_url), "%s", table.dvb_url.c_str());
        t_.app_lenght = static_cast<int>(table.apps.size());
        t_.apps = static_cast<Application*>(std::calloc(table.apps.size() + 1, sizeof(Application)));
        for (std::size_t i = 0; i < table.apps.size(); ++i)
            fill(t_.apps[i], *s.app(table.apps[i].app), table.apps[i], s.channel(table.channel), host);
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
    static void fill(Application& out, const AppSpec& a, const AitEntry& entry, const ChannelSpec* ch,
                     const std::string& host) {
        out.organisation_id = a.org_id;
        out.app_id = a.app_id;
        out.control_code = static_cast<ControlCode>(entry.control.value_or(a.control));
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
        if (a.parental.empty()) return;
        out.app_parental.count = static_cast<int>(a.parental.size());
        out.app_parental.parental =
            static_cast<parental_rating*>(std::calloc(a.parental.size(), sizeof(parental_rating)));
        for (std::size_t r = 0; r < a.parental.size(); ++r) {
            std::snprintf(out.app_parental.parental[r].country, 4, "%s", a.parental[r].country.c_str());
            out.app_parental.parental[r].rating = a.parental[r].rating;
        }
    }

    AitTable t_{};
};

void runDeliverAit(Run& run, const Step& st) {
    const Scenario& s = run.scenario();
    const AitSpec& table = *s.ait(st.args.at(0));
    BuiltAit ait(s, table, run.httpHost());
    libraryCall("aitUpdate(AIT \"" + table.name + "\": type " + std::to_string(table.type) + ", version " +
                std::to_string(table.version) + (table.test ? ", test" : "") + ", " + quoted(table.dvb_url) +
                ", " + std::to_string(table.apps.size()) + " application" +
                (table.apps.size() == 1 ? "" : "s") + ")   [AIT subscription]");
    for (int i = 0; i < ait.get()->app_lenght; ++i)
        emit(describeEntry(i, ait.get()->apps[i]));
    if (hbb_sim_fire_ait(ait.get()) != 0)
        fail("the library has not subscribed to AITs (hbb_sim_fire_ait found no callback)");
    libraryDone();
}

// ---- network on|off|checking|NUMBER ---------------------------------------------------------

std::string parseNetwork(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<int> n = w.size() == 1 ? networkValue(w[0]) : std::nullopt;
    if (!n) return "expects on, off, checking or a number";
    st.args = {std::to_string(*n)};
    return "";
}

void runNetwork(Run&, const Step& st) {
    const int status = std::stoi(st.args.at(0));
    const char* name = status == 0 ? " (off)" : status == 1 ? " (on)" : status == 2 ? " (checking)" : "";
    libraryCall("sendNetworkStatus(" + std::to_string(status) + name + ")   [network status notification]");
    if (hbb_sim_fire_network_status(status) != 0)
        fail("the library has not registered for the network status");
    libraryDone();
}

// ---- channel NAME ----------------------------------------------------------------------------

std::string parseChannel(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> known;
    for (const ChannelSpec& c : s.channels) known.push_back(c.name);
    return parseName(st, rest, "channel", "no channel ", known);
}

void runChannel(Run& run, const Step& st) {
    const Scenario& s = run.scenario();
    const int pos = s.channelIndex(st.args.at(0));
    const ChannelSpec& c = s.channels[static_cast<std::size_t>(pos)];
    if (hbb_sim_set_current_channel(pos) != 0) fail("the simulator has no channel " + c.name);
    emit("receiver  tuned to " + c.name + " " + describeChannel(c));
    ChannelRecord rec(c, pos);
    libraryCall("channelChanged(" + describeChannel(c) + ")");
    channelChanged(&rec.rec);
    libraryDone();
}

// ---- stream_event URL NAME [error] [PAYLOAD] ------------------------------------------------

// The payload is the rest of the value, escapes decoded.
std::string parseStreamEvent(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string url = takeWord(r);
    const std::string name = takeWord(r);
    if (url.empty() || name.empty()) return "expects a URL and an event name";
    std::string status = "fire";
    std::string tail = r;
    if (lower(takeWord(tail)) == "error") {
        status = "error";
        r = tail;
    }
    std::string error;
    std::optional<std::string> payload = unescapeBytes(r, &error);
    if (!payload) return "payload: " + error;
    st.args = {url, name, status};
    st.tail = *payload;
    return "";
}

void runStreamEvent(Run& run, const Step& st) {
    const std::string url = run.expand(st.args.at(0));
    const std::string& name = st.args.at(1);
    const bool error = st.args.at(2) == "error";
    const std::string payload = st.tail.value_or("");
    emit("receiver  stream event " + name + " of " + url +
         (error ? ": error"
                : ": fired with " + std::to_string(payload.size()) + " bytes \"" +
                      standin::escapeBytes(payload) + "\""));
    const int reached = hbb_sim_fire_stream_event(url.c_str(), name.c_str(),
                                                  error ? eQUMAm_DSMCC_EVENT_ERROR : eQUMAm_DSMCC_EVENT_FIRE,
                                                  payload.data(), static_cast<int>(payload.size()));
    if (reached == 0) fail("nothing listens for " + name + " of " + url);
    if (hbb_sim_wait_notifications(kWaitMs) != 0) fail("the stream event was not delivered in time");
}

// ---- notify WHAT [NUMBERS] --------------------------------------------------------------------

// The notifications and how many numbers each takes.
struct Notification {
    const char* name;
    std::size_t numbers;
};
const Notification kNotifications[] = {{"programmes_changed", 0},
                                       {"programme_list_changed", 0},
                                       {"component_changed", 1},
                                       {"rating_changed", 2},
                                       {"rating_error", 1}};

std::string parseNotify(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    const std::string what = w.empty() ? "" : lower(w[0]);
    bool ok = false;
    for (const Notification& n : kNotifications)
        if (what == n.name && w.size() == n.numbers + 1) ok = true;
    for (std::size_t i = 1; i < w.size() && ok; ++i) ok = number(w[i], 0, 1000).has_value();
    if (!ok)
        return "expects programmes_changed, programme_list_changed, component_changed TYPE, "
               "rating_changed COUNT BLOCKED or rating_error COUNT";
    st.args = {what};
    for (std::size_t i = 1; i < w.size(); ++i) st.args.push_back(std::to_string(*number(w[i], 0, 1000)));
    return "";
}

void runNotify(Run&, const Step& st) {
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

}  // namespace

std::vector<StepKind> receiverSteps() {
    return {
        {"deliver_ait", "deliver_ait NAME", StepRole::Action, parseDeliverAit, runDeliverAit},
        {"network", "network on|off|checking|NUMBER", StepRole::Action, parseNetwork, runNetwork},
        {"channel", "channel NAME", StepRole::Action, parseChannel, runChannel},
        {"stream_event", "stream_event URL NAME [error] [PAYLOAD]", StepRole::Action, parseStreamEvent,
         runStreamEvent},
        {"notify",
         "notify programmes_changed|programme_list_changed|component_changed TYPE|"
         "rating_changed COUNT BLOCKED|rating_error COUNT",
         StepRole::Action, parseNotify, runNotify},
    };
}

}  // namespace appmgr::emu
