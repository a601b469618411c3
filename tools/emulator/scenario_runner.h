// Runs a scenario read by loadScenario against the library: the simulated
// receiver is set up from it, the library is started with the browser side
// connected, the timeline's steps run in order, and the library's decisions
// are printed and checked.
#pragma once

#include "browser_side.h"
#include "capture_input.h"
#include "scenario.h"

namespace appmgr::emu {

// Runs s with browser on the other end of the library's sockets and, when s
// has a [capture], `capture` opened on it; returns when every step passed. A
// failed step ends the process with status 1 (see fail() in emu_output.h).
void runScenario(const Scenario& s, BrowserSide& browser, CaptureInput* capture = nullptr);

}  // namespace appmgr::emu
