// Scenario files of appmgr-emu: INI text -> scenario model, and the errors a
// bad file gets (with file and line). Nothing here starts the library.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "loopback_server.h"
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "http_stub.h"
#include "remote_input.h"
#include "scenario.h"

using namespace appmgr::emu;

namespace {

class ScenarioFile : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/test_scenario.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        for (const std::string& f : files_) std::remove(f.c_str());
        for (auto d = dirs_.rbegin(); d != dirs_.rend(); ++d) rmdir(d->c_str());
        rmdir(dir_.c_str());
    }
    std::string mkdir(const std::string& name) {
        std::string path = dir_ + "/" + name;
        ::mkdir(path.c_str(), 0755);
        dirs_.push_back(path);
        return path;
    }
    std::string write(const std::string& text, const std::string& name = "s.ini") {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        files_.push_back(path);
        return path;
    }
    Scenario load(const std::string& text) {
        std::string error;
        std::optional<Scenario> s = loadScenario(write(text), &error);
        EXPECT_TRUE(s.has_value()) << error;
        return s ? *s : Scenario{};
    }
    // The error message for text, or "" when it loads.
    std::string error(const std::string& text) {
        std::string error;
        std::optional<Scenario> s = loadScenario(write(text), &error);
        return s ? std::string() : error;
    }

    std::string dir_;
    std::vector<std::string> files_;
    std::vector<std::string> dirs_;
};

const char* const kService =
    "[service]\n"
    "onid = 0x22d4\n"
    "tsid = 1\n"
    "sid = 0x101\n";

