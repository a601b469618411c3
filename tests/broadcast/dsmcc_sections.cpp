#include "dsmcc_sections.h"

#include <fstream>
#include <iterator>

namespace appmgr::test {
namespace {

constexpr std::size_t kPacketSize = 188;

unsigned byte_at(const std::string& s, std::size_t i) { return static_cast<unsigned char>(s[i]); }

// Moves the complete sections at the front of `pending` into `out`; stuffing
// (0xFF) ends what the packet carries.
void take_sections(std::string& pending, bool& in_section, std::vector<std::string>& out) {
    while (pending.size() >= 3 && byte_at(pending, 0) != 0xFF) {
        const std::size_t length = 3 + (((byte_at(pending, 1) & 0x0F) << 8) | byte_at(pending, 2));
        if (pending.size() < length) return;
        out.push_back(pending.substr(0, length));
        pending.erase(0, length);
    }
    if (!pending.empty() && byte_at(pending, 0) == 0xFF) {
        pending.clear();
        in_section = false;
    }
}

}  // namespace

std::vector<std::string> sections_of_pid(const std::string& ts, int pid) {
    std::vector<std::string> sections;
    std::string pending;
    bool in_section = false;
    for (std::size_t at = 0; at + kPacketSize <= ts.size(); at += kPacketSize) {
        const std::string packet = ts.substr(at, kPacketSize);
        if (byte_at(packet, 0) != 0x47) continue;
        if ((((byte_at(packet, 1) & 0x1F) << 8) | byte_at(packet, 2)) != static_cast<unsigned>(pid))
            continue;
        const bool unit_start = (byte_at(packet, 1) & 0x40) != 0;
        const unsigned adaptation = (byte_at(packet, 3) >> 4) & 3;
        if (adaptation == 2) continue;
        std::size_t offset = 4;
        if (adaptation == 3) offset += 1 + byte_at(packet, 4);
        if (offset >= kPacketSize) continue;
        const std::string payload = packet.substr(offset);
        if (unit_start) {
            const std::size_t pointer = byte_at(payload, 0);
            if (in_section) {
                pending += payload.substr(1, pointer);
                take_sections(pending, in_section, sections);
            }
            pending = payload.substr(1 + pointer);
            in_section = true;
        } else if (in_section) {
            pending += payload;
        }
        take_sections(pending, in_section, sections);
    }
    return sections;
}

std::vector<CapturedStreamEvent> stream_events_of_section(const std::string& section) {
    std::vector<CapturedStreamEvent> events;
    if (section.size() < 12 || byte_at(section, 0) != 0x3D) return events;
    // Eight header bytes, then descriptors up to the CRC.
    for (std::size_t at = 8; at + 2 <= section.size() - 4;) {
        const unsigned tag = byte_at(section, at);
        const std::size_t length = byte_at(section, at + 1);
        if (at + 2 + length > section.size() - 4) break;
        if (tag == 0x1A && length >= 10) {
            const std::string body = section.substr(at + 2, length);
            events.push_back({static_cast<int>((byte_at(body, 0) << 8) | byte_at(body, 1)),
                              body.substr(10)});
        }
        at += 2 + length;
    }
    return events;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace appmgr::test
