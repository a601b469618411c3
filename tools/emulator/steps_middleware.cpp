// Steps in which the middleware calls the library from its menus and remote
// control: portal, teletext, launch, key set, key injection. Each call's
// result is kept for "expect result". Each kind's parse and run functions
// stand together; the rows are at the end.
#include <climits>

#include "app_mgr.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "receiver.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

// ---- portal open URL|close ----------------------------------------------------------

std::string parsePortal(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string what = lower(takeWord(r));
    if (what == "open") {
        std::vector<std::string> w = words(r);
        if (w.size() != 1) return "open expects one URL";
        st.args = {what};
        st.tail = w[0];
        return "";
    }
    if (what == "close" && r.empty()) {
        st.args = {what};
        return "";
    }
    return "expects open URL or close";
}

void runPortal(Run& run, const Step& st) {
    if (st.args.at(0) == "open") {
        std::string url = run.expand(st.tail.value_or(""));
        libraryCall("openWebPortal(" + quoted(url) + ")   [the middleware's portal menu]");
        run.callResult(openWebPortal(url.data()));
    } else {
        libraryCall("closeWebPortal()");
        run.callResult(closeWebPortal());
    }
}

// ---- teletext on|off|NUMBER ------------------------------------------------------------

std::string parseTeletext(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects on, off or a number";
    std::optional<long> n = number(w[0], INT_MIN, INT_MAX);
    if (!n) {
        std::optional<bool> on = boolean(w[0]);
        if (!on) return "expects on, off or a number";
        n = *on ? 1 : 0;
    }
    st.args = {std::to_string(*n)};
    return "";
}

void runTeletext(Run& run, const Step& st) {
    const int state = std::stoi(st.args.at(0));
    libraryCall("toggleTeletextApplication(" + std::to_string(state) + ")   [the middleware's TEXT key]");
    run.callResult(toggleTeletextApplication(state));
}

// ---- launch TYPE URL -----------------------------------------------------------------------

std::string parseLaunch(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 2) return "expects a launch type and a URL";
    int type = launchTypeValue(lower(w[0]));
    if (type < 0) {
        std::optional<long> n = number(w[0], INT_MIN, INT_MAX);
        if (!n) {
            std::vector<std::string> names;
            for (int i = 0; launchTypeName(i); ++i) names.push_back(launchTypeName(i));
            return "'" + w[0] + "' is not a launch type (" + joined(names) + " or a number)";
        }
        type = static_cast<int>(*n);
    }
    st.args = {std::to_string(type)};
    st.tail = w[1];
    return "";
}

void runLaunch(Run& run, const Step& st) {
    const int type = std::stoi(st.args.at(0));
    std::string url = run.expand(st.tail.value_or(""));
    const char* name = launchTypeName(type);
    libraryCall("Hbbtv_AM_Launch_Application(" + std::to_string(type) +
                (name ? std::string(" ") + name : "") + ", " + quoted(url) + ")");
    run.callResult(Hbbtv_AM_Launch_Application(static_cast<eLaunchType>(type), url.data()));
}

// ---- keyset MASK [other] ---------------------------------------------------------------------

std::string parseKeyset(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    // Masks outside 0-0x7ff are allowed: the library is to refuse them.
    std::optional<long> mask = w.empty() ? std::nullopt : number(w[0], -0xFFFF, 0xFFFF);
    const bool other = w.size() == 2 && lower(w[1]) == "other";
    if (!mask || w.size() > 2 || (w.size() == 2 && !other))
        return "expects a mask (e.g. 0x1f) and optionally 'other' (an other-keys list is given)";
    st.args = {std::to_string(*mask), other ? "1" : "0"};
    return "";
}

void runKeyset(Run& run, const Step& st) {
    const int mask = std::stoi(st.args.at(0));
    const bool other = st.args.at(1) == "1";
    int other_keys[1] = {0};  // the library only looks at whether a list is given
    libraryCall("setKeySet(" + hex(mask) + ", " + (other ? "other-keys list" : "NULL") + ")");
    run.callResult(setKeySet(mask, other ? other_keys : nullptr));
    emit("receiver  key set registered with the platform: " + hex(hbb_sim_registered_keyset()));
}

// ---- key NUMBER --------------------------------------------------------------------------------

std::string parseKey(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<long> key = w.size() == 1 ? number(w[0], 0, 0xFFFF) : std::nullopt;
    if (!key) return "expects a key number from 0 to 65535 (e.g. 10 for \"key 0\")";
    st.args = {std::to_string(*key)};
    return "";
}

void runKey(Run& run, const Step& st) {
    const int key = std::stoi(st.args.at(0));
    const std::string before = run.remoteInput().take(0);
    if (!before.empty()) emit("remote    received before the step: " + quoted(before));
    libraryCall("sendIrCmd(" + std::to_string(key) + ")   [remote-key injection]");
    run.callResult(sendIrCmd(static_cast<uint16_t>(key)));
    // Known keys arrive before the call returns; for others nothing comes.
    std::optional<std::string>& got = run.last().remote;
    got = run.remoteInput().take(kSettleMs);
    emit("remote    " + (got->empty()
                             ? std::string("nothing received")
                             : "received " + quoted(*got) + " (" + std::to_string(got->size()) + " bytes)"));
}

}  // namespace

std::vector<StepKind> middlewareSteps() {
    return {
        {"portal", "portal open URL|close", StepRole::Action, parsePortal, runPortal},
        {"teletext", "teletext on|off|NUMBER", StepRole::Action, parseTeletext, runTeletext},
        {"launch", "launch TYPE URL", StepRole::Action, parseLaunch, runLaunch},
        {"keyset", "keyset MASK [other]", StepRole::Action, parseKeyset, runKeyset},
        {"key", "key NUMBER", StepRole::Action, parseKey, runKey, kUsesRemoteInput},
    };
}

}  // namespace appmgr::emu