TEST_F(ScenarioFile, FullScenarioMapsOntoTheModel) {
    Scenario s = load(std::string("# comment\n[scenario]\ntitle = demo\ntime_limit = 12\n") + kService +
                      "name = Emu One\nait_type = dtg\nversion = 4\n"
                      "[channel.Other]\nonid = 2\ntsid = 3\nsid = 4\nname = Other TV\n"
                      "[terminal]\nversion = 2.0.1\nparental_threshold = 12\nnetwork = checking\n"
                      "[app.one]\norg_id = 0x10\napp_id = 1\ncontrol = autostart\npriority = 5\n"
                      "url = http://{http}/a.html\nboundary = http://{http}/ https://x/\n"
                      "service_bound = no\nprofile = 0\nversion = 1.2.1\nparental = FRA:12, deu:16\n"
                      "ip_required = yes\nusage = teletext\nvisibility = 1\nname = First\n"
                      "[app.two]\norg_id = 16\napp_id = 2\ncontrol = 7\nurl = dvb://1.2.3.1/index.html\n"
                      "transport = http\n"
                      "[ait.later]\napps = two, one:KILL\nchannel = other\ntype = 16\ntest = yes\n"
                      "[timeline]\nstep10 = close\nstep2 = channel OTHER\nstep1 = deliver_ait later\n");
    EXPECT_EQ(s.title, "demo");
    EXPECT_EQ(s.time_limit_s, 12);

    ASSERT_EQ(s.channels.size(), 2u);
    EXPECT_EQ(s.channels[0].name, "service");
    EXPECT_EQ(s.channels[0].onid, 0x22d4);
    EXPECT_EQ(s.channels[0].sid, 0x101);
    EXPECT_EQ(s.channels[0].label, "Emu One");
    EXPECT_EQ(s.channels[0].dvb_url, "dvb://22d4.1.101");
    EXPECT_EQ(s.channels[1].name, "other");  // section names are lower-cased
    EXPECT_EQ(s.channels[1].dvb_url, "dvb://2.3.4");

    EXPECT_EQ(s.terminal.version[0], 2);
    EXPECT_EQ(s.terminal.version[2], 1);
    EXPECT_EQ(s.terminal.parental_threshold, 12);
    EXPECT_EQ(s.terminal.network, 2);

    ASSERT_EQ(s.apps.size(), 2u);
    const AppSpec& one = s.apps[0];
    EXPECT_EQ(one.section, "one");
    EXPECT_EQ(one.org_id, 0x10);
    EXPECT_EQ(one.control, 1);
    EXPECT_EQ(one.priority, 5);
    EXPECT_EQ(one.transport, kTransportHttp);  // from the URL's scheme
    EXPECT_EQ(one.boundary, std::optional<std::string>("http://{http}/ https://x/"));
    EXPECT_FALSE(one.service_bound);
    EXPECT_EQ(one.version[1], 2);
    ASSERT_EQ(one.parental.size(), 2u);
    EXPECT_EQ(one.parental[1].country, "deu");
    EXPECT_EQ(one.parental[1].rating, 16);
    EXPECT_TRUE(one.ip_required);
    EXPECT_EQ(one.usage, 1);
    EXPECT_EQ(one.visibility, 1);
    EXPECT_EQ(one.name, "First");
    const AppSpec& two = s.apps[1];
    EXPECT_EQ(two.control, 7);
    EXPECT_EQ(two.transport, kTransportHttp);  // given explicitly, despite the dvb: URL
    EXPECT_FALSE(two.boundary.has_value());
    EXPECT_TRUE(two.service_bound);
    EXPECT_EQ(two.name, "two");

    const AitSpec* later = s.ait("later");
    ASSERT_NE(later, nullptr);
    ASSERT_EQ(later->apps.size(), 2u);
    EXPECT_EQ(later->apps[0].app, "two");
    EXPECT_FALSE(later->apps[0].control.has_value());
    EXPECT_EQ(later->apps[1].control, std::optional<int>(4));
    EXPECT_EQ(later->dvb_url, "dvb://2.3.4");  // the channel's locator
    EXPECT_EQ(later->type, 16);                // own value beats [service]
    EXPECT_TRUE(later->test);
    EXPECT_EQ(later->version, 4);  // from [service]

    // The implicit tables carry the service's settings.
    const AitSpec* main = s.ait("main");
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->apps.size(), 2u);
    EXPECT_EQ(main->type, 18);
    EXPECT_EQ(main->dvb_url, "dvb://22d4.1.101");
    ASSERT_NE(s.ait("empty"), nullptr);
    EXPECT_TRUE(s.ait("empty")->apps.empty());

    EXPECT_TRUE(s.http.enabled);  // {http} is used
    ASSERT_EQ(s.timeline.size(), 3u);
    EXPECT_EQ(s.timeline[0].key, "step1");
    EXPECT_EQ(s.timeline[1].args, std::vector<std::string>{"other"});
    EXPECT_EQ(s.timeline[2].kind, "close");
    EXPECT_GT(s.timeline[0].line, s.timeline[2].line);  // file order differs from run order
}

TEST_F(ScenarioFile, DefaultsAndExplicitMainTable) {
    Scenario s = load(std::string(kService) +
                      "[app.a]\norg_id = 1\napp_id = 2\ncontrol = PRESENT\nurl = dvb://1.2.3/x.html\n"
                      "[ait.main]\napps =\ndvb_url = dvb:\n");
    EXPECT_EQ(s.apps[0].transport, kTransportCarousel);
    EXPECT_EQ(s.apps[0].priority, 1);
    EXPECT_EQ(s.apps[0].version[0], 1);
    EXPECT_EQ(s.terminal.version[1], 5);
    EXPECT_FALSE(s.terminal.network.has_value());
    EXPECT_FALSE(s.http.enabled);
    // A defined "main" replaces the implicit one, short locator included (the
    // library is to refuse it, not the reader).
    ASSERT_NE(s.ait("main"), nullptr);
    EXPECT_TRUE(s.ait("main")->apps.empty());
    EXPECT_EQ(s.ait("main")->dvb_url, "dvb:");
    EXPECT_EQ(s.time_limit_s, kDefaultTimeLimitSeconds);
}

