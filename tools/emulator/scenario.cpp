#include "scenario.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "parse_ini.h"

namespace appmgr::emu {

namespace {

// ---- small text helpers ---------------------------------------------------------

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

// Splits at blanks.
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

// Takes the first word off s; "" when there is none.
std::string takeWord(std::string& s) {
    s = trim(s);
    std::size_t e = 0;
    while (e < s.size() && !std::isspace(static_cast<unsigned char>(s[e]))) ++e;
    std::string w = s.substr(0, e);
    s = trim(s.substr(e));
    return w;
}

// Splits at commas and blanks.
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

// A C integer: decimal, 0x hexadecimal or 0 octal, optionally signed.
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

// "1.5.1": three numbers, each in [0, max].
bool version(const std::string& text, int max, int out[3]) {
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

std::optional<int> controlCode(const std::string& text) {
    const std::string t = lower(text);
    if (t == "autostart") return 1;
    if (t == "present") return 2;
    if (t == "kill") return 4;
    if (t == "disabled") return 7;
    if (std::optional<long> v = number(text, 0, 255)) return static_cast<int>(*v);
    return std::nullopt;
}

const char* const kControlHelp = "AUTOSTART, PRESENT, KILL, DISABLED or a number 0-255";

std::optional<int> networkValue(const std::string& text) {
    const std::string t = lower(text);
    if (t == "off") return 0;
    if (t == "on") return 1;
    if (t == "checking") return 2;
    if (std::optional<long> v = number(text, -1000, 1000)) return static_cast<int>(*v);
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

const char* const kConnectionNames[] = {"application", "dtvplugins", "vodplugins", "callbacks", "dsmcc"};

// Hbbtv_AM_Launch_Application's eLaunchType values 0 to 9, by name.
const char* const kLaunchTypes[] = {"broadcast", "homepage", "player", "epg",    "miniguide",
                                    "search", "recommendations", "browse", "speech", "other"};

std::optional<int> connectionIndex(const std::string& text) {
    const std::string t = lower(text);
    for (int i = 0; i < 5; ++i)
        if (t == kConnectionNames[i]) return i;
    return std::nullopt;
}

// ---- reading the file ------------------------------------------------------------

struct Failure {
    std::string message;
};

struct KeyInfo {
    std::string section;
    std::string key;
    int line;
};

// What the reader learns from the raw lines: the line of every section and
// key, and the order of both. The values come from the library's reader.
struct Layout {
    std::vector<std::pair<std::string, int>> sections;  // file order
    std::vector<KeyInfo> keys;                          // file order
    std::map<std::string, int> key_line;                // "section:key"
};

// Reads logical lines (joined at a final "\") and classifies them with the
// library's line parser, the way its loader does, to find what the loader
// only reports as a failure: the line of a syntax error, keys outside a
// section, and sections or keys given twice (the loader silently keeps the
// last value).
Layout scanLayout(const std::string& path, const std::string& shown) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!in) throw Failure{shown + ": cannot open: " + std::strerror(errno)};
    Layout layout;
    std::string section;
    std::set<std::string> seen_sections;
    std::string logical;
    int first_line = 0;
    int lineno = 0;
    bool eof = false;
    while (!eof) {
        std::string physical;
        bool got = false;
        for (;;) {
            int c = std::getc(in.get());
            if (c == EOF) {
                eof = true;
                break;
            }
            if (!got) {
                got = true;
                ++lineno;
            }
            if (c == '\n') break;
            if (c == '\0')
                throw Failure{shown + ":" + std::to_string(lineno) + ": NUL byte in the line"};
            physical.push_back(static_cast<char>(c));
        }
        if (!got && logical.empty()) break;
        if (first_line == 0) first_line = lineno;
        while (!physical.empty() && std::isspace(static_cast<unsigned char>(physical.back())))
            physical.pop_back();
        logical += physical;
        if (logical.size() > PARSE_INI_LINE_MAX)
            throw Failure{shown + ":" + std::to_string(first_line) + ": line longer than " +
                          std::to_string(PARSE_INI_LINE_MAX) + " characters"};
        if (!logical.empty() && logical.back() == '\\' && !eof) {
            logical.pop_back();
            continue;
        }
        if (!logical.empty() && logical.back() == '\\') logical.pop_back();

        const std::string where = shown + ":" + std::to_string(first_line) + ": ";
        char sec[PARSE_INI_LINE_MAX + 1] = "";
        char key[PARSE_INI_LINE_MAX + 1] = "";
        char val[PARSE_INI_LINE_MAX + 1] = "";
        switch (parse_ini_line(logical.c_str(), sec, key, val)) {
            case LINE_EMPTY:
            case LINE_COMMENT: break;
            case LINE_SECTION:
                section = sec;
                if (section.empty() || section.find(':') != std::string::npos)
                    throw Failure{where + "bad section name [" + section + "]"};
                if (!seen_sections.insert(section).second)
                    throw Failure{where + "section [" + section + "] appears twice"};
                layout.sections.emplace_back(section, first_line);
                break;
            case LINE_VALUE: {
                if (section.empty()) throw Failure{where + "'" + key + "' is outside any section"};
                const std::string full = section + ":" + key;
                if (key[0] == '\0') throw Failure{where + "key missing before '='"};
                if (layout.key_line.count(full))
                    throw Failure{where + "[" + section + "] " + key +
                                  " is given twice (first on line " +
                                  std::to_string(layout.key_line[full]) + ")"};
                layout.key_line[full] = first_line;
                layout.keys.push_back({section, key, first_line});
                break;
            }
            default:
                throw Failure{where +
                              "not a [section], a 'key = value' or a '# comment' line: " + logical};
        }
        logical.clear();
        first_line = 0;
    }
    if (std::ferror(in.get())) throw Failure{shown + ": read error"};
    return layout;
}

class Reader {
public:
    Reader(const std::string& shown, const ini_dict* dict, const Layout& layout)
        : shown_(shown), dict_(dict), layout_(layout) {}

