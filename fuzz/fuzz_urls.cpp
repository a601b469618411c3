// Application URLs and locators: classification, locator parsing, origin
// comparison and joining.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app_mgr_state.h"
#include "core/core_internal.h"
#include "hbb_sim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        hbb_sim_set_log_stderr(0);
        std::snprintf(current_ait.dvb_url, sizeof(current_ait.dvb_url), "dvb://1.2.3");
        return true;
    }();
    (void)once;
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string first = text.substr(0, text.find('\n'));
    std::string second = text.find('\n') == std::string::npos ? "" : text.substr(text.find('\n') + 1);
    check_url_type(first.data());
    URIInfo info{};
    parseURI(first.data(), &info);
    std::free(info.URIptr);
    compareUrlOrigin(first.data(), second.data());
    std::free(combinationUrl(first.data(), second.data()));
    return 0;
}
