// The carousel file-access service reading a directory tree through the
// simulated DSM-CC loader: contents, listings, entry kinds, refusals, the
// mount bookkeeping and the retry after service changes.
#include <gtest/gtest.h>

#include <string>

#include "carousel_tree.h"
#include "hbb_sim.h"
#include "dsmcc/dsmcc.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

class CarouselServiceTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        root_ = make_carousel_tree(dir_.path());
        ASSERT_EQ(hbb_sim_set_carousel(kTag, root_.c_str()), 0);
    }
    void TearDown() override {
        hbb_sim_clear_carousels();
        LibraryTest::TearDown();
    }
    static std::string url(const std::string& path) { return kBase + path; }

    // Payload of a descriptor as bytes; "<null>" when there is none. The
    // descriptor is released.
    static std::string take(HbbFileSystemEntryDescriptor* d, int expected_type) {
        if (d == nullptr) return "<null>";
        EXPECT_EQ(d->entryType, expected_type);
        std::string bytes(d->entryPayload ? d->entryPayload : "",
                          d->entryPayload ? static_cast<std::size_t>(d->entryPayloadLen) : 0);
        EXPECT_EQ(static_cast<int>(bytes.size()), d->entryPayloadLen);
        hbbReleaseDsmccEntryDescriptor(d);
        return bytes;
    }
    std::string file(const std::string& path) {
        return take(hbbGetDsmccFileContent(url(path).c_str()), eHBBTV_FS_ENTRY_FILE_TYPE);
    }
    std::string dir(const std::string& path) {
        return take(hbbGetDsmccDirContent(url(path).c_str()), eHBBTV_FS_ENTRY_DIR_TYPE);
    }
    std::string events(const std::string& path) {
        return take(hbbGetDsmccStreamEventList(url(path).c_str()), eHBBTV_FS_ENTRY_STE_TYPE);
    }
    int mounts() const { return hbb_sim_call_count("QUMA_MountCarouselObject"); }

    std::string root_;
};

TEST_F(CarouselServiceTest, FilesAreServedByteForByte) {
    EXPECT_EQ(file("index.html"), "<html>hello</html>");
    EXPECT_EQ(file("bin.dat"), binary_bytes());
    EXPECT_EQ(file("empty.txt"), "");
    EXPECT_EQ(file("dir/sub/deep.txt"), "deep");
    EXPECT_EQ(file("inner"), "<html>hello</html>");
    // Query and fragment are not part of the object's name.
    EXPECT_EQ(take(hbbGetDsmccFileContent("DVB://1.2.3.65/index.html?x=1#top"), 0),
              "<html>hello</html>");
    // Every loader buffer handed out was given back.
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderRelease"), 6);
}

TEST_F(CarouselServiceTest, DirectoryListingsAndEventLists) {
    EXPECT_EQ(dir(""), "0 bin.dat\n1 dir\n0 empty.txt\n2 events\n0 index.html\n0 inner\n");
    EXPECT_EQ(take(hbbGetDsmccDirContent("dvb://1.2.3.65"), 1), dir(""));
    EXPECT_EQ(dir("dir"), "0 page.html\n1 sub\n");
    EXPECT_EQ(dir("dir/"), "0 page.html\n1 sub\n");
    EXPECT_EQ(dir("dir/sub"), "0 deep.txt\n");
    EXPECT_EQ(events("events"), "go,stop");
}

TEST_F(CarouselServiceTest, EntryKindsAndModules) {
    int module = -5;
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("index.html").c_str(), &module), eHBBTV_FS_ENTRY_FILE_TYPE);
    EXPECT_EQ(module, 1);
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("dir").c_str(), &module), eHBBTV_FS_ENTRY_DIR_TYPE);
    EXPECT_EQ(module, 1);
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("events").c_str(), &module), eHBBTV_FS_ENTRY_STE_TYPE);
    int page_module = 0, sub_module = 0;
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("dir/page.html").c_str(), &page_module), 0);
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("dir/sub").c_str(), &sub_module), 1);
    EXPECT_NE(page_module, 1);
    EXPECT_EQ(page_module, sub_module);
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("index.html").c_str(), nullptr), 0);

    for (const char* missing : {"nothing.html", "dir/nothing", "events.ste", "escape"}) {
        module = -5;
        EXPECT_EQ(hbbCheckDSMCCEntryType(url(missing).c_str(), &module),
                  eHBBTV_FS_ENTRY_INVALID_TYPE)
            << missing;
        EXPECT_EQ(module, 0);
    }
}

