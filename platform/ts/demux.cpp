// Packets in, whole CRC-checked sections out. Each watched PID has a
// libdvbpsi handle whose decoder is our own gather function: libdvbpsi
// assembles the section across packets, checks its CRC and hands it over;
// we count it and pass its bytes to the handlers.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "dvbpsi_glue.h"

namespace ts {
namespace {

// Long enough for every private section (DSM-CC sections are up to 4096
// bytes; PSI and SI sections up to 1024 or 4096).
constexpr int kMaxSection = 4096;

struct gather_decoder {
    DVBPSI_DECODER_COMMON
};

LogSink& sink() {
    static LogSink s;
    return s;
}
bool& sink_set() {
    static bool set = false;
    return set;
}

}  // namespace

void set_log_sink(LogSink s) {
    sink() = std::move(s);
    sink_set() = true;
}

void set_log_default() {
    sink() = nullptr;
    sink_set() = false;
}

void log(int level, const std::string& line) {
    if (sink_set()) {
        if (sink()) sink()(level, line);
        return;
    }
    if (level >= 3) std::cerr << "ts: " << line << '\n';
}

bool read_section_header(const uint8_t* bytes, std::size_t size, SectionHeader* out,
                         std::string* why) {
    if (size < 3) {
        if (why) *why = "section shorter than its header";
        return false;
    }
    SectionHeader h;
    h.table_id = bytes[0];
    h.long_form = (bytes[1] & 0x80) != 0;
    h.length = static_cast<uint16_t>(((bytes[1] & 0x0F) << 8) | bytes[2]);
    if (static_cast<std::size_t>(h.length) + 3 > size) {
        if (why) {
            char text[96];
            std::snprintf(text, sizeof text, "section length %u runs past its %zu bytes",
                          static_cast<unsigned>(h.length), size - 3);
            *why = text;
        }
        return false;
    }
    if (h.long_form) {
        if (h.length < 9) {  // extension .. last_number and the CRC
            if (why) *why = "long section too short for its header and CRC";
            return false;
        }
        h.extension = static_cast<uint16_t>((bytes[3] << 8) | bytes[4]);
        h.version = (bytes[5] >> 1) & 0x1F;
        h.current = (bytes[5] & 1) != 0;
        h.number = bytes[6];
        h.last_number = bytes[7];
    }
    *out = h;
    return true;
}

struct Demux::Pid {
    Demux* owner = nullptr;
    uint16_t pid = 0;
    dvbpsi_t* handle = nullptr;
};

// libdvbpsi's callbacks, with access to the demux's private parts.
struct DemuxAccess {
    static void gather(dvbpsi_t* handle, dvbpsi_psi_section_t* section) {
        auto* pid = static_cast<Demux::Pid*>(handle->p_sys);
        for (auto* s = section; s != nullptr; s = s->p_next)
            pid->owner->deliver(pid->pid, s->p_data, static_cast<std::size_t>(s->i_length) + 3);
        dvbpsi_DeletePSISections(section);
    }
    static void message(dvbpsi_t* handle, const dvbpsi_msg_level_t, const char* text) {
        auto* pid = static_cast<Demux::Pid*>(handle->p_sys);
        if (pid != nullptr) pid->owner->report(pid->pid, text);
    }
};

Demux::Demux() = default;

Demux::~Demux() {
    for (auto& [number, pid] : pids_) {
        dvbpsi_decoder_delete(pid->handle->p_decoder);
        pid->handle->p_decoder = nullptr;
        dvbpsi_delete(pid->handle);
    }
}

void Demux::watch_pid(uint16_t pid) {
    if (pid > 0x1FFE || pids_.count(pid) != 0) return;
    auto entry = std::make_unique<Pid>();
    entry->owner = this;
    entry->pid = pid;
    entry->handle = dvbpsi_new(&DemuxAccess::message, DVBPSI_MSG_ERROR);
    if (entry->handle == nullptr) return;
    entry->handle->p_sys = entry.get();
    void* decoder = dvbpsi_decoder_new(&DemuxAccess::gather, kMaxSection, true,
                                       sizeof(gather_decoder));
    if (decoder == nullptr) {
        dvbpsi_delete(entry->handle);
        return;
    }
    entry->handle->p_decoder = static_cast<dvbpsi_decoder_t*>(decoder);
    pids_.emplace(pid, std::move(entry));
}

bool Demux::watching(uint16_t pid) const { return pids_.count(pid) != 0; }

void Demux::on_pid(uint16_t pid, SectionHandler handler) {
    watch_pid(pid);
    pid_handlers_[pid].push_back(std::move(handler));
}

void Demux::on_table(uint8_t table_id, SectionHandler handler) {
    table_handlers_[table_id].push_back(std::move(handler));
}

void Demux::discover(const std::set<uint8_t>& table_ids) {
    discover_.insert(table_ids.begin(), table_ids.end());
}

Demux::Pid* Demux::pid_of(uint16_t pid) {
    const auto it = pids_.find(pid);
    return it == pids_.end() ? nullptr : it->second.get();
}

void Demux::push(const uint8_t packet[kPacketSize]) {
    ++packets_;
    const uint16_t pid = static_cast<uint16_t>(((packet[1] & 0x1F) << 8) | packet[2]);
    if (pid == 0x1FFF) return;  // stuffing
    Pid* entry = pid_of(pid);
    if (entry == nullptr) {
        if (discover_.empty() || (packet[1] & 0x40) == 0) return;
        const int control = (packet[3] >> 4) & 0x3;
        if ((control & 1) == 0) return;  // no payload
        std::size_t offset = 4;
        if (control == 3) offset += 1 + packet[4];
        if (offset >= kPacketSize) return;
        const std::size_t table = offset + 1 + packet[offset];  // after the pointer field
        if (table >= kPacketSize || discover_.count(packet[table]) == 0) return;
        watch_pid(pid);
        entry = pid_of(pid);
        if (entry == nullptr) return;
    }
    // libdvbpsi takes a non-const pointer; it gets a copy.
    uint8_t copy[kPacketSize];
    std::memcpy(copy, packet, kPacketSize);
    dvbpsi_packet_push(entry->handle, copy);
}

void Demux::deliver(uint16_t pid, const uint8_t* data, std::size_t size) {
    if (size < 3) return;
    const uint8_t table_id = data[0];
    TableStats& stats = stats_[{pid, table_id}];
    ++stats.sections;
    SectionHeader header;
    if (read_section_header(data, size, &header, nullptr) && header.long_form) {
        Subtable& sub = subtables_[{pid, table_id, header.extension}];
        if (sub.version != header.version) {
            sub.version = header.version;
            ++stats.versions;
        }
    }
    Section section;
    section.pid = pid;
    section.data = data;
    section.size = size;
    // Copies: a handler may register more handlers.
    const auto by_pid = pid_handlers_.find(pid);
    if (by_pid != pid_handlers_.end()) {
        const auto handlers = by_pid->second;
        for (const auto& h : handlers) h(section);
    }
    const auto by_table = table_handlers_.find(table_id);
    if (by_table != table_handlers_.end()) {
        const auto handlers = by_table->second;
        for (const auto& h : handlers) h(section);
    }
}

void Demux::report(uint16_t pid, const char* message) {
    // libdvbpsi's text for a dropped section: "... Bad CRC_32 table 0x%x !!!".
    const char* crc = std::strstr(message, "Bad CRC_32 table 0x");
    unsigned table = 0;
    char line[256];
    if (crc != nullptr && std::sscanf(crc, "Bad CRC_32 table 0x%x", &table) == 1) {
        const uint64_t failures = ++stats_[{pid, static_cast<uint8_t>(table)}].crc_failures;
        if (failures <= 3) {
            std::snprintf(line, sizeof line, "pid 0x%04x table 0x%02x: section with a bad CRC skipped%s",
                          pid, table, failures == 3 ? " (further ones only counted)" : "");
            log(3, line);
        }
        return;
    }
    ++pid_errors_;
    if (pid_errors_ <= 10) {
        std::snprintf(line, sizeof line, "pid 0x%04x: %s%s", pid, message,
                      pid_errors_ == 10 ? " (further problems only counted)" : "");
        log(3, line);
    }
}

std::map<std::pair<uint16_t, uint8_t>, TableStats> Demux::table_stats() const { return stats_; }

std::vector<uint8_t> packetize_section(uint16_t pid, const uint8_t* section, std::size_t size,
                                       uint8_t* counter) {
    std::vector<uint8_t> out;
    std::size_t done = 0;
    bool first = true;
    while (done < size || first) {
        uint8_t packet[kPacketSize];
        std::memset(packet, 0xFF, sizeof packet);
        packet[0] = kSyncByte;
        packet[1] = static_cast<uint8_t>((first ? 0x40 : 0x00) | ((pid >> 8) & 0x1F));
        packet[2] = static_cast<uint8_t>(pid & 0xFF);
        packet[3] = static_cast<uint8_t>(0x10 | (*counter & 0x0F));
        *counter = static_cast<uint8_t>((*counter + 1) & 0x0F);
        std::size_t at = 4;
        if (first) packet[at++] = 0;  // pointer field
        const std::size_t n = std::min(kPacketSize - at, size - done);
        std::memcpy(packet + at, section + done, n);
        done += n;
        first = false;
        out.insert(out.end(), packet, packet + kPacketSize);
    }
    return out;
}

}  // namespace ts
