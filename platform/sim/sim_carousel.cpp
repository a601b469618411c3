// Object carousel and DSM-CC loader.
//
// A local directory tree stands in for the object carousel of a component
// tag (hbb_sim_set_carousel). QUMA_MountCarouselObject mounts the carousel
// of a tag that has one (eQUMA_NOT_AVAILABLE otherwise); the loader serves
// only URLs whose last host segment is the mounted tag.
//
// Mapping of the tree:
// - directories are carousel directories, regular files are files;
// - a regular file "NAME.ste" is the stream-event object "NAME": each of its
//   lines is one event name (surrounding blanks dropped; empty lines and
//   lines starting with "#" ignored). "NAME.ste" itself is not visible, and
//   it is ignored when a plain entry "NAME" exists;
// - the entries of a directory are listed in byte order of their names;
// - every entry is carried in the module of its directory: the root
//   directory's module is 1, any other directory's a number from 2 to 65535
//   derived from its path (stable across runs); hbb_sim_set_carousel_modules
//   gives entries the modules of a real carousel instead.
//
// URL paths are percent-decoded per component. Empty, "." and ".."
// components, decoded "/" or zero bytes, and symbolic links that lead out of
// the tree are refused (DSMCC_LOADER_NOT_FOUND); nothing outside the
// directory is ever read.
//
// hbb_sim_carousel_break_next makes the next loader calls report
// DSMCC_LOADER_BREAK and drop the mount, as a service change during the load
// would.
#include <dirent.h>
#include <limits.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace hbbsim {
void reset_carousel();
}

namespace {

constexpr const char* kStreamEventSuffix = ".ste";
constexpr std::size_t kStreamEventSuffixLength = 4;
// Files larger than this are refused (DSMCC_LOADER_ERROR), like a module
// the receiver could not hold.
constexpr long long kMaxFileSize = 64LL * 1024 * 1024;

std::mutex carousel_mutex;
std::map<int, std::string> carousels;  // component tag -> real path of the root
// component tag -> path in the carousel ("" for the root) -> module id, for
// carousels whose module numbers are known (a capture's); other entries get
// derived numbers.
std::map<int, std::map<std::string, unsigned short>> carousel_modules;
int mounted_tag = -1;
int breaks_pending = 0;

// ---- URL and path handling -------------------------------------------------

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool ends_with(const std::string& text, const char* suffix, std::size_t suffix_length) {
    return text.size() >= suffix_length &&
           text.compare(text.size() - suffix_length, suffix_length, suffix) == 0;
}

// A dvb: URL split into its component tag and decoded path components.
struct ParsedUrl {
    int ctag = -1;
    std::vector<std::string> components;
};

bool parse_url(const char* url, ParsedUrl& out) {
    if (url == nullptr || strncasecmp(url, "dvb://", 6) != 0) return false;
    const char* host = url + 6;
    const std::size_t host_length = std::strcspn(host, "/");
    if (host_length == 0 || host_length > 31) return false;
    const std::string host_text(host, host_length);
    const std::size_t dot = host_text.rfind('.');
    if (dot == std::string::npos) return false;
    const std::string tag_text = host_text.substr(dot + 1);
    if (tag_text.empty() || tag_text.size() > 4) return false;
    int tag = 0;
    for (char c : tag_text) {
        const int d = hex_digit(c);
        if (d < 0) return false;
        tag = tag * 16 + d;
    }
    out.ctag = tag;

    const char* path = host[host_length] == '/' ? host + host_length + 1 : host + host_length;
    std::string rest(path);
    if (!rest.empty() && rest.back() == '/') rest.pop_back();  // "dvb://h/dir/" names dir
    if (rest.empty()) return true;                             // the root
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = rest.find('/', start);
        const std::string raw = rest.substr(start, slash == std::string::npos ? std::string::npos
                                                                                : slash - start);
        std::string decoded;
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] == '%' && i + 2 < raw.size() && hex_digit(raw[i + 1]) >= 0 &&
                hex_digit(raw[i + 2]) >= 0) {
                decoded.push_back(static_cast<char>(hex_digit(raw[i + 1]) * 16 + hex_digit(raw[i + 2])));
                i += 2;
            } else {
                decoded.push_back(raw[i]);
            }
        }
        if (decoded.empty() || decoded == "." || decoded == ".." ||
            decoded.find('/') != std::string::npos || decoded.find('\0') != std::string::npos)
            return false;
        out.components.push_back(decoded);
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

