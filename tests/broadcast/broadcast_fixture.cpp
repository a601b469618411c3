#include "broadcast_fixture.h"

#include <chrono>

#include "app_mgr.h"
#include "hbb_sim.h"

namespace appmgr::test {

void BroadcastTest::SetUp() {
    LibraryTest::SetUp();
    add_services();
    register_listeners();
    hbb_sim_set_free_memory(4321);
    // Applications signalled for HbbTV 1.1.1 may start.
    set_terminal_version(1, 7, 1);
    ASSERT_EQ(startWithBrowser(), 1);
    ASSERT_EQ(applicationManagerInit(), 1);
}

std::string BroadcastTest::ask(Connection c, int id, const std::vector<std::string>& fields) {
    return browser_.request(c, id, fields, 3000).value_or("<no reply>");
}

std::string BroadcastTest::askRaw(Connection c, const std::string& raw) {
    if (!browser_.send(c, raw)) return "<not sent>";
    return browser_.readReply(c, 3000).value_or("<no reply>");
}

bool BroadcastTest::nothingBefore(Connection c, const std::string& sent) {
    // A block the library receives is one message: the marker goes out only
    // once the library has taken the request in.
    EXPECT_TRUE(log_.waitFor("Reply received: " + sent, 3000)) << sent;
    const bool dtv = c == Connection::DtvPlugins;
    const std::string expected = dtv ? "4321|" : "0|";
    const std::string got = ask(c, dtv ? 44 : 234);
    EXPECT_EQ(got, expected) << "a reply arrived before the marker's";
    return got == expected;
}

standin::Frame BroadcastTest::callback(int id, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        auto frame = browser_.readFrame(Connection::Callbacks, static_cast<int>(left.count()) + 1);
        if (!frame) break;
        if (frame->id == id) return *frame;
    }
    ADD_FAILURE() << "no callback " << id << " on Callbacks";
    return standin::Frame{};
}

}  // namespace appmgr::test
