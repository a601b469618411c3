// Broken input at every level: bytes between packets, truncated files,
// lost packets, bad CRCs, sections cut short, descriptor lengths past their
// loops, unknown character tables. Each is skipped and counted; nothing is
// read past a buffer (the sanitizer builds run these too).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "app_mgr_types.h"
#include "ts_test_support.h"

using namespace tstest;

namespace {

class QuietLog : public ::testing::Test {
protected:
    void SetUp() override {
        ts::set_log_sink([this](int level, const std::string& line) {
            if (level >= 3) warnings.push_back(line);
        });
    }
    void TearDown() override { ts::set_log_default(); }
    bool warned(const std::string& text) const {
        for (const auto& w : warnings)
            if (w.find(text) != std::string::npos) return true;
        return false;
    }
    std::vector<std::string> warnings;
};

std::string temp_file(const std::vector<uint8_t>& bytes) {
    char path[] = "/tmp/appmgr-ts-test-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
    return path;
}

std::vector<std::vector<uint8_t>> packets_of(const std::vector<uint8_t>& bytes) {
    std::vector<std::vector<uint8_t>> out;
    for (std::size_t at = 0; at + ts::kPacketSize <= bytes.size(); at += ts::kPacketSize)
        out.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                         bytes.begin() + static_cast<std::ptrdiff_t>(at + ts::kPacketSize));
    return out;
}

// The sections a demux delivers on a PID.
struct Collect {
    explicit Collect(ts::Demux& demux, uint16_t pid) {
        demux.on_pid(pid, [this](const ts::Section& s) { sections.emplace_back(s.data, s.data + s.size); });
    }
    std::vector<std::vector<uint8_t>> sections;
};

std::vector<uint8_t> first_eit_section() {
    return split_sections(read_file(data_path("tsduck-test/test-182.1.eit.bin"))).at(0);
}

// The largest section of the synthetic tables (an AIT of 575 bytes).
std::vector<uint8_t> long_section() {
    std::vector<uint8_t> longest;
    for (auto& s : split_sections(read_file(data_path("tsduck-test/test-022.compile.bin"))))
        if (s.size() > longest.size()) longest = s;
    return longest;
}

}  // namespace

using ReaderTest = QuietLog;

TEST_F(ReaderTest, GarbageBetweenPacketsAndATruncatedTailAreSkippedAndCounted) {
    const auto clean = read_file(data_path("tsduck-test/test-108.ait-pids-only.ts"));
    const auto packets = packets_of(clean);
    std::vector<uint8_t> dirty(50, 0x47);  // sync bytes that do not repeat 188 apart
    for (int i = 1; i < 50; i += 2) dirty[static_cast<std::size_t>(i)] = 0x11;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        dirty.insert(dirty.end(), packets[i].begin(), packets[i].end());
        if (i == packets.size() / 2) dirty.insert(dirty.end(), {0x00, 0x47, 0x12, 0x34, 0x56, 0x78, 0x9A});
    }
    dirty.insert(dirty.end(), packets[0].begin(), packets[0].begin() + 100);
    const std::string path = temp_file(dirty);

    ts::PacketReader reader;
    ASSERT_TRUE(reader.open(path));
    ts::Capture capture;
    int versions = 0;
    capture.on_ait_version([&](const ts::AitVersion&) { ++versions; });
    uint8_t packet[ts::kPacketSize];
    while (reader.next(packet)) capture.push(packet);
    unlink(path.c_str());
    EXPECT_TRUE(reader.error().empty());
    EXPECT_EQ(reader.stats().packets, packets.size());
    EXPECT_EQ(reader.stats().resyncs, 2u);
    EXPECT_EQ(reader.stats().skipped_bytes, 57u);
    EXPECT_EQ(reader.stats().truncated_bytes, 100u);
    EXPECT_EQ(versions, 2);  // both AITs of the clean capture
}

TEST_F(ReaderTest, MissingFilesAndRemoteUdpAddressesAreRefused) {
    ts::PacketReader a, b, c;
    EXPECT_FALSE(a.open("/nonexistent/capture.ts"));
    EXPECT_NE(a.error().find("cannot open"), std::string::npos);
    EXPECT_FALSE(b.open("udp://192.168.1.10:1234"));
    EXPECT_NE(b.error().find("loopback"), std::string::npos);
    EXPECT_FALSE(c.open("udp://127.0.0.1"));
}