    std::optional<std::string> get(const std::string& section, const std::string& key) const {
        const std::string full = section + ":" + key;
        if (!parse_ini_find_entry(dict_, full.c_str())) return std::nullopt;
        const char* v = parse_ini_getstring(dict_, full.c_str(), nullptr);
        return std::string(v ? v : "");
    }

    [[noreturn]] void error(const std::string& section, const std::string& key,
                            const std::string& what) const {
        int line = 0;
        if (!key.empty()) {
            auto it = layout_.key_line.find(section + ":" + key);
            if (it != layout_.key_line.end()) line = it->second;
        }
        if (line == 0)
            for (const auto& s : layout_.sections)
                if (s.first == section) line = s.second;
        std::string where = shown_ + (line ? ":" + std::to_string(line) : "") + ": ";
        if (!section.empty()) where += "[" + section + "]" + (key.empty() ? "" : " " + key) + ": ";
        throw Failure{where + what};
    }

    // Every key of a section must be one of these.
    void allowOnly(const std::string& section, const std::vector<std::string>& allowed) const {
        for (const KeyInfo& k : layout_.keys) {
            if (k.section != section) continue;
            if (std::find(allowed.begin(), allowed.end(), k.key) == allowed.end())
                error(section, k.key, "unknown key (known: " + joined(allowed) + ")");
        }
    }

    std::optional<long> integer(const std::string& section, const std::string& key, long min,
                                long max) const {
        std::optional<std::string> v = get(section, key);
        if (!v) return std::nullopt;
        std::optional<long> n = number(*v, min, max);
        if (!n)
            error(section, key,
                  "'" + *v + "' is not a number from " + std::to_string(min) + " to " +
                      std::to_string(max) + " (decimal, 0x hexadecimal or 0 octal)");
        return n;
    }

    long required(const std::string& section, const std::string& key, long min, long max) const {
        std::optional<long> n = integer(section, key, min, max);
        if (!n) error(section, "", "'" + key + "' is missing");
        return *n;
    }

    std::optional<bool> flag(const std::string& section, const std::string& key) const {
        std::optional<std::string> v = get(section, key);
        if (!v) return std::nullopt;
        std::optional<bool> b = boolean(*v);
        if (!b) error(section, key, "'" + *v + "' is not yes/no (true/false, on/off, 1/0)");
        return b;
    }

    int stepLine(const std::string& key) const {
        auto it = layout_.key_line.find("timeline:" + key);
        return it == layout_.key_line.end() ? 0 : it->second;
    }

