// Runs a scenario read by loadScenario against the library: the simulated
// receiver is set up from it, the library is started with the browser
// stand-in connected, the timeline's steps run in order, and the library's
// decisions (taken from its log) are printed and checked.
#pragma once

#include "scenario.h"

namespace appmgr::emu {

// Runs s; returns when every step passed. A failed step ends the process
// with status 1 (see fail() in emu_output.h).
void runScenario(const Scenario& s);

}  // namespace appmgr::emu
