// Application URLs and dvb: locators: classification (check_url_type),
// locator parsing (parseURI), the carousel's dvb: URL parser and its checks
// against the simulated carousel, origin comparison and joining. The first
// line is a URL, the rest a second one (the location joined to it).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "core/core.h"
#include "dsmcc/dsmcc.h"
#include "fuzz_support.h"
#include "state/state.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::simulate_receiver();
    if (size > 8192) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = text.find('\n');
    std::string first = text.substr(0, newline);
    std::string second = newline == std::string::npos ? "" : text.substr(newline + 1);

    appmgr::state::ManagerLock lock;
    check_url_type(first.data());
    URIInfo info{};
    parseURI(first.data(), &info);
    std::free(info.URIptr);
    DVBUrl_t url{};
    parse_dvb_url(first.c_str(), &url);
    iIsDVBURI(first.c_str());
    std::string params = first;
    removeURIParams(params.data());
    if (std::strlen(params.c_str()) > first.size()) std::abort();
    hbbCheckDSMCCExist(first.c_str());
    int module = 0;
    hbbCheckDSMCCEntryType(first.c_str(), &module);
    compareUrlOrigin(first.data(), second.data());
    std::free(combinationUrl(first.data(), second.data()));
    return 0;
}
