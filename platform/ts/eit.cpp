// EIT sections to records: libdvbpsi decodes the section and the standard
// descriptors (short and extended event, parental rating, content); this
// file turns dates, durations and texts into what the EIT cache holds.
#include "dvbpsi_glue.h"

#include <dvbpsi/dr_4d.h>
#include <dvbpsi/dr_4e.h>
#include <dvbpsi/dr_54.h>
#include <dvbpsi/dr_55.h>

namespace ts {
namespace {

constexpr uint64_t kUndefinedStart = 0xFFFFFFFFFFULL;
constexpr uint32_t kUndefinedDuration = 0xFFFFFF;

void add_descriptors(dvbpsi_descriptor_t* first, EitEvent* event, Skipped* skipped) {
    bool have_short = false;
    for (dvbpsi_descriptor_t* d = first; d != nullptr; d = d->p_next) {
        switch (d->i_tag) {
            case 0x4D: {
                const dvbpsi_short_event_dr_t* dr = dvbpsi_DecodeShortEventDr(d);
                if (dr == nullptr) {
                    if (skipped) skipped->push_back("short_event_descriptor that does not decode");
                    break;
                }
                if (have_short) break;  // the first language is the one kept
                have_short = true;
                event->language = detail::code3(dr->i_iso_639_code);
                event->raw_title.assign(dr->i_event_name, dr->i_event_name + dr->i_event_name_length);
                event->raw_text.assign(dr->i_text, dr->i_text + dr->i_text_length);
                event->title = dvb_text_to_utf8(dr->i_event_name,
                                                static_cast<std::size_t>(dr->i_event_name_length),
                                                skipped);
                event->text = dvb_text_to_utf8(dr->i_text, static_cast<std::size_t>(dr->i_text_length),
                                               skipped);
                break;
            }
            case 0x4E: {
                const dvbpsi_extended_event_dr_t* dr = dvbpsi_DecodeExtendedEventDr(d);
                if (dr == nullptr) {
                    if (skipped) skipped->push_back("extended_event_descriptor that does not decode");
                    break;
                }
                const uint8_t* text = dr->i_text;
                const std::size_t length = text ? static_cast<std::size_t>(dr->i_text_length) : 0;
                event->raw_extended.emplace_back(text, text + length);
                event->extended.push_back(dvb_text_to_utf8(text, length, skipped));
                break;
            }
            case 0x54: {
                const dvbpsi_content_dr_t* dr = dvbpsi_DecodeContentDr(d);
                if (dr == nullptr) break;
                for (int i = 0; i < dr->i_contents_number; ++i)
                    event->content.emplace_back(dr->p_content[i].i_type, dr->p_content[i].i_user_byte);
                break;
            }
            case 0x55: {
                const dvbpsi_parental_rating_dr_t* dr = dvbpsi_DecodeParentalRatingDr(d);
                if (dr == nullptr) break;
                for (int i = 0; i < dr->i_ratings_number; ++i) {
                    const uint32_t code = dr->p_parental_rating[i].i_country_code;
                    const uint8_t letters[3] = {static_cast<uint8_t>(code >> 16),
                                                static_cast<uint8_t>(code >> 8),
                                                static_cast<uint8_t>(code)};
                    event->ratings.push_back({detail::code3(letters), dr->p_parental_rating[i].i_rating});
                }
                break;
            }
            default: break;  // other descriptors are not part of the cache
        }
    }
}

}  // namespace

bool decode_eit(const uint8_t* data, std::size_t size, EitRecord* out, Skipped* skipped) {
    // Transport stream, network, segment last section and last table ids
    // follow the common header.
    detail::PsiSection section(data, size, "EIT", 0x4E, 0x6F, 15, skipped);
    if (!section.get()) return false;
    const SectionHeader& h = section.header();
    EitRecord record;
    record.table_id = h.table_id;
    record.sid = h.extension;
    record.tsid = static_cast<uint16_t>((data[8] << 8) | data[9]);
    record.onid = static_cast<uint16_t>((data[10] << 8) | data[11]);
    record.segment_last = data[12];
    record.last_table_id = data[13];
    record.version = h.version;
    record.number = h.number;
    record.last_number = h.last_number;
    dvbpsi_eit_t* eit = dvbpsi_eit_new(h.table_id, h.extension, h.version, h.current, record.tsid,
                                       record.onid, record.segment_last, record.last_table_id);
    if (eit == nullptr) return detail::refuse(skipped, "EIT", "out of memory");
    dvbpsi_eit_sections_decode(eit, section.get());
    for (dvbpsi_eit_event_t* e = eit->p_first_event; e != nullptr; e = e->p_next) {
        EitEvent event;
        event.event_id = e->i_event_id;
        event.running_status = e->i_running_status;
        event.scrambled = e->b_free_ca;
        if (e->i_start_time != kUndefinedStart) {
            const uint16_t mjd = static_cast<uint16_t>(e->i_start_time >> 24);
            const uint32_t time = static_cast<uint32_t>(e->i_start_time & 0xFFFFFF);
            event.start_known = dvb_time_to_unix(mjd, time, &event.start);
            if (!event.start_known && skipped)
                skipped->push_back("EIT event " + detail::hex(e->i_event_id) +
                                   " with a start time that is not BCD");
        }
        if (e->i_duration != kUndefinedDuration && !bcd_duration(e->i_duration, &event.duration)) {
            event.duration = 0;
            if (skipped)
                skipped->push_back("EIT event " + detail::hex(e->i_event_id) +
                                   " with a duration that is not BCD");
        }
        add_descriptors(e->p_first_descriptor, &event, skipped);
        record.events.push_back(std::move(event));
    }
    dvbpsi_eit_delete(eit);
    *out = std::move(record);
    return true;
}

std::string dump_eit_event(const EitRecord& table, const EitEvent& event) {
    std::string line = "event service=" + detail::hex(table.sid) + " id=" + detail::hex(event.event_id);
    line += " start=" + (event.start_known ? iso_utc(event.start) : std::string("undefined"));
    line += " duration=" + hms(event.duration);
    line += " title=" + detail::quoted(event.title);
    line += " table=" + detail::hex(table.table_id, 2);
    line += " onid=" + detail::hex(table.onid) + " tsid=" + detail::hex(table.tsid);
    if (!event.language.empty()) line += " lang=" + event.language;
    for (const auto& r : event.ratings) line += " rating=" + r.country + ":" + std::to_string(r.rating);
    for (const auto& c : event.content) line += " content=" + detail::hex(static_cast<unsigned>(c.first), 2);
    return line;
}

}  // namespace ts
