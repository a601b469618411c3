#include "testsuite_scenario.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace appmgr::emu {

namespace fs = std::filesystem;

namespace {

// The suite's services (settings.js: service1, service2, serviceNetworkId),
// in the order onid, tsid, sid.
constexpr int kOnid = 1;
constexpr int kTsid = 65283;
constexpr int kFirstSid = 28186;
constexpr int kSecondSid = 28187;
// The suite's carousel and stream events (settings.js: dsmccctag,
// seventctag), and the events the broadcast carries on them: event 1,
// "testevent", cycles through three payloads, event 2 ("badid") has one.
constexpr int kCarouselTag = 23;
constexpr int kStreamEventTag = 19;
const char* const kTestEventPayloads =
    "48656c6c6f204862625456, 54657374206576656e7420c3a4c3b6c3bc21, cafebabe0008090a0d101fff";
const char* const kBadIdPayload = "4261644944";
// The suite's applications (settings.js): its own (13.a, the running group),
// the other application the appmanager group starts (13.1f5), and the one
// that prefers the carousel (13.1f7).
constexpr const char* kOrg = "0x13";

const char* const kReceiver = R"([service]
onid = 1
tsid = 65283
sid = 28186
name = HbbTV-Testsuite1

[channel.second]
onid = 1
tsid = 65283
sid = 28187
name = HbbTV-Testsuite2

[receiver]
notifications = yes
capabilities = +DL
decodes = 1,2
country = DEU
audio_language = deu
subtitle_language = deu
ui_language = deu

[terminal]
version = 1.5.1
network = on
parental_threshold = 13
)";

// Components of both services (settings.js: vbcomponents): one video, two
// audio tracks (German, French), German subtitles.
std::string components(const std::string& channel) {
    std::ostringstream out;
    const int base = channel == "service" ? 100 : 200;
    out << "[component." << channel << "-video]\nchannel = " << channel
        << "\nkind = video\ntag = 1\npid = " << base << "\nencoding = H.264\naspect_ratio = 1.78\nactive = yes\n\n"
        << "[component." << channel << "-deu]\nchannel = " << channel << "\nkind = audio\ntag = 2\npid = "
        << base + 1 << "\nencoding = MPEG1\nlanguage = deu\nactive = yes\n\n"
        << "[component." << channel << "-fra]\nchannel = " << channel << "\nkind = audio\ntag = 3\npid = "
        << base + 2 << "\nencoding = MPEG1\nlanguage = fra\n\n"
        << "[component." << channel << "-sub]\nchannel = " << channel << "\nkind = subtitle\ntag = 4\npid = "
        << base + 3 << "\nencoding = DVB\nlanguage = deu\n\n";
    return out.str();
}

// What runs now and next on each service, around the time of the run.
std::string programmes(long now) {
    std::ostringstream out;
    const long start = now - now % 1800;
    for (const char* channel : {"service", "second"}) {
        out << "[programme." << channel << "-now]\nchannel = " << channel << "\nname = Testsuite now\n"
            << "description = The programme running while the suite runs\nstart = " << start
            << "\nduration = 1800\nrating = dvb-si:9\n\n"
            << "[programme." << channel << "-next]\nchannel = " << channel << "\nname = Testsuite next\n"
            << "description = The programme after it\nstart = " << start + 1800 << "\nduration = 3600\n\n";
    }
    return out.str();
}

// Groups the suite leaves to a person (its menu marks them automate=
// "ignore"): the keys a person presses, as timeline steps after the page
// has started. "label X" names the verdict the page gives next.
struct KeyScript {
    const char* group;
    std::vector<std::string> steps;
};

// The keys the keyset group asks for in each of its four tests, then red
// for the verdict; a passed test selects the next one by itself.
std::vector<std::string> keysetScript() {
    std::vector<std::string> steps;
    for (const char* test : {"319", "31", "3", "x"}) {
        steps.push_back(std::string("testsuite_label keyset.") + test);
        steps.push_back("press ok");
        steps.push_back("wait 300");  // the page's key set reaches the browser
        for (const char* key : {"green", "left", "back", "9", "stop", "ffwd"}) steps.push_back(std::string("press ") + key);
        steps.push_back("press red");
        steps.push_back("wait 300");
    }
    return steps;
}

// One verdict per key, in the order the keycodes group asks for them (its
// last key, red, ends the group instead).
std::vector<std::string> keycodesScript() {
    std::vector<std::string> steps;
    bool first = true;
    for (const char* key : {"VK_ENTER", "VK_LEFT", "VK_DOWN", "VK_PLAY", "VK_PAUSE", "VK_STOP", "VK_FAST_FWD",
                            "VK_REWIND", "VK_BACK", "VK_0", "VK_5", "VK_9", "VK_GREEN", "VK_YELLOW"}) {
        steps.push_back(std::string("testsuite_label keycodes.") + key);
        steps.push_back(std::string("press ") + key);
        // The first key activates the application: its whole key set
        // applies once the library has said so.
        if (first) steps.push_back("wait 300");
        first = false;
    }
    return steps;
}

