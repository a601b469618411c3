// The checks of "expect" steps. Each kind's parse and check functions stand
// together; the rows are at the end. A check prints one "check" line when
// it holds and ends the run with fail() when it does not.
#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "receiver.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

using namespace appmgr::standin;

// A value of one word, by a parser of scenario_text.h.
template <typename Value>
std::string oneValue(Step& st, const std::string& rest, std::optional<Value> (*parse)(const std::string&),
                     const std::string& problem) {
    std::vector<std::string> w = words(rest);
    std::optional<Value> v = w.size() == 1 ? parse(w[0]) : std::nullopt;
    if (!v) return problem;
    st.args.push_back(std::to_string(*v));
    return "";
}

// A number in [min, max].
std::string oneNumber(Step& st, const std::string& rest, long min, long max, const std::string& problem) {
    std::vector<std::string> w = words(rest);
    std::optional<long> v = w.size() == 1 ? number(w[0], min, max) : std::nullopt;
    if (!v) return problem;
    st.args.push_back(std::to_string(*v));
    return "";
}

int intArg(const Step& st, std::size_t i) { return std::stoi(st.args.at(i)); }

// ---- running ORG.APP|none --------------------------------------------------------

std::string parseRunning(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    if (w.size() == 1 && lower(w[0]) == "none") {
        st.args.push_back("none");
        return "";
    }
    int org = 0, app = 0;
    if (w.size() != 1 || !parseAppIds(w[0], &org, &app)) return what + " expects ORG.APP or none";
    st.args.push_back(std::to_string(org));
    st.args.push_back(std::to_string(app));
    return "";
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

void checkRunning(Run&, const Step& st) {
    std::optional<std::pair<int, int>> ids = runningIds();
    const std::string got = ids ? formatAppIds(ids->first, ids->second) : "none";
    const std::string want = st.args.at(1) == "none" ? "none" : formatAppIds(intArg(st, 1), intArg(st, 2));
    if (got != want) fail("running application is " + got + ", expected " + want);
    emit("check     running application: " + got);
}

// ---- decision|no_decision KIND [ORG.APP] ------------------------------------------

std::string parseDecision(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    const std::vector<std::string>& kinds = decisionKinds();
    if (w.empty() || w.size() > 2 || std::find(kinds.begin(), kinds.end(), lower(w[0])) == kinds.end())
        return what + " expects a decision (" + joined(kinds) + ") and optionally ORG.APP";
    st.args.push_back(lower(w[0]));
    if (w.size() == 2) {
        int org = 0, app = 0;
        if (!parseAppIds(w[1], &org, &app)) return "'" + w[1] + "' is not ORG.APP (e.g. 0x10.1)";
        st.args.push_back(std::to_string(org));
        st.args.push_back(std::to_string(app));
    }
    return "";
}

// "decision" waits for a matching decision and claims it; "no_decision"
// lets the library go on for a while and looks for an unclaimed one.
void checkDecision(Run& run, const Step& st) {
    const std::string& kind = st.args.at(1);
    const bool with_ids = st.args.size() == 4;
    const int org = with_ids ? intArg(st, 2) : -1;
    const int app = with_ids ? intArg(st, 3) : -1;
    auto match = [&](const Decision& d) {
        return d.kind == kind && (!with_ids || (d.org == org && d.app == app));
    };
    const std::string want = kind + (with_ids ? " " + formatAppIds(org, app) : "");
    if (st.args.at(0) == "no_decision") {
        std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
        if (std::optional<Decision> d = run.decisions().findUnclaimed(match))
            fail("unexpected decision " + describe(*d) + ": " + d->text);
        return emit("check     no decision " + want);
    }
    if (!run.decisions().waitFor(match, kWaitMs)) {
        std::string seen;
        for (const Decision& d : run.decisions().unclaimed())
            seen += (seen.empty() ? "" : ", ") + describe(d);
        fail("no decision " + want + " (decisions not yet matched: " + (seen.empty() ? "none" : seen) + ")");
    }
    emit("check     decision " + want);
}

// ---- no_frame ID ------------------------------------------------------------------------

std::string parseNoFrame(Step& st, const std::string& what, const std::string& rest) {
    return oneNumber(st, rest, 0, 100000, what + " expects a command id");
}

void checkNoFrame(Run& run, const Step& st) {
    const int id = intArg(st, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(kSettleMs));
    if (std::optional<SeenFrame> f =
            run.frames().findUnclaimed([&](const SeenFrame& e) { return e.frame.id == id; }))
        fail("unexpected frame " + std::to_string(id) + " (" + commandName(id) + ") " +
             fieldList(f->frame.fields));
    emit("check     no frame " + std::to_string(id) + " (" + commandName(id) + ")");
}

// ---- state STATE --------------------------------------------------------------------------

std::string parseState(Step& st, const std::string& what, const std::string& rest) {
    return oneValue<int>(st, rest, stateValue,
                         what + " expects deinitialized, suspended, initializing or initialized");
}

void checkState(Run&, const Step& st) {
    const int want = intArg(st, 1);
    expectState(want);
    emit(std::string("check     state ") + stateName(want));
}

// ---- reply [FIELD|...] ------------------------------------------------------------------

std::string parseReply(Step& st, const std::string&, const std::string& rest) {
    st.tail = rest;
    return "";
}

void checkReply(Run& run, const Step& st) {
    const std::optional<std::string>& reply = run.last().reply;
    if (!reply) fail("no reply was received by an earlier browser step");
    std::optional<std::string> rest;
    std::vector<std::string> got = splitFields(*reply, &rest);
    if (rest) got.push_back(*rest);
    const std::vector<std::string> want = splitExpectedFields(run.expand(st.tail.value_or("")));
    if (got != want) fail("reply is " + fieldList(got) + ", expected " + fieldList(want));
    emit("check     reply " + fieldList(want));
}

// ---- result N -------------------------------------------------------------------------------

std::string parseResult(Step& st, const std::string& what, const std::string& rest) {
    return oneNumber(st, rest, INT_MIN, INT_MAX, what + " expects a number");
}

void checkResult(Run& run, const Step& st) {
    const int want = intArg(st, 1);
    const std::optional<int>& result = run.last().result;
    if (!result) fail("no earlier portal, teletext, launch, keyset or key step returned a result");
    if (*result != want)
        fail("the last call returned " + std::to_string(*result) + ", expected " + std::to_string(want));
    emit("check     result " + std::to_string(want));
}

// ---- keyset MASK ----------------------------------------------------------------------------

std::string parseKeyset(Step& st, const std::string& what, const std::string& rest) {
    return oneNumber(st, rest, 0, 0x7FF, what + " expects a mask from 0 to 0x7ff");
}

void checkKeyset(Run&, const Step& st) {
    const int want = intArg(st, 1);
    const int got = hbb_sim_registered_keyset();
    if (got != want) fail("the platform's registered key set is " + hex(got) + ", expected " + hex(want));
    emit("check     registered key set " + hex(want));
}

// ---- content [BYTES], remote [BYTES] ---------------------------------------------------------------

// The rest of the value, escapes decoded; empty: no bytes at all.
std::string parseBytes(Step& st, const std::string& what, const std::string& rest) {
    std::string error;
    std::optional<std::string> bytes = unescapeBytes(rest, &error);
    if (!bytes) return what + ": " + error;
    st.tail = *bytes;
    return "";
}

void checkContent(Run& run, const Step& st) {
    const std::optional<std::string>& got = run.last().content;
    if (!got) fail("the last browser step received no carousel content");
    const std::string want = run.expand(st.tail.value_or(""));
    if (*got != want)
        fail("content is " + quoted(*got) + " (" + std::to_string(got->size()) + " bytes), expected " +
             quoted(want) + " (" + std::to_string(want.size()) + " bytes)");
    emit("check     content " + std::to_string(want.size()) + " bytes, as expected");
}

void checkRemote(Run& run, const Step& st) {
    const std::optional<std::string>& got = run.last().remote;
    if (!got) fail("no earlier key step");
    const std::string want = st.tail.value_or("");
    if (*got != want)
        fail("the remote-input service received " + quoted(*got) + ", expected " + quoted(want));
    emit("check     remote-input bytes " + quoted(want));
}

// ---- loaded URL -----------------------------------------------------------------------------

std::string parseLoaded(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return what + " expects the URL of the page";
    st.tail = w[0];
    return "";
}

void checkLoaded(Run& run, const Step& st) {
    const std::string want = run.expand(st.tail.value_or(""));
    if (!run.loadedPages().waitFor([&](const std::string& url) { return url == want; }, kWaitMs)) {
        std::string seen;
        for (const std::string& url : run.loadedPages().unclaimed()) seen += " " + quoted(url);
        fail("the library took no page " + quoted(want) + " as loaded" +
             (seen.empty() ? "" : " (pages not yet matched:" + seen + ")"));
    }
    emit("check     the library took " + quoted(want) + " as the loaded page");
}

// ---- portal on|off --------------------------------------------------------------------------

std::string parsePortal(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    std::optional<bool> on = w.size() == 1 ? boolean(w[0]) : std::nullopt;
    if (!on) return what + " expects on or off";
    st.args.push_back(*on ? "1" : "0");
    return "";
}

void checkPortal(Run&, const Step& st) {
    const bool want = intArg(st, 1) != 0;
    // The library writes the application state under the AIT guard.
    lockAitGuard();
    const bool got = is_portal_mode != 0;
    unlockAitGuard();
    if (got != want)
        fail(std::string("portal mode is ") + (got ? "on" : "off") + ", expected " + (want ? "on" : "off"));
    emit(std::string("check     portal mode ") + (want ? "on" : "off"));
}

// ---- listening|not_listening URL NAME ---------------------------------------------------------

std::string parseListening(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 2) return what + " expects a stream-event URL and an event name";
    st.args.push_back(w[0]);
    st.args.push_back(w[1]);
    return "";
}

