// Scenario files of appmgr-emu: INI text -> scenario model, and the errors a
// bad file gets (with file and line). Nothing here starts the library.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

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
        rmdir(dir_.c_str());
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

}  // namespace
