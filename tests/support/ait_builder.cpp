#include "ait_builder.h"

#include <cstdlib>
#include <cstdio>
#include <cstring>

#include "hbb_sim.h"

namespace appmgr::test {

namespace {
char* dup(const char* s) { return s != nullptr ? strdup(s) : nullptr; }
}  // namespace

OwnedAit::OwnedAit(int type, const std::string& dvb_url, const std::vector<AppSpec>& apps) {
    table_.app_type = type;
    std::snprintf(table_.dvb_url, sizeof(table_.dvb_url), "%s", dvb_url.c_str());
    table_.app_lenght = static_cast<int>(apps.size());
    table_.apps = static_cast<Application*>(std::calloc(apps.size() + 1, sizeof(Application)));
    for (size_t i = 0; i < apps.size(); ++i) {
        const AppSpec& s = apps[i];
        Application& a = table_.apps[i];
        a.organisation_id = s.org;
        a.app_id = s.app;
        a.control_code = s.control;
        a.app_profile = s.profile;
        a.version_major = s.version_major;
        a.version_minor = s.version_minor;
        a.version_micro = s.version_micro;
        a.is_service_bound = s.service_bound;
        a.visibility = VISIBLE_ALL;
        a.app_priority = s.priority;
        a.app_usage_type = s.usage;
        a.is_IP_connect_require = s.ip_required;
        a.app_name = dup(s.name);
        a.app_boundary = dup(s.boundary);
        a.transport_protocol = static_cast<transport_protocol_descriptor*>(
            std::calloc(1, sizeof(transport_protocol_descriptor)));
        a.transport_protocol->protocol_id = s.protocol;
        a.transport_protocol->url = dup(s.url.c_str());
        if (!s.ratings.empty()) {
            a.app_parental.count = static_cast<int>(s.ratings.size());
            a.app_parental.parental = static_cast<parental_rating*>(
                std::calloc(s.ratings.size(), sizeof(parental_rating)));
            for (size_t r = 0; r < s.ratings.size(); ++r) {
                std::snprintf(a.app_parental.parental[r].country, 4, "%s",
                              s.ratings[r].first.c_str());
                a.app_parental.parental[r].rating = s.ratings[r].second;
            }
        }
    }
}

OwnedAit::~OwnedAit() {
    for (int i = 0; i < table_.app_lenght; ++i) {
        Application& a = table_.apps[i];
        if (a.transport_protocol != nullptr) std::free(a.transport_protocol->url);
        std::free(a.transport_protocol);
        std::free(a.app_name);
        std::free(a.app_boundary);
        std::free(a.app_type);
        std::free(a.app_parental.parental);
    }
    std::free(table_.apps);
    std::free(table_.CRC);
}

AppSpec http_app(int org, int app, const std::string& url, ControlCode control) {
    AppSpec s;
    s.org = org;
    s.app = app;
    s.url = url;
    s.protocol = 3;
    s.control = control;
    return s;
}

void add_tv_channel(const char* ccid, int sid, const char* name) {
    Channel c{};
    c.type = CHANNEL_TYPE_TV;
    c.ccid = const_cast<char*>(ccid);
    c.onid = 1;
    c.tsid = 2;
    c.sid = sid;
    c.name = const_cast<char*>(name);
    c.idType = 12;
    c.nid = 10;
    hbb_sim_add_channel(&c);
}

}  // namespace appmgr::test
