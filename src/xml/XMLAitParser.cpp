// The XML AIT reader: turns XML AIT documents into the library's Application
// and AitTable records.
//
// Documents come from HTTP servers and from the browser, so nothing in them
// is trusted: every text is copied within the size of its target buffer, the
// number of applications and parental ratings is bounded, and libxml2 reads
// them without network access and without loading external DTDs or
// entities.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <mutex>

#include "common/log.h"
#include "xml/xml.h"

namespace {

using appmgr::xml::kMaxApplications;
using appmgr::xml::kUrlLength;
// Size of the application type buffer of allocate_ait_table.
constexpr std::size_t kTypeLength = 128;
// The rating storage of one application.
constexpr int kMaxRatings = 20;
constexpr std::size_t kRegionLength = 3;
// Longest element text read, and the most nodes visited while reading one
// (entity references declared by the document expand within this budget).
constexpr std::size_t kMaxText = 8192;
constexpr int kMaxTextNodes = 10000;
constexpr int kMaxEntityDepth = 10;

constexpr const char* kNoBoundary = "no boundary";

bool named(const xmlNode* node, const char* name) {
    return xmlStrEqual(node->name, reinterpret_cast<const xmlChar*>(name)) != 0;
}

void collect_text(const xmlNode* node, std::string& out, int& visits, int depth) {
    for (; node != nullptr; node = node->next) {
        if (++visits > kMaxTextNodes || out.size() >= kMaxText) return;
        if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
            if (node->content == nullptr) continue;
            const char* text = reinterpret_cast<const char*>(node->content);
            out.append(text, std::min(std::strlen(text), kMaxText - out.size()));
        } else if (node->type == XML_ENTITY_REF_NODE && depth < kMaxEntityDepth) {
            const xmlEntity* entity = xmlGetDocEntity(node->doc, node->name);
            if (entity != nullptr) collect_text(entity->children, out, visits, depth + 1);
        }
    }
}

// The text of an element: its text and CDATA children and the expansion of
// its entity references, cut to kMaxText bytes.
std::string element_text(const xmlNode* element) {
    std::string text;
    int visits = 0;
    collect_text(element->children, text, visits, 0);
    return text;
}

