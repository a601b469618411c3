// A capture's object carousel and stream events played into the simulated
// receiver, seen through the library and the browser stand-in: a carousel
// application starts from the captured carousel and its files are read on
// the "DSMCC" connection, captured stream events reach subscribed
// listeners, and a module that changes version is announced.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ait_builder.h"
#include "broadcast_fixture.h"
#include "dsmcc_builder.h"
#include "hbb_sim.h"
#include "http_test_server.h"
#include "ts_capture.h"
#include "ts_decode.h"

using namespace appmgr::test;
namespace b = appmgr::test::build;
using Bytes = b::Bytes;

namespace {

// The test suite's multiplex: carousel on component tag 0x17, stream events
// on 0x13, for the suite's first service (1.65283.28186).
const std::string kCarousel = "dvb://1.ff03.6e1a.17/";
const std::string kEvents = kCarousel + "sevent";

std::string capture_file() { return stream_event_data("mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts"); }

class CaptureDsmccTest : public BroadcastTest {
protected:
    void SetUp() override {
        BroadcastTest::SetUp();
        MiddlewareCallbacks::install();
    }

    std::unique_ptr<ts::CapturePlayer> play(const std::string& source) {
        auto player = std::make_unique<ts::CapturePlayer>();
        ts::PlayerOptions options;
        options.source = source;
        options.carousel_dir = dir_.path() + "carousels";
        EXPECT_TRUE(player->open(options)) << player->error();
        EXPECT_TRUE(player->run()) << player->error();
        return player;
    }

