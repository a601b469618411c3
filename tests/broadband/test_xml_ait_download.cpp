// XML AIT downloads over plain HTTP from a scripted server on 127.0.0.1:
// xmlAitUpdate (size limit, document check, valid-type filtering, service
// triplet, hand-over to the autostart run) and parse_xml_ait's reading of
// the downloaded document; plus the timing dump.
#include <curl/curl.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "app_mgr_broadband.h"
#include "broadband_test.h"
#include "http_test_server.h"

namespace appmgr::test {
namespace {

using Clock = std::chrono::steady_clock;

// A document of exactly `size` bytes: the XML AIT padded with a comment.
std::string documentOfSize(const std::string& doc, std::size_t size) {
    const std::string open = "<!--", close = "-->";
    EXPECT_GE(size, doc.size() + open.size() + close.size());
    return doc + open + std::string(size - doc.size() - open.size() - close.size(), 'p') + close;
}

class XmlAitDownloadTest : public BroadbandTest {
protected:
    void SetUp() override {
        BroadbandTest::SetUp();
        // The launch path shows the page as a portal: no probe of the
        // application's own URL unless a test asks for it.
        set_portal_mode(true);
    }
    int update(const std::string& url) {
        std::string copy = url;
        return xmlAitUpdate(copy.data());
    }
    int parse(const std::string& url) {
        std::string copy = url;
        return parse_xml_ait(copy.data());
    }
    HttpTestServer server_;
};

TEST_F(XmlAitDownloadTest, ValidTableIsHandedOverWithTheServiceTriplet) {
    setCurrentService(0x1a, 0x2b3, 0xc);
    server_.respond("/ait.aitx", "200 OK",
                    xmlAit(xmlApp(10, 1, kHbbtvType, "AUTOSTART", 2, "http://h/", "a.html") +
                           xmlApp(10, 2, kCtvType, "PRESENT", 1, "https://h/", "b.html")));
    // A broadcast table of one entry is current, its entry marked failed.
    OwnedAit broadcast(16, "dvb://1.2.3", {AppSpec{}});
    locked([&] {
        state::replace_current_ait(*broadcast.get());
        state::mark_entry_failed(0);
    });

    EXPECT_EQ(update(server_.url("/ait.aitx")), 1);

    ASSERT_EQ(server_.requests().size(), 1u);
    EXPECT_EQ(server_.requests()[0].method, "GET");
    EXPECT_NE(server_.requests()[0].head.find("User-Agent: AppMgrTest/1.0\r\n"), std::string::npos);
    const auto tables = handedOver();
    ASSERT_EQ(tables.size(), 1u);
    EXPECT_EQ(tables[0].dvb_url, "dvb://1a.2b3.c");
    EXPECT_EQ(tables[0].app_type, HBBTV_APPLICATION_TYPE);
    ASSERT_EQ(tables[0].apps.size(), 2u);
    EXPECT_EQ(tables[0].apps[0].url, "http://h/a.html");
    EXPECT_EQ(tables[0].apps[1].url, "https://h/b.html");
    // The autostart run took the handed table's AUTOSTART entry although
    // the current table's first entry is marked; that mark and the current
    // table stay as they were.
    EXPECT_EQ(start_url(), "http://h/a.html");
    EXPECT_EQ(current_entries(), 1);
    EXPECT_FALSE(locked([] { return state::entry_startable(0); }));
    EXPECT_EQ(starts_.load(), 1);
    EXPECT_TRUE(log_.contains("XML parsed successfully 2"));
    EXPECT_TRUE(log_.contains("XML parsed successfully and update ait success"));
}

// A table that mixes in another application type is handed on unfiltered,
// without the triplet; so is a table read while no service is current.
TEST_F(XmlAitDownloadTest, MixedTypesAndMissingServiceGiveAnEmptyTriplet) {
    setCurrentService(1, 2, 3);
    server_.respond("/mixed", "200 OK",
                    xmlAit(xmlApp(1, 1, "application/x-other", "AUTOSTART", 9, "http://h/", "o") +
                           xmlApp(1, 2, kHbbtvType, "PRESENT", 1, "http://h/", "v")));
    EXPECT_EQ(update(server_.url("/mixed")), 1);
    auto tables = handedOver();
    ASSERT_EQ(tables.size(), 1u);
    EXPECT_EQ(tables[0].dvb_url, "");
    ASSERT_EQ(tables[0].apps.size(), 2u);
    EXPECT_EQ(tables[0].apps[0].type, "application/x-other");
    EXPECT_TRUE(log_.contains("XML parsed successfully 1"));
    // The unfiltered table's AUTOSTART entry is the one started.
    EXPECT_EQ(start_url(), "http://h/o");

    hbb_sim_set_current_channel(-1);
    server_.respond("/valid", "200 OK",
                    xmlAit(xmlApp(1, 3, kHbbtvType, "AUTOSTART", 1, "http://h/", "v")));
    EXPECT_EQ(update(server_.url("/valid")), 1);
    tables = handedOver();
    ASSERT_EQ(tables.size(), 2u);
    EXPECT_EQ(tables[1].dvb_url, "");
    EXPECT_TRUE(log_.contains("XML AIT TRIPLET:  "));
}

TEST_F(XmlAitDownloadTest, DocumentsAreLimitedTo8191Bytes) {
    const std::string doc = xmlAit(xmlApp(1, 1, kHbbtvType, "AUTOSTART", 1, "http://h/", "a"));
    server_.respond("/8191", "200 OK", documentOfSize(doc, 8191));
    server_.respond("/8192", "200 OK", documentOfSize(doc, 8192));
    server_.respond("/big", "200 OK", documentOfSize(doc, 100000));

    EXPECT_EQ(update(server_.url("/8191")), 1);
    EXPECT_EQ(handedOver().size(), 1u);

    EXPECT_EQ(update(server_.url("/8192")), 0);
    EXPECT_TRUE(log_.contains("xmlAitUpdate res = 23"));
    EXPECT_EQ(update(server_.url("/big")), 0);
    EXPECT_EQ(parse(server_.url("/8192")), 0);
    EXPECT_TRUE(log_.contains("Sending soup message failed :23"));
    EXPECT_EQ(handedOver().size(), 1u);
}

TEST_F(XmlAitDownloadTest, OnlyTextsBeginningWithTheXmlDeclarationAreRead) {
    const std::string doc = xmlAit(xmlApp(1, 1, kHbbtvType, "AUTOSTART", 1, "http://h/", "a"));
    server_.respond("/bom", "200 OK", "\xEF\xBB\xBF" + doc);
    server_.respond("/blank", "200 OK", " " + doc);
    server_.respond("/five", "200 OK", "<?xml");
    server_.respond("/empty", "200 OK", "");
    server_.respond("/html", "200 OK", "<html><body>not an AIT</body></html>");
    server_.respond("/none", "200 OK", xmlAit(""));
    server_.respond("/broken", "200 OK", doc.substr(0, doc.size() / 2));

    EXPECT_EQ(update(server_.url("/bom")), 0);
    EXPECT_TRUE(log_.contains(" error-->this url is not xml file,data:[ef-bb-bf-3c-3f]"));
    EXPECT_EQ(update(server_.url("/blank")), 0);
    EXPECT_TRUE(log_.contains("data:[20-3c-3f-78-6d]"));
    EXPECT_EQ(update(server_.url("/html")), 0);
    EXPECT_EQ(update(server_.url("/five")), 0);
    EXPECT_EQ(update(server_.url("/empty")), 0);
    EXPECT_TRUE(log_.waitForCount("XML not parsed successfully", 2, 0));
    EXPECT_EQ(update(server_.url("/broken")), 0);
    EXPECT_EQ(update(server_.url("/none")), 0);
    EXPECT_TRUE(log_.contains("we are not get any ait info form this XML file"));
    EXPECT_TRUE(handedOver().empty());
    EXPECT_EQ(starts_.load(), 0);
}

TEST_F(XmlAitDownloadTest, UpdateFollowsRedirectsAndFailsOnErrors) {
    server_.respond("/old", "301 Moved Permanently", "", {"Location: /new.aitx"});
    server_.respond("/new.aitx", "200 OK",
                    xmlAit(xmlApp(4, 5, kHbbtvType, "AUTOSTART", 1, "http://h/", "r")));
    EXPECT_EQ(update(server_.url("/old")), 1);
    ASSERT_EQ(handedOver().size(), 1u);
    EXPECT_EQ(handedOver()[0].apps[0].app_id, 5);

    EXPECT_EQ(xmlAitUpdate(nullptr), 0);
    server_.hang("/slow");
    const auto started = Clock::now();
    EXPECT_EQ(update(server_.url("/slow")), 0);
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(6));
    EXPECT_TRUE(log_.contains("xmlAitUpdate res = 28"));
}

// From the download to the running application: the autostart run probes
// the chosen entry (outside portal mode) on the same server and starts it.
TEST_F(XmlAitDownloadTest, HandedTableStartsItsProbedAutostartApplication) {
    set_portal_mode(false);
    const std::string base = server_.url("/app/");
    server_.respond("/ait.aitx", "200 OK",
                    xmlAit(xmlApp(9, 1, kHbbtvType, "PRESENT", 7, base, "present.html") +
                           xmlApp(9, 2, kHbbtvType, "AUTOSTART", 1, base, "index.html")));
    server_.respond("/app/index.html", "200 OK", "<html/>");
    EXPECT_EQ(update(server_.url("/ait.aitx")), 1);
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].method, "HEAD");
    EXPECT_EQ(requests[1].path, "/app/index.html");
    EXPECT_EQ(start_url(), base + "index.html");
    EXPECT_EQ(starts_.load(), 1);
}

