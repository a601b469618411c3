// Application URLs and locators: classification, locator parsing, origin
// comparison and joining.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <cstdio>

#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        hbb_sim_set_log_stderr(0);
        AitTable table{};
        std::snprintf(table.dvb_url, sizeof(table.dvb_url), "dvb://1.2.3");
        appmgr::state::ManagerLock lock;
        appmgr::state::replace_current_ait(table);
        return true;
    }();
    (void)once;
    appmgr::state::ManagerLock lock;
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