void checkListening(Run& run, const Step& st) {
    const std::string url = run.expand(st.args.at(1));
    const std::string& event = st.args.at(2);
    const bool want = st.args.at(0) == "listening";
    int tag = -1, id = -1;
    const bool got = hbb_sim_stream_event_subscribed(url.c_str(), event.c_str(), &tag, &id) == 1;
    if (got != want)
        fail(std::string("the library ") + (got ? "listens" : "does not listen") + " for " + event + " of " +
             url);
    emit("check     " + std::string(want ? "listening for " : "not listening for ") + event + " of " + url +
         (got && tag >= 0
              ? " (component tag " + std::to_string(tag) + ", event id " + std::to_string(id) + ")"
              : ""));
}

// ---- key delivered|withheld -------------------------------------------------------------------

std::string parseKey(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1 || (w[0] != "delivered" && w[0] != "withheld")) return what + " expects delivered or withheld";
    st.args.push_back(w[0]);
    return "";
}

void checkKey(Run& run, const Step& st) {
    const std::string& want = st.args.at(1);
    const std::optional<std::string>& got = run.last().key;
    if (!got) fail("no key was pressed before this check");
    if (*got != want) fail("the key was " + *got + ", expected " + want);
    emit("check     key " + want);
}

// ---- page ID TEXT ----------------------------------------------------------------------------