    const Layout& layout() const { return layout_; }

private:
    std::string shown_;
    const ini_dict* dict_;
    const Layout& layout_;
};

std::string defaultDvbUrl(const ChannelSpec& c) {
    char text[64];
    std::snprintf(text, sizeof(text), "dvb://%x.%x.%x", static_cast<unsigned>(c.onid),
                  static_cast<unsigned>(c.tsid), static_cast<unsigned>(c.sid));
    return text;
}

int channelType(const Reader& r, const std::string& section) {
    std::optional<std::string> v = r.get(section, "type");
    if (!v) return 0;
    const std::string t = lower(*v);
    if (t == "tv") return 0;
    if (t == "radio") return 1;
    if (t == "other") return 2;
    r.error(section, "type", "'" + *v + "' is not tv, radio or other");
}

ChannelSpec readChannel(const Reader& r, const std::string& section, const std::string& name) {
    r.allowOnly(section, {"onid", "tsid", "sid", "name", "dvb_url", "type"});
    ChannelSpec c;
    c.name = name;
    c.onid = static_cast<int>(r.required(section, "onid", 0, 0xFFFF));
    c.tsid = static_cast<int>(r.required(section, "tsid", 0, 0xFFFF));
    c.sid = static_cast<int>(r.required(section, "sid", 0, 0xFFFF));
    c.label = r.get(section, "name").value_or(name);
    c.dvb_url = r.get(section, "dvb_url").value_or(defaultDvbUrl(c));
    if (c.dvb_url.size() > 255) r.error(section, "dvb_url", "longer than 255 characters");
    c.type = channelType(r, section);
    return c;
}

std::string channelOf(const Reader& r, const std::string& section, const Scenario& s) {
    const std::string channel = lower(r.get(section, "channel").value_or("service"));
    if (!s.channel(channel))
        r.error(section, "channel", "no channel '" + channel + "' (service or a [channel.NAME])");
    return channel;
}

ProgrammeSpec readProgramme(const Reader& r, const std::string& section, const std::string& name,
                            const Scenario& s) {
    r.allowOnly(section, {"channel", "name", "description", "start", "duration", "id",
                          "long_description", "rating"});
    ProgrammeSpec p;
    p.section = name;
    p.channel = channelOf(r, section, s);
    p.title = r.get(section, "name").value_or(name);
    p.description = r.get(section, "description").value_or("");
    p.start = r.required(section, "start", 0, INT_MAX);
    p.duration = static_cast<int>(r.required(section, "duration", 0, INT_MAX));
    p.id = r.get(section, "id").value_or(name);
    p.long_description = r.get(section, "long_description");
    if (std::optional<std::string> rating = r.get(section, "rating")) {
        const std::size_t colon = rating->find(':');
        std::optional<long> value =
            colon == std::string::npos ? std::nullopt : number(rating->substr(colon + 1), 0, 255);
        if (colon == 0 || !value)
            r.error(section, "rating", "'" + *rating + "' is not SCHEME:VALUE (e.g. dvb-si:9)");
        p.rating_scheme = rating->substr(0, colon);
        p.rating_value = static_cast<int>(*value);
    }
    return p;
}

ComponentSpec readComponent(const Reader& r, const std::string& section, const std::string& name,
                            const Scenario& s) {
    r.allowOnly(section, {"channel", "kind", "tag", "pid", "encoding", "language", "aspect_ratio",
                          "audio_channels", "audio_description", "hearing_impaired", "active"});
    ComponentSpec c;
    c.section = name;
    c.channel = channelOf(r, section, s);
    const std::string kind = lower(r.get(section, "kind").value_or(""));
    if (kind == "video")
        c.kind = 0;
    else if (kind == "audio")
        c.kind = 1;
    else if (kind == "subtitle")
        c.kind = 2;
    else
        r.error(section, "kind", "'" + kind + "' is not video, audio or subtitle");
    c.tag = static_cast<int>(r.required(section, "tag", 0, 0xFF));
    c.pid = static_cast<int>(r.required(section, "pid", 0, 0x1FFF));
    c.encoding = r.get(section, "encoding").value_or("");
    c.language = r.get(section, "language").value_or("");
    if (std::optional<std::string> a = r.get(section, "aspect_ratio")) {
        char* end = nullptr;
        c.aspect_ratio = std::strtod(a->c_str(), &end);
        if (a->empty() || *end != '\0' || c.aspect_ratio <= 0)
            r.error(section, "aspect_ratio", "'" + *a + "' is not a positive number (e.g. 1.78)");
    }
    c.audio_channels = static_cast<int>(r.integer(section, "audio_channels", 0, 32).value_or(2));
    c.audio_description = r.flag(section, "audio_description").value_or(false);
    c.hearing_impaired = r.flag(section, "hearing_impaired").value_or(false);
    c.active = r.flag(section, "active").value_or(false);
    return c;
}

void readReceiver(const Reader& r, const std::string& path, ReceiverSpec& rs) {
    r.allowOnly("receiver", {"notifications", "capabilities", "decodes", "rating_schemes",
                             "xml_capabilities", "eit", "audio_language", "subtitle_language",
                             "ui_language", "country", "device_id"});
    rs.notifications = r.flag("receiver", "notifications").value_or(false);
    if (std::optional<std::string> c = r.get("receiver", "capabilities")) rs.capabilities = listItems(*c);
    if (std::optional<std::string> d = r.get("receiver", "decodes")) {
        std::vector<std::string> two = listItems(*d);
        std::optional<long> sd = two.size() == 2 ? number(two[0], 0, 16) : std::nullopt;
        std::optional<long> hd = two.size() == 2 ? number(two[1], 0, 16) : std::nullopt;
        if (!sd || !hd) r.error("receiver", "decodes", "'" + *d + "' is not SD,HD (e.g. 1,0)");
        rs.decodes = std::make_pair(static_cast<int>(*sd), static_cast<int>(*hd));
    }
    if (std::optional<long> n = r.integer("receiver", "rating_schemes", 0, 64))
        rs.rating_schemes = static_cast<int>(*n);
    if (std::optional<std::string> x = r.get("receiver", "xml_capabilities")) {
        const std::string resolved = resolveAgainst(path, *x);
        struct stat st {};
        if (::stat(resolved.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            r.error("receiver", "xml_capabilities", "'" + *x + "' (" + resolved + ") is not a file");
        rs.xml_capabilities = resolved;
    }
    if (std::optional<std::string> e = r.get("receiver", "eit")) {
        const std::string resolved = resolveAgainst(path, *e);
        struct stat st;
        if (::stat(resolved.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            r.error("receiver", "eit", "'" + *e + "' (" + resolved + ") is not a file");
        rs.eit = resolved;
    }
    rs.audio_language = r.get("receiver", "audio_language");
    rs.subtitle_language = r.get("receiver", "subtitle_language");
    rs.ui_language = r.get("receiver", "ui_language");
    rs.country = r.get("receiver", "country");
    rs.device_id = r.get("receiver", "device_id");
}

// AIT settings that [service] gives every table and [ait.NAME] may override.
struct AitDefaults {
    int type = 16;
    bool test = false;
    int version = 1;
};

int aitType(const Reader& r, const std::string& section, const std::string& key, int def) {
    std::optional<std::string> v = r.get(section, key);
    if (!v) return def;
    const std::string t = lower(*v);
    if (t == "hbbtv") return 16;
    if (t == "dtg") return 18;
    std::optional<long> n = number(*v, 0, 255);
    if (!n) r.error(section, key, "'" + *v + "' is not hbbtv, dtg or a number 0-255");
    return static_cast<int>(*n);
}

AppSpec readApp(const Reader& r, const std::string& section, const std::string& name) {
    r.allowOnly(section, {"org_id", "app_id", "control", "priority", "url", "transport", "boundary",
                          "service_bound", "profile", "version", "parental", "ip_required", "usage",
                          "visibility", "name"});
    AppSpec a;
    a.section = name;
    a.org_id = static_cast<int>(r.required(section, "org_id", 0, INT_MAX));
    a.app_id = static_cast<int>(r.required(section, "app_id", 0, 0xFFFF));
    std::optional<std::string> control = r.get(section, "control");
    if (!control) r.error(section, "", "'control' is missing (" + std::string(kControlHelp) + ")");
    std::optional<int> code = controlCode(*control);
    if (!code)
        r.error(section, "control", "'" + *control + "' is not a control code (" + kControlHelp + ")");
    a.control = *code;
    a.priority = static_cast<int>(r.integer(section, "priority", 0, 255).value_or(1));
    std::optional<std::string> url = r.get(section, "url");
    if (!url || url->empty()) r.error(section, "", "'url' is missing");
    a.url = *url;
    const std::string scheme = lower(a.url.substr(0, a.url.find(':')));
    a.transport = (scheme == "http" || scheme == "https") ? kTransportHttp : kTransportCarousel;
    if (std::optional<std::string> t = r.get(section, "transport")) {
        const std::string tl = lower(*t);
        if (tl == "http")
            a.transport = kTransportHttp;
        else if (tl == "dvb")
            a.transport = kTransportCarousel;
        else if (std::optional<long> n = number(*t, 0, 255))
            a.transport = static_cast<int>(*n);
        else
            r.error(section, "transport", "'" + *t + "' is not dvb, http or a protocol id 0-255");
    }
    a.boundary = r.get(section, "boundary");
    a.service_bound = r.flag(section, "service_bound").value_or(true);
    a.profile = static_cast<int>(r.integer(section, "profile", 0, 0xFFFF).value_or(0));
    if (std::optional<std::string> v = r.get(section, "version"))
        if (!version(*v, 255, a.version))
            r.error(section, "version", "'" + *v + "' is not major.minor.micro (e.g. 1.2.1)");
    if (std::optional<std::string> p = r.get(section, "parental")) {
        for (const std::string& item : listItems(*p)) {
            std::size_t colon = item.find(':');
            RatingSpec rs;
            rs.country = item.substr(0, colon);
            std::optional<long> age =
                colon == std::string::npos ? std::nullopt : number(item.substr(colon + 1), 0, 255);
            if (rs.country.size() != 3 ||
                !std::all_of(rs.country.begin(), rs.country.end(),
                             [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }) ||
                !age)
                r.error(
                    section, "parental",
                    "'" + item + "' is not COUNTRY:RATING (three letters, a number 0-255, e.g. FRA:12)");
            rs.rating = static_cast<int>(*age);
            a.parental.push_back(rs);
        }
    }
    a.ip_required = r.flag(section, "ip_required").value_or(false);
    if (std::optional<std::string> u = r.get(section, "usage")) {
        if (lower(*u) == "teletext")
            a.usage = 1;
        else if (std::optional<long> n = number(*u, 0, 255))
            a.usage = static_cast<int>(*n);
        else
            r.error(section, "usage", "'" + *u + "' is not teletext or a number 0-255");
    }
    a.visibility = static_cast<int>(r.integer(section, "visibility", 0, 3).value_or(3));
    a.name = r.get(section, "name").value_or(name);
    return a;
}

AitSpec readAit(const Reader& r, const std::string& section, const std::string& name, const Scenario& s,
                const AitDefaults& defaults) {
    r.allowOnly(section, {"apps", "channel", "dvb_url", "type", "test", "version"});
    AitSpec t;
    t.name = name;
    std::optional<std::string> apps = r.get(section, "apps");
    if (!apps)
        r.error(section, "", "'apps' is missing (a list of [app.NAME] names; empty for an empty AIT)");
    for (const std::string& item : listItems(*apps)) {
        AitEntry e;
        std::size_t colon = item.find(':');
        e.app = lower(item.substr(0, colon));
        if (!s.app(e.app)) {
            std::vector<std::string> known;
            for (const AppSpec& a : s.apps) known.push_back(a.section);
            r.error(section, "apps",
                    "no section [app." + e.app + "]" +
                        (known.empty() ? "" : " (defined: " + joined(known) + ")"));
        }
        if (colon != std::string::npos) {
            std::optional<int> code = controlCode(item.substr(colon + 1));
            if (!code)
                r.error(section, "apps",
                        "'" + item + "': after ':' comes a control code (" + kControlHelp + ")");
            e.control = code;
        }
        t.apps.push_back(e);
    }
    t.channel = lower(r.get(section, "channel").value_or("service"));
    const ChannelSpec* c = s.channel(t.channel);
    if (!c) r.error(section, "channel", "no channel '" + t.channel + "' (service or a [channel.NAME])");
    t.dvb_url = r.get(section, "dvb_url").value_or(c->dvb_url);
    if (t.dvb_url.size() > 255) r.error(section, "dvb_url", "longer than 255 characters");
    t.type = aitType(r, section, "type", defaults.type);
    t.test = r.flag(section, "test").value_or(defaults.test);
    t.version = static_cast<int>(r.integer(section, "version", 0, 31).value_or(defaults.version));
    return t;
}

void readTimeline(const Reader& r, Scenario& s) {
    const std::string section = "timeline";
    for (const KeyInfo& k : r.layout().keys) {
        if (k.section != section) continue;
        // Step numbers are decimal: "step08" is step 8.
        const std::string digits = k.key.rfind("step", 0) == 0 ? k.key.substr(4) : "";
        std::optional<long> n;
        if (!digits.empty() && digits.size() <= 6 &&
            std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
            n = std::strtol(digits.c_str(), nullptr, 10);
        if (!n || *n < 1)
            r.error(section, k.key,
                    "timeline keys are step1, step2, ... (run in the order of their numbers)");
        Step st;
        st.key = k.key;
        st.number = *n;
        st.line = k.line;
        st.text = r.get(section, k.key).value_or("");
        s.timeline.push_back(st);
    }
    std::sort(s.timeline.begin(), s.timeline.end(),
              [](const Step& a, const Step& b) { return a.number < b.number; });
    for (std::size_t i = 1; i < s.timeline.size(); ++i)
        if (s.timeline[i].number == s.timeline[i - 1].number)
            r.error(section, s.timeline[i].key,
                    "same step number as " + s.timeline[i - 1].key + " (numbers must differ)");
    if (static_cast<int>(s.timeline.size()) > kMaxSteps)
        r.error(section, "", "more than " + std::to_string(kMaxSteps) + " steps");

    for (std::size_t i = 0; i < s.timeline.size(); ++i) {
        Step& st = s.timeline[i];
        std::string rest = st.text;
        st.kind = lower(takeWord(rest));
        const StepKind* kind = findStepKind(st.kind);
        if (!kind) {
            std::vector<std::string> known;
            for (const StepKind& k : stepKinds()) known.push_back(k.name);
            r.error(section, st.key,
                    (st.kind.empty() ? std::string("empty step") : "unknown step '" + st.kind + "'") +
                        " (known: " + joined(known) + ")");
        }
        std::string why = kind->parse(st, rest, s);
        if (!why.empty())
            r.error(section, st.key, st.kind + ": " + why + " (syntax: " + kind->syntax + ")");
        if (st.kind == "close" && i + 1 != s.timeline.size())
            r.error(section, st.key, "close must be the last step");
    }
}

// A directory named in the file, resolved against the file's directory; it
// must exist when the scenario is read.
std::string existingDirectory(const Reader& r, const std::string& section, const std::string& key,
                              const std::string& value, const std::string& file) {
    const std::string resolved = resolveAgainst(file, value);
    struct stat st {};
    if (::stat(resolved.c_str(), &st) != 0)
        r.error(section, key, "'" + value + "' (" + resolved + "): " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) r.error(section, key, "'" + value + "' (" + resolved + ") is not a directory");
    return resolved;
}

bool usesHttpPlaceholder(const Scenario& s) {
    auto has = [](const std::string& t) { return t.find(kHttpPlaceholder) != std::string::npos; };
    for (const AppSpec& a : s.apps)
        if (has(a.url)) return true;
    for (const Step& st : s.timeline)
        if (has(st.text)) return true;
    return false;
}

Scenario build(const Reader& r, const std::string& path) {
    Scenario s;
    s.path = path;
    const Layout& layout = r.layout();

    // Sections by kind, in file order.
    std::vector<std::pair<std::string, std::string>> channel_sections, app_sections, ait_sections,
        carousel_sections, programme_sections, component_sections;
    bool have_service = false;
    for (const auto& sec : layout.sections) {
        const std::string& name = sec.first;
        const std::size_t dot = name.find('.');
        const std::string kind = name.substr(0, dot);
        const std::string suffix = dot == std::string::npos ? "" : name.substr(dot + 1);
        if (dot == std::string::npos && (kind == "scenario" || kind == "service" || kind == "terminal" ||
                                         kind == "http" || kind == "timeline" || kind == "receiver")) {
            have_service = have_service || kind == "service";
            continue;
        }
        if (dot != std::string::npos && (kind == "channel" || kind == "app" || kind == "ait" ||
                                         kind == "carousel" || kind == "programme" ||
                                         kind == "component")) {
            if (!validName(suffix))
                r.error(name, "", "the name after '" + kind + ".' may use letters, digits, '_' and '-'");
            if (kind == "channel") channel_sections.emplace_back(name, suffix);
            if (kind == "app") app_sections.emplace_back(name, suffix);
            if (kind == "ait") ait_sections.emplace_back(name, suffix);
            if (kind == "carousel") carousel_sections.emplace_back(name, suffix);
            if (kind == "programme") programme_sections.emplace_back(name, suffix);
            if (kind == "component") component_sections.emplace_back(name, suffix);
            continue;
        }
        if (name == "carousel")
            r.error(name, "",
                    "give the component tag in the section name: [carousel.TAG], e.g. [carousel.1]");
        r.error(name, "",
                "unknown section (known: scenario, service, terminal, receiver, http, timeline, "
                "channel.NAME, app.NAME, ait.NAME, carousel.TAG, programme.NAME, component.NAME)");
    }
    if (!have_service)
        throw Failure{r.layout().sections.empty() && layout.keys.empty()
                          ? path + ": empty scenario (no [service] section)"
                          : path + ": [service] section missing"};

    r.allowOnly("scenario", {"title", "time_limit"});
    s.title = r.get("scenario", "title").value_or("");
    s.time_limit_s = static_cast<int>(
        r.integer("scenario", "time_limit", 1, kMaxTimeLimitSeconds).value_or(kDefaultTimeLimitSeconds));

    // [service]: the first channel and the defaults of every AIT.
    const std::vector<std::string> channel_keys{"onid", "tsid", "sid", "name", "dvb_url", "type"};
    std::vector<std::string> service_keys = channel_keys;
    for (const char* k : {"ait_type", "test", "version"}) service_keys.push_back(k);
    r.allowOnly("service", service_keys);
    {
        ChannelSpec c;
        c.name = "service";
        c.onid = static_cast<int>(r.required("service", "onid", 0, 0xFFFF));
        c.tsid = static_cast<int>(r.required("service", "tsid", 0, 0xFFFF));
        c.sid = static_cast<int>(r.required("service", "sid", 0, 0xFFFF));
        c.label = r.get("service", "name").value_or("Service");
        c.dvb_url = r.get("service", "dvb_url").value_or(defaultDvbUrl(c));
        if (c.dvb_url.size() > 255) r.error("service", "dvb_url", "longer than 255 characters");
        c.type = channelType(r, "service");
        s.channels.push_back(c);
    }
    AitDefaults defaults;
    defaults.type = aitType(r, "service", "ait_type", 16);
    defaults.test = r.flag("service", "test").value_or(false);
    defaults.version = static_cast<int>(r.integer("service", "version", 0, 31).value_or(1));

    for (const auto& cs : channel_sections) {
        if (cs.second == "service") r.error(cs.first, "", "'service' names the [service] channel");
        s.channels.push_back(readChannel(r, cs.first, cs.second));
    }
    if (static_cast<int>(app_sections.size()) > kMaxApps)
        throw Failure{path + ": more than " + std::to_string(kMaxApps) + " [app.NAME] sections"};
    for (const auto& as : app_sections) s.apps.push_back(readApp(r, as.first, as.second));

    for (const auto& as : ait_sections) s.aits.push_back(readAit(r, as.first, as.second, s, defaults));
    // "main" (every application) and "empty" exist unless the file defines them.
    const ChannelSpec& service = s.channels.front();
    if (!s.ait("main")) {
        AitSpec t;
        t.name = "main";
        t.dvb_url = service.dvb_url;
        t.type = defaults.type;
        t.test = defaults.test;
        t.version = defaults.version;
        for (const AppSpec& a : s.apps) t.apps.push_back({a.section, std::nullopt});
        s.aits.push_back(t);
    }
    if (!s.ait("empty")) {
        AitSpec t;
        t.name = "empty";
        t.dvb_url = service.dvb_url;
        t.type = defaults.type;
        t.test = defaults.test;
        t.version = defaults.version;
        s.aits.push_back(t);
    }

    r.allowOnly("terminal", {"version", "parental_threshold", "network"});
    if (std::optional<std::string> v = r.get("terminal", "version"))
        if (!version(*v, 9, s.terminal.version))
            r.error("terminal", "version",
                    "'" + *v +
                        "' is not major.minor.micro with one digit each (e.g. 1.5.1): "
                        "the library reads single digits from the User-Agent");
    if (std::optional<long> t = r.integer("terminal", "parental_threshold", 0, 255))
        s.terminal.parental_threshold = static_cast<int>(*t);
    if (std::optional<std::string> v = r.get("terminal", "network")) {
        std::optional<int> n = networkValue(*v);
        if (!n) r.error("terminal", "network", "'" + *v + "' is not on, off, checking or a number");
        s.terminal.network = n;
    }

    r.allowOnly("http", {"missing", "root"});
    bool have_http = false;
    for (const auto& sec : layout.sections) have_http = have_http || sec.first == "http";
    if (std::optional<std::string> m = r.get("http", "missing")) {
        for (const std::string& p : listItems(*m)) {
            if (p[0] != '/') r.error("http", "missing", "'" + p + "' is not a path starting with '/'");
            s.http.missing.push_back(p);
        }
    }
    if (std::optional<std::string> root = r.get("http", "root"))
        s.http.root = existingDirectory(r, "http", "root", *root, path);

    for (const auto& cs : carousel_sections) {
        CarouselSpec c;
        std::optional<long> tag = number(cs.second, 0, 0xFFFF);
        if (!tag)
            r.error(cs.first, "",
                    "'" + cs.second + "' is not a component tag from 0 to 65535 (decimal or 0x hexadecimal)");
        c.tag = static_cast<int>(*tag);
        for (const CarouselSpec& other : s.carousels)
            if (other.tag == c.tag)
                r.error(cs.first, "", "component tag " + std::to_string(c.tag) + " has a carousel already");
        r.allowOnly(cs.first, {"dir"});
        std::optional<std::string> dir = r.get(cs.first, "dir");
        if (!dir || dir->empty()) r.error(cs.first, "", "'dir' is missing (the directory to serve)");
        c.dir = *dir;
        c.path = existingDirectory(r, cs.first, "dir", *dir, path);
        s.carousels.push_back(c);
    }

    for (const auto& ps : programme_sections) s.programmes.push_back(readProgramme(r, ps.first, ps.second, s));
    for (const auto& cs : component_sections) s.components.push_back(readComponent(r, cs.first, cs.second, s));
    readReceiver(r, path, s.receiver);

    readTimeline(r, s);
    s.http.enabled = have_http || usesHttpPlaceholder(s);
    return s;
}

// ---- step kinds ----------------------------------------------------------------------

std::string parseDeliver(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects one AIT name";
    const std::string name = lower(w[0]);
    if (!s.ait(name)) {
        std::vector<std::string> known;
        for (const AitSpec& a : s.aits) known.push_back(a.name);
        return "no AIT named '" + name + "' (defined: " + joined(known) + ")";
    }
    st.args = {name};
    return "";
}

std::string parseNetwork(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<int> n = w.size() == 1 ? networkValue(w[0]) : std::nullopt;
    if (!n) return "expects on, off, checking or a number";
    st.args = {std::to_string(*n)};
    return "";
}

std::string parseChannel(Step& st, const std::string& rest, const Scenario& s) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects one channel name";
    const std::string name = lower(w[0]);
    if (!s.channel(name)) {
        std::vector<std::string> known;
        for (const ChannelSpec& c : s.channels) known.push_back(c.name);
        return "no channel '" + name + "' (defined: " + joined(known) + ")";
    }
    st.args = {name};
    return "";
}

std::string parseWait(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<long> ms = w.size() == 1 ? number(w[0], 0, kMaxWaitMs) : std::nullopt;
    if (!ms) return "expects milliseconds from 0 to " + std::to_string(kMaxWaitMs);
    st.args = {std::to_string(*ms)};
    return "";
}

std::string parseWaitFrame(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    std::optional<long> id = number(takeWord(r), 0, 100000);
    if (!id) return "expects a command id";
    st.args = {std::to_string(*id)};
    if (!r.empty()) st.tail = r;
    return "";
}

std::string parseBrowser(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    int conn = 0;
    std::string copy = r;
    if (std::optional<int> c = connectionIndex(takeWord(copy))) {
        conn = *c;
        r = copy;
    }
    if (r.empty()) return "expects a message such as 82|http://host/page.html|";
    st.args = {std::to_string(conn)};
    st.tail = r;
    return "";
}

std::string parseExpect(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string what = lower(takeWord(r));
    std::vector<std::string> w = words(r);
    if (what == "running") {
        if (w.size() == 1 && lower(w[0]) == "none") {
            st.args = {what, "none"};
            return "";
        }
        int org = 0, app = 0;
        if (w.size() != 1 || !parseAppIds(w[0], &org, &app)) return "running expects ORG.APP or none";
        st.args = {what, std::to_string(org), std::to_string(app)};
        return "";
    }
    if (what == "decision" || what == "no_decision") {
        const std::vector<std::string>& kinds = decisionKinds();
        if (w.empty() || w.size() > 2 ||
            std::find(kinds.begin(), kinds.end(), lower(w[0])) == kinds.end())
            return what + " expects a decision (" + joined(kinds) + ") and optionally ORG.APP";
        st.args = {what, lower(w[0])};
        if (w.size() == 2) {
            int org = 0, app = 0;
            if (!parseAppIds(w[1], &org, &app)) return "'" + w[1] + "' is not ORG.APP (e.g. 0x10.1)";
            st.args.push_back(std::to_string(org));
            st.args.push_back(std::to_string(app));
        }
        return "";
    }
    if (what == "no_frame") {
        std::optional<long> id = w.size() == 1 ? number(w[0], 0, 100000) : std::nullopt;
        if (!id) return "no_frame expects a command id";
        st.args = {what, std::to_string(*id)};
        return "";
    }
    if (what == "state") {
        std::optional<int> v = w.size() == 1 ? stateValue(w[0]) : std::nullopt;
        if (!v) return "state expects deinitialized, suspended, initializing or initialized";
        st.args = {what, std::to_string(*v)};
        return "";
    }
    if (what == "reply") {
        st.args = {what};
        st.tail = r;
        return "";
    }
    if (what == "result") {
        std::optional<long> v = w.size() == 1 ? number(w[0], INT_MIN, INT_MAX) : std::nullopt;
        if (!v) return "result expects a number";
        st.args = {what, std::to_string(*v)};
        return "";
    }
    if (what == "keyset") {
        std::optional<long> v = w.size() == 1 ? number(w[0], 0, 0x7FF) : std::nullopt;
        if (!v) return "keyset expects a mask from 0 to 0x7ff";
        st.args = {what, std::to_string(*v)};
        return "";
    }
    if (what == "content" || what == "remote") {
        // The rest of the value, escapes decoded; empty: no bytes at all.
        std::string error;
        std::optional<std::string> bytes = unescapeBytes(r, &error);
        if (!bytes) return what + ": " + error;
        st.args = {what};
        st.tail = *bytes;
        return "";
    }
    if (what == "loaded") {
        if (w.size() != 1) return "loaded expects the URL of the page";
        st.args = {what};
        st.tail = w[0];
        return "";
    }
    if (what == "portal") {
        std::optional<bool> on = w.size() == 1 ? boolean(w[0]) : std::nullopt;
        if (!on) return "portal expects on or off";
        st.args = {what, *on ? "1" : "0"};
        return "";
    }
    if (what == "listening" || what == "not_listening") {
        if (w.size() != 2) return what + " expects a stream-event URL and an event name";
        st.args = {what, w[0], w[1]};
        return "";
    }
    return "expects running, decision, no_decision, no_frame, state, reply, result, keyset, "
           "content, remote, loaded, portal, listening or not_listening";
}

std::string parsePortal(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string what = lower(takeWord(r));
    if (what == "open") {
        std::vector<std::string> w = words(r);
        if (w.size() != 1) return "open expects one URL";
        st.args = {what};
        st.tail = w[0];
        return "";
    }
    if (what == "close" && r.empty()) {
        st.args = {what};
        return "";
    }
    return "expects open URL or close";
}

std::string parseTeletext(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 1) return "expects on, off or a number";
    std::optional<long> n = number(w[0], INT_MIN, INT_MAX);
    if (!n) {
        std::optional<bool> on = boolean(w[0]);
        if (!on) return "expects on, off or a number";
        n = *on ? 1 : 0;
    }
    st.args = {std::to_string(*n)};
    return "";
}

std::string parseLaunch(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    if (w.size() != 2) return "expects a launch type and a URL";
    int type = launchTypeValue(lower(w[0]));
    if (type < 0) {
        std::optional<long> n = number(w[0], INT_MIN, INT_MAX);
        if (!n) {
            std::vector<std::string> names;
            for (int i = 0; launchTypeName(i); ++i) names.push_back(launchTypeName(i));
            return "'" + w[0] + "' is not a launch type (" + joined(names) + " or a number)";
        }
        type = static_cast<int>(*n);
    }
    st.args = {std::to_string(type)};
    st.tail = w[1];
    return "";
}

std::string parseKeyset(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    // Masks outside 0-0x7ff are allowed: the library is to refuse them.
    std::optional<long> mask = w.empty() ? std::nullopt : number(w[0], -0xFFFF, 0xFFFF);
    const bool other = w.size() == 2 && lower(w[1]) == "other";
    if (!mask || w.size() > 2 || (w.size() == 2 && !other))
        return "expects a mask (e.g. 0x1f) and optionally 'other' (an other-keys list is given)";
    st.args = {std::to_string(*mask), other ? "1" : "0"};
    return "";
}

std::string parseKey(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    std::optional<long> key = w.size() == 1 ? number(w[0], 0, 0xFFFF) : std::nullopt;
    if (!key) return "expects a key number from 0 to 65535 (e.g. 10 for \"key 0\")";
    st.args = {std::to_string(*key)};
    return "";
}

// stream_event URL NAME [error] [PAYLOAD]: the payload is the rest of the
// value, escapes decoded.
std::string parseStreamEvent(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    const std::string url = takeWord(r);
    const std::string name = takeWord(r);
    if (url.empty() || name.empty()) return "expects a URL and an event name";
    std::string status = "fire";
    std::string tail = r;
    if (lower(takeWord(tail)) == "error") {
        status = "error";
        r = tail;
    }
    std::string error;
    std::optional<std::string> payload = unescapeBytes(r, &error);
    if (!payload) return "payload: " + error;
    st.args = {url, name, status};
    st.tail = *payload;
    return "";
}

// notify programmes_changed | programme_list_changed | component_changed TYPE
//        | rating_changed COUNT BLOCKED | rating_error COUNT
std::string parseNotify(Step& st, const std::string& rest, const Scenario&) {
    std::vector<std::string> w = words(rest);
    const std::string what = w.empty() ? "" : lower(w[0]);
    auto numbers = [&](std::size_t count) {
        if (w.size() != count + 1) return false;
        for (std::size_t i = 1; i < w.size(); ++i)
            if (!number(w[i], 0, 1000)) return false;
        return true;
    };
    const bool ok = ((what == "programmes_changed" || what == "programme_list_changed") && numbers(0)) ||
                    ((what == "component_changed" || what == "rating_error") && numbers(1)) ||
                    (what == "rating_changed" && numbers(2));
    if (!ok)
        return "expects programmes_changed, programme_list_changed, component_changed TYPE, "
               "rating_changed COUNT BLOCKED or rating_error COUNT";
    st.args = {what};
    for (std::size_t i = 1; i < w.size(); ++i) st.args.push_back(std::to_string(*number(w[i], 0, 1000)));
    return "";
}

std::string parseClose(Step& st, const std::string& rest, const Scenario&) {
    if (!trim(rest).empty()) return "takes no arguments";
    st.args.clear();
    return "";
}

std::string parseSay(Step& st, const std::string& rest, const Scenario&) {
    if (trim(rest).empty()) return "expects the text to print";
    st.args.clear();
    st.tail = trim(rest);
    return "";
}

std::vector<StepKind>& registry() {
    static std::vector<StepKind> kinds{
        {"deliver_ait", "deliver_ait NAME", parseDeliver},
        {"network", "network on|off|checking|NUMBER", parseNetwork},
        {"channel", "channel NAME", parseChannel},
        {"wait", "wait MILLISECONDS", parseWait},
        {"wait_frame", "wait_frame ID [FIELD|FIELD|...]", parseWaitFrame},
        {"browser", "browser [CONNECTION] MESSAGE", parseBrowser},
        {"expect",
         "expect running ORG.APP|none, expect decision|no_decision KIND [ORG.APP], "
         "expect no_frame ID, expect state STATE, expect reply [FIELD|...], expect result N, "
         "expect keyset MASK, expect content|remote [BYTES], expect loaded URL, expect portal on|off, "
         "expect listening|not_listening URL NAME",
         parseExpect},
        {"stream_event", "stream_event URL NAME [error] [PAYLOAD]", parseStreamEvent},
        {"notify",
         "notify programmes_changed|programme_list_changed|component_changed TYPE|"
         "rating_changed COUNT BLOCKED|rating_error COUNT",
         parseNotify},
        {"portal", "portal open URL|close", parsePortal},
        {"teletext", "teletext on|off|NUMBER", parseTeletext},
        {"launch", "launch TYPE URL", parseLaunch},
        {"keyset", "keyset MASK [other]", parseKeyset},
        {"key", "key NUMBER", parseKey},
        {"close", "close", parseClose},
        {"say", "say TEXT", parseSay},
    };
    return kinds;
}

}  // namespace

// ---- Scenario look-ups -----------------------------------------------------------------

const ChannelSpec* Scenario::channel(const std::string& name) const {
    for (const ChannelSpec& c : channels)
        if (c.name == name) return &c;
    return nullptr;
}

int Scenario::channelIndex(const std::string& name) const {
    for (std::size_t i = 0; i < channels.size(); ++i)
        if (channels[i].name == name) return static_cast<int>(i);
    return -1;
}

const AppSpec* Scenario::app(const std::string& section) const {
    for (const AppSpec& a : apps)
        if (a.section == section) return &a;
    return nullptr;
}

const AitSpec* Scenario::ait(const std::string& name) const {
    for (const AitSpec& a : aits)
        if (a.name == name) return &a;
    return nullptr;
}

// ---- loading -----------------------------------------------------------------------------

std::optional<Scenario> loadScenario(const std::string& path, std::string* error) {
    try {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0)
            throw Failure{path + ": cannot open: " + std::strerror(errno)};
        if (!S_ISREG(st.st_mode)) throw Failure{path + ": not a regular file"};
        if (st.st_size > kMaxFileBytes)
            throw Failure{path + ": larger than " + std::to_string(kMaxFileBytes) + " bytes"};

        Layout layout = scanLayout(path, path);
        std::unique_ptr<ini_dict, void (*)(ini_dict*)> dict(parse_ini_load(path.c_str()),
                                                            parse_ini_freedict);
        if (!dict) throw Failure{path + ": the INI reader refused the file"};
        Reader reader(path, dict.get(), layout);
        return build(reader, path);
    } catch (const Failure& f) {
        if (error) *error = f.message;
        return std::nullopt;
    }
}

// ---- registry ------------------------------------------------------------------------------

const std::vector<StepKind>& stepKinds() { return registry(); }

const StepKind* findStepKind(const std::string& name) {
    for (const StepKind& k : registry())
        if (k.name == name) return &k;
    return nullptr;
}

void addStepKind(StepKind kind) {
    for (StepKind& k : registry()) {
        if (k.name == kind.name) {
            k = std::move(kind);
            return;
        }
    }
    registry().push_back(std::move(kind));
}

// ---- shared helpers --------------------------------------------------------------------------

const std::vector<std::string>& decisionKinds() {
    static const std::vector<std::string> kinds{"autostart", "no_autostart", "keep", "kill",
                                                "refused",   "empty",        "held", "probe_failed"};
    return kinds;
}

const char* controlCodeName(int code) {
    switch (code) {
        case 1: return "AUTOSTART";
        case 2: return "PRESENT";
        case 4: return "KILL";
        case 7: return "DISABLED";
    }
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
                        *error = "\\x needs two hexadecimal digits (at character " +
                                 std::to_string(i + 1) + ")";
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
