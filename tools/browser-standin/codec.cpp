// Frame decoding and field splitting for the browser stand-in.
#include "browser_standin.h"

#include <cstddef>

namespace appmgr::standin {
namespace {

// Widest length prefix accepted. The library builds frames in a 4096-byte
// buffer, so four digits are the most it can send; five leave room.
constexpr std::size_t kMaxPrefixWidth = 5;
// Longest id accepted (keeps the conversion far from overflow).
constexpr std::size_t kMaxIdDigits = 9;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

enum class Check { Ok, Incomplete, Invalid };

// Checks that the bytes from pos on begin like a body: one or more digits
// (at most kMaxIdDigits) then "|". Looks at no more than avail bytes.
Check checkBodyStart(const std::string& buf, std::size_t pos, std::size_t avail) {
    std::size_t digits = 0;
    for (std::size_t i = 0; i < avail; ++i) {
        char c = buf[pos + i];
        if (c == '|') return digits > 0 ? Check::Ok : Check::Invalid;
        if (!isDigit(c) || ++digits > kMaxIdDigits) return Check::Invalid;
    }
    return Check::Incomplete;
}

// Whether the bytes from pos on can begin another frame's prefix ("  d",
// " dd" or "ddd..."); as far as they have arrived.
bool plausiblePrefixStart(const std::string& buf, std::size_t pos) {
    std::size_t blanks = 0;
    for (std::size_t i = 0; i < 3 && pos + i < buf.size(); ++i) {
        char c = buf[pos + i];
        if (c == ' ' && blanks == i && i < 2) {
            ++blanks;
        } else if (!isDigit(c) || (i == blanks && c == '0')) {
            return false;
        }
    }
    return true;
}

// Evaluates the reading "prefix of width w announcing length len". With
// strict set the body must end with "|" and be followed by nothing or a
// plausible prefix (used to choose among the readings of an all-digit
// prefix).
Check checkCandidate(const std::string& buf, std::size_t w, std::size_t len, bool strict) {
    std::size_t have = buf.size() - w;
    Check start = checkBodyStart(buf, w, have < len ? have : len);
    if (start == Check::Invalid) return Check::Invalid;
    if (have < len) return Check::Incomplete;
    if (start == Check::Incomplete) return Check::Invalid;  // whole body, no "|" after the id
    if (strict && (buf[w + len - 1] != '|' || !plausiblePrefixStart(buf, w + len)))
        return Check::Invalid;
    return Check::Ok;
}

Frame takeFrame(std::string& buf, std::size_t w, std::size_t len) {
    Frame f;
    f.raw = buf.substr(0, w + len);
    f.length = static_cast<int>(len);
    f.body = buf.substr(w, len);
    buf.erase(0, w + len);
    std::vector<std::string> all = splitFields(f.body, &f.trailing);
    // checkBodyStart guaranteed a first field of 1..9 digits.
    f.id = std::stoi(all.front());
    f.fields.assign(all.begin() + 1, all.end());
    return f;
}

std::optional<Frame> result(DecodeStatus* status, DecodeStatus s) {
    if (status) *status = s;
    return std::nullopt;
}

}  // namespace

std::optional<Frame> decodeFrame(std::string& buf, DecodeStatus* status) {
    if (buf.empty()) return result(status, DecodeStatus::Incomplete);

    if (buf[0] == ' ') {
        // "%3d" of a length below 100: "  d" or " dd", no leading zero.
        std::size_t n = buf.size() < 3 ? buf.size() : 3;
        std::size_t blanks = 0;
        while (blanks < n && buf[blanks] == ' ') ++blanks;
        if (blanks == 3) return result(status, DecodeStatus::Malformed);
        for (std::size_t i = blanks; i < n; ++i)
            if (!isDigit(buf[i]) || (i == blanks && buf[i] == '0'))
                return result(status, DecodeStatus::Malformed);
        if (buf.size() < 3) return result(status, DecodeStatus::Incomplete);
        std::size_t len = static_cast<std::size_t>(std::stoi(buf.substr(blanks, 3 - blanks)));
        switch (checkCandidate(buf, 3, len, false)) {
            case Check::Ok:
                if (status) *status = DecodeStatus::Ok;
                return takeFrame(buf, 3, len);
            case Check::Incomplete: return result(status, DecodeStatus::Incomplete);
            case Check::Invalid: return result(status, DecodeStatus::Malformed);
        }
    }

    // A prefix of digits only: 3 digits for 100..999, more for longer bodies.
    // The digits of the prefix run straight into the digits of the id, so
    // try the widths from the shortest; a shorter reading always needs fewer
    // bytes than a longer one, so waiting for it never over-reads.
    if (buf[0] < '1' || buf[0] > '9') return result(status, DecodeStatus::Malformed);
    for (std::size_t w = 3; w <= kMaxPrefixWidth; ++w) {
        for (std::size_t i = 1; i < w; ++i) {
            if (i >= buf.size()) return result(status, DecodeStatus::Incomplete);
            if (!isDigit(buf[i])) return result(status, DecodeStatus::Malformed);
        }
        std::size_t len = static_cast<std::size_t>(std::stoul(buf.substr(0, w)));
        switch (checkCandidate(buf, w, len, true)) {
            case Check::Ok:
                if (status) *status = DecodeStatus::Ok;
                return takeFrame(buf, w, len);
            case Check::Incomplete: return result(status, DecodeStatus::Incomplete);
            case Check::Invalid: break;
        }
    }
    return result(status, DecodeStatus::Malformed);
}

std::vector<std::string> splitFields(std::string_view body, std::optional<std::string>* trailing) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t bar = body.find('|'); bar != std::string_view::npos;
         bar = body.find('|', start)) {
        fields.emplace_back(body.substr(start, bar - start));
        start = bar + 1;
    }
    if (trailing) {
        if (start < body.size())
            *trailing = std::string(body.substr(start));
        else
            trailing->reset();
    }
    return fields;
}

std::string buildRequest(int id, const std::vector<std::string>& fields) {
    std::string out = std::to_string(id);
    out += '|';
    for (const std::string& f : fields) {
        out += f;
        out += '|';
    }
    return out;
}

std::string escapeBytes(std::string_view bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size());
    for (char ch : bytes) {
        auto u = static_cast<unsigned char>(ch);
        if (ch == '\\') {
            out += "\\\\";
        } else if (u >= 0x20 && u < 0x7f) {
            out += ch;
        } else {
            out += "\\x";
            out += kHex[u >> 4];
            out += kHex[u & 0xf];
        }
    }
    return out;
}

}  // namespace appmgr::standin
