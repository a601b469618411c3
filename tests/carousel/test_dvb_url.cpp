// dvb: URL recognition, cleaning and splitting, the mount-point directory,
// and mounting through the simulated middleware.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "common/seams.h"
#include "dsmcc/dsmcc.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

class DvbUrlTest : public LibraryTest {};

struct ParseCase {
    std::string url;
    int result;
    const char* host;
    const char* path;
    const char* entry;
};

TEST_F(DvbUrlTest, ParseTable) {
    const std::string seg7 = "1234567";
    const std::string long_dir(1535, 'd');
    const std::string long_entry(511, 'e');
    const std::vector<ParseCase> cases = {
        {"dvb://1.2.3.4/dir/sub/index.html", 4, "1.2.3.4", "dir/sub", "index.html"},
        {"dvb://233a.1044.1100.65/index.html", 0x65, "233a.1044.1100.65", "", "index.html"},
        {"dvb://1.2.3.4/dir", 4, "1.2.3.4", "dir", ""},
        {"dvb://1.2.3.4/a.b", 4, "1.2.3.4", "", "a.b"},
        {"dvb://1.2.3.4/dir/", 4, "1.2.3.4", "dir", ""},
        {"dvb://1.2.3.4/", 4, "1.2.3.4", "", ""},
        // A host with nothing after it has an empty path.
        {"dvb://1.2.3.4", 4, "1.2.3.4", "", ""},
        // Three segments: the service id is read as the component tag.
        {"dvb://1.2.3/x", 3, "1.2.3", "x", ""},
        {"dvb://1.2/x", 2, "1.2", "x", ""},
        {"DVB://1.2.3.a/x", 10, "1.2.3.a", "x", ""},
        // The tag 0 reads as failure, but the record is filled.
        {"dvb://1.2.3.0/x", 0, "1.2.3.0", "x", ""},
        {"dvb://1/x", 0, "1", "x", ""},
        {"dvb://1.2.3.4.5/x", 0, "1.2.3.4.5", "x", ""},
        {"dvb://", 0, "", "", ""},
        {"dvb:///", 0, "", "", ""},
        // Bounds: 7-character segments, 31-character host, 1535-character
        // path, 511-character entry are the largest accepted.
        {"dvb://" + seg7 + "." + seg7 + "." + seg7 + "." + seg7 + "/x", 0x1234567,
         "1234567.1234567.1234567.1234567", "x", ""},
        {"dvb://1.2.3.12345678/x", 0, nullptr, nullptr, nullptr},
        {"dvb://12345678.1.2.3/x", 0, nullptr, nullptr, nullptr},
        {"dvb://" + seg7 + "." + seg7 + "." + seg7 + "." + seg7 + "0/x", 0, "", "", ""},
        {"dvb://1.2.3.4/" + long_dir, 4, "1.2.3.4", long_dir.c_str(), ""},
        {"dvb://1.2.3.4/" + long_dir + "d", 0, "", "", ""},
        {"dvb://1.2.3.4/d/" + long_entry, 4, "1.2.3.4", "d", long_entry.c_str()},
        {"dvb://1.2.3.4/d/" + long_entry + "e", 0, "", "", ""},
        {"dvb://1.2.3.4/" + long_entry + ".", 0, "", "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url.substr(0, 80));
        DVBUrl_t out;
        std::memset(&out, 'X', sizeof(out));
        EXPECT_EQ(parse_dvb_url(c.url.c_str(), &out), c.result);
        EXPECT_STREQ(out.protocol, "dvb://");
        if (c.host) {
            EXPECT_STREQ(out.host, c.host);
            EXPECT_STREQ(out.path, c.path);
            EXPECT_STREQ(out.entry_file, c.entry);
        }
        if (c.result != 0) {
            EXPECT_EQ(out.ctag, c.result);
        }
    }
}

TEST_F(DvbUrlTest, ParseLogsAndBadParameters) {
    DVBUrl_t out;
    EXPECT_EQ(parse_dvb_url(nullptr, &out), 0);
    EXPECT_EQ(parse_dvb_url("dvb://1.2.3.4/x", nullptr), 0);
    EXPECT_TRUE(log_.contains("Error-->parse_dvb_url with bad param"));

    EXPECT_EQ(parse_dvb_url("dvb://233a.1044.1100.65/index.html", &out), 0x65);
    EXPECT_TRUE(log_.contains("URL Base: 233a.1044.1100.65 "));
    EXPECT_TRUE(log_.contains("Last segment: 65"));
    EXPECT_FALSE(log_.contains("DVB uri not in correct format"));
    EXPECT_EQ(parse_dvb_url("dvb://1.2.3.4.5/x", &out), 0);
    EXPECT_TRUE(log_.contains("DVB uri not in correct format "));
}

TEST_F(DvbUrlTest, PrefixAndParameters) {
    EXPECT_EQ(iIsDVBURI("dvb://1.2.3.4/x"), 1);
    EXPECT_EQ(iIsDVBURI("DVB://1.2.3.4/x"), 1);
    EXPECT_EQ(iIsDVBURI("dvb://"), 1);
    for (const char* no : {"Dvb://1.2.3.4/x", "dVB://x", "dvb:/", "dvb:", "http://x/", "", "dvb:x//"})
        EXPECT_EQ(iIsDVBURI(no), 0) << no;
    EXPECT_EQ(iIsDVBURI(nullptr), 0);

    char a[] = "dvb://1.2.3.4/a/b.html?x=1#y";
    removeURIParams(a);
    EXPECT_STREQ(a, "dvb://1.2.3.4/a/b.html");
    char b[] = "dvb://1.2.3.4/a#frag?notquery";
    removeURIParams(b);
    EXPECT_STREQ(b, "dvb://1.2.3.4/a");
    char c[] = "dvb://1.2.3.4/plain";
    removeURIParams(c);
    EXPECT_STREQ(c, "dvb://1.2.3.4/plain");
    removeURIParams(nullptr);
}

// ---- mount points --------------------------------------------------------

std::mutex g_commands_mutex;
std::vector<std::string> g_commands;
bool g_execute = true;

int run_and_record(const char* command) {
    {
        std::lock_guard<std::mutex> lock(g_commands_mutex);
        g_commands.emplace_back(command);
    }
    return g_execute ? std::system(command) : 0;
}

class MountPointTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        appmgr::seams::set_shell_runner(run_and_record);
        g_commands.clear();
        g_execute = true;
        base_ = dir_.path() + "mnt/";
        ::setenv("DSMCC_MOUNT_POINT", base_.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("DSMCC_MOUNT_POINT");
        LibraryTest::TearDown();
    }
    static DVBUrl_t url(const char* text) {
        DVBUrl_t u{};
        parse_dvb_url(text, &u);
        return u;
    }
    static bool isDir(const std::string& p) { return std::filesystem::is_directory(p); }
    std::string base_;
};