// The real path of path, when it exists and lies inside root (or is root).
bool real_inside(const std::string& root, const std::string& path, std::string* real) {
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) return false;
    const std::string resolved(buffer);
    if (resolved != root && resolved.compare(0, root.size() + 1, root + "/") != 0) return false;
    if (real) *real = resolved;
    return true;
}

struct Entry {
    DSMCC_LoaderEntryType type = DSMCC_LOADER_ENTRY_FILE;
    std::string real_path;        // inside the root
    std::string parent_relative;  // "" for entries of the root directory
    std::string relative;         // the entry's own path, "" for the root
};

std::string joined(const std::vector<std::string>& components) {
    std::string path;
    for (const std::string& c : components) path += (path.empty() ? "" : "/") + c;
    return path;
}

// Finds the entry a URL names in the carousel at root.
DSMCC_LoaderResult find_entry(const std::string& root, const ParsedUrl& url, Entry& entry) {
    std::string current = root;
    std::string relative;
    for (std::size_t i = 0; i < url.components.size(); ++i) {
        const std::string& name = url.components[i];
        const bool last = i + 1 == url.components.size();
        std::string real;
        struct stat st;
        if (real_inside(root, current + "/" + name, &real) && ::stat(real.c_str(), &st) == 0) {
            if (S_ISDIR(st.st_mode)) {
                if (last) {
                    entry.type = DSMCC_LOADER_ENTRY_DIR;
                    entry.real_path = real;
                    entry.parent_relative = relative;
                    return DSMCC_LOADER_OK;
                }
                current = real;
                relative += (relative.empty() ? "" : "/") + name;
                continue;
            }
            // "NAME.ste" files are only visible as the stream-event object NAME.
            if (S_ISREG(st.st_mode) && last &&
                !ends_with(name, kStreamEventSuffix, kStreamEventSuffixLength)) {
                entry.type = DSMCC_LOADER_ENTRY_FILE;
                entry.real_path = real;
                entry.parent_relative = relative;
                return DSMCC_LOADER_OK;
            }
            return DSMCC_LOADER_NOT_FOUND;
        }
        if (last && real_inside(root, current + "/" + name + kStreamEventSuffix, &real) &&
            ::stat(real.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
            entry.type = DSMCC_LOADER_ENTRY_STREAM_EVENT;
            entry.real_path = real;
            entry.parent_relative = relative;
            return DSMCC_LOADER_OK;
        }
        return DSMCC_LOADER_NOT_FOUND;
    }
    entry.type = DSMCC_LOADER_ENTRY_DIR;  // no component: the root
    entry.real_path = root;
    entry.parent_relative.clear();
    return DSMCC_LOADER_OK;
}

unsigned short module_of(const std::string& parent_relative) {
    if (parent_relative.empty()) return 1;
    std::uint32_t hash = 2166136261u;  // FNV-1a
    for (unsigned char c : parent_relative) {
        hash ^= c;
        hash *= 16777619u;
    }
    return static_cast<unsigned short>(2 + hash % 65534u);
}

// Common start of every loader call: the break simulation, the mount check
// and the entry look-up. Runs under carousel_mutex.
DSMCC_LoaderResult locate(const char* dvbUrl, Entry& entry) {
    if (breaks_pending > 0) {
        --breaks_pending;
        mounted_tag = -1;
        return DSMCC_LOADER_BREAK;
    }
    ParsedUrl url;
    if (!parse_url(dvbUrl, url)) return DSMCC_LOADER_NOT_FOUND;
    if (mounted_tag < 0 || url.ctag != mounted_tag) return DSMCC_LOADER_ERROR;
    auto found = carousels.find(mounted_tag);
    if (found == carousels.end()) return DSMCC_LOADER_ERROR;
    entry.relative = joined(url.components);
    return find_entry(found->second, url, entry);
}

// The module that carries an entry of the mounted carousel. Runs under
// carousel_mutex.
unsigned short module_of_entry(const Entry& entry) {
    const auto known = carousel_modules.find(mounted_tag);
    if (known != carousel_modules.end()) {
        const auto module = known->second.find(entry.relative);
        if (module != known->second.end()) return module->second;
    }
    return module_of(entry.parent_relative);
}

DSMCC_LoaderResult read_file(const std::string& path, unsigned char** data, unsigned int* length) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return DSMCC_LOADER_ERROR;
    struct stat st;
    if (::fstat(fileno(file), &st) != 0 || st.st_size > kMaxFileSize) {
        std::fclose(file);
        return DSMCC_LOADER_ERROR;
    }
    const std::size_t size = static_cast<std::size_t>(st.st_size);
    auto* buffer = static_cast<unsigned char*>(std::malloc(size ? size : 1));
    if (buffer == nullptr) {
        std::fclose(file);
        return DSMCC_LOADER_ERROR;
    }
    const std::size_t got = size ? std::fread(buffer, 1, size, file) : 0;
    std::fclose(file);
    if (got != size) {
        std::free(buffer);
        return DSMCC_LOADER_ERROR;
    }
    *data = buffer;
    *length = static_cast<unsigned int>(size);
    return DSMCC_LOADER_OK;
}