TEST_F(ScenarioFile, StepArgumentsAreNormalised) {
    Scenario s = load(std::string(kService) +
                      "[app.a]\norg_id = 1\napp_id = 2\ncontrol = 1\nurl = http://{http}/x\n"
                      "[timeline]\n"
                      "step1 = network ON\n"
                      "step2 = network 7\n"
                      "step3 = wait_frame 50 http://{http}/x|\n"
                      "step4 = browser DTVplugins 401|\n"
                      "step5 = browser 82|http://h/p.html|\n"
                      "step6 = expect running 0x10.0x2\n"
                      "step7 = expect decision kill 16.3\n"
                      "step8 = expect state Initialized\n"
                      "step9 = \"expect reply a|b;c\"\n"
                      "step10 = wait 250\n");
    const auto& t = s.timeline;
    ASSERT_EQ(t.size(), 10u);
    EXPECT_EQ(t[0].args, std::vector<std::string>{"1"});
    EXPECT_EQ(t[1].args, std::vector<std::string>{"7"});
    EXPECT_EQ(t[2].args, std::vector<std::string>{"50"});
    EXPECT_EQ(t[2].tail, std::optional<std::string>("http://{http}/x|"));
    EXPECT_EQ(t[3].args, std::vector<std::string>{"1"});
    EXPECT_EQ(t[3].tail, std::optional<std::string>("401|"));
    EXPECT_EQ(t[4].args, std::vector<std::string>{"0"});  // Application by default
    EXPECT_EQ(t[5].args, (std::vector<std::string>{"running", "16", "2"}));
    EXPECT_EQ(t[6].args, (std::vector<std::string>{"decision", "kill", "16", "3"}));
    EXPECT_EQ(t[7].args, (std::vector<std::string>{"state", "3"}));
    EXPECT_EQ(t[8].tail, std::optional<std::string>("a|b;c"));  // whole value quoted: ';' kept
    EXPECT_EQ(t[9].args, std::vector<std::string>{"250"});
}

struct BadCase {
    const char* what;
    std::string text;
    const char* message;  // expected part of the error
};

