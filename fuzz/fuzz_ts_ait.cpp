// AIT sections: the decoder, its dumps, the entry URL of every application
// (with and without broadband) and the AitTable a middleware hands over.
#include <cstdint>
#include <vector>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    std::vector<ts::AitRecord> version;
    const ts::Triplet own{1, 2, 3};
    for (const auto& [section, length] : appmgr::fuzz::sections(data, size)) {
        ts::AitRecord ait;
        ts::Skipped skipped;
        if (!ts::decode_ait(section, length, &ait, &skipped)) continue;
        (void)ts::dump_ait(ait);
        for (const ts::AitApplication& app : ait.apps) {
            (void)ts::dump_ait_app(ait, app, own);
            (void)ts::entry_url(ait, app, own, false);
            (void)ts::control_code_name(app.control_code);
        }
        version.push_back(std::move(ait));
    }
    if (!version.empty()) {
        ts::make_ait_table(version, own, true);
        ts::make_ait_table(version, own, false);
    }
    return 0;
}
