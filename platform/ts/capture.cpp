// The service map (PAT -> PMT -> components, SDT names) and the collectors
// that turn sections into complete AIT versions and distinct EIT events.
#include <cstdio>

#include "dvbpsi_glue.h"

namespace ts {
namespace {

// Distinct skipped texts kept; more are counted under one line, so a
// stream of garbage cannot grow the table.
constexpr std::size_t kMaxSkippedTexts = 256;
// Distinct EIT events remembered for the "not seen before" test; a live
// stream that runs for days starts afresh when it is reached.
constexpr std::size_t kMaxEitEvents = 200000;

}  // namespace

Capture::Capture() {
    demux_.on_pid(0x0000, [this](const Section& s) { pat(s); });
    demux_.on_pid(0x0011, [this](const Section& s) { sdt(s); });
    demux_.on_pid(0x0012, [this](const Section& s) { eit(s); });
    demux_.on_table(0x02, [this](const Section& s) { pmt(s); });
    demux_.on_table(0x74, [this](const Section& s) { ait(s); });
    demux_.discover({0x02, 0x74, 0x3B, 0x3C, 0x3D});
}

void Capture::note(const Skipped& items) {
    for (const auto& item : items) {
        std::string key = item;
        if (skipped_.count(key) == 0 && skipped_.size() >= kMaxSkippedTexts) key = "other skipped items";
        if (++skipped_[key] == 1) log(3, "skipped: " + key);
    }
}

ServiceInfo& Capture::service(uint16_t sid) {
    ServiceInfo& s = services_[sid];
    s.sid = sid;
    return s;
}

void Capture::changed(uint16_t sid) {
    if (service_fn_) service_fn_(services_[sid]);
}

void Capture::pat(const Section& s) {
    if (s.table_id() != 0x00) return;
    PatRecord pat;
    Skipped skipped;
    const bool ok = decode_pat(s.data, s.size, &pat, &skipped);
    note(skipped);
    if (!ok) return;
    tsid_ = pat.tsid;
    for (const auto& [program, pid] : pat.programs) {
        if (program == 0) continue;  // the NIT's PID
        ServiceInfo& info = service(program);
        const bool news = info.pmt_pid != pid || info.tsid != pat.tsid;
        info.pmt_pid = pid;
        info.tsid = pat.tsid;
        if (info.onid < 0 && onid_ >= 0) info.onid = onid_;
        demux_.watch_pid(pid);
        if (news) changed(program);
    }
}

void Capture::pmt(const Section& s) {
    PmtRecord pmt;
    Skipped skipped;
    const bool ok = decode_pmt(s.data, s.size, &pmt, &skipped);
    note(skipped);
    if (!ok) return;
    ServiceInfo& info = service(pmt.program);
    info.has_pmt = true;
    info.pmt_pid = s.pid;
    if (info.tsid < 0 && tsid_ >= 0) info.tsid = tsid_;
    if (info.onid < 0 && onid_ >= 0) info.onid = onid_;
    bool news = info.components.size() != pmt.components.size();
    for (std::size_t i = 0; !news && i < pmt.components.size(); ++i)
        news = info.components[i].pid != pmt.components[i].pid ||
               info.components[i].kind != pmt.components[i].kind ||
               info.components[i].component_tag != pmt.components[i].component_tag;
    info.components = std::move(pmt.components);
    for (const auto& c : info.components)
        if (c.kind != ComponentKind::Other) demux_.watch_pid(c.pid);
    if (news) changed(pmt.program);
}

void Capture::sdt(const Section& s) {
    if (s.table_id() != 0x42 && s.table_id() != 0x46) return;  // BAT shares the PID
    SdtRecord sdt;
    Skipped skipped;
    const bool ok = decode_sdt(s.data, s.size, &sdt, &skipped);
    note(skipped);
    if (!ok || !sdt.actual) return;  // services of other streams are not tuned here
    onid_ = sdt.onid;
    if (tsid_ < 0) tsid_ = sdt.tsid;
    for (const auto& entry : sdt.services) {
        ServiceInfo& info = service(entry.sid);
        const bool news = info.name != entry.name || info.onid != sdt.onid || info.type != entry.type;
        info.onid = sdt.onid;
        if (info.tsid < 0) info.tsid = sdt.tsid;
        info.name = entry.name;
        info.provider = entry.provider;
        info.type = entry.type;
        if (news) changed(entry.sid);
    }
}

void Capture::eit(const Section& s) {
    if (s.table_id() < 0x4E || s.table_id() > 0x6F) return;
    EitRecord eit;
    Skipped skipped;
    const bool ok = decode_eit(s.data, s.size, &eit, &skipped);
    note(skipped);
    if (!ok) return;
    for (const auto& event : eit.events) {
        char key[96];
        std::snprintf(key, sizeof key, "%x.%x.%x;%x@%lld+%d:", eit.onid, eit.tsid, eit.sid,
                      event.event_id, static_cast<long long>(event.start_known ? event.start : -1),
                      event.duration);
        if (eit_seen_.size() >= kMaxEitEvents) eit_seen_.clear();
        if (!eit_seen_.insert(key + event.title).second) continue;
        ++eit_events_;
        if (eit_fn_) eit_fn_(eit, event);
    }
}

void Capture::ait(const Section& s) {
    AitRecord ait;
    Skipped skipped;
    const bool ok = decode_ait(s.data, s.size, &ait, &skipped);
    note(skipped);
    if (!ok) return;
    if (!ait.current) {
        note({"AIT section not yet applicable (current_next_indicator 0)"});
        return;
    }
    AitCollector& c = ait_[{s.pid, ait.app_type}];
    if (c.version != ait.version) {
        c.version = ait.version;
        c.sections.clear();
    }
    const int last = ait.last_number;
    c.sections[ait.number] = std::move(ait);
    if (c.delivered == c.version) return;
    for (int n = 0; n <= last; ++n)
        if (c.sections.count(n) == 0 || c.sections[n].last_number != last) return;
    c.delivered = c.version;
    ++ait_versions_;
    AitVersion version;
    version.pid = s.pid;
    version.service = service_of_pid(s.pid);
    for (int n = 0; n <= last; ++n) version.sections.push_back(c.sections[n]);
    if (ait_fn_) ait_fn_(version);
}

int Capture::service_of_pid(uint16_t pid) const {
    for (const auto& [sid, info] : services_)
        for (const auto& c : info.components)
            if (c.pid == pid && c.kind != ComponentKind::Other) return sid;
    return -1;
}

}  // namespace ts