// Hands a byte string out as a malloc block.
DSMCC_LoaderResult hand_out(const std::string& bytes, char** out, unsigned int* length) {
    char* buffer = static_cast<char*>(std::malloc(bytes.size() ? bytes.size() : 1));
    if (buffer == nullptr) return DSMCC_LOADER_ERROR;
    if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
    *out = buffer;
    *length = static_cast<unsigned int>(bytes.size());
    return DSMCC_LOADER_OK;
}

DSMCC_LoaderResult list_directory(const std::string& root, const std::string& dir, char** out,
                                  unsigned int* length) {
    DIR* handle = ::opendir(dir.c_str());
    if (handle == nullptr) return DSMCC_LOADER_ERROR;
    std::vector<std::string> names;
    // readdir() tells the end of the directory from a failure only by errno:
    // a directory that cannot be read is an error, not an empty listing.
    bool read_failed = false;
    for (;;) {
        errno = 0;
        const dirent* d = ::readdir(handle);
        if (d == nullptr) {
            read_failed = errno != 0;
            break;
        }
        const std::string name = d->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(handle);
    if (read_failed) return DSMCC_LOADER_ERROR;
    std::sort(names.begin(), names.end());

    std::vector<std::pair<std::string, char>> entries;
    for (const std::string& name : names) {
        std::string real;
        struct stat st;
        if (!real_inside(root, dir + "/" + name, &real) || ::stat(real.c_str(), &st) != 0)
            continue;  // dangling, or leading out of the tree
        if (S_ISDIR(st.st_mode)) {
            entries.emplace_back(name, '1');
        } else if (S_ISREG(st.st_mode)) {
            if (ends_with(name, kStreamEventSuffix, kStreamEventSuffixLength)) {
                const std::string object = name.substr(0, name.size() - kStreamEventSuffixLength);
                if (!object.empty() && !std::binary_search(names.begin(), names.end(), object))
                    entries.emplace_back(object, '2');
            } else {
                entries.emplace_back(name, '0');
            }
        }
    }
    std::sort(entries.begin(), entries.end());
    std::string records;
    for (const auto& e : entries) {
        records.push_back(e.second);
        records += e.first;
        records.push_back('\0');
    }
    return hand_out(records, out, length);
}

DSMCC_LoaderResult read_event_names(const std::string& path, char** out, unsigned int* length) {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    const DSMCC_LoaderResult read = read_file(path, &data, &size);
    if (read != DSMCC_LOADER_OK) return read;
    const std::string text(reinterpret_cast<char*>(data), size);
    std::free(data);
    std::string names;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        const std::size_t first = line.find_first_not_of(" \t\r");
        const std::size_t last = line.find_last_not_of(" \t\r");
        line = first == std::string::npos ? std::string() : line.substr(first, last - first + 1);
        if (!line.empty() && line[0] != '#' && line.find('\0') == std::string::npos) {
            names += line;
            names.push_back('\0');
        }
        start = end + 1;
    }
    return hand_out(names, out, length);
}

}  // namespace

