// Carousel file access for application start and for the browser's "DSMCC"
// requests.
//
// Each call resolves its dvb: URL (query and fragment dropped, split with
// parse_dvb_url, every path component checked), makes sure the carousel of
// the URL's locator is the mounted one, and asks the middleware's DSM-CC
// loader. The mount is remembered by locator (onid.tsid.sid.ctag), so only a
// request for another carousel mounts again.
//
// Service changes: the loader answers DSMCC_LOADER_BREAK when the service
// changed during the load. The carousel is then mounted afresh and the load
// retried once; a second break is reported (eHBBTV_FS_CHECK_BREAK_TYPE, or
// no descriptor). A DSMCC_LOADER_ERROR on a carousel that an earlier request
// mounted gets the same single retry, because the middleware drops its
// carousel on a service change (DSMCC_Disconnect) without telling us; on a
// carousel mounted for this very request an error is final (no second
// time-out).
//
// No local copy of any carousel is kept: the middleware caches carousel
// files itself (emptied with DSMCC_DeleteAllFileFromFSA), and a second cache
// here could serve files of a module that changed.
#include "dsmcc/dsmcc.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "common/log.h"
#include "hbb_platform.h"

namespace {

// Longest raw URL accepted before query and fragment are removed.
constexpr std::size_t kMaxRawUrlLength = 4096;
// Largest payload handed to the browser (one reply on the socket).
constexpr unsigned int kMaxPayloadLength = 32u * 1024u * 1024u;

// One resolved request.
struct Target {
    DVBUrl_t url;
    std::string loader_url;  // "dvb://host/dir/entry", given to the loader
    std::string mount_url;   // "dvb://host/", given to hbbMountCarousel
};

// The descriptor handed out, with what its payload must be released with.
// Standard layout: the public part is the first member, so a descriptor
// pointer converts back to its holder.
struct DescriptorHolder {
    HbbFileSystemEntryDescriptor pub;
    void* loader_buffer;  // DSMCC_LoaderRelease
    char* own_buffer;     // free
};

// A loader's list, released however the listing built from it ends (a
// string that cannot grow throws std::bad_alloc).
struct LoaderRelease {
    void operator()(char* buffer) const { DSMCC_LoaderRelease(buffer); }
};
using LoaderList = std::unique_ptr<char, LoaderRelease>;

// Serialises the "is it mounted? then mount" decisions so that concurrent
// requests for the same carousel mount it once.
std::mutex g_mount_decision_mutex;

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// One component of a carousel path: not empty, and neither as written nor
// percent-decoded "." or "..", a "/" or a control character.
bool safe_component(const char* begin, std::size_t length) {
    if (length == 0) return false;
    std::string decoded;
    for (std::size_t i = 0; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(begin[i]);
        if (is_control(c)) return false;
        if (c == '%' && i + 2 < length && hex_value(begin[i + 1]) >= 0 &&
            hex_value(begin[i + 2]) >= 0) {
            c = static_cast<unsigned char>(hex_value(begin[i + 1]) * 16 + hex_value(begin[i + 2]));
            i += 2;
            if (c == '/' || c == '\\' || is_control(c)) return false;
        }
        decoded.push_back(static_cast<char>(c));
    }
    return decoded != "." && decoded != "..";
}

// Every "/"-separated component of text (which may be empty: the root).
bool safe_path(const std::string& text) {
    if (text.empty()) return true;
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = text.find('/', start);
        const std::size_t end = slash == std::string::npos ? text.size() : slash;
        if (!safe_component(text.data() + start, end - start)) return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

bool resolve(const char* uri, Target& target) {
    if (uri == nullptr) {
        AM_ERROR("carousel request without URL\n");
        return false;
    }
    const std::size_t raw_length = strnlen(uri, kMaxRawUrlLength + 1);
    if (raw_length > kMaxRawUrlLength) {
        AM_ERROR("carousel URL longer than %zu characters refused\n", kMaxRawUrlLength);
        return false;
    }
    if (!iIsDVBURI(uri)) {
        AM_ERROR("not a dvb: URL: %s\n", uri);
        return false;
    }
    std::string text(uri, raw_length);
    removeURIParams(text.data());
    text.resize(std::strlen(text.c_str()));
    if (text.size() > appmgr::dsmcc::kMaxDvbUrlLength) {
        AM_ERROR("carousel URL longer than %zu characters refused\n",
                 appmgr::dsmcc::kMaxDvbUrlLength);
        return false;
    }
    if (parse_dvb_url(text.c_str(), &target.url) == 0) {
        AM_ERROR("cannot parse carousel URL: %s\n", text.c_str());
        return false;
    }
    std::string object_path = target.url.path;
    if (target.url.entry_file[0] != '\0') {
        if (!object_path.empty()) object_path += '/';
        object_path += target.url.entry_file;
    }
    if (!safe_path(object_path)) {
        AM_ERROR("carousel path refused (empty, \".\" or \"..\" component, or control "
                 "character): %s\n",
                 text.c_str());
        return false;
    }
    const std::string host = target.url.host;
    if (host.find_first_not_of("0123456789abcdefABCDEF.") != std::string::npos) {
        AM_ERROR("carousel locator refused: %s\n", host.c_str());
        return false;
    }
    target.mount_url = "dvb://" + host + "/";
    target.loader_url = target.mount_url + object_path;
    return true;
}

enum class Mount { Reused, Fresh, Failed };

Mount ensure_mounted(const Target& target, bool force) {
    std::lock_guard<std::mutex> lock(g_mount_decision_mutex);
    if (!force) {
        char host[sizeof(DVBUrl_t::host)];
        appmgr::dsmcc::mounted_host(host);
        if (std::strcmp(host, target.url.host) == 0) return Mount::Reused;
    }
    return hbbMountCarousel(target.mount_url.c_str()) ? Mount::Fresh : Mount::Failed;
}

const char* result_name(DSMCC_LoaderResult result) {
    switch (result) {
        case DSMCC_LOADER_OK: return "ok";
        case DSMCC_LOADER_NOT_FOUND: return "not found";
        case DSMCC_LOADER_BREAK: return "interrupted by a service change";
        case DSMCC_LOADER_ERROR: return "error";
    }
    return "unknown result";
}

// Runs one loader call with the mount and retry rules described at the top.
template <typename Call>
DSMCC_LoaderResult load(const Target& target, Call&& call) {
    const Mount mount = ensure_mounted(target, false);
    if (mount == Mount::Failed) return DSMCC_LOADER_ERROR;
    DSMCC_LoaderResult result = call();
    const bool retry = result == DSMCC_LOADER_BREAK ||
                       (result == DSMCC_LOADER_ERROR && mount == Mount::Reused);
    if (retry) {
        AM_WARN("carousel load of %s: %s, mounting again and retrying once\n",
                target.loader_url.c_str(), result_name(result));
        appmgr::dsmcc::forget_mounted_carousel();
        if (ensure_mounted(target, true) == Mount::Failed) return result;
        result = call();
    }
    if (result == DSMCC_LOADER_BREAK || result == DSMCC_LOADER_ERROR)
        appmgr::dsmcc::forget_mounted_carousel();
    if (result != DSMCC_LOADER_OK)
        AM_WARN("carousel load of %s: %s\n", target.loader_url.c_str(), result_name(result));
    return result;
}

HbbFileSystemEntryDescriptor* make_descriptor(HbbFileSystemEntryType type, char* payload,
                                              unsigned int length, void* loader_buffer,
                                              char* own_buffer) {
    auto* holder = new (std::nothrow) DescriptorHolder{};
    if (holder == nullptr) {
        AM_ERROR("out of memory for a carousel entry\n");
        if (loader_buffer != nullptr) DSMCC_LoaderRelease(loader_buffer);
        std::free(own_buffer);
        return nullptr;
    }
    holder->pub.entryType = type;
    holder->pub.entryPayloadLen = static_cast<int>(length);
    holder->pub.entryPayload = payload;
    holder->loader_buffer = loader_buffer;
    holder->own_buffer = own_buffer;
    return &holder->pub;
}

// A name taken from a loader list: not empty, no control characters (the
// payload texts are line based), not "." or "..", and for directory entries
// no "/".
bool usable_name(const char* name, std::size_t length, bool allow_slash) {
    if (length == 0) return false;
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (is_control(c) || (!allow_slash && c == '/')) return false;
    }
    return !(length == 1 && name[0] == '.') && !(length == 2 && name[0] == '.' && name[1] == '.');
}

// Walks a loader list of zero-terminated records, calling take(record,
// length) for each; an unterminated tail is dropped with a warning.
template <typename Take>
void for_each_record(const char* data, unsigned int length, const char* what, Take&& take) {
    std::size_t pos = 0;
    while (pos < length) {
        const void* zero = std::memchr(data + pos, '\0', length - pos);
        if (zero == nullptr) {
            AM_WARN("%s: unterminated record at the end of the list dropped\n", what);
            return;
        }
        const std::size_t end = static_cast<std::size_t>(static_cast<const char*>(zero) - data);
        take(data + pos, end - pos);
        pos = end + 1;
    }
}

// Copies text into a malloc block (at least one byte) for a descriptor.
char* own_copy(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

HbbFileSystemEntryDescriptor* text_descriptor(HbbFileSystemEntryType type,
                                              const std::string& text) {
    char* copy = own_copy(text);
    if (copy == nullptr) {
        AM_ERROR("out of memory for a carousel listing\n");
        return nullptr;
    }
    return make_descriptor(type, copy, static_cast<unsigned int>(text.size()), nullptr, copy);
}

}  // namespace

extern "C" {

int hbbCheckDSMCCExist(const char* url) {
    Target target;
    if (!resolve(url, target)) return eHBBTV_FS_CHECK_INVALID_TYPE;
    DSMCC_LoaderEntryType type = DSMCC_LOADER_ENTRY_FILE;
    unsigned short module = 0;
    const DSMCC_LoaderResult result = load(target, [&] {
        return DSMCC_LoaderGetEntryInfo(target.loader_url.c_str(), &type, &module);
    });
    if (result == DSMCC_LOADER_BREAK) return eHBBTV_FS_CHECK_BREAK_TYPE;
    if (result != DSMCC_LOADER_OK) return eHBBTV_FS_CHECK_INVALID_TYPE;
    // Any entry that exists answers "file": a directory or a stream-event
    // object is there, whatever the page makes of it.
    if (type != DSMCC_LOADER_ENTRY_FILE)
        AM_INFO("carousel entry %s exists (kind %d)\n", target.loader_url.c_str(),
                static_cast<int>(type));
    return eHBBTV_FS_CHECK_FILE_TYPE;
}

int hbbCheckDSMCCEntryType(const char* uri, int* moduleId) {
    if (moduleId != nullptr) *moduleId = 0;
    Target target;
    if (!resolve(uri, target)) return eHBBTV_FS_ENTRY_INVALID_TYPE;
    DSMCC_LoaderEntryType type = DSMCC_LOADER_ENTRY_FILE;
    unsigned short module = 0;
    const DSMCC_LoaderResult result = load(target, [&] {
        return DSMCC_LoaderGetEntryInfo(target.loader_url.c_str(), &type, &module);
    });
    if (result != DSMCC_LOADER_OK) return eHBBTV_FS_ENTRY_INVALID_TYPE;
    switch (type) {
        case DSMCC_LOADER_ENTRY_FILE:
        case DSMCC_LOADER_ENTRY_DIR:
        case DSMCC_LOADER_ENTRY_STREAM_EVENT: break;
        default:
            AM_WARN("carousel entry %s of unknown kind %d\n", target.loader_url.c_str(),
                    static_cast<int>(type));
            return eHBBTV_FS_ENTRY_INVALID_TYPE;
    }
    if (moduleId != nullptr) *moduleId = module;
    // The loader's kinds have the values of HbbFileSystemEntryType.
    return static_cast<int>(type);
}

HbbFileSystemEntryDescriptor* hbbGetDsmccFileContent(const char* uri) {
    Target target;
    if (!resolve(uri, target)) return nullptr;
    unsigned char* data = nullptr;
    unsigned int length = 0;
    const DSMCC_LoaderResult result = load(target, [&] {
        data = nullptr;
        length = 0;
        return DSMCC_LoaderGetFile(target.loader_url.c_str(), &data, &length);
    });
    if (result != DSMCC_LOADER_OK) return nullptr;
    if (length > kMaxPayloadLength || (data == nullptr && length != 0)) {
        AM_ERROR("carousel file %s refused: %u bytes\n", target.loader_url.c_str(), length);
        DSMCC_LoaderRelease(data);
        return nullptr;
    }
    return make_descriptor(eHBBTV_FS_ENTRY_FILE_TYPE, reinterpret_cast<char*>(data), length, data,
                           nullptr);
}

HbbFileSystemEntryDescriptor* hbbGetDsmccDirContent(const char* uri) {
    Target target;
    if (!resolve(uri, target)) return nullptr;
    char* records = nullptr;
    unsigned int length = 0;
    const DSMCC_LoaderResult result = load(target, [&] {
        records = nullptr;
        length = 0;
        return DSMCC_LoaderGetDirectory(target.loader_url.c_str(), &records, &length);
    });
    if (result != DSMCC_LOADER_OK) return nullptr;
    const LoaderList held(records);
    if (length > kMaxPayloadLength || (records == nullptr && length != 0)) {
        AM_ERROR("carousel directory %s refused: %u bytes\n", target.loader_url.c_str(), length);
        return nullptr;
    }
    // One line per entry: kind digit, blank, name.
    std::string listing;
    for_each_record(records, length, "carousel directory", [&](const char* record,
                                                                std::size_t size) {
        if (size < 2 || record[0] < '0' || record[0] > '2' ||
            !usable_name(record + 1, size - 1, false)) {
            AM_WARN("carousel directory %s: unusable entry skipped\n", target.loader_url.c_str());
            return;
        }
        listing.push_back(record[0]);
        listing.push_back(' ');
        listing.append(record + 1, size - 1);
        listing.push_back('\n');
    });
    return text_descriptor(eHBBTV_FS_ENTRY_DIR_TYPE, listing);
}

HbbFileSystemEntryDescriptor* hbbGetDsmccStreamEventList(const char* uri) {
    Target target;
    if (!resolve(uri, target)) return nullptr;
    char* names = nullptr;
    unsigned int length = 0;
    const DSMCC_LoaderResult result = load(target, [&] {
        names = nullptr;
        length = 0;
        return DSMCC_LoaderGetStreamEventList(target.loader_url.c_str(), &names, &length);
    });
    if (result != DSMCC_LOADER_OK) return nullptr;
    const LoaderList held(names);
    if (length > kMaxPayloadLength || (names == nullptr && length != 0)) {
        AM_ERROR("stream-event list %s refused: %u bytes\n", target.loader_url.c_str(), length);
        return nullptr;
    }
    // The event names separated by ",", the form listeners match names in;
    // a name holding "," could not be told apart and is left out.
    std::string list;
    for_each_record(names, length, "stream-event list", [&](const char* name, std::size_t size) {
        if (!usable_name(name, size, true) || std::memchr(name, ',', size) != nullptr) {
            AM_WARN("stream-event list %s: unusable event name skipped\n",
                    target.loader_url.c_str());
            return;
        }
        if (!list.empty()) list.push_back(',');
        list.append(name, size);
    });
    return text_descriptor(eHBBTV_FS_ENTRY_STE_TYPE, list);
}

void hbbReleaseDsmccEntryDescriptor(HbbFileSystemEntryDescriptor* descriptor) {
    if (descriptor == nullptr) return;
    auto* holder = reinterpret_cast<DescriptorHolder*>(descriptor);
    if (holder->loader_buffer != nullptr) DSMCC_LoaderRelease(holder->loader_buffer);
    std::free(holder->own_buffer);
    delete holder;
}

int hbbtvDeleteDsmccFSAFile(void) {
    const int result = DSMCC_DeleteAllFileFromFSA();
    if (result != 0) AM_ERROR("DSMCC_DeleteAllFileFromFSA failed (%d)\n", result);
    return result;
}

}  // extern "C"
