// Application and AIT records: the process-wide state, and the functions
// that allocate, free and query records.
//
// Records are plain C allocations (calloc/free) because the XML AIT reader
// builds them and the middleware may inspect them.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "hbb_platform.h"

extern "C" {
APPMGR_API AitTable current_ait;
APPMGR_API Application* running_application = nullptr;
APPMGR_API Application* autostart_app = nullptr;
APPMGR_API ApplicationType running_application_type = BROADCAST_RELATED;
APPMGR_API VideoBroadcastState current_broadcast_state = VBOS_UNREALIZED;
APPMGR_API int first_run = 0;
APPMGR_API int has_teletext_application = 0;
APPMGR_API int teletext_application_index = -1;
APPMGR_API int current_version = 0;
APPMGR_API AitTableApplicationType current_ait_app_type = HBBTV_APPLICATION_TYPE;
APPMGR_API TunningRequestType tunning_requested_by = REQUESTED_BY_RELATED_TYPE;
APPMGR_API int service_bound = 0;
APPMGR_API char s_dvb_url[256];
APPMGR_API NetworkStatus network_status = NETWORK_OFF;
APPMGR_API int is_app_visible = 0;
APPMGR_API int screen_saver = 0;
APPMGR_API unsigned int bIsApplicationActivated = 0;
APPMGR_API char loaded_application[4096];
APPMGR_API char hbbtv_start_url[4096];
APPMGR_API hbbApplication* running_hbb_application = nullptr;
APPMGR_API int teminal_version_major = 0;
APPMGR_API int teminal_version_minor = 0;
APPMGR_API int teminal_version_micro = 0;
APPMGR_API application_mngr_callback_item_t s_application_mngr_callback;
APPMGR_API unsigned char* application_vadility_flags = nullptr;
}

namespace {

// calloc that never asks for zero bytes, so a zero-length buffer is still a
// distinct, freeable allocation.
void* zalloc(std::size_t count, std::size_t size) {
    return std::calloc(count ? count : 1, size ? size : 1);
}

}  // namespace

namespace appmgr::records {

void copy_application_numbers(const Application& src, Application& dst) {
    dst.organisation_id = src.organisation_id;
    dst.app_id = src.app_id;
    dst.control_code = src.control_code;
    dst.app_profile = src.app_profile;
    dst.version_major = src.version_major;
    dst.version_minor = src.version_minor;
    dst.version_micro = src.version_micro;
    dst.is_service_bound = src.is_service_bound;
    dst.visibility = src.visibility;
    dst.app_priority = src.app_priority;
    dst.app_usage_type = src.app_usage_type;
    dst.is_IP_connect_require = src.is_IP_connect_require;
}

void release_application_fields(Application& app) {
    if (app.transport_protocol != nullptr) {
        std::free(app.transport_protocol->url);
        app.transport_protocol->url = nullptr;
    }
    std::free(app.transport_protocol);
    app.transport_protocol = nullptr;
    std::free(app.app_boundary);
    app.app_boundary = nullptr;
    std::free(app.app_name);
    app.app_name = nullptr;
    std::free(app.app_type);
    app.app_type = nullptr;
    std::free(app.app_parental.parental);
    app.app_parental.parental = nullptr;
}

}  // namespace appmgr::records

