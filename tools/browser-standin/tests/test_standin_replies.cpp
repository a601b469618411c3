// Replies and callbacks decoded by the record shapes of the protocol.
#include <gtest/gtest.h>

#include "browser_standin.h"

using namespace appmgr::standin;

namespace {

std::string reply(Connection c, int id, const std::string& bytes) {
    return describe(decodeReply(c, id, bytes));
}

std::string frame(const std::string& body) {
    std::string buffer = std::to_string(body.size()) + body;
    if (body.size() < 100) buffer = std::string(3 - std::to_string(body.size()).size(), ' ') + buffer;
    std::optional<Frame> f = decodeFrame(buffer);
    return f ? describe(decodeFrame(*f)) : "<not a frame>";
}

}  // namespace

TEST(StandinReplies, RecordsAreNamedFieldByField) {
    EXPECT_EQ(reply(Connection::DtvPlugins, 33, "0|ccid:1.2.3|1|10|2|3|One|dsd-a|1|1|12|"),
              "channel type=0 ccid=\"ccid:1.2.3\" onid=1 nid=10 tsid=2 sid=3 name=\"One\" "
              "dsd=\"dsd-a\" terminalChannel=1 majorChannel=1 idType=12");
    EXPECT_EQ(reply(Connection::DtvPlugins, 45,
                    "News|Headlines|1700000000|1800|ccid:1.2.3|0x1001|1|Long news|1|12|dvb-si|9|0|GBR|"),
              "programme name=\"News\" description=\"Headlines\" startTime=1700000000 duration=1800 "
              "channelID=\"ccid:1.2.3\" programmeID=\"0x1001\" programmeIDType=1 "
              "longDescription=\"Long news\" ratings=1 rating.name=12 rating.scheme=\"dvb-si\" "
              "rating.value=9 rating.labels=0 rating.region=\"GBR\"");
    EXPECT_EQ(reply(Connection::VodPlugins, 310, "1|AAC|0|3|102|deu|1|2|"),
              "audio component type=1 encoding=\"AAC\" encrypted=0 componentTag=3 pid=102 "
              "language=\"deu\" audioDescription=1 audioChannels=2");
    EXPECT_EQ(reply(Connection::DtvPlugins, 71, "1|2|"),
              "decodes extraSDVideoDecodes=1 extraHDVideoDecodes=2");
}

TEST(StandinReplies, WordsNumbersAndOddShapes) {
    EXPECT_EQ(reply(Connection::DtvPlugins, 0, "ACK|"), "done");
    EXPECT_EQ(reply(Connection::DtvPlugins, 3, "FALSE|"), "false");
    EXPECT_EQ(reply(Connection::DtvPlugins, 30, "NOT_AVAILABLE|"), "not available");
    EXPECT_EQ(reply(Connection::DtvPlugins, 3, ""), "empty");
    EXPECT_EQ(reply(Connection::DtvPlugins, 20, "-1|"), "result result=-1");
    EXPECT_EQ(reply(Connection::DtvPlugins, 35, "3|"), "number value=3");
    // More fields than the record has, and bytes after the last "|".
    EXPECT_EQ(reply(Connection::DtvPlugins, 71, "1|2|3|x"),
              "decodes extraSDVideoDecodes=1 extraHDVideoDecodes=2 +\"3\" +unterminated \"x\"");
    EXPECT_EQ(reply(Connection::DtvPlugins, 20, "a|b|"), "fields +\"a\" +\"b\"");
    // A carousel content reply: the header, then the payload.
    EXPECT_EQ(reply(Connection::Dsmcc, 133, "2|0|7|go,stop"),
              "carousel content kind=2 reserved=0 length=7 +unterminated \"go,stop\"");
    EXPECT_EQ(reply(Connection::Callbacks, 30, "1|"), "fields +\"1\"");
}

TEST(StandinReplies, CallbacksFromTheLibrary) {
    EXPECT_EQ(frame("60|0|ccid:1.2.4|1|10|2|4|Two|dsd-a|2|2|12|"),
              "channel changed type=0 ccid=\"ccid:1.2.4\" onid=1 nid=10 tsid=2 sid=4 name=\"Two\" "
              "dsd=\"dsd-a\" terminalChannel=2 majorChannel=2 idType=12");
    EXPECT_EQ(frame("61|100|"), "channel change error error=100");
    EXPECT_EQ(frame("66|dvb://1.2.3.1/ev|go|4142|AB|trigger|"),
              "stream event location=\"dvb://1.2.3.1/ev\" name=\"go\" data=4142 text=\"AB\" "
              "status=\"trigger\"");
    EXPECT_EQ(frame("62|2|1|"), "parental rating changed ratings=2 blocked=1");
    EXPECT_EQ(frame("160|"), "event");
}