TEST_F(ScenarioFile, BadFilesNameFileLineAndProblem) {
    const std::string app = "[app.a]\norg_id = 1\napp_id = 2\ncontrol = 1\nurl = http://x/\n";
    const BadCase cases[] = {
        {"syntax", std::string(kService) + "no equals here\n", "s.ini:5: not a [section]"},
        {"semicolon comment", "; note\n" + std::string(kService), "s.ini:1: not a [section]"},
        {"key outside a section", "onid = 1\n" + std::string(kService),
         "s.ini:1: 'onid' is outside any section"},
        {"unknown section", std::string(kService) + "[apps.a]\n", "s.ini:5: [apps.a]: unknown section"},
        {"bad section name", std::string(kService) + "[app.a b]\n", "[app.a b]: the name after 'app.'"},
        {"unknown key", std::string(kService) + "sidd = 3\n", "s.ini:5: [service] sidd: unknown key"},
        {"missing service", "[terminal]\nnetwork = on\n", "[service] section missing"},
        {"empty file", "", "empty scenario"},
        {"missing sid", "[service]\nonid = 1\ntsid = 1\n", "s.ini:1: [service]: 'sid' is missing"},
        {"not a number", "[service]\nonid = one\ntsid = 1\nsid = 1\n",
         "s.ini:2: [service] onid: 'one' is not a number"},
        {"out of range", "[service]\nonid = 0x10000\ntsid = 1\nsid = 1\n", "from 0 to 65535"},
        {"bad octal", "[service]\nonid = 08\ntsid = 1\nsid = 1\n", "'08' is not a number"},
        {"duplicate key", std::string(kService) + "sid = 4\n",
         "s.ini:5: [service] sid is given twice (first on line 4)"},
        {"duplicate section", std::string(kService) + app + app,
         "s.ini:10: section [app.a] appears twice"},
        {"bad control",
         std::string(kService) + "[app.a]\norg_id = 1\napp_id = 2\ncontrol = START\nurl = x\n",
         "s.ini:8: [app.a] control: 'START' is not a control code"},
        {"missing url", std::string(kService) + "[app.a]\norg_id = 1\napp_id = 2\ncontrol = 1\n",
         "'url' is missing"},
        {"bad version", std::string(kService) + app + "version = 1.2\n",
         "[app.a] version: '1.2' is not major.minor.micro"},
        {"two-digit terminal version", std::string(kService) + "[terminal]\nversion = 1.10.1\n",
         "one digit each"},
        {"bad rating", std::string(kService) + app + "parental = FR:12\n",
         "'FR:12' is not COUNTRY:RATING"},
        {"bad boolean", std::string(kService) + app + "service_bound = maybe\n",
         "'maybe' is not yes/no"},
        {"unknown app in AIT", std::string(kService) + app + "[ait.x]\napps = a, b\n",
         "[ait.x] apps: no section [app.b] (defined: a)"},
        {"unknown channel of AIT", std::string(kService) + "[ait.x]\napps =\nchannel = nowhere\n",
         "[ait.x] channel: no channel 'nowhere'"},
        {"AIT without apps key", std::string(kService) + "[ait.x]\nversion = 3\n", "'apps' is missing"},
        {"AIT version range", std::string(kService) + "[ait.x]\napps =\nversion = 32\n", "from 0 to 31"},
        {"long dvb_url", std::string(kService) + "dvb_url = dvb://" + std::string(250, 'a') + "\n",
         "longer than 255 characters"},
        {"channel named service",
         std::string(kService) + "[channel.service]\nonid = 1\ntsid = 1\nsid = 1\n",
         "'service' names the [service] channel"},
        {"timeline key", std::string(kService) + "[timeline]\nfirst = close\n",
         "[timeline] first: timeline keys are step1"},
        {"same step number", std::string(kService) + "[timeline]\nstep1 = wait 1\nstep01 = wait 2\n",
         "same step number as step1"},
        {"unknown step", std::string(kService) + "[timeline]\nstep1 = jump 3\n",
         "s.ini:6: [timeline] step1: unknown step 'jump' (known: deliver_ait"},
        {"empty step", std::string(kService) + "[timeline]\nstep1 =\n", "empty step"},
        {"unknown AIT", std::string(kService) + "[timeline]\nstep1 = deliver_ait other\n",
         "deliver_ait: no AIT named 'other' (defined: main, empty)"},
        {"unknown channel", std::string(kService) + "[timeline]\nstep1 = channel other\n",
         "channel: no channel 'other' (defined: service)"},
        {"wait too long", std::string(kService) + "[timeline]\nstep1 = wait 60000\n",
         "milliseconds from 0 to 10000"},
        {"bad network", std::string(kService) + "[timeline]\nstep1 = network maybe\n",
         "(syntax: network on|off"},
        {"bad decision", std::string(kService) + "[timeline]\nstep1 = expect decision start\n",
         "decision expects a decision (autostart, no_autostart"},
        {"bad ids", std::string(kService) + "[timeline]\nstep1 = expect running 16\n",
         "running expects ORG.APP or none"},
        {"bad expectation", std::string(kService) + "[timeline]\nstep1 = expect nothing\n",
         "expects running, decision"},
        {"empty browser message", std::string(kService) + "[timeline]\nstep1 = browser dsmcc\n",
         "browser: expects a message"},
        {"close not last", std::string(kService) + "[timeline]\nstep1 = close\nstep2 = wait 1\n",
         "close must be the last step"},
        {"line too long", std::string(kService) + "name = " + std::string(1100, 'x') + "\n",
         "s.ini:5: line longer than 1024 characters"},
        {"NUL byte", std::string(kService) + std::string("name = a\0b\n", 11), "s.ini:5: NUL byte"},
    };
    for (const BadCase& c : cases) {
        const std::string e = error(c.text);
        EXPECT_NE(e.find(c.message), std::string::npos)
            << c.what << ": got \"" << e << "\", expected it to contain \"" << c.message << "\"";
    }
}

