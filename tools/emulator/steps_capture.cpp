// Steps of a scenario with a [capture]: playing it, and the checks of what
// it brought ("expect capture"). Each kind's parse and run functions stand
// together; the rows are at the end.
#include "capture_input.h"
#include "emu_output.h"
#include "receiver.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

constexpr const char* kNeedsCapture = "needs a [capture] section (the capture to play)";

// The opened capture of a run that is not playing: what checks read.
CaptureInput& playedCapture(Run& run) {
    CaptureInput* capture = run.capture();
    if (!capture) fail("the run has no capture");
    if (capture->playing()) fail("the capture is still playing (play_capture wait or stop first)");
    return *capture;
}

// ---- play_capture [start|wait|stop] ------------------------------------------------

std::string parsePlayCapture(Step& st, const std::string& rest, const Scenario& s) {
    if (!s.capture) return kNeedsCapture;
    std::vector<std::string> w = words(rest);
    const std::string how = w.empty() ? "play" : lower(w[0]);
    if (w.size() > 1 || (how != "play" && how != "start" && how != "wait" && how != "stop"))
        return "expects nothing (play to the end), start, wait or stop";
    st.args = {how};
    return "";
}

void runPlayCapture(Run& run, const Step& st) {
    CaptureInput* capture = run.capture();
    if (!capture) fail("the run has no capture");
    const std::string& how = st.args.at(0);
    if (how == "play") capture->play();
    if (how == "start") capture->start();
    if (how == "wait") capture->wait();
    if (how == "stop") {
        if (!capture->playing()) fail("no capture is playing (play_capture start begins a play)");
        capture->stop();
    }
}

// ---- expect capture answered | COUNT [>=] N ------------------------------------------------

std::string parseExpectCapture(Step& st, const std::string& what, const std::string& rest) {
    std::vector<std::string> w = words(rest);
    if (w.size() == 1 && lower(w[0]) == "answered") {
        st.args.push_back("answered");
        return "";
    }
    // "eit_fed 346", "eit_fed >= 1", "eit_fed >=1".
    std::string relation = "=";
    if (w.size() == 3 && w[1] == ">=") {
        relation = ">=";
        w.erase(w.begin() + 1);
    } else if (w.size() == 2 && w[1].rfind(">=", 0) == 0) {
        relation = ">=";
        w[1] = w[1].substr(2);
    }
    std::vector<std::string> names;
    for (const CaptureCount& c : captureCounts()) names.push_back(c.name);
    if (w.size() != 2 || w[1].empty() || !findCaptureCount(lower(w[0])))
        return what + " expects answered, or a count and a number (COUNT N or COUNT >= N; counts: " +
               joined(names) + ")";
    std::optional<long> n = number(w[1], 0, 0x7fffffffL);
    if (!n) return "'" + w[1] + "' is not a number from 0";
    st.args.push_back(lower(w[0]));
    st.args.push_back(relation);
    st.args.push_back(std::to_string(*n));
    return "";
}

// Every AIT version the capture handed to the library was delivered and
// drew at least one decision (an autostart, a keep or kill, a refusal, ...).
void checkAnswered(const CaptureInput& capture) {
    std::string silent;
    for (const CapturedAit& a : capture.aits())
        if (!a.delivered || a.decisions == 0)
            silent += (silent.empty() ? "" : ", ") + std::string("version ") + std::to_string(a.version) + " on pid " +
                      hex(a.pid) + (a.delivered ? "" : " (not delivered)");
    if (!silent.empty()) fail("the library took no decision on the captured AIT " + silent);
    const std::size_t n = capture.aits().size();
    emit(n == 0   ? "check     the capture delivered no AIT to answer"
         : n == 1 ? "check     the library answered the captured AIT with a decision"
                  : "check     the library answered each of the " + std::to_string(n) +
                        " captured AIT versions with a decision");
}

void checkCapture(Run& run, const Step& st) {
    const CaptureInput& capture = playedCapture(run);
    if (st.args.at(1) == "answered") return checkAnswered(capture);
    const std::string& name = st.args.at(1);
    const bool at_least = st.args.at(2) == ">=";
    const uint64_t want = std::stoull(st.args.at(3));
    const uint64_t got = findCaptureCount(name)->value(capture);
    const std::string wanted = name + (at_least ? " >= " : " ") + std::to_string(want);
    if (at_least ? got < want : got != want)
        fail("capture count " + name + " is " + std::to_string(got) + ", expected " + wanted.substr(name.size() + 1));
    emit("check     capture " + wanted + (at_least ? " (" + std::to_string(got) + ")" : ""));
}

}  // namespace

std::vector<StepKind> captureSteps() {
    return {
        {"play_capture", "play_capture [start|wait|stop]", StepRole::Action, parsePlayCapture, runPlayCapture},
    };
}

std::vector<ExpectKind> captureExpectKinds() {
    return {
        {{"capture"}, "answered|COUNT [>=] N", parseExpectCapture, checkCapture},
    };
}

}  // namespace appmgr::emu