TEST_F(MountPointTest, CreatedOnceUnderTheBase) {
    char out[256];
    ASSERT_EQ(create_mount_point(url("dvb://233a.1044.1100.65/index.html"), out), 0);
    EXPECT_EQ(std::string(out), base_ + "233a.1044.1100.65");
    EXPECT_TRUE(isDir(out));
    ASSERT_EQ(g_commands.size(), 1u);
    EXPECT_EQ(g_commands[0], "mkdir -p " + base_ + "233a.1044.1100.65");

    // Present already: no command.
    ASSERT_EQ(create_mount_point(url("dvb://233a.1044.1100.65/other.html"), out), 0);
    EXPECT_EQ(g_commands.size(), 1u);
}

TEST_F(MountPointTest, FailuresEmptyTheOutput) {
    char out[256];
    // The directory cannot be made (the runner does nothing).
    g_execute = false;
    std::strcpy(out, "stale");
    EXPECT_NE(create_mount_point(url("dvb://1.2.3.4/x"), out), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(g_commands.size(), 1u);

    // Hosts that are not plain locators never reach the shell.
    g_commands.clear();
    for (const char* host : {"1.2;rm -rf x", "..", "1.2/../..", "$(id)", "", "a b"}) {
        DVBUrl_t u{};
        std::strncpy(u.host, host, sizeof(u.host) - 1);
        std::strcpy(out, "stale");
        EXPECT_NE(create_mount_point(u, out), 0) << host;
        EXPECT_STREQ(out, "") << host;
    }
    EXPECT_TRUE(g_commands.empty());

    // A base that makes the path longer than 255 characters.
    const std::string long_base = "/tmp/" + std::string(250, 'b') + "/";
    ::setenv("DSMCC_MOUNT_POINT", long_base.c_str(), 1);
    EXPECT_NE(create_mount_point(url("dvb://1.2.3.4/x"), out), 0);
    EXPECT_STREQ(out, "");
    EXPECT_TRUE(g_commands.empty());
}

TEST_F(MountPointTest, DefaultBaseWhenUnsetOrEmpty) {
    // Nothing is created (the runner only records), and the host carries
    // this process's id, so no other run's directories can change the
    // outcome.
    g_execute = false;
    char host[32];
    std::snprintf(host, sizeof host, "fe.fd.%x.fb", static_cast<unsigned>(::getpid()) & 0xFFFFFFu);
    const std::string expected = std::string("/tmp/dsmcc/") + host;
    ASSERT_FALSE(isDir(expected));
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        if (value)
            ::setenv("DSMCC_MOUNT_POINT", value, 1);
        else
            ::unsetenv("DSMCC_MOUNT_POINT");
        g_commands.clear();
        char out[256];
        std::strcpy(out, "stale");
        EXPECT_NE(create_mount_point(url(("dvb://" + std::string(host) + "/x").c_str()), out), 0);
        EXPECT_STREQ(out, "");
        EXPECT_EQ(g_commands, std::vector<std::string>{"mkdir -p " + expected});
    }
}

