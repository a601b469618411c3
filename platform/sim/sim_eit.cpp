// EIT cache and DVB text conversion.
//
// Simulated later: service caches filled with events. Until then the cache
// is real but empty: clients register and unregister, the cache lock is a
// real recursive lock, and every walk finds no service and no event, so a
// search ends at once with no result.
//
// The text conversion handles the tables a simulated receiver meets: UTF-8
// (selector 0x15), UCS-2 (0x11) and the single-byte tables, which are read
// as ISO 8859-1. The diacritic prefixes of the default table (ISO 6937) and
// the East Asian tables are not converted: their non-ASCII bytes come out as
// Latin-1 characters or are dropped.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "sim_internal.h"

namespace {

std::mutex clients_mutex;
std::set<int> clients;
int next_handle = 0;

std::recursive_mutex cache_lock;
thread_local int cache_lock_depth = 0;

bool is_client(int handle) {
    std::lock_guard<std::mutex> lock(clients_mutex);
    return clients.count(handle) != 0;
}

int no_entry(const char* function, int handle) {
    hbbsim::record(function, "handle=%d -> 0", handle);
    return 0;
}

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
        out.assign(reinterpret_cast<const char*>(text) + 1, length - 1);
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

}  // namespace

extern "C" {

// ---- clients and cursors ------------------------------------------------------

int EIT_DVB_ClientRegister(void) {
    int handle;
    {
        std::lock_guard<std::mutex> lock(clients_mutex);
        handle = next_handle++;
        clients.insert(handle);
    }
    hbbsim::record("EIT_DVB_ClientRegister", "-> %d", handle);
    return handle;
}

int EIT_DVB_ClientUnregister(int handle) {
    int result;
    {
        std::lock_guard<std::mutex> lock(clients_mutex);
        result = clients.erase(handle) ? 0 : -1;
    }
    hbbsim::record("EIT_DVB_ClientUnregister", "handle=%d -> %d", handle, result);
    return result;
}

int EIT_DVB_GetFirstServiceCache(int handle) { return no_entry("EIT_DVB_GetFirstServiceCache", handle); }
int EIT_DVB_GetNextServiceCache(int handle) { return no_entry("EIT_DVB_GetNextServiceCache", handle); }

int EIT_DVB_GetServiceCacheForSpecificService(int handle, int onid, int tsid, int sid) {
    hbbsim::record("EIT_DVB_GetServiceCacheForSpecificService", "handle=%d onid=%d tsid=%d sid=%d -> -1",
                   handle, onid, tsid, sid);
    return -1;
}

int EIT_DVB_GetFirstEventFromCacheNonLock(int handle) {
    return no_entry("EIT_DVB_GetFirstEventFromCacheNonLock", handle);
}
int EIT_DVB_GetNextEventFromCacheNonLock(int handle) {
    return no_entry("EIT_DVB_GetNextEventFromCacheNonLock", handle);
}

int EIT_DVB_GetNextEventFromCache(int handle) {
    std::lock_guard<std::recursive_mutex> lock(cache_lock);
    return no_entry("EIT_DVB_GetNextEventFromCache", handle);
}

// With no event under any cursor there is nothing to fill.
int EIT_DVB_GetEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event) {
    (void)event;
    hbbsim::record("EIT_DVB_GetEventDataNonLock", "handle=%d known=%d -> -1", handle,
                   is_client(handle) ? 1 : 0);
    return -1;
}

int EIT_DVB_GetRestOfEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event) {
    (void)event;
    hbbsim::record("EIT_DVB_GetRestOfEventDataNonLock", "handle=%d known=%d -> -1", handle,
                   is_client(handle) ? 1 : 0);
    return -1;
}

// ---- cache lock --------------------------------------------------------------------

int EIT_DVB_LockCache(void) {
    cache_lock.lock();
    ++cache_lock_depth;
    hbbsim::record("EIT_DVB_LockCache", "depth=%d -> 0", cache_lock_depth);
    return 0;
}

// Unlocking a lock this thread does not hold is refused rather than left
// undefined.
int EIT_DVB_UnlockCache(void) {
    int result = -1;
    if (cache_lock_depth > 0) {
        --cache_lock_depth;
        cache_lock.unlock();
        result = 0;
    }
    hbbsim::record("EIT_DVB_UnlockCache", "depth=%d -> %d", cache_lock_depth, result);
    return result;
}

// ---- text conversion -----------------------------------------------------------------

char* mUT_ConvertCurStdToUTF8(const unsigned char* dvbText, int dvbLength, int* utf8Length) {
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
    hbbsim::record("UT_FreeDVBStringConverted", "%s", converted ? "text" : "null");
    std::free(converted);
}

}  // extern "C"
