// Every reply shape of the "dtvPlugins" and "vodPlugins" requests, through
// the real sockets and the simulated receiver: one table per family (the
// bytes sent in, the reply expected out), then the requests that change
// what later requests see, then bad input.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "broadcast_fixture.h"
#include "hbb_sim.h"
#include "state/state.h"

using namespace appmgr::test;

namespace {

struct Row {
    int id;
    std::vector<std::string> fields;
    std::string reply;
};

const char* const kNA = "NOT_AVAILABLE|";

const std::vector<Row> kBroadcastObject = {
    {0, {}, "ACK|"},
    {4, {}, "ACK|"},
    {8, {}, "ACK|"},
    {22, {"1"}, "0|"},
    {23, {"10", "20", "640", "360"}, "0|"},
    {23, {"0", "0", "0", "0"}, "-1|"},
};

const std::vector<Row> kChannels = {
    {30, {}, kOneRecord},
    {31, {"ccid:1.2.4"}, kTwoRecord},
    {31, {"ccid:9.9.9"}, kNA},
    {32, {"2"}, kRadioRecord},
    {32, {"3"}, kNA},
    {32, {"-1"}, kNA},
    {33, {"1", "2", "4"}, kTwoRecord},
    {33, {"1", "2", "9"}, kNA},
    {34, {"dsd-b", "5"}, kRadioRecord},
    {34, {"dsd-a", "5"}, kNA},
    {35, {}, "3|"},
};

const std::vector<Row> kProgrammes = {
    {43, {}, "2|"},
    {45, {"0"}, "News|Headlines|1700000000|1800|ccid:1.2.3|0x1001|1|Long news|1|12|dvb-si|9|0|GBR|"},
    {45, {"1"}, "Film|A film|1700001800|5400|ccid:1.2.3|0x1002|1|(null)|0|"},
    {45, {"2"}, kNA},
};

const std::vector<Row> kReceiver = {
    {9, {}, "ACK|"},
    {41, {"dvb-si"}, "threshold|dvb-si|16|0|(null)|"},
    {42, {}, "eng|eng|GBR|eng|0|0|hbb-sim-0001|0|"},
    {44, {}, "4321|"},
    {70, {"+DL"}, "0|"},
    {71, {}, "0|0|"},
    {72, {},
     "<profilelist><ui_profile name=\"OITF_HD_UIPROF+DVB_T\"/>"
     "<broadcast>urn:dvb:broadcast:ird:video:25_Hz_H.264_AVC_HDTV_IRD</broadcast></profilelist>|"},
};

const std::vector<Row> kComponents = {
    {114, {"0"}, "1|"},
    {114, {"1"}, "2|"},
    {114, {"2"}, "1|"},
    {114, {"7"}, "0|"},
    {115, {"0"}, "0|H.264|0|1|100|1.78|"},
    {115, {"1"}, kNA},
    {116, {"1"}, "1|AAC|0|3|102|deu|1|2|"},
    {117, {"0"}, "2|DVB|0|4|103|eng|1|"},
    {118, {"1"}, "1|"},
    {118, {"2"}, "0|"},
    {119, {"0"}, "0|H.264|0|1|100|1.78|"},
    {120, {"0"}, "1|AAC|0|2|101|eng|0|2|"},
    {121, {"0"}, kNA},
    {126, {"3"}, "ACK|"},
    {127, {"1"}, "ACK|"},
};

// The media family answers the same on both plug-in connections.
const std::vector<Row> kMedia = {
    {200, {"5"}, "1|"},
    {201, {"5"}, "1|"},
    {203, {"5"}, "1|"},
    {204, {"5", "http://media.example/v.mp4"}, "1|"},
    {205, {"5"}, "1|"},
    {206, {"5", "2", "on"}, "1|"},
    {207, {"5", "2"}, "1|"},
    {208, {"5", "3", "play"}, "1|"},
    {210, {"5"}, kNA},
    {211, {"5"}, kNA},
    {230, {"0", "license", "<challenge/>", "urn:dvb:casystemid:19188"}, kNA},
    {231, {"urn:dvb:casystemid:19188"}, "1|"},
    {234, {}, "0|"},
    {235, {"0"}, "ACK|"},
    {240, {"1"}, "1|"},
    {241, {"1", "0"}, kNA},
    {242, {"1"}, "ACK|"},
    {243, {"1"}, "ACK|"},
    {244, {"7", "300", "1"}, "ACK|"},
    {245, {"7", "300", "1"}, "ACK|"},
    {300, {"5", "1"}, "ACK|"},
    {301, {"5", "1"}, "ACK|"},
    {302, {"5", "0", "H.264", "0", "1", "100", "1.78"}, "ACK|"},
    {303, {"5", "0", "H.264", "0", "1", "100", "1.78"}, "ACK|"},
    {304, {"5", "1", "AAC", "0", "2", "101", "eng", "0", "2"}, "ACK|"},
    {305, {"5", "1", "AAC", "0", "2", "101", "eng", "0", "2"}, "ACK|"},
    {306, {"5", "2", "DVB", "0", "4", "103", "eng", "1"}, "ACK|"},
    {307, {"5", "2", "DVB", "0", "4", "103", "eng", "1"}, "ACK|"},
    {308, {"5", "1"}, "1|"},
    {309, {"5", "0"}, kNA},
    {310, {"5", "0"}, kNA},
    {311, {"5", "0"}, kNA},
    {312, {"5", "1"}, "1|"},
    {313, {"5", "0"}, kNA},
    {314, {"5", "0"}, kNA},
    {315, {"5", "0"}, kNA},
};

const std::vector<Row> kApplicationControl = {
    {50, {"page.html"}, "0|"},  // relative, and no page loaded to resolve it
    {53, {}, "ACK|"},
    {54, {}, "ACK|"},
    {55, {"31"}, "31|"},
    {56, {}, "0|"},
    {57, {}, "0|0|"},
};

class PluginRequestsTest : public BroadcastTest {
protected:
    void expectRows(Connection c, const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            std::string sent = std::to_string(row.id);
            for (const auto& f : row.fields) sent += "|" + f;
            EXPECT_EQ(ask(c, row.id, row.fields), row.reply)
                << appmgr::standin::connectionName(c) << " request " << sent;
        }
    }
    VideoBroadcastState presentation() { return broadcast_state(); }
};

}  // namespace

