// Field parsing, the user-agent store and send_command's refusals, without
// any browser connected.
#include <gtest/gtest.h>

#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "hbb_sim.h"
#include "test_support.h"
#include "protocol/protocol.h"

using appmgr::protocol::next_field;
using appmgr::test::state;
using appmgr::test::set_state;

TEST(ParseParameter, EmptyFieldStopsTheRestOfTheMessage) {
    char msg[] = "12|a||b|";
    char p[1024];
    char* rest = parse_parameter(msg, p);
    EXPECT_STREQ(p, "12");
    rest = parse_parameter(rest, p);
    EXPECT_STREQ(p, "a");
    rest = parse_parameter(rest, p);  // the empty field
    EXPECT_EQ(rest, nullptr);
    EXPECT_STREQ(p, "");
    strcpy(p, "junk");
    EXPECT_EQ(parse_parameter(rest, p), nullptr);  // null input: empty text
    EXPECT_STREQ(p, "");
    EXPECT_EQ(atoi(p), 0);
}

TEST(ParseParameter, MissingSeparatorGivesEmptyText) {
    char msg[] = "abc";
    char p[1024] = "x";
    EXPECT_EQ(parse_parameter(msg, p), nullptr);
    EXPECT_STREQ(p, "");
}

TEST(ParseParameter, OverlongFieldsAreCutToTheDestination) {
    std::string field(3000, 'u');
    std::string msg = field + "|next|";
    // Guard bytes around the destination catch any write past its end.
    struct {
        char before[8];
        char param[1024];
        char after[8];
    } exported;
    memset(&exported, 0x5a, sizeof(exported));
    char* rest = parse_parameter(msg.data(), exported.param);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(strlen(exported.param), 1023u);
    EXPECT_EQ(std::string(rest), "next|");
    for (char c : exported.after) EXPECT_EQ(c, 0x5a);

    struct {
        char small[32];
        char after[8];
    } internal;
    memset(&internal, 0x5a, sizeof(internal));
    rest = next_field(msg.data(), internal.small);
    EXPECT_EQ(std::string(internal.small), std::string(31, 'u'));
    EXPECT_EQ(std::string(rest), "next|");
    for (char c : internal.after) EXPECT_EQ(c, 0x5a);
}

TEST(UserAgent, NullBeforeAnySetAndNullArgumentRefused) {
    EXPECT_EQ(getAMUserAgent(), nullptr);
    EXPECT_EQ(setAMUserAgent(nullptr), 0);
    EXPECT_EQ(activeAMUserAgentSet, 0);
    EXPECT_EQ(getAMUserAgent(), nullptr);
}

TEST(UserAgent, PercentSequencesAreNeverUsedAsAFormat) {
    char ua[] = "UA/1.0 100%% %s %n %d %";
    ASSERT_EQ(setAMUserAgent(ua), 1);
    EXPECT_STREQ(getAMUserAgent(), "UA/1.0 100% %s %n %d %");
}

TEST(UserAgent, LengthLimitSelectsTheDefault) {
    std::string longest(4095, 'a');
    ASSERT_EQ(setAMUserAgent(longest.data()), 1);
    EXPECT_EQ(std::string(getAMUserAgent()), longest);

    std::string too_long(4096, 'b');
    ASSERT_EQ(setAMUserAgent(too_long.data()), 1);
    EXPECT_STREQ(getAMUserAgent(),
                 "Mozilla/5.0 (X11;Linux x86_64;ZORVANEXQTL)(KHTML, like Gecko)Safari/534.24 ");
    EXPECT_EQ(strlen(getAMUserAgent()), 75u);
}

TEST(SendCommand, UnknownIdsAndMissingRecordsSendNothing) {
    EXPECT_EQ(send_command(47, nullptr), 0);
    EXPECT_EQ(send_command(60, nullptr), 0);   // Channel record missing
    EXPECT_EQ(send_command(220, nullptr), 0);  // int pointer missing
}

TEST(SendCommand, WithoutBrowserOnlyTheFireAndForgetIdsReportSuccess) {
    int v = 1;
    EXPECT_EQ(send_command(64, nullptr), 1);
    EXPECT_EQ(send_command(59, (void*)"b"), 1);
    EXPECT_EQ(send_command(76, &v), 1);
    EXPECT_EQ(send_command(77, &v), 1);
    SearchEvent e{};
    EXPECT_EQ(send_command(67, &e), 1);
    EXPECT_EQ(send_command(65, nullptr), 0);
    EXPECT_EQ(send_command(51, nullptr), 0);
}

TEST(Messaging, ConnectionTypeAndPortBounds) {
    char b[] = "x";
    EXPECT_EQ(tools_msg_send_msg(&gData, MNG_CONNECTION_TYPE_SIZE, b, 1), RET_ERROR);
    EXPECT_EQ(tools_msg_send_msg(&gData, (Mng_ConnectionType_t)-1, b, 1), RET_ERROR);

    Messenger_t m{};
    for (int port : {79, 65535, -1}) {
        m.msg_port = port;
        EXPECT_EQ(messenger_init(&m, nullptr, nullptr), RET_ERROR) << port;
    }
    for (int port : {80, 65534}) {
        m.msg_port = port;
        EXPECT_EQ(messenger_init(&m, nullptr, nullptr), RET_OK) << port;
        EXPECT_EQ(m.state, MESSENGER_STATE_INIT);
        EXPECT_EQ(m.s_msg_connection, -1);
    }
    // Not started: sending fails at once.
    EXPECT_EQ(messenger_send(&m, b, 1), RET_ERROR);
}

TEST(Messaging, ReceivedMessagesWithBadContextAreRefused) {
    appmgr::test::LogCapture log;
    hbb_sim_set_log_level(2);
    set_state(APP_MANAGER_INITIALIZING);
    char msg[] = "83|1|";
    input_data_received(nullptr, msg, 5);
    EXPECT_TRUE(log.contains("input_data_received: Error msg_d == NULL"));
    Messenger_t m{};
    input_data_received(&m, nullptr, 0);
    EXPECT_TRUE(log.contains("input_data_received: buff == NULL"));
    input_data_received(&m, msg, 5);
    EXPECT_TRUE(log.contains("input_data_received: Error msg_conn == NULL"));
    // A state report on "Callbacks" must not be acted on.
    Mng_Connection_t callbacks{};
    callbacks.mng_type = MNG_CONNECTION_TYPE_CALLBACK;
    m.priv = &callbacks;
    input_data_received(&m, msg, 5);
    EXPECT_TRUE(log.contains("input_data_received: Error mng_type(3) not supported!!!"));
    EXPECT_FALSE(log.contains("Reply received"));
    EXPECT_EQ(state(), APP_MANAGER_INITIALIZING);
    // On "Application" it is: the receive thread goes on (0) and the report
    // changed the state.
    Mng_Connection_t app{};
    m.priv = &app;
    EXPECT_EQ(input_data_received(&m, msg, 5), 0);
    EXPECT_TRUE(log.contains("Reply received: 83|1|"));
    EXPECT_EQ(state(), APP_MANAGER_SUSPENDED);
}