// parse_xml_ait reads the downloaded document as one application and starts
// it when its ids are set and the terminal supports it.
TEST_F(XmlAitDownloadTest, DownloadedSingleApplicationIsStartedOrRefused) {
    set_portal_mode(false);
    server_.respond("/one.aitx", "200 OK",
                    xmlAit(xmlApp(3, 4, kHbbtvType, "AUTOSTART", 1, "http://h/", "one.html",
                                  "<mhp:applicationBoundary><mhp:BoundaryExtension>http://x/"
                                  "</mhp:BoundaryExtension></mhp:applicationBoundary>")));
    server_.respond("/noids.aitx", "200 OK",
                    xmlAit("<Application><URLBase>http://h/</URLBase></Application>"));
    server_.respond("/future.aitx", "200 OK",
                    xmlAit("<Application><orgId>3</orgId><appId>5</appId>"
                           "<versionMajor>3</versionMajor><URLBase>http://h/future.html"
                           "</URLBase></Application>"));
    server_.respond("/rated.aitx", "200 OK",
                    xmlAit("<Application><orgId>3</orgId><appId>6</appId>"
                           "<ParentalRating Region=\"DEU\">21</ParentalRating><URLBase>"
                           "http://h/rated.html</URLBase></Application>"));

    EXPECT_EQ(parse(server_.url("/noids.aitx")), 0);
    EXPECT_TRUE(log_.contains("we are not get any ait info form this XML file"));
    EXPECT_EQ(parse(server_.url("/future.aitx")), 0);
    hbb_sim_set_parental_threshold(10);
    EXPECT_EQ(parse(server_.url("/rated.aitx")), 0);
    EXPECT_EQ(starts_.load(), 0);
    EXPECT_FALSE(app_running());

    EXPECT_EQ(parse(server_.url("/one.aitx")), 1);
    EXPECT_EQ(start_url(), "http://h/one.html");
    EXPECT_EQ(running_type(), BROADCAST_INDEPENDENT);
    EXPECT_EQ(running_org_id(), 3);
    EXPECT_EQ(running_app_id(), 4);
    EXPECT_EQ(starts_.load(), 1);

    EXPECT_EQ(parse_xml_ait(nullptr), 0);
    EXPECT_EQ(parse(server_.url("/missing.aitx")), 0) << "an HTML error page is no XML AIT";
}