TEST_F(ReaderTest, UdpOnLoopbackDeliversDatagramsUntilTheStreamIsIdle) {
    const auto packets = packets_of(read_file(data_path("tsduck-test/test-108.ait-pids-only.ts")));
    ts::PacketReader reader;
    ASSERT_TRUE(reader.open("udp://127.0.0.1:0"));
    reader.set_idle_timeout_ms(300);
    ASSERT_GT(reader.udp_port(), 0);
    // Seven packets a datagram, as live senders do.
    std::thread sender([&] {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(reader.udp_port()));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (std::size_t i = 0; i < packets.size(); i += 7) {
            std::vector<uint8_t> datagram;
            for (std::size_t k = i; k < std::min(packets.size(), i + 7); ++k)
                datagram.insert(datagram.end(), packets[k].begin(), packets[k].end());
            sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        }
        close(fd);
    });
    ts::Capture capture;
    int versions = 0;
    capture.on_ait_version([&](const ts::AitVersion&) { ++versions; });
    uint8_t packet[ts::kPacketSize];
    while (reader.next(packet)) capture.push(packet);
    sender.join();
    EXPECT_EQ(reader.stats().packets, packets.size());
    EXPECT_EQ(reader.stats().datagrams, (packets.size() + 6) / 7);
    EXPECT_EQ(versions, 2);
}

TEST_F(ReaderTest, StopEndsAReadThatWaitsForAStream) {
    ts::PacketReader reader;
    ASSERT_TRUE(reader.open("udp://127.0.0.1:0"));
    reader.set_idle_timeout_ms(600000);
    bool got = true;
    std::thread consumer([&] {
        uint8_t packet[ts::kPacketSize];
        got = reader.next(packet);
    });
    reader.stop();
    consumer.join();  // within one poll slice of the stop
    EXPECT_FALSE(got);
    EXPECT_TRUE(reader.error().empty());
}

TEST(Pacer, HoldsPacketsToTheirPcrAndStopReleasesThem) {
    auto with_pcr = [](uint64_t pcr_base) {
        std::vector<uint8_t> p(ts::kPacketSize, 0xFF);
        p[0] = ts::kSyncByte;
        p[1] = 0x01;  // PID 0x100
        p[2] = 0x00;
        p[3] = 0x20;  // adaptation field only
        p[4] = 183;
        p[5] = 0x10;  // PCR flag
        p[6] = static_cast<uint8_t>(pcr_base >> 25);
        p[7] = static_cast<uint8_t>(pcr_base >> 17);
        p[8] = static_cast<uint8_t>(pcr_base >> 9);
        p[9] = static_cast<uint8_t>(pcr_base >> 1);
        p[10] = static_cast<uint8_t>(((pcr_base & 1) << 7) | 0x7E);
        p[11] = 0;
        return p;
    };
    uint64_t pcr = 0;
    ASSERT_TRUE(ts::packet_pcr(with_pcr(90000).data(), &pcr));
    EXPECT_EQ(pcr, 90000u * 300);
    // 90 kHz base: 18000 ticks are 200 ms. Sleeping never ends early, so
    // the lower bound holds on any machine.
    ts::Pacer pacer(true);
    const auto begin = std::chrono::steady_clock::now();
    pacer.pace(with_pcr(90000).data());
    pacer.pace(with_pcr(90000 + 18000).data());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
    // A jump of more than 10 s restarts the reference instead of waiting.
    const auto jump = std::chrono::steady_clock::now();
    pacer.stop();
    pacer.pace(with_pcr(90000 + 18000 + 90000 * 60).data());
    EXPECT_LT(std::chrono::steady_clock::now() - jump, std::chrono::seconds(10));
    ts::Pacer off(false);
    off.pace(with_pcr(0).data());
    off.pace(with_pcr(90000ULL * 3600).data());  // an hour later: no wait at all
}

using DemuxTest = QuietLog;

