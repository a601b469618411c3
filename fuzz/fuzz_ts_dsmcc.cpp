// DSM-CC sections of one PID: each message decoder on its own (DSI, DII,
// DDB, stream descriptors) with its dump, then all sections through an
// object carousel (module assembly, inflation, BIOP, the tree) and the
// stream-event watch, as the capture feeds them.
#include <cstdint>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

namespace dsmcc = ts::dsmcc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    // Small limits, so that inputs of a few kilobytes reach them.
    ts::dsmcc::CarouselLimits limits;
    limits.max_module_size = 64 * 1024;
    limits.max_carousel_bytes = 256 * 1024;
    limits.max_early_block_bytes = 64 * 1024;
    limits.max_depth = 8;
    limits.max_entries = 256;
    dsmcc::ObjectCarousel carousel(0x138E, limits);
    dsmcc::StreamEventWatch watch;
    for (const auto& [section, length] : appmgr::fuzz::sections(data, size)) {
        switch (dsmcc::download_message_id(section, length)) {
            case dsmcc::kMessageDsi: {
                auto dsi = dsmcc::decode_dsi(section, length);
                if (dsi.ok) (void)dsmcc::dump(dsi.value);
                break;
            }
            case dsmcc::kMessageDii: {
                auto dii = dsmcc::decode_dii(section, length);
                if (dii.ok) (void)dsmcc::dump(dii.value);
                break;
            }
            case dsmcc::kMessageDdb: {
                auto ddb = dsmcc::decode_ddb(section, length);
                if (ddb.ok) (void)dsmcc::dump(ddb.value);
                break;
            }
            default: {
                auto events = dsmcc::decode_stream_descriptors(section, length);
                if (events.ok) {
                    (void)dsmcc::dump(events.value);
                    for (const dsmcc::StreamEvent& e : watch.feed(0x138F, events.value, section, length))
                        (void)dsmcc::event_line(e);
                }
                break;
            }
        }
        carousel.feed(section, length);
    }
    const dsmcc::CarouselTree tree = carousel.tree();
    for (const dsmcc::CarouselEntry& entry : tree.entries) (void)dsmcc::entry_line(0x17, entry);
    (void)carousel.incomplete_modules();
    return 0;
}