TEST_F(PluginRequestsTest, ReplyShapesOfEveryFamily) {
    expectRows(Connection::DtvPlugins, kBroadcastObject);
    expectRows(Connection::DtvPlugins, kChannels);
    expectRows(Connection::DtvPlugins, kProgrammes);
    expectRows(Connection::DtvPlugins, kReceiver);
    expectRows(Connection::DtvPlugins, kComponents);
    expectRows(Connection::DtvPlugins, kApplicationControl);
    expectRows(Connection::VodPlugins, kMedia);
    expectRows(Connection::DtvPlugins, kMedia);
    EXPECT_TRUE(log_.contains("Channel not available!"));
    EXPECT_TRUE(log_.contains("Information about programme not available!"));
    EXPECT_TRUE(log_.contains("Dash data not available!"));
    EXPECT_TRUE(log_.contains("CMD_DRM_INIT finish drm_handle = 0"));
    EXPECT_TRUE(log_.contains("CMD_OPEN_DTV_DECODER_BY_MASK mask = 0x3"));
    EXPECT_TRUE(log_.contains("Programmes length --> 2"));
    EXPECT_TRUE(log_.contains("send_DRMM_message :  handle=0 , msgType=license, message=<challenge/> , "
                              "DRMSystemID=urn:dvb:casystemid:19188, return value=(null) "));
}