    // Header, payload and terminator of a content reply, however many
    // receives it takes.
    std::string readReply(std::size_t payload) {
        std::string got;
        const std::string header_end = "|";
        while (true) {
            auto part = browser_.readRaw(Connection::Dsmcc, 1 << 16, 3000);
            if (!part) break;
            got += *part;
            // kind|0|length| then the payload and a zero byte.
            std::size_t bars = 0, at = 0;
            for (; at < got.size() && bars < 3; ++at) bars += got[at] == '|';
            if (bars == 3 && got.size() >= at + payload + 1) break;
        }
        return got;
    }
};

TEST_F(CaptureDsmccTest, CarouselApplicationStartsFromTheCapture) {
    auto player = play(capture_file());
    EXPECT_EQ(player->stats().carousel_modules, 1u);
    EXPECT_EQ(player->stats().carousels_served, 1u);
    EXPECT_EQ(player->stats().module_updates, 0u);
    EXPECT_FALSE(player->carousel_directory(0x17).empty());

    AppSpec app;
    app.org = 0x10;
    app.app = 0xa;
    app.url = kCarousel + "index.html";
    OwnedAit ait(16, "dvb://1.ff03.6e1a", {app});
    ASSERT_EQ(hbb_sim_fire_ait(ait.get()), 0);
    EXPECT_EQ(nextFrame(Connection::Application).body, "59|no boundary|");
    EXPECT_EQ(nextFrame(Connection::Application).body, "50|" + kCarousel + "index.html|");
    EXPECT_EQ(running_app_id(), 0xa);

    // The carousel as the browser sees it: the real module number, the
    // directory in carousel order, the stream-event object's names.
    EXPECT_EQ(ask(Connection::Dsmcc, 130, {kCarousel + "index.html"}), "0|1|0|");
    EXPECT_EQ(ask(Connection::Dsmcc, 132, {kCarousel}),
              "1|0|54|0 base.css\n0 base.js\n0 index.html\n0 logo.png\n2 sevent\n");
    EXPECT_EQ(ask(Connection::Dsmcc, 133, {kEvents}), "2|0|15|badid,testevent");

    // The logo, byte for byte as the suite has it.
    const auto logo = read_bytes(stream_event_data("mitxp-hbbtv-testsuite/logo.png"));
    ASSERT_EQ(logo.size(), 5170u);
    ASSERT_TRUE(browser_.sendRequest(Connection::Dsmcc, 131, {kCarousel + "logo.png"}));
    const std::string reply = readReply(logo.size());
    const std::string header = "0|0|5170|";
    ASSERT_EQ(reply.size(), header.size() + logo.size() + 1);
    EXPECT_EQ(reply.substr(0, header.size()), header);
    const std::string body = reply.substr(header.size(), logo.size());
    EXPECT_EQ(body, std::string(logo.begin(), logo.end()));
    EXPECT_EQ(reply.back(), '\0');
}

// Listeners on the carousel's stream-event object and on the suite's XML
// description (component tag 19, "testevent" = 1) both hear event 1; the
// capture has no PMT, so tag 19 comes from the carousel's own object.
TEST_F(CaptureDsmccTest, CapturedEventsReachTheirListeners) {
    auto first = play(capture_file());
    EXPECT_EQ(first->stats().stream_events, 59u);
    EXPECT_EQ(first->stats().stream_event_listeners, 0u);
    ASSERT_NE(first->dsmcc(), nullptr);
    EXPECT_EQ(first->dsmcc()->component_tag(0x138F), 19);
    EXPECT_EQ(first->dsmcc()->component_tag(0x138E), 0x17);

    HttpTestServer http;
    http.respond("/sevent.xml", "200 OK",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<dsmcc xmlns=\"urn:dvb:mis:dsmcc:2009\">\n"
                 "  <dsmcc_object component_tag=\"19\">\n"
                 "    <stream_event stream_event_id=\"1\" stream_event_name=\"testevent\" />\n"
                 "    <stream_event stream_event_id=\"2\" stream_event_name=\"badid\" />\n"
                 "  </dsmcc_object>\n</dsmcc>");
    const std::string description = http.url("/sevent.xml");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {kEvents, "testevent"}), "0|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {description, "testevent"}), "0|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {kCarousel + "nothing", "testevent"}), "2|");

    // The first two events come before the carousel is complete: nothing
    // places their PID yet, so they reach nobody (and say so once).
    TsLogLines ts_log;
    auto second = play(capture_file());
    EXPECT_EQ(second->stats().stream_events, 59u);
    EXPECT_EQ(second->stats().stream_event_listeners, 2u * 43u);
    EXPECT_EQ(ts_log.count("stream events on pid 0x138f have no component tag"), 1);
    // Each event reaches the description's listener (by tag and id), then
    // the carousel object's (by name).
    const std::vector<std::pair<std::string, std::string>> cycle = {
        {"48656c6c6f204862625456", "Hello HbbTV"},
        {"54657374206576656e7420c3a4c3b6c3bc21", "Test event \xc3\xa4\xc3\xb6\xc3\xbc!"},
        // The binary payload: only its first character (0x00) is text, so
        // data and text come out empty, as the library converts payloads.
        {"", ""}};
    for (int i = 2; i < 45; ++i) {
        const auto& [data, text] = cycle[static_cast<std::size_t>(i % 3)];
        EXPECT_EQ(callback(66).body, "66|" + description + "|testevent|" + data + "|" + text + "|trigger|") << i;
        EXPECT_EQ(callback(66).body, "66|" + kEvents + "|testevent|" + data + "|" + text + "|trigger|") << i;
    }

    // Removed listeners hear nothing more.
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {kEvents, "testevent"}), "ACK|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {description, "testevent"}), "ACK|");
    EXPECT_EQ(play(capture_file())->stats().stream_event_listeners, 0u);
}

