// Decoded AIT sections to the AitTable record of the porting header, as a
// middleware fills it before handing it to the AIT callback.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_mgr_types.h"
#include "ts_decode.h"

namespace ts {
namespace {

constexpr int kAppTypeText = 128;  // the record's application type buffer

char* copy_text(const std::string& text) {
    char* out = static_cast<char*>(std::malloc(text.size() + 1));
    if (out != nullptr) std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

std::string join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (const auto& item : items) out += (out.empty() ? "" : separator) + item;
    return out;
}

bool fill_application(const AitRecord& section, const AitApplication& app, const Triplet& service,
                      bool broadband, Application* out) {
    out->organisation_id = static_cast<int>(app.org_id);
    out->app_id = app.app_id;
    out->control_code = static_cast<ControlCode>(app.control_code);
    if (!app.profiles.empty()) {
        out->app_profile = app.profiles.front().profile;
        out->version_major = app.profiles.front().major;
        out->version_minor = app.profiles.front().minor;
        out->version_micro = app.profiles.front().micro;
    }
    out->is_service_bound = app.service_bound ? 1 : 0;
    out->visibility = app.visibility;
    out->app_priority = app.priority;
    const auto& usage = app.usage_types.empty() ? section.common_usage_types : app.usage_types;
    out->app_usage_type = usage.empty() ? 0 : usage.front();
    // The library refuses a table with an entry without a name: an
    // unnamed application gets "".
    out->app_name = copy_text(app.names.empty() ? std::string() : app.names.front().text);
    out->app_boundary = copy_text(app.boundaries.empty() ? std::string("no boundary")
                                                         : join(app.boundaries, " "));
    out->app_type = static_cast<char*>(std::calloc(1, kAppTypeText));
    if (out->app_type != nullptr && section.app_type == HBBTV_APPLICATION_TYPE)
        std::snprintf(out->app_type, kAppTypeText, "%s", "application/vnd.hbbtv.xhtml+xml");
    out->transport_protocol =
        static_cast<transport_protocol_descriptor*>(std::calloc(1, sizeof(transport_protocol_descriptor)));
    if (out->app_name == nullptr || out->app_boundary == nullptr || out->app_type == nullptr ||
        out->transport_protocol == nullptr)
        return false;
    const AitTransport* chosen = nullptr;
    const std::string url = entry_url(section, app, service, broadband, &chosen);
    transport_protocol_descriptor* tp = out->transport_protocol;
    tp->url = copy_text(url);
    if (tp->url == nullptr) return false;
    if (chosen != nullptr) {
        tp->protocol_id = chosen->protocol_id;
        tp->transport_protocol_label = chosen->label;
        tp->remote_connection = chosen->remote ? 1 : 0;
        tp->original_network_id = chosen->remote ? chosen->onid : service.onid;
        tp->transport_stream_id = chosen->remote ? chosen->tsid : service.tsid;
        tp->service_id = chosen->remote ? chosen->sid : service.sid;
        tp->component_tag = chosen->component_tag >= 0 ? chosen->component_tag : 0;
        out->is_IP_connect_require = chosen->protocol_id == 3 ? 1 : 0;
    }
    const auto& ratings = app.ratings.empty() ? section.common_ratings : app.ratings;
    if (!ratings.empty()) {
        out->app_parental.parental =
            static_cast<parental_rating*>(std::calloc(ratings.size(), sizeof(parental_rating)));
        if (out->app_parental.parental == nullptr) return false;
        out->app_parental.count = static_cast<int>(ratings.size());
        for (std::size_t i = 0; i < ratings.size(); ++i) {
            std::snprintf(out->app_parental.parental[i].country, sizeof out->app_parental.parental[i].country,
                          "%s", ratings[i].country.c_str());
            out->app_parental.parental[i].rating = ratings[i].rating;
        }
    }
    return true;
}

}  // namespace

void AitTableDeleter::operator()(AitTable* table) const {
    if (table == nullptr) return;
    for (int i = 0; table->apps != nullptr && i < table->app_lenght; ++i) {
        Application& a = table->apps[i];
        if (a.transport_protocol != nullptr) std::free(a.transport_protocol->url);
        std::free(a.transport_protocol);
        std::free(a.app_name);
        std::free(a.app_boundary);
        std::free(a.app_type);
        std::free(a.app_parental.parental);
    }
    std::free(table->apps);
    std::free(table->CRC);
    std::free(table);
}

AitTablePtr make_ait_table(const std::vector<AitRecord>& sections, const Triplet& service,
                           bool broadband) {
    AitTablePtr table(static_cast<AitTable*>(std::calloc(1, sizeof(AitTable))));
    if (!table || sections.empty()) return nullptr;
    const AitRecord& first = sections.front();
    table->is_test_app = first.test ? 1 : 0;
    table->app_type = first.app_type;
    table->version = first.version;
    std::snprintf(table->dvb_url, sizeof table->dvb_url, "dvb://%x.%x.%x",
                  static_cast<unsigned>(service.onid), static_cast<unsigned>(service.tsid),
                  static_cast<unsigned>(service.sid));
    std::size_t count = 0;
    for (const auto& s : sections) count += s.apps.size();
    if (count > 0) {
        table->apps = static_cast<Application*>(std::calloc(count, sizeof(Application)));
        if (table->apps == nullptr) return nullptr;
    }
    for (const auto& s : sections) {
        for (const auto& app : s.apps) {
            // app_lenght counts the entries filled so far, so the deleter
            // frees exactly those when one fails half-way.
            Application* entry = &table->apps[table->app_lenght++];
            if (!fill_application(s, app, service, broadband, entry)) return nullptr;
        }
    }
    table->CRC = static_cast<char*>(std::calloc(sections.size(), sizeof(uint32_t)));
    if (table->CRC == nullptr) return nullptr;
    table->CRC_count = static_cast<int>(sections.size());
    for (std::size_t i = 0; i < sections.size(); ++i) {
        const uint32_t crc = sections[i].crc;
        std::memcpy(table->CRC + i * sizeof(uint32_t), &crc, sizeof crc);
    }
    return table;
}

}  // namespace ts
