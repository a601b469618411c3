// Transport-stream captures on a PC: what a receiver's middleware does
// between the tuner and the application manager.
//
// Who owns what:
// - PacketReader: bytes in (a file, standard input or UDP on loopback),
//   188-byte packets out, resynchronising after a lost sync byte.
// - Pacer: holds packets back to the rate their PCRs give, or lets them
//   through as fast as they come.
// - Demux: packets in, whole sections out. libdvbpsi assembles sections
//   across packets (pointer fields, continuity counters) and checks their
//   CRC; the demux counts sections, versions and CRC failures per PID and
//   table and hands every whole, checked section to the handlers registered
//   for its PID or its table id. No handler sees anything below a section.
//   Tables that no Debian package decodes (the AIT here, the DSM-CC tables
//   0x3B/0x3C/0x3D of the carousel code) come through the same hook.
// - Section decoders (decode_pat, decode_pmt, decode_sdt, decode_eit,
//   decode_ait): pure functions from one section's bytes to a record plus
//   the list of what they skipped and why. PAT, PMT, SDT and EIT and their
//   standard descriptors are decoded by libdvbpsi; the AIT and its
//   descriptors by this library. Every record has a text dump.
// - Capture: a Demux plus the service map (PAT -> PMT -> components, SDT
//   names) and the collectors that turn sections into complete AIT versions
//   and distinct EIT events.
// - DSM-CC (namespace dsmcc, at the end of this file): object carousels
//   and stream events, decoded and collected per capture.
// - CapturePlayer: plays a capture into the simulated receiver (channels,
//   AIT delivery through the AIT callback, the EIT cache, the carousels and
//   stream events). It is the one object the emulator and the tests drive.
//
// Everything here runs on the thread that calls it; a CapturePlayer started
// with start() runs on a thread of its own until the end or stop(). None of
// it is part of libapp-mgr.so.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

struct AitTable;

namespace ts {

constexpr std::size_t kPacketSize = 188;
constexpr uint8_t kSyncByte = 0x47;

// What a decoder or the demux left out, one plain-English reason per item.
using Skipped = std::vector<std::string>;

// ---- log ---------------------------------------------------------------------

// Log lines of the decoders and the player, levels as the platform's (2
// information, 3 warning, 5 error). Without a sink, warnings and errors go
// to stderr; set_log_sink(nullptr) silences them, another sink takes every
// line. Set it before decoding starts (it is not synchronised).
using LogSink = std::function<void(int level, const std::string& line)>;
void set_log_sink(LogSink sink);
void set_log_default();
void log(int level, const std::string& line);

// ---- text and time -----------------------------------------------------------

// A DVB text (its first byte may select the character table) in UTF-8,
// converted with iconv. The emphasis codes 0x86/0x87 are dropped and 0x8A
// becomes a line break. A text in a table that cannot be converted yields
// "" and a reason in `skipped` (when given).
std::string dvb_text_to_utf8(const uint8_t* bytes, std::size_t length, Skipped* skipped = nullptr);

// Seconds since 1970-01-01 UTC of a DVB date (16-bit MJD) and BCD time
// (hhmmss, 24 bits), in 64 bits. The MJD field wraps on 2038-04-22: values
// below 1970-01-01 (MJD 40587) are taken as after the wrap. False for a time
// that is not BCD or out of range.
bool dvb_time_to_unix(uint16_t mjd, uint32_t bcd_hms, int64_t* seconds);
// A BCD duration (hhmmss, 24 bits) in seconds; false when not BCD.
bool bcd_duration(uint32_t bcd_hms, int* seconds);
// "2017-08-23T11:25:00Z" (also beyond 2038 and on 32-bit targets).
std::string iso_utc(int64_t seconds);
// "00:50:00"; hours may exceed 24.
std::string hms(int seconds);

// ---- sections ------------------------------------------------------------------

// One whole section, as the demux hands it over: `data` runs from the
// table id to the end of the section (CRC included), valid during the call.
struct Section {
    uint16_t pid = 0;
    const uint8_t* data = nullptr;
    std::size_t size = 0;
    uint8_t table_id() const { return data[0]; }
};

// The header fields of a section. Fields after `length` are only set for
// the long form (section_syntax_indicator 1).
struct SectionHeader {
    uint8_t table_id = 0;
    bool long_form = false;
    uint16_t length = 0;  // section_length: bytes after the length field
    uint16_t extension = 0;
    uint8_t version = 0;
    bool current = false;
    uint8_t number = 0;
    uint8_t last_number = 0;
};
// Reads a section header; false (with a reason in `why`) when the bytes do
// not hold a whole section of the length they announce.
bool read_section_header(const uint8_t* bytes, std::size_t size, SectionHeader* out,
                         std::string* why);

// ---- packets in -----------------------------------------------------------------

struct ReaderStats {
    uint64_t packets = 0;
    uint64_t resyncs = 0;          // times the sync byte was lost and found again
    uint64_t skipped_bytes = 0;    // bytes dropped while looking for it
    uint64_t truncated_bytes = 0;  // an incomplete packet at the end
    uint64_t datagrams = 0;        // UDP only
};

// Reads 188-byte packets from a file, "-" (standard input) or
// "udp://127.0.0.1:PORT" (a live stream as dvblast, tsp or ffmpeg send it;
// only loopback addresses are accepted). A lost sync byte is found again by
// looking for three sync bytes 188 bytes apart.
class PacketReader {
public:
    PacketReader();
    ~PacketReader();
    PacketReader(const PacketReader&) = delete;
    PacketReader& operator=(const PacketReader&) = delete;

