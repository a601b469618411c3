// Stream events: the conversion of event payloads into callback 66, the
// pending table of listeners asked for before a page is loaded, listeners
// on dvb:, http: and page-relative URLs against the simulated carousel and
// a loopback HTTP server, and real broadcast captures as input.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "app_mgr_stream_events.h"
#include "broadcast_fixture.h"
#include "dsmcc_sections.h"
#include "hbb_sim.h"
#include "http_test_server.h"
#include "state/state.h"

using namespace appmgr::test;
namespace state = appmgr::state;

namespace {

constexpr const char* kPath = "dvb://1.2.3.1/events";

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

// A stream-event description of one carousel object.
std::string description(int component_tag, int event_id, const char* name) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<dsmcc xmlns=\"urn:dvb:mis:dsmcc:2009\">\n"
           "  <dsmcc_object component_tag=\"" + std::to_string(component_tag) + "\">\n"
           "    <stream_event stream_event_id=\"" + std::to_string(event_id) +
           "\" stream_event_name=\"" + name + "\"/>\n  </dsmcc_object>\n</dsmcc>\n";
}

class StreamEventTest : public BroadcastTest {
protected:
    // The body callback 66 must carry for an event of kPath named "ev".
    static std::string event(const std::string& data, const std::string& text,
                             const char* status = "trigger") {
        return std::string("66|") + kPath + "|ev|" + data + "|" + text + "|" + status + "|";
    }
    void fire(const std::string& payload, tQUMAm_DSMCC_StreamEventStatus status = eQUMAm_DSMCC_EVENT_FIRE) {
        std::string copy = payload;
        hbbtvExtQUMAStreamEventsCallback(const_cast<char*>("ev"), const_cast<char*>(kPath), status,
                                         copy.data(), static_cast<int>(copy.size()));
    }
    std::string next_event() { return callback(66).body; }

    int acquired() { return locked([] { return state::pending_stream_events().acquiredSlots; }); }
    std::string slot(int i) {
        return locked([&] {
            const StreamEvents& t = state::pending_stream_events();
            if (!t.eventSlotUsed[i]) return std::string("-");
            const StreamEventDescriptor& d = t.events[i];
            return std::string(d.targetURL) + " " + d.eventName + " " + std::to_string(d.type);
        });
    }
    void pageLoaded(const std::string& url) {
        ASSERT_TRUE(browser_.send(Connection::Application, "82|" + url + "|"));
        ASSERT_TRUE(decisions_.waitFor({"page_loaded", "", url}, 3000));
    }
};

}  // namespace

TEST_F(StreamEventTest, PayloadsBecomeHexadecimalDataAndFilteredText) {
    struct Case {
        std::string payload, data, text;
    } cases[] = {
        {"AB", "4142", "AB"},
        {"Hello HbbTV", "48656c6c6f204862625456", "Hello HbbTV"},
        // Two-byte UTF-8 survives, and the data is the filtered text's.
        {"Test event \xc3\xa4\xc3\xb6\xc3\xbc!", "54657374206576656e7420c3a4c3b6c3bc21",
         "Test event \xc3\xa4\xc3\xb6\xc3\xbc!"},
        // Three-byte UTF-8 is dropped byte by byte.
        {"a\xe2\x82\xac", "61", "a"},
        // Nothing survives: the raw bytes are the data, the text undefined.
        {"\xe2\x82\xac", "e282ac", "undefined"},
        // 0xC2 without a continuation byte takes the next byte with it.
        {"\xc2" "A", "c241", "undefined"},
        {"AB\xc3", "4142", "AB"},
        // A byte below 0x10 gives one digit and ends the data text there.
        {"A\x05" "B", "415", "A\x05" "B"},
        {std::string("\x01\x02\x03"), "1", "\x01\x02\x03"},
    };
    for (const Case& c : cases) {
        fire(c.payload);
        EXPECT_EQ(next_event(), event(c.data, c.text)) << hex(c.payload);
    }
    EXPECT_TRUE(log_.contains("hbbtvExtQumaStreamEventsCallback received event eQUMAm_DSMCC_EVENT_FIRE"));
    EXPECT_TRUE(log_.contains("no UTF8 characters"));
}

TEST_F(StreamEventTest, DataStopsAt512PayloadBytes) {
    const std::string ff(512, '\xff');
    fire(std::string(511, '\xff'));
    EXPECT_EQ(next_event(), event(hex(std::string(511, '\xff')), "undefined"));
    EXPECT_FALSE(log_.contains("stream event data overflow"));
    fire(ff);
    EXPECT_EQ(next_event(), event(hex(ff), "undefined"));
    EXPECT_TRUE(log_.contains("stream event data overflow (eventDataLen: 1024)"));
    fire(std::string(5000, '\xff'));
    EXPECT_EQ(next_event(), event(hex(ff), "undefined"));
    // Text survives whole; its data is cut like any other.
    const std::string text(600, 'A');
    fire(text);
    EXPECT_EQ(next_event(), event(hex(std::string(512, 'A')), text));
}

