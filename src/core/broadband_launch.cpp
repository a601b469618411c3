// Broadband AITs as the application core uses them: probing an
// application's URL, starting the application of a single-application XML
// AIT, and handing a list XML AIT to the autostart run.
//
// Each download runs first, without the manager lock; only what acts on the
// result takes it.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "common/log.h"
#include "common/seams.h"
#include "core/core.h"
#include "core/core_private.h"
#include "hbb_platform.h"
#include "state/state.h"
#include "xml/xml.h"

namespace state = appmgr::state;
namespace core = appmgr::core;
namespace records = appmgr::records;
using appmgr::records::entry_url;
using appmgr::xml::kUrlLength;

namespace {

constexpr const char* kHbbtvType = "application/vnd.hbbtv.xhtml+xml";
constexpr std::size_t kTripletLength = 256;

// The application types a list XML AIT may carry for its table to be taken
// as it is.
const char* const kValidListTypes[] = {
    "application/vnd.hbbtv.xhtml+xml",
    "application/vnd.ctv.xhtml+xml",
};

bool is_valid_list_type(const char* type) {
    if (type == nullptr) return false;
    for (const char* valid : kValidListTypes)
        if (std::strcmp(type, valid) == 0) return true;
    return false;
}

// Starts the application an XML AIT describes as a broadcast-independent
// application, replacing whatever the current AIT signalled (lock held).
void start_xml_application(const Application& app) {
    state::clear_current_ait();
    core::Launch start;
    start.url = entry_url(app);
    // In portal mode the page is the portal's: it is not recorded as the
    // application of a table.
    start.entry = state::portal() ? nullptr : &app;
    start.boundary = app.app_boundary;
    start.kind = BROADCAST_INDEPENDENT;
    start.checked = false;
    core::launch(start);
}

// Acts on a downloaded single-application XML AIT (takes the lock).
int start_downloaded(const PageInfo& page, const char* source_url) {
    records::ApplicationPtr app = appmgr::xml::read_application_document(page.data, page.len);
    if (app == nullptr) return 0;
    appmgr::xml::log_application(*app);
    if (app->organisation_id == 0 && app->app_id == 0 && app->app_profile == 0) {
        AM_INFO("we are not get any ait info form this XML file\n\n");
        return 0;
    }
    state::ManagerLock lock;
    if (check_parental_rating(&app->app_parental) &&
        check_support_version(app->app_profile, app->version_major, app->version_minor,
                              app->version_micro)) {
        start_xml_application(*app);
        return 1;
    }
    core::handle_load_error(source_url);
    return 0;
}

// The autostart run of a list XML AIT; the table is not made current, so a
// later broadcast table still applies (lock held).
void hand_over(AitTable* table) {
#ifdef APPMGR_TEST_SEAMS
    appmgr::seams::notify_ait_handover(table);
#endif
    runAutostartApplication(table);
    // The chosen entry lives in a table freed right after this hand-over;
    // the running application keeps its own copy.
    state::set_autostart(nullptr);
}

// "dvb://onid.tsid.sid" of the current service in lower-case hexadecimal,
// or "" without one.
std::string current_triplet() {
    char triplet[kTripletLength] = "";
    Channel* channel = hbbGetCurrentChannel();
    if (channel != nullptr)
        std::snprintf(triplet, sizeof(triplet), "dvb://%x.%x.%x",
                      static_cast<unsigned>(channel->onid), static_cast<unsigned>(channel->tsid),
                      static_cast<unsigned>(channel->sid));
    channel_destroy(channel);
    return triplet;
}

int update_from_list(const PageInfo& page) {
    int in_document = 0;
    records::AitTablePtr table = appmgr::xml::read_ait_document(
        page.data, page.len, appmgr::xml::kUpdateDocumentUrl, &in_document);
    if (table == nullptr) return 0;
    const std::string triplet = current_triplet();
    AM_INFO("XML AIT TRIPLET: %s \n\n", triplet.c_str());
    AM_INFO("XML parsed successfully \n\n");
    if (table->app_lenght < 1) {
        AM_INFO("we are not get any ait info form this XML file\n\n");
        return 0;
    }
    int valid = 0;
    for (int i = 0; i < table->app_lenght; ++i)
        if (is_valid_list_type(table->apps[i].app_type)) ++valid;

    if (valid == table->app_lenght) {
        std::snprintf(table->dvb_url, sizeof(table->dvb_url), "%s", triplet.c_str());
        AM_INFO("XML parsed successfully 2\n\n");
    } else {
        // A table that mixes in other application types is handed on as it
        // was read, without the service locator.
        AM_INFO("XML parsed successfully 1\n\n");
    }
    state::ManagerLock lock;
    hand_over(table.get());
    AM_INFO("XML parsed successfully and update ait success\n\n");
    return 1;
}

}  // namespace

