// The XML AIT reader on documents given as text: what lands in the records,
// which application getUrlFromXMLAitFile picks, how ParseXmlAitFile starts
// an application, and that malformed and hostile documents are refused or
// read within bounds.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "broadband_test.h"
#include "ait/ait.h"
#include "core/core.h"
#include "state/state.h"

namespace appmgr::test {
namespace {

// Fields of the first record that RecordedApp leaves out.
int visibility_ = -1;
int service_bound_ = -1;
std::string version_;

// Reads a document with the table reader, as xmlAitUpdate does.
RecordedTable readTable(const std::string& xml) {
    RecordedTable out;
    xml::ParsedDocument doc(xml.data(), static_cast<int>(xml.size()), xml::kUpdateDocumentUrl);
    EXPECT_TRUE(doc.ok());
    if (!doc.ok()) return out;
    AitTable* table = allocate_ait_table(find_number_of_applications(doc.root()), 1024);
    int counter = 0;
    find_elements_ait_table(doc.root(), table, &counter);
    out.app_type = table->app_type;
    for (int i = 0; i < table->app_lenght; ++i) {
        const Application& a = table->apps[i];
        out.apps.push_back({a.organisation_id, a.app_id, static_cast<int>(a.control_code),
                            a.app_priority, a.transport_protocol->protocol_id, a.app_type,
                            a.transport_protocol->url, a.app_boundary, a.app_name});
    }
    // The fields the recorded form leaves out.
    if (table->app_lenght > 0) {
        visibility_ = table->apps[0].visibility;
        service_bound_ = table->apps[0].is_service_bound;
        version_ = std::to_string(table->apps[0].version_major) + "." +
                   std::to_string(table->apps[0].version_minor) + "." +
                   std::to_string(table->apps[0].version_micro);
    }
    free_ait_table(&table);
    return out;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class XmlAitReaderTest : public BroadbandTest {
protected:
    // ParseXmlAitFile takes a mutable text.
    int parseText(std::string text) {
        return ParseXmlAitFile(text.data(), static_cast<int>(text.size()));
    }
    std::string urlFrom(std::string text, int* result) {
        char url[1024];
        std::memset(url, 'x', sizeof(url));
        int len = -1;
        *result = getUrlFromXMLAitFile(text.data(), static_cast<int>(text.size()), url, &len);
        if (*result != 1) {
            EXPECT_EQ(len, 0);
            return "";
        }
        EXPECT_EQ(len, static_cast<int>(std::strlen(url)));
        return url;
    }
};

TEST_F(XmlAitReaderTest, TableReaderFillsOneRecordPerApplication) {
    // A field before the first application belongs to no record.
    const std::string doc = xmlAit(
        "<mhp:priority>77</mhp:priority>"
        "<mhp:Application><mhp:appName>First</mhp:appName><mhp:orgId>10</mhp:orgId>"
        "<mhp:appId>1</mhp:appId><mhp:OtherApp>application/vnd.hbbtv.xhtml+xml</mhp:OtherApp>"
        "<mhp:controlCode>AUTOSTART</mhp:controlCode><mhp:visibility>NOT_VISIBLE_USERS"
        "</mhp:visibility><mhp:serviceBound>true</mhp:serviceBound><mhp:profile>0</mhp:profile>"
        "<mhp:versionMajor>1</mhp:versionMajor><mhp:versionMinor>2</mhp:versionMinor>"
        "<mhp:versionMicro>3</mhp:versionMicro><mhp:URLBase>http://a/</mhp:URLBase>"
        "<mhp:applicationLocation>index.html</mhp:applicationLocation></mhp:Application>" +
        xmlApp(20, 2, kCtvType, "PRESENT", 4, "https://b.example/", "start.html?x=1",
               "<mhp:applicationBoundary><mhp:BoundaryExtension>A</mhp:BoundaryExtension>"
               "<mhp:BoundaryExtension>B</mhp:BoundaryExtension></mhp:applicationBoundary>"));
    const RecordedTable t = readTable(doc);
    ASSERT_EQ(t.apps.size(), 2u);
    EXPECT_EQ(t.app_type, HBBTV_APPLICATION_TYPE);

    const RecordedApp& a = t.apps[0];
    EXPECT_EQ(a.org_id, 10);
    EXPECT_EQ(a.app_id, 1);
    EXPECT_EQ(a.name, "First");
    EXPECT_EQ(a.type, kHbbtvType);
    EXPECT_EQ(a.control_code, AUTOSTART);
    EXPECT_EQ(a.priority, 0) << "the priority before the first application was taken";
    EXPECT_EQ(a.url, "http://a/index.html");
    EXPECT_EQ(a.protocol_id, 1);
    EXPECT_EQ(a.boundary, "no boundary");
    EXPECT_EQ(visibility_, NOT_VISIBLE_USERS);
    EXPECT_EQ(service_bound_, 1);
    EXPECT_EQ(version_, "1.2.3");

    const RecordedApp& b = t.apps[1];
    EXPECT_EQ(b.org_id, 20);
    EXPECT_EQ(b.app_id, 2);
    EXPECT_EQ(b.type, kCtvType);
    EXPECT_EQ(b.control_code, PRESENT);
    EXPECT_EQ(b.priority, 4);
    EXPECT_EQ(b.url, "https://b.example/start.html?x=1");
    EXPECT_EQ(b.protocol_id, 3) << "anything but http:// gets protocol id 3";
    EXPECT_EQ(b.boundary, "A|B");
}

TEST_F(XmlAitReaderTest, CodeTablesTakeOnlyExactTexts) {
    const std::string doc = xmlAit(
        "<Application><controlCode>autostart</controlCode><visibility>visible_all</visibility>"
        "<serviceBound>TRUE</serviceBound></Application>"
        "<Application><controlCode>KILL</controlCode><visibility>NOT_VISIBLE_ALL</visibility>"
        "<visibility>VISIBLE_ALL</visibility><serviceBound>true</serviceBound></Application>");
    const RecordedTable t = readTable(doc);
    ASSERT_EQ(t.apps.size(), 2u);
    EXPECT_EQ(t.apps[0].control_code, 0) << "a lower-case control code leaves the field alone";
    EXPECT_EQ(visibility_, 0);
    EXPECT_EQ(service_bound_, 0);
    EXPECT_TRUE(log_.contains("ControlCode invalid value! autostart"));
    EXPECT_TRUE(log_.contains("Visibility invalid value! visible_all"));
    EXPECT_EQ(t.apps[1].control_code, KILL);

    EXPECT_EQ(getProtocolID("http://host/"), 1);
    EXPECT_EQ(getProtocolID("https://host/"), 3);
    EXPECT_EQ(getProtocolID("dvb://1.2.3"), 3);
    EXPECT_EQ(getProtocolID("index.html"), 3);
    EXPECT_EQ(getProtocolID("HTTP://host/"), 3);
}

TEST_F(XmlAitReaderTest, LongTextsStayWithinTheirBuffers) {
    const std::string type(200, 't');
    const std::string long_url = "http://h/" + std::string(2000, 'u');
    const std::string long_name(5000, 'n');
    const std::string long_origin = "http://" + std::string(1100, 'o') + "/";
    const RecordedTable t =
        readTable(xmlAit("<Application><OtherApp>" + type + "</OtherApp><appName>" + long_name +
                         "</appName><URLBase>" + long_url +
                         "</URLBase><applicationLocation>more"
                         "</applicationLocation><BoundaryExtension>" +
                         long_origin +
                         "</BoundaryExtension><orgId>99999999999</orgId><appId>-99999999999</appId>"
                         "<priority>12abc</priority></Application>"));
    ASSERT_EQ(t.apps.size(), 1u);
    const RecordedApp& a = t.apps[0];
    EXPECT_EQ(a.type, type.substr(0, 127));
    EXPECT_EQ(a.name, long_name.substr(0, 1023));
    EXPECT_EQ(a.url, long_url.substr(0, 1023));
    EXPECT_EQ(a.boundary, "no boundary") << "an origin that does not fit is left out whole";
    EXPECT_EQ(a.org_id, INT_MAX);
    EXPECT_EQ(a.app_id, INT_MIN);
    EXPECT_EQ(a.priority, 12);
}

TEST_F(XmlAitReaderTest, ParentalRatingsAreBoundedInNumberAndRegion) {
    std::string ratings;
    ratings += "<ParentalRating Region=\"" + std::string(1 << 20, 'D') + "\">5</ParentalRating>";
    ratings += "<ParentalRating Region=\"FR\">2</ParentalRating>";
    ratings += "<ParentalRating>9</ParentalRating>";
    for (int i = 0; i < 30; ++i) ratings += "<ParentalRating Region=\"GBR\">12</ParentalRating>";
    const std::string doc =
        xmlAit("<Application><orgId>1</orgId><URLBase>http://a/</URLBase>" + ratings +
               "<applicationLocation>i.html</applicationLocation></Application>");
    xml::ParsedDocument parsed(doc.data(), static_cast<int>(doc.size()), xml::kXmlAitDocumentUrl);
    ASSERT_TRUE(parsed.ok());
    Application* app = allocate_application(1024);
    find_elements(parsed.root(), app);

    ASSERT_NE(app->app_parental.parental, nullptr);
    EXPECT_EQ(app->app_parental.count, 20);
    EXPECT_STREQ(app->app_parental.parental[0].country, "DDD");
    EXPECT_EQ(app->app_parental.parental[0].rating, 2) << "ratings above 2 are stored minus 3";
    EXPECT_STREQ(app->app_parental.parental[1].country, "FR");
    EXPECT_EQ(app->app_parental.parental[1].rating, 2);
    EXPECT_STREQ(app->app_parental.parental[2].country, "");
    EXPECT_EQ(app->app_parental.parental[2].rating, 6);
    EXPECT_EQ(app->app_parental.parental[19].rating, 9);
    EXPECT_STREQ(app->transport_protocol->url, "http://a/i.html");
    EXPECT_EQ(app->organisation_id, 1);
    free_application(&app);
}

TEST_F(XmlAitReaderTest, BestHbbtvApplicationUrlIsChosen) {
    int result = 0;
    // Priorities 1, 5, 5: the first of the two highest wins; another type and
    // an unsupported version are never chosen, whatever their priority.
    std::string doc = xmlAit(
        xmlApp(1, 1, kHbbtvType, "AUTOSTART", 1, "http://h/", "one.html") +
        xmlApp(1, 2, kHbbtvType, "PRESENT", 5, "http://h/", "two.html") +
        xmlApp(1, 3, kHbbtvType, "PRESENT", 5, "http://h/", "three.html") +
        xmlApp(1, 4, kCtvType, "AUTOSTART", 9, "http://h/", "ctv.html") +
        "<Application><OtherApp>application/vnd.hbbtv.xhtml+xml</OtherApp><priority>50</priority>"
        "<versionMajor>2</versionMajor><URLBase>http://h/</URLBase>"
        "<applicationLocation>future.html</applicationLocation></Application>");
    EXPECT_EQ(urlFrom(doc, &result), "http://h/two.html");
    EXPECT_EQ(result, 1);

    EXPECT_EQ(
        urlFrom(xmlAit(xmlApp(1, 4, kCtvType, "AUTOSTART", 9, "http://h/", "c.html")), &result),
        "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(urlFrom("<?xml version=\"1.0\"?><broken", &result), "");
    EXPECT_EQ(result, 0);

    char url[1024];
    int len = 7;
    EXPECT_EQ(getUrlFromXMLAitFile(nullptr, 10, url, &len), 0);
    EXPECT_TRUE(log_.contains("pXMLAitFile is null or len is 0"));
}

// The MIT-xperts test suite's XML AIT, as its server renders it.
TEST_F(XmlAitReaderTest, ThirdPartyDocumentStartsItsApplication) {
    const std::string text = readFile(std::string(APPMGR_XMLAIT_DATA_DIR) +
                                      "/mitxp-hbbtv-testsuite/xmlait.rendered.aitx");
    ASSERT_FALSE(text.empty());
    int result = 0;
    EXPECT_EQ(urlFrom(text, &result),
              "http://itv.mit-xperts.com/hbbtvtest/appmanager/xmlaitapp.php");

    startMessagingOnly();
    ASSERT_EQ(parseText(text), 1);

    // The boundary goes to the browser first; its origins are joined by "|".
    const standin::Frame frame = nextFrame(Connection::Application);
    EXPECT_EQ(frame.body, "59|http://itv.mit-xperts.com/|http://www.mit-xperts.com/|");

    EXPECT_EQ(start_url(), "http://itv.mit-xperts.com/hbbtvtest/appmanager/xmlaitapp.php");
    EXPECT_EQ(running_type(), BROADCAST_INDEPENDENT);
    EXPECT_EQ(running_org_id(), 19);
    EXPECT_EQ(running_app_id(), 500);
    EXPECT_EQ(running_url(), start_url());
    EXPECT_EQ(starts_.load(), 1);
    EXPECT_TRUE(log_.contains("ParseXmlAitFile end"));
}

TEST_F(XmlAitReaderTest, PortalModeStartsWithoutTakingTheRunningRecord) {
    set_portal_mode(true);
    ASSERT_EQ(parseText(xmlAit(xmlApp(7, 8, kHbbtvType, "AUTOSTART", 1, "http://p/", "a.html"))),
              1);
    EXPECT_EQ(start_url(), "http://p/a.html");
    // The portal's page is recorded as a broadcast-independent page, not as
    // the document's application.
    EXPECT_EQ(running_org_id(), -1);
    EXPECT_EQ(running_url(), "http://p/a.html");
    EXPECT_EQ(starts_.load(), 1);
}

TEST_F(XmlAitReaderTest, MalformedDocumentsStartNothing) {
    const std::vector<std::string> bad = {
        "",
        "not xml at all",
        "<?xml version=\"1.0\"?><Application><orgId>1</orgId>",
        "<?xml version=\"1.0\"?><a></b>",
        std::string("<?xml version=\"1.0\"?>\0<a/>", 27),
    };
    for (const auto& text : bad) EXPECT_EQ(parseText(text), 0) << text;
    char* null_text = nullptr;
    EXPECT_EQ(ParseXmlAitFile(null_text, 10), 0);
    EXPECT_TRUE(log_.contains("XML not parsed successfully"));
    EXPECT_EQ(starts_.load(), 0);
    EXPECT_FALSE(app_running());
}

TEST_F(XmlAitReaderTest, HostileDocumentsAreRefusedOrReadWithinBounds) {
    // Nesting beyond libxml2's depth limit.
    std::string deep = "<?xml version=\"1.0\"?>";
    for (int i = 0; i < 100000; ++i) deep += "<d>";
    EXPECT_EQ(parseText(deep), 0);

    // Exponential entity expansion ("billion laughs").
    std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY l0 \"lol\">";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY l" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) laughs += "&l" + std::to_string(i - 1) + ";";
        laughs += "\">";
    }
    laughs += "]><Application><appName>&l9;</appName></Application>";
    EXPECT_EQ(parseText(laughs), 0);