    // false with error() set when the source cannot be opened.
    bool open(const std::string& source);
    // For UDP: milliseconds without a datagram after which the stream is
    // taken as ended (default 5000).
    void set_idle_timeout_ms(int ms) { idle_timeout_ms_ = ms; }
    // The next packet; false at the end of the input, after stop() or on a
    // read error (error() is then set).
    bool next(uint8_t packet[kPacketSize]);
    // Ends the reading from another thread (next() returns false soon).
    void stop() { stop_ = true; }
    // Reads the source again after it ended or was stopped: a file from its
    // start (as a playout loops its file), a UDP stream from what arrives
    // next. Standard input cannot go back: false with error() set.
    bool replay();
    const ReaderStats& stats() const { return stats_; }
    const std::string& error() const { return error_; }
    // The UDP port actually bound (for "udp://127.0.0.1:0"), else 0.
    int udp_port() const { return udp_port_; }

private:
    bool fill();
    int fd_ = -1;
    bool own_fd_ = false;
    bool udp_ = false;
    int udp_port_ = 0;
    int idle_timeout_ms_ = 5000;
    std::atomic<bool> stop_{false};
    bool eof_ = false;
    std::vector<uint8_t> buffer_;
    std::size_t start_ = 0;
    ReaderStats stats_;
    std::string error_;
};

// Real-time pacing: holds each packet that carries a PCR until the wall
// clock has advanced as far as the PCR since the first one (PCRs of the
// first PCR PID seen). A PCR jump of more than 10 seconds (a loop or a
// discontinuity) restarts the reference. Disabled, it never waits.
class Pacer {
public:
    explicit Pacer(bool realtime = false) : realtime_(realtime) {}
    void set_realtime(bool realtime) { realtime_ = realtime; }
    void pace(const uint8_t packet[kPacketSize]);
    // Wakes a pace() that is waiting and makes later calls return at once.
    void stop();
    // Forgets the clock and a stop(): the next PCR starts the reference anew.
    void reset();

private:
    bool realtime_;
    int pcr_pid_ = -1;
    bool have_base_ = false;
    uint64_t base_pcr_ = 0;
    uint64_t last_pcr_ = 0;
    int64_t base_wall_ns_ = 0;
    std::atomic<bool> stopped_{false};
};

// The PCR (27 MHz units) of a packet that carries one.
bool packet_pcr(const uint8_t packet[kPacketSize], uint64_t* pcr);

// ---- sections out ------------------------------------------------------------------

using SectionHandler = std::function<void(const Section&)>;

struct TableStats {
    uint64_t sections = 0;      // whole sections with a good CRC
    uint64_t versions = 0;      // version changes of its subtables, the first included
    uint64_t crc_failures = 0;  // sections dropped for a bad CRC
};

// Packets in, whole CRC-checked sections out (see the top of this file).
// Handlers run on the thread that pushes the packet, in registration order,
// first those of the PID, then those of the table id; they may watch more
// PIDs (the PAT handler watches the PMT PIDs).
class Demux {
public:
    Demux();
    ~Demux();
    Demux(const Demux&) = delete;
    Demux& operator=(const Demux&) = delete;

    // Sections of the PID are assembled from now on (again calls are no-ops).
    void watch_pid(uint16_t pid);
    bool watching(uint16_t pid) const;
    // Every section of a PID / every section with a table id (on any PID).
    void on_pid(uint16_t pid, SectionHandler handler);
    void on_table(uint8_t table_id, SectionHandler handler);
    // A PID that is not watched and whose packet starts a section with one
    // of these table ids is watched from that packet on. Cut-down captures
    // carry AITs and carousels without the PMT that names their PIDs.
    void discover(const std::set<uint8_t>& table_ids);

    // One 188-byte packet (the sync byte checked by the caller).
    void push(const uint8_t packet[kPacketSize]);

    // Counts per (PID, table id), in PID order.
    std::map<std::pair<uint16_t, uint8_t>, TableStats> table_stats() const;
    // Problems libdvbpsi reported on a PID (discontinuities, sections too
    // long, ...), CRC failures excepted.
    uint64_t pid_errors() const { return pid_errors_; }
    uint64_t packets() const { return packets_; }

private:
    struct Pid;
    struct Subtable {
        int version = -1;
    };
    Pid* pid_of(uint16_t pid);
    void deliver(uint16_t pid, const uint8_t* data, std::size_t size);
    void report(uint16_t pid, const char* message);
    friend struct DemuxAccess;