TEST_F(DemuxTest, LostPacketsBadCrcsAndCutSectionsAreDroppedThenTheNextGoodOneArrives) {
    const auto eit = long_section();
    ASSERT_GT(eit.size(), 2 * ts::kPacketSize);  // spans four packets
    uint8_t counter = 0;
    ts::Demux demux;
    Collect collect(demux, 0x12);

    // A wrong continuity counter: libdvbpsi drops the section.
    auto skipped = packets_of(ts::packetize_section(0x12, eit.data(), eit.size(), &counter));
    demux.push(skipped[0].data());
    demux.push(skipped[2].data());
    // A bad CRC.
    auto corrupt = eit;
    corrupt[20] ^= 0x01;
    for (const auto& p : packets_of(ts::packetize_section(0x12, corrupt.data(), corrupt.size(), &counter)))
        demux.push(p.data());
    // A section longer than the packets that carry it: cut by the next one.
    auto cut = packets_of(ts::packetize_section(0x12, eit.data(), eit.size(), &counter));
    demux.push(cut[0].data());
    demux.push(cut[1].data());
    // A good one last (its counters follow the cut ones).
    counter = static_cast<uint8_t>((counter - 1) & 0x0F);
    for (const auto& p : packets_of(ts::packetize_section(0x12, eit.data(), eit.size(), &counter)))
        demux.push(p.data());

    ASSERT_EQ(collect.sections.size(), 1u);
    EXPECT_EQ(collect.sections[0], eit);
    const auto stats = demux.table_stats();
    EXPECT_EQ(stats.at({0x12, eit[0]}).crc_failures, 1u);
    EXPECT_EQ(stats.at({0x12, eit[0]}).sections, 1u);
    EXPECT_GE(demux.pid_errors(), 1u);  // the discontinuity
    EXPECT_TRUE(warned("bad CRC"));
}

TEST_F(DemuxTest, UnknownTablesAreCountedAndHandedToTheGenericHook) {
    std::vector<uint8_t> section = {0x99, 0xB0, 0x0B, 0x12, 0x34, 0xC3, 0x00, 0x00, 0xDE, 0xAD, 0, 0, 0, 0};
    seal(&section);
    ts::Demux demux;
    demux.discover({0x99});
    int seen = 0;
    demux.on_table(0x99, [&](const ts::Section& s) {
        ++seen;
        EXPECT_EQ(s.pid, 0x321);
        EXPECT_EQ(s.size, section.size());
    });
    uint8_t counter = 0;
    for (const auto& p : packets_of(ts::packetize_section(0x321, section.data(), section.size(), &counter)))
        demux.push(p.data());
    EXPECT_EQ(seen, 1);
    EXPECT_TRUE(demux.watching(0x321));
    EXPECT_EQ(demux.table_stats().at({0x321, 0x99}).versions, 1u);
}

using DecoderTest = QuietLog;

TEST_F(DecoderTest, AitDescriptorRunningPastItsLoopEndsTheLoopOnly) {
    auto section = read_hex(data_path("exoplayer-ait/exo_simple.hex"));
    // The descriptor loop of the one application starts after org, app,
    // control code and length: its first descriptor is at offset 21.
    ts::AitRecord clean;
    ASSERT_TRUE(ts::decode_ait(section.data(), section.size(), &clean, nullptr));
    ASSERT_EQ(section[21], 0x02);  // transport_protocol_descriptor
    ASSERT_EQ(clean.apps.at(0).transports.size(), 1u);
    section[22] = 0xF0;            // length far past the loop
    seal(&section);
    ts::AitRecord broken;
    ts::Skipped skipped;
    ASSERT_TRUE(ts::decode_ait(section.data(), section.size(), &broken, &skipped));
    ASSERT_EQ(broken.apps.size(), 1u);
    EXPECT_EQ(broken.apps[0].app_id, clean.apps[0].app_id);
    EXPECT_TRUE(broken.apps[0].transports.empty());
    EXPECT_FALSE(broken.apps[0].has_descriptor);  // it came after the broken one
    ASSERT_EQ(skipped.size(), 1u);
    EXPECT_NE(skipped[0].find("runs past its loop"), std::string::npos) << skipped[0];
}

