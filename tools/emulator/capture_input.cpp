#include "capture_input.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "receiver.h"
#include "ts_decode.h"

namespace appmgr::emu {

namespace {

// What a table id is, for the report's table lines.
const char* tableName(unsigned id) {
    if (id == 0x00) return "PAT";
    if (id == 0x02) return "PMT";
    if (id == 0x42 || id == 0x46) return "SDT";
    if (id == 0x4E || id == 0x4F || (id >= 0x50 && id <= 0x6F)) return "EIT";
    if (id == 0x74) return "AIT";
    if (id == ts::dsmcc::kTableDownloadControl) return "DSI/DII";
    if (id == ts::dsmcc::kTableDownloadData) return "DDB";
    if (id == ts::dsmcc::kTableStreamDescriptors) return "stream events";
    return "other";
}

// The carousels of a capture are written below a directory of the run's
// own (in its private /tmp when it has one), removed however the run ends.
std::string carouselRoot() {
    const char* tmp = std::getenv("TMPDIR");
    const std::string root =
        std::string(tmp && *tmp ? tmp : "/tmp") + "/appmgr-emu-carousels-" + std::to_string(::getpid());
    removeOnExit(root);
    return root;
}

// "0x00": table ids as appmgr-ts prints them.
std::string hexByte(unsigned v) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", v & 0xFFu);
    return text;
}

void toTrace(int level, const std::string& line) {
    emit(std::string("capture   ") + (level >= 5 ? "error: " : level >= 3 ? "warning: " : "") + line);
}

uint64_t tableTotal(const CaptureInput& c, uint64_t ts::TableStats::*field) {
    uint64_t total = 0;
    for (const auto& entry : c.player().capture().demux().table_stats()) total += entry.second.*field;
    return total;
}

}  // namespace

CaptureInput::CaptureInput() = default;

CaptureInput::~CaptureInput() {
    if (!player_) return;
    player_.reset();
    ts::set_log_default();
}

std::string CaptureInput::open(const CaptureSpec& wanted) {
    wanted_ = wanted;
    auto player = std::make_unique<ts::CapturePlayer>();
    ts::PlayerOptions options;
    options.source = wanted.path;
    options.service = wanted.service;
    options.realtime = wanted.realtime;
    options.broadband = wanted.broadband;
    options.carousel_dir = carouselRoot();
    if (!player->open(options)) return player->error();
    player_ = std::move(player);
    return "";
}

std::string CaptureInput::description() const {
    return "capture " + (wanted_.source == "-" ? std::string("on standard input") : wanted_.source) + " (" +
           (wanted_.service >= 0 ? "service " + hex(wanted_.service)
                               : "the first service whose PMT signals an HbbTV AIT") +
           ", " + (wanted_.realtime ? "paced by its PCR" : "as fast as it is read") +
           (wanted_.broadband ? "" : ", carousel transports preferred") + ")";
}

void CaptureInput::attach(ClaimLog<Decision>& decisions) {
    decisions_ = &decisions;
    ts::set_log_sink(toTrace);
    player_->on_ait_delivering([this](const AitTable& t, uint16_t pid) { beforeAit(t, pid); });
    player_->on_ait_delivered([this](const AitTable& t) { afterAit(t); });
    emit("receiver  broadcast from the " + description());
}

// The table as the middleware hands it over, the way deliver_ait shows a
// scenario's.
void CaptureInput::beforeAit(const AitTable& t, uint16_t pid) {
    libraryCall("aitUpdate(captured AIT on pid " + hex(pid) + ": type " + std::to_string(t.app_type) +
                ", version " + std::to_string(t.version) + (t.is_test_app ? ", test" : "") + ", " +
                quoted(t.dvb_url) + ", " + std::to_string(t.app_lenght) + " application" +
                (t.app_lenght == 1 ? "" : "s") + ")   [AIT subscription]");
    for (int i = 0; i < t.app_lenght && t.apps; ++i) emit(describeEntry(i, t.apps[i]));
    if (wanted_.service < 0 && player_->capture().service_of_pid(pid) < 0)
        emit("          (no PMT names pid " + hex(pid) + " and no service was given: its service id " +
             std::to_string(player_->service()) + " is a guess; give the service with --service SID or " +
             "[capture] service)");
    pid_ = pid;
    decisions_before_ = decisions_->count();
    delivered_before_ = player_->stats().ait_delivered;
}

void CaptureInput::afterAit(const AitTable& t) {
    CapturedAit a;
    a.pid = pid_;
    a.version = t.version;
    a.dvb_url = t.dvb_url;
    a.applications = t.app_lenght;
    a.delivered = player_->stats().ait_delivered > delivered_before_;
    a.decisions = decisions_->count() - decisions_before_;
    if (a.delivered)
        libraryDone();
    else
        emit("          -> not delivered: the library has not subscribed to AITs");
    aits_.push_back(a);
}

