// Stream descriptor sections (table 0x3D): NPT reference and endpoint,
// stream mode and stream events, and the watch that tells a new event from
// the repetitions a broadcast sends.
#include <algorithm>
#include <sstream>

#include "dsmcc_internal.h"
#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

namespace {

constexpr uint64_t kLow33 = (1ULL << 33) - 1;
// Sections remembered by the watch. A stream carries a handful of event
// streams; past this many (PID, table id extension) pairs the memory is
// dropped and a repeated section may count once more as new.
constexpr std::size_t kMaxWatched = 4096;

// Reads the fixed fields of a known descriptor; false when it is too short.
bool read_descriptor(uint8_t tag, Reader& d, StreamDescriptor& out) {
    uint8_t byte = 0;
    uint32_t word = 0;
    uint64_t wide = 0;
    switch (tag) {
    case kDescriptorNptReference:
        // post_discontinuity(1) content_id(7) reserved(7) STC(33)
        // reserved(31) NPT(33) scale_numerator(16) scale_denominator(16)
        d.u8(byte);
        out.post_discontinuity = (byte & 0x80) != 0;
        out.content_id = byte & 0x7F;
        d.u8(byte);
        d.u32(word);
        out.stc_reference = (static_cast<uint64_t>(byte & 0x01) << 32) | word;
        d.u64(wide);
        out.npt_reference = wide & kLow33;
        d.u16(out.scale_numerator);
        d.u16(out.scale_denominator);
        break;
    case kDescriptorNptEndpoint: {
        // reserved(15) start_NPT(33) reserved(31) stop_NPT(33)
        uint16_t high = 0;
        d.u16(high);
        d.u32(word);
        out.start_npt = (static_cast<uint64_t>(high & 0x0001) << 32) | word;
        d.u64(wide);
        out.stop_npt = wide & kLow33;
        break;
    }
    case kDescriptorStreamMode:
        d.u8(out.stream_mode);
        d.u8(byte);
        break;
    case kDescriptorStreamEvent:
        // event_id(16) reserved(31) eventNPT(33) private_data_byte...
        d.u16(out.event_id);
        d.u64(wide);
        out.event_npt = wide & kLow33;
        if (!d.failed()) d.bytes(d.left(), out.private_data);
        break;
    default:
        return false;
    }
    return !d.failed();
}

const char* stream_mode_name(uint8_t mode) {
    switch (mode) {
    case 0: return "open";
    case 1: return "pause";
    case 2: return "transport";
    case 3: return "transport pause";
    case 4: return "search transport";
    case 5: return "search transport pause";
    case 6: return "pause search transport";
    case 7: return "end of stream";
    case 8: return "pre search transport";
    case 9: return "pre search transport pause";
    default: return "reserved";
    }
}

}  // namespace

Decoded<StreamDescriptorSection> decode_stream_descriptors(const uint8_t* section, std::size_t length) {
    Decoded<StreamDescriptorSection> out;
    Reader loop(nullptr, 0);
    if (!section_payload(section, length, kTableStreamDescriptors, out.value.header, loop, out.skipped))
        return out;
    int index = 0;
    while (loop.left() > 0) {
        uint8_t tag = 0, descriptor_length = 0;
        Reader d(nullptr, 0);
        loop.u8(tag);
        loop.u8(descriptor_length);
        if (loop.failed() || !loop.sub(descriptor_length, d)) {
            out.skipped.push_back("descriptor " + std::to_string(index) + " (tag " + hex(tag, 2) +
                                  ") runs past the descriptor loop; rest of the section skipped");
            break;
        }
        StreamDescriptor descriptor;
        descriptor.tag = tag;
        if (read_descriptor(tag, d, descriptor)) {
            out.value.descriptors.push_back(std::move(descriptor));
        } else if (tag == kDescriptorNptReference || tag == kDescriptorNptEndpoint ||
                   tag == kDescriptorStreamMode || tag == kDescriptorStreamEvent) {
            out.skipped.push_back("descriptor " + std::to_string(index) + " (tag " + hex(tag, 2) + "): " +
                                  std::to_string(descriptor_length) + " bytes are too few");
        } else {
            out.skipped.push_back("descriptor " + std::to_string(index) + ": unknown tag " + hex(tag, 2));
        }
        ++index;
    }
    out.ok = true;
    return out;
}

std::string dump(const StreamDescriptorSection& section) {
    std::ostringstream s;
    const SectionHeader& h = section.header;
    s << "stream descriptors table_id_extension=" << hex(h.extension, 4) << " version=" << unsigned(h.version)
      << " section=" << unsigned(h.number) << "/" << unsigned(h.last_number) << "\n";
    for (const StreamDescriptor& d : section.descriptors) {
        switch (d.tag) {
        case kDescriptorNptReference:
            s << "  npt_reference post_discontinuity=" << (d.post_discontinuity ? 1 : 0)
              << " content_id=" << unsigned(d.content_id) << " stc=" << hex(d.stc_reference, 9)
              << " npt=" << hex(d.npt_reference, 9) << " scale=" << d.scale_numerator << "/"
              << d.scale_denominator << "\n";
            break;
        case kDescriptorNptEndpoint:
            s << "  npt_endpoint start=" << hex(d.start_npt, 9) << " stop=" << hex(d.stop_npt, 9) << "\n";
            break;
        case kDescriptorStreamMode:
            s << "  stream_mode mode=" << unsigned(d.stream_mode) << " (" << stream_mode_name(d.stream_mode)
              << ")\n";
            break;
        case kDescriptorStreamEvent:
            s << "  stream_event id=" << d.event_id << " npt=" << hex(d.event_npt, 9)
              << " data=" << hex_bytes(d.private_data) << "\n";
            break;
        default:
            break;
        }
    }
    return s.str();
}

std::string event_line(const StreamEvent& event) {
    std::ostringstream s;
    s << "streamevent pid=" << hex(static_cast<uint64_t>(event.pid)) << " event=" << event.event_id
      << " npt=" << event.npt << " data=" << hex_bytes(event.data) << " version=" << unsigned(event.version)
      << " table_id_extension=" << hex(event.table_id_extension);
    return s.str();
}

std::vector<StreamEvent> StreamEventWatch::feed(int pid, const StreamDescriptorSection& section,
                                                const uint8_t* bytes, std::size_t length) {
    std::vector<StreamEvent> events;
    const auto key = std::make_pair(pid, section.header.extension);
    auto found = last_.find(key);
    if (found != last_.end() && found->second.size() == length &&
        std::equal(found->second.begin(), found->second.end(), bytes))
        return events;
    if (found == last_.end() && last_.size() >= kMaxWatched) last_.clear();
    last_[key].assign(bytes, bytes + length);
    for (const StreamDescriptor& d : section.descriptors) {
        if (d.tag != kDescriptorStreamEvent) continue;
        StreamEvent event;
        event.pid = pid;
        event.table_id_extension = section.header.extension;
        event.version = section.header.version;
        event.event_id = d.event_id;
        event.npt = d.event_npt;
        event.data = d.private_data;
        events.push_back(std::move(event));
    }
    return events;
}

}  // namespace ts::dsmcc
