// A module's bytes as BIOP messages: directories, files, streams and
// stream-event objects with their object references and taps.
#include <cstdint>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

namespace dsmcc = ts::dsmcc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    auto objects = dsmcc::decode_biop_module(data, size);
    for (const dsmcc::BiopObject& object : objects.value) {
        (void)dsmcc::dump(object);
        (void)dsmcc::event_stream_tag(object);
    }
    return 0;
}