TEST_F(StreamEventTest, ErrorsUnsupportedStatusesAndEmptyPayloads) {
    fire("", eQUMAm_DSMCC_EVENT_ERROR);
    EXPECT_EQ(next_event(), event("undefined", "undefined", "error"));
    // Neither of these sends anything: the next event is the marker's. A C
    // middleware passes the status as a plain int, 7 included.
    using StatusAsInt = void (*)(char*, char*, int, char*, int);
    auto as_c = reinterpret_cast<StatusAsInt>(&hbbtvExtQUMAStreamEventsCallback);
    char payload[] = "x";
    as_c(const_cast<char*>("ev"), const_cast<char*>(kPath), 7, payload, 1);
    fire("");
    hbbtvExtQUMAStreamEventsCallback(const_cast<char*>("ev"), const_cast<char*>(kPath),
                                     eQUMAm_DSMCC_EVENT_FIRE, nullptr, 4);
    fire("marker");
    EXPECT_EQ(next_event(), event(hex("marker"), "marker"));
    EXPECT_TRUE(log_.contains("received unsupported event (status: 7)"));
    EXPECT_TRUE(log_.contains("provided invalid event payload eventStatus=0, (payloadLen 0)"));
}

TEST(StreamEventFilter, OutputsAndFailures) {
    char* out = reinterpret_cast<char*>(0x1);
    int length = -1;
    EXPECT_EQ(extractValidUTF8Characters("\xff\xfe", 2, &out, &length), NO_ERROR);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(out, reinterpret_cast<char*>(0x1)) << "left untouched when nothing survives";
    EXPECT_EQ(extractValidUTF8Characters("a\xc3\xa9", 3, &out, &length), NO_ERROR);
    EXPECT_EQ(length, 4) << "the terminator counts";
    EXPECT_STREQ(out, "a\xc3\xa9");
    std::free(out);
    EXPECT_EQ(extractValidUTF8Characters(nullptr, 1, &out, &length), NULL_PTR_ERR);
    EXPECT_EQ(extractValidUTF8Characters("a", 1, nullptr, &length), NULL_PTR_ERR);
    EXPECT_EQ(extractValidUTF8Characters("a", -1, &out, &length), UNDEFINED_ERR);
}

// Before any page is loaded, relative listeners wait in eight slots; once
// slots 0 to 6 are taken every further request lands in slot 7.
TEST_F(StreamEventTest, PendingTableFillsAndDrains) {
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(ask(Connection::DtvPlugins, 46, {"s" + std::to_string(i) + ".xml", "go"}), "0|");
    EXPECT_EQ(acquired(), 8);
    EXPECT_EQ(slot(7), "s7.xml go 0");
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {"late.xml", "stop"}), "ACK|");
    EXPECT_EQ(slot(7), "late.xml stop 1");
    EXPECT_EQ(slot(6), "s6.xml go 0");
    EXPECT_EQ(acquired(), 9);
    EXPECT_TRUE(log_.contains("Enqueueing adding stream event listener, wating for app to load ..."));
    EXPECT_TRUE(log_.contains("Enqueueing removing stream event listener, wating for app to load ..."));
    EXPECT_EQ(hbb_sim_call_count("QUMA_StreamEventsWOCSubscribe"), 0);

    // Draining leaves slot 7.
    releaseStreamEventsForSubscription();
    EXPECT_EQ(acquired(), 2);
    EXPECT_EQ(slot(0), "-");
    EXPECT_EQ(slot(7), "late.xml stop 1");
    releaseStreamEventSlot(7);
    EXPECT_EQ(slot(7), "-");
    EXPECT_EQ(acquired(), 1);
    configureStreamEventSlot(8, "x", "y", ADD_STREAM_EVENT_LISTENER);
    EXPECT_TRUE(log_.contains("slot 8 outside the 8 pending slots"));
    EXPECT_EQ(initializeStreamEventsUtil(), 1);
    EXPECT_EQ(acquired(), 0);
    EXPECT_EQ(hbbAddStreamEventListener(nullptr, "go"), HBBTV_STE_BAD_PARAM);
    EXPECT_EQ(hbbAddStreamEventListener("a.xml", nullptr), HBBTV_STE_BAD_PARAM);
}