    std::map<uint16_t, std::unique_ptr<Pid>> pids_;
    std::map<uint16_t, std::vector<SectionHandler>> pid_handlers_;
    std::map<uint8_t, std::vector<SectionHandler>> table_handlers_;
    std::set<uint8_t> discover_;
    std::map<std::pair<uint16_t, uint8_t>, TableStats> stats_;
    std::map<std::tuple<uint16_t, uint8_t, uint16_t>, Subtable> subtables_;
    uint64_t pid_errors_ = 0;
    uint64_t packets_ = 0;
};

// Wraps a section in TS packets of a PID (pointer field, stuffing), with
// continuity counters starting at *counter. Tests and fuzzers feed sections
// through the demux with it.
std::vector<uint8_t> packetize_section(uint16_t pid, const uint8_t* section, std::size_t size,
                                       uint8_t* counter);

// ---- PSI/SI records (libdvbpsi decodes them) ----------------------------------------

struct PatRecord {
    uint16_t tsid = 0;
    uint8_t version = 0;
    // program_number -> PMT PID (program 0: the NIT PID)
    std::vector<std::pair<uint16_t, uint16_t>> programs;
};

enum class ComponentKind { Other, Ait, Carousel, StreamEvents };

struct Component {
    uint16_t pid = 0;
    uint8_t stream_type = 0;
    int component_tag = -1;   // stream_identifier_descriptor, -1 when none
    ComponentKind kind = ComponentKind::Other;
    // application_signalling_descriptor entries (application type, AIT version)
    std::vector<std::pair<int, int>> ait_types;
    int64_t carousel_id = -1;  // carousel_identifier_descriptor, -1 when none
};

struct PmtRecord {
    uint16_t program = 0;
    uint8_t version = 0;
    uint16_t pcr_pid = 0;
    std::vector<Component> components;
};

struct SdtService {
    uint16_t sid = 0;
    int type = -1;  // service_descriptor's service type, -1 when none
    std::string name, provider;  // UTF-8
    bool eit_pf = false, eit_schedule = false;
};

struct SdtRecord {
    bool actual = true;  // table 0x42 (0x46: another transport stream)
    uint16_t tsid = 0, onid = 0;
    uint8_t version = 0;
    std::vector<SdtService> services;
};

bool decode_pat(const uint8_t* data, std::size_t size, PatRecord* out, Skipped* skipped);
bool decode_pmt(const uint8_t* data, std::size_t size, PmtRecord* out, Skipped* skipped);
bool decode_sdt(const uint8_t* data, std::size_t size, SdtRecord* out, Skipped* skipped);
std::string component_kind_name(ComponentKind kind);

// ---- EIT ----------------------------------------------------------------------------

struct ParentalRating {
    std::string country;  // three letters as broadcast
    int rating = 0;       // the descriptor's value (0x01..0x0F: age - 3)
};

struct EitEvent {
    uint16_t event_id = 0;
    bool start_known = false;  // false for an undefined start (all bits 1)
    int64_t start = 0;         // seconds since 1970-01-01 UTC
    int duration = 0;          // seconds
    int running_status = 0;
    bool scrambled = false;
    std::string language;      // of the short event descriptor
    std::string title, text;   // UTF-8
    std::vector<uint8_t> raw_title, raw_text;  // as broadcast (DVB-coded)
    // Extended event descriptors in order: their texts (UTF-8 and raw).
    std::vector<std::string> extended;
    std::vector<std::vector<uint8_t>> raw_extended;
    std::vector<ParentalRating> ratings;
    std::vector<std::pair<int, int>> content;  // (content nibbles, user byte)
};

struct EitRecord {
    uint8_t table_id = 0;  // 0x4E p/f actual, 0x4F p/f other, 0x50.. schedule
    uint16_t sid = 0, tsid = 0, onid = 0;
    uint8_t version = 0;
    uint8_t number = 0, last_number = 0, segment_last = 0, last_table_id = 0;
    std::vector<EitEvent> events;
};

bool decode_eit(const uint8_t* data, std::size_t size, EitRecord* out, Skipped* skipped);
// `event service=0x2d4d id=0x38 start=2017-08-23T11:25:00Z duration=00:50:00
// title="The Shield" ...`
std::string dump_eit_event(const EitRecord& table, const EitEvent& event);

// ---- AIT ----------------------------------------------------------------------------

struct AitProfile {
    int profile = 0, major = 0, minor = 0, micro = 0;
};
struct AitName {
    std::string language;
    std::string text;  // UTF-8
};
struct AitUrlBase {
    std::string base;
    std::vector<std::string> extensions;
};
struct AitTransport {
    int protocol_id = 0;  // 1 object carousel, 3 HTTP
    int label = 0;
    bool remote = false;
    int onid = -1, tsid = -1, sid = -1;  // remote service
    int component_tag = -1;
    std::vector<AitUrlBase> urls;        // HTTP
};
struct AitApplication {
    uint32_t org_id = 0;
    uint16_t app_id = 0;
    int control_code = 0;
    bool has_descriptor = false;  // the application descriptor was present
    std::vector<AitProfile> profiles;
    bool service_bound = false;
    int visibility = 0;
    int priority = 0;
    std::vector<int> labels;
    std::vector<AitName> names;
    std::vector<AitTransport> transports;
    bool has_location = false;
    std::string location;  // simple application location
    std::vector<std::string> boundaries;
    std::vector<ParentalRating> ratings;
    std::vector<int> usage_types;  // application_usage_descriptors in order
    std::vector<int> other_tags;  // descriptors kept out of the record
};
struct AitRecord {
    int app_type = 0;  // 15 bits (0x10 HbbTV)
    bool test = false;
    uint8_t version = 0;
    bool current = true;
    uint8_t number = 0, last_number = 0;
    uint32_t crc = 0;
    std::vector<AitTransport> common_transports;
    std::vector<ParentalRating> common_ratings;
    std::vector<int> common_usage_types;
    std::vector<int> common_other_tags;
    std::vector<AitApplication> apps;
};

bool decode_ait(const uint8_t* data, std::size_t size, AitRecord* out, Skipped* skipped);
// Multi-line text dump of a section (every decoded field).
std::string dump_ait(const AitRecord& ait);
// One line for an application: `app org=0x3c0 app=0x65 control=AUTOSTART
// url=https://host/path/index.html name="..." ...` (the URL as entry_url
// gives it with broadband).
struct Triplet;
std::string dump_ait_app(const AitRecord& ait, const AitApplication& app, const Triplet& own);
// AUTOSTART, PRESENT, DESTROY, KILL, PREFETCH, REMOTE, DISABLED,
// PLAYBACK_AUTOSTART, else "0x.." in hex.
std::string control_code_name(int code);

// The entry URL of an application: the transport of the first of its
// labels that has one (labels in the order of the application descriptor;
// transports of the application first, then the common loop). With
// `broadband` false a carousel transport is preferred to HTTP, as a
// receiver without a broadband connection does. HTTP: the first URL base
// plus the location; carousel: "dvb://onid.tsid.sid.ctag/" (lower-case hex;
// the remote service or `own`) plus the location. Empty when no transport
// is usable; `chosen` (may be null) receives the transport.
struct Triplet {
    int onid = 0, tsid = 0, sid = 0;
};
std::string entry_url(const AitRecord& ait, const AitApplication& app, const Triplet& own,
                      bool broadband, const AitTransport** chosen = nullptr);

// An AitTable as a middleware fills it (the record layout of the porting
// header), owned by the handle: the caller keeps it for the AIT callback and
// the handle frees it. Built from every section of one version.
struct AitTableDeleter {
    void operator()(AitTable* table) const;
};
using AitTablePtr = std::unique_ptr<AitTable, AitTableDeleter>;
AitTablePtr make_ait_table(const std::vector<AitRecord>& sections, const Triplet& service,
                           bool broadband);

// ---- a capture: services and collected tables ------------------------------------------

struct ServiceInfo {
    uint16_t sid = 0;
    uint16_t pmt_pid = 0;
    bool has_pmt = false;
    int onid = -1, tsid = -1;
    int type = -1;
    std::string name, provider;
    std::vector<Component> components;
};

// One complete version of an AIT subtable on a PID (all its sections).
struct AitVersion {
    uint16_t pid = 0;
    int service = -1;  // the service whose PMT names the PID, -1 when unknown
    std::vector<AitRecord> sections;
};

// A Demux with the service map and the AIT and EIT collectors. Handlers for
// other tables (the carousel, stream events) go on demux().
class Capture {
public:
    Capture();
    Demux& demux() { return demux_; }
    const Demux& demux() const { return demux_; }

