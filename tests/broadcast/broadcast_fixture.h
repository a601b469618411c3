// A receiver for the broadcast suites: three services (two TV, one radio)
// with programmes and AV components on the first, the library active with
// the browser stand-in connected, and the library's notification entry
// points registered with the simulator, which delivers them from its
// notifier thread as a middleware would.
#pragma once

#include <string>
#include <vector>

#include "test_support.h"

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

class BroadcastTest : public LibraryTest {
protected:
    void SetUp() override;

    // The reply to a request, or "<no reply>" after 3 s.
    std::string ask(Connection c, int id, const std::vector<std::string>& fields = {});
    // Sends raw bytes and returns the reply, or "<no reply>".
    std::string askRaw(Connection c, const std::string& raw);
    // True when nothing answered the request `sent` on c: once the library
    // has logged its receipt, a request that always answers (free memory, 44
    // on "dtvPlugins"; DRM init, 234 on "vodPlugins") is sent as a marker
    // and its reply must be the next one.
    bool nothingBefore(Connection c, const std::string& sent);
    // Next frame on "Callbacks" with this id, skipping others (bounded).
    standin::Frame callback(int id, int timeout_ms = 3000);
};

}  // namespace appmgr::test
