// Compressed modules: the first two bytes give the size the DII states (in
// units of 16 bytes, up to 1 MiB, so that it may be too small, right or too
// large), the rest is the zlib stream.
#include <cstdint>
#include <cstdlib>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    if (size < 2) return 0;
    const std::size_t stated = (static_cast<std::size_t>(data[0]) << 8 | data[1]) * 16;
    auto inflated = ts::dsmcc::inflate_module(data + 2, size - 2, stated);
    if (inflated.ok && inflated.value.size() != stated) std::abort();
    return 0;
}