    // A flat expansion that libxml2 accepts (12000 characters) is read within
    // the text bound.
    std::string amplified = "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY l0 \"";
    for (int i = 0; i < 40; ++i) amplified += "lol";
    amplified += "\"><!ENTITY l1 \"";
    for (int i = 0; i < 100; ++i) amplified += "&l0;";
    amplified +=
        "\">]><r><Application><appName>&l1;</appName><OtherApp>&l1;</OtherApp>"
        "</Application></r>";
    RecordedTable t = readTable(amplified);
    ASSERT_EQ(t.apps.size(), 1u);
    EXPECT_EQ(t.apps[0].name.size(), 1023u);
    EXPECT_EQ(t.apps[0].name.substr(0, 6), "lollol");
    EXPECT_EQ(t.apps[0].type.size(), 127u);

    // External entities are not loaded, from files or the network.
    const std::string external =
        "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY f SYSTEM \"file:///etc/passwd\">"
        "<!ENTITY n SYSTEM \"http://127.0.0.1:1/x\">]><r><Application><appName>&f;</appName>"
        "<OtherApp>&n;</OtherApp></Application></r>";
    t = readTable(external);
    ASSERT_EQ(t.apps.size(), 1u);
    EXPECT_EQ(t.apps[0].name.find("root:"), std::string::npos);
    EXPECT_EQ(t.apps[0].name, "");
    EXPECT_EQ(t.apps[0].type, "");

    // A huge attribute and many applications: read, bounded, nothing leaks.
    std::string many = "<?xml version=\"1.0\"?><r xmlns:mhp=\"urn:dvb:mhp:2009\" x=\"" +
                       std::string(4 << 20, 'a') + "\">";
    for (int i = 0; i < 20000; ++i) many += "<Application/>";
    many += xmlApp(1, 1, kHbbtvType, "AUTOSTART", 1, "http://h/", "late.html") + "</r>";
    int result = -1;
    EXPECT_EQ(urlFrom(many, &result), "");
    EXPECT_EQ(result, 0) << "applications past the 256th are not read";
    EXPECT_TRUE(log_.contains("20001 applications in the XML AIT, the first 256 are read"));
}

}  // namespace
}  // namespace appmgr::test