TEST_F(DecoderTest, TruncatedAndMutatedSectionsNeverReadPastTheirBytes) {
    std::vector<std::vector<uint8_t>> seeds = split_sections(read_file(data_path("tsduck-test/test-022.compile.bin")));
    seeds.push_back(first_eit_section());
    seeds.push_back(read_hex(data_path("exoplayer-ait/exo_arte.hex")));
    std::mt19937 random(1234);
    int decoded = 0;
    for (const auto& seed : seeds) {
        // Every prefix: refused (the length no longer fits) without a read past it.
        for (std::size_t n = 0; n < seed.size(); ++n) {
            std::vector<uint8_t> cut(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(n));
            ts::AitRecord a;
            ts::EitRecord e;
            EXPECT_FALSE(ts::decode_ait(cut.data(), cut.size(), &a, nullptr));
            EXPECT_FALSE(ts::decode_eit(cut.data(), cut.size(), &e, nullptr));
        }
        // Mutations with the CRC made right again, so the decoders go deep.
        for (int round = 0; round < 300; ++round) {
            std::vector<uint8_t> m = seed;
            const int edits = 1 + static_cast<int>(random() % 4);
            for (int k = 0; k < edits; ++k)
                m[3 + random() % (m.size() - 7)] = static_cast<uint8_t>(random());
            seal(&m);
            ts::AitRecord a;
            ts::EitRecord e;
            ts::PmtRecord p;
            ts::SdtRecord s;
            ts::Skipped skipped;
            decoded += ts::decode_ait(m.data(), m.size(), &a, &skipped);
            decoded += ts::decode_eit(m.data(), m.size(), &e, &skipped);
            decoded += ts::decode_pmt(m.data(), m.size(), &p, &skipped);
            decoded += ts::decode_sdt(m.data(), m.size(), &s, &skipped);
            for (const auto& app : a.apps) ts::entry_url(a, app, {}, true);
            if (!a.apps.empty()) ts::make_ait_table({a}, {}, false);
        }
    }
    EXPECT_GT(decoded, 0);
}

TEST_F(DecoderTest, DvbTextsInEachCharacterTable) {
    auto text = [](std::initializer_list<uint8_t> bytes, ts::Skipped* skipped = nullptr) {
        const std::vector<uint8_t> v(bytes);
        return ts::dvb_text_to_utf8(v.data(), v.size(), skipped);
    };
    EXPECT_EQ(text({'N', 'e', 'w', 's'}), "News");
    EXPECT_EQ(text({0xC2, 'e', 't', 0xC2, 'e'}), "\xC3\xA9t\xC3\xA9");  // ISO 6937: accent first
    EXPECT_EQ(text({0x05, 0xDD, 'a'}), "\xC4\xB0" "a");                  // ISO 8859-9
    EXPECT_EQ(text({0x10, 0x00, 0x05, 0xB4}), "\xD0\x94");               // ISO 8859-5 by number
    EXPECT_EQ(text({0x11, 0x00, 'A', 0x20, 0xAC}), "A\xE2\x82\xAC");     // UCS-2
    EXPECT_EQ(text({0x15, 0xC3, 0xA4, 'x'}), "\xC3\xA4x");               // UTF-8
    EXPECT_EQ(text({0x05, 0x86, 'b', 0x87, 0x8A, 'c'}), "b\nc");         // emphasis codes, line break
    ts::Skipped skipped;
    EXPECT_EQ(text({0x1C, 'x'}, &skipped), "");
    ASSERT_EQ(skipped.size(), 1u);
    EXPECT_NE(skipped[0].find("unknown character table 0x1c"), std::string::npos);
    EXPECT_EQ(text({0x10, 0x00, 0x0C, 'x'}, &skipped), "");  // ISO 8859-12 does not exist
}

TEST(DvbTime, MjdWrapAndDatesBeyond2038) {
    int64_t t = 0;
    // MJD 0xFFFF is 2038-04-22; the next day wraps to MJD 0.
    ASSERT_TRUE(ts::dvb_time_to_unix(0xFFFF, 0x235959, &t));
    EXPECT_EQ(ts::iso_utc(t), "2038-04-22T23:59:59Z");
    ASSERT_TRUE(ts::dvb_time_to_unix(0x0000, 0x000000, &t));
    EXPECT_EQ(ts::iso_utc(t), "2038-04-23T00:00:00Z");
    ASSERT_TRUE(ts::dvb_time_to_unix(0xC079, 0x124525, &t));  // the example of EN 300 468
    EXPECT_EQ(ts::iso_utc(t), "1993-10-13T12:45:25Z");
    EXPECT_FALSE(ts::dvb_time_to_unix(0xC079, 0x1A0000, &t));  // not BCD
    int seconds = 0;
    ASSERT_TRUE(ts::bcd_duration(0x014530, &seconds));
    EXPECT_EQ(seconds, 6330);
    EXPECT_EQ(ts::hms(seconds), "01:45:30");
}

