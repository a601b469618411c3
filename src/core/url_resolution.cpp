// Classification of application URLs, parsing of application locators
// ("dvb://current.ait/<org>.<app>") and the dispatcher that acts on a URL.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "hbb_platform.h"

namespace {

bool begins_with(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool contains(const char* text, const char* part) { return std::strstr(text, part) != nullptr; }

// "<current dvb_url>.ait", the locator prefix of the current service.
std::string current_service_locator() { return std::string(get_current_dvb_url()) + ".ait"; }

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

}  // namespace

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
            running_application_type = BROADCAST_INDEPENDENT;
            if (is_tessel) clear_current_ait();
            hbbStopChannel();
            current_broadcast_state = VBOS_STOPPED;
            return application_create(url);
        case DVB_URL:
        case DVB_CURRENT_URL:
            if (running_application_type == BROADCAST_INDEPENDENT ||
                current_broadcast_state == VBOS_STOPPED) {
                hbbBindCurrentChannel();
                current_broadcast_state = VBOS_PRESENTING;
            }
            running_application_type = BROADCAST_RELATED;
            return application_create(url);
        case XML_AIT_FILE:
            return ParseXmlAitFile(url, static_cast<int>(std::strlen(url)));
        case XML_FILE_URL:
            break;
        default:
            return application_create(url);
    }

    // An XML AIT location, absolute or relative to the application last
    // loaded.
    char location[1024] = {0};
    if (contains(url, "http://") || contains(url, "https://")) {
        AM_INFO("Found xml ait with http/https \n\n");
        std::snprintf(location, sizeof(location), "%s", url);
    } else {
        AM_INFO("handle_url with loaded_application:[%s]\n\n", loaded_application);
        std::string base;
        if (loaded_application[0] != '\0') {
            base = loaded_application;
            auto slash = base.rfind('/');
            base = slash == std::string::npos ? std::string() : base.substr(0, slash + 1);
        }
        std::snprintf(location, sizeof(location), "%s%s", base.c_str(), url);
    }

    char player_url[1024] = {0};
    if (tvh_mds_get_player_url(location, player_url, sizeof(player_url)) == 0) {
        player_url[sizeof(player_url) - 1] = '\0';
        start_player_page(player_url);
        return 1;
    }
    if (parse_xml_ait(location)) {
        hbbStopChannel();
        current_broadcast_state = VBOS_STOPPED;
        return 1;
    }
    AM_INFO("Handle url failed in here\n\n");
    return 0;
}

}  // extern "C"