TEST_F(PluginRequestsTest, MissingObjectsOfTheReceiver) {
    hbb_sim_clear_channels();
    hbb_sim_set_video_decodes(-1, 0);
    hbb_sim_set_xml_capabilities(nullptr);
    hbb_sim_set_configuration(nullptr);
    expectRows(Connection::DtvPlugins, {{30, {}, kNA},
                                        {35, {}, kNA},
                                        {43, {}, kNA},
                                        {42, {}, kNA},
                                        {71, {}, kNA},
                                        {72, {}, kNA}});
    EXPECT_TRUE(log_.contains("Channel list not available!"));
    EXPECT_TRUE(log_.contains("No programme list available"));
    EXPECT_TRUE(log_.contains("Information about configuration not available!"));
    EXPECT_TRUE(log_.contains("Information about decodes not available"));
}

TEST_F(PluginRequestsTest, PresentationFollowsStopBindAndMediaVideo) {
    EXPECT_EQ(ask(Connection::DtvPlugins, 3), "TRUE|");
    EXPECT_EQ(presentation(), VBOS_STOPPED);
    EXPECT_EQ(hbb_sim_broadcast_presenting(), 0);
    EXPECT_EQ(ask(Connection::DtvPlugins, 0), "ACK|");
    EXPECT_EQ(presentation(), VBOS_PRESENTING);
    EXPECT_EQ(hbb_sim_broadcast_presenting(), 1);
    // Binding while presenting asks nothing of the middleware.
    EXPECT_EQ(ask(Connection::DtvPlugins, 0), "ACK|");
    EXPECT_EQ(hbb_sim_call_count("hbbBindCurrentChannel"), 1);

    // Broadband video stops the broadcast; the page binds it again.
    EXPECT_EQ(ask(Connection::VodPlugins, 213), "ACK|");
    EXPECT_EQ(presentation(), VBOS_STOPPED);
    EXPECT_EQ(ask(Connection::DtvPlugins, 0), "ACK|");
    EXPECT_EQ(hbb_sim_call_count("hbbBindCurrentChannel"), 2);
    EXPECT_EQ(ask(Connection::DtvPlugins, 213), "ACK|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 212), "ACK|");
    EXPECT_EQ(presentation(), VBOS_PRESENTING);
}

TEST_F(PluginRequestsTest, NextAndPreviousTuneAndTellTheBrowser) {
    EXPECT_EQ(ask(Connection::DtvPlugins, 1), "ACK|");
    EXPECT_EQ(callback(60).body, "60|" + std::string(kTwoRecord));
    EXPECT_EQ(ask(Connection::DtvPlugins, 2), "ACK|");
    EXPECT_EQ(callback(60).body, "60|" + std::string(kOneRecord));
    EXPECT_EQ(ask(Connection::DtvPlugins, 2), "ACK|");
    EXPECT_EQ(callback(60).body, "60|" + std::string(kRadioRecord));
    EXPECT_EQ(hbb_sim_current_channel(), kRadio);
    // The radio service has no programmes and no components.
    EXPECT_EQ(ask(Connection::DtvPlugins, 43), kNA);
    EXPECT_EQ(ask(Connection::DtvPlugins, 114, {"1"}), "0|");
}

TEST_F(PluginRequestsTest, SelectingComponentsChangesTheActiveOnes) {
    // Select the German audio track by its record.
    const std::vector<std::string> german = {"1", "AAC", "0", "3", "102", "deu", "1", "2"};
    EXPECT_EQ(ask(Connection::DtvPlugins, 110, german), "0|");
    EXPECT_EQ(callback(69).body, "69|1|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 118, {"1"}), "1|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 120, {"0"}), "1|AAC|0|3|102|deu|1|2|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 111, german), "0|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 118, {"1"}), "0|");
    // Subtitles on by type, then off.
    EXPECT_EQ(ask(Connection::DtvPlugins, 106, {"2"}), "0|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 121, {"0"}), "2|DVB|0|4|103|eng|1|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 107, {"2"}), "0|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 118, {"2"}), "0|");
    // A component the service does not carry cannot be selected.
    EXPECT_EQ(ask(Connection::DtvPlugins, 108, {"0", "H.264", "0", "9", "999", "1.33"}), "-1|");
    // A component the page describes becomes known, inactive.
    EXPECT_EQ(ask(Connection::DtvPlugins, 129, {"1", "AC-3", "0", "5", "104", "fra", "0", "6"}),
              "2|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 116, {"2"}), "1|AC-3|0|5|104|fra|0|6|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 128, {"0", "HEVC", "1", "6", "105", "2.35"}), "1|");
    EXPECT_TRUE(log_.waitForCount("Command CMD_CREATE_AV_AUDIO_COMPONENT received", 2, 1000));
}

