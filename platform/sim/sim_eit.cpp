// EIT cache and DVB text conversion.
//
// The cache holds service caches of events, fed through the control API
// (events, scenario lines and files, or a generator for large caches). The
// middleware's semantics are kept: one recursive lock over all caches, and
// per registered client one service cursor and one event cursor. The
// NonLock functions check that the calling thread holds the lock and fail
// otherwise, so a port's callers are held to the same rule.
//
// The text conversion handles the tables a simulated receiver meets: UTF-8
// (selector 0x15), UCS-2 (0x11) and the single-byte tables, which are read
// as ISO 8859-1. The diacritic prefixes of the default table (ISO 6937) and
// the East Asian tables are not converted: their non-ASCII bytes come out as
// Latin-1 characters or are dropped.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace {

// ---- text conversion ---------------------------------------------------------

void append_utf8(std::string& out, unsigned code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Character codes 0x80..0x9F are DVB control codes: 0x8A breaks the line,
// the rest (emphasis on / off and reserved codes) carry no text.
void append_dvb_character(std::string& out, unsigned code) {
    if (code == 0x8A) {
        out += '\n';
    } else if (code >= 0x20 && !(code >= 0x7F && code <= 0x9F) && !(code >= 0xD800 && code <= 0xDFFF)) {
        append_utf8(out, code);
    }
}

std::string convert(const unsigned char* text, size_t length) {
    std::string out;
    size_t pos = 0;
    unsigned selector = (length > 0 && text[0] < 0x20) ? text[0] : 0;
    if (selector == 0x15) {
        // Stops at a zero byte, as a C text would.
        const char* start = reinterpret_cast<const char*>(text) + 1;
        out.assign(start, strnlen(start, length - 1));
        return out;
    }
    if (selector == 0x11) {
        for (pos = 1; pos + 1 < length; pos += 2) {
            unsigned code = (static_cast<unsigned>(text[pos]) << 8) | text[pos + 1];
            if (code >= 0xE080 && code <= 0xE09F) code -= 0xE000;
            append_dvb_character(out, code);
        }
        return out;
    }
    if (selector == 0x10) {
        pos = 3;
    } else if (selector == 0x1F) {
        pos = 2;
    } else if (selector != 0) {
        pos = 1;
    }
    for (; pos < length; ++pos) append_dvb_character(out, text[pos]);
    return out;
}

// ---- the cache ------------------------------------------------------------------

struct SimEvent {
    int event_id = 0;
    int start_time = 0;
    int duration = 0;
    std::optional<std::string> name;           // converted
    std::optional<std::string> short_text;     // DVB-coded
    std::vector<std::string> extended_texts;   // DVB-coded segments
};

struct SimService {
    int onid = 0;
    int tsid = 0;
    int sid = 0;
    std::vector<SimEvent> events;  // in start-time order
};

// Guarded by cache_lock.
std::recursive_mutex cache_lock;
std::vector<SimService> services;
int total_events = 0;
thread_local int cache_lock_depth = 0;
std::atomic<int> cache_holders{0};

// Cursors: -1 is "on nothing". A cursor is only used by its client's
// thread, under the cache lock.
struct Cursor {
    std::atomic<bool> in_use{false};
    int service = -1;
    int event = -1;
};
constexpr int kMaxClients = 256;
Cursor cursors[kMaxClients];
std::mutex clients_mutex;
std::atomic<int> client_count{0};

std::atomic<bool> trace_events{true};

// Read on every event, so kept lock-free; set before a scan starts.
std::atomic<hbb_sim_eit_event_hook_fn> event_hook{nullptr};
std::atomic<void*> event_hook_user{nullptr};

Cursor* cursor_of(int handle) {
    if (handle < 0 || handle >= kMaxClients) return nullptr;
    Cursor* cursor = &cursors[handle];
    return cursor->in_use.load(std::memory_order_acquire) ? cursor : nullptr;
}

// The cursor of a client whose thread holds the cache lock, or null.
Cursor* locked_cursor(int handle) {
    return cache_lock_depth > 0 ? cursor_of(handle) : nullptr;
}

const SimEvent* event_under(const Cursor& cursor) {
    if (cursor.service < 0 || cursor.service >= static_cast<int>(services.size())) return nullptr;
    const auto& events = services[static_cast<size_t>(cursor.service)].events;
    if (cursor.event < 0 || cursor.event >= static_cast<int>(events.size())) return nullptr;
    return &events[static_cast<size_t>(cursor.event)];
}

int service_index_locked(int onid, int tsid, int sid) {
    for (size_t i = 0; i < services.size(); ++i)
        if (services[i].onid == onid && services[i].tsid == tsid && services[i].sid == sid)
            return static_cast<int>(i);
    return -1;
}

int add_service_locked(int onid, int tsid, int sid) {
    int index = service_index_locked(onid, tsid, sid);
    if (index >= 0) return index;
    services.push_back(SimService{onid, tsid, sid, {}});
    return static_cast<int>(services.size()) - 1;
}

void add_event_locked(int service, SimEvent&& event) {
    auto& events = services[static_cast<size_t>(service)].events;
    auto at = std::upper_bound(events.begin(), events.end(), event.start_time,
                               [](int start, const SimEvent& e) { return start < e.start_time; });
    events.insert(at, std::move(event));
    ++total_events;
}

// Holds the cache lock for feeding.
class FeedLock {
public:
    FeedLock() {
        cache_lock.lock();
        ++cache_lock_depth;
        ++cache_holders;
    }
    ~FeedLock() {
        --cache_holders;
        --cache_lock_depth;
        cache_lock.unlock();
    }
    FeedLock(const FeedLock&) = delete;
    FeedLock& operator=(const FeedLock&) = delete;
};

std::optional<std::string> raw_text(const hbb_sim_dvb_text& text) {
    if (text.bytes == nullptr) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(text.bytes), static_cast<size_t>(text.length));
}

