// Frame decoding and field splitting of the browser stand-in.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "browser_standin.h"

using namespace appmgr::standin;

namespace {

// Decodes every complete frame in buf; stops at the first non-Ok status.
std::vector<Frame> drain(std::string& buf, DecodeStatus* last) {
    std::vector<Frame> out;
    while (auto f = decodeFrame(buf, last)) out.push_back(*f);
    return out;
}

const std::string kStream = " 17141|UTC+01:00:00|  351|  7220|31|";

}  // namespace

TEST(DecodeFrame, JoinedFramesComeOutInOrder) {
    std::string buf = kStream;
    DecodeStatus st{};
    std::vector<Frame> frames = drain(buf, &st);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(st, DecodeStatus::Incomplete);
    EXPECT_TRUE(buf.empty());

    EXPECT_EQ(frames[0].raw, " 17141|UTC+01:00:00|");
    EXPECT_EQ(frames[0].length, 17);
    EXPECT_EQ(frames[0].id, 141);
    EXPECT_EQ(frames[0].fields, std::vector<std::string>{"UTC+01:00:00"});
    EXPECT_EQ(frames[1].body, "51|");
    EXPECT_TRUE(frames[1].fields.empty());
    EXPECT_EQ(frames[2].id, 220);
    EXPECT_EQ(frames[2].fields, std::vector<std::string>{"31"});
    EXPECT_FALSE(frames[2].trailing.has_value());
}

TEST(DecodeFrame, ByteByByteDeliveryGivesTheSameFrames) {
    std::string buf;
    std::vector<std::string> bodies;
    for (char c : kStream) {
        buf += c;
        DecodeStatus st{};
        for (Frame& f : drain(buf, &st)) bodies.push_back(f.body);
        ASSERT_EQ(st, DecodeStatus::Incomplete) << "after " << buf;
    }
    EXPECT_EQ(bodies, (std::vector<std::string>{"141|UTC+01:00:00|", "51|", "220|31|"}));
}

TEST(DecodeFrame, LongBodiesUseWiderPrefixes) {
    const std::string b999 = "50|" + std::string(995, 'a') + "|";
    const std::string b1000 = "50|" + std::string(996, 'a') + "|";
    ASSERT_EQ(b999.size(), 999u);
    ASSERT_EQ(b1000.size(), 1000u);
    std::string buf = "999" + b999 + "1000" + b1000 + "  351|";

    DecodeStatus st{};
    std::vector<Frame> frames = drain(buf, &st);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].length, 999);
    EXPECT_EQ(frames[0].body, b999);
    EXPECT_EQ(frames[1].length, 1000);
    EXPECT_EQ(frames[1].id, 50);
    EXPECT_EQ(frames[1].fields, std::vector<std::string>{std::string(996, 'a')});
    EXPECT_EQ(frames[2].id, 51);

    // Until its body is complete, a four-digit frame is only "incomplete".
    std::string part = "1000" + b1000.substr(0, 600);
    EXPECT_FALSE(decodeFrame(part, &st));
    EXPECT_EQ(st, DecodeStatus::Incomplete);
}

TEST(DecodeFrame, ThreeDigitPrefixFollowedByIdDigits) {
    // "123" + a body starting "141|": also readable as length 1231.
    const std::string body = "141|" + std::string(118, 'x') + "|";
    ASSERT_EQ(body.size(), 123u);
    std::string buf = "123" + body;
    auto f = decodeFrame(buf);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->id, 141);
    EXPECT_EQ(f->length, 123);

    // A four-digit frame with a "|" where the three-digit reading would end:
    // "1a" after it is no prefix, so that reading is refused.
    const std::string long_body = "41|" + std::string(118, 'y') + "|1ab|" + std::string(1104, 'z') + "|";
    ASSERT_EQ(long_body.size(), 1231u);
    buf = "1231" + long_body;
    f = decodeFrame(buf);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->id, 41);
    EXPECT_EQ(f->length, 1231);
    EXPECT_TRUE(buf.empty());
}

TEST(DecodeFrame, GarbageIsReportedAndLeftInPlace) {
    for (std::string bad : {"abc", "   ", "  0", " 05x|", "12|x", "  4abc|", "0123|"}) {
        std::string buf = bad;
        DecodeStatus st{};
        EXPECT_FALSE(decodeFrame(buf, &st)) << bad;
        EXPECT_EQ(st, DecodeStatus::Malformed) << bad;
        EXPECT_EQ(buf, bad);
        EXPECT_FALSE(decodeFrame(buf, &st));  // still malformed, no progress needed
        EXPECT_EQ(st, DecodeStatus::Malformed);
    }
}

TEST(DecodeFrame, UnterminatedLastFieldIsFlagged) {
    std::string buf = "  7141|abc";
    auto f = decodeFrame(buf);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->id, 141);
    EXPECT_TRUE(f->fields.empty());
    EXPECT_EQ(f->trailing, std::optional<std::string>("abc"));
}

TEST(SplitFields, EmptyFieldsAndMissingFinalBar) {
    std::optional<std::string> trailing = "stale";
    EXPECT_EQ(splitFields("a||b|", &trailing), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_FALSE(trailing);
    EXPECT_EQ(splitFields("|", &trailing), std::vector<std::string>{""});
    EXPECT_TRUE(splitFields("", &trailing).empty());
    EXPECT_FALSE(trailing);
    EXPECT_EQ(splitFields("a|b", &trailing), std::vector<std::string>{"a"});
    EXPECT_EQ(trailing, std::optional<std::string>("b"));
    EXPECT_EQ(buildRequest(33, {"1", "", "3"}), "33|1||3|");
}

TEST(Names, TablesArePerConnection) {
    EXPECT_STREQ(commandName(220), "CMD_HANDLE_KEY_SET");
    EXPECT_STREQ(commandName(141), "time zone");
    EXPECT_STREQ(commandName(47), "unknown");
    EXPECT_STREQ(requestName(Connection::DtvPlugins, 401), "CMD_GET_USER_AGENT");
    EXPECT_STREQ(requestName(Connection::Application, 401), "unknown");
    EXPECT_STREQ(requestName(Connection::Application, 83), "browser state report");
    // The media family is served on both plug-in connections, nowhere else.
    EXPECT_STREQ(requestName(Connection::DtvPlugins, 200), requestName(Connection::VodPlugins, 200));
    EXPECT_STREQ(requestName(Connection::VodPlugins, 33), "unknown");
    EXPECT_STREQ(requestName(Connection::Callbacks, 60), "unknown");
}