TEST_F(PluginRequestsTest, ReceiverSettingsReachThePage) {
    hbb_sim_set_capability("+DL", 1);
    hbb_sim_set_video_decodes(1, 2);
    hbb_sim_set_parental_threshold(12);
    Configuration c{};
    c.preferredAudioLanguage = const_cast<char*>("deu");
    c.preferredSubtitleLanguage = const_cast<char*>("eng");
    c.countryID = const_cast<char*>("DEU");
    c.preferredUILanguage = const_cast<char*>("deu");
    c.SubtitlesEnabled = 1;
    c.DeviceId = const_cast<char*>("tv-42");
    c.AudioDescriptionEnabled = 1;
    hbb_sim_set_configuration(&c);
    expectRows(Connection::DtvPlugins, {{70, {"+DL"}, "1|"},
                                        {70, {"+PVR"}, "0|"},
                                        {71, {}, "1|2|"},
                                        {41, {"dvb-si"}, "threshold|dvb-si|12|0|(null)|"},
                                        {42, {}, "deu|eng|DEU|deu|1|0|tv-42|1|"}});
}

TEST_F(PluginRequestsTest, ApplicationControl) {
    // The portal intent goes out before the destroy, whatever runs.
    EXPECT_EQ(ask(Connection::DtvPlugins, 51, {"16", "1"}), "ACK|");
    char details[128];
    ASSERT_GE(hbb_sim_last_call("orb_am_sendBroadcast", details, sizeof details), 0);
    EXPECT_STREQ(details, "action=orb.broadcast.stop.hbbtv.portal -> 0");
    EXPECT_TRUE(log_.contains("Application is not running! Ignoring destroy command"));

    EXPECT_EQ(ask(Connection::DtvPlugins, 58), "ACK|");
    EXPECT_EQ(running_type(), BROADCAST_INDEPENDENT);
    EXPECT_EQ(broadcast_state(), VBOS_STOPPED);
    EXPECT_EQ(ask(Connection::DtvPlugins, 56), "1|");
    // The switch activated the application; an other-keys list (its count
    // field) keeps the "other keys" group (0x400).
    EXPECT_EQ(ask(Connection::DtvPlugins, 55, {"1055", "1", "403"}), "1055|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 55, {"1055"}), "31|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 78), "0|");
}

TEST_F(PluginRequestsTest, UnknownIdsGetNoReply) {
    for (int id : {5, 21, 36, 130, 202, 209, 316, 402, -1}) {
        const std::string sent = std::to_string(id) + "|1|";
        ASSERT_TRUE(browser_.send(Connection::DtvPlugins, sent));
        EXPECT_TRUE(nothingBefore(Connection::DtvPlugins, sent)) << "id " << id;
    }
    EXPECT_TRUE(log_.waitForCount(" Unknown message, id is not supported!", 9, 1000));
    for (int id : {0, 20, 44, 401, 202}) {
        const std::string sent = std::to_string(id) + "|2|";
        ASSERT_TRUE(browser_.send(Connection::VodPlugins, sent));
        EXPECT_TRUE(nothingBefore(Connection::VodPlugins, sent)) << "id " << id;
    }
    // "vodPlugins" drops them without a word.
    EXPECT_FALSE(log_.waitForCount(" Unknown message, id is not supported!", 10, 200));
}

