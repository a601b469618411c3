// Plays a capture into the simulated receiver through its control API
// (hbb_sim.h): services become channels, the selected service's HbbTV AIT
// versions reach the library's AIT callback, EIT events fill the EIT cache.
#include <climits>
#include <cstdio>
#include <cstring>

#include "dvbpsi_glue.h"
#include "hbb_sim.h"

namespace ts {
namespace {

ChannelType channel_type(int service_type) {
    switch (service_type) {
        case 0x02:
        case 0x07:
        case 0x0A: return CHANNEL_TYPE_RADIO;
        case 0x01:
        case 0x11:
        case 0x16:
        case 0x19:
        case 0x1F:
        case 0x20: return CHANNEL_TYPE_TV;
        default: return CHANNEL_TYPE_OTHER;
    }
}

bool signals_hbbtv(const ServiceInfo& info) {
    for (const auto& c : info.components)
        for (const auto& [type, version] : c.ait_types)
            if (type == HBBTV_APPLICATION_TYPE) return true;
    return false;
}

hbb_sim_dvb_text text_of(const std::vector<uint8_t>& bytes) {
    static const unsigned char kEmpty = 0;
    return {bytes.empty() ? &kEmpty : bytes.data(), static_cast<int>(bytes.size())};
}

}  // namespace

CapturePlayer::CapturePlayer() {
    capture_.on_ait_version([this](const AitVersion& v) { ait_version(v); });
    capture_.on_eit_event([this](const EitRecord& t, const EitEvent& e) { eit_event(t, e); });
    capture_.on_service([this](const ServiceInfo& s) { service_changed(s); });
}

CapturePlayer::~CapturePlayer() {
    stop();
    if (thread_.joinable()) thread_.join();
}

bool CapturePlayer::open(const PlayerOptions& options) {
    options_ = options;
    selected_ = options.service;
    pacer_.set_realtime(options.realtime);
    reader_.set_idle_timeout_ms(options.udp_idle_ms);
    if (!reader_.open(options.source)) {
        error_ = reader_.error();
        return false;
    }
    attach_dsmcc();
    return true;
}

bool CapturePlayer::run() {
    uint8_t packet[kPacketSize];
    uint64_t pcr = 0;
    while (reader_.next(packet)) {
        ++stats_.packets;
        if (packet_pcr(packet, &pcr)) ++stats_.pcr_packets;
        pacer_.pace(packet);
        capture_.push(packet);
    }
    const ReaderStats& r = reader_.stats();
    char line[200];
    std::snprintf(line, sizeof line,
                  "capture played: %llu packets, %llu resyncs (%llu bytes skipped), %llu bytes "
                  "of a truncated packet",
                  static_cast<unsigned long long>(r.packets), static_cast<unsigned long long>(r.resyncs),
                  static_cast<unsigned long long>(r.skipped_bytes),
                  static_cast<unsigned long long>(r.truncated_bytes));
    log(2, line);
    if (!reader_.error().empty()) {
        error_ = reader_.error();
        return false;
    }
    return true;
}

bool CapturePlayer::replay() {
    if (thread_.joinable()) {
        error_ = "the capture is still playing";
        return false;
    }
    if (!reader_.replay()) {
        error_ = reader_.error();
        return false;
    }
    error_.clear();
    pacer_.reset();
    return true;
}

void CapturePlayer::start() {
    if (thread_.joinable()) return;  // already playing
    thread_ = std::thread([this] { result_ = run(); });
}

bool CapturePlayer::wait() {
    if (thread_.joinable()) thread_.join();
    return result_;
}

void CapturePlayer::stop() {
    reader_.stop();
    pacer_.stop();
}

void CapturePlayer::service_changed(const ServiceInfo& service) {
    if (selected_ < 0 && options_.service < 0 && signals_hbbtv(service)) {
        selected_ = service.sid;
        log(2, "service " + detail::hex(service.sid) + " selected: its PMT signals an HbbTV AIT");
    }
    if (options_.feed_channels && (service.has_pmt || !service.name.empty())) ensure_channel(service);
}

// Adds or refreshes the service's channel; the selected service's channel
// becomes current when it is added. Its position, or -1.
int CapturePlayer::ensure_channel(const ServiceInfo& service) {
    char ccid[32];
    std::snprintf(ccid, sizeof ccid, "ccid:%u", service.sid);
    std::string name = service.name.empty() ? "service " + detail::hex(service.sid) : service.name;
    Channel channel{};
    channel.type = channel_type(service.type);
    channel.ccid = ccid;
    channel.onid = service.onid >= 0 ? service.onid : 0;
    channel.tsid = service.tsid >= 0 ? service.tsid : 0;
    channel.sid = service.sid;
    channel.name = name.data();
    // The capture does not say how it was received (the NIT is not read):
    // ID_DVB_T, terrestrial, as most HbbTV captures are.
    channel.idType = 12;
    const auto known = channel_positions_.find(service.sid);
    int position = -1;
    if (known != channel_positions_.end()) {
        position = known->second;
        hbb_sim_update_channel(position, &channel);
    } else {
        position = hbb_sim_add_channel(&channel);
        if (position < 0) return -1;
        channel_positions_[service.sid] = position;
        ++stats_.channels_added;
        if (service.sid == selected_) hbb_sim_set_current_channel(position);
    }
    // Its carousels and stream events are components the channel carries.
    for (const Component& c : service.components)
        if (c.component_tag >= 0 &&
            (c.kind == ComponentKind::Carousel || c.kind == ComponentKind::StreamEvents))
            hbb_sim_add_data_component(position, c.component_tag);
    return position;
}

int CapturePlayer::channel_position() const {
    const auto known = channel_positions_.find(static_cast<uint16_t>(selected_));
    return selected_ >= 0 && known != channel_positions_.end() ? known->second : -1;
}

void CapturePlayer::ait_version(const AitVersion& version) {
    const AitRecord& first = version.sections.front();
    int sid = version.service;
    if (sid < 0) {
        // A cut-down capture without the PMT that names the PID: its AIT is
        // taken as the selected service's.
        sid = selected_ >= 0 ? selected_ : 0;
        log(2, "AIT on pid " + detail::hex(version.pid) + " without a PMT naming it: taken as service " +
                   detail::hex(static_cast<unsigned>(sid)) + "'s");
    }
    if (selected_ < 0 && first.app_type == HBBTV_APPLICATION_TYPE) selected_ = sid;
    if (sid != selected_) return;
    ++stats_.ait_versions;
    if (first.app_type != HBBTV_APPLICATION_TYPE) {
        ++stats_.ait_not_delivered;
        log(2, "AIT of application type " + detail::hex(static_cast<unsigned>(first.app_type), 4) +
                   " version " + std::to_string(first.version) + " listed, not delivered");
        return;
    }
    Triplet triplet;
    const auto& services = capture_.services();
    const auto it = services.find(static_cast<uint16_t>(sid));
    ServiceInfo info;
    if (it != services.end()) info = it->second;
    info.sid = static_cast<uint16_t>(sid);
    if (info.tsid < 0) info.tsid = capture_.tsid();
    if (info.onid < 0) info.onid = capture_.onid();
    triplet.onid = info.onid >= 0 ? info.onid : 0;
    triplet.tsid = info.tsid >= 0 ? info.tsid : 0;
    triplet.sid = sid;
    if (options_.feed_channels) ensure_channel(info);
    AitTablePtr table = make_ait_table(version.sections, triplet, options_.broadband);
    if (!table) {
        log(5, "AIT version " + std::to_string(first.version) + " could not be built (out of memory)");
        return;
    }
    if (delivering_fn_) delivering_fn_(*table, version.pid);
    if (hbb_sim_fire_ait(table.get()) == 0) {
        ++stats_.ait_delivered;
        log(2, "AIT version " + std::to_string(first.version) + " of " + table->dvb_url + " with " +
                   std::to_string(table->app_lenght) + " applications delivered");
    } else {
        log(3, "AIT version " + std::to_string(first.version) +
                   " decoded but nobody subscribed to AITs");
    }
    last_ait_ = std::move(table);
    if (delivered_fn_) delivered_fn_(*last_ait_);
}

void CapturePlayer::eit_event(const EitRecord& table, const EitEvent& event) {
    ++stats_.eit_events;
    if (!options_.feed_eit) return;
    // The cache keeps times in the porting layer's 32-bit int.
    if (!event.start_known || event.start < 0 || event.start > INT_MAX) {
        if (++stats_.eit_unrepresentable == 1)
            log(3, "EIT events starting after 2038-01-19 (or undefined) are not fed to the "
                   "EIT cache, whose times are 32-bit; they are counted");
        return;
    }
    std::vector<hbb_sim_dvb_text> extended;
    for (const auto& segment : event.raw_extended) extended.push_back(text_of(segment));
    hbb_sim_eit_event e{};
    e.onid = table.onid;
    e.tsid = table.tsid;
    e.sid = table.sid;
    e.event_id = event.event_id;
    e.start_time = static_cast<int>(event.start);
    e.duration = event.duration;
    const bool has_short = !event.language.empty();
    if (has_short) {
        e.name = text_of(event.raw_title);
        e.short_description = text_of(event.raw_text);
    }
    e.extended_description = extended.empty() ? nullptr : extended.data();
    e.extended_segments = static_cast<int>(extended.size());
    if (hbb_sim_eit_add_event(&e) == 0) ++stats_.eit_fed;
}

}  // namespace ts