extern "C" {

int probe_http_app(char* http_app_url) {
    if (http_app_url == nullptr) {
        AM_ERROR("Invalid arguments !\n");
        return 0;
    }
    {
        state::ManagerLock lock;
        if (state::network() == NETWORK_OFF) return 0;
    }
    return appmgr::xml::head_probe(http_app_url) ? 1 : 0;
}

int parse_xml_ait(char* ait_url) {
    if (ait_url == nullptr) {
        AM_ERROR("parse_xml_ait: no URL\n");
        return 0;
    }
    auto page = std::make_unique<PageInfo>();
    if (!appmgr::xml::fetch_xml_ait(ait_url, page.get())) return 0;
    return start_downloaded(*page, ait_url);
}

int xmlAitUpdate(char* ait_url) {
    if (ait_url == nullptr) {
        AM_ERROR("xmlAitUpdate: no URL\n");
        return 0;
    }
    auto page = std::make_unique<PageInfo>();
    if (!appmgr::xml::fetch_ait_update(ait_url, page.get())) return 0;
    // A document must begin with the XML declaration itself: no byte-order
    // mark, no blank before it. Five bytes or fewer are no document at all.
    if (page->len <= 5) {
        AM_ERROR("XML not parsed successfully \n\n");
        return 0;
    }
    if (std::memcmp(page->data, "<?xml", 5) != 0) {
        const auto* b = reinterpret_cast<const unsigned char*>(page->data);
        AM_ERROR(" error-->this url is not xml file,data:[%x-%x-%x-%x-%x]\n\n", b[0], b[1], b[2],
                 b[3], b[4]);
        return 0;
    }
    AM_INFO("ait update down ok\n");
    return update_from_list(*page);
}

int ParseXmlAitFile(char* text, int length) {
    AM_INFO("ParseXmlAitFile start with nXMLAITFileLen:%d\n\n", length);
    records::ApplicationPtr app = appmgr::xml::read_application_document(text, length);
    if (app == nullptr) return 0;
    appmgr::xml::log_application(*app);
    state::ManagerLock lock;
    start_xml_application(*app);
    AM_INFO("ParseXmlAitFile end \n\n");
    return 1;
}

int getUrlFromXMLAitFile(char* pXMLAitFile, int nXMLAitFileLen, char* pXMLAitUrl,
                         int* nXMLAitUrlLen) {
    if (pXMLAitFile == nullptr || nXMLAitFileLen == 0) {
        AM_ERROR("pXMLAitFile is null or len is 0 \n\n");
        return 0;
    }
    if (pXMLAitUrl == nullptr || nXMLAitUrlLen == nullptr) {
        AM_ERROR("getUrlFromXMLAitFile: no output buffer\n");
        return 0;
    }
    *nXMLAitUrlLen = 0;
    int in_document = 0;
    records::AitTablePtr table = appmgr::xml::read_ait_document(
        pXMLAitFile, nXMLAitFileLen, appmgr::xml::kXmlAitDocumentUrl, &in_document);
    if (table == nullptr) return 0;
    state::ManagerLock lock;
    const Application* best = nullptr;
    for (int i = 0; i < table->app_lenght; ++i) {
        const Application& app = table->apps[i];
        if (app.app_type == nullptr || std::strcmp(app.app_type, kHbbtvType) != 0) continue;
        if (!check_support_version(app.app_profile, app.version_major, app.version_minor,
                                   app.version_micro))
            continue;
        if (best == nullptr || app.app_priority > best->app_priority) best = &app;
    }
    if (best == nullptr || entry_url(*best) == nullptr) return 0;
    // The reader keeps URLs within kUrlLength bytes, the size the output
    // buffer must have.
    const std::size_t len = strnlen(entry_url(*best), kUrlLength - 1);
    std::memcpy(pXMLAitUrl, entry_url(*best), len);
    pXMLAitUrl[len] = '\0';
    *nXMLAitUrlLen = static_cast<int>(len);
    return 1;
}

}  // extern "C"
