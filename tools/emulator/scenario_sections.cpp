// The sections of a scenario file, one row each in sectionKinds() at the end
// of this file, each with the function that reads it into the model.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "scenario_reader.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

// ---- checks shared by several sections ------------------------------------------

std::string defaultDvbUrl(const ChannelSpec& c) {
    char text[64];
    std::snprintf(text, sizeof(text), "dvb://%x.%x.%x", static_cast<unsigned>(c.onid),
                  static_cast<unsigned>(c.tsid), static_cast<unsigned>(c.sid));
    return text;
}

// The channel a section belongs to: "service" unless it names another.
std::string channelOf(const Reader& r, const std::string& section, const Scenario& s) {
    const std::string channel = lower(r.get(section, "channel").value_or("service"));
    if (!s.channel(channel))
        r.error(section, "channel", "no channel '" + channel + "' (service or a [channel.NAME])");
    return channel;
}

// A file named in the scenario, resolved against the scenario's directory;
// it must exist when the scenario is read.
std::string existingFile(const Reader& r, const std::string& section, const std::string& key,
                         const std::string& value) {
    const std::string resolved = resolveAgainst(r.path(), value);
    struct stat st {};
    if (::stat(resolved.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        r.error(section, key, "'" + value + "' (" + resolved + ") is not a file");
    return resolved;
}

// The same for a directory.
std::string existingDirectory(const Reader& r, const std::string& section, const std::string& key,
                              const std::string& value) {
    const std::string resolved = resolveAgainst(r.path(), value);
    struct stat st {};
    if (::stat(resolved.c_str(), &st) != 0)
        r.error(section, key, "'" + value + "' (" + resolved + "): " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) r.error(section, key, "'" + value + "' (" + resolved + ") is not a directory");
    return resolved;
}

// ---- [scenario] --------------------------------------------------------------------

void readScenarioSection(ScenarioBuilder& b, const std::vector<FoundSection>&) {
    const Reader& r = b.reader;
    r.allowOnly("scenario", {"title", "time_limit"});
    b.scenario.title = r.get("scenario", "title").value_or("");
    const auto limit = r.integer("scenario", "time_limit", 1, kMaxTimeLimitSeconds);
    b.scenario.time_limit_given = limit.has_value();
    b.scenario.time_limit_s = static_cast<int>(limit.value_or(kDefaultTimeLimitSeconds));
}

// ---- [service] and [channel.NAME] ------------------------------------------------------

const std::vector<std::string> kChannelKeys{"onid", "tsid", "sid", "name", "dvb_url", "type"};

int channelType(const Reader& r, const std::string& section) {
    std::optional<std::string> v = r.get(section, "type");
    if (!v) return 0;
    const std::string t = lower(*v);
    if (t == "tv") return 0;
    if (t == "radio") return 1;
    if (t == "other") return 2;
    r.error(section, "type", "'" + *v + "' is not tv, radio or other");
}

// The keys of kChannelKeys; a channel without a name is listed as label.
ChannelSpec readChannelKeys(const Reader& r, const std::string& section, const std::string& name,
                            const std::string& label) {
    ChannelSpec c;
    c.name = name;
    c.onid = static_cast<int>(r.required(section, "onid", 0, 0xFFFF));
    c.tsid = static_cast<int>(r.required(section, "tsid", 0, 0xFFFF));
    c.sid = static_cast<int>(r.required(section, "sid", 0, 0xFFFF));
    c.label = r.get(section, "name").value_or(label);
    c.dvb_url = r.get(section, "dvb_url").value_or(defaultDvbUrl(c));
    if (c.dvb_url.size() > 255) r.error(section, "dvb_url", "longer than 255 characters");
    c.type = channelType(r, section);
    return c;
}

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

// [service]: the first channel, and the defaults of every AIT. A scenario
// whose [capture] brings the channels may leave it out.
void readService(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    const Reader& r = b.reader;
    if (found.empty()) {
        if (b.scenario.capture) return;
        const bool empty = r.layout().sections.empty() && r.layout().keys.empty();
        throw Failure{r.path() + (empty ? ": empty scenario (no [service] or [capture] section)"
                                        : ": [service] section missing (the current channel; or a [capture] "
                                          "whose services become the channels)")};
    }
    std::vector<std::string> keys = kChannelKeys;
    for (const char* k : {"ait_type", "test", "version"}) keys.push_back(k);
    r.allowOnly("service", keys);
    b.scenario.channels.push_back(readChannelKeys(r, "service", "service", "Service"));
    b.ait_defaults.type = aitType(r, "service", "ait_type", 16);
    b.ait_defaults.test = r.flag("service", "test").value_or(false);
    b.ait_defaults.version = static_cast<int>(r.integer("service", "version", 0, 31).value_or(1));
}

void readChannels(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    for (const FoundSection& f : found) {
        if (f.name == "service") b.reader.error(f.section, "", "'service' names the [service] channel");
        b.reader.allowOnly(f.section, kChannelKeys);
        b.scenario.channels.push_back(readChannelKeys(b.reader, f.section, f.name, f.name));
    }
}

// ---- [terminal], [http], [receiver] --------------------------------------------------------

void readTerminal(ScenarioBuilder& b, const std::vector<FoundSection>&) {
    const Reader& r = b.reader;
    TerminalSpec& t = b.scenario.terminal;
    r.allowOnly("terminal", {"version", "parental_threshold", "network"});
    if (std::optional<std::string> v = r.get("terminal", "version"))
        if (!parseVersion(*v, 9, t.version))
            r.error("terminal", "version",
                    "'" + *v +
                        "' is not major.minor.micro with one digit each (e.g. 1.5.1): "
                        "the library reads single digits from the User-Agent");
    if (std::optional<long> n = r.integer("terminal", "parental_threshold", 0, 255))
        t.parental_threshold = static_cast<int>(*n);
    if (std::optional<std::string> v = r.get("terminal", "network")) {
        std::optional<int> n = networkValue(*v);
        if (!n) r.error("terminal", "network", "'" + *v + "' is not on, off, checking or a number");
        t.network = n;
    }
}

void readHttp(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    const Reader& r = b.reader;
    HttpSpec& http = b.scenario.http;
    r.allowOnly("http", {"missing", "root"});
    http.enabled = !found.empty();
    if (std::optional<std::string> m = r.get("http", "missing")) {
        for (const std::string& p : listItems(*m)) {
            if (p[0] != '/') r.error("http", "missing", "'" + p + "' is not a path starting with '/'");
            http.missing.push_back(p);
        }
    }
    if (std::optional<std::string> root = r.get("http", "root"))
        http.root = existingDirectory(r, "http", "root", *root);
}

void readReceiver(ScenarioBuilder& b, const std::vector<FoundSection>&) {
    const Reader& r = b.reader;
    ReceiverSpec& rs = b.scenario.receiver;
    r.allowOnly("receiver",
                {"notifications", "capabilities", "decodes", "rating_schemes", "xml_capabilities", "eit",
                 "audio_language", "subtitle_language", "ui_language", "country", "device_id"});
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
    if (std::optional<std::string> x = r.get("receiver", "xml_capabilities"))
        rs.xml_capabilities = existingFile(r, "receiver", "xml_capabilities", *x);
    if (std::optional<std::string> e = r.get("receiver", "eit"))
        rs.eit = existingFile(r, "receiver", "eit", *e);
    rs.audio_language = r.get("receiver", "audio_language");
    rs.subtitle_language = r.get("receiver", "subtitle_language");
    rs.ui_language = r.get("receiver", "ui_language");
    rs.country = r.get("receiver", "country");
    rs.device_id = r.get("receiver", "device_id");
}

// ---- [app.NAME] --------------------------------------------------------------------------

// From the URL's scheme unless "transport" says otherwise.
int appTransport(const Reader& r, const std::string& section, const std::string& url) {
    const std::string scheme = lower(url.substr(0, url.find(':')));
    std::optional<std::string> t = r.get(section, "transport");
    if (!t) return (scheme == "http" || scheme == "https") ? kTransportHttp : kTransportCarousel;
    const std::string tl = lower(*t);
    if (tl == "http") return kTransportHttp;
    if (tl == "dvb") return kTransportCarousel;
    if (std::optional<long> n = number(*t, 0, 255)) return static_cast<int>(*n);
    r.error(section, "transport", "'" + *t + "' is not dvb, http or a protocol id 0-255");
}

// "FRA:12, DEU:16".
std::vector<RatingSpec> appParental(const Reader& r, const std::string& section, const std::string& value) {
    std::vector<RatingSpec> out;
    for (const std::string& item : listItems(value)) {
        const std::size_t colon = item.find(':');
        RatingSpec rs;
        rs.country = item.substr(0, colon);
        std::optional<long> age =
            colon == std::string::npos ? std::nullopt : number(item.substr(colon + 1), 0, 255);
        const bool letters = std::all_of(rs.country.begin(), rs.country.end(), [](char c) {
            return std::isalpha(static_cast<unsigned char>(c)) != 0;
        });
        if (rs.country.size() != 3 || !letters || !age)
            r.error(section, "parental",
                    "'" + item + "' is not COUNTRY:RATING (three letters, a number 0-255, e.g. FRA:12)");
        rs.rating = static_cast<int>(*age);
        out.push_back(rs);
    }
    return out;
}

int appUsage(const Reader& r, const std::string& section) {
    std::optional<std::string> u = r.get(section, "usage");
    if (!u) return 0;
    if (lower(*u) == "teletext") return 1;
    if (std::optional<long> n = number(*u, 0, 255)) return static_cast<int>(*n);
    r.error(section, "usage", "'" + *u + "' is not teletext or a number 0-255");
}

// The keys an application must have: ids, control code and URL.
void readAppIdentity(const Reader& r, const std::string& section, AppSpec& a) {
    a.org_id = static_cast<int>(r.required(section, "org_id", 0, INT_MAX));
    a.app_id = static_cast<int>(r.required(section, "app_id", 0, 0xFFFF));
    std::optional<std::string> control = r.get(section, "control");
    if (!control) r.error(section, "", "'control' is missing (" + std::string(kControlCodeHelp) + ")");
    std::optional<int> code = controlCode(*control);
    if (!code)
        r.error(section, "control", "'" + *control + "' is not a control code (" + kControlCodeHelp + ")");
    a.control = *code;
    std::optional<std::string> url = r.get(section, "url");
    if (!url || url->empty()) r.error(section, "", "'url' is missing");
    a.url = *url;
}

AppSpec readApp(const Reader& r, const std::string& section, const std::string& name) {
    r.allowOnly(section,
                {"org_id", "app_id", "control", "priority", "url", "transport", "boundary", "service_bound",
                 "profile", "version", "parental", "ip_required", "usage", "visibility", "name"});
    AppSpec a;
    a.section = name;
    readAppIdentity(r, section, a);
    a.priority = static_cast<int>(r.integer(section, "priority", 0, 255).value_or(1));
    a.transport = appTransport(r, section, a.url);
    a.boundary = r.get(section, "boundary");
    a.service_bound = r.flag(section, "service_bound").value_or(true);
    a.profile = static_cast<int>(r.integer(section, "profile", 0, 0xFFFF).value_or(0));
    if (std::optional<std::string> v = r.get(section, "version"))
        if (!parseVersion(*v, 255, a.version))
            r.error(section, "version", "'" + *v + "' is not major.minor.micro (e.g. 1.2.1)");
    if (std::optional<std::string> p = r.get(section, "parental")) a.parental = appParental(r, section, *p);
    a.ip_required = r.flag(section, "ip_required").value_or(false);
    a.usage = appUsage(r, section);
    a.visibility = static_cast<int>(r.integer(section, "visibility", 0, 3).value_or(3));
    a.name = r.get(section, "name").value_or(name);
    return a;
}

void readApps(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    if (static_cast<int>(found.size()) > kMaxApps)
        throw Failure{b.reader.path() + ": more than " + std::to_string(kMaxApps) + " [app.NAME] sections"};
    for (const FoundSection& f : found) b.scenario.apps.push_back(readApp(b.reader, f.section, f.name));
}

// ---- [ait.NAME] ----------------------------------------------------------------------------

// "shop, news:KILL": application sections, each with this table's own
// control code if it has one.
std::vector<AitEntry> aitEntries(const Reader& r, const std::string& section, const Scenario& s) {
    std::optional<std::string> apps = r.get(section, "apps");
    if (!apps) r.error(section, "", "'apps' is missing (a list of [app.NAME] names; empty for an empty AIT)");
    std::vector<AitEntry> out;
    for (const std::string& item : listItems(*apps)) {
        AitEntry e;
        const std::size_t colon = item.find(':');
        e.app = lower(item.substr(0, colon));
        if (!s.app(e.app)) {
            std::vector<std::string> known;
            for (const AppSpec& a : s.apps) known.push_back(a.section);
            r.error(section, "apps",
                    "no section [app." + e.app + "]" +
                        (known.empty() ? "" : " (defined: " + joined(known) + ")"));
        }
        if (colon != std::string::npos) {
            e.control = controlCode(item.substr(colon + 1));
            if (!e.control)
                r.error(section, "apps",
                        "'" + item + "': after ':' comes a control code (" + kControlCodeHelp + ")");
        }
        out.push_back(e);
    }
    return out;
}

AitSpec readAit(const ScenarioBuilder& b, const std::string& section, const std::string& name) {
    const Reader& r = b.reader;
    r.allowOnly(section, {"apps", "channel", "dvb_url", "type", "test", "version"});
    AitSpec t;
    t.name = name;
    t.apps = aitEntries(r, section, b.scenario);
    t.channel = lower(r.get(section, "channel").value_or("service"));
    const ChannelSpec* c = b.scenario.channel(t.channel);
    if (!c) r.error(section, "channel", "no channel '" + t.channel + "' (service or a [channel.NAME])");
    t.dvb_url = r.get(section, "dvb_url").value_or(c->dvb_url);
    if (t.dvb_url.size() > 255) r.error(section, "dvb_url", "longer than 255 characters");
    t.type = aitType(r, section, "type", b.ait_defaults.type);
    t.test = r.flag(section, "test").value_or(b.ait_defaults.test);
    t.version = static_cast<int>(r.integer(section, "version", 0, 31).value_or(b.ait_defaults.version));
    return t;
}

// A table of the service with the [service] defaults.
AitSpec serviceAit(const ScenarioBuilder& b, const std::string& name) {
    AitSpec t;
    t.name = name;
    t.dvb_url = b.scenario.channels.front().dvb_url;
    t.type = b.ait_defaults.type;
    t.test = b.ait_defaults.test;
    t.version = b.ait_defaults.version;
    return t;
}

// The file's tables, then "main" (every application) and "empty" unless the
// file defines them; both are tables of the service, so a scenario without
// [service] has neither.
void readAits(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    Scenario& s = b.scenario;
    for (const FoundSection& f : found) s.aits.push_back(readAit(b, f.section, f.name));
    if (!s.channel("service")) return;
    if (!s.ait("main")) {
        AitSpec t = serviceAit(b, "main");
        for (const AppSpec& a : s.apps) t.apps.push_back({a.section, std::nullopt});
        s.aits.push_back(t);
    }
    if (!s.ait("empty")) s.aits.push_back(serviceAit(b, "empty"));
}

// ---- [capture] ---------------------------------------------------------------------------

void readCapture(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    if (found.empty()) return;
    const Reader& r = b.reader;
    r.allowOnly("capture", {"file", "service", "speed", "broadband"});
    CaptureSpec c;
    std::optional<std::string> file = r.get("capture", "file");
    if (!file || file->empty())
        r.error("capture", "", "'file' is missing (a capture file, - for standard input or udp://127.0.0.1:PORT)");
    c.source = *file;
    c.path = c.isFile() ? existingFile(r, "capture", "file", *file) : *file;
    if (std::optional<long> sid = r.integer("capture", "service", 0, 0xFFFF)) c.service = static_cast<int>(*sid);
    if (std::optional<std::string> speed = r.get("capture", "speed")) {
        std::optional<bool> realtime = captureSpeed(*speed);
        if (!realtime) r.error("capture", "speed", "'" + *speed + "' is not " + kCaptureSpeedHelp);
        c.realtime = *realtime;
    }
    c.broadband = r.flag("capture", "broadband").value_or(true);
    b.scenario.capture = c;
}

// ---- [carousel.TAG], [programme.NAME], [component.NAME] ----------------------------------------

void readCarousels(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    const Reader& r = b.reader;
    for (const FoundSection& f : found) {
        CarouselSpec c;
        std::optional<long> tag = number(f.name, 0, 0xFFFF);
        if (!tag)
            r.error(f.section, "",
                    "'" + f.name + "' is not a component tag from 0 to 65535 (decimal or 0x hexadecimal)");
        c.tag = static_cast<int>(*tag);
        for (const CarouselSpec& other : b.scenario.carousels)
            if (other.tag == c.tag)
                r.error(f.section, "", "component tag " + std::to_string(c.tag) + " has a carousel already");
        r.allowOnly(f.section, {"dir"});
        std::optional<std::string> dir = r.get(f.section, "dir");
        if (!dir || dir->empty()) r.error(f.section, "", "'dir' is missing (the directory to serve)");
        c.dir = *dir;
        c.path = existingDirectory(r, f.section, "dir", *dir);
        b.scenario.carousels.push_back(c);
    }
}

ProgrammeSpec readProgramme(const Reader& r, const std::string& section, const std::string& name,
                            const Scenario& s) {
    r.allowOnly(section,
                {"channel", "name", "description", "start", "duration", "id", "long_description", "rating"});
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

void readProgrammes(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    for (const FoundSection& f : found)
        b.scenario.programmes.push_back(readProgramme(b.reader, f.section, f.name, b.scenario));
}

int componentKind(const Reader& r, const std::string& section) {
    const std::string kind = lower(r.get(section, "kind").value_or(""));
    if (kind == "video") return 0;
    if (kind == "audio") return 1;
    if (kind == "subtitle") return 2;
    r.error(section, "kind", "'" + kind + "' is not video, audio or subtitle");
}

ComponentSpec readComponent(const Reader& r, const std::string& section, const std::string& name,
                            const Scenario& s) {
    r.allowOnly(section, {"channel", "kind", "tag", "pid", "encoding", "language", "aspect_ratio",
                          "audio_channels", "audio_description", "hearing_impaired", "active"});
    ComponentSpec c;
    c.section = name;
    c.channel = channelOf(r, section, s);
    c.kind = componentKind(r, section);
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

void readComponents(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    for (const FoundSection& f : found)
        b.scenario.components.push_back(readComponent(b.reader, f.section, f.name, b.scenario));
}

// ---- [stream_event.NAME], [testsuite] ------------------------------------------------------

// "48656c6c6f, cafe": bytes from hexadecimal digits.
std::optional<std::string> hexBytes(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return std::nullopt;
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return bytes;
}

void readStreamEvents(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    const Reader& r = b.reader;
    for (const FoundSection& f : found) {
        r.allowOnly(f.section, {"name", "url", "tag", "event_id", "payloads", "interval"});
        StreamEventSpec e;
        e.section = f.name;
        e.name = r.get(f.section, "name").value_or(f.name);
        e.url = r.get(f.section, "url");
        if (std::optional<long> tag = r.integer(f.section, "tag", 0, 0xFFFF)) e.tag = static_cast<int>(*tag);
        if (std::optional<long> id = r.integer(f.section, "event_id", 0, 0xFFFF)) e.event_id = static_cast<int>(*id);
        if (e.tag.has_value() != e.event_id.has_value())
            r.error(f.section, e.tag ? "event_id" : "tag", "'tag' and 'event_id' go together");
        if (!e.url && !e.tag) r.error(f.section, "", "give 'url', or 'tag' and 'event_id' (or both)");
        for (const std::string& w : listItems(r.get(f.section, "payloads").value_or(""))) {
            std::optional<std::string> bytes = hexBytes(w);
            if (!bytes) r.error(f.section, "payloads", "'" + w + "' is not bytes in hexadecimal (48656c6c6f)");
            e.payloads.push_back(*bytes);
        }
        if (e.payloads.empty()) r.error(f.section, "payloads", "no payload (bytes in hexadecimal, separated by commas)");
        e.interval_ms = static_cast<int>(r.integer(f.section, "interval", 100, 60000).value_or(1000));
        b.scenario.stream_events.push_back(e);
    }
}

void readTestsuite(ScenarioBuilder& b, const std::vector<FoundSection>& found) {
    if (found.empty()) return;
    const Reader& r = b.reader;
    r.allowOnly("testsuite", {"pages", "port", "group_time_limit"});
    std::optional<std::string> pages = r.get("testsuite", "pages");
    if (!pages || pages->empty()) r.error("testsuite", "", "'pages' is missing (the test suite's pages)");
    TestsuiteSpec t;
    t.pages = existingDirectory(r, "testsuite", "pages", *pages);
    t.port = static_cast<int>(r.integer("testsuite", "port", 0, 65535).value_or(0));
    t.group_time_limit_s =
        static_cast<int>(r.integer("testsuite", "group_time_limit", 10, 3600).value_or(t.group_time_limit_s));
    b.scenario.testsuite = t;
}

// ---- [timeline] --------------------------------------------------------------------------

// The steps by number; every key must be stepN, each N once.
std::vector<Step> numberedSteps(const Reader& r) {
    const std::string section = "timeline";
    std::vector<Step> steps;
    for (const KeyInfo& k : r.layout().keys) {
        if (k.section != section) continue;
        // Step numbers are decimal: "step08" is step 8.
        const std::string digits = k.key.rfind("step", 0) == 0 ? k.key.substr(4) : "";
        const bool decimal =
            !digits.empty() && digits.size() <= 6 &&
            std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
        const long n = decimal ? std::strtol(digits.c_str(), nullptr, 10) : 0;
        if (n < 1)
            r.error(section, k.key,
                    "timeline keys are step1, step2, ... (run in the order of their numbers)");
        Step st;
        st.key = k.key;
        st.number = n;
        st.line = k.line;
        st.text = r.get(section, k.key).value_or("");
        steps.push_back(st);
    }
    std::sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) { return a.number < b.number; });
    for (std::size_t i = 1; i < steps.size(); ++i)
        if (steps[i].number == steps[i - 1].number)
            r.error(section, steps[i].key,
                    "same step number as " + steps[i - 1].key + " (numbers must differ)");
    if (static_cast<int>(steps.size()) > kMaxSteps)
        r.error(section, "", "more than " + std::to_string(kMaxSteps) + " steps");
    return steps;
}

// Each step by its kind's parser, against everything read before.
void readTimeline(ScenarioBuilder& b, const std::vector<FoundSection>&) {
    Scenario& s = b.scenario;
    s.timeline = numberedSteps(b.reader);
    for (std::size_t i = 0; i < s.timeline.size(); ++i) {
        Step& st = s.timeline[i];
        std::string rest = st.text;
        st.kind = lower(takeWord(rest));
        const StepKind* kind = findStepKind(st.kind);
        if (!kind) {
            std::vector<std::string> known;
            for (const StepKind& k : stepKinds()) known.push_back(k.name);
            b.reader.error("timeline", st.key,
                           (st.kind.empty() ? std::string("empty step") : "unknown step '" + st.kind + "'") +
                               " (known: " + joined(known) + ")");
        }
        const std::string why = kind->parse(st, rest, s);
        if (!why.empty())
            b.reader.error("timeline", st.key, st.kind + ": " + why + " (syntax: " + kind->syntax + ")");
        if ((kind->flags & kLastOnly) && i + 1 != s.timeline.size())
            b.reader.error("timeline", st.key, st.kind + " must be the last step");
    }
}

}  // namespace

const std::vector<SectionKind>& sectionKinds() {
    static const std::vector<SectionKind> kinds{
        {"scenario", nullptr, false, readScenarioSection},
        {"capture", nullptr, false, readCapture},
        {"service", nullptr, false, readService},
        {"terminal", nullptr, false, readTerminal},
        {"receiver", nullptr, false, readReceiver},
        {"http", nullptr, false, readHttp},
        {"channel", "NAME", false, readChannels},
        {"app", "NAME", false, readApps},
        {"ait", "NAME", false, readAits},
        {"carousel", "TAG", false, readCarousels,
         "give the component tag in the section name: [carousel.TAG], e.g. [carousel.1]"},
        {"programme", "NAME", false, readProgrammes},
        {"component", "NAME", false, readComponents},
        {"stream_event", "NAME", false, readStreamEvents},
        {"testsuite", nullptr, false, readTestsuite},
        {"timeline", nullptr, false, readTimeline},
    };
    return kinds;
}

}  // namespace appmgr::emu