// ---- mounting --------------------------------------------------------------

TEST_F(DvbUrlTest, MountThroughTheMiddleware) {
    EXPECT_EQ(hbbMountCarousel("http://example.com/"), 0);
    EXPECT_TRUE(log_.contains("hbbMountCarousel error - iIsDVBURI failed (URI: http://example.com/)"));
    EXPECT_EQ(hbbMountCarousel(nullptr), 0);
    EXPECT_EQ(hbbMountCarousel("dvb://1/x"), 0);
    EXPECT_TRUE(log_.contains("hbbMountCarousel error - parse_dvb_url failed (URI: dvb://1/x)"));
    EXPECT_EQ(hbbMountCarousel("dvb://1.2.3.0/x"), 0);
    EXPECT_EQ(hbb_sim_call_count("QUMA_MountCarouselObject"), 0);

    // No carousel on that component.
    EXPECT_EQ(hbbMountCarousel("dvb://1.2.3.65/x"), 0);
    EXPECT_TRUE(log_.contains("hbbMountCarousel error - QUMA_MountCarouselObject failed "
                              "(component tag 101) (error: 3)"));

    ASSERT_EQ(hbb_sim_set_carousel(0x65, dir_.path().c_str()), 0);
    EXPECT_EQ(hbbMountCarousel("DVB://1.2.3.65/x"), 1);
    EXPECT_EQ(hbb_sim_mounted_carousel(), 0x65);
    // The tag is handed over as a 16-bit value.
    EXPECT_EQ(hbbMountCarousel("dvb://1.2.3.10065/x"), 1);
    char details[64];
    hbb_sim_last_call("QUMA_MountCarouselObject", details, sizeof details);
    EXPECT_STREQ(details, "ctag=101 -> 0");

    hbbUnmountCarousel();
    hbb_sim_last_call("QUMA_UmountCarouselObject", details, sizeof details);
    EXPECT_STREQ(details, "name=DSM:// -> 0");
    EXPECT_EQ(hbb_sim_mounted_carousel(), -1);
}

}  // namespace