    // Called for each complete AIT version (a version is reported once; a
    // change of version is reported again).
    void on_ait_version(std::function<void(const AitVersion&)> fn) { ait_fn_ = std::move(fn); }
    // Called for each EIT event not seen before (the same service, id,
    // start, duration and title from a repeated section are not repeated).
    void on_eit_event(std::function<void(const EitRecord&, const EitEvent&)> fn) {
        eit_fn_ = std::move(fn);
    }
    // Called when a service's PMT or SDT entry changed what is known of it.
    void on_service(std::function<void(const ServiceInfo&)> fn) { service_fn_ = std::move(fn); }

    void push(const uint8_t packet[kPacketSize]) { demux_.push(packet); }

    const std::map<uint16_t, ServiceInfo>& services() const { return services_; }
    int tsid() const { return tsid_; }
    int onid() const { return onid_; }
    // The service whose PMT names the PID as AIT, carousel or stream events, or -1.
    int service_of_pid(uint16_t pid) const;
    // Decoders' and collectors' skipped items, each counted once per text.
    const std::map<std::string, uint64_t>& skipped() const { return skipped_; }
    uint64_t ait_versions() const { return ait_versions_; }
    uint64_t eit_events() const { return eit_events_; }

private:
    struct AitCollector {
        int delivered = -1;
        int version = -1;
        std::map<int, AitRecord> sections;
    };
    void note(const Skipped& items);
    void pat(const Section& s);
    void pmt(const Section& s);
    void sdt(const Section& s);
    void eit(const Section& s);
    void ait(const Section& s);
    ServiceInfo& service(uint16_t sid);
    void changed(uint16_t sid);

