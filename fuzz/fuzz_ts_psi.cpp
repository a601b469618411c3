// PAT, PMT and SDT sections, each decoder chosen by the section's table id
// as the capture does (every decoder is tried on other ids too).
#include <cstdint>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    for (const auto& [section, length] : appmgr::fuzz::sections(data, size)) {
        ts::Skipped skipped;
        ts::PatRecord pat;
        ts::decode_pat(section, length, &pat, &skipped);
        ts::PmtRecord pmt;
        if (ts::decode_pmt(section, length, &pmt, &skipped))
            for (const ts::Component& c : pmt.components) (void)ts::component_kind_name(c.kind);
        ts::SdtRecord sdt;
        ts::decode_sdt(section, length, &sdt, &skipped);
    }
    return 0;
}