char* converted_copy(const std::string& dvb) {
    std::string text = convert(reinterpret_cast<const unsigned char*>(dvb.data()), dvb.size());
    return hbbsim::dup_text(text.c_str());
}

// Releases converted segments made so far.
void free_segments(char** segments, int count) {
    for (int i = 0; i < count; ++i) std::free(segments[i]);
    std::free(segments);
}

// Converts DVB-coded segments into a descriptor (segments and array
// malloc'ed). False when out of memory (nothing is left allocated).
bool fill_descriptor(tEIT_DVB_EventDescriptor* out, const std::vector<std::string>& texts) {
    out->eitEventSegmentNum = 0;
    out->eitEventSegments = nullptr;
    if (texts.empty()) return true;
    char** segments = static_cast<char**>(std::calloc(texts.size(), sizeof(char*)));
    if (segments == nullptr) return false;
    for (size_t i = 0; i < texts.size(); ++i) {
        segments[i] = converted_copy(texts[i]);
        if (segments[i] == nullptr) {
            free_segments(segments, static_cast<int>(i));
            return false;
        }
    }
    out->eitEventSegments = segments;
    out->eitEventSegmentNum = static_cast<int16_t>(texts.size());
    return true;
}

// ---- scenario lines ------------------------------------------------------------------

bool parse_number(const std::string& text, int* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, 0);
    if (*end != '\0' || value < -2147483648LL || value > 2147483647LL) return false;
    *out = static_cast<int>(value);
    return true;
}

std::vector<std::string> split_words(const std::string& text) {
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < text.size()) {
        while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) ++pos;
        size_t end = pos;
        while (end < text.size() && text[end] != ' ' && text[end] != '\t') ++end;
        if (end > pos) words.push_back(text.substr(pos, end - pos));
        pos = end;
    }
    return words;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Splits the text part of an event line at unescaped bars, resolving the
// escapes. raw_first[i] tells whether field i began with a raw byte below
// 0x20 (a character-table selector).
bool split_texts(const std::string& text, std::vector<std::string>* fields,
                 std::vector<bool>* raw_first) {
    std::string field;
    bool raw = false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '|') {
            fields->push_back(field);
            raw_first->push_back(raw);
            field.clear();
            raw = false;
            continue;
        }
        if (c != '\\') {
            field += c;
            continue;
        }
        if (i + 1 >= text.size()) return false;
        char next = text[++i];
        if (next == '|' || next == '\\') {
            field += next;
        } else if (next == 'x' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
                   hex_digit(text[i + 2]) >= 0) {
            char byte = static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2]));
            if (field.empty() && static_cast<unsigned char>(byte) < 0x20) raw = true;
            field += byte;
            i += 2;
        } else {
            return false;
        }
    }
    fields->push_back(field);
    raw_first->push_back(raw);
    return true;
}

