// Writes the synthetic seeds of the DSM-CC fuzz targets into DIR: whole
// object carousels as their sections (DSI, DII, DDBs; one of them with a
// compressed module), stream-event sections, and the BIOP modules they
// carry, made with the tests' section builder. The seeds in the tree were
// written by it:
//   build-fuzz/fuzz/make_ts_seeds fuzz/corpus
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "dsmcc_builder.h"

namespace b = appmgr::test::build;

namespace {

void write(const std::string& path, const b::Bytes& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

b::Bytes key(std::uint8_t k) { return b::Bytes{0, 0, 0, k}; }

// The gateway binds index.html, a directory with a file, and an event object.
b::Bytes module_of_objects() {
    b::Bytes module;
    auto append = [&](const b::Bytes& object) { module.insert(module.end(), object.begin(), object.end()); };
    append(b::directory("srg", key(1),
                        {{"index.html", {"fil", 7, 1, key(2)}},
                         {"app", {"dir", 7, 1, key(3)}},
                         {"events", {"ste", 7, 1, key(5)}}}));
    append(b::file(key(2), b::text("<html>index</html>")));
    append(b::directory("dir", key(3), {{"page.html", {"fil", 7, 1, key(4)}}}));
    append(b::file(key(4), b::text("<html>page</html>")));
    append(b::stream_event(key(5), {"go", "stop"}, {1, 2}, 0x13));
    return module;
}

b::Bytes concatenation(const std::vector<b::Bytes>& sections) {
    b::Bytes all;
    for (const b::Bytes& s : sections) all.insert(all.end(), s.begin(), s.end());
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR (the fuzz corpus directory)\n", argv[0]);
        return 2;
    }
    const std::string dir = std::string(argv[1]) + "/";
    const b::Bytes module = module_of_objects();
    write(dir + "fuzz_ts_biop/carousel-module", module);
    write(dir + "fuzz_ts_biop/event-object", b::stream_event(key(9), {"a", "b", "c"}, {1, 2, 300}, 0x17));

    const std::uint16_t block = 256;
    std::vector<b::Bytes> plain{b::dsi({"srg", 7, 1, key(1)}),
                                b::dii(7, block, {{1, static_cast<std::uint32_t>(module.size()), 0}})};
    for (const b::Bytes& ddb : b::ddbs(7, 1, 0, block, module)) plain.push_back(ddb);
    write(dir + "fuzz_ts_dsmcc/carousel", concatenation(plain));

    const b::Bytes packed = b::deflate(module);
    b::Module compressed{1, static_cast<std::uint32_t>(packed.size()), 3, true,
                         static_cast<std::uint32_t>(module.size())};
    std::vector<b::Bytes> zipped{b::dsi({"srg", 7, 1, key(1)}), b::dii(7, block, {compressed})};
    for (const b::Bytes& ddb : b::ddbs(7, 1, 3, block, packed)) zipped.push_back(ddb);
    write(dir + "fuzz_ts_dsmcc/compressed-carousel", concatenation(zipped));
    // The blocks before their DII, the DSI last.
    std::vector<b::Bytes> early(zipped.begin() + 2, zipped.end());
    early.push_back(zipped[1]);
    early.push_back(zipped[0]);
    write(dir + "fuzz_ts_dsmcc/blocks-first", concatenation(early));

    write(dir + "fuzz_ts_dsmcc/stream-events",
          concatenation({b::stream_event_section(1, 0, 1, 0, b::text("Hello HbbTV")),
                         b::stream_event_section(1, 1, 2, 90000, b::Bytes{0xca, 0xfe}),
                         b::stream_event_section(2, 0, 1, 0, {})}));
    write(dir + "fuzz_ts_reader/carousel.ts",
          b::transport_stream({{0, b::pat(1, 1, 0x100)},
                               {0x100, b::pmt(1, {{0x0B, 0x138E, 0x17}, {0x0C, 0x138F, 0x13}})},
                               {0x138E, zipped[0]},
                               {0x138E, zipped[1]},
                               {0x138E, zipped[2]},
                               {0x138F, b::stream_event_section(1, 0, 1, 0, b::text("go"))}}));
    return 0;
}