// Downloads on two threads at once each hand over their own document.
TEST_F(XmlAitDownloadTest, ConcurrentUpdatesKeepTheirDocumentsApart) {
    HttpTestServer other;
    server_.respond(
        "/a", "200 OK",
        xmlAit(xmlApp(1, 11, kHbbtvType, "AUTOSTART", 1, "http://a/", std::string(3000, 'a'))));
    other.respond(
        "/b", "200 OK",
        xmlAit(xmlApp(2, 22, kCtvType, "AUTOSTART", 1, "http://b/", std::string(3000, 'b'))));
    std::atomic<int> ok{0};
    std::thread ta([&] {
        for (int i = 0; i < 4; ++i) ok += update(server_.url("/a"));
    });
    std::thread tb([&] {
        for (int i = 0; i < 4; ++i) ok += update(other.url("/b"));
    });
    ta.join();
    tb.join();
    EXPECT_EQ(ok.load(), 8);
    const auto tables = handedOver();
    ASSERT_EQ(tables.size(), 8u);
    for (const auto& t : tables) {
        ASSERT_EQ(t.apps.size(), 1u);
        const bool is_a = t.apps[0].app_id == 11;
        EXPECT_EQ(t.apps[0].org_id, is_a ? 1 : 2);
        EXPECT_EQ(t.apps[0].url, is_a ? "http://a/" + std::string(1023 - 9, 'a')
                                      : "http://b/" + std::string(1023 - 9, 'b'));
    }
}

TEST_F(XmlAitDownloadTest, TimingDumpReportsTheTransfer) {
    server_.respond("/body", "200 OK", std::string(1234, 'z'));
    CURL* curl = curl_easy_init();
    ASSERT_NE(curl, nullptr);
    const std::string url = server_.url("/body");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t s, size_t n, void*) { return s * n; });
    ASSERT_EQ(curl_easy_perform(curl), CURLE_OK);

    testing::internal::CaptureStdout();
    Hbbtv_PrintfCURLTime(curl);
    Hbbtv_PrintfCURLTime(nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    curl_easy_cleanup(curl);

    EXPECT_EQ(out.find("\n***hbbtv->func = Hbbtv_PrintfCURLTime, line = "), 0u) << out;
    EXPECT_NE(out.find("TotalTime:["), std::string::npos);
    EXPECT_NE(out.find("UpLoadSize:[0.000000]B | DownLoadSize:[1234.000000]B | DownLoadSpeed:["),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("**** end\n\n"), std::string::npos);
    int markers = 0;
    for (auto pos = out.find("***hbbtv->func"); pos != std::string::npos;
         pos = out.find("***hbbtv->func", pos + 1))
        ++markers;
    EXPECT_EQ(markers, 2) << "one dump, none for a null handle";
}

}  // namespace
}  // namespace appmgr::test
