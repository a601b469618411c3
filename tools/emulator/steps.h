// The step kinds of a scenario's timeline and the kinds of its "expect"
// checks. Each kind is one row: its name, its syntax for messages, the parse
// function that checks a step's arguments when the file is read, and the
// function that runs the step. docs/emulator.md says how to add one.
#pragma once

#include <string>
#include <vector>

#include "scenario.h"

namespace appmgr::emu {

class Run;

// Checks a step's arguments (the text after the kind's name) against the
// scenario and stores them normalised in step.args and step.tail. Returns ""
// or what is wrong. Pure: runs while the file is read.
using ParseStep = std::string (*)(Step& step, const std::string& rest, const Scenario& s);
// Does what the step says; ends the run with fail() when it cannot.
using RunStep = void (*)(Run& run, const Step& step);

// How a step appears in the trace.
enum class StepRole {
    Action,  // under a heading "== stepN: TEXT" of its own; counted
    Check,   // printed under the step it checks; counted
    Note,    // prints itself; not counted as a step
};

// What else a kind asks of the reader or the run.
enum StepFlags : unsigned {
    kLastOnly = 1u << 0,         // nothing may follow it (close)
    kUsesRemoteInput = 1u << 1,  // the run starts the remote-input service for it
};

struct StepKind {
    std::string name;
    std::string syntax;  // "deliver_ait NAME"
    StepRole role;
    ParseStep parse;
    RunStep run;
    unsigned flags = 0;  // StepFlags
};

// Every step kind: the groups below, joined in steps_flow.cpp.
const std::vector<StepKind>& stepKinds();
const StepKind* findStepKind(const std::string& name);
// Whether a step of s is of a kind that uses the remote-input service.
bool usesRemoteInput(const Scenario& s);

// ---- expect checks ----------------------------------------------------------------

// An "expect" step's check. A check and its negation may share a row
// ("decision" and "no_decision"): step.args[0] says which was written.
struct ExpectKind {
    std::vector<std::string> names;
    std::string syntax;  // of the arguments: "KIND [ORG.APP]"
    // As ParseStep; step.args starts with the name written.
    std::string (*parse)(Step& step, const std::string& what, const std::string& rest);
    RunStep check;
};

const std::vector<ExpectKind>& expectKinds();
const ExpectKind* findExpectKind(const std::string& name);

// ---- the groups of kinds --------------------------------------------------------

// What the receiver tells the library: AITs, tunes, network, stream events,
// broadcast notifications (steps_receiver.cpp).
std::vector<StepKind> receiverSteps();
// The browser's side: messages and awaited frames (steps_browser.cpp).
std::vector<StepKind> browserSteps();
// The middleware's calls into the library: portal, teletext, launch, key
// sets, keys (steps_middleware.cpp).
std::vector<StepKind> middlewareSteps();
// The application page and the remote control: keys, the page loaded
// (steps_page.cpp).
std::vector<StepKind> pageSteps();
// The public HbbTV test suite's groups (steps_testsuite.cpp).
std::vector<StepKind> testsuiteSteps();
// Playing a [capture] (steps_capture.cpp).
std::vector<StepKind> captureSteps();
// The timeline itself: waits, checks, comments, the end (steps_flow.cpp).
std::vector<StepKind> flowSteps();

// The checks of what a capture brought (steps_capture.cpp).
std::vector<ExpectKind> captureExpectKinds();

}  // namespace appmgr::emu