    Demux demux_;
    std::map<uint16_t, ServiceInfo> services_;
    std::map<std::pair<uint16_t, int>, AitCollector> ait_;  // (PID, app type)
    std::set<std::string> eit_seen_;
    std::map<std::string, uint64_t> skipped_;
    std::function<void(const AitVersion&)> ait_fn_;
    std::function<void(const EitRecord&, const EitEvent&)> eit_fn_;
    std::function<void(const ServiceInfo&)> service_fn_;
    int tsid_ = -1, onid_ = -1;
    uint64_t ait_versions_ = 0, eit_events_ = 0;
};

// ---- playing a capture into the simulated receiver -------------------------------------

namespace dsmcc {
class DsmccCollector;
}
// The carousels and stream events a player feeds (dsmcc_player.cpp).
struct DsmccFeed;
struct DsmccFeedDeleter {
    void operator()(DsmccFeed* feed) const;
};

struct PlayerOptions {
    std::string source;   // file, "-" or "udp://127.0.0.1:PORT"
    int service = -1;     // service id; -1: the first whose PMT signals an HbbTV AIT
    bool realtime = false;  // pace by the PCR; false: as fast as possible
    bool broadband = true;  // false: carousel transports are preferred
    bool feed_channels = true;
    bool feed_eit = true;
    // Object carousels are written into generations of a directory below
    // carousel_dir ("": a fresh one under $TMPDIR or /tmp, removed with the
    // player) and served as the carousels of their component tags; a module
    // that changes version serves a new generation and fires the module
    // update notification. They are served while the player lives.
    bool feed_carousels = true;
    std::string carousel_dir;
    // Stream events fire the listeners subscribed to them: by component tag
    // and event id, and through the carousel's stream-event objects by name.
    bool feed_stream_events = true;
    int udp_idle_ms = 5000;
};

struct PlayerStats {
    uint64_t packets = 0;
    uint64_t pcr_packets = 0;        // packets carrying a PCR (none: nothing to pace by)
    uint64_t ait_versions = 0;       // complete versions of the service's AIT
    uint64_t ait_delivered = 0;      // HbbTV tables handed to the AIT callback
    uint64_t ait_not_delivered = 0;  // other application types, listed only
    uint64_t eit_events = 0;         // distinct events decoded
    uint64_t eit_fed = 0;            // events added to the EIT cache
    uint64_t eit_unrepresentable = 0;  // start outside the cache's 32-bit time
    uint64_t channels_added = 0;
    uint64_t carousel_modules = 0;     // module versions completed
    uint64_t carousels_served = 0;     // trees handed to the simulated carousel
    uint64_t module_updates = 0;       // module update notifications fired
    uint64_t stream_events = 0;        // new stream events of the service
    uint64_t stream_event_listeners = 0;  // subscriptions they reached
};

// Plays a capture into the simulated receiver: the services become
// channels (the selected one current), the selected service's HbbTV AIT
// versions reach the library through hbb_sim_fire_ait, one call per new
// version, EIT events fill the simulated EIT cache, the service's object
// carousels are served and its stream events fire subscribed listeners
// (see PlayerOptions). Other tables are decoded and counted. The demux is
// reachable for more handlers before play starts.
class CapturePlayer {
public:
    CapturePlayer();
    ~CapturePlayer();
    CapturePlayer(const CapturePlayer&) = delete;
    CapturePlayer& operator=(const CapturePlayer&) = delete;

    // Opens the source; false with error() set when it cannot be read.
    bool open(const PlayerOptions& options);
    // Plays to the end of the input or until stop(); false on a read error.
    bool run();
    // run() on a thread of its own; wait() joins it and answers run()'s result.
    void start();
    bool wait();
    // Ends the play soon, from any thread (the pacer and the reader wake).
    void stop();
    // Makes the next run() play the source again (PacketReader::replay),
    // with everything decoded so far kept, as a receiver sees a looping
    // broadcast: versions seen already are not delivered again, sections
    // that changed are. Only while nothing plays; false with error() set.
    bool replay();

    Capture& capture() { return capture_; }
    const Capture& capture() const { return capture_; }
    const PlayerStats& stats() const { return stats_; }
    const ReaderStats& reader_stats() const { return reader_.stats(); }
    const std::string& error() const { return error_; }
    // The service being played (-1 until one is chosen).
    int service() const { return selected_; }
    // The channel position of the played service, -1 before it has one.
    int channel_position() const;
    // The last AIT table handed over (for logs and tests); null when none.
    const AitTable* last_ait() const { return last_ait_.get(); }
    // Called on the playing thread just before each AIT version is handed
    // over (with the PID it came on) and just after.
    void on_ait_delivering(std::function<void(const AitTable&, uint16_t pid)> fn) {
        delivering_fn_ = std::move(fn);
    }
    void on_ait_delivered(std::function<void(const AitTable&)> fn) { delivered_fn_ = std::move(fn); }
    // The carousels and stream events seen (read it after wait(), or while
    // nothing plays); null before open().
    const dsmcc::DsmccCollector* dsmcc() const;
    // The directory the carousel of a component tag is served from now, ""
    // when none.
    std::string carousel_directory(int component_tag) const;

private:
    void ait_version(const AitVersion& version);
    void eit_event(const EitRecord& table, const EitEvent& event);
    void service_changed(const ServiceInfo& service);
    int ensure_channel(const ServiceInfo& service);

