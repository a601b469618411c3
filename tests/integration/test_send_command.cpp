// Commands and callbacks as they reach the browser through real sockets,
// byte for byte.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

class SendCommandTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startMessagingOnly();
    }
    std::string raw(Connection c) { return nextFrame(c).raw; }
};

}  // namespace

TEST_F(SendCommandTest, TimeZoneFrames) {
    EXPECT_EQ(setTimeZone(1, 5, 30), 1);
    EXPECT_EQ(raw(Connection::Application), " 17141|UTC-05:30:00|");
    EXPECT_EQ(setTimeZone(0, 1, 0), 1);
    EXPECT_EQ(raw(Connection::Application), " 17141|UTC+01:00:00|");
    EXPECT_EQ(setTimeZone(2, 5, 30), 1);
    EXPECT_EQ(raw(Connection::Application), "  5141||");
    // Out-of-range numbers are cut to the 12-character zone text.
    EXPECT_EQ(setTimeZone(0, 12345, 7), 1);
    EXPECT_EQ(raw(Connection::Application), " 17141|UTC+12345:07|");
}

TEST_F(SendCommandTest, ParameterKinds) {
    int mask = 31;
    EXPECT_EQ(send_command(51, nullptr), 1);
    EXPECT_EQ(raw(Connection::Application), "  351|");
    EXPECT_EQ(send_command(220, &mask), 1);
    EXPECT_EQ(raw(Connection::Application), "  7220|31|");
    EXPECT_EQ(send_command(54, nullptr), 1);
    EXPECT_EQ(raw(Connection::Application), " 1054|(null)|");
    char empty[] = "";
    EXPECT_EQ(send_command(160, empty), 1);
    EXPECT_EQ(raw(Connection::Application), "  4160|");
    EXPECT_EQ(send_command(69, reinterpret_cast<void*>(intptr_t{3})), 1);
    EXPECT_EQ(raw(Connection::Callbacks), "  569|3|");
}

TEST_F(SendCommandTest, RecordsInWireOrder) {
    char ccid[] = "ccid:1", name[] = "One", dsd[] = "dsd";
    Channel ch{CHANNEL_TYPE_RADIO, ccid, 1, 2, 3, name, dsd, 7, 4, 5, 6};
    EXPECT_EQ(send_command(60, &ch), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "60|1|ccid:1|1|4|2|3|One|dsd|5|6|7|");

    ErrorChannel err{CCE_NO_SIGNAL, &ch};
    EXPECT_EQ(send_command(61, &err), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "61|1|1|ccid:1|1|4|2|3|One|dsd|5|6|7|");

    SearchEvent se{};
    se.searchID = 1;
    se.searchStatus = 2;
    se.eventsFound = 3;
    se.searchOffset = 4;
    se.searchResult = 5;
    EXPECT_EQ(send_command(67, &se), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "67|1|2|4|5|3|");

    char loc[] = "dvb://1.2.3/ev", ev[] = "go", data[] = "00ff";
    StreamEvent event{ev, data, nullptr, nullptr};
    StreamEventCallbackData sec{loc, &event};
    EXPECT_EQ(send_command(66, &sec), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "66|dvb://1.2.3/ev|go|00ff|(null)|(null)|");

    char msg[] = "m", sys[] = "urn:drm";
    DRMMessageResultCallbackData drm{9, msg, -2};
    EXPECT_EQ(send_command(170, &drm), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "170|9|m|-2|");
    DRMSystemMessageCallbackData sysmsg{msg, sys};
    EXPECT_EQ(send_command(172, &sysmsg), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "172|m|urn:drm|");
    ParentalRatingCallbackData pr{2, 1};
    EXPECT_EQ(send_command(62, &pr), 1);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "62|2|1|");
}

TEST_F(SendCommandTest, LengthPrefixWidthAndBufferLimit) {
    // "50|" + text + "|" = 999 bytes, then 1000 bytes.
    std::string text(995, 'x');
    EXPECT_EQ(send_command(50, text.data()), 1);
    EXPECT_EQ(raw(Connection::Application).substr(0, 6), "99950|");
    text.push_back('y');
    EXPECT_EQ(send_command(50, text.data()), 1);
    auto frame = nextFrame(Connection::Application);
    EXPECT_EQ(frame.raw.substr(0, 7), "100050|");
    EXPECT_EQ(frame.length, 1000);

    // A frame that does not fit the 4096-byte buffer is refused, not cut.
    std::string huge(4090, 'z');
    EXPECT_EQ(send_command(50, huge.data()), 0);
    // Ids whose result is ignored answer 1 for a refused frame too.
    EXPECT_EQ(send_command(59, huge.data()), 1);
    EXPECT_EQ(send_command(51, nullptr), 1);
    EXPECT_EQ(raw(Connection::Application), "  351|");
}

TEST_F(SendCommandTest, ConcurrentSendersNeverInterleaveFrames) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 150;
    std::atomic<int> failures{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([t, &failures] {
            for (int i = 0; i < kPerThread; ++i) {
                // Lengths vary so that any interleaving breaks the framing.
                std::string text = std::to_string(t) + ":" + std::to_string(i) + ":" +
                                   std::string(static_cast<size_t>((t * 37 + i * 11) % 300), 'p');
                if (send_command(50, text.data()) != 1) ++failures;
            }
        });
    }
    std::set<std::string> seen;
    for (int n = 0; n < kThreads * kPerThread; ++n) {
        auto frame = browser_.readFrame(Connection::Application, 5000);
        ASSERT_TRUE(frame) << "frame " << n << ": " << browser_.lastError(Connection::Application);
        ASSERT_EQ(frame->id, 50);
        ASSERT_EQ(frame->fields.size(), 1u);
        const std::string& f = frame->fields[0];
        auto colon = f.find(':', f.find(':') + 1);
        ASSERT_NE(colon, std::string::npos);
        EXPECT_EQ(f.find_first_not_of('p', colon + 1), std::string::npos) << f;
        EXPECT_TRUE(seen.insert(f.substr(0, colon)).second) << "duplicate " << f;
    }
    for (auto& s : senders) s.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kPerThread));
}
