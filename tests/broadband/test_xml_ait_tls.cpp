// XML AIT downloads over HTTPS from `openssl s_server` on 127.0.0.1, with a
// CA, server and client certificates made for the test: the client
// certificate handshake of parse_xml_ait, and server verification against
// the CA bundle.
#include <fstream>

#include "broadband_test.h"
#include "tls_server.h"

namespace appmgr::test {
namespace {

class XmlAitTlsTest : public BroadbandTest {
protected:
    void SetUp() override {
        BroadbandTest::SetUp();
        std::string error;
        ASSERT_TRUE(tls_.make(tls_dir_.path(), &error)) << error;
        std::ofstream(docroot_.path() + "ait.aitx") << xmlAit(
            xmlApp(0x13, 0x1f4, kHbbtvType, "AUTOSTART", 1, "https://apps.example/", "tls.html"));
        seams::set_tls_paths(tls_.ca_cert, tls_.client_cert, tls_.client_key);
    }
    int parse(const std::string& url) {
        std::string copy = url;
        return parse_xml_ait(copy.data());
    }
    int update(const std::string& url) {
        std::string copy = url;
        return xmlAitUpdate(copy.data());
    }

    TempDir tls_dir_;
    TempDir docroot_;
    TlsMaterial tls_;
};

TEST_F(XmlAitTlsTest, ClientCertificateOpensTheDownload) {
    OpensslServer server(tls_, docroot_.path(), /*require_client_cert=*/true);
    ASSERT_TRUE(server.ready()) << server.output();

    EXPECT_EQ(parse(server.url("/ait.aitx")), 1) << server.output();
    EXPECT_EQ(start_url(), "https://apps.example/tls.html");
    EXPECT_EQ(running_org_id(), 0x13);
    EXPECT_EQ(running_app_id(), 0x1f4);
    EXPECT_EQ(starts_.load(), 1);
}

TEST_F(XmlAitTlsTest, HandshakeFailsWithoutAnAcceptedClientCertificate) {
    OpensslServer server(tls_, docroot_.path(), /*require_client_cert=*/true);
    ASSERT_TRUE(server.ready()) << server.output();

    // A certificate from a CA the server does not trust.
    seams::set_tls_paths(tls_.ca_cert, tls_.other_client_cert, tls_.other_client_key);
    EXPECT_EQ(parse(server.url("/ait.aitx")), 0);
    // No certificate files at the fixed location of this machine.
    seams::set_tls_paths(tls_.ca_cert, "", "");
    EXPECT_EQ(parse(server.url("/ait.aitx")), 0);
    EXPECT_TRUE(log_.contains("Sending soup message failed :58"));
    // The list download presents no certificate at all.
    EXPECT_EQ(update(server.url("/ait.aitx")), 0);

    EXPECT_EQ(starts_.load(), 0);
    EXPECT_TRUE(handedOver().empty());
    EXPECT_EQ(server.output().find("FILE:ait.aitx"), std::string::npos) << server.output();
}

TEST_F(XmlAitTlsTest, ServerIsVerifiedAgainstTheCaBundle) {
    OpensslServer server(tls_, docroot_.path(), /*require_client_cert=*/false);
    ASSERT_TRUE(server.ready()) << server.output();

    EXPECT_EQ(update(server.url("/ait.aitx")), 1) << server.output();
    ASSERT_EQ(handedOver().size(), 1u);
    EXPECT_EQ(handedOver()[0].apps[0].url, "https://apps.example/tls.html");

    // A bundle without the server's issuer: the download is refused.
    seams::set_tls_paths(tls_.other_ca_cert, tls_.client_cert, tls_.client_key);
    EXPECT_EQ(update(server.url("/ait.aitx")), 0);
    EXPECT_TRUE(log_.contains("xmlAitUpdate res = 60"));
    EXPECT_EQ(parse(server.url("/ait.aitx")), 0);
    EXPECT_TRUE(log_.contains("Sending soup message failed :60"));
    EXPECT_EQ(handedOver().size(), 1u);
}

}  // namespace
TEST_F(XmlAitTlsTest, PortalOpensThroughAnXmlAit) {
    OpensslServer server(tls_, docroot_.path(), /*require_client_cert=*/true);
    ASSERT_TRUE(server.ready()) << server.output();
    // A plain HTTP(S) location (no ".aitx"): tried as an XML AIT first.
    std::ifstream in(docroot_.path() + "ait.aitx");
    std::ofstream(docroot_.path() + "portal.xml") << in.rdbuf();
    std::string url = server.url("/portal.xml");
    ASSERT_EQ(openWebPortal(url.data()), 1) << server.output();
    EXPECT_TRUE(portal_mode());
    EXPECT_EQ(broadcast_state(), VBOS_STOPPED);
    EXPECT_TRUE(log_.contains("is xml ait file url"));
    EXPECT_EQ(start_url(), "https://apps.example/tls.html");
    EXPECT_EQ(starts_.load(), 1);
    ASSERT_EQ(closeWebPortal(), 1);
    EXPECT_FALSE(portal_mode());
    EXPECT_FALSE(app_running());
}

}  // namespace appmgr::test
