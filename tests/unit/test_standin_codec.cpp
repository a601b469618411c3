// Frame decoding of the browser stand-in. Every integration test reads the
// library's frames through it, so a decoder that accepted a wrong length
// prefix would hide a framing fault of the library.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "browser_standin.h"

using namespace appmgr::standin;

namespace {

std::vector<Frame> drain(std::string& buf, DecodeStatus* last) {
    std::vector<Frame> out;
    while (auto f = decodeFrame(buf, last)) out.push_back(*f);
    return out;
}

TEST(DecodeFrame, JoinedOrByteByByteTheFramesAreTheSame) {
    const std::string stream = " 17141|UTC+01:00:00|  351|  7220|31|  7141|abc";
    std::string joined = stream;
    DecodeStatus st{};
    std::vector<Frame> frames = drain(joined, &st);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].id, 141);
    EXPECT_EQ(frames[0].fields, std::vector<std::string>{"UTC+01:00:00"});
    EXPECT_TRUE(frames[1].fields.empty());
    EXPECT_EQ(frames[2].fields, std::vector<std::string>{"31"});
    EXPECT_EQ(frames[3].trailing, std::optional<std::string>("abc"));  // text after the last '|'

    std::string buf;
    std::vector<std::string> bodies;
    for (char c : stream) {
        buf += c;
        for (Frame& f : drain(buf, &st)) bodies.push_back(f.body);
        ASSERT_EQ(st, DecodeStatus::Incomplete) << "after " << buf;
    }
    EXPECT_EQ(bodies, (std::vector<std::string>{"141|UTC+01:00:00|", "51|", "220|31|", "141|abc"}));
}

TEST(DecodeFrame, PrefixesOfThreeAndFourDigits) {
    const std::string b999 = "50|" + std::string(995, 'a') + "|";
    const std::string b1000 = "50|" + std::string(996, 'a') + "|";
    std::string buf = "999" + b999 + "1000" + b1000 + "  351|";
    DecodeStatus st{};
    std::vector<Frame> frames = drain(buf, &st);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].length, 999);
    EXPECT_EQ(frames[1].length, 1000);
    EXPECT_EQ(frames[1].fields, std::vector<std::string>{std::string(996, 'a')});
    EXPECT_EQ(frames[2].id, 51);

    // "123" + "141|...": also readable as a 1231-byte body "41|...".
    buf = "123141|" + std::string(118, 'x') + "|";
    auto f = decodeFrame(buf);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->length, 123);
    // A 1231-byte body with a '|' where the 3-digit reading would end, but
    // no frame start after it: the 4-digit reading is taken.
    buf = "1231" + ("41|" + std::string(118, 'y') + "|1ab|" + std::string(1104, 'z') + "|");
    f = decodeFrame(buf);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->id, 41);
    EXPECT_EQ(f->length, 1231);
}

TEST(DecodeFrame, GarbageIsReportedAndLeftInPlace) {
    for (std::string bad : {"abc", "  0", " 05x|", "12|x", "  4abc|", "0123|"}) {
        std::string buf = bad;
        DecodeStatus st{};
        EXPECT_FALSE(decodeFrame(buf, &st)) << bad;
        EXPECT_EQ(st, DecodeStatus::Malformed) << bad;
        EXPECT_EQ(buf, bad);
    }
}

}  // namespace
