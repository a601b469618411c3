// Steps of the timeline itself: a pause, a check (by the expect kinds of
// expect_kinds.cpp), a comment, the end. Each kind's parse and run
// functions stand together; the rows are at the end, followed by the table
// of every step kind.
#include <chrono>
#include <thread>

#include "emu_output.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

// ---- wait MILLISECONDS ------------------------------------------------------------

std::string parseWait(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<long> ms = w.size() == 1 ? number(w[0], 0, kMaxWaitMs) : std::nullopt;
    if (!ms) return "expects milliseconds from 0 to " + std::to_string(kMaxWaitMs);
    st.args = {std::to_string(*ms)};
    return "";
}

void runWait(Run&, const Step& st) {
    const int ms = std::stoi(st.args.at(0));
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    emit("          (waited " + std::to_string(ms) + " ms)");
}

// ---- expect WHAT ... -------------------------------------------------------------

std::string expectNames() {
    std::vector<std::string> names;
    for (const ExpectKind& k : expectKinds()) names.insert(names.end(), k.names.begin(), k.names.end());
    std::string out;
    for (std::size_t i = 0; i < names.size(); ++i)
        out += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return out;
}

std::string expectSyntax() {
    std::string out;
    for (const ExpectKind& k : expectKinds()) {
        std::string names;
        for (const std::string& n : k.names) names += (names.empty() ? "" : "|") + n;
        out += (out.empty() ? "" : ", ") + std::string("expect ") + names + " " + k.syntax;
    }
    return out;
}

std::string parseExpect(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string what = lower(takeWord(r));
    const ExpectKind* kind = findExpectKind(what);
    if (!kind) return "expects " + expectNames();
    st.args = {what};
    return kind->parse(st, what, r);
}

void runExpect(Run& run, const Step& st) { findExpectKind(st.args.at(0))->check(run, st); }

// ---- say TEXT, close --------------------------------------------------------------

std::string parseSay(Step& st, const std::string& rest, const Scenario&) {
    if (trim(rest).empty()) return "expects the text to print";
    st.args.clear();
    st.tail = trim(rest);
    return "";
}

void runSay(Run&, const Step& st) { emit("\n=== " + st.tail.value_or("")); }

std::string parseClose(Step& st, const std::string& rest, const Scenario&) {
    if (!trim(rest).empty()) return "takes no arguments";
    st.args.clear();
    return "";
}

void runClose(Run& run, const Step&) { run.close(); }

}  // namespace

std::vector<StepKind> flowSteps() {
    return {
        {"wait", "wait MILLISECONDS", StepRole::Action, parseWait, runWait},
        {"expect", expectSyntax(), StepRole::Check, parseExpect, runExpect},
        {"say", "say TEXT", StepRole::Note, parseSay, runSay},
        {"close", "close", StepRole::Action, parseClose, runClose, kLastOnly},
    };
}

// ---- every step kind ------------------------------------------------------------

const std::vector<StepKind>& stepKinds() {
    static const std::vector<StepKind> kinds = [] {
        std::vector<StepKind> all;
        for (auto group :
             {receiverSteps, browserSteps, pageSteps, middlewareSteps, captureSteps, testsuiteSteps, flowSteps}) {
            std::vector<StepKind> kinds = group();
            all.insert(all.end(), kinds.begin(), kinds.end());
        }
        return all;
    }();
    return kinds;
}

const StepKind* findStepKind(const std::string& name) {
    for (const StepKind& k : stepKinds())
        if (k.name == name) return &k;
    return nullptr;
}

bool usesRemoteInput(const Scenario& s) {
    for (const Step& st : s.timeline) {
        const StepKind* k = findStepKind(st.kind);
        if (k && (k->flags & kUsesRemoteInput)) return true;
    }
    return false;
}

}  // namespace appmgr::emu
