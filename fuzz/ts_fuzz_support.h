// What the transport-stream fuzz targets share: the decoders' log lines
// dropped, and an input cut into the whole sections it holds one after the
// other (each as long as its header says, the last one as long as what is
// left), as the demultiplexer hands sections to the decoders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "ts_decode.h"

namespace appmgr::fuzz {

inline void quiet_ts_log() {
    static const bool once = [] {
        ts::set_log_sink([](int, const std::string&) {});
        return true;
    }();
    (void)once;
}

// (start, length) of each section of the input.
inline std::vector<std::pair<const uint8_t*, std::size_t>> sections(const uint8_t* data,
                                                                    std::size_t size) {
    std::vector<std::pair<const uint8_t*, std::size_t>> out;
    while (size >= 3 && out.size() < 256) {
        std::size_t length = 3 + (((data[1] & 0x0F) << 8) | data[2]);
        if (length > size) length = size;
        out.emplace_back(data, length);
        data += length;
        size -= length;
    }
    return out;
}

}  // namespace appmgr::fuzz