TEST_F(CarouselServiceTest, WrongKindOrMissingGivesNothing) {
    EXPECT_EQ(file("dir"), "<null>");
    EXPECT_EQ(file("events"), "<null>");
    EXPECT_EQ(file("nothing.html"), "<null>");
    EXPECT_EQ(dir("index.html"), "<null>");
    EXPECT_EQ(dir("nothing"), "<null>");
    EXPECT_EQ(events("index.html"), "<null>");
    EXPECT_EQ(events("events.ste"), "<null>");
    EXPECT_EQ(hbbGetDsmccFileContent(nullptr), nullptr);
    EXPECT_EQ(hbbGetDsmccFileContent("http://1.2.3.65/index.html"), nullptr);
    // No carousel on component 0x66.
    EXPECT_EQ(hbbGetDsmccFileContent("dvb://1.2.3.66/index.html"), nullptr);
    EXPECT_TRUE(log_.contains("QUMA_MountCarouselObject failed (component tag 102)"));
    hbbReleaseDsmccEntryDescriptor(nullptr);
}

TEST_F(CarouselServiceTest, ApplicationCheck) {
    EXPECT_EQ(hbbCheckDSMCCExist(url("index.html").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist(url("dir/page.html?lang=de").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    // Any existing entry counts, a directory or a stream-event object too.
    EXPECT_EQ(hbbCheckDSMCCExist(url("dir").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist(url("events").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist(url("missing.html").c_str()), eHBBTV_FS_CHECK_INVALID_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist("dvb://1.2.3.66/index.html"), eHBBTV_FS_CHECK_INVALID_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist("dvb://1.2.3.0/index.html"), eHBBTV_FS_CHECK_INVALID_TYPE);
    EXPECT_EQ(hbbCheckDSMCCExist(nullptr), eHBBTV_FS_CHECK_INVALID_TYPE);
}

TEST_F(CarouselServiceTest, HostilePathsNeverReachTheLoader) {
    const char* hostile[] = {
        "dvb://1.2.3.65/../secret.txt",
        "dvb://1.2.3.65/dir/../../secret.txt",
        "dvb://1.2.3.65/%2e%2e/secret.txt",
        "dvb://1.2.3.65/dir/%2E%2e",
        "dvb://1.2.3.65/dir/.",
        "dvb://1.2.3.65//etc/passwd",
        "dvb://1.2.3.65/dir//page.html",
        "dvb://1.2.3.65/a%2f..%2fb",
        "dvb://1.2.3.65/index\x01.html",
        "dvb://1.2.3.65/a\nb/c.html",
        "dvb://1.2.3.g5/index.html",
    };
    for (const char* uri : hostile) {
        SCOPED_TRACE(uri);
        EXPECT_EQ(hbbGetDsmccFileContent(uri), nullptr);
        EXPECT_EQ(hbbGetDsmccDirContent(uri), nullptr);
        EXPECT_EQ(hbbCheckDSMCCExist(uri), eHBBTV_FS_CHECK_INVALID_TYPE);
    }
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetFile"), 0);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetDirectory"), 0);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetEntryInfo"), 0);
    EXPECT_EQ(mounts(), 0);
    // Texts far beyond any field are refused before parsing.
    const std::string huge = "dvb://1.2.3.65/" + std::string(100000, 'a');
    EXPECT_EQ(hbbGetDsmccFileContent(huge.c_str()), nullptr);
}

// The simulated loader on its own keeps every look-up inside the tree.
TEST_F(CarouselServiceTest, SimulatorRefusesPathsOutOfTheTree) {
    ASSERT_EQ(QUMA_MountCarouselObject(kTag), eQUMA_NO_ERROR);
    for (const char* path : {"../secret.txt", "dir/../../secret.txt", "%2e%2e/secret.txt",
                             "escape", "/etc/passwd", "dir//page.html", "events.ste"}) {
        SCOPED_TRACE(path);
        unsigned char* data = nullptr;
        unsigned int length = 0;
        EXPECT_EQ(DSMCC_LoaderGetFile(url(path).c_str(), &data, &length), DSMCC_LOADER_NOT_FOUND);
        EXPECT_EQ(data, nullptr);
    }
    unsigned char* data = nullptr;
    unsigned int length = 0;
    ASSERT_EQ(DSMCC_LoaderGetFile(url("inner").c_str(), &data, &length), DSMCC_LOADER_OK);
    DSMCC_LoaderRelease(data);
    // A URL of another component than the mounted one.
    EXPECT_EQ(DSMCC_LoaderGetFile("dvb://1.2.3.66/index.html", &data, &length),
              DSMCC_LOADER_ERROR);
    // A carousel can only be a directory.
    EXPECT_EQ(hbb_sim_set_carousel(1, (root_ + "/index.html").c_str()), -1);
    EXPECT_EQ(hbb_sim_set_carousel(1, (root_ + "/missing").c_str()), -1);
    EXPECT_EQ(hbb_sim_set_carousel(0x10000, root_.c_str()), -1);
}

TEST_F(CarouselServiceTest, MountedOncePerCarousel) {
    const std::string second = dir_.path() + "second";
    std::filesystem::create_directories(second);
    write_file(second + "/index.html", "second");
    ASSERT_EQ(hbb_sim_set_carousel(0x66, second.c_str()), 0);

    EXPECT_EQ(file("index.html"), "<html>hello</html>");
    EXPECT_EQ(dir("dir"), "0 page.html\n1 sub\n");
    EXPECT_EQ(mounts(), 1);
    EXPECT_EQ(take(hbbGetDsmccFileContent("dvb://1.2.3.66/index.html"), 0), "second");
    EXPECT_EQ(mounts(), 2);
    EXPECT_EQ(file("index.html"), "<html>hello</html>");
    EXPECT_EQ(mounts(), 3);
    // Another service carrying the same component tag is mounted afresh.
    EXPECT_EQ(take(hbbGetDsmccFileContent("dvb://1.2.4.65/index.html"), 0), "<html>hello</html>");
    EXPECT_EQ(mounts(), 4);

    // A module update unmounts; the next request mounts again.
    hbbUnmountCarousel();
    EXPECT_EQ(file("index.html"), "<html>hello</html>");
    EXPECT_EQ(mounts(), 5);
}

TEST_F(CarouselServiceTest, BreakIsRetriedOnceAfterAFreshMount) {
    hbb_sim_carousel_break_next(1);
    EXPECT_EQ(hbbCheckDSMCCExist(url("index.html").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    EXPECT_EQ(mounts(), 2);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetEntryInfo"), 2);

    // Interrupted twice: reported, and the next request starts over.
    hbb_sim_carousel_break_next(2);
    EXPECT_EQ(hbbCheckDSMCCExist(url("index.html").c_str()), eHBBTV_FS_CHECK_BREAK_TYPE);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetEntryInfo"), 4);
    EXPECT_EQ(file("index.html"), "<html>hello</html>");

    hbb_sim_carousel_break_next(1);
    EXPECT_EQ(file("bin.dat"), binary_bytes());
    hbb_sim_carousel_break_next(1);
    EXPECT_EQ(dir("dir/sub"), "0 deep.txt\n");
    hbb_sim_carousel_break_next(2);
    EXPECT_EQ(events("events"), "<null>");
    int module = 7;
    hbb_sim_carousel_break_next(2);
    EXPECT_EQ(hbbCheckDSMCCEntryType(url("index.html").c_str(), &module), -1);
    EXPECT_EQ(module, 0);
    EXPECT_TRUE(log_.contains("interrupted by a service change, mounting again and retrying once"));
}

TEST_F(CarouselServiceTest, CarouselDroppedByTheMiddlewareIsMountedAgain) {
    EXPECT_EQ(file("index.html"), "<html>hello</html>");
    // A service change drops the carousel behind the library's back.
    DSMCC_Disconnect();
    EXPECT_EQ(hbbCheckDSMCCExist(url("index.html").c_str()), eHBBTV_FS_CHECK_FILE_TYPE);
    EXPECT_EQ(mounts(), 2);
    // Without the carousel the mount fails and nothing is loaded.
    hbbUnmountCarousel();
    ASSERT_EQ(hbb_sim_set_carousel(kTag, nullptr), 0);
    EXPECT_EQ(file("index.html"), "<null>");
    EXPECT_EQ(mounts(), 3);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_LoaderGetFile"), 1);
}

TEST_F(CarouselServiceTest, FileCacheIsEmptiedThroughTheMiddleware) {
    EXPECT_EQ(hbbtvDeleteDsmccFSAFile(), 0);
    EXPECT_EQ(hbb_sim_call_count("DSMCC_DeleteAllFileFromFSA"), 1);
}

}  // namespace
