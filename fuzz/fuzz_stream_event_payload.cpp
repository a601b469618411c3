// A stream event's payload as the middleware delivers it: the UTF-8 filter
// on its own (what it keeps must be ASCII and two-byte sequences of U+0080
// to U+00FF), then the whole callback, which turns it into hexadecimal data
// and text (the browser is not connected: the callback goes nowhere). The
// first byte picks the event status.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr_stream_events.h"
#include "c_callers.h"
#include "fuzz_support.h"

namespace {

void check_filtered(const char* text, int length) {
    if (length < 1 || text[length - 1] != '\0') std::abort();
    for (int i = 0; i + 1 < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) continue;
        const auto next = static_cast<unsigned char>(text[i + 1]);
        if ((byte != 0xC2 && byte != 0xC3) || next < 0x80 || next > 0xBF) std::abort();
        ++i;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::keep_offline();
    if (size < 1 || size > 64 * 1024) return 0;
    const int status = data[0] % 3;
    std::string payload(reinterpret_cast<const char*>(data + 1), size - 1);

    char* filtered = nullptr;
    int filtered_length = -1;
    if (extractValidUTF8Characters(payload.data(), static_cast<int>(payload.size()), &filtered,
                                   &filtered_length) != NO_ERROR)
        std::abort();
    if (filtered_length > 0) check_filtered(filtered, filtered_length);
    std::free(filtered);

    char name[] = "event";
    char path[] = "dvb://1.2.3.1/events";
    fuzz_c_stream_event(name, path, status, payload.data(), static_cast<int>(payload.size()));
    return 0;
}