// A decimal number as atoi reads it (leading blanks, sign, digits), with
// values beyond the int range clamped instead of overflowing.
int decimal_value(const std::string& text) {
    long value = std::strtol(text.c_str(), nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

// Copies src into dst (size bytes, always terminated); false when cut.
bool copy_bounded(char* dst, std::size_t size, const std::string& src) {
    if (dst == nullptr || size == 0) return false;
    const std::size_t n = std::min(src.size(), size - 1);
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
    return n == src.size();
}

// Appends src to the text in dst (size bytes, always terminated); false when cut.
bool append_bounded(char* dst, std::size_t size, const std::string& src) {
    if (dst == nullptr || size == 0) return false;
    const std::size_t used = strnlen(dst, size - 1);
    return copy_bounded(dst + used, size - used, src);
}

void set_url(transport_protocol_descriptor* tp, const std::string& text) {
    if (tp == nullptr || tp->url == nullptr) return;
    if (!copy_bounded(tp->url, kUrlLength, text))
        AM_WARN("URLBase longer than %u bytes cut: %s\n", kUrlLength - 1, tp->url);
}

void append_url(transport_protocol_descriptor* tp, const std::string& text) {
    if (tp == nullptr || tp->url == nullptr) return;
    if (!append_bounded(tp->url, kUrlLength, text))
        AM_WARN("application URL longer than %u bytes cut: %s\n", kUrlLength - 1, tp->url);
}

// A boundary origin is kept whole or not at all: a cut origin would widen
// the boundary.
void add_boundary(char* boundary, const std::string& text) {
    if (boundary == nullptr) return;
    if (std::strcmp(boundary, kNoBoundary) == 0) {
        if (text.size() < kUrlLength) {
            copy_bounded(boundary, kUrlLength, text);
            return;
        }
    } else if (std::strlen(boundary) + 1 + text.size() < kUrlLength) {
        append_bounded(boundary, kUrlLength, "|");
        append_bounded(boundary, kUrlLength, text);
        return;
    }
    AM_WARN("BoundaryExtension ignored: the boundary would exceed %u bytes\n", kUrlLength - 1);
}

void add_parental_rating(xmlNode* node, Application* app, const std::string& text) {
    parental_rating_descriptor& ratings = app->app_parental;
    if (ratings.parental == nullptr) {
        ratings.parental =
            static_cast<parental_rating*>(std::calloc(kMaxRatings, sizeof(parental_rating)));
        ratings.count = 0;
        if (ratings.parental == nullptr) {
            AM_ERROR("out of memory for parental ratings\n");
            return;
        }
    }
    if (ratings.count >= kMaxRatings) {
        AM_WARN("ParentalRating ignored: at most %d ratings are kept\n", kMaxRatings);
        return;
    }
    parental_rating& rating = ratings.parental[ratings.count];
    xmlChar* region = xmlGetProp(node, reinterpret_cast<const xmlChar*>("Region"));
    const char* region_text = region != nullptr ? reinterpret_cast<const char*>(region) : "";
    // The country code holds three characters; longer regions are cut.
    std::snprintf(rating.country, sizeof(rating.country), "%.*s", static_cast<int>(kRegionLength),
                  region_text);
    AM_INFO("Region = %s\n\n", rating.country);
    if (region != nullptr) xmlFree(region);
    AM_INFO("ParentalRating = %s\n\n", text.c_str());
    rating.rating = decimal_value(text);
    if (rating.rating > 2) rating.rating -= 3;
    ++ratings.count;
}

// Fields both readers take.
bool handle_common_element(xmlNode* node, Application* app, const std::string& text) {
    if (named(node, "orgId")) {
        app->organisation_id = decimal_value(text);
    } else if (named(node, "appId")) {
        app->app_id = decimal_value(text);
    } else if (named(node, "profile")) {
        app->app_profile = decimal_value(text);
    } else if (named(node, "versionMajor")) {
        app->version_major = decimal_value(text);
    } else if (named(node, "versionMinor")) {
        app->version_minor = decimal_value(text);
    } else if (named(node, "versionMicro")) {
        app->version_micro = decimal_value(text);
    } else if (named(node, "applicationLocation")) {
        if (!text.empty()) append_url(app->transport_protocol, text);
    } else if (named(node, "BoundaryExtension")) {
        if (!text.empty()) add_boundary(app->app_boundary, text);
    } else {
        return false;
    }
    return true;
}

void handle_element(xmlNode* node, Application* app) {
    const std::string text = element_text(node);
    if (handle_common_element(node, app, text)) return;
    if (named(node, "URLBase")) {
        if (!text.empty()) set_url(app->transport_protocol, text);
    } else if (named(node, "ParentalRating")) {
        add_parental_rating(node, app, text);
    }
}

void handle_element_ait_table(xmlNode* node, AitTable* table, int* counter) {
    if (named(node, "Application")) {
        ++*counter;
        return;
    }
    const int index = *counter - 1;
    if (index < 0 || index >= table->app_lenght) {
        // Fields outside an application (before the first, or past the
        // applications kept) belong to no record.
        return;
    }
    Application* app = &table->apps[index];
    const std::string text = element_text(node);
    if (handle_common_element(node, app, text)) return;
    if (named(node, "URLBase")) {
        if (text.empty()) return;
        set_url(app->transport_protocol, text);
        if (app->transport_protocol != nullptr)
            app->transport_protocol->protocol_id = getProtocolID(text.c_str());
    } else if (named(node, "appName")) {
        copy_bounded(app->app_name, kUrlLength, text);
    } else if (named(node, "OtherApp")) {
        copy_bounded(app->app_type, kTypeLength, text);
    } else if (named(node, "controlCode")) {
        ControlCode code;
        if (getControlCode(text.c_str(), &code) == 0) app->control_code = code;
    } else if (named(node, "priority")) {
        app->app_priority = decimal_value(text);
    } else if (named(node, "visibility")) {
        int visibility;
        if (getVisibility(text.c_str(), &visibility) == 0) app->visibility = visibility;
    } else if (named(node, "serviceBound")) {
        app->is_service_bound = getIsServiceBound(text.c_str());
    }
}

// Reads the one application of a document; null when out of memory.
appmgr::records::ApplicationPtr read_single_application(xmlNode* root) {
    appmgr::records::ApplicationPtr app(allocate_application(kUrlLength));
    if (app == nullptr) {
        AM_ERROR("out of memory for the XML application\n");
        return nullptr;
    }
    copy_bounded(app->app_boundary, kUrlLength, kNoBoundary);
    find_elements(root, app.get());
    return app;
}

}  // namespace

namespace appmgr::xml {

namespace {

// libxml2's global state is set up once and never torn down: tearing it
// down after a parse (xmlCleanupParser) would reset libxml2 for every other
// user in the middleware's process.
void ensure_parser() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

}  // namespace

ParsedDocument::ParsedDocument(const char* data, int len, const char* document_url) {
    if (data == nullptr || len <= 0) return;
    ensure_parser();
    // No XML_PARSE_NOENT (entities stay references), no DTD loading and no
    // network: a document cannot make libxml2 read anything else. libxml2
    // prints nothing itself; the error that stopped the parse is logged.
    doc_ = xmlReadMemory(data, len, document_url, nullptr,
                         XML_PARSE_NOWARNING | XML_PARSE_NONET | XML_PARSE_NOERROR);
    if (doc_ == nullptr) {
        const xmlError* error = xmlGetLastError();
        if (error != nullptr && error->message != nullptr)
            AM_WARN("libxml2 error at line %d: %s", error->line, error->message);
    }
}

ParsedDocument::~ParsedDocument() {
    if (doc_ != nullptr) xmlFreeDoc(doc_);
}

xmlNode* ParsedDocument::root() const {
    return doc_ != nullptr ? xmlDocGetRootElement(doc_) : nullptr;
}

records::ApplicationPtr read_application_document(const char* data, int len) {
    ParsedDocument doc(data, len, kXmlAitDocumentUrl);
    if (!doc.ok()) {
        AM_ERROR("XML not parsed successfully \n\n");
        return nullptr;
    }
    AM_INFO("XML parsed successfully \n\n");
    return read_single_application(doc.root());
}

records::AitTablePtr read_ait_document(const char* data, int len, const char* document_url,
                                       int* in_document) {
    *in_document = 0;
    ParsedDocument doc(data, len, document_url);
    if (!doc.ok()) {
        AM_ERROR("XML not parsed successfully \n\n");
        return nullptr;
    }
    int count = find_number_of_applications(doc.root());
    *in_document = count;
    if (count > kMaxApplications) {
        AM_WARN("%d applications in the XML AIT, the first %d are read\n", count,
                kMaxApplications);
        count = kMaxApplications;
    }
    records::AitTablePtr table(allocate_ait_table(count, kUrlLength));
    if (table == nullptr) {
        AM_ERROR("out of memory for the XML AIT table\n");
        return nullptr;
    }
    int counter = 0;
    find_elements_ait_table(doc.root(), table.get(), &counter);
    return table;
}

void log_application(const Application& app) {
    AM_INFO("########## XML APPLICATION #########\n");
    AM_INFO("orgid: %d, appid: %d, profile: %d\n", app.organisation_id, app.app_id,
            app.app_profile);
    AM_INFO("major: %d, minor: %d, micro: %d\n", app.version_major, app.version_minor,
            app.version_micro);
    AM_INFO("URL: %s\n", records::entry_url(app) != nullptr ? records::entry_url(app) : "(null)");
    AM_INFO("####################################\n");
}

}  // namespace appmgr::xml


namespace {

struct NamedCode {
    const char* text;
    int value;
};

// The code of an exact (case-sensitive) text of a table, or false.
template <std::size_t N>
bool lookup_code(const char* text, const NamedCode (&table)[N], int* value) {
    if (text == nullptr || value == nullptr) return false;
    for (const NamedCode& entry : table) {
        if (std::strcmp(text, entry.text) == 0) {
            *value = entry.value;
            return true;
        }
    }
    return false;
}

constexpr NamedCode kControlCodes[] = {
    {"AUTOSTART", AUTOSTART}, {"PRESENT", PRESENT}, {"KILL", KILL}};
constexpr NamedCode kVisibilities[] = {{"NOT_VISIBLE_ALL", NOT_VISIBLE_ALL},
                                       {"NOT_VISIBLE_USERS", NOT_VISIBLE_USERS},
                                       {"VISIBLE_ALL", VISIBLE_ALL}};

}  // namespace

extern "C" {

int getControlCode(const char* value, ControlCode* code) {
    int found = 0;
    if (code != nullptr && lookup_code(value, kControlCodes, &found)) {
        *code = static_cast<ControlCode>(found);
        return 0;
    }
    AM_WARN("ControlCode invalid value! %s\n", value != nullptr ? value : "(null)");
    return 1;
}

int getVisibility(const char* value, int* visibility) {
    if (lookup_code(value, kVisibilities, visibility)) return 0;
    AM_WARN("Visibility invalid value! %s\n", value != nullptr ? value : "(null)");
    return 1;
}

int getIsServiceBound(const char* value) {
    return value != nullptr && std::strcmp(value, "true") == 0 ? 1 : 0;
}

// Plain "http://" locations get id 1; everything else ("https://", "dvb://",
// relative paths) gets 3, the id the autostart rules treat as broadband.
int getProtocolID(const char* value) {
    if (value == nullptr || std::strncmp(value, "http://", 7) != 0) return 3;
    return 1;
}

// The readers walk element nodes only: entity references are not followed
// into the entity's nodes, so a document cannot multiply the walk through
// nested entities.
void find_elements(xmlNode* node, Application* app) {
    if (app == nullptr) return;
    for (xmlNode* cur = node; cur != nullptr; cur = cur->next) {
        if (cur->type != XML_ELEMENT_NODE) continue;
        handle_element(cur, app);
        find_elements(cur->children, app);
    }
}

void find_elements_ait_table(xmlNode* node, AitTable* table, int* counter) {
    if (table == nullptr || counter == nullptr) return;
    for (xmlNode* cur = node; cur != nullptr; cur = cur->next) {
        if (cur->type != XML_ELEMENT_NODE) continue;
        handle_element_ait_table(cur, table, counter);
        find_elements_ait_table(cur->children, table, counter);
    }
    table->app_type = HBBTV_APPLICATION_TYPE;
}

int find_number_of_applications(xmlNode* node) {
    int count = 0;
    for (xmlNode* cur = node; cur != nullptr; cur = cur->next) {
        if (cur->type != XML_ELEMENT_NODE) continue;
        if (named(cur, "Application")) ++count;
        count += find_number_of_applications(cur->children);
    }
    return count;
}

}  // extern "C"