// A scenario text as DVB bytes: as it stands when it selects its table,
// otherwise UTF-8 behind the UTF-8 table byte.
std::string dvb_coded(const std::string& text, bool raw) {
    return raw ? text : std::string(1, '\x15') + text;
}

std::string trimmed(const std::string& text) {
    size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string::npos) return std::string();
    size_t end = text.find_last_not_of(" \t\r\n");
    return text.substr(start, end - start + 1);
}

int feed_line(const std::string& input) {
    std::string line = trimmed(input);
    if (line.empty() || line[0] == '#') return 0;
    size_t bar = line.find('|');
    std::vector<std::string> words = split_words(trimmed(line.substr(0, bar)));
    if (words.empty()) return -1;
    int numbers[6];
    if (words[0] == "service") {
        if (words.size() != 4 || bar != std::string::npos) return -1;
        for (int i = 0; i < 3; ++i)
            if (!parse_number(words[static_cast<size_t>(i) + 1], &numbers[i])) return -1;
        return hbb_sim_eit_add_service(numbers[0], numbers[1], numbers[2]) >= 0 ? 0 : -1;
    }
    if (words[0] != "event" || words.size() != 7) return -1;
    for (int i = 0; i < 6; ++i)
        if (!parse_number(words[static_cast<size_t>(i) + 1], &numbers[i])) return -1;
    std::vector<std::string> texts;
    std::vector<bool> raw;
    if (bar != std::string::npos && !split_texts(line.substr(bar + 1), &texts, &raw)) return -1;
    if (texts.size() > 257) return -1;

    std::vector<std::string> coded(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) coded[i] = dvb_coded(texts[i], raw[i]);
    auto as_text = [](const std::string& bytes) {
        return hbb_sim_dvb_text{reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size())};
    };
    hbb_sim_eit_event event{};
    event.onid = numbers[0];
    event.tsid = numbers[1];
    event.sid = numbers[2];
    event.event_id = numbers[3];
    event.start_time = numbers[4];
    event.duration = numbers[5];
    if (!texts.empty() && texts[0] != "-") event.name = as_text(coded[0]);
    if (texts.size() > 1) event.short_description = as_text(coded[1]);
    std::vector<hbb_sim_dvb_text> extended;
    for (size_t i = 2; i < texts.size(); ++i) extended.push_back(as_text(coded[i]));
    event.extended_description = extended.empty() ? nullptr : extended.data();
    event.extended_segments = static_cast<int>(extended.size());
    return hbb_sim_eit_add_event(&event);
}

// ---- generator ---------------------------------------------------------------------------

// Small deterministic generator (xorshift32).
struct Random {
    unsigned state;
    unsigned next() {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
};

const char* const kTitleWords[] = {
    "Morning",  "Midday",   "Late",     "Weekend", "Family",   "Classic",  "Live",     "Summer",
    "Winter",   "Ocean",    "Mountain", "City",    "Garden",   "Kitchen",  "Science",  "History",
    "Travel",   "Comedy",   "Drama",    "Quiz",    "Sport",    "Music",    "Wildlife", "Detective",
    "Cartoon",  "Concert",  "Market",   "Weather", "Magazine", "Report",   "Special",  "Journey",
    "Football", "Tennis",   "Cycling",  "Cooking", "Gardens",  "Animals",  "Planet",   "Stars",
    "Highway",  "Islands",  "Valley",   "Harbour", "Forest",   "Desert",   "River",    "Castle",
    "Village",  "Studio",   "Theatre",  "Gallery", "Museum",   "Library",  "Railway",  "Airport",
    "Bridge",   "Tower",    "Square",   "Lighthouse", "Orchard", "Meadow", "Canyon",   "News"};
const char* const kTitleEndings[] = {"Show", "Hour", "Club", "Time", "Tales", "Files", "Today",
                                     "Tonight"};

}  // namespace

