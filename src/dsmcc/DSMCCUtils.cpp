// dvb: URLs: recognising, cleaning and splitting them, the local mount-point
// directory of a carousel, and mounting / unmounting the carousel of a
// component tag through the middleware.
//
// URL texts come from the browser, from broadcast tables and from the
// middleware: every copy is bounded by its field and a text that does not fit
// is refused, never cut.
#include "dsmcc/dsmcc.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "app_mgr_export.h"
#include "common/log.h"
#include "common/c_api.h"
#include "common/seams.h"
#include "hbb_platform.h"

namespace {

constexpr std::size_t kPrefixLength = 6;  // "dvb://"
// A host segment is at most 7 characters (the last one is read as the
// component tag).
constexpr std::size_t kMaxSegmentLength = 7;
constexpr const char* kDefaultMountBase = "/tmp/dsmcc/";
constexpr std::size_t kMountPointSize = 256;
constexpr const char* kMountName = "DSM://";

// Mounts are made one at a time (one carousel is mounted at a time);
// g_state_mutex only guards the record of the mounted carousel and is never
// held across a middleware call.
std::mutex g_mount_call_mutex;
std::mutex g_state_mutex;
char g_mounted_host[sizeof(DVBUrl_t::host)] = "";

void copy_bounded(char* dst, std::size_t dst_size, const char* src, std::size_t length) {
    if (length >= dst_size) length = dst_size - 1;
    std::memcpy(dst, src, length);
    dst[length] = '\0';
}

void set_mounted_host(const char* host) {
    std::lock_guard<std::mutex> lock(g_state_mutex);
    copy_bounded(g_mounted_host, sizeof(g_mounted_host), host, std::strlen(host));
}

bool is_directory(const char* path, int* stat_result) {
    struct stat st;
    *stat_result = ::stat(path, &st);
    return *stat_result == 0 && S_ISDIR(st.st_mode);
}

// Characters a mount-point path may hold: it is handed to the shell.
bool shell_safe_path(const char* path) {
    if (*path == '\0') return false;
    for (const char* p = path; *p; ++p) {
        const char c = *p;
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '/' || c == '.' || c == '_' ||
                        c == '-' || c == '+';
        if (!ok) return false;
    }
    return true;
}

// A host that can become a directory name below the base: letters, digits
// and dots, at least one of them not a dot, and no "..".
bool usable_host(const char* host) {
    bool has_alnum = false;
    for (const char* p = host; *p; ++p) {
        const char c = *p;
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
            has_alnum = true;
        else if (c != '.')
            return false;
    }
    return has_alnum && std::strstr(host, "..") == nullptr;
}

}  // namespace

namespace appmgr::dsmcc {

void mounted_host(char (&host)[sizeof(DVBUrl_t::host)]) {
    std::lock_guard<std::mutex> lock(g_state_mutex);
    std::memcpy(host, g_mounted_host, sizeof(host));
}

void forget_mounted_carousel() { set_mounted_host(""); }

}  // namespace appmgr::dsmcc