void CaptureInput::play() {
    start();
    wait();
}

void CaptureInput::start() {
    if (playing_) fail("the capture is playing already");
    if (played_ && !player_->replay()) fail("cannot play the capture again: " + player_->error());
    emit("receiver  plays the " + description() + (played_ ? " again, from its start" : ""));
    playing_ = true;
    player_->start();
}

void CaptureInput::wait() {
    if (!playing_) fail("no capture is playing (play_capture start begins a play)");
    const bool read = player_->wait();
    playing_ = false;
    played_ = true;
    if (!read) fail("the capture could not be read: " + player_->error());
    if (player_->stats().packets == 0)
        fail("the capture holds no transport-stream packet (188 bytes starting with 0x47)");
    report();
}

void CaptureInput::stop() {
    if (!playing_) return;
    player_->stop();
    wait();
}

// What the capture brought so far: its services, its tables, what the
// decoders skipped and the counts "expect capture" checks.
void CaptureInput::report() const {
    const ts::PlayerStats& stats = player_->stats();
    if (wanted_.realtime && stats.pcr_packets == 0)
        emit("capture   no PCR in the capture: it played as fast as it was read");
    const ts::Capture& capture = player_->capture();
    for (const auto& [sid, info] : capture.services()) {
        const int onid = info.onid >= 0 ? info.onid : capture.onid();
        const int tsid = info.tsid >= 0 ? info.tsid : capture.tsid();
        emit("capture   service " + hex(sid) + " " + quoted(info.name) + " " + hex(onid < 0 ? 0 : onid) + "." +
             hex(tsid < 0 ? 0 : tsid) + "." + hex(sid) + (sid == player_->service() ? " (played)" : ""));
    }
    for (const auto& [key, t] : capture.demux().table_stats())
        emit("capture   table pid=" + hex(key.first) + " id=" + hexByte(key.second) + " " + tableName(key.second) +
             " sections=" + std::to_string(t.sections) + " versions=" + std::to_string(t.versions) +
             " crc_failures=" + std::to_string(t.crc_failures));
    for (const auto& [what, count] : capture.skipped())
        emit("capture   skipped count=" + std::to_string(count) + " reason=" + quoted(what));
    std::string counts;
    for (const CaptureCount& c : captureCounts())
        counts += (counts.empty() ? "" : " ") + std::string(c.name) + "=" + std::to_string(c.value(*this));
    emit("capture   counts: " + counts);
}

const std::vector<CaptureCount>& captureCounts() {
    // A count of the player by its member.
#define APPMGR_PLAYER_COUNT(field) \
    {#field, [](const CaptureInput& c) -> uint64_t { return c.player().stats().field; }}
    static const std::vector<CaptureCount> counts{
        APPMGR_PLAYER_COUNT(packets),
        APPMGR_PLAYER_COUNT(pcr_packets),
        {"sections", [](const CaptureInput& c) { return tableTotal(c, &ts::TableStats::sections); }},
        {"crc_failures", [](const CaptureInput& c) { return tableTotal(c, &ts::TableStats::crc_failures); }},
        {"channels", [](const CaptureInput& c) -> uint64_t { return c.player().stats().channels_added; }},
        APPMGR_PLAYER_COUNT(ait_versions),
        APPMGR_PLAYER_COUNT(ait_delivered),
        APPMGR_PLAYER_COUNT(ait_not_delivered),
        {"ait_answered",
         [](const CaptureInput& c) -> uint64_t {
             uint64_t n = 0;
             for (const CapturedAit& a : c.aits()) n += a.delivered && a.decisions > 0;
             return n;
         }},
        APPMGR_PLAYER_COUNT(eit_events),
        APPMGR_PLAYER_COUNT(eit_fed),
        APPMGR_PLAYER_COUNT(eit_unrepresentable),
        APPMGR_PLAYER_COUNT(carousel_modules),
        APPMGR_PLAYER_COUNT(carousels_served),
        APPMGR_PLAYER_COUNT(module_updates),
        APPMGR_PLAYER_COUNT(stream_events),
        APPMGR_PLAYER_COUNT(stream_event_listeners),
    };
#undef APPMGR_PLAYER_COUNT
    return counts;
}

const CaptureCount* findCaptureCount(const std::string& name) {
    for (const CaptureCount& c : captureCounts())
        if (name == c.name) return &c;
    return nullptr;
}

}  // namespace appmgr::emu