    PlayerOptions options_;
    PacketReader reader_;
    Pacer pacer_;
    Capture capture_;
    PlayerStats stats_;
    std::string error_;
    int selected_ = -1;
    std::map<uint16_t, int> channel_positions_;
    AitTablePtr last_ait_;
    std::function<void(const AitTable&, uint16_t)> delivering_fn_;
    std::function<void(const AitTable&)> delivered_fn_;
    std::thread thread_;
    bool result_ = true;
    // Last: it feeds on capture_ and goes first.
    void attach_dsmcc();
    std::unique_ptr<DsmccFeed, DsmccFeedDeleter> dsmcc_;
};

// ---- DSM-CC: object carousels and stream events ------------------------------------
//
// The carousel (tables 0x3B and 0x3C) and the stream descriptors (0x3D) of
// a capture, in layers:
// - section decoders: pure functions from one whole section to a record plus
//   what was skipped and why (Decoded<T>); each record has a text dump;
// - ModuleAssembler / inflate_module: the blocks of one module version in
//   any order, checked against its DII, inflated when compressed; never more
//   memory than the module's stated size;
// - decode_biop_module: the objects a module carries (service gateway,
//   directories, files, streams, stream events);
// - ObjectCarousel: all of it for one PID, and the tree of names walked from
//   the service gateway, with the module versions that completed;
// - StreamEventWatch: the events of 0x3D sections that are new (a broadcast
//   repeats each section);
// - DsmccCollector: the carousels and stream events of a Capture, with the
//   component tag of each PID;
// - write_carousel: a tree as files, the way the simulated carousel serves
//   a directory (CapturePlayer publishes carousels so).
// Nothing keeps a pointer into a section after the call returns, and
// nothing reads outside the bytes it was given.
namespace dsmcc {

using Bytes = std::vector<uint8_t>;

// The result of a decoder: `ok` false means nothing usable came out
// (`skipped` says why); `ok` true may still list parts that were skipped.
template <typename T>
struct Decoded {
    bool ok = false;
    T value{};
    Skipped skipped;
};

constexpr uint8_t kTableDownloadControl = 0x3B;    // DSI and DII
constexpr uint8_t kTableDownloadData = 0x3C;       // DDB
constexpr uint8_t kTableStreamDescriptors = 0x3D;  // stream events, NPT

// ---- download messages (0x3B, 0x3C) -----------------------------------------

constexpr uint16_t kMessageDii = 0x1002;
constexpr uint16_t kMessageDdb = 0x1003;
constexpr uint16_t kMessageDsi = 0x1006;

// Tap uses that matter here.
constexpr uint16_t kTapDeliveryParameters = 0x0016;  // the DII of a carousel
constexpr uint16_t kTapObject = 0x0017;              // the DDBs of a module
constexpr uint16_t kTapStreamNpt = 0x000B;
constexpr uint16_t kTapStreamStatusAndEvent = 0x000C;
constexpr uint16_t kTapStreamEvent = 0x000D;
constexpr uint16_t kTapStreamStatus = 0x000E;

struct Tap {
    uint16_t id = 0;
    uint16_t use = 0;
    uint16_t association_tag = 0;
    Bytes selector;
};

// An object reference (IOR) with its BIOP profile: where the object is
// (carousel, module, key) and the taps that lead to it.
struct ObjectRef {
    std::string kind;  // "srg", "dir", "fil", "str", "ste" (long type ids mapped to these)
    bool located = false;
    uint32_t carousel_id = 0;
    uint16_t module_id = 0;
    uint8_t version_major = 0;
    uint8_t version_minor = 0;
    Bytes object_key;
    std::vector<Tap> taps;
};

struct Dsi {
    uint32_t transaction_id = 0;
    ObjectRef service_gateway;
};

struct ModuleInfo {
    uint16_t module_id = 0;
    uint32_t size = 0;  // as carried (compressed size for a compressed module)
    uint8_t version = 0;
    uint32_t module_timeout = 0;
    uint32_t block_timeout = 0;
    uint32_t min_block_time = 0;
    std::vector<Tap> taps;
    bool compressed = false;
    uint8_t compression_method = 0;
    uint32_t original_size = 0;  // compressed modules: the inflated size
};

struct Dii {
    uint32_t transaction_id = 0;
    uint32_t download_id = 0;
    uint16_t block_size = 0;
    std::vector<ModuleInfo> modules;
};

struct Ddb {
    uint32_t download_id = 0;
    uint16_t module_id = 0;
    uint8_t module_version = 0;
    uint16_t block_number = 0;
    Bytes data;
};

// The message id of a download section (0x3B or 0x3C), 0 when it has none.
uint16_t download_message_id(const uint8_t* section, std::size_t length);
Decoded<Dsi> decode_dsi(const uint8_t* section, std::size_t length);
Decoded<Dii> decode_dii(const uint8_t* section, std::size_t length);
Decoded<Ddb> decode_ddb(const uint8_t* section, std::size_t length);
std::string dump(const Dsi& dsi);
std::string dump(const Dii& dii);
std::string dump(const Ddb& ddb);

// ---- modules ------------------------------------------------------------------

// Collects the blocks of one module version. Memory grows only with the
// blocks that arrived and never beyond the module's stated size.
class ModuleAssembler {
public:
    ModuleAssembler(const ModuleInfo& module, uint16_t block_size);

