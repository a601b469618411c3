// Classification of application URLs, parsing of application locators
// ("dvb://current.ait/<org>.<app>"), the dispatcher that acts on a URL, and
// the start of a named application of the current AIT.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/log.h"
#include "core/core.h"
#include "core/core_private.h"
#include "hbb_platform.h"
#include "state/state.h"

namespace state = appmgr::state;
using appmgr::records::entry_url;

namespace {

bool begins_with(const char* text, const char* prefix) {
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool contains(const char* text, const char* part) { return std::strstr(text, part) != nullptr; }

// "<current dvb_url>.ait", the locator prefix of the current service.
std::string current_service_locator() { return std::string(state::current_ait().dvb_url) + ".ait"; }

constexpr std::size_t kScratchSize = 1024;

// Collects characters of `p` up to one of `stops` (or the end) into a
// bounded scratch text. False when the scratch limit is reached first.
bool collect(const char*& p, const char* stops, std::string* out) {
    out->clear();
    while (*p != '\0' && std::strchr(stops, *p) == nullptr) {
        if (out->size() + 1 >= kScratchSize) return false;
        out->push_back(*p++);
    }
    return true;
}

// The base of a relative XML AIT location: the page last loaded up to its
// last "/", or nothing.
std::string loaded_page_directory() {
    std::string base = state::loaded_url();
    const auto slash = base.rfind('/');
    return slash == std::string::npos ? std::string() : base.substr(0, slash + 1);
}

int start_xml_ait_location(const char* url) {
    char location[1024] = {0};
    if (contains(url, "http://") || contains(url, "https://")) {
        AM_INFO("Found xml ait with http/https \n\n");
        std::snprintf(location, sizeof(location), "%s", url);
    } else {
        AM_INFO("handle_url with loaded_application:[%s]\n\n", state::loaded_url());
        std::snprintf(location, sizeof(location), "%s%s", loaded_page_directory().c_str(), url);
    }
    if (appmgr::core::start_player_page_of(location)) return 1;
    if (parse_xml_ait(location)) {
        appmgr::core::stop_broadcast();
        return 1;
    }
    AM_INFO("Handle url failed in here\n\n");
    return 0;
}

}  // namespace

namespace appmgr::core {

int classify_url(char* url) {
    state::ManagerLock lock;
    return check_url_type(url);
}

}  // namespace appmgr::core

extern "C" {

int check_url_type(char* url) {
    if (url == nullptr) return UNKNOWN_URL_TYPE;
    if (begins_with(url, "dvb://current.ait")) return DVB_CURRENT_URL;
    if (contains(url, ".aitx") || (contains(url, "nids%5B%5D") && !contains(url, "&lloc=")) ||
        contains(url, "xml_ait")) {
        AM_INFO("Found XML AIT on url:%s:\n\n", url);
        return XML_FILE_URL;
    }
    if (begins_with(url, "http")) return HTTP_URL;
    if (begins_with(url, "dvb")) {
        std::string locator = current_service_locator();
        if (begins_with(url, locator.c_str())) {
            AM_INFO("nTmpUrl:%s passed\n", locator.c_str());
            return DVB_CURRENT_URL;
        }
        return DVB_URL;
    }
    if (begins_with(url, "file")) return FILE_URL;
    if (begins_with(url, "<?xml version")) return XML_AIT_FILE;
    return UNKNOWN_URL_TYPE;
}

int parseURI(char* URI, URIInfo* out) {
    if (URI == nullptr || out == nullptr) return URI_NOT_VALID;
    const char* p = nullptr;
    if (const char* at = std::strstr(URI, "dvb://current.ait")) {
        p = at + std::strlen("dvb://current.ait");
    } else if (contains(URI, "dvb://")) {
        std::string locator = current_service_locator();
        // A "dvb://" URL of another form names no application: valid, and
        // nothing to fill in.
        if (!begins_with(URI, locator.c_str())) return URI_VALID;
        p = URI + locator.size();
    } else {
        return URI_NOT_VALID;
    }

    if (*p == '/')
        ++p;
    else
        AM_INFO("ERROR : no slash !\n\n");

    // Both ids are hexadecimal. A text that ends before the "." or runs past
    // the scratch buffer is not a locator.
    std::string id;
    if (!collect(p, ".", &id) || *p != '.') return URI_NOT_VALID;
    const int org_id = static_cast<int>(std::strtol(id.c_str(), nullptr, 16));
    AM_INFO("org_id parsed\n");
    ++p;
    if (!collect(p, "?#", &id)) return URI_NOT_VALID;
    const int app_id = static_cast<int>(std::strtol(id.c_str(), nullptr, 16));
    AM_INFO("orgid = %d, appid = %d\n\n", org_id, app_id);

    out->org_id = org_id;
    out->app_id = app_id;
    out->URIptr = *p != '\0' ? strdup(p) : nullptr;
    return URI_VALID;
}

int handle_url(char* url) {
    if (url == nullptr) return 0;
    AM_INFO("handle_url with url:[%s]\n\n", url);
    switch (check_url_type(url)) {
        case HTTP_URL:
            state::set_running_type(BROADCAST_INDEPENDENT);
            if (state::tessel()) state::clear_current_ait();
            appmgr::core::stop_broadcast();
            return application_create(url);
        case DVB_URL:
        case DVB_CURRENT_URL:
            if (state::running_type() == BROADCAST_INDEPENDENT ||
                state::broadcast() == VBOS_STOPPED) {
                hbbBindCurrentChannel();
                state::set_broadcast(VBOS_PRESENTING);
            }
            state::set_running_type(BROADCAST_RELATED);
            return application_create(url);
        case XML_AIT_FILE:
            return ParseXmlAitFile(url, static_cast<int>(std::strlen(url)));
        case XML_FILE_URL:
            return start_xml_ait_location(url);
        default:
            return application_create(url);
    }
}

int compareUrlOrigin(char* url1, char* url2) {
    if (url1 == nullptr || url2 == nullptr) return 0;
    const char* scheme_end = std::strstr(url1, "//");
    if (scheme_end == nullptr) return 0;
    const char* path = std::strchr(scheme_end + 2, '/');
    if (path == nullptr) return 0;
    const std::size_t origin_length = static_cast<std::size_t>(path - url1) + 1;
    return std::strncmp(url1, url2, origin_length) == 0 ? 1 : 0;
}

char* combinationUrl(char* dvb_url, char* location_url) {
    if (dvb_url == nullptr || location_url == nullptr) {
        AM_ERROR("dvb_url == NULL || location_url == NULL\n");
        return nullptr;
    }
    std::string result;
    std::string fragment;
    const char* hash = std::strchr(location_url, '#');
    if (hash != nullptr) {
        result.assign(location_url, static_cast<std::size_t>(hash - location_url));
        fragment = hash;
        AM_INFO("fragment_url = %s\n", fragment.c_str());
    } else {
        result = location_url;
    }
    const char* remainder = dvb_url;
    if (remainder[0] == '?') {
        ++remainder;
        result += result.find('?') != std::string::npos ? "&" : "?";
    }
    result += remainder;
    if (result.find('#') == std::string::npos && !fragment.empty()) result += fragment;
    AM_INFO("resulte_url = %s\n", result.c_str());
    // The caller frees the joined URL with free().
    return strdup(result.c_str());
}

int load_app_from_current_ait(URIInfo info) {
    Application* entry = appmgr::core::find_named_entry(info.org_id, info.app_id);
    if (entry == nullptr) {
        AM_INFO("application not found in current_ait\n");
        return 0;
    }
    AM_INFO("application found in current_ait\n");
    const char* url = entry_url(*entry);
    AM_INFO("URL: %s\n", url != nullptr ? url : "(null)");
    if (url == nullptr) return 0;
    // An entry whose own URL is a current-AIT locator would start itself
    // again and again.
    if (begins_with(url, "dvb://current.ait")) {
        AM_ERROR("entry %d.%d points at the current AIT itself: not started\n", info.org_id,
                 info.app_id);
        return 0;
    }
    // The joined URL is owned here; the entry may be replaced meanwhile, so
    // the page URL is taken before the start.
    std::string page = url;
    if (info.URIptr != nullptr) {
        char* joined = combinationUrl(info.URIptr, const_cast<char*>(url));
        if (joined != nullptr) {
            page = joined;
            std::free(joined);
        }
    }
    appmgr::core::Launch launch;
    launch.url = page.c_str();
    launch.entry = entry;
    launch.boundary = appmgr::core::boundary_of(*entry);
    appmgr::core::launch(launch);
    return 1;
}

int find_app_from_ait(char* url) {
    URIInfo info{};
    info.org_id = -1;
    info.app_id = -1;
    if (parseURI(url, &info) != URI_VALID) return 0;
    int result = load_app_from_current_ait(info);
    std::free(info.URIptr);
    return result;
}

}  // extern "C"