namespace {

int make_mount_point(DVBUrl_t in, char* out) {
    out[0] = '\0';
    const char* base = std::getenv("DSMCC_MOUNT_POINT");
    if (base == nullptr || *base == '\0') base = kDefaultMountBase;

    in.host[sizeof(in.host) - 1] = '\0';
    if (!usable_host(in.host)) {
        AM_ERROR("create_mount_point: host [%s] cannot name a directory\n", in.host);
        return -1;
    }
    const int length = std::snprintf(out, kMountPointSize, "%s%s", base, in.host);
    if (length < 0 || static_cast<std::size_t>(length) >= kMountPointSize) {
        AM_ERROR("create_mount_point: mount point longer than %zu characters\n",
                 kMountPointSize - 1);
        out[0] = '\0';
        return -1;
    }

    int stat_result = 0;
    if (is_directory(out, &stat_result)) return 0;

    // The path goes to the shell: only plain path characters are allowed.
    if (!shell_safe_path(out)) {
        AM_ERROR("create_mount_point: refusing to create [%s]\n", out);
        out[0] = '\0';
        return -1;
    }
    char command[kMountPointSize + 16];
    std::snprintf(command, sizeof(command), "mkdir -p %s", out);
    appmgr::seams::run_shell(command);
    if (is_directory(out, &stat_result)) return 0;
    AM_ERROR("create_mount_point: cannot create [%s]\n", out);
    out[0] = '\0';
    return stat_result != 0 ? stat_result : -1;
}

int mount_carousel(const char* dvbUrl) {
    if (!iIsDVBURI(dvbUrl)) {
        AM_ERROR("hbbMountCarousel error - iIsDVBURI failed (URI: %s)\n",
                 dvbUrl ? dvbUrl : "(null)");
        return 0;
    }
    DVBUrl_t url;
    if (parse_dvb_url(dvbUrl, &url) == 0) {
        AM_ERROR("hbbMountCarousel error - parse_dvb_url failed (URI: %s)\n", dvbUrl);
        return 0;
    }
    std::lock_guard<std::mutex> mount_lock(g_mount_call_mutex);
    const unsigned short tag = static_cast<unsigned short>(url.ctag);
    const tQUMA_ErrorCode error = QUMA_MountCarouselObject(tag);
    if (error != eQUMA_NO_ERROR) {
        AM_ERROR("hbbMountCarousel error - QUMA_MountCarouselObject failed (component tag %d) "
                 "(error: %d)\n",
                 url.ctag, static_cast<int>(error));
        // Mounting replaces the previous carousel, also when it fails.
        set_mounted_host("");
        return 0;
    }
    set_mounted_host(url.host);
    return 1;
}

// ---- the steps of parse_dvb_url ----------------------------------------------

// The host runs from after the prefix (leading "/" skipped) to the next
// "/". Returns where the path starts (after that "/"; a host with no "/"
// after it has an empty path), or null when there is no host or it does not
// fit.
const char* take_host(const char* host, DVBUrl_t* out) {
    while (*host == '/') ++host;
    const std::size_t host_length = std::strcspn(host, "/");
    if (host_length == 0) return nullptr;
    if (host_length >= sizeof(out->host)) {
        AM_ERROR("DVB uri host longer than %zu characters refused\n", sizeof(out->host) - 1);
        return nullptr;
    }
    copy_bounded(out->host, sizeof(out->host), host, host_length);
    AM_INFO("URL Base: %s \n", out->host);
    return host[host_length] == '/' ? host + host_length + 1 : host + host_length;
}

// Splits the entry file off the path: what follows its last "/", or the
// whole path when it has no "/" but a ".". False (host and path cleared)
// when a part does not fit.
bool take_path(const char* path, DVBUrl_t* out) {
    const std::size_t path_length = std::strlen(path);
    const char* entry = nullptr;
    if (path_length >= sizeof(out->path)) {
        AM_ERROR("DVB uri path longer than %zu characters refused\n", sizeof(out->path) - 1);
        out->host[0] = '\0';
        return false;
    }
    copy_bounded(out->path, sizeof(out->path), path, path_length);
    char* last_slash = std::strrchr(out->path, '/');
    if (last_slash != nullptr)
        entry = last_slash + 1;
    else if (std::strchr(out->path, '.') != nullptr)
        entry = out->path;
    if (entry == nullptr) return true;
    const std::size_t entry_length = std::strlen(entry);
    if (entry_length >= sizeof(out->entry_file)) {
        AM_ERROR("DVB uri entry longer than %zu characters refused\n", sizeof(out->entry_file) - 1);
        out->host[0] = out->path[0] = '\0';
        return false;
    }
    copy_bounded(out->entry_file, sizeof(out->entry_file), entry, entry_length);
    if (last_slash != nullptr)
        *last_slash = '\0';
    else
        out->path[0] = '\0';
    return true;
}

// Host segments, split on "." with empty segments skipped: two to four of
// them, each of at most seven characters; the last one is the component
// tag in hexadecimal (seven digits at most, so the value fits an int).
bool take_component_tag(const char* host, int* tag) {
    int segments = 0;
    char last_segment[kMaxSegmentLength + 1] = "";
    const char* p = host;
    while (*p) {
        while (*p == '.') ++p;
        if (*p == '\0') break;
        const std::size_t length = std::strcspn(p, ".");
        if (length > kMaxSegmentLength) {
            AM_ERROR("DVB uri host segment longer than %zu characters refused\n",
                     kMaxSegmentLength);
            return false;
        }
        copy_bounded(last_segment, sizeof(last_segment), p, length);
        ++segments;
        p += length;
    }
    AM_INFO("Last segment: %s\n", last_segment);
    if (segments < 2 || segments > 4) {
        AM_ERROR("DVB uri not in correct format \n");
        return false;
    }
    *tag = static_cast<int>(std::strtoul(last_segment, nullptr, 16));
    return true;
}

}  // namespace

extern "C" {

int iIsDVBURI(const char* dvbPath) {
    if (dvbPath == nullptr || std::strlen(dvbPath) < kPrefixLength) return 0;
    return std::strncmp(dvbPath, "dvb://", kPrefixLength) == 0 ||
                   std::strncmp(dvbPath, "DVB://", kPrefixLength) == 0
               ? 1
               : 0;
}

void removeURIParams(char* dvbPath) {
    if (dvbPath == nullptr) return;
    if (char* query = std::strchr(dvbPath, '?')) *query = '\0';
    if (char* fragment = std::strchr(dvbPath, '#')) *fragment = '\0';
}

int parse_dvb_url(const char* dvb_url, DVBUrl_t* out) {
    if (dvb_url == nullptr || out == nullptr) {
        AM_ERROR("Error-->parse_dvb_url with bad param \n\n");
        return 0;
    }
    out->entry_file[0] = '\0';
    out->path[0] = '\0';
    out->host[0] = '\0';
    out->ctag = 0;
    std::memcpy(out->protocol, "dvb://", sizeof(out->protocol));

    if (std::strlen(dvb_url) <= kPrefixLength) {
        AM_ERROR("DVB uri not in correct format \n");
        return 0;
    }
    const char* path = take_host(dvb_url + kPrefixLength, out);
    if (path == nullptr || !take_path(path, out)) return 0;
    int tag = 0;
    if (!take_component_tag(out->host, &tag)) return 0;
    out->ctag = tag;
    return out->ctag;
}

APPMGR_API int create_mount_point(DVBUrl_t in, char* out) {
    if (out == nullptr) return -1;
    return appmgr::c_entry(__func__, -1, [&] { return make_mount_point(in, out); });
}

APPMGR_API int hbbMountCarousel(const char* dvbUrl) {
    return appmgr::c_entry(__func__, 0, [&] { return mount_carousel(dvbUrl); });
}

void hbbUnmountCarousel(void) {
    set_mounted_host("");
    QUMA_UmountCarouselObject(kMountName);
}

}  // extern "C"
