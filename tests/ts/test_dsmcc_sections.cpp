// The DSM-CC section decoders on real sections, compared with TSDuck's
// decodes of the same sections, and on sections cut or padded wrongly.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "dsmcc_builder.h"
#include "ts_capture.h"
#include "ts_decode.h"

using namespace appmgr::test;
using namespace ts::dsmcc;
using ts::Skipped;

namespace {

std::string read_text(const std::string& path) {
    const auto bytes = read_bytes(path);
    return std::string(bytes.begin(), bytes.end());
}

std::uint64_t number(const std::string& text) { return std::stoull(text, nullptr, 0); }

// One stream-event descriptor as TSDuck's XML shows it.
struct ReferenceEvent {
    int version = -1;
    int table_id_extension = -1;
    int event_id = 0;
    std::uint64_t npt = 0;
    Bytes data;
};

// The stream-event descriptors of a TSDuck XML decode, in order. Private
// data is either hexadecimal bytes (<private_data>) or text (<private_text>).
std::vector<ReferenceEvent> reference_events(const std::string& xml) {
    std::vector<ReferenceEvent> out;
    const std::regex table(
        R"re(<DSMCC_stream_descriptors_table version="(\d+)"[^>]*table_id_extension="(0x[0-9A-Fa-f]+)")re");
    const std::regex event(
        R"re(<stream_event_descriptor event_id="([0-9xA-Fa-f]+)" event_NPT="([0-9xA-Fa-f]+)"(/?)>)re"
        R"re((?:\s*<private_text>([^<]*)</private_text>|\s*<private_data>([^<]*)</private_data>)?)re");
    int version = -1, extension = -1;
    for (std::size_t at = 0; at < xml.size();) {
        std::smatch t, e;
        const std::string rest = xml.substr(at);
        const bool has_table = std::regex_search(rest, t, table);
        const bool has_event = std::regex_search(rest, e, event);
        if (!has_event) break;
        if (has_table && t.position(0) < e.position(0)) {
            version = std::stoi(t[1]);
            extension = static_cast<int>(number(t[2]));
            at += static_cast<std::size_t>(t.position(0) + t.length(0));
            continue;
        }
        ReferenceEvent r;
        r.version = version;
        r.table_id_extension = extension;
        r.event_id = static_cast<int>(number(e[1]));
        r.npt = number(e[2]);
        if (e[4].matched) {
            const std::string text = e[4];
            r.data.assign(text.begin(), text.end());
        } else if (e[5].matched) {
            std::istringstream hex_text(e[5].str());
            std::string pair;
            while (hex_text >> pair) r.data.push_back(static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
        }
        out.push_back(r);
        at += static_cast<std::size_t>(e.position(0) + e.length(0));
    }
    return out;
}

std::vector<StreamEvent> watched_events(const std::vector<PidSection>& sections) {
    StreamEventWatch watch;
    std::vector<StreamEvent> out;
    for (const PidSection& s : sections) {
        auto decoded = decode_stream_descriptors(s.bytes.data(), s.bytes.size());
        EXPECT_TRUE(decoded.ok);
        EXPECT_TRUE(decoded.skipped.empty()) << decoded.skipped.front();
        for (StreamEvent& e : watch.feed(s.pid, decoded.value, s.bytes.data(), s.bytes.size()))
            out.push_back(std::move(e));
    }
    return out;
}

TEST(StreamDescriptors, EveryDescriptorKindAsTsduckDecodesIt) {
    const auto sections = read_section_file(stream_event_data("tsduck-test/test-033.compile.bin"));
    ASSERT_EQ(sections.size(), 1u);
    auto decoded = decode_stream_descriptors(sections[0].bytes.data(), sections[0].bytes.size());
    ASSERT_TRUE(decoded.ok);
    EXPECT_TRUE(decoded.skipped.empty());
    const auto& d = decoded.value.descriptors;
    ASSERT_EQ(d.size(), 7u);
    EXPECT_EQ(decoded.value.header.extension, 0xFFFF);

    // The NPT values of the reference (test-033.tstabdump.txt).
    EXPECT_EQ(d[0].tag, kDescriptorNptReference);
    EXPECT_FALSE(d[0].post_discontinuity);
    EXPECT_EQ(d[0].content_id, 0x7F);
    EXPECT_EQ(d[0].stc_reference, 0x5678u);
    EXPECT_EQ(d[0].npt_reference, 0x1234u);
    EXPECT_EQ(d[1].content_id, 3);
    EXPECT_EQ(d[1].stc_reference, 0x123456789u);
    EXPECT_EQ(d[1].npt_reference, 0x198765432u);
    EXPECT_EQ(d[1].scale_numerator, 10);
    EXPECT_EQ(d[1].scale_denominator, 13);
    EXPECT_EQ(d[2].tag, kDescriptorNptEndpoint);
    EXPECT_EQ(d[2].start_npt, 0x123456789u);
    EXPECT_EQ(d[2].stop_npt, 0x12345ABCDu);
    EXPECT_EQ(d[3].tag, kDescriptorStreamMode);
    EXPECT_EQ(d[3].stream_mode, 1);

    const auto reference = reference_events(read_text(stream_event_data("tsduck-test/test-033.xml")));
    ASSERT_EQ(reference.size(), 3u);
    for (std::size_t i = 0; i < reference.size(); ++i) {
        const StreamDescriptor& e = d[4 + i];
        EXPECT_EQ(e.tag, kDescriptorStreamEvent);
        EXPECT_EQ(e.event_id, reference[i].event_id);
        EXPECT_EQ(e.event_npt, reference[i].npt);
        EXPECT_EQ(e.private_data, reference[i].data) << i;
    }
    const std::string text = dump(decoded.value);
    EXPECT_NE(text.find("  npt_reference post_discontinuity=0 content_id=3 stc=0x123456789 npt=0x198765432 scale=10/13\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("  stream_mode mode=1 (pause)\n"), std::string::npos);
    EXPECT_NE(text.find("  stream_event id=3 npt=0x1234567ee data=54657374\n"), std::string::npos);
}

// TSDuck lists every section of these captures; none repeats, so each is a
// new event.
TEST(StreamDescriptors, CapturedEventsMatchTsduck) {
    for (const char* name : {"test-032.1", "test-032.2"}) {
        const std::string base = stream_event_data(std::string("tsduck-test/") + name);
        int crc_failures = 0;
        const auto events = watched_events(read_ts_sections(base + ".m2ts", {}, &crc_failures));
        const auto reference = reference_events(read_text(base + ".xml"));
        EXPECT_EQ(crc_failures, 0);
        ASSERT_EQ(events.size(), reference.size()) << name;
        ASSERT_FALSE(events.empty());
        for (std::size_t i = 0; i < events.size(); ++i) {
            EXPECT_EQ(events[i].version, reference[i].version) << name << " " << i;
            EXPECT_EQ(events[i].table_id_extension, reference[i].table_id_extension) << name << " " << i;
            EXPECT_EQ(events[i].event_id, reference[i].event_id) << name << " " << i;
            EXPECT_EQ(events[i].npt, reference[i].npt) << name << " " << i;
            EXPECT_EQ(events[i].data, reference[i].data) << name << " " << i;
        }
    }
}

// The test suite's capture sends every section twice; event 1 cycles
// through three payloads with a new version each time (wrapping from 31 to
// 0), event 2 always says "BadID".
TEST(StreamDescriptors, RepeatedSectionsAreOneEvent) {
    const auto sections =
        read_ts_sections(stream_event_data("mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts"), {0x138F});
    ASSERT_EQ(sections.size(), 117u);
    const auto events = watched_events(sections);
    const std::vector<Bytes> cycle = {
        build::text("Hello HbbTV"), build::text("Test event \xc3\xa4\xc3\xb6\xc3\xbc!"),
        {0xca, 0xfe, 0xba, 0xbe, 0x00, 0x08, 0x09, 0x0a, 0x0d, 0x10, 0x1f, 0xff}};
    int ones = 0, twos = 0, wraps = 0, last_version = -1;
    for (const StreamEvent& e : events) {
        EXPECT_EQ(e.pid, 0x138F);
        EXPECT_EQ(e.npt, 0u);
        EXPECT_EQ(e.table_id_extension, e.event_id);
        if (e.event_id == 1) {
            EXPECT_EQ(e.data, cycle[ones % 3]) << "event 1 number " << ones;
            if (last_version == 31 && e.version == 0) {
                ++wraps;
            } else if (last_version >= 0) {
                EXPECT_EQ(e.version, last_version + 1);
            }
            last_version = e.version;
            ++ones;
        } else {
            EXPECT_EQ(e.event_id, 2);
            EXPECT_EQ(e.data, build::text("BadID"));
            ++twos;
        }
    }
    EXPECT_EQ(ones, 45);
    EXPECT_EQ(twos, 14);
    EXPECT_EQ(wraps, 1);
    EXPECT_EQ(event_line(events.front()),
              "streamevent pid=0x138f event=1 npt=0 data=48656c6c6f204862625456 version=0 table_id_extension=0x1");
}

// The download sections of the same capture: the DSI names the service
// gateway, the DII one compressed module of two blocks (the carousel tests
// assemble it).
TEST(DownloadSections, DsiAndDiiOfACapturedCarousel) {
    const Bytes* dsi_section = nullptr;
    const Bytes* dii_section = nullptr;
    const auto sections =
        read_ts_sections(stream_event_data("mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts"), {0x138E});
    for (const PidSection& s : sections) {
        const uint16_t id = download_message_id(s.bytes.data(), s.bytes.size());
        if (id == kMessageDsi) dsi_section = &s.bytes;
        if (id == kMessageDii) dii_section = &s.bytes;
    }
    ASSERT_TRUE(dsi_section && dii_section);
    auto dsi = decode_dsi(dsi_section->data(), dsi_section->size());
    ASSERT_TRUE(dsi.ok);
    EXPECT_TRUE(dsi.skipped.empty());
    EXPECT_EQ(dump(dsi.value),
              "DSI transaction=0x80000000\n  gateway kind=srg carousel=0xc module=1 key=01 "
              "[tap id=0 use=0x0016 tag=0x0017 selector=000180000002ffffffff]\n");
    auto dii = decode_dii(dii_section->data(), dii_section->size());
    ASSERT_TRUE(dii.ok);
    EXPECT_TRUE(dii.skipped.empty());
    EXPECT_EQ(dump(dii.value),
              "DII transaction=0x80010003 download=0xc block_size=4066 modules=1\n"
              "  module 1 size=6688 version=1 compressed=0x78 original_size=10230 [tap id=0 use=0x0017 tag=0x0017]\n");
}

// Cut, overlong and unknown parts: each decoder says what it skipped and
// reads nothing beyond the bytes it was given.
TEST(DownloadSections, BadSectionsAreRefusedWithAReason) {
    const Bytes good = build::stream_event_section(1, 0, 1, 0, build::text("abc"));
    auto ok = decode_stream_descriptors(good.data(), good.size());
    ASSERT_TRUE(ok.ok);
    ASSERT_EQ(ok.value.descriptors.size(), 1u);

    // A section cut anywhere: the header or the stated length says so.
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        const Bytes part(good.begin(), good.begin() + static_cast<long>(cut));
        auto d = decode_stream_descriptors(part.data(), part.size());
        EXPECT_FALSE(d.ok) << cut;
        EXPECT_FALSE(d.skipped.empty()) << cut;
    }

    // A descriptor whose length runs past the loop, then an unknown one.
    Bytes overlong = good;
    overlong[9] = 0x30;
    build::set_crc(overlong);
    auto past = decode_stream_descriptors(overlong.data(), overlong.size());
    ASSERT_TRUE(past.ok);
    EXPECT_TRUE(past.value.descriptors.empty());
    ASSERT_EQ(past.skipped.size(), 1u);
    EXPECT_EQ(past.skipped[0], "descriptor 0 (tag 0x1a) runs past the descriptor loop; rest of the section skipped");
    Bytes unknown = good;
    unknown[8] = 0x42;
    build::set_crc(unknown);
    auto other = decode_stream_descriptors(unknown.data(), unknown.size());
    ASSERT_TRUE(other.ok);
    EXPECT_TRUE(other.value.descriptors.empty());
    EXPECT_EQ(other.skipped, Skipped{"descriptor 0: unknown tag 0x42"});

    // A DII whose message length claims more than the section holds, and
    // one whose module entry runs past the message.
    Bytes dii = build::dii(7, 100, {{1, 50, 0}, {2, 50, 0}});
    Bytes long_message = dii;
    long_message[19] = static_cast<std::uint8_t>(long_message[19] + 40);
    build::set_crc(long_message);
    auto refused = decode_dii(long_message.data(), long_message.size());
    EXPECT_FALSE(refused.ok);
    ASSERT_EQ(refused.skipped.size(), 1u);
    EXPECT_NE(refused.skipped[0].find("runs past the section"), std::string::npos) << refused.skipped[0];
    Bytes cut_module = dii;
    cut_module[8 + 10 + 1] = static_cast<std::uint8_t>(cut_module[8 + 10 + 1] - 30);  // message length
    build::set_crc(cut_module);
    auto partial = decode_dii(cut_module.data(), cut_module.size());
    ASSERT_TRUE(partial.ok);
    EXPECT_EQ(partial.value.modules.size(), 1u);
    EXPECT_EQ(partial.skipped, Skipped{"DII: module entry 1 of 2 runs past the message"});
    EXPECT_FALSE(decode_dsi(dii.data(), dii.size()).ok);
    EXPECT_FALSE(decode_ddb(dii.data(), dii.size()).ok);

    // Inflation: garbage, a truncated stream, and a module that inflates
    // to more (or less) than its stated size.
    const Bytes plain(1000, 'x');
    const Bytes packed = build::deflate(plain);
    EXPECT_TRUE(inflate_module(packed.data(), packed.size(), 1000).ok);
    auto garbage = inflate_module(plain.data(), plain.size(), 1000);
    EXPECT_FALSE(garbage.ok);
    EXPECT_NE(garbage.skipped[0].find("not a valid zlib stream"), std::string::npos);
    auto truncated = inflate_module(packed.data(), packed.size() / 2, 1000);
    EXPECT_FALSE(truncated.ok);
    EXPECT_NE(truncated.skipped[0].find("ends early"), std::string::npos);
    auto bigger = inflate_module(packed.data(), packed.size(), 999);
    EXPECT_FALSE(bigger.ok);
    EXPECT_EQ(bigger.skipped[0], "inflate: module inflates past its stated size of 999 bytes");
    EXPECT_TRUE(bigger.value.empty());
    auto smaller = inflate_module(packed.data(), packed.size(), 1001);
    EXPECT_FALSE(smaller.ok);
    EXPECT_EQ(smaller.skipped[0], "inflate: module inflates to 1000 bytes, its stated size is 1001");
}

// BIOP messages whose lengths run past the module end the walk there; the
// objects before stay.
TEST(BiopMessages, LengthsPastTheModuleKeepWhatCameBefore) {
    Bytes module = build::file({1}, build::text("first"));
    const Bytes second = build::file({2}, build::text("second"));
    module.insert(module.end(), second.begin(), second.end());
    auto whole = decode_biop_module(module.data(), module.size());
    ASSERT_EQ(whole.value.size(), 2u);
    EXPECT_EQ(whole.value[1].content, build::text("second"));

    for (std::size_t cut = 1; cut < second.size(); ++cut) {
        auto part = decode_biop_module(module.data(), module.size() - cut);
        ASSERT_TRUE(part.ok);
        ASSERT_EQ(part.value.size(), 1u) << cut;
        EXPECT_EQ(part.value[0].content, build::text("first"));
        ASSERT_EQ(part.skipped.size(), 1u) << cut;
    }
    // A file content length past its message, inside a whole module.
    Bytes lying = build::file({3}, build::text("abc"));
    lying[lying.size() - 4] = 0x7F;  // content_length's low byte: 3 -> 127
    auto bad = decode_biop_module(lying.data(), lying.size());
    EXPECT_TRUE(bad.value.empty());
    ASSERT_EQ(bad.skipped.size(), 1u);
    EXPECT_NE(bad.skipped[0].find("file content runs past the message"), std::string::npos) << bad.skipped[0];
}

}  // namespace
