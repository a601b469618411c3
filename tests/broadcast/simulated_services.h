// Three simulated services (two TV, one radio) with programmes and AV
// components on the first, and the library's notification entry points
// registered with the simulator, which delivers them from its notifier
// thread as a middleware would. Only the simulator's control calls are
// used: any copy of the library the program links will do.
#pragma once

namespace appmgr::test {

// Positions of the simulated services.
constexpr int kOne = 0;    // TV, 1.2.3, current at start
constexpr int kTwo = 1;    // TV, 1.2.4
constexpr int kRadio = 2;  // radio, 1.2.5

// The reply record of each service (type|ccid|onid|nid|tsid|sid|name|dsd|
// TerminalChannel|MajorChannel|idType|).
extern const char* const kOneRecord;
extern const char* const kTwoRecord;
extern const char* const kRadioRecord;

// Adds the services, programmes and components to the simulator.
void add_services();
// Registers channelChanged, channelChangeError and the other notification
// entry points with the simulator.
void register_listeners();

}  // namespace appmgr::test
