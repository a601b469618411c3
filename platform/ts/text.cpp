// DVB texts (character-table byte, control codes) and DVB dates and times.
// Dates are computed in 64-bit days and seconds, never through time_t, so
// they are the same on a 32-bit receiver after 2038.
#include <iconv.h>

#include <cerrno>
#include <cstdio>

#include "ts_decode.h"

namespace ts {
namespace {

// The iconv name of the table a text selects with its first bytes, and the
// number of those bytes; null for a table that is reserved or unsupported.
const char* table_of(const uint8_t* bytes, std::size_t length, std::size_t* skip) {
    static const char* const kIso8859[] = {nullptr,      "ISO-8859-1",  "ISO-8859-2",  "ISO-8859-3",
                                           "ISO-8859-4", "ISO-8859-5",  "ISO-8859-6",  "ISO-8859-7",
                                           "ISO-8859-8", "ISO-8859-9",  "ISO-8859-10", "ISO-8859-11",
                                           nullptr,      "ISO-8859-13", "ISO-8859-14", "ISO-8859-15"};
    *skip = 0;
    if (length == 0 || bytes[0] >= 0x20) return "ISO6937";  // the default table
    const uint8_t first = bytes[0];
    *skip = 1;
    if (first >= 0x01 && first <= 0x0B) return kIso8859[first + 4];
    switch (first) {
        case 0x10:
            // Three bytes: 0x10 and the 16-bit number of an ISO 8859 part.
            if (length < 3 || bytes[1] != 0 || bytes[2] == 0 || bytes[2] > 15) return nullptr;
            *skip = 3;
            return kIso8859[bytes[2]];
        case 0x11: return "UCS-2BE";
        case 0x12: return "EUC-KR";
        case 0x13: return "GB2312";
        case 0x14: return "BIG5";
        case 0x15: return "UTF-8";
        default: return nullptr;  // reserved, or 0x1F (an encoding_type_id)
    }
}

bool single_byte(const char* table) {
    const std::string name = table;
    return name.rfind("ISO-8859", 0) == 0 || name == "ISO6937";
}

// In the single-byte tables 0x80..0x9F are control codes: 0x8A is a line
// break, the others (emphasis on/off, ...) carry no text.
std::string strip_single_byte_controls(const uint8_t* bytes, std::size_t length) {
    std::string out;
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        const uint8_t c = bytes[i];
        if (c == 0x8A) out.push_back('\n');
        else if (c < 0x80 || c > 0x9F) out.push_back(static_cast<char>(c));
    }
    return out;
}

// The same codes in the two-byte and UTF-8 tables are U+E080..U+E09F
// (UTF-8 EE 82 80 .. EE 82 9F).
std::string strip_private_controls(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<uint8_t>(text[i]);
        if (c == 0xEE && i + 2 < text.size() && static_cast<uint8_t>(text[i + 1]) == 0x82 &&
            static_cast<uint8_t>(text[i + 2]) >= 0x80 && static_cast<uint8_t>(text[i + 2]) <= 0x9F) {
            if (static_cast<uint8_t>(text[i + 2]) == 0x8A) out.push_back('\n');
            i += 2;
            continue;
        }
        out.push_back(text[i]);
    }
    return out;
}

// iconv over a whole buffer. A byte sequence the table does not define is
// replaced by U+FFFD and the conversion goes on.
bool convert(const char* table, const std::string& in, std::string* out) {
    iconv_t cd = iconv_open("UTF-8", table);
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    out->clear();
    char* src = const_cast<char*>(in.data());
    std::size_t src_left = in.size();
    char chunk[512];
    while (src_left > 0) {
        char* dst = chunk;
        std::size_t dst_left = sizeof chunk;
        const std::size_t rc = iconv(cd, &src, &src_left, &dst, &dst_left);
        out->append(chunk, static_cast<std::size_t>(dst - chunk));
        if (rc != static_cast<std::size_t>(-1)) continue;
        if (errno == E2BIG) continue;
        // EILSEQ or an incomplete sequence at the end: one byte is dropped.
        out->append("\xEF\xBF\xBD");
        ++src;
        --src_left;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
    }
    iconv_close(cd);
    return true;
}

bool bcd_byte(uint32_t value, int* out) {
    const uint32_t high = (value >> 4) & 0x0F, low = value & 0x0F;
    if (high > 9 || low > 9) return false;
    *out = static_cast<int>(high * 10 + low);
    return true;
}

// The civil date (proleptic Gregorian) of a day counted from 1970-01-01.
void civil_from_days(int64_t z, int64_t* y, unsigned* m, unsigned* d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *d = doy - (153 * mp + 2) / 5 + 1;
    *m = mp < 10 ? mp + 3 : mp - 9;
    *y = static_cast<int64_t>(yoe) + era * 400 + (*m <= 2);
}

constexpr int64_t kMjdOf1970 = 40587;

}  // namespace

std::string dvb_text_to_utf8(const uint8_t* bytes, std::size_t length, Skipped* skipped) {
    if (bytes == nullptr || length == 0) return "";
    std::size_t skip = 0;
    const char* table = table_of(bytes, length, &skip);
    if (table == nullptr) {
        if (skipped) {
            char reason[80];
            std::snprintf(reason, sizeof reason, "text in unknown character table 0x%02x",
                          bytes[0]);
            skipped->push_back(reason);
        }
        return "";
    }
    const uint8_t* body = bytes + skip;
    const std::size_t body_length = length - skip;
    std::string in = single_byte(table)
                         ? strip_single_byte_controls(body, body_length)
                         : std::string(reinterpret_cast<const char*>(body), body_length);
    std::string out;
    if (!convert(table, in, &out)) {
        if (skipped) skipped->push_back(std::string("no converter for ") + table);
        return "";
    }
    // A zero byte ends a text (some broadcasters pad with them).
    const auto nul = out.find('\0');
    if (nul != std::string::npos) out.resize(nul);
    return single_byte(table) ? out : strip_private_controls(out);
}

bool dvb_time_to_unix(uint16_t mjd, uint32_t bcd_hms, int64_t* seconds) {
    int h = 0, m = 0, s = 0;
    if (!bcd_byte(bcd_hms >> 16, &h) || !bcd_byte(bcd_hms >> 8, &m) || !bcd_byte(bcd_hms, &s))
        return false;
    if (h > 23 || m > 59 || s > 59) return false;
    int64_t day = static_cast<int64_t>(mjd) - kMjdOf1970;
    // The 16-bit field wrapped on 2038-04-22 (MJD 65536): a value that
    // would lie before 1970 lies after the wrap.
    if (day < 0) day += 65536;
    *seconds = day * 86400 + h * 3600 + m * 60 + s;
    return true;
}

bool bcd_duration(uint32_t bcd_hms, int* seconds) {
    int h = 0, m = 0, s = 0;
    if (!bcd_byte(bcd_hms >> 16, &h) || !bcd_byte(bcd_hms >> 8, &m) || !bcd_byte(bcd_hms, &s))
        return false;
    if (m > 59 || s > 59) return false;
    *seconds = h * 3600 + m * 60 + s;
    return true;
}

std::string iso_utc(int64_t seconds) {
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    int64_t y = 0;
    unsigned m = 0, d = 0;
    civil_from_days(days, &y, &m, &d);
    char text[48];
    std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02d:%02d:%02dZ", static_cast<long long>(y), m,
                  d, static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60),
                  static_cast<int>(rest % 60));
    return text;
}

std::string hms(int seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
    return text;
}

}  // namespace ts