TEST_F(StreamEventTest, CarouselObjectListeners) {
    const std::string root = serveCarousel(1, {"index.html"});
    FILE* f = std::fopen((root + "events.ste").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("go\nstop\n", f);
    std::fclose(f);

    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {kPath, "stop"}), "0|");
    EXPECT_EQ(hbb_sim_stream_event_subscribed(kPath, "stop", nullptr, nullptr), 1);
    EXPECT_TRUE(log_.contains("Target url points to the StreamEvent object, load it from carousel"));
    // An event the object does not list, and an object that does not exist.
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {kPath, "st"}), "2|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {"dvb://1.2.3.1/none", "go"}), "2|");
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 1);

    EXPECT_EQ(hbb_sim_fire_stream_event(kPath, "stop", eQUMAm_DSMCC_EVENT_FIRE, "hi", 2), 1);
    EXPECT_EQ(callback(66).body, std::string("66|") + kPath + "|stop|6869|hi|trigger|");
    EXPECT_EQ(hbb_sim_fire_stream_event(kPath, "stop", eQUMAm_DSMCC_EVENT_ERROR, nullptr, 0), 1);
    EXPECT_EQ(callback(66).body, std::string("66|") + kPath + "|stop|undefined|undefined|error|");

    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {kPath, "stop"}), "ACK|");
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 0);
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {kPath, "stop"}), "ACK|");
    EXPECT_TRUE(log_.contains("QUMA_StreamEventsUnsubscribe Error - QUMA_StreamEventsUnsubscribe failed!"));

    // The middleware refuses the subscription.
    hbb_sim_set_stream_event_subscribe_result(-1);
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {kPath, "go"}), "2|");
    EXPECT_TRUE(log_.contains("hbbAddStreamEventListener Error - QUMA_StreamEventsSubscribe failed! "
                              "(targetURL: dvb://1.2.3.1/events) (eventName: go)"));
}

// The description gives component tag and event id; the id goes out in 16
// bits on subscribe and in 8 bits on unsubscribe.
TEST_F(StreamEventTest, DescriptionListenersOverHttp) {
    HttpTestServer http;
    http.respond("/sevent.xml", "200 OK", description(19, 257, "testevent"));
    http.respond("/swapped.xml", "200 OK",
                 "<dsmcc><dsmcc_object component_tag=\"7\">"
                 "<stream_event stream_event_name=\"testevent\" stream_event_id=\"3\"/>"
                 "</dsmcc_object></dsmcc>");
    const std::string url = http.url("/sevent.xml");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {url, "testevent"}), "0|");
    int tag = 0, id = 0;
    ASSERT_EQ(hbb_sim_stream_event_subscribed(url.c_str(), "testevent", &tag, &id), 1);
    EXPECT_EQ(tag, 19);
    EXPECT_EQ(id, 257);
    EXPECT_TRUE(log_.contains("Parsed stream event: testevent 257 19"));
    char details[256];
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {url, "testevent"}), "ACK|");
    hbb_sim_last_call("QUMA_StreamEventsWOCUnsubscribe", details, sizeof details);
    EXPECT_EQ(std::string(details), "ctag=19 name=testevent url=" + url + " id=1 -> 0");
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 0);

    // Attributes are read by position: a name written first never matches.
    const std::string swapped = http.url("/swapped.xml");
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {swapped, "testevent"}), "0|");
    ASSERT_EQ(hbb_sim_stream_event_subscribed(swapped.c_str(), "testevent", &tag, &id), 1);
    EXPECT_EQ(tag, 7);
    EXPECT_EQ(id, 0);
    // A description that cannot be read asks for tag 0 and id 0, which the
    // receiver refuses: the current service carries no component 0.
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {http.url("/missing.xml"), "x"}), "2|");
    EXPECT_TRUE(log_.contains("Parsed stream event: x 0 0"));
    EXPECT_EQ(hbb_sim_stream_event_subscribed(http.url("/missing.xml").c_str(), "x", nullptr, nullptr), 0);

    // A middleware that carries stream events on tag 19 only refuses the
    // description on tag 7: the page hears of it.
    const int carried[] = {19};
    hbb_sim_set_stream_event_tags(carried, 1);
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {swapped, "other"}), "2|");
    EXPECT_EQ(hbb_sim_stream_event_subscribed(swapped.c_str(), "other", nullptr, nullptr), 0);
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {url, "testevent"}), "0|");
}