namespace hbbsim {

bool carousel_object(const char* url, int* component_tag, std::string* path) {
    ParsedUrl parsed;
    if (!parse_url(url, parsed)) return false;
    *component_tag = parsed.ctag;
    *path = joined(parsed.components);
    return true;
}

bool carousel_served(int component_tag) {
    std::lock_guard<std::mutex> lock(carousel_mutex);
    return carousels.count(component_tag) != 0;
}

void reset_carousel() {
    std::lock_guard<std::mutex> lock(carousel_mutex);
    carousels.clear();
    carousel_modules.clear();
    mounted_tag = -1;
    breaks_pending = 0;
}

}  // namespace hbbsim

extern "C" {

// ---- control -------------------------------------------------------------------

int hbb_sim_set_carousel(int component_tag, const char* directory) {
    if (component_tag < 0 || component_tag > 0xFFFF) return -1;
    std::lock_guard<std::mutex> lock(carousel_mutex);
    if (directory == nullptr) {
        carousels.erase(component_tag);
        carousel_modules.erase(component_tag);
        if (mounted_tag == component_tag) mounted_tag = -1;
        return 0;
    }
    char buffer[PATH_MAX];
    struct stat st;
    if (::realpath(directory, buffer) == nullptr || ::stat(buffer, &st) != 0 ||
        !S_ISDIR(st.st_mode))
        return -1;
    carousels[component_tag] = buffer;
    return 0;
}

int hbb_sim_set_carousel_modules(int component_tag, const char* const* paths,
                                 const unsigned short* modules, int count) {
    if (component_tag < 0 || component_tag > 0xFFFF || count < 0 ||
        (count > 0 && (paths == nullptr || modules == nullptr)))
        return -1;
    std::map<std::string, unsigned short> map;
    for (int i = 0; i < count; ++i) {
        if (paths[i] == nullptr) return -1;
        map[paths[i]] = modules[i];
    }
    std::lock_guard<std::mutex> lock(carousel_mutex);
    if (map.empty())
        carousel_modules.erase(component_tag);
    else
        carousel_modules[component_tag] = std::move(map);
    return 0;
}

void hbb_sim_clear_carousels(void) { hbbsim::reset_carousel(); }

void hbb_sim_carousel_break_next(int count) {
    std::lock_guard<std::mutex> lock(carousel_mutex);
    breaks_pending = count > 0 ? count : 0;
}

int hbb_sim_mounted_carousel(void) {
    std::lock_guard<std::mutex> lock(carousel_mutex);
    return mounted_tag;
}

// ---- carousel ------------------------------------------------------------------

tQUMA_ErrorCode QUMA_MountCarouselObject(unsigned short componentTag) {
    if (hbbsim::injected_failure(__func__)) return eQUMA_ERROR;
    tQUMA_ErrorCode result;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        if (carousels.count(componentTag) != 0) {
            mounted_tag = componentTag;
            result = eQUMA_NO_ERROR;
        } else {
            mounted_tag = -1;
            result = eQUMA_NOT_AVAILABLE;
        }
    }
    hbbsim::record("QUMA_MountCarouselObject", "ctag=%u -> %d", static_cast<unsigned>(componentTag),
                   static_cast<int>(result));
    return result;
}

tQUMA_ErrorCode QUMA_UmountCarouselObject(const char* mountName) {
    if (hbbsim::injected_failure(__func__)) return eQUMA_ERROR;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        mounted_tag = -1;
    }
    hbbsim::record("QUMA_UmountCarouselObject", "name=%s -> 0", hbbsim::text_or_null(mountName));
    return eQUMA_NO_ERROR;
}

void DSMCC_Disconnect(void) {
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        mounted_tag = -1;
    }
    hbbsim::record("DSMCC_Disconnect", "-");
}

// The simulator reads the tree afresh on every call: there is no file cache
// to empty.
int DSMCC_DeleteAllFileFromFSA(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    hbbsim::record("DSMCC_DeleteAllFileFromFSA", "-> 0");
    return 0;
}

// ---- DSM-CC loader ----------------------------------------------------------------

