// A receiver for the broadcast suites: three services (two TV, one radio)
// with programmes and AV components on the first, the library active with
// the browser stand-in connected, and the library's notification entry
// points registered with the simulator, which delivers them from its
// notifier thread as a middleware would.
#pragma once

#include <string>
#include <vector>

#include "simulated_services.h"
#include "test_support.h"

namespace appmgr::test {

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
