// Builds object-carousel and stream-event sections for tests: BIOP objects,
// modules, DSI/DII/DDB sections and 0x3D sections, with good CRCs, so tests
// can make carousels that change, break or never finish.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace appmgr::test::build {

using Bytes = std::vector<std::uint8_t>;

Bytes text(const std::string& s);
Bytes deflate(const Bytes& data);

// Where an object is: carousel (= download id), module, key; `kind` is the
// short type id ("srg", "dir", "fil", "ste").
struct Ref {
    std::string kind;
    std::uint32_t carousel = 7;
    std::uint16_t module = 1;
    Bytes key;
    std::uint16_t tag = 0x17;  // association tag of the DII's tap
};
Bytes ior(const Ref& ref);

struct Bind {
    std::string name;
    Ref ref;
};
// "srg" or "dir" object binding the names.
Bytes directory(const std::string& kind, const Bytes& key, const std::vector<Bind>& bindings);
Bytes file(const Bytes& key, const Bytes& content);
Bytes stream_event(const Bytes& key, const std::vector<std::string>& names,
                   const std::vector<std::uint16_t>& ids, std::uint16_t tag);

// Sections with their CRC. A DII section announces modules of given size
// and version (compressed ones with their inflated size).
struct Module {
    std::uint16_t id = 1;
    std::uint32_t size = 0;
    std::uint8_t version = 0;
    bool compressed = false;
    std::uint32_t original_size = 0;
};
Bytes dsi(const Ref& gateway);
Bytes dii(std::uint32_t download_id, std::uint16_t block_size, const std::vector<Module>& modules);
Bytes ddb(std::uint32_t download_id, std::uint16_t module, std::uint8_t version, std::uint16_t block,
          const Bytes& data);
// The DDBs of a whole module cut into blocks.
std::vector<Bytes> ddbs(std::uint32_t download_id, std::uint16_t module, std::uint8_t version,
                        std::uint16_t block_size, const Bytes& content);
// A 0x3D section with one stream-event descriptor.
Bytes stream_event_section(std::uint16_t table_id_extension, std::uint8_t version, std::uint16_t event_id,
                           std::uint64_t npt, const Bytes& data);
// A PAT of one program and its PMT, whose components carry a stream
// identifier (component tag) each.
struct Component {
    std::uint8_t stream_type = 0x0B;
    std::uint16_t pid = 0;
    int tag = -1;  // -1: no stream identifier
};
Bytes pat(std::uint16_t tsid, std::uint16_t program, std::uint16_t pmt_pid);
Bytes pmt(std::uint16_t program, const std::vector<Component>& components);
// Sections on their PIDs as 188-byte packets, in the given order.
Bytes transport_stream(const std::vector<std::pair<std::uint16_t, Bytes>>& sections);
// Sets the last four bytes of a section to its CRC.
void set_crc(Bytes& section);

}  // namespace appmgr::test::build