    enum class Result { Added, Repeated, Refused };
    // `why` (may be null) receives the reason of a refusal.
    Result add(const Ddb& block, std::string* why);
    bool complete() const { return received_blocks_ == blocks_.size(); }
    std::size_t received_blocks() const { return received_blocks_; }
    std::size_t total_blocks() const { return blocks_.size(); }
    std::size_t received_bytes() const { return received_bytes_; }
    // The module's bytes in block order; empty until complete.
    Bytes assemble() const;

private:
    ModuleInfo module_;
    uint16_t block_size_ = 0;
    std::vector<Bytes> blocks_;
    std::vector<bool> present_;
    std::size_t received_blocks_ = 0;
    std::size_t received_bytes_ = 0;
};

// Inflates a compressed module (zlib). It must inflate to exactly
// `stated_size` bytes: more is refused as soon as it shows, without
// inflating further. The caller bounds `stated_size` (ObjectCarousel: by
// max_module_size): that much is allocated.
Decoded<Bytes> inflate_module(const uint8_t* data, std::size_t size, std::size_t stated_size);

// ---- BIOP objects -----------------------------------------------------------------

struct Binding {
    std::string name;
    std::string kind;
    uint8_t binding_type = 0;  // 1 object, 2 context
    ObjectRef ref;
};

struct BiopObject {
    Bytes key;
    std::string kind;                      // "srg", "dir", "fil", "str", "ste"
    std::vector<Binding> bindings;         // srg, dir
    Bytes content;                         // fil
    std::vector<std::string> event_names;  // ste
    std::vector<uint16_t> event_ids;  // ste, in the order of the names
    std::vector<Tap> taps;                 // str, ste
};

// The BIOP messages of a whole module, in order. A message that does not fit
// ends the walk (the messages before it are kept); objects of an unknown
// kind are skipped.
Decoded<std::vector<BiopObject>> decode_biop_module(const uint8_t* data, std::size_t size);
std::string dump(const BiopObject& object);

// ---- the carousel of one PID ---------------------------------------------------------

struct CarouselLimits {
    std::size_t max_module_size = 16u << 20;    // stated or inflated
    std::size_t max_carousel_bytes = 64u << 20; // blocks held plus module contents
    std::size_t max_early_block_bytes = 4u << 20; // DDBs that came before their DII
    std::size_t max_depth = 32;                 // directory levels
    std::size_t max_entries = 65536;            // named objects in the tree
};

struct CarouselEntry {
    enum class Kind { Directory, File, Stream, StreamEvent };
    Kind kind = Kind::File;
    std::string path;  // "" for the service gateway, "dir/name" below it
    uint16_t module_id = 0;
    uint8_t module_version = 0;
    std::shared_ptr<const BiopObject> object;  // content, events and taps
};
const char* kind_name(CarouselEntry::Kind kind);

struct CarouselTree {
    bool has_gateway = false;  // false until DSI and the gateway's module arrived
    uint32_t carousel_id = 0;
    // The association tag the carousel's own taps name (its component tag
    // when the broadcaster follows the usual rule), -1 when none does.
    int association_tag = -1;
    std::vector<CarouselEntry> entries;  // depth first, in carousel order
    // Objects that are bound in a directory but whose module has not
    // arrived (complete) yet, as "path (module N)".
    std::vector<std::string> missing;
    // Bindings left out of the tree and why (unusable or repeated names,
    // cycles, objects of another carousel, limits).
    Skipped skipped;
};

struct ModuleChange {
    uint16_t module_id = 0;
    uint8_t version = 0;
    bool replaced = false;      // an earlier version was complete before
    bool directories = false;   // it carries a directory or the service gateway
};

struct CarouselCounts {
    uint64_t sections = 0;
    uint64_t dsi = 0;
    uint64_t dii = 0;
    uint64_t ddb = 0;
    uint64_t modules_complete = 0;  // module versions assembled and decoded
    uint64_t modules_replaced = 0;  // ... of which replaced an earlier version
    uint64_t skipped = 0;           // every skip below, each logged once per cause
};

// Everything on one PID's download sections: the DSI, the DIIs and the
// modules their DDBs assemble. Not thread-safe; one owner feeds it.
class ObjectCarousel {
public:
    // Skips are logged (level 3) once per distinct reason and counted
    // every time.
    explicit ObjectCarousel(int pid, CarouselLimits limits = {});
    ~ObjectCarousel();
    ObjectCarousel(const ObjectCarousel&) = delete;
    ObjectCarousel& operator=(const ObjectCarousel&) = delete;