std::string parsePage(Step& st, const std::string& what, const std::string& rest) {
    std::string r = trim(rest);
    const std::string id = takeWord(r);
    if (id.empty()) return what + " expects the id of an element of the page and the text it shows";
    st.args.push_back(id);
    st.tail = trim(r);
    return "";
}

// The page changes what it shows as it runs: the text is read until it
// matches, within a bound. Without a page (the stand-in) nothing is checked,
// and the line says so.
void checkPage(Run& run, const Step& st) {
    const std::string& id = st.args.at(1);
    const std::string want = run.expand(st.tail.value_or(""));
    if (!run.browser().hasPage()) {
        emit("check     page #" + id + ": not checked, no page with the browser stand-in");
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPageWaitMs);
    std::optional<std::string> got;
    std::string error;
    while ((got = run.browser().pageText(id, &error)) != want && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (!got) fail("page #" + id + ": " + error);
    if (*got != want) fail("page #" + id + " shows " + quoted(*got) + ", expected " + quoted(want));
    emit("check     page #" + id + " shows " + quoted(want));
}

// The checks of this file; the groups of other files join them below.
std::vector<ExpectKind> baseExpectKinds() {
    return {
        {{"running"}, "ORG.APP|none", parseRunning, checkRunning},
        {{"decision", "no_decision"}, "KIND [ORG.APP]", parseDecision, checkDecision},
        {{"no_frame"}, "ID", parseNoFrame, checkNoFrame},
        {{"state"}, "STATE", parseState, checkState},
        {{"reply"}, "[FIELD|...]", parseReply, checkReply},
        {{"result"}, "N", parseResult, checkResult},
        {{"keyset"}, "MASK", parseKeyset, checkKeyset},
        {{"content"}, "[BYTES]", parseBytes, checkContent},
        {{"remote"}, "[BYTES]", parseBytes, checkRemote},
        {{"loaded"}, "URL", parseLoaded, checkLoaded},
        {{"portal"}, "on|off", parsePortal, checkPortal},
        {{"listening", "not_listening"}, "URL NAME", parseListening, checkListening},
        {{"key"}, "delivered|withheld", parseKey, checkKey},
        {{"page"}, "ID TEXT", parsePage, checkPage},
    };
}

}  // namespace

const std::vector<ExpectKind>& expectKinds() {
    static const std::vector<ExpectKind> kinds = [] {
        std::vector<ExpectKind> all = baseExpectKinds();
        for (auto group : {captureExpectKinds}) {
            std::vector<ExpectKind> more = group();
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }();
    return kinds;
}

const ExpectKind* findExpectKind(const std::string& name) {
    for (const ExpectKind& k : expectKinds())
        if (std::find(k.names.begin(), k.names.end(), name) != k.names.end()) return &k;
    return nullptr;
}

}  // namespace appmgr::emu
