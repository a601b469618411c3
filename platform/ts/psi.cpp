// PAT, PMT and SDT sections to records, decoded by libdvbpsi.
#include <cstdio>
#include <cstring>

#include "dvbpsi_glue.h"

#include <dvbpsi/dr_48.h>

namespace ts {
namespace detail {

PsiSection::PsiSection(const uint8_t* data, std::size_t size, const char* table, uint8_t first_id,
                       uint8_t last_id, uint16_t min_length, Skipped* skipped) {
    std::string why;
    if (data == nullptr || !read_section_header(data, size, &header_, &why)) {
        refuse(skipped, table, data == nullptr ? "no bytes" : why);
        return;
    }
    if (!header_.long_form) {
        refuse(skipped, table, "section without the long header");
        return;
    }
    if (header_.table_id < first_id || header_.table_id > last_id) {
        refuse(skipped, table, "table id " + hex(header_.table_id));
        return;
    }
    if (header_.length < min_length) {
        refuse(skipped, table, "too short for its header");
        return;
    }
    const std::size_t length = static_cast<std::size_t>(header_.length) + 3;
    section_ = dvbpsi_NewPSISection(static_cast<int>(length));
    if (section_ == nullptr) {
        refuse(skipped, table, "out of memory");
        return;
    }
    std::memcpy(section_->p_data, data, length);
    section_->i_table_id = header_.table_id;
    section_->b_syntax_indicator = true;
    section_->b_private_indicator = (data[1] & 0x40) != 0;
    section_->i_length = header_.length;
    section_->i_extension = header_.extension;
    section_->i_version = header_.version;
    section_->b_current_next = header_.current;
    section_->i_number = header_.number;
    section_->i_last_number = header_.last_number;
    section_->p_payload_start = section_->p_data + 8;
    section_->p_payload_end = section_->p_data + length - 4;
    section_->i_crc = (static_cast<uint32_t>(data[length - 4]) << 24) |
                      (static_cast<uint32_t>(data[length - 3]) << 16) |
                      (static_cast<uint32_t>(data[length - 2]) << 8) | data[length - 1];
    if (!dvbpsi_ValidPSISection(section_)) {
        refuse(skipped, table, "bad CRC");
        dvbpsi_DeletePSISections(section_);
        section_ = nullptr;
    }
}

bool refuse(Skipped* skipped, const char* table, const std::string& why) {
    if (skipped) skipped->push_back(std::string(table) + " section skipped: " + why);
    return false;
}

PsiSection::~PsiSection() {
    if (section_ != nullptr) dvbpsi_DeletePSISections(section_);
}

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(ch);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7F) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out.push_back(ch);
        }
    }
    return out + "\"";
}

std::string code3(const uint8_t* bytes) {
    std::string out;
    for (int i = 0; i < 3; ++i)
        out.push_back(bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '?');
    return out;
}

}  // namespace detail

using detail::PsiSection;
using detail::refuse;

namespace {

// The component a PMT entry describes: what its stream type and descriptors
// say it carries.
Component component_of(const dvbpsi_pmt_es_t& es, Skipped* skipped) {
    Component c;
    c.pid = es.i_pid;
    c.stream_type = es.i_type;
    bool carousel_broadcast = false;
    for (const dvbpsi_descriptor_t* d = es.p_first_descriptor; d != nullptr; d = d->p_next) {
        const uint8_t* p = d->p_data;
        switch (d->i_tag) {
            case 0x52:  // stream_identifier
                if (d->i_length >= 1) c.component_tag = p[0];
                break;
            case 0x13:  // carousel_identifier
                if (d->i_length >= 4)
                    c.carousel_id = (static_cast<int64_t>(p[0]) << 24) | (p[1] << 16) |
                                    (p[2] << 8) | p[3];
                break;
            case 0x66:  // data_broadcast_id: 0x0123 HbbTV carousel, 0x0106/0x0007 carousels
                if (d->i_length >= 2) {
                    const int id = (p[0] << 8) | p[1];
                    carousel_broadcast = id == 0x0123 || id == 0x0106 || id == 0x0007 ||
                                         id == 0x000B || id == 0x00F0;
                }
                break;
            case 0x6F:  // application_signalling
                for (int i = 0; i + 3 <= d->i_length; i += 3)
                    c.ait_types.emplace_back(((p[i] & 0x7F) << 8) | p[i + 1], p[i + 2] & 0x1F);
                if (d->i_length % 3 != 0 && skipped)
                    skipped->push_back("application_signalling_descriptor with a partial entry");
                break;
            default: break;
        }
    }
    // An AIT is named by its application_signalling_descriptor; DSM-CC
    // components by their stream type (B: carousel, C: stream descriptors,
    // D: either) or their carousel descriptors.
    if (!c.ait_types.empty()) {
        c.kind = ComponentKind::Ait;
    } else if (c.stream_type == 0x0C) {
        c.kind = ComponentKind::StreamEvents;
    } else if (c.stream_type == 0x0B || c.stream_type == 0x0D || c.carousel_id >= 0 ||
               carousel_broadcast) {
        c.kind = ComponentKind::Carousel;
    }
    return c;
}

}  // namespace