TEST_F(ScenarioFile, UnreadablePaths) {
    std::string e;
    EXPECT_FALSE(loadScenario(dir_ + "/absent.ini", &e));
    EXPECT_NE(e.find("absent.ini: cannot open"), std::string::npos) << e;
    EXPECT_FALSE(loadScenario(dir_, &e));
    EXPECT_NE(e.find("not a regular file"), std::string::npos) << e;
}

TEST(ScenarioHelpers, FieldsIdsAndPlaceholders) {
    EXPECT_EQ(splitExpectedFields("a|b||c|"), (std::vector<std::string>{"a", "b", "", "c"}));
    EXPECT_EQ(splitExpectedFields("a|b"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(splitExpectedFields("").empty());

    int org = 0, app = 0;
    EXPECT_TRUE(parseAppIds("0x10.0x2", &org, &app));
    EXPECT_EQ(org, 16);
    EXPECT_EQ(app, 2);
    EXPECT_FALSE(parseAppIds("16", &org, &app));
    EXPECT_FALSE(parseAppIds("16.70000", &org, &app));
    EXPECT_EQ(formatAppIds(16, 2), "0x10.2");

    EXPECT_EQ(expandPlaceholders("http://{http}/a|http://{http}/b", "127.0.0.1:80"),
              "http://127.0.0.1:80/a|http://127.0.0.1:80/b");
    // A host that contains the placeholder is not expanded again.
    EXPECT_EQ(expandPlaceholders("{http}{http}", "{http}"), "{http}{http}");
}

TEST_F(ScenarioFile, AddedStepKindsParseInTimelines) {
    addStepKind({"press_key", "press_key NAME", [](Step& st, const std::string& rest, const Scenario&) {
                     if (rest.empty()) return std::string("expects a key name");
                     st.args = {rest};
                     return std::string();
                 }});
    Scenario s = load(std::string(kService) + "[timeline]\nstep1 = press_key RED\n");
    ASSERT_EQ(s.timeline.size(), 1u);
    EXPECT_EQ(s.timeline[0].args, std::vector<std::string>{"RED"});
    EXPECT_NE(error(std::string(kService) + "[timeline]\nstep1 = press_key\n")
                  .find("press_key: expects a key name"),
              std::string::npos);
}

// ---- carousels, served directories and the steps that drive the library's
// menus, key sets and key injection -------------------------------------------

TEST_F(ScenarioFile, CarouselsAndServedRootResolveAgainstTheFile) {
    mkdir("carousel");
    mkdir("www");
    Scenario s = load(std::string(kService) +
                      "[carousel.1]\ndir = carousel\n"
                      "[carousel.0x1A]\ndir = " + dir_ + "/www\n"
                      "[http]\nroot = www\n");
    ASSERT_EQ(s.carousels.size(), 2u);
    EXPECT_EQ(s.carousels[0].tag, 1);
    EXPECT_EQ(s.carousels[0].dir, "carousel");
    EXPECT_EQ(s.carousels[0].path, dir_ + "/carousel");  // relative to the scenario file
    EXPECT_EQ(s.carousels[1].tag, 0x1a);
    EXPECT_EQ(s.carousels[1].path, dir_ + "/www");  // absolute as given
    EXPECT_EQ(s.http.root, std::optional<std::string>(dir_ + "/www"));
    EXPECT_TRUE(s.http.enabled);

    EXPECT_EQ(resolveAgainst("examples/x.ini", "carousel"), "examples/carousel");
    EXPECT_EQ(resolveAgainst("x.ini", "carousel"), "carousel");
    EXPECT_EQ(resolveAgainst("examples/x.ini", "/srv/c"), "/srv/c");
}

TEST_F(ScenarioFile, NewStepsAreNormalised) {
    Scenario s = load(std::string(kService) +
                      "[timeline]\n"
                      "step1 = portal open http://{http}/p.html\n"
                      "step2 = portal CLOSE\n"
                      "step3 = teletext on\n"
                      "step4 = teletext 7\n"
                      "step5 = launch Broadcast http://{http}/a.aitx\n"
                      "step6 = launch 12 http://x/\n"
                      "step7 = keyset 0x7ff other\n"
                      "step8 = keyset 0x800\n"
                      "step9 = key 266\n"
                      "step10 = expect result -1\n"
                      "step11 = expect keyset 0x1f\n"
                      "step12 = expect content a\\n\\0\\x7F\\\\b\n"
                      "step13 = expect remote\n"
                      "step14 = expect loaded dvb://1.2.3.1/index.html\n"
                      "step15 = expect portal off\n");
    const auto& t = s.timeline;
    ASSERT_EQ(t.size(), 15u);
    EXPECT_EQ(t[0].args, std::vector<std::string>{"open"});
    EXPECT_EQ(t[0].tail, std::optional<std::string>("http://{http}/p.html"));
    EXPECT_EQ(t[1].args, std::vector<std::string>{"close"});
    EXPECT_EQ(t[2].args, std::vector<std::string>{"1"});
    EXPECT_EQ(t[3].args, std::vector<std::string>{"7"});  // passed on: the library is to refuse it
    EXPECT_EQ(t[4].args, std::vector<std::string>{"0"});  // eLaunchFormBroadcastApp
    EXPECT_EQ(t[4].tail, std::optional<std::string>("http://{http}/a.aitx"));
    EXPECT_EQ(t[5].args, std::vector<std::string>{"12"});
    EXPECT_EQ(t[6].args, (std::vector<std::string>{"2047", "1"}));
    EXPECT_EQ(t[7].args, (std::vector<std::string>{"2048", "0"}));
    EXPECT_EQ(t[8].args, std::vector<std::string>{"266"});
    EXPECT_EQ(t[9].args, (std::vector<std::string>{"result", "-1"}));
    EXPECT_EQ(t[10].args, (std::vector<std::string>{"keyset", "31"}));
    EXPECT_EQ(t[11].tail, std::optional<std::string>(std::string("a\n\0\x7f\\b", 6)));
    EXPECT_EQ(t[12].tail, std::optional<std::string>(""));  // nothing at all
    EXPECT_EQ(t[13].tail, std::optional<std::string>("dvb://1.2.3.1/index.html"));
    EXPECT_EQ(t[14].args, (std::vector<std::string>{"portal", "0"}));
    EXPECT_TRUE(s.http.enabled);  // {http} in a step starts the responder
    EXPECT_FALSE(s.http.root.has_value());
}

TEST_F(ScenarioFile, BadCarouselsRootsAndNewSteps) {
    write("not a directory", "plain.txt");
    mkdir("c");
    const std::string t = std::string(kService) + "[timeline]\n";
    struct Bad {
        const char* what;
        std::string text;
        std::string message;
    };
    const Bad cases[] = {
        {"carousel without tag", std::string(kService) + "[carousel]\ndir = c\n",
         "[carousel]: give the component tag in the section name: [carousel.TAG]"},
        {"tag not a number", std::string(kService) + "[carousel.news]\ndir = c\n",
         "[carousel.news]: 'news' is not a component tag from 0 to 65535"},
        {"tag too large", std::string(kService) + "[carousel.0x10000]\ndir = c\n", "is not a component tag"},
        {"same tag twice", std::string(kService) + "[carousel.1]\ndir = c\n[carousel.0x1]\ndir = c\n",
         "[carousel.0x1]: component tag 1 has a carousel already"},
        {"dir missing", std::string(kService) + "[carousel.1]\n", "[carousel.1]: 'dir' is missing"},
        {"unknown carousel key", std::string(kService) + "[carousel.1]\ndir = c\npath = c\n",
         "[carousel.1] path: unknown key (known: dir)"},
        {"absent dir", std::string(kService) + "[carousel.1]\ndir = nowhere\n",
         "s.ini:6: [carousel.1] dir: 'nowhere' (" + dir_ + "/nowhere): No such file or directory"},
        {"dir is a file", std::string(kService) + "[carousel.1]\ndir = plain.txt\n", "is not a directory"},
        {"root is a file", std::string(kService) + "[http]\nroot = plain.txt\n",
         "[http] root: 'plain.txt' (" + dir_ + "/plain.txt) is not a directory"},
        {"portal verb", t + "step1 = portal show x\n", "portal: expects open URL or close"},
        {"portal without URL", t + "step1 = portal open\n", "open expects one URL"},
        {"teletext word", t + "step1 = teletext maybe\n", "teletext: expects on, off or a number"},
        {"launch type", t + "step1 = launch menu http://x/\n",
         "'menu' is not a launch type (broadcast, homepage, player, epg"},
        {"launch without URL", t + "step1 = launch broadcast\n", "expects a launch type and a URL"},
        {"keyset extra word", t + "step1 = keyset 0x1f others\n", "keyset: expects a mask"},
        {"keyset mask", t + "step1 = keyset red\n", "keyset: expects a mask"},
        {"key range", t + "step1 = key 65536\n", "key: expects a key number from 0 to 65535"},
        {"expect keyset range", t + "step1 = expect keyset 0x800\n", "keyset expects a mask from 0 to 0x7ff"},
        {"bad escape", t + "step1 = expect content a\\qb\n",
         "content: unknown escape at character 2 (known: \\n \\r \\t \\0 \\\\ \\xNN)"},
        {"short hex escape", t + "step1 = expect remote key\\x4\n",
         "remote: \\x needs two hexadecimal digits"},
        {"expect portal", t + "step1 = expect portal maybe\n", "portal expects on or off"},
        {"expect result", t + "step1 = expect result one\n", "result expects a number"},
        {"expect loaded", t + "step1 = expect loaded\n", "loaded expects the URL of the page"},
    };
    for (const Bad& c : cases) {
        const std::string e = error(c.text);
        EXPECT_NE(e.find(c.message), std::string::npos)
            << c.what << ": got \"" << e << "\", expected it to contain \"" << c.message << "\"";
    }
}

TEST(ScenarioHelpers, EscapesAndLaunchTypes) {
    std::string e;
    EXPECT_EQ(unescapeBytes("key 1\\n\\0", &e), std::optional<std::string>(std::string("key 1\n\0", 7)));
    EXPECT_EQ(unescapeBytes("\\x00\\xFf\\t\\r", &e),
              std::optional<std::string>(std::string("\0\xff\t\r", 4)));
    EXPECT_EQ(unescapeBytes("", &e), std::optional<std::string>(""));
    EXPECT_FALSE(unescapeBytes("ends in \\", &e));
    EXPECT_FALSE(unescapeBytes("\\xg0", &e));
    EXPECT_EQ(launchTypeValue("broadcast"), 0);
    EXPECT_EQ(launchTypeValue("other"), 9);
    EXPECT_EQ(launchTypeValue("Broadcast"), -1);  // callers lower-case first
    EXPECT_STREQ(launchTypeName(3), "epg");
    EXPECT_EQ(launchTypeName(10), nullptr);
}

// ---- the HTTP responder's answers ---------------------------------------------

TEST_F(ScenarioFile, HttpRootServesFilesInsideItOnly) {
    const std::string www = mkdir("www");
    mkdir("www/app");
    write("<a href=\"http://{http}/x\">{http}</a>", "www/app/index.html");
    write(std::string("\0{http}", 7), "www/app/logo.bin");
    write("secret", "outside.txt");
    ASSERT_EQ(::symlink((dir_ + "/outside.txt").c_str(), (www + "/link.txt").c_str()), 0);
    files_.push_back(www + "/link.txt");

    HttpStub::Config config{{"/app/gone.html"}, www};
    const std::string host = "127.0.0.1:8080";
    HttpAnswer a = HttpStub::answerFor("/app/index.html?x=1#top", config, host);
    EXPECT_EQ(a.status, "200 OK");
    EXPECT_EQ(a.content_type, "text/html");
    EXPECT_EQ(a.body, "<a href=\"http://127.0.0.1:8080/x\">127.0.0.1:8080</a>");  // text: {http} put in
    EXPECT_EQ(HttpStub::answerFor("/app/", config, host).body, a.body);      // a directory: its index.html
    a = HttpStub::answerFor("/app/logo.bin", config, host);
    EXPECT_EQ(a.body, std::string("\0{http}", 7));  // binary: as it is
    EXPECT_EQ(a.content_type, "application/octet-stream");

    for (const char* path :
         {"/app/gone.html", "/app/none.html", "/../outside.txt", "/app/%2e%2e/../outside.txt",
          "/app%2f..%2f..%2foutside.txt", "/link.txt", "//app/index.html", "/app/%zz"})
        EXPECT_EQ(HttpStub::answerFor(path, config, host).status, "404 Not Found") << path;

    // Without a root every path but the missing ones gets the canned page.
    HttpStub::Config canned{{"/gone"}, std::nullopt};
    EXPECT_EQ(HttpStub::answerFor("/anything", canned, host).status, "200 OK");
    EXPECT_EQ(HttpStub::answerFor("/gone?q", canned, host).status, "404 Not Found");

    EXPECT_EQ(HttpStub::contentType("/a/ait.AITX"), "application/vnd.dvb.ait+xml");
    EXPECT_EQ(HttpStub::contentType("/a.b/README"), "application/octet-stream");
}

// ---- the remote-input service stand-in ------------------------------------------

TEST(RemoteInputListener, CollectsCommandsAndRefusesATakenPort) {
    RemoteInputListener remote;
    std::string error;
    ASSERT_TRUE(remote.start(0, &error)) << error;
    ASSERT_GT(remote.port(), 0);

    EXPECT_EQ(remote.take(50), "");  // nothing yet: bounded wait, no bytes
    int fd = appmgr::loopback::connectTo(remote.port());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, "key 1\n\0", 7, 0), 7);
    EXPECT_EQ(remote.take(2000), std::string("key 1\n\0", 7));
    // A command in two writes is taken once its zero byte is there.
    ASSERT_EQ(::send(fd, "key ", 4, 0), 4);
    ASSERT_EQ(::send(fd, "up\n\0", 4, 0), 4);
    std::string got;
    for (int i = 0; i < 20 && got.find('\0') == std::string::npos; ++i) got += remote.take(100);
    EXPECT_EQ(got, std::string("key up\n\0", 8));
    // A new connection replaces the old one.
    int fd2 = appmgr::loopback::connectTo(remote.port());
    ASSERT_GE(fd2, 0);
    ASSERT_EQ(::send(fd2, "key 0\n\0", 7, 0), 7);
    EXPECT_EQ(remote.take(2000), std::string("key 0\n\0", 7));
    EXPECT_EQ(remote.connections(), 2);

    RemoteInputListener second;
    EXPECT_FALSE(second.start(remote.port(), &error));
    EXPECT_NE(error.find("cannot listen on 127.0.0.1:" + std::to_string(remote.port())), std::string::npos)
        << error;
    EXPECT_NE(error.find("another program serves this port"), std::string::npos) << error;
    ::close(fd);
    ::close(fd2);
}

}  // namespace
