// The platform's own demultiplexer and stream-descriptor decoder, as the
// simulated middleware uses them.
#include "dsmcc_sections.h"

#include <fstream>
#include <iterator>

#include "ts_decode.h"

namespace appmgr::test {

std::vector<std::string> sections_of_pid(const std::string& transport_stream, int pid) {
    std::vector<std::string> sections;
    ts::Demux demux;
    demux.watch_pid(static_cast<uint16_t>(pid));
    demux.on_pid(static_cast<uint16_t>(pid), [&](const ts::Section& s) {
        sections.emplace_back(reinterpret_cast<const char*>(s.data), s.size);
    });
    const auto* bytes = reinterpret_cast<const uint8_t*>(transport_stream.data());
    for (std::size_t at = 0; at + ts::kPacketSize <= transport_stream.size(); at += ts::kPacketSize)
        if (bytes[at] == ts::kSyncByte) demux.push(bytes + at);
    return sections;
}

std::vector<CapturedStreamEvent> stream_events_of_section(const std::string& section) {
    std::vector<CapturedStreamEvent> events;
    const auto decoded =
        ts::dsmcc::decode_stream_descriptors(reinterpret_cast<const uint8_t*>(section.data()), section.size());
    for (const ts::dsmcc::StreamDescriptor& d : decoded.value.descriptors)
        if (d.tag == ts::dsmcc::kDescriptorStreamEvent)
            events.push_back({d.event_id, std::string(d.private_data.begin(), d.private_data.end())});
    return events;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace appmgr::test
