#include "scenario_text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace appmgr::emu {

namespace {

const char* const kConnectionNames[] = {"application", "dtvplugins", "vodplugins", "callbacks", "dsmcc"};

// Hbbtv_AM_Launch_Application's eLaunchType values 0 to 9, by name.
const char* const kLaunchTypes[] = {"broadcast", "homepage",        "player", "epg",    "miniguide",
                                    "search",    "recommendations", "browse", "speech", "other"};

// The control codes a scenario names; others are written as numbers.
struct ControlCodeName {
    int code;
    const char* name;
};
const ControlCodeName kControlCodes[] = {{1, "AUTOSTART"}, {2, "PRESENT"}, {4, "KILL"}, {7, "DISABLED"}};

}  // namespace

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

std::vector<std::string> words(const std::string& s) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
        std::size_t b = i;
        while (i < s.size() && !std::isspace(static_cast<unsigned char>(s[i]))) ++i;
        if (i > b) out.push_back(s.substr(b, i - b));
    }
    return out;
}

std::string takeWord(std::string& s) {
    s = trim(s);
    std::size_t e = 0;
    while (e < s.size() && !std::isspace(static_cast<unsigned char>(s[e]))) ++e;
    std::string w = s.substr(0, e);
    s = trim(s.substr(e));
    return w;
}

std::vector<std::string> listItems(const std::string& s) {
    std::string t = s;
    std::replace(t.begin(), t.end(), ',', ' ');
    return words(t);
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& i : items) out += (out.empty() ? "" : ", ") + i;
    return out;
}

bool validName(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return false;
    return true;
}

std::optional<long> number(const std::string& text, long min, long max) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v < min || v > max) return std::nullopt;
    return v;
}

std::optional<bool> boolean(const std::string& text) {
    const std::string t = lower(text);
    if (t == "yes" || t == "true" || t == "on" || t == "1") return true;
    if (t == "no" || t == "false" || t == "off" || t == "0") return false;
    return std::nullopt;
}

bool parseVersion(const std::string& text, int max, int out[3]) {
    std::vector<std::string> parts;
    std::size_t b = 0;
    for (;;) {
        std::size_t dot = text.find('.', b);
        parts.push_back(text.substr(b, dot == std::string::npos ? std::string::npos : dot - b));
        if (dot == std::string::npos) break;
        b = dot + 1;
    }
    if (parts.size() != 3) return false;
    for (int i = 0; i < 3; ++i) {
        const std::string& p = parts[static_cast<std::size_t>(i)];
        if (p.empty() || !std::all_of(p.begin(), p.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return false;
        std::optional<long> v = number(p, 0, max);
        if (!v) return false;
        out[i] = static_cast<int>(*v);
    }
    return true;
}

std::string formatVersion(const int v[3]) {
    return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]);
}

std::optional<int> controlCode(const std::string& text) {
    for (const ControlCodeName& c : kControlCodes)
        if (lower(text) == lower(c.name)) return c.code;
    if (std::optional<long> v = number(text, 0, 255)) return static_cast<int>(*v);
    return std::nullopt;
}

const char* const kControlCodeHelp = "AUTOSTART, PRESENT, KILL, DISABLED or a number 0-255";

std::optional<int> networkValue(const std::string& text) {
    const std::string t = lower(text);
    if (t == "off") return 0;
    if (t == "on") return 1;
    if (t == "checking") return 2;
    if (std::optional<long> v = number(text, -1000, 1000)) return static_cast<int>(*v);
    return std::nullopt;
}

const char* const kCaptureSpeedHelp = "max (as fast as it is read) or 1 (paced by its PCR)";

std::optional<bool> captureSpeed(const std::string& text) {
    const std::string t = lower(trim(text));
    if (t == "max") return false;
    if (t == "1") return true;
    return std::nullopt;
}

std::optional<int> stateValue(const std::string& text) {
    const std::string t = lower(text);
    if (t == "deinitialized") return 0;
    if (t == "suspended") return 1;
    if (t == "initializing") return 2;
    if (t == "initialized") return 3;
    return std::nullopt;
}

std::optional<int> connectionIndex(const std::string& text) {
    const std::string t = lower(text);
    for (int i = 0; i < 5; ++i)
        if (t == kConnectionNames[i]) return i;
    return std::nullopt;
}

const char* controlCodeName(int code) {
    for (const ControlCodeName& c : kControlCodes)
        if (c.code == code) return c.name;
    return nullptr;
}

bool parseAppIds(const std::string& text, int* org, int* app) {
    const std::size_t dot = text.find('.');
    if (dot == std::string::npos) return false;
    std::optional<long> o = number(text.substr(0, dot), 0, INT_MAX);
    std::optional<long> a = number(text.substr(dot + 1), 0, 0xFFFF);
    if (!o || !a) return false;
    *org = static_cast<int>(*o);
    *app = static_cast<int>(*a);
    return true;
}

std::string formatAppIds(int org, int app) {
    char text[32];
    std::snprintf(text, sizeof(text), "0x%x.%d", static_cast<unsigned>(org), app);
    return text;
}

std::vector<std::string> splitExpectedFields(const std::string& text) {
    std::vector<std::string> out;
    if (text.empty()) return out;
    std::size_t b = 0;
    for (;;) {
        std::size_t bar = text.find('|', b);
        if (bar == std::string::npos) {
            if (b < text.size()) out.push_back(text.substr(b));
            break;
        }
        out.push_back(text.substr(b, bar - b));
        b = bar + 1;
    }
    return out;
}

std::optional<std::string> unescapeBytes(const std::string& text, std::string* error) {
    auto hexDigit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out.push_back(text[i]);
            continue;
        }
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        switch (next) {
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case '0': out.push_back('\0'); break;
            case '\\': out.push_back('\\'); break;
            case 'x': {
                const int hi = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
                const int lo = i + 3 < text.size() ? hexDigit(text[i + 3]) : -1;
                if (hi < 0 || lo < 0) {
                    if (error)
                        *error =
                            "\\x needs two hexadecimal digits (at character " + std::to_string(i + 1) + ")";
                    return std::nullopt;
                }
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 2;
                break;
            }
            default:
                if (error)
                    *error = "unknown escape at character " + std::to_string(i + 1) +
                             " (known: \\n \\r \\t \\0 \\\\ \\xNN)";
                return std::nullopt;
        }
        ++i;
    }
    return out;
}

std::string resolveAgainst(const std::string& file, const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? path : file.substr(0, slash + 1) + path;
}

int launchTypeValue(const std::string& name) {
    for (int i = 0; i < 10; ++i)
        if (name == kLaunchTypes[i]) return i;
    return -1;
}

const char* launchTypeName(int value) { return value >= 0 && value < 10 ? kLaunchTypes[value] : nullptr; }

std::string expandPlaceholders(const std::string& text, const std::string& host) {
    std::string out = text;
    const std::string ph = kHttpPlaceholder;
    for (std::size_t at = out.find(ph); at != std::string::npos; at = out.find(ph, at + host.size()))
        out.replace(at, ph.size(), host);
    return out;
}

}  // namespace appmgr::emu