// Missing, extra, empty, non-numeric and oversized fields: the reply the
// table gives, never a read past a field (the sanitizer builds check).
TEST_F(PluginRequestsTest, BadFields) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"33|", kNA},
        {"33|1|2|4|extra|fields|", kTwoRecord},
        {"33|a|b|c|", kNA},
        {"33|1||4|", kNA},  // the empty field ends the message
        {"32|99999999999999999999|", kNA},
        {"31|" + std::string(256, 'x') + "|", kNA},
        {"34|" + std::string(1024, 'd') + "|5|", kNA},
        {"45|-5|", kNA},
        {"116|2147483647|", kNA},
        {"23|", "-1|"},
        {"110|", "-1|"},
        {"20|", "-1|"},
        {"46|", "1|"},
        {"46|dvb://1.2.3.1/ev|", "1|"},
        {"46|" + std::string(1025, 'u') + "|go|", "1|"},
        {"46|dvb://1.2.3.1/ev|" + std::string(256, 'n') + "|", "1|"},
        {"47|", "ACK|"},
        {"55|31|2000000000|", "31|"},
        {"41|" + std::string(300, 's') + "|", kNA},
        {"70|" + std::string(300, 'c') + "|", "0|"},
        {"204|x|" + std::string(3000, 'u') + "|", "1|"},
    };
    for (const auto& [sent, reply] : cases)
        EXPECT_EQ(askRaw(Connection::DtvPlugins, sent), reply) << sent.substr(0, 60);
    EXPECT_TRUE(log_.contains("channel id longer than 255 characters refused"));
    EXPECT_TRUE(log_.contains("stream event target URL longer than 1024 characters refused"));
    EXPECT_EQ(hbb_sim_call_count("QUMA_StreamEventsSubscribe"), 0);
    EXPECT_EQ(hbb_sim_call_count("hbbGetChannel"), 0);
}

// Channel records go to a browser buffer of 256 characters: texts too long
// for it are cut, the longest first, and every field is still there.
TEST_F(PluginRequestsTest, ChannelRecordsFitTheBrowsersBuffer) {
    const std::string long_name(300, 'n'), long_dsd(400, 'd');
    auto add = [](const std::string& name, const std::string& dsd, int sid) {
        Channel c{};
        c.ccid = const_cast<char*>("ccid:1.2.9");
        c.onid = 1;
        c.tsid = 2;
        c.sid = sid;
        c.name = const_cast<char*>(name.c_str());
        c.dsd = const_cast<char*>(dsd.c_str());
        return hbb_sim_add_channel(&c);
    };
    auto fields_of = [](const std::string& record) {
        std::vector<std::string> fields;
        std::size_t start = 0;
        for (std::size_t bar; (bar = record.find('|', start)) != std::string::npos; start = bar + 1)
            fields.push_back(record.substr(start, bar - start));
        EXPECT_EQ(start, record.size()) << "the last field ends with '|'";
        return fields;
    };
    const int named = add(long_name, "dsd-z", 9);
    const int described = add("Nine", long_dsd, 10);
    for (int position : {named, described}) {
        const std::string record = ask(Connection::DtvPlugins, 32, {std::to_string(position)});
        EXPECT_EQ(record.size(), 255u);
        const auto fields = fields_of(record);
        ASSERT_EQ(fields.size(), 11u) << record;
        EXPECT_EQ(fields[1], "ccid:1.2.9");
        EXPECT_EQ(fields[5], std::to_string(position == named ? 9 : 10));
        if (position == named) {
            EXPECT_EQ(fields[7], "dsd-z");
            EXPECT_EQ(fields[6], long_name.substr(0, fields[6].size()));
        } else {
            EXPECT_EQ(fields[6], "Nine");
            EXPECT_EQ(fields[7], long_dsd.substr(0, fields[7].size()));
        }
    }
    // The same record through the triplet request, and a short record whole.
    EXPECT_EQ(ask(Connection::DtvPlugins, 33, {"1", "2", "9"}).size(), 255u);
    EXPECT_EQ(ask(Connection::DtvPlugins, 33, {"1", "2", "4"}), kTwoRecord);
}
