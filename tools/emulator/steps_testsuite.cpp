// The step that runs one group of the public HbbTV test suite ([testsuite]
// scenarios; appmgr-emu --testsuite builds one). The group's page is the
// AUTOSTART application of the AIT of the same name; with the automation
// cookie set it runs its steps by itself and reports each one, which the
// test-suite server prints. The group has ended when its last step returns
// to the suite's start page.
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

void runTestsuiteGroup(Run& run, const Step& st) {
    TestsuiteServer* suite = run.testsuite();
    if (!suite) fail("the test suite's pages are not served");
    const std::string& group = st.args.at(0);
    const std::string url = suite->groupUrl(group);
    const int before = suite->steps();
    const auto start = Clock::now();
    report("testsuite group " + group + ": " + url);

    // Whatever ran before goes (an empty AIT); the group's page starts with
    // the automation cookie, which the previous group's end has expired.
    deliver(run, "empty");
    std::string error;
    if (!run.browser().control("cookie " + suite->origin() + "/ " + suite->cookie(), &error))
        fail("cannot set the automation cookie: " + error);
    deliver(run, group);
    if (!run.browser().waitPageLoaded(url, kPageWaitMs)) {
        report("testsuite group " + group + ": the page did not load within " +
               std::to_string(kPageWaitMs / 1000) + " s");
        return;
    }
    const int limit_s = run.scenario().testsuite->group_time_limit_s;
    const bool ended = run.browser().waitPageLoaded(suite->indexUrl(), limit_s * 1000);
    // The start page would go on with the next group of its own menu.
    deliver(run, "empty");
    report("testsuite group " + group + ": " + (ended ? "ended" : "time limit reached") + " after " +
           std::to_string(secondsSince(start)) + " s, " + std::to_string(suite->steps() - before) +
           " steps reported");
}

}  // namespace

std::vector<StepKind> testsuiteSteps() {
    return {
        {"testsuite_group", "testsuite_group NAME", StepRole::Action, parseTestsuiteGroup, runTestsuiteGroup},
    };
}

}  // namespace appmgr::emu
