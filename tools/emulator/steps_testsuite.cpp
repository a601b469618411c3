// The steps that run groups of the public HbbTV test suite ([testsuite]
// scenarios; appmgr-emu --testsuite builds one). A group's page is the
// AUTOSTART application of the AIT of the same name; with the automation
// cookie set it runs its steps by itself and reports each one, which the
// test-suite server prints. The group has ended when its last step returns
// to the suite's start page.
//
// Groups the suite does not automate (they ask a person to press keys) are
// played by a script of "press" steps instead: testsuite_start starts the
// page, and testsuite_label names the verdict the page gives next, so that
// the page reports it like an automated step.
#include <chrono>

#include "emu_output.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

using Clock = std::chrono::steady_clock;

std::string parseTestsuiteGroup(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1 || !validName(w[0])) return "expects the name of a group";
    if (!s.testsuite) return "needs a [testsuite] section (the test suite's pages)";
    if (!s.ait(w[0])) return "no [ait." + w[0] + "] signals the group's page";
    st.args = {w[0]};
    return "";
}

void deliver(Run& run, const std::string& ait) {
    Step st;
    st.args = {ait};
    findStepKind("deliver_ait")->run(run, st);
}

long secondsSince(Clock::time_point start) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count());
}

TestsuiteServer& server(Run& run) {
    TestsuiteServer* suite = run.testsuite();
    if (!suite) fail("the test suite's pages are not served");
    return *suite;
}

// Whatever ran before goes (an empty AIT); the group's page starts with the
// automation cookie, which the previous group's end has expired. False when
// the page did not load.
bool startGroup(Run& run, const std::string& group) {
    TestsuiteServer& suite = server(run);
    const std::string url = suite.groupUrl(group);
    report("testsuite group " + group + ": " + url);
    deliver(run, "empty");
    std::string error;
    if (!run.browser().control("cookie " + suite.origin() + "/ " + suite.cookie(), &error))
        fail("cannot set the automation cookie: " + error);
    deliver(run, group);
    if (run.browser().waitPageLoaded(url, kPageWaitMs)) return true;
    report("testsuite group " + group + ": the page did not load within " + std::to_string(kPageWaitMs / 1000) +
           " s");
    return false;
}

void runTestsuiteStart(Run& run, const Step& st) { startGroup(run, st.args.at(0)); }

void runTestsuiteGroup(Run& run, const Step& st) {
    TestsuiteServer* suite = &server(run);
    const std::string& group = st.args.at(0);
    const int before = suite->steps();
    const auto start = Clock::now();
    if (!startGroup(run, group)) return;
    const int limit_s = run.scenario().testsuite->group_time_limit_s;
    const bool ended = run.browser().waitPageLoaded(suite->indexUrl(), limit_s * 1000);
    // The start page would go on with the next group of its own menu.
    deliver(run, "empty");
    report("testsuite group " + group + ": " + (ended ? "ended" : "time limit reached") + " after " +
           std::to_string(secondsSince(start)) + " s, " + std::to_string(suite->steps() - before) +
           " steps reported");
}

// ---- testsuite_label GROUP.STEP ---------------------------------------------------------

std::string parseTestsuiteLabel(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1 || w[0].find_first_of("'\\") != std::string::npos) return "expects a step name (GROUP.STEP)";
    if (!s.testsuite) return "needs a [testsuite] section (the test suite's pages)";
    st.args = {w[0]};
    return "";
}

// The suite's pages report a verdict for the step their automation is at;
// a page a person drives has none. The label makes the page's next verdict
// a reported step, with the run's pin and number from the cookie.
void runTestsuiteLabel(Run& run, const Step& st) {
    const std::string& cookie = server(run).cookie();  // "mxphbbtvauto=PIN.RUN"
    const std::string value = cookie.substr(cookie.find('=') + 1);
    const std::string pin = value.substr(0, value.find('.'));
    const std::string number = value.substr(value.find('.') + 1);
    std::string error;
    const std::optional<std::string> set = run.browser().control(
        "eval (function () { if (typeof automate !== 'object') return false; automate.stepid = '" +
            st.args.at(0) + "'; automate.note = 'keys from appmgr-emu'; automate.pin = " + pin +
            "; automate.testrun = " + number + "; return true; })()",
        &error);
    if (!set || *set != "true") fail("the page has no automation to report " + st.args.at(0) + (set ? "" : ": " + error));
    emit("testsuite the page's next verdict is step " + st.args.at(0));
}

}  // namespace

std::vector<StepKind> testsuiteSteps() {
    return {
        {"testsuite_group", "testsuite_group NAME", StepRole::Action, parseTestsuiteGroup, runTestsuiteGroup},
        {"testsuite_start", "testsuite_start NAME", StepRole::Action, parseTestsuiteGroup, runTestsuiteStart},
        {"testsuite_label", "testsuite_label GROUP.STEP", StepRole::Action, parseTestsuiteLabel,
         runTestsuiteLabel},
    };
}

}  // namespace appmgr::emu