TEST(AitTableMapping, TheTableAMiddlewareHandsToTheLibrary) {
    std::map<uint16_t, ts::AitVersion> versions;
    ts::Capture capture;
    capture.on_ait_version([&](const ts::AitVersion& v) { versions[v.pid] = v; });
    play_file(capture, data_path("tsduck-test/test-108.ait-pids-only.ts"));
    ASSERT_EQ(versions.count(0x7D2), 1u);
    const ts::Triplet service{0x13E, 0x4800, 0xD49};
    ts::AitTablePtr table = ts::make_ait_table(versions[0x7D2].sections, service, true);
    ASSERT_TRUE(table);
    EXPECT_EQ(table->app_type, HBBTV_APPLICATION_TYPE);
    EXPECT_EQ(std::string(table->dvb_url), "dvb://13e.4800.d49");
    ASSERT_EQ(table->app_lenght, 2);
    const Application& remote = table->apps[0];
    EXPECT_EQ(remote.organisation_id, 0x3C0);
    EXPECT_EQ(remote.app_id, 0x65);
    EXPECT_EQ(remote.control_code, AUTOSTART);
    EXPECT_EQ(remote.version_major * 100 + remote.version_minor * 10 + remote.version_micro, 141);
    EXPECT_EQ(remote.visibility, VISIBLE_ALL);
    EXPECT_STREQ(remote.app_name, "Telecomando HbbTV");
    EXPECT_STREQ(remote.app_boundary, "no boundary");
    EXPECT_STREQ(remote.transport_protocol->url,
                 "https://www.raiplay.it/hbbtv/launcher/RemoteControl/index.html?delivery=2");
    EXPECT_EQ(remote.transport_protocol->protocol_id, 3);
    EXPECT_EQ(remote.is_IP_connect_require, 1);
    EXPECT_EQ(table->CRC_count, 1);
    // Without broadband the carousel transport of the same entry.
    ts::AitTablePtr offline = ts::make_ait_table(versions[0x7D2].sections, service, false);
    EXPECT_STREQ(offline->apps[0].transport_protocol->url,
                 "dvb://13e.4800.d49.2a/RemoteControl/index.html?delivery=2");
    EXPECT_EQ(offline->apps[0].transport_protocol->component_tag, 0x2A);
    EXPECT_EQ(offline->apps[0].is_IP_connect_require, 0);
    // The HTTP-only application keeps its HTTP URL.
    EXPECT_STREQ(offline->apps[1].transport_protocol->url, "https://www.raiplay.it/hbbtv/RaiPlay2020/index.html");
}

TEST(AitVersions, EachVersionIsReportedOnceAndAChangeAgain) {
    const auto packet = read_file(data_path("dvbts-hbbtv/ait0.ts"));
    ts::Capture capture;
    std::vector<int> seen;
    capture.on_ait_version([&](const ts::AitVersion& v) { seen.push_back(v.sections.at(0).version); });
    // The section is in the one packet after the pointer field.
    const std::size_t length = ((packet[6] & 0x0F) << 8 | packet[7]) + 3;
    std::vector<uint8_t> section(packet.begin() + 5, packet.begin() + 5 + static_cast<std::ptrdiff_t>(length));
    uint8_t counter = 0;
    auto push = [&](const std::vector<uint8_t>& s) {
        for (const auto& p : packets_of(ts::packetize_section(501, s.data(), s.size(), &counter)))
            capture.push(p.data());
    };
    push(section);
    push(section);
    auto next = section;
    next[5] = static_cast<uint8_t>((next[5] & 0xC1) | (2 << 1));  // version 2
    seal(&next);
    push(next);
    push(next);
    push(section);  // back to version 1: a change again
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 1}));
}