    int pid() const;
    // The association tag the carousel's DSI names for its DII (its
    // component tag when the broadcaster follows the usual rule), -1 before
    // a DSI or when it names none.
    int association_tag() const;
    // One whole section of table 0x3B or 0x3C; others are counted and
    // skipped. Returns the module versions this section completed.
    std::vector<ModuleChange> feed(const uint8_t* section, std::size_t length);
    // The named objects reachable from the service gateway now.
    CarouselTree tree() const;
    CarouselCounts counts() const;
    // Modules a DII announced that are not complete, as
    // "module N version V: B of T blocks", for the end of a capture.
    std::vector<std::string> incomplete_modules() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// ---- stream descriptors (0x3D) ----------------------------------------------------------

constexpr uint8_t kDescriptorNptReference = 0x17;
constexpr uint8_t kDescriptorNptEndpoint = 0x18;
constexpr uint8_t kDescriptorStreamMode = 0x19;
constexpr uint8_t kDescriptorStreamEvent = 0x1A;

struct StreamDescriptor {
    uint8_t tag = 0;
    // NPT reference
    bool post_discontinuity = false;
    uint8_t content_id = 0;
    uint64_t stc_reference = 0;
    uint64_t npt_reference = 0;
    uint16_t scale_numerator = 0;
    uint16_t scale_denominator = 0;
    // NPT endpoint
    uint64_t start_npt = 0;
    uint64_t stop_npt = 0;
    // stream mode
    uint8_t stream_mode = 0;
    // stream event
    uint16_t event_id = 0;
    uint64_t event_npt = 0;
    Bytes private_data;
};

struct StreamDescriptorSection {
    SectionHeader header;  // extension, version, number of the section
    std::vector<StreamDescriptor> descriptors;  // the four kinds above, in order
};
Decoded<StreamDescriptorSection> decode_stream_descriptors(const uint8_t* section,
                                                           std::size_t length);
std::string dump(const StreamDescriptorSection& section);

struct StreamEvent {
    int pid = 0;
    uint16_t table_id_extension = 0;
    uint8_t version = 0;
    uint16_t event_id = 0;
    uint64_t npt = 0;
    Bytes data;
};
// "streamevent pid=0x138f event=1 npt=0x000000000 data=48656c6c6f version=0"
std::string event_line(const StreamEvent& event);

// Tells new events from repeats: a 0x3D section brings new events when it
// differs from the last one seen on its PID and table id extension (a new
// version, or new content under the same version). Repeated sections, as a
// broadcast sends them several times, bring none.
class StreamEventWatch {
public:
    std::vector<StreamEvent> feed(int pid, const StreamDescriptorSection& section,
                                  const uint8_t* bytes, std::size_t length);

private:
    std::map<std::pair<int, uint16_t>, Bytes> last_;
};

// ---- a capture's carousels and stream events ----

// The carousels and stream events of a Capture. It registers its handlers
// on the capture's demux (which also finds the PIDs of these tables when no
// PMT names them), so it must live as long as the capture is fed.
class DsmccCollector {
public:
    explicit DsmccCollector(Capture& capture, CarouselLimits limits = {});
    ~DsmccCollector();
    DsmccCollector(const DsmccCollector&) = delete;
    DsmccCollector& operator=(const DsmccCollector&) = delete;

    // Called when a section completed module versions of a carousel.
    void on_carousel_change(std::function<void(const ObjectCarousel&, const std::vector<ModuleChange>&)> fn) {
        carousel_fn_ = std::move(fn);
    }
    // Called for each new stream event.
    void on_stream_event(std::function<void(const StreamEvent&)> fn) { event_fn_ = std::move(fn); }

    // By PID.
    const std::map<uint16_t, std::unique_ptr<ObjectCarousel>>& carousels() const { return carousels_; }
    // The component tag of a PID: its stream identifier in a PMT; without
    // one, for a carousel the association tag of its DSI, and for stream
    // events the tag the carousels' stream-event objects name when they name
    // just one tag not otherwise placed and this is the only stream-event PID
    // without a tag. -1 when unknown.
    int component_tag(uint16_t pid) const;

    struct Counts {
        uint64_t stream_sections = 0;
        uint64_t stream_events = 0;   // new events (repeats not counted)
        uint64_t stream_skipped = 0;  // descriptors or sections skipped
        uint64_t carousels_refused = 0;  // sections of PIDs beyond the carousel limit
    };
    const Counts& counts() const { return counts_; }

private:
    void download_section(const Section& section);
    void stream_section(const Section& section);
    int pmt_tag(uint16_t pid) const;

    Capture& capture_;
    CarouselLimits limits_;
    std::map<uint16_t, std::unique_ptr<ObjectCarousel>> carousels_;
    std::set<uint16_t> stream_pids_;
    std::set<int> event_tags_;  // named by the carousels' stream-event objects
    StreamEventWatch watch_;
    std::set<std::string> logged_;
    Counts counts_;
    std::function<void(const ObjectCarousel&, const std::vector<ModuleChange>&)> carousel_fn_;
    std::function<void(const StreamEvent&)> event_fn_;
};

// Writes a tree under `dir` (created when missing) the way the simulated
// carousel serves a directory: directories as directories, files with their
// bytes, and a stream-event object NAME as the file "NAME.ste" with one
// event name per line. Streams have no file form and are left out.
// Existing files are replaced; symbolic links are never followed. False
// when something could not be written; `problems` (may be null) lists what
// was left out or failed.
bool write_carousel(const CarouselTree& tree, const std::string& dir, Skipped* problems);

// One line per entry of a carousel, e.g.
// `file tag=0x17 path="/base.css" size=369 module=1 version=1`
// `ste tag=0x17 path="/sevent" events=badid:2,testevent:1 event_tag=0x13 module=1 version=1`
std::string entry_line(int component_tag, const CarouselEntry& entry);
// The tag of the stream whose events a stream-event (or stream) object
// names, -1 when none of its taps does.
int event_stream_tag(const BiopObject& object);

}  // namespace dsmcc

}  // namespace ts