extern "C" {

// ---- clients and cursors ------------------------------------------------------

int EIT_DVB_ClientRegister(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int handle = -1;
    {
        std::lock_guard<std::mutex> lock(clients_mutex);
        for (int i = 0; i < kMaxClients; ++i) {
            if (!cursors[i].in_use.load()) {
                cursors[i].service = -1;
                cursors[i].event = -1;
                cursors[i].in_use.store(true, std::memory_order_release);
                ++client_count;
                handle = i;
                break;
            }
        }
    }
    hbbsim::record("EIT_DVB_ClientRegister", "-> %d", handle);
    return handle;
}

int EIT_DVB_ClientUnregister(int handle) {
    // An injected failure still unregisters (the failure is only reported).
    int result = -1;
    {
        std::lock_guard<std::mutex> lock(clients_mutex);
        if (cursor_of(handle) != nullptr) {
            cursors[handle].in_use.store(false, std::memory_order_release);
            --client_count;
            result = 0;
        }
    }
    if (result == 0 && hbbsim::injected_failure(__func__)) return -1;
    hbbsim::record("EIT_DVB_ClientUnregister", "handle=%d -> %d", handle, result);
    return result;
}

// Service cursors move under the cache lock (taken here when the caller
// does not hold it; it is recursive).
int EIT_DVB_GetFirstServiceCache(int handle) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int result = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(cache_lock);
        if (Cursor* cursor = cursor_of(handle)) {
            cursor->service = services.empty() ? -1 : 0;
            cursor->event = -1;
            result = services.empty() ? 0 : 1;
        }
    }
    hbbsim::record("EIT_DVB_GetFirstServiceCache", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetNextServiceCache(int handle) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int result = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(cache_lock);
        if (Cursor* cursor = cursor_of(handle)) {
            if (cursor->service >= 0 && cursor->service + 1 < static_cast<int>(services.size())) {
                ++cursor->service;
                result = 1;
            } else {
                cursor->service = -1;
            }
            cursor->event = -1;
        }
    }
    hbbsim::record("EIT_DVB_GetNextServiceCache", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetServiceCacheForSpecificService(int handle, int onid, int tsid, int sid) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    {
        std::lock_guard<std::recursive_mutex> lock(cache_lock);
        if (Cursor* cursor = cursor_of(handle)) {
            result = service_index_locked(onid, tsid, sid);
            cursor->service = result;
            cursor->event = -1;
        }
    }
    hbbsim::record("EIT_DVB_GetServiceCacheForSpecificService",
                   "handle=%d onid=%d tsid=%d sid=%d -> %d", handle, onid, tsid, sid, result);
    return result;
}