const std::vector<KeyScript>& keyScripts() {
    static const std::vector<KeyScript> scripts{
        {"keyset", keysetScript()},
        {"keycodes", keycodesScript()},
        {"keypress", {"testsuite_label keypress.test", "press ok", "press left", "wait 300"}},
    };
    return scripts;
}

const KeyScript* keyScript(const std::string& group) {
    for (const KeyScript& k : keyScripts())
        if (group == k.group) return &k;
    return nullptr;
}

std::string dvbHost() {
    std::ostringstream out;
    out << std::hex << kOnid << '.' << kTsid << '.' << kFirstSid << '.' << kCarouselTag;
    return out.str();
}

std::string scenarioText(const std::string& pages, int port, const std::vector<std::string>& groups) {
    // As the browser writes it (port 80 goes without saying).
    const std::string origin = "http://127.0.0.1" + (port == 80 ? std::string() : ":" + std::to_string(port));
    std::ostringstream out;
    out << "# appmgr-emu --testsuite: the receiver the public HbbTV test suite's pages\n"
        << "# expect, and one step per group.\n\n"
        << "[scenario]\ntitle = the public HbbTV test suite: ";
    for (std::size_t i = 0; i < groups.size(); ++i) out << (i ? ", " : "") << groups[i];
    out << "\n\n" << kReceiver << "\n" << components("service") << components("second")
        << programmes(static_cast<long>(std::time(nullptr)));
    out << "[carousel." << kCarouselTag << "]\ndir = carousel\n\n"
        << "[stream_event.testevent]\nurl = dvb://" << dvbHost() << "/sevent\ntag = " << kStreamEventTag
        << "\nevent_id = 1\npayloads = " << kTestEventPayloads << "\ninterval = 1000\n\n"
        << "[stream_event.badid]\ntag = " << kStreamEventTag << "\nevent_id = 2\npayloads = " << kBadIdPayload
        << "\ninterval = 3000\n\n"
        << "[testsuite]\npages = " << pages << "\nport = " << port << "\n\n";
    out << "[app.other]\nname = Other testsuite application\norg_id = " << kOrg
        << "\napp_id = 0x1f5\ncontrol = PRESENT\nservice_bound = no\nurl = " << origin
        << "/appmanager/otherapp.php?param1=value1\n\n"
        << "[app.carousel]\nname = Testsuite application from the carousel\norg_id = " << kOrg
        << "\napp_id = 0x1f7\ncontrol = PRESENT\nservice_bound = no\nurl = dvb://" << dvbHost()
        << "/preferdsmcc.html\n\n";
    for (const std::string& g : groups)
        out << "[app." << g << "]\nname = This testsuite application\norg_id = " << kOrg
            << "\napp_id = 0xa\ncontrol = AUTOSTART\nservice_bound = no\nurl = " << origin << "/" << g
            << "/index.php\n\n[ait." << g << "]\napps = " << g << ", other, carousel\n\n";
    out << "[timeline]\n";
    int n = 0;
    for (const std::string& g : groups) {
        const KeyScript* script = keyScript(g);
        if (!script) {
            out << "step" << ++n << " = testsuite_group " << g << "\n";
            continue;
        }
        out << "step" << ++n << " = testsuite_start " << g << "\n";
        for (const std::string& st : script->steps) out << "step" << ++n << " = " << st << "\n";
        // The last verdict reaches the server before the page goes.
        out << "step" << ++n << " = wait 500\n";
        out << "step" << ++n << " = deliver_ait empty\n";
    }
    return out.str();
}

bool writeText(const fs::path& path, const std::string& text, std::string* error) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) *error = "cannot write " + path.string();
    return static_cast<bool>(out);
}

}  // namespace

std::vector<std::string> testsuiteGroups(const std::string& pages) {
    std::vector<std::string> groups;
    std::error_code ec;
    for (const fs::directory_entry& e : fs::directory_iterator(pages, ec))
        if (e.is_directory() && fs::exists(e.path() / "index.php")) groups.push_back(e.path().filename().string());
    std::sort(groups.begin(), groups.end());
    return groups;
}

// The carousel is the suite's carousel copy of its start page
// (imuxcfg/dsmcc/) with the stream-event object "sevent" beside it.
std::string writeTestsuiteScenario(const std::string& dir, const std::string& pages, int port,
                                   const std::vector<std::string>& groups, std::string* error) {
    const fs::path base(dir);
    const fs::path carousel = base / "carousel";
    std::error_code ec;
    fs::create_directories(carousel, ec);
    if (ec) {
        *error = "cannot make " + carousel.string() + ": " + ec.message();
        return "";
    }
    const fs::path copy_of = fs::path(pages) / "imuxcfg" / "dsmcc";
    if (fs::is_directory(copy_of))
        fs::copy(copy_of, carousel, fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
    if (ec) {
        *error = "cannot copy " + copy_of.string() + ": " + ec.message();
        return "";
    }
    if (!writeText(carousel / "sevent.ste", "testevent\nbadid\n", error)) return "";
    const fs::path ini = base / "testsuite.ini";
    if (!writeText(ini, scenarioText(fs::absolute(pages).string(), port, groups), error)) return "";
    return ini.string();
}

}  // namespace appmgr::emu