std::string component_kind_name(ComponentKind kind) {
    switch (kind) {
        case ComponentKind::Ait: return "ait";
        case ComponentKind::Carousel: return "carousel";
        case ComponentKind::StreamEvents: return "stream-events";
        default: return "other";
    }
}

bool decode_pat(const uint8_t* data, std::size_t size, PatRecord* out, Skipped* skipped) {
    PsiSection section(data, size, "PAT", 0x00, 0x00, 9, skipped);
    if (!section.get()) return false;
    const SectionHeader& h = section.header();
    dvbpsi_pat_t* pat = dvbpsi_pat_new(h.extension, h.version, h.current);
    if (pat == nullptr) return refuse(skipped, "PAT", "out of memory");
    dvbpsi_pat_sections_decode(pat, section.get());
    PatRecord record;
    record.tsid = h.extension;
    record.version = h.version;
    for (const dvbpsi_pat_program_t* p = pat->p_first_program; p != nullptr; p = p->p_next)
        record.programs.emplace_back(p->i_number, p->i_pid);
    dvbpsi_pat_delete(pat);
    *out = std::move(record);
    return true;
}

bool decode_pmt(const uint8_t* data, std::size_t size, PmtRecord* out, Skipped* skipped) {
    // The PCR PID and the program info length follow the common header.
    PsiSection section(data, size, "PMT", 0x02, 0x02, 13, skipped);
    if (!section.get()) return false;
    const SectionHeader& h = section.header();
    const uint16_t pcr_pid = static_cast<uint16_t>(((data[8] & 0x1F) << 8) | data[9]);
    dvbpsi_pmt_t* pmt = dvbpsi_pmt_new(h.extension, h.version, h.current, pcr_pid);
    if (pmt == nullptr) return refuse(skipped, "PMT", "out of memory");
    dvbpsi_pmt_sections_decode(pmt, section.get());
    PmtRecord record;
    record.program = h.extension;
    record.version = h.version;
    record.pcr_pid = pcr_pid;
    for (const dvbpsi_pmt_es_t* es = pmt->p_first_es; es != nullptr; es = es->p_next)
        record.components.push_back(component_of(*es, skipped));
    dvbpsi_pmt_delete(pmt);
    *out = std::move(record);
    return true;
}

bool decode_sdt(const uint8_t* data, std::size_t size, SdtRecord* out, Skipped* skipped) {
    // The original network id and a reserved byte follow the common header.
    PsiSection section(data, size, "SDT", 0x42, 0x46, 12, skipped);
    if (!section.get()) return false;
    const SectionHeader& h = section.header();
    if (h.table_id != 0x42 && h.table_id != 0x46) return refuse(skipped, "SDT", "table id " + detail::hex(h.table_id));
    const uint16_t onid = static_cast<uint16_t>((data[8] << 8) | data[9]);
    dvbpsi_sdt_t* sdt = dvbpsi_sdt_new(h.table_id, h.extension, h.version, h.current, onid);
    if (sdt == nullptr) return refuse(skipped, "SDT", "out of memory");
    dvbpsi_sdt_sections_decode(sdt, section.get());
    SdtRecord record;
    record.actual = h.table_id == 0x42;
    record.tsid = h.extension;
    record.onid = onid;
    record.version = h.version;
    for (dvbpsi_sdt_service_t* s = sdt->p_first_service; s != nullptr; s = s->p_next) {
        SdtService service;
        service.sid = s->i_service_id;
        service.eit_pf = s->b_eit_present;
        service.eit_schedule = s->b_eit_schedule;
        for (dvbpsi_descriptor_t* d = s->p_first_descriptor; d != nullptr; d = d->p_next) {
            if (d->i_tag != 0x48) continue;
            const dvbpsi_service_dr_t* dr = dvbpsi_DecodeServiceDr(d);
            if (dr == nullptr) {
                if (skipped) skipped->push_back("SDT service_descriptor that does not decode");
                continue;
            }
            service.type = dr->i_service_type;
            service.provider = dvb_text_to_utf8(dr->i_service_provider_name,
                                                dr->i_service_provider_name_length, skipped);
            service.name = dvb_text_to_utf8(dr->i_service_name, dr->i_service_name_length, skipped);
        }
        record.services.push_back(std::move(service));
    }
    dvbpsi_sdt_delete(sdt);
    *out = std::move(record);
    return true;
}

}  // namespace ts