int EIT_DVB_GetFirstEventFromCacheNonLock(int handle) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int result = 0;
    if (Cursor* cursor = locked_cursor(handle)) {
        cursor->event = 0;
        result = event_under(*cursor) != nullptr ? 1 : 0;
        if (result == 0) cursor->event = -1;
    }
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("EIT_DVB_GetFirstEventFromCacheNonLock", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetNextEventFromCacheNonLock(int handle) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int result = 0;
    if (Cursor* cursor = locked_cursor(handle)) {
        if (cursor->event >= 0) {
            ++cursor->event;
            result = event_under(*cursor) != nullptr ? 1 : 0;
        }
        if (result == 0) cursor->event = -1;
    }
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("EIT_DVB_GetNextEventFromCacheNonLock", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetNextEventFromCache(int handle) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int result = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(cache_lock);
        ++cache_lock_depth;
        if (Cursor* cursor = cursor_of(handle)) {
            if (cursor->event >= 0) {
                ++cursor->event;
                result = event_under(*cursor) != nullptr ? 1 : 0;
            }
            if (result == 0) cursor->event = -1;
        }
        --cache_lock_depth;
    }
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("EIT_DVB_GetNextEventFromCache", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    Cursor* cursor = locked_cursor(handle);
    const SimEvent* found = cursor != nullptr ? event_under(*cursor) : nullptr;
    if (found != nullptr && event != nullptr) {
        if (hbb_sim_eit_event_hook_fn hook = event_hook.load(std::memory_order_acquire))
            hook(handle, found->event_id, event_hook_user.load(std::memory_order_acquire));
        const SimService& service = services[static_cast<size_t>(cursor->service)];
        event->eitName = found->name ? const_cast<char*>(found->name->c_str()) : nullptr;
        event->eitStartTime = found->start_time;
        event->eitDuration = found->duration;
        event->eitEventID = found->event_id;
        event->eitOnid = service.onid;
        event->eitTsid = service.tsid;
        event->eitSid = service.sid;
        result = 0;
    }
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("EIT_DVB_GetEventDataNonLock", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetRestOfEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    Cursor* cursor = locked_cursor(handle);
    const SimEvent* found = cursor != nullptr ? event_under(*cursor) : nullptr;
    if (found != nullptr && event != nullptr) {
        std::vector<std::string> short_texts;
        if (found->short_text) short_texts.push_back(*found->short_text);
        tEIT_DVB_EventDescriptor short_desc{};
        tEIT_DVB_EventDescriptor long_desc{};
        if (fill_descriptor(&short_desc, short_texts)) {
            if (fill_descriptor(&long_desc, found->extended_texts)) {
                event->eitShortEventDesc = short_desc;
                event->eitLongEventDesc = long_desc;
                result = 0;
            } else {
                free_segments(short_desc.eitEventSegments, short_desc.eitEventSegmentNum);
            }
        }
    }
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("EIT_DVB_GetRestOfEventDataNonLock", "handle=%d -> %d", handle, result);
    return result;
}

// ---- cache lock --------------------------------------------------------------------

int EIT_DVB_LockCache(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    cache_lock.lock();
    ++cache_lock_depth;
    ++cache_holders;
    hbbsim::record("EIT_DVB_LockCache", "depth=%d -> 0", cache_lock_depth);
    return 0;
}

// Unlocking a lock this thread does not hold is refused rather than left
// undefined. An injected failure still releases the lock (the failure is
// only reported).
int EIT_DVB_UnlockCache(void) {
    int result = -1;
    if (cache_lock_depth > 0) {
        --cache_holders;
        --cache_lock_depth;
        cache_lock.unlock();
        result = 0;
    }
    if (result == 0 && hbbsim::injected_failure(__func__)) return -1;
    hbbsim::record("EIT_DVB_UnlockCache", "depth=%d -> %d", cache_lock_depth, result);
    return result;
}

// ---- text conversion -----------------------------------------------------------------

char* mUT_ConvertCurStdToUTF8(const unsigned char* dvbText, int dvbLength, int* utf8Length) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    char* converted = nullptr;
    if (dvbText && dvbLength >= 0) {
        std::string text = convert(dvbText, static_cast<size_t>(dvbLength));
        converted = hbbsim::dup_text(text.c_str());
        if (converted && utf8Length) *utf8Length = static_cast<int>(std::strlen(converted));
    }
    hbbsim::record("mUT_ConvertCurStdToUTF8", "length=%d -> %s", dvbLength,
                   converted ? converted : "null");
    return converted;
}

void UT_FreeDVBStringConverted(char* converted) {
    if (trace_events.load(std::memory_order_relaxed))
        hbbsim::record("UT_FreeDVBStringConverted", "%s", converted ? "text" : "null");
    std::free(converted);
}

// ---- control -------------------------------------------------------------------------

int hbb_sim_eit_add_service(int onid, int tsid, int sid) {
    FeedLock lock;
    return add_service_locked(onid, tsid, sid);
}

int hbb_sim_eit_add_event(const hbb_sim_eit_event* event) {
    if (event == nullptr || event->extended_segments < 0 || event->extended_segments > 255 ||
        (event->extended_segments > 0 && event->extended_description == nullptr))
        return -1;
    auto bad = [](const hbb_sim_dvb_text& t) { return t.bytes != nullptr && t.length < 0; };
    if (bad(event->name) || bad(event->short_description)) return -1;
    for (int i = 0; i < event->extended_segments; ++i)
        if (bad(event->extended_description[i]) || event->extended_description[i].bytes == nullptr)
            return -1;
    SimEvent added;
    added.event_id = event->event_id;
    added.start_time = event->start_time;
    added.duration = event->duration;
    if (event->name.bytes != nullptr)
        added.name = convert(event->name.bytes, static_cast<size_t>(event->name.length));
    added.short_text = raw_text(event->short_description);
    for (int i = 0; i < event->extended_segments; ++i)
        added.extended_texts.push_back(*raw_text(event->extended_description[i]));
    FeedLock lock;
    int service = add_service_locked(event->onid, event->tsid, event->sid);
    add_event_locked(service, std::move(added));
    return 0;
}

int hbb_sim_eit_feed_line(const char* line) {
    if (line == nullptr) return -1;
    return feed_line(line);
}

int hbb_sim_eit_load_file(const char* path, int* errorLine) {
    if (errorLine) *errorLine = 0;
    if (path == nullptr) return -1;
    std::ifstream in(path);
    if (!in) return -1;
    int before = hbb_sim_eit_event_count();
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (feed_line(line) != 0) {
            if (errorLine) *errorLine = number;
            return -1;
        }
    }
    return hbb_sim_eit_event_count() - before;
}