DSMCC_LoaderResult DSMCC_LoaderGetEntryInfo(const char* dvbUrl, DSMCC_LoaderEntryType* entryType,
                                            unsigned short* moduleId) {
    if (hbbsim::injected_failure(__func__)) return DSMCC_LOADER_ERROR;
    DSMCC_LoaderResult result;
    Entry entry;
    unsigned short module = 0;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        result = locate(dvbUrl, entry);
        if (result == DSMCC_LOADER_OK) module = module_of_entry(entry);
    }
    if (result == DSMCC_LOADER_OK) {
        if (entryType) *entryType = entry.type;
        if (moduleId) *moduleId = module;
    }
    hbbsim::record("DSMCC_LoaderGetEntryInfo", "url=%s -> %d type=%d module=%u",
                   hbbsim::text_or_null(dvbUrl), static_cast<int>(result),
                   result == DSMCC_LOADER_OK ? static_cast<int>(entry.type) : -1,
                   static_cast<unsigned>(module));
    return result;
}

DSMCC_LoaderResult DSMCC_LoaderGetFile(const char* dvbUrl, unsigned char** data,
                                       unsigned int* length) {
    if (hbbsim::injected_failure(__func__)) return DSMCC_LOADER_ERROR;
    DSMCC_LoaderResult result;
    Entry entry;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        result = locate(dvbUrl, entry);
    }
    if (result == DSMCC_LOADER_OK && entry.type != DSMCC_LOADER_ENTRY_FILE)
        result = DSMCC_LOADER_NOT_FOUND;
    unsigned int size = 0;
    if (result == DSMCC_LOADER_OK) {
        if (data == nullptr || length == nullptr) {
            result = DSMCC_LOADER_ERROR;
        } else {
            unsigned char* bytes = nullptr;
            result = read_file(entry.real_path, &bytes, &size);
            if (result == DSMCC_LOADER_OK) {
                *data = bytes;
                *length = size;
            }
        }
    }
    hbbsim::record("DSMCC_LoaderGetFile", "url=%s -> %d length=%u", hbbsim::text_or_null(dvbUrl),
                   static_cast<int>(result), size);
    return result;
}

DSMCC_LoaderResult DSMCC_LoaderGetDirectory(const char* dvbUrl, char** records,
                                            unsigned int* length) {
    if (hbbsim::injected_failure(__func__)) return DSMCC_LOADER_ERROR;
    DSMCC_LoaderResult result;
    Entry entry;
    std::string root;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        result = locate(dvbUrl, entry);
        if (result == DSMCC_LOADER_OK) root = carousels[mounted_tag];
    }
    if (result == DSMCC_LOADER_OK && entry.type != DSMCC_LOADER_ENTRY_DIR)
        result = DSMCC_LOADER_NOT_FOUND;
    if (result == DSMCC_LOADER_OK) {
        result = records && length ? list_directory(root, entry.real_path, records, length)
                                   : DSMCC_LOADER_ERROR;
    }
    hbbsim::record("DSMCC_LoaderGetDirectory", "url=%s -> %d", hbbsim::text_or_null(dvbUrl),
                   static_cast<int>(result));
    return result;
}

DSMCC_LoaderResult DSMCC_LoaderGetStreamEventList(const char* dvbUrl, char** names,
                                                  unsigned int* length) {
    if (hbbsim::injected_failure(__func__)) return DSMCC_LOADER_ERROR;
    DSMCC_LoaderResult result;
    Entry entry;
    {
        std::lock_guard<std::mutex> lock(carousel_mutex);
        result = locate(dvbUrl, entry);
    }
    if (result == DSMCC_LOADER_OK && entry.type != DSMCC_LOADER_ENTRY_STREAM_EVENT)
        result = DSMCC_LOADER_NOT_FOUND;
    if (result == DSMCC_LOADER_OK)
        result = names && length ? read_event_names(entry.real_path, names, length)
                                 : DSMCC_LOADER_ERROR;
    hbbsim::record("DSMCC_LoaderGetStreamEventList", "url=%s -> %d", hbbsim::text_or_null(dvbUrl),
                   static_cast<int>(result));
    return result;
}

// Loader buffers are plain malloc blocks, so a test that replaces a loader
// call with one of its own can rely on this release.
void DSMCC_LoaderRelease(void* buffer) {
    hbbsim::record("DSMCC_LoaderRelease", "%s", buffer ? "buffer" : "null");
    std::free(buffer);
}

}  // extern "C"
