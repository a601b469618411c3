// Scenario files of appmgr-emu. The examples run end to end; these tests
// cover what a run cannot show: mistakes in a file that would otherwise make
// a scenario silently do something else than written (a step never run, a
// setting left at its default, a check that always passes), and the served
// directory's limits.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "http_stub.h"
#include "scenario.h"

using namespace appmgr::emu;

namespace {

class ScenarioFile : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/test_scenario.XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string write(const std::string& text, const std::string& name = "s.ini") {
        const std::string path = dir_ + "/" + name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    Scenario load(const std::string& text) {
        std::string error;
        std::optional<Scenario> s = loadScenario(write(text), &error);
        EXPECT_TRUE(s.has_value()) << error;
        return s ? *s : Scenario{};
    }
    std::string error(const std::string& text) {
        std::string error;
        return loadScenario(write(text), &error) ? std::string() : error;
    }
    std::string dir_;
};

const std::string kService = "[service]\nonid = 0x22d4\ntsid = 1\nsid = 0x101\n";
const std::string kApp = "[app.a]\norg_id = 1\napp_id = 2\ncontrol = 1\nurl = http://x/\n";

TEST_F(ScenarioFile, WhatTheFileSaysReachesTheModel) {
    write("", "carousel/index.html");
    Scenario s = load(kService +
                      "[channel.Other]\nonid = 2\ntsid = 3\nsid = 4\n"
                      "[carousel.0x1a]\ndir = carousel\n"
                      "[app.web]\norg_id = 0x10\napp_id = 1\ncontrol = autostart\nurl = http://{http}/a\n"
                      "service_bound = no\n"
                      "[app.dvb]\norg_id = 16\napp_id = 2\ncontrol = PRESENT\nurl = dvb://1.2.3.1a/i.html\n"
                      "[app.forced]\norg_id = 16\napp_id = 3\ncontrol = 1\nurl = dvb://1.2.3.1/x\n"
                      "transport = http\n"
                      "[ait.later]\napps = dvb, web:KILL\nchannel = other\n"
                      "[timeline]\nstep10 = close\nstep2 = channel OTHER\nstep1 = \"expect reply a|b;c\"\n");
    // Transport from the URL unless given; service bound unless said otherwise.
    EXPECT_EQ(s.app("web")->transport, kTransportHttp);
    EXPECT_FALSE(s.app("web")->service_bound);
    EXPECT_EQ(s.app("dvb")->transport, kTransportCarousel);
    EXPECT_TRUE(s.app("dvb")->service_bound);
    EXPECT_EQ(s.app("forced")->transport, kTransportHttp);
    // A table's own control code for an entry, the channel's locator.
    const AitSpec* later = s.ait("later");
    ASSERT_NE(later, nullptr);
    EXPECT_FALSE(later->apps[0].control.has_value());
    EXPECT_EQ(later->apps[1].control, std::optional<int>(4));
    EXPECT_EQ(later->dvb_url, "dvb://2.3.4");
    EXPECT_EQ(s.ait("main")->apps.size(), 3u);
    EXPECT_EQ(s.ait("main")->dvb_url, "dvb://22d4.1.101");
    // Directories relative to the file, not to the working directory.
    ASSERT_EQ(s.carousels.size(), 1u);
    EXPECT_EQ(s.carousels[0].tag, 0x1a);
    EXPECT_EQ(s.carousels[0].path, dir_ + "/carousel");
    EXPECT_EQ(resolveAgainst("examples/x.ini", "carousel"), "examples/carousel");
    // Steps run by number, not in file order; a quoted value keeps its ';'.
    ASSERT_EQ(s.timeline.size(), 3u);
    EXPECT_EQ(s.timeline[0].tail, std::optional<std::string>("a|b;c"));
    EXPECT_EQ(s.timeline[1].args, std::vector<std::string>{"other"});
    EXPECT_EQ(s.timeline[2].kind, "close");
    EXPECT_TRUE(s.http.enabled);  // {http} is used
}

// Sections are read by kind, so one may name a section later in the file:
// steps their AITs and channels, a table its applications and channel.
TEST_F(ScenarioFile, SectionsMayNameSectionsFurtherDown) {
    Scenario s = load("[timeline]\nstep1 = deliver_ait later\nstep2 = channel other\n"
                      "[ait.later]\napps = a\nchannel = other\n"
                      "[programme.news]\nchannel = other\nstart = 1\nduration = 2\n" +
                      kApp + "[channel.other]\nonid = 2\ntsid = 3\nsid = 4\n" + kService);
    ASSERT_EQ(s.timeline.size(), 2u);
    EXPECT_EQ(s.timeline[0].args, std::vector<std::string>{"later"});
    ASSERT_NE(s.ait("later"), nullptr);
    EXPECT_EQ(s.ait("later")->dvb_url, "dvb://2.3.4");
    ASSERT_EQ(s.programmes.size(), 1u);
    EXPECT_EQ(s.programmes[0].channel, "other");
}

TEST_F(ScenarioFile, MistakesThatWouldGoUnnoticedAreRefused) {
    const std::string t = kService + "[timeline]\n";
    const struct {
        const char* what;
        std::string text;
        std::string message;  // expected part of the error
    } cases[] = {
        // A setting that would keep its default.
        {"misspelt key", kService + kApp + "service_bund = no\n",
         "s.ini:10: [app.a] service_bund: unknown key"},
        {"unknown section", kService + "[apps.a]\n", "s.ini:5: [apps.a]: unknown section"},
        {"key outside a section", "onid = 1\n" + kService, "s.ini:1: 'onid' is outside any section"},
        {"octal-looking number", "[service]\nonid = 08\ntsid = 1\nsid = 1\n", "'08' is not a number"},
        {"keyset list misspelt", t + "step1 = keyset 0x1f others\n", "keyset: expects a mask"},
        // Something the reader would merge, cut or drop.
        {"key given twice", kService + "sid = 4\n", "s.ini:5: [service] sid is given twice (first on line 4)"},
        {"section given twice", kService + kApp + kApp, "s.ini:10: section [app.a] appears twice"},
        {"carousel tag twice", kService + "[carousel.1]\ndir = .\n[carousel.0x1]\ndir = .\n",
         "[carousel.0x1]: component tag 1 has a carousel already"},
        {"line too long", kService + "name = " + std::string(1100, 'x') + "\n",
         "s.ini:5: line longer than 1024 characters"},
        {"NUL byte", kService + std::string("name = a\0b\n", 11), "s.ini:5: NUL byte"},
        {"undefined application in a table", kService + kApp + "[ait.x]\napps = a, b\n",
         "[ait.x] apps: no section [app.b] (defined: a)"},
        // A step that would never run.
        {"timeline key", t + "first = close\n", "[timeline] first: timeline keys are step1"},
        {"same step number", t + "step1 = wait 1\nstep01 = wait 2\n", "same step number as step1"},
        {"unknown step", t + "step1 = jump 3\n", "s.ini:6: [timeline] step1: unknown step 'jump'"},
        {"steps after close", t + "step1 = close\nstep2 = wait 1\n", "close must be the last step"},
        // A check that would always pass or compare other bytes.
        {"unknown decision", t + "step1 = expect no_decision start\n",
         "no_decision expects a decision (autostart, no_autostart"},
        {"bad escape", t + "step1 = expect content a\\qb\n", "content: unknown escape at character 2"},
        {"unknown key", t + "step1 = press purple\n", "press: expects one key"},
        {"page check without text id", t + "step1 = expect page\n", "page expects the id of an element"},
        // Stream events the broadcast would never carry as written.
        {"event id without tag", kService + "[stream_event.e]\nevent_id = 1\npayloads = 41\n",
         "[stream_event.e] tag: 'tag' and 'event_id' go together"},
        {"payload not hexadecimal", kService + "[stream_event.e]\nurl = dvb://1.2.3.1/e\npayloads = 4, zz\n",
         "'4' is not bytes in hexadecimal"},
        {"stream event nowhere", kService + "[stream_event.e]\npayloads = 41\n", "give 'url', or 'tag'"},
        {"test-suite group without pages", t + "step1 = testsuite_group keyset\n",
         "testsuite_group: needs a [testsuite] section"},
    };
    for (const auto& c : cases) {
        const std::string e = error(c.text);
        EXPECT_NE(e.find(c.message), std::string::npos)
            << c.what << ": got \"" << e << "\", expected it to contain \"" << c.message << "\"";
    }
}

// A broadcast's stream events: names, listeners and payload bytes as written.
TEST_F(ScenarioFile, StreamEventsReachTheModel) {
    Scenario s = load(kService +
                      "[stream_event.go]\nurl = dvb://1.2.3.1/events\ntag = 19\nevent_id = 2\n"
                      "payloads = 48690a, CAFE00\ninterval = 250\n"
                      "[stream_event.stop]\nname = halt\nurl = dvb://1.2.3.1/events\npayloads = 00\n");
    ASSERT_EQ(s.stream_events.size(), 2u);
    const StreamEventSpec& go = s.stream_events[0];
    EXPECT_EQ(go.name, "go");
    EXPECT_EQ(go.tag, 19);
    EXPECT_EQ(go.event_id, 2);
    EXPECT_EQ(go.payloads, (std::vector<std::string>{"Hi\n", std::string("\xca\xfe\0", 3)}));
    EXPECT_EQ(go.interval_ms, 250);
    EXPECT_EQ(s.stream_events[1].name, "halt");
    EXPECT_FALSE(s.stream_events[1].tag);
    EXPECT_EQ(s.stream_events[1].interval_ms, 1000);
}

// A capture brings the channels: [service] may go, and then so do the
// tables of the service; checks and plays of a capture need a [capture].
TEST_F(ScenarioFile, CaptureSection) {
    write("", "caps/x.ts");
    Scenario s = load("[capture]\nfile = caps/x.ts\nservice = 0xd49\nspeed = 1\nbroadband = no\n"
                      "[timeline]\nstep1 = play_capture start\nstep2 = expect capture eit_fed >= 3\n"
                      "step3 = expect capture answered\n");
    ASSERT_TRUE(s.capture.has_value());
    EXPECT_EQ(s.capture->path, dir_ + "/caps/x.ts");  // relative to the file
    EXPECT_EQ(s.capture->service, 0xd49);
    EXPECT_TRUE(s.capture->realtime);
    EXPECT_FALSE(s.capture->broadband);
    EXPECT_TRUE(s.channels.empty());
    EXPECT_EQ(s.ait("main"), nullptr);
    EXPECT_EQ(s.timeline[0].args, std::vector<std::string>{"start"});
    EXPECT_EQ(s.timeline[1].args, (std::vector<std::string>{"capture", "eit_fed", ">=", "3"}));
    // Standard input and UDP are no files to look for.
    EXPECT_EQ(load("[capture]\nfile = udp://127.0.0.1:1234\n").capture->path, "udp://127.0.0.1:1234");
    EXPECT_TRUE(load("[capture]\nfile = -\n" + kService).capture->isFile() == false);

    const struct {
        const char* what;
        std::string text;
        std::string message;
    } cases[] = {
        {"no channels at all", "[timeline]\nstep1 = close\n", "[service] section missing"},
        {"empty file", "", "empty scenario (no [service] or [capture] section)"},
        {"capture without a file", "[capture]\nservice = 1\n", "[capture]: 'file' is missing"},
        {"capture file absent", "[capture]\nfile = none.ts\n", "[capture] file: 'none.ts'"},
        {"speed", "[capture]\nfile = caps/x.ts\nspeed = 2\n", "'2' is not max (as fast as it is read) or 1"},
        {"play without a capture", kService + "[timeline]\nstep1 = play_capture\n",
         "play_capture: needs a [capture] section"},
        {"play how", "[capture]\nfile = -\n[timeline]\nstep1 = play_capture loop\n",
         "expects nothing (play to the end), start, wait or stop"},
        {"unknown count", "[capture]\nfile = -\n[timeline]\nstep1 = expect capture aits 1\n",
         "capture expects answered, or a count"},
        {"count without a number", "[capture]\nfile = -\n[timeline]\nstep1 = expect capture eit_fed >=\n",
         "capture expects answered, or a count"},
        {"the service's table without a service", "[capture]\nfile = -\n[timeline]\nstep1 = deliver_ait main\n",
         "no AIT named 'main'"},
    };
    for (const auto& c : cases) {
        const std::string e = error(c.text);
        EXPECT_NE(e.find(c.message), std::string::npos)
            << c.what << ": got \"" << e << "\", expected it to contain \"" << c.message << "\"";
    }
}

// The responder serves the files of its root and nothing outside it.
TEST_F(ScenarioFile, HttpRootServesFilesInsideItOnly) {
    const std::string www = dir_ + "/www";
    write("<a href=\"http://{http}/x\">", "www/app/index.html");
    write(std::string("\0{http}", 7), "www/app/logo.bin");
    write("secret", "outside.txt");
    ASSERT_EQ(::symlink((dir_ + "/outside.txt").c_str(), (www + "/link.txt").c_str()), 0);

    const HttpStub::Config config{{"/app/gone.html"}, www};
    const std::string host = "127.0.0.1:8080";
    HttpAnswer a = HttpStub::answerFor("/app/?x=1", config, host);
    EXPECT_EQ(a.status, "200 OK");
    EXPECT_EQ(a.body, "<a href=\"http://127.0.0.1:8080/x\">");  // text files name their server
    EXPECT_EQ(HttpStub::answerFor("/app/logo.bin", config, host).body, std::string("\0{http}", 7));
    for (const char* path : {"/app/gone.html", "/app/none.html", "/../outside.txt", "/app/%2e%2e/../outside.txt",
                             "/app%2f..%2f..%2foutside.txt", "/link.txt", "//app/index.html"})
        EXPECT_EQ(HttpStub::answerFor(path, config, host).status, "404 Not Found") << path;
}

}  // namespace