extern "C" {

Application* allocate_application(unsigned int url_length) {
    auto* app = static_cast<Application*>(zalloc(1, sizeof(Application)));
    if (app == nullptr) return nullptr;
    app->transport_protocol = static_cast<transport_protocol_descriptor*>(
        zalloc(1, sizeof(transport_protocol_descriptor)));
    if (app->transport_protocol != nullptr)
        app->transport_protocol->url = static_cast<char*>(zalloc(url_length, 1));
    app->app_boundary = static_cast<char*>(zalloc(url_length, 1));
    return app;
}

// Releases the whole record. Besides the transport URL, descriptor and
// parental ratings it also frees boundary, name and type: every record that
// reaches this function owns them, and nothing keeps pointers to them.
void free_application(Application** app) {
    if (app == nullptr || *app == nullptr || (*app)->transport_protocol == nullptr ||
        (*app)->transport_protocol->url == nullptr)
        return;
    Application* a = *app;
    std::free(a->transport_protocol->url);
    a->transport_protocol->url = nullptr;
    std::free(a->transport_protocol);
    a->transport_protocol = nullptr;
    std::free(a->app_parental.parental);
    a->app_parental.parental = nullptr;
    std::free(a->app_boundary);
    std::free(a->app_name);
    std::free(a->app_type);
    std::free(a);
    *app = nullptr;
    hbbSetDisplayMode(0);
}

AitTable* allocate_ait_table(int num_of_applications, unsigned int url_length) {
    if (num_of_applications < 0) return nullptr;
    auto* table = static_cast<AitTable*>(zalloc(1, sizeof(AitTable)));
    if (table == nullptr) return nullptr;
    table->apps = static_cast<Application*>(
        zalloc(static_cast<std::size_t>(num_of_applications), sizeof(Application)));
    if (table->apps == nullptr) {
        std::free(table);
        return nullptr;
    }
    for (int i = 0; i < num_of_applications; ++i) {
        Application& app = table->apps[i];
        app.transport_protocol = static_cast<transport_protocol_descriptor*>(
            zalloc(1, sizeof(transport_protocol_descriptor)));
        if (app.transport_protocol != nullptr)
            app.transport_protocol->url = static_cast<char*>(zalloc(url_length, 1));
        app.app_boundary = static_cast<char*>(zalloc(url_length, 1));
        if (app.app_boundary != nullptr && url_length > 0)
            std::snprintf(app.app_boundary, url_length, "%s", "no boundary");
        app.app_name = static_cast<char*>(zalloc(url_length, 1));
        app.app_type = static_cast<char*>(zalloc(128, 1));
    }
    table->app_lenght = num_of_applications;
    return table;
}

// Releases the table and everything it points to, parental ratings and CRC
// words included: the library's own tables are the only ones freed here, and
// their fillers never release those parts separately.
void free_ait_table(AitTable** ait_table) {
    if (ait_table == nullptr || *ait_table == nullptr) return;
    AitTable* t = *ait_table;
    for (int i = 0; t->apps != nullptr && i < t->app_lenght; ++i)
        appmgr::records::release_application_fields(t->apps[i]);
    std::free(t->apps);
    std::free(t->CRC);
    std::free(t);
    *ait_table = nullptr;
}

void get_application_info(ApplicationInfo* info) {
    if (info == nullptr) return;
    if (running_application == nullptr) {
        AM_ERROR("Application should not run, we should never be here\n");
        info->orgid = 0;
        info->appid = 0;
        return;
    }
    info->orgid = running_application->organisation_id;
    info->appid = running_application->app_id;
}

int get_application_type(void) { return running_application_type; }

void getRuningApplicationType(ApplicationType* type) {
    if (type != nullptr) *type = running_application_type;
}

int find_application_index(char* u) {
    if (u == nullptr || current_ait.apps == nullptr) return -1;
    for (int i = 0; i < current_ait.app_lenght; ++i) {
        const transport_protocol_descriptor* tp = current_ait.apps[i].transport_protocol;
        if (tp != nullptr && tp->url != nullptr && std::strcmp(tp->url, u) == 0) return i;
    }
    return -1;
}

int hasApplicationRuning(void) {
    if (running_application != nullptr || is_portal_mode == 1) return 1;
    AM_INFO("running_application == NULL,is_portal_mode = %d\n\n", is_portal_mode);
    return 0;
}

int isCurrentApplicationVisible(void) {
    return running_application != nullptr ? is_app_visible : 0;
}

APPMGR_API AitTableApplicationType getCurrentAitTableApplicationType(void) {
    return static_cast<AitTableApplicationType>(current_ait.app_type);
}

APPMGR_API char* get_current_dvb_url(void) { return current_ait.dvb_url; }

}  // extern "C"