int hbb_sim_eit_generate(int service_count, int events_per_service, int first_start,
                         unsigned int seed) {
    if (service_count < 0 || events_per_service < 0 || service_count > 100000 ||
        events_per_service > 1000000 ||
        static_cast<long long>(service_count) * events_per_service > 10000000LL)
        return -1;
    Random random{seed != 0 ? seed : 0x9E3779B9u};
    const int word_count = static_cast<int>(sizeof kTitleWords / sizeof kTitleWords[0]);
    const int ending_count = static_cast<int>(sizeof kTitleEndings / sizeof kTitleEndings[0]);
    int added = 0;
    for (int k = 0; k < service_count; ++k) {
        // Built outside the lock, then moved in as a whole.
        std::vector<SimEvent> events;
        events.reserve(static_cast<size_t>(events_per_service));
        long long start = first_start;
        for (int e = 0; e < events_per_service; ++e) {
            SimEvent event;
            event.event_id = e + 1;
            event.start_time = static_cast<int>(start);
            event.duration = 300 * static_cast<int>(1 + random.next() % 24);
            start += event.duration;
            std::string title = kTitleWords[random.next() % static_cast<unsigned>(word_count)];
            title += ' ';
            title += kTitleEndings[random.next() % static_cast<unsigned>(ending_count)];
            event.short_text = "\x15" + title + ": episode " + std::to_string(e + 1) + ".";
            event.extended_texts.push_back("\x15" "Presented live from studio " +
                                           std::to_string(1 + k % 9) + ". ");
            event.extended_texts.push_back("\x15" "Followed by the weather forecast.");
            event.name = std::move(title);
            events.push_back(std::move(event));
        }
        FeedLock lock;
        int service = add_service_locked(1, 1 + k / 10, 100 + k);
        auto& target = services[static_cast<size_t>(service)].events;
        if (target.empty()) {
            total_events += static_cast<int>(events.size());
            target = std::move(events);
        } else {
            for (auto& event : events) add_event_locked(service, std::move(event));
        }
        added += events_per_service;
    }
    return added;
}

void hbb_sim_eit_clear(void) {
    FeedLock lock;
    services.clear();
    services.shrink_to_fit();
    total_events = 0;
}

int hbb_sim_eit_service_count(void) {
    FeedLock lock;
    return static_cast<int>(services.size());
}

int hbb_sim_eit_event_count(void) {
    FeedLock lock;
    return total_events;
}

int hbb_sim_eit_client_count(void) { return client_count.load(); }

int hbb_sim_eit_cache_locked(void) { return cache_holders.load() > 0 ? 1 : 0; }

void hbb_sim_eit_trace_event_calls(int enabled) { trace_events = enabled != 0; }

void hbb_sim_eit_set_event_hook(hbb_sim_eit_event_hook_fn fn, void* user) {
    event_hook_user.store(user, std::memory_order_release);
    event_hook.store(fn, std::memory_order_release);
}

}  // extern "C"