// A built carousel whose file module and then directory module change
// version within one capture: each new version is served and announced.
TEST_F(CaptureDsmccTest, ModuleVersionsAreServedAndAnnounced) {
    const b::Ref gateway{"srg", 7, 1, {1}};
    const Bytes dirs = b::directory("srg", {1}, {{"index.html", {"fil", 7, 2, {1}}}});
    auto files = [](const std::string& text) { return b::file({1}, b::text(text)); };
    const Bytes v0 = files("v0"), v1 = files("version one");
    auto size = [](const Bytes& m) { return static_cast<std::uint32_t>(m.size()); };
    std::vector<std::pair<std::uint16_t, Bytes>> sections = {{0x200, b::dsi(gateway)},
                                                             {0x200, b::dii(7, 64, {{1, size(dirs), 0}, {2, size(v0), 0}})}};
    auto add = [&](const std::vector<Bytes>& more) {
        for (const Bytes& s : more) sections.emplace_back(0x200, s);
    };
    add(b::ddbs(7, 2, 0, 64, v0));
    add(b::ddbs(7, 1, 0, 64, dirs));
    add({b::dii(7, 64, {{1, size(dirs), 0}, {2, size(v1), 1}})});
    add(b::ddbs(7, 2, 1, 64, v1));
    add({b::dii(7, 64, {{1, size(dirs), 1}, {2, size(v1), 1}})});
    add(b::ddbs(7, 1, 1, 64, dirs));
    const Bytes stream = b::transport_stream(sections);
    const std::string path = dir_.path() + "built.m2ts";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(stream.data()),
                                                static_cast<std::streamsize>(stream.size()));

    auto player = play(path);
    EXPECT_EQ(player->stats().carousel_modules, 4u);
    EXPECT_EQ(player->stats().carousels_served, 3u);
    EXPECT_EQ(player->stats().module_updates, 2u);
    // A file module, then a directory module (which also unmounts).
    EXPECT_EQ(nextFrame(Connection::Application).body, "27|2|");
    EXPECT_EQ(nextFrame(Connection::Application).body, "27|1|");
    EXPECT_EQ(hbb_sim_call_count("QUMA_UmountCarouselObject"), 1);

    const std::string base = "dvb://1.2.3.17/";
    EXPECT_EQ(ask(Connection::Dsmcc, 131, {base + "index.html"}), "0|0|11|version one");
    EXPECT_EQ(ask(Connection::Dsmcc, 130, {base + "index.html"}), "0|2|0|");
    EXPECT_EQ(ask(Connection::Dsmcc, 130, {base}), "1|1|0|");
    // Only the newest generation is left on disk.
    std::size_t generations = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path() + "carousels")) {
        (void)entry;
        ++generations;
    }
    EXPECT_EQ(generations, 1u);
    player.reset();
    EXPECT_EQ(hbb_sim_mounted_carousel(), -1);
    EXPECT_EQ(ask(Connection::Dsmcc, 130, {base + "index.html"}), "-1|0|0|");
}

// The PMT's stream identifiers place PIDs; without them a carousel has its
// own taps, and stream events have a tag only when it is unambiguous.
TEST(DsmccCollector, ComponentTagsFromThePmtOrTheCarousel) {
    const Bytes ste = b::stream_event({2}, {"go"}, {5}, 0x31);
    Bytes module = b::directory("srg", {1}, {{"go", {"ste", 7, 1, {2}}}});
    module.insert(module.end(), ste.begin(), ste.end());
    const b::Ref gateway{"srg", 7, 1, {1}, 0x17};
    std::vector<std::pair<std::uint16_t, Bytes>> sections = {
        {0x000, b::pat(1, 0x10, 0x50)},
        {0x050, b::pmt(0x10, {{0x0B, 0x100, 0x30}, {0x0C, 0x101, 0x31}, {0x0C, 0x103, -1}})},
        {0x100, b::dsi(gateway)},
        {0x100, b::dii(7, 64, {{1, static_cast<std::uint32_t>(module.size()), 0}})},
        {0x101, b::stream_event_section(5, 0, 5, 0, b::text("a"))},
        {0x102, b::stream_event_section(5, 0, 5, 0, b::text("b"))},
        {0x103, b::stream_event_section(5, 0, 5, 0, b::text("c"))},
        {0x104, b::dsi(gateway)}};
    for (const Bytes& s : b::ddbs(7, 1, 0, 64, module)) sections.emplace_back(0x100, s);
    const Bytes stream = b::transport_stream(sections);

    ts::Capture capture;
    ts::dsmcc::DsmccCollector collector(capture);
    std::vector<ts::dsmcc::StreamEvent> events;
    collector.on_stream_event([&](const ts::dsmcc::StreamEvent& e) { events.push_back(e); });
    for (std::size_t at = 0; at < stream.size(); at += ts::kPacketSize) capture.push(&stream[at]);

    EXPECT_EQ(events.size(), 3u);
    EXPECT_EQ(collector.component_tag(0x100), 0x30);  // the PMT, not the DSI's 0x17
    EXPECT_EQ(collector.component_tag(0x101), 0x31);
    EXPECT_EQ(collector.component_tag(0x104), 0x17);  // no PMT entry: its DSI
    // Two stream-event PIDs without a tag and the one tag the carousel names
    // is taken already: neither is guessed.
    EXPECT_EQ(collector.component_tag(0x102), -1);
    EXPECT_EQ(collector.component_tag(0x103), -1);
    EXPECT_EQ(collector.component_tag(0x105), -1);
    EXPECT_EQ(collector.counts().stream_sections, 3u);
}

}  // namespace