// After a page is loaded, a relative URL is read from the page's directory
// and subscribed under the URL as the page gave it.
TEST_F(StreamEventTest, RelativeListenersFollowTheLoadedPage) {
    HttpTestServer http;
    http.respond("/app/sevent.xml", "200 OK", description(19, 1, "testevent"));
    pageLoaded(http.url("/app/index.html"));
    EXPECT_EQ(ask(Connection::DtvPlugins, 46, {"sevent.xml", "testevent"}), "0|");
    ASSERT_TRUE(http.waitForRequests(1, 3000));
    EXPECT_EQ(http.requests()[0].path, "/app/sevent.xml");
    EXPECT_EQ(hbb_sim_stream_event_subscribed("sevent.xml", "testevent", nullptr, nullptr), 1);
    EXPECT_EQ(acquired(), 0);

    EXPECT_EQ(hbb_sim_fire_stream_event_by_id(19, 1, eQUMAm_DSMCC_EVENT_FIRE, "go", 2), 1);
    EXPECT_EQ(callback(66).body, "66|sevent.xml|testevent|676f|go|trigger|");
    EXPECT_EQ(ask(Connection::DtvPlugins, 47, {"sevent.xml", "testevent"}), "ACK|");
    EXPECT_EQ(hbb_sim_stream_event_subscriptions(), 0);
    EXPECT_EQ(hbb_sim_fire_stream_event_by_id(19, 1, eQUMAm_DSMCC_EVENT_FIRE, "go", 2), 0);
}

// The MIT-xperts test suite's stream-event multiplex: its description (as
// its server renders it) and the events of PID 5007 as captured. This
// library sends the data of the filtered text, so the binary payload,
// whose first surviving byte is 0x00, arrives with empty data and text.
TEST_F(StreamEventTest, CapturedEventsReachTheListener) {
    const std::string dir = APPMGR_STREAM_EVENT_DATA_DIR "/mitxp-hbbtv-testsuite/";
    std::string php = read_file(dir + "sevent.php");
    const auto start = php.find("echo '");
    const auto end = php.find("';", start);
    ASSERT_NE(end, std::string::npos);
    std::string xml = php.substr(start + 6, end - start - 6);
    const std::string tag_expression = "'.((int)($_REQUEST['ctag']??0)).'";
    ASSERT_NE(xml.find(tag_expression), std::string::npos);
    xml.replace(xml.find(tag_expression), tag_expression.size(), "19");

    HttpTestServer http;
    http.respond("/streamevent/sevent.php?ctag=19", "200 OK", xml);
    const std::string url = http.url("/streamevent/sevent.php?ctag=19");
    ASSERT_EQ(ask(Connection::DtvPlugins, 46, {url, "testevent"}), "0|");

    const std::string ts = read_file(dir + "imuxcfg_tsfiles_sevent.m2ts");
    ASSERT_EQ(ts.size(), 277488u);
    std::vector<CapturedStreamEvent> distinct;
    for (const std::string& section : sections_of_pid(ts, 0x138F))
        for (const CapturedStreamEvent& e : stream_events_of_section(section)) {
            bool seen = false;
            for (const auto& d : distinct) seen |= d.event_id == e.event_id && d.private_data == e.private_data;
            if (!seen) distinct.push_back(e);
        }
    ASSERT_EQ(distinct.size(), 4u);
    int delivered = 0;
    for (const CapturedStreamEvent& e : distinct)
        delivered += hbb_sim_fire_stream_event_by_id(19, e.event_id, eQUMAm_DSMCC_EVENT_FIRE,
                                                     e.private_data.data(),
                                                     static_cast<int>(e.private_data.size()));
    EXPECT_EQ(delivered, 3) << "event 2 (\"BadID\") has no listener";
    const std::string prefix = "66|" + url + "|testevent|";
    EXPECT_EQ(callback(66).body, prefix + "48656c6c6f204862625456|Hello HbbTV|trigger|");
    EXPECT_EQ(callback(66).body, prefix + "54657374206576656e7420c3a4c3b6c3bc21|Test event \xc3\xa4\xc3\xb6\xc3\xbc!|trigger|");
    EXPECT_EQ(callback(66).body, prefix + "||trigger|");
}

// TSDuck's stream-descriptor section: an event without private data is not
// sent, one with bytes below 0x10 keeps one digit, a text event is whole.
TEST_F(StreamEventTest, SectionWithEventsOfEveryKind) {
    const std::string section =
        read_file(APPMGR_STREAM_EVENT_DATA_DIR "/tsduck-test/test-033.compile.bin");
    const std::vector<CapturedStreamEvent> events = stream_events_of_section(section);
    ASSERT_EQ(events.size(), 3u);
    for (const CapturedStreamEvent& e : events) fire(e.private_data);
    EXPECT_EQ(next_event(), event("1", "\x01\x02\x03"));
    EXPECT_EQ(next_event(), event("54657374", "Test"));
    EXPECT_TRUE(log_.contains("(payloadLen 0)"));
}
