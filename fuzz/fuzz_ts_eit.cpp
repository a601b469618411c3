// EIT sections: the decoder (DVB texts, MJD/BCD times, descriptors) and the
// dump of every event.
#include <cstdint>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    for (const auto& [section, length] : appmgr::fuzz::sections(data, size)) {
        ts::EitRecord eit;
        ts::Skipped skipped;
        if (!ts::decode_eit(section, length, &eit, &skipped)) continue;
        for (const ts::EitEvent& event : eit.events) (void)ts::dump_eit_event(eit, event);
    }
    return 0;
}
