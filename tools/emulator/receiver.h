// The simulated receiver as a scenario describes it: its channels, the
// schedule and components of each, its answers to the library's questions,
// its object carousels, and whether it reports tunes and changes itself.
#pragma once

#include <string>

#include "app_mgr_types.h"
#include "scenario.h"

namespace appmgr::emu {

// A Channel record whose texts live as long as it does; position is the
// channel's index in the scenario (0: the service).
struct ChannelRecord {
    ChannelRecord(const ChannelSpec& c, int position);
    std::string ccid;
    std::string name;
    Channel rec{};
};

// "\"Emu News\" 0x1.0x2.0x3".
std::string describeChannel(const ChannelSpec& c);
// "0x1f".
std::string hex(int v);
// One entry of an AIT the middleware delivers, under its aitUpdate line:
// "          [0] 0x70.1 AUTOSTART priority 1, dvb, version 1.1.1: dvb://1.2.3.1/index.html".
std::string describeEntry(int index, const Application& a);

// Puts everything the scenario says about the receiver into the simulator,
// printing a "receiver" line for each. Fails the run when the simulator
// refuses something.
void setUpReceiver(const Scenario& s);

}  // namespace appmgr::emu
