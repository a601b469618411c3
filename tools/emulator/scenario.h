// Scenario files of appmgr-emu: the model of a scenario (service and
// channels, applications, AITs, terminal settings, timeline) and the reader
// that builds it from an INI file through the library's own INI reader.
//
// Reading is pure: nothing here touches the library's state, the platform or
// the sockets. Every error names the file and, where it has one, the line,
// and says what was expected. The sections a file may have are the rows of
// one table (scenario_sections.cpp), the step kinds of its timeline the rows
// of another (steps.h); running a scenario is scenario_runner.h.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "scenario_text.h"

namespace appmgr::emu {

// AIT transport protocol ids.
constexpr int kTransportCarousel = 1;
constexpr int kTransportHttp = 3;

// TCP port of the graphics system's remote-input service on 127.0.0.1; the
// shipped library connects to it to inject keys.
constexpr int kRemoteInputPort = 3585;

// Longest time a scenario may run, and the default.
constexpr int kMaxTimeLimitSeconds = 300;
constexpr int kDefaultTimeLimitSeconds = 20;
// The default with the real browser: Chromium alone may take up to 30 s to
// start and connect on a loaded machine, and each page load up to 15 s.
constexpr int kDefaultChromiumTimeLimitSeconds = 60;
// Longest single "wait".
constexpr int kMaxWaitMs = 10000;
// Limits that keep a hostile file from growing the run without bound.
constexpr int kMaxSteps = 500;
constexpr int kMaxApps = 256;
constexpr long kMaxFileBytes = 1 << 20;

struct ChannelSpec {
    std::string name;  // "service" for [service], NAME for [channel.NAME]
    int onid = 0;
    int tsid = 0;
    int sid = 0;
    std::string label;    // the channel's name as the receiver lists it
    std::string dvb_url;  // locator given to the AITs of this channel by default
    int type = 0;         // ChannelType: 0 TV, 1 radio, 2 other
};

struct RatingSpec {
    std::string country;  // three letters
    int rating = 0;
};

struct AppSpec {
    std::string section;  // NAME of [app.NAME]
    int org_id = 0;
    int app_id = 0;
    int control = 0;  // a ControlCode value, or any other number as written
    int priority = 1;
    std::string url;
    int transport = kTransportCarousel;
    std::optional<std::string> boundary;
    bool service_bound = true;
    int profile = 0;
    int version[3] = {1, 1, 1};
    std::vector<RatingSpec> parental;
    bool ip_required = false;
    int usage = 0;
    int visibility = 3;
    std::string name;
};

// One entry of an AIT: an application section, optionally with another
// control code in this table ("high:KILL").
struct AitEntry {
    std::string app;
    std::optional<int> control;
};

struct AitSpec {
    std::string name;
    std::string channel = "service";
    std::string dvb_url;
    int type = 16;
    bool test = false;
    int version = 1;
    std::vector<AitEntry> apps;
};

struct TerminalSpec {
    int version[3] = {1, 5, 1};  // HbbTV version of the terminal
    std::optional<int> parental_threshold;
    std::optional<int> network;  // fired once the library is active
};

struct HttpSpec {
    bool enabled = false;              // [http] present or {http} used
    std::vector<std::string> missing;  // paths answered "404 Not Found"
    // Directory whose files are served (resolved against the scenario's
    // directory); absent: every other path gets the canned page.
    std::optional<std::string> root;
};

// [carousel.TAG]: a directory served as the object carousel of a component
// tag by the simulated receiver.
struct CarouselSpec {
    int tag = 0;
    std::string dir;  // as written
    std::string path;  // resolved against the scenario's directory
};

// [programme.NAME]: a programme of a channel's schedule.
struct ProgrammeSpec {
    std::string section;  // NAME
    std::string channel = "service";
    std::string title;    // the programme's name (NAME by default)
    std::string description;
    long start = 0;       // seconds since 1970 (UTC)
    int duration = 0;     // seconds
    std::string id;       // programme id (NAME by default)
    std::optional<std::string> long_description;
    std::optional<std::string> rating_scheme;  // "dvb-si" of "dvb-si:9"
    int rating_value = 0;
};

// [component.NAME]: an AV component of a channel.
struct ComponentSpec {
    std::string section;  // NAME
    std::string channel = "service";
    int kind = 0;         // AVComponentType: 0 video, 1 audio, 2 subtitle
    int tag = 0;
    int pid = 0;
    std::string encoding;
    std::string language;  // audio and subtitle
    double aspect_ratio = 1.78;    // video
    int audio_channels = 2;        // audio
    bool audio_description = false;
    bool hearing_impaired = false;  // subtitle
    bool active = false;
};

// [receiver]: what the simulated middleware answers and tells.
struct ReceiverSpec {
    // The middleware reports tunes, failed tunes and component selections to
    // the library from its notifier thread (channelChanged, ...).
    bool notifications = false;
    std::vector<std::string> capabilities;
    std::optional<std::pair<int, int>> decodes;  // extra SD, HD
    std::optional<int> rating_schemes;
    std::optional<std::string> xml_capabilities;  // file, resolved
    // A file of EIT lines ("service ONID TSID SID", "event ..."; see
    // docs/epg.md) loaded into the simulated EIT cache; resolved.
    std::optional<std::string> eit;
    // The configuration; set when any key is given (the others keep the
    // simulator's defaults: eng, eng, GBR, eng, hbb-sim-0001).
    std::optional<std::string> audio_language, subtitle_language, ui_language, country, device_id;
};

// [stream_event.NAME]: a stream event the broadcast carries. While the run
// lasts the receiver fires it at whatever listens, with each payload in
// turn, one every interval (a carousel's stream-event object repeats its
// events the same way).
struct StreamEventSpec {
    std::string section;             // NAME
    std::string name;                // the event's name (NAME by default)
    std::optional<std::string> url;  // listeners by the object's dvb: URL
    // Listeners by component tag and event id (from a stream-event XML).
    std::optional<int> tag;
    std::optional<int> event_id;
    std::vector<std::string> payloads;  // bytes, at least one
    int interval_ms = 1000;
};

// [testsuite]: the public HbbTV test suite's pages, served by PHP for the
// "testsuite_group" steps (docs/testsuite.md).
struct TestsuiteSpec {
    std::string pages;  // resolved
    int port = 0;       // where PHP serves the copy (0: a free port)
    int group_time_limit_s = 150;
};

// [capture]: a transport-stream capture that plays the broadcast into the
// simulated receiver: its services become channels, the played service's
// HbbTV AITs reach the library, its EIT fills the guide, its object
// carousels are served and its stream events reach subscribed listeners.
struct CaptureSpec {
    std::string source;  // as written: a file, "-" (standard input) or "udp://127.0.0.1:PORT"
    std::string path;    // a file resolved against the scenario's directory; else the source
    int service = -1;    // the service played; -1: the first whose PMT signals an HbbTV AIT
    bool realtime = false;  // speed 1: paced by its PCR; max: as fast as it is read
    bool broadband = true;  // no: carousel transports are preferred to HTTP ones
    bool isFile() const { return source != "-" && source.rfind("udp://", 0) != 0; }
};

struct Step {
    std::string key;   // "step3"
    long number = 0;   // 3
    int line = 0;      // line in the file (0 when unknown)
    std::string text;  // the value as written
    std::string kind;  // first word, lower-cased
    // Arguments as the kind's parser normalised them, and the free text that
    // follows them for kinds that take one (browser message, frame fields).
    std::vector<std::string> args;
    std::optional<std::string> tail;
};

struct Scenario {
    std::string path;
    std::string title;
    int time_limit_s = kDefaultTimeLimitSeconds;
    bool time_limit_given = false;  // the file set time_limit
    // channels[0] is the service; without [service] (a [capture] brings the
    // channels) there may be none.
    std::vector<ChannelSpec> channels;
    std::vector<AppSpec> apps;          // in file order
    std::vector<AitSpec> aits;          // "main" and "empty" always among them
    TerminalSpec terminal;
    HttpSpec http;
    std::vector<CarouselSpec> carousels;  // in file order
    std::vector<ProgrammeSpec> programmes;  // in file order
    std::vector<ComponentSpec> components;  // in file order
    ReceiverSpec receiver;
    std::vector<StreamEventSpec> stream_events;  // in file order
    std::optional<TestsuiteSpec> testsuite;
    std::optional<CaptureSpec> capture;
    std::vector<Step> timeline;           // by step number

    const ChannelSpec* channel(const std::string& name) const;
    int channelIndex(const std::string& name) const;
    const AppSpec* app(const std::string& section) const;
    const AitSpec* ait(const std::string& name) const;
};

// Reads a scenario. On failure returns nullopt and puts "FILE[:LINE]: what"
// into *error.
std::optional<Scenario> loadScenario(const std::string& path, std::string* error);

}  // namespace appmgr::emu
