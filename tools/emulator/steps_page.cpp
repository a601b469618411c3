// Steps of the application page and the remote control in front of it: a
// key pressed, and the page reporting itself loaded. Both work with either
// browser: the stand-in does what the browser would on the wire, a real
// browser does it with its page. Each kind's parse and run functions stand
// together; the rows are at the end.
#include "emu_output.h"
#include "remote_keys.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

// ---- press KEY -------------------------------------------------------------------------

std::string parsePress(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<RemoteKey> key = w.size() == 1 ? findRemoteKey(w[0]) : std::nullopt;
    if (!key) return "expects one key: red, green, yellow, blue, up, down, left, right, ok, back, 0-9, play, ... "
                     "(or its VK_ name)";
    st.args = {key->name};
    return "";
}

void runPress(Run& run, const Step& st) {
    const std::optional<RemoteKey> key = findRemoteKey(st.args.at(0));
    std::string error;
    std::optional<std::string> result = run.browser().pressKey(*key, &error);
    if (!result) fail("key " + key->name + ": " + error);
    emit("key       " + key->name + " (" + std::to_string(key->code) + "): " + *result);
    run.last().key = result;
}

// ---- page_loaded URL -------------------------------------------------------------------------

std::string parsePageLoaded(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects the URL of the page";
    st.tail = w[0];
    return "";
}

// The browser tells the library the page it loaded (82): the stand-in says
// so when the step comes; a real browser says so itself once Chromium has
// loaded the page, and the step waits for that.
void runPageLoaded(Run& run, const Step& st) {
    const std::string url = run.expand(st.tail.value_or(""));
    if (run.browser().hasPage()) {
        if (!run.browser().waitPageLoaded(url, kPageWaitMs))
            fail("the browser did not load " + quoted(url) + " within " + std::to_string(kPageWaitMs / 1000) +
                 " s");
        emit("page      " + url + " is loaded and reported");
        return;
    }
    const std::string raw = "82|" + url + "|";
    emitSent(Connection::Application, raw);
    if (!run.browser().send(Connection::Application, raw)) fail("could not send on Application");
}

}  // namespace

std::vector<StepKind> pageSteps() {
    return {
        {"press", "press KEY", StepRole::Action, parsePress, runPress},
        {"page_loaded", "page_loaded URL", StepRole::Action, parsePageLoaded, runPageLoaded},
    };
}

}  // namespace appmgr::emu
