// Fixture of the broadband tests: the library's test seams set for short
// transfers, a terminal version that supports the documents' applications,
// the network on, the middleware's start callback counted, and every table
// the XML AIT update hands to the autostart run recorded.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "ait_builder.h"
#include "app_mgr.h"
#include "common/seams.h"
#include "ait/ait.h"
#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"
#include "test_support.h"
#include "xml/xml.h"

namespace appmgr::test {

struct RecordedApp {
    int org_id, app_id, control_code, priority, protocol_id;
    std::string type, url, boundary, name;
};

struct RecordedTable {
    std::string dvb_url;
    int app_type = 0;
    std::vector<RecordedApp> apps;
};

class BroadbandTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        initAitGuard();
        set_network(NETWORK_ON);
        set_terminal_version(1, 6, 1);
        char ua[] = "AppMgrTest/1.0";
        setAMUserAgent(ua);
        seams::set_http_timeouts(2, 3);
        seams::set_ait_handover_observer(&BroadbandTest::record, this);
        starts_ = 0;
        application_manager_register(&BroadbandTest::onStart, &BroadbandTest::onStop);
    }

    void TearDown() override {
        seams::set_ait_handover_observer(nullptr, nullptr);
        seams::set_tls_paths("", "", "");
        seams::set_http_timeouts(0, 0);
        LibraryTest::TearDown();
    }

    std::vector<RecordedTable> handedOver() const {
        std::lock_guard<std::mutex> lock(tables_mutex_);
        return tables_;
    }

    // Adds a channel with this triplet and makes it current.
    static void setCurrentService(int onid, int tsid, int sid) {
        Channel c{};
        c.onid = onid;
        c.tsid = tsid;
        c.sid = sid;
        char name[] = "Test service";
        c.name = name;
        hbb_sim_set_current_channel(hbb_sim_add_channel(&c));
    }

    static std::atomic<int> starts_;

private:
    static int onStart() {
        ++starts_;
        return 1;
    }
    static int onStop() { return 1; }

    static void record(const AitTable* table, void* user) {
        auto* self = static_cast<BroadbandTest*>(user);
        RecordedTable t;
        t.dvb_url = table->dvb_url;
        t.app_type = table->app_type;
        for (int i = 0; i < table->app_lenght; ++i) {
            const Application& a = table->apps[i];
            t.apps.push_back({a.organisation_id, a.app_id, static_cast<int>(a.control_code),
                              a.app_priority, a.transport_protocol->protocol_id,
                              a.app_type ? a.app_type : "", a.transport_protocol->url,
                              a.app_boundary ? a.app_boundary : "", a.app_name ? a.app_name : ""});
        }
        std::lock_guard<std::mutex> lock(self->tables_mutex_);
        self->tables_.push_back(std::move(t));
    }

    mutable std::mutex tables_mutex_;
    std::vector<RecordedTable> tables_;
};

inline std::atomic<int> BroadbandTest::starts_{0};

// An XML AIT application element with the usual fields.
inline std::string xmlApp(int org, int app, const std::string& type, const std::string& control,
                          int priority, const std::string& base, const std::string& location,
                          const std::string& extra = "") {
    return "<mhp:Application><mhp:appName Language=\"eng\">App " + std::to_string(app) +
           "</mhp:appName><mhp:applicationIdentifier><mhp:orgId>" + std::to_string(org) +
           "</mhp:orgId><mhp:appId>" + std::to_string(app) +
           "</mhp:appId></mhp:applicationIdentifier><mhp:applicationDescriptor><mhp:type>"
           "<mhp:OtherApp>" +
           type + "</mhp:OtherApp></mhp:type><mhp:controlCode>" + control +
           "</mhp:controlCode><mhp:visibility>VISIBLE_ALL</mhp:visibility>"
           "<mhp:serviceBound>false</mhp:serviceBound><mhp:priority>" +
           std::to_string(priority) +
           "</mhp:priority><mhp:version>1</mhp:version><mhp:mhpVersion><mhp:profile>0"
           "</mhp:profile><mhp:versionMajor>1</mhp:versionMajor><mhp:versionMinor>3"
           "</mhp:versionMinor><mhp:versionMicro>1</mhp:versionMicro></mhp:mhpVersion>"
           "</mhp:applicationDescriptor>" +
           extra + "<mhp:applicationTransport><mhp:URLBase>" + base +
           "</mhp:URLBase></mhp:applicationTransport><mhp:applicationLocation>" + location +
           "</mhp:applicationLocation></mhp:Application>";
}

// A whole XML AIT document around application elements.
inline std::string xmlAit(const std::string& applications) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<mhp:ServiceDiscovery xmlns:mhp=\"urn:dvb:mhp:2009\"><mhp:ApplicationDiscovery "
           "DomainName=\"example.com\"><mhp:ApplicationList>" +
           applications +
           "</mhp:ApplicationList></mhp:ApplicationDiscovery></mhp:ServiceDiscovery>\n";
}

constexpr const char* kHbbtvType = "application/vnd.hbbtv.xhtml+xml";
constexpr const char* kCtvType = "application/vnd.ctv.xhtml+xml";

}  // namespace appmgr::test
