#include "structs/records.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hbb_platform.h"

namespace {

// calloc that never asks for zero bytes, so a zero-length buffer is still a
// distinct, freeable allocation.
void* zalloc(std::size_t count, std::size_t size) {
    return std::calloc(count ? count : 1, size ? size : 1);
}

bool dup_text(const char* src, char** dst) {
    if (src == nullptr) return true;
    *dst = strdup(src);
    return *dst != nullptr;
}

}  // namespace

namespace appmgr::records {

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
    app.app_parental.count = 0;
}

void release_ait_fields(AitTable& table) {
    for (int i = 0; table.apps != nullptr && i < table.app_lenght; ++i)
        release_application_fields(table.apps[i]);
    std::free(table.apps);
    std::free(table.CRC);
    std::memset(&table, 0, sizeof(table));
}

void ApplicationDeleter::operator()(Application* app) const {
    if (app == nullptr) return;
    release_application_fields(*app);
    std::free(app);
}

void AitTableDeleter::operator()(AitTable* table) const {
    if (table == nullptr) return;
    release_ait_fields(*table);
    std::free(table);
}

bool copy_application_into(const Application& src, Application& dst) {
    dst = src;
    dst.app_name = dst.app_boundary = dst.app_type = nullptr;
    dst.transport_protocol = nullptr;
    dst.app_parental = {nullptr, 0};
    bool ok = dup_text(src.app_name, &dst.app_name) &&
              dup_text(src.app_boundary, &dst.app_boundary) &&
              dup_text(src.app_type, &dst.app_type);
    if (ok && src.transport_protocol != nullptr) {
        auto* tp = static_cast<transport_protocol_descriptor*>(
            std::calloc(1, sizeof(transport_protocol_descriptor)));
        ok = tp != nullptr;
        if (ok) {
            *tp = *src.transport_protocol;
            tp->url = nullptr;
            dst.transport_protocol = tp;
            ok = dup_text(src.transport_protocol->url, &tp->url);
        }
    }
    const int ratings = src.app_parental.parental != nullptr ? src.app_parental.count : 0;
    if (ok && ratings > 0) {
        auto* copy = static_cast<parental_rating*>(
            std::calloc(static_cast<std::size_t>(ratings), sizeof(parental_rating)));
        ok = copy != nullptr;
        if (ok) {
            for (int r = 0; r < ratings; ++r) {
                std::memcpy(copy[r].country, src.app_parental.parental[r].country, 3);
                copy[r].country[3] = '\0';
                copy[r].rating = src.app_parental.parental[r].rating;
            }
            dst.app_parental = {copy, ratings};
        }
    }
    if (!ok) release_application_fields(dst);
    return ok;
}

ApplicationPtr copy_application(const Application& src) {
    ApplicationPtr copy(static_cast<Application*>(zalloc(1, sizeof(Application))));
    if (copy == nullptr || !copy_application_into(src, *copy)) return nullptr;
    return copy;
}

bool copy_ait_into(const AitTable& src, AitTable& dst) {
    std::memset(&dst, 0, sizeof(dst));
    dst.is_test_app = src.is_test_app;
    dst.app_type = src.app_type;
    dst.version = src.version;
    std::snprintf(dst.dvb_url, sizeof(dst.dvb_url), "%.*s",
                  static_cast<int>(sizeof(src.dvb_url) - 1), src.dvb_url);
    const int count = src.apps != nullptr && src.app_lenght > 0 ? src.app_lenght : 0;
    dst.apps = static_cast<Application*>(zalloc(static_cast<std::size_t>(count), sizeof(Application)));
    if (dst.apps == nullptr) return false;
    for (int i = 0; i < count; ++i) {
        if (!copy_application_into(src.apps[i], dst.apps[i])) {
            dst.app_lenght = i;
            release_ait_fields(dst);
            return false;
        }
    }
    dst.app_lenght = count;
    if (src.CRC_count > 0 && src.CRC != nullptr) {
        const std::size_t bytes = static_cast<std::size_t>(src.CRC_count) * sizeof(uint32_t);
        dst.CRC = static_cast<char*>(std::malloc(bytes));
        if (dst.CRC == nullptr) {
            release_ait_fields(dst);
            return false;
        }
        std::memcpy(dst.CRC, src.CRC, bytes);
        dst.CRC_count = src.CRC_count;
    }
    return true;
}

AitTablePtr copy_ait(const AitTable& src) {
    AitTablePtr copy(static_cast<AitTable*>(zalloc(1, sizeof(AitTable))));
    if (copy == nullptr || !copy_ait_into(src, *copy)) return nullptr;
    return copy;
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
    if (app->transport_protocol == nullptr || app->transport_protocol->url == nullptr ||
        app->app_boundary == nullptr) {
        appmgr::records::ApplicationDeleter()(app);
        return nullptr;
    }
    return app;
}

// Releases the whole record. Besides the transport URL, descriptor and
// parental ratings it also frees boundary, name and type: every record that
// reaches this function owns them, and nothing keeps pointers to them.
void free_application(Application** app) {
    if (app == nullptr || *app == nullptr || (*app)->transport_protocol == nullptr ||
        (*app)->transport_protocol->url == nullptr)
        return;
    appmgr::records::ApplicationDeleter()(*app);
    *app = nullptr;
    hbbSetDisplayMode(0);
}

AitTable* allocate_ait_table(int num_of_applications, unsigned int url_length) {
    if (num_of_applications < 0) return nullptr;
    appmgr::records::AitTablePtr table(static_cast<AitTable*>(zalloc(1, sizeof(AitTable))));
    if (table == nullptr) return nullptr;
    table->apps = static_cast<Application*>(
        zalloc(static_cast<std::size_t>(num_of_applications), sizeof(Application)));
    if (table->apps == nullptr) return nullptr;
    for (int i = 0; i < num_of_applications; ++i) {
        Application& app = table->apps[i];
        table->app_lenght = i + 1;  // so that a failure releases what exists
        app.transport_protocol = static_cast<transport_protocol_descriptor*>(
            zalloc(1, sizeof(transport_protocol_descriptor)));
        if (app.transport_protocol == nullptr) return nullptr;
        app.transport_protocol->url = static_cast<char*>(zalloc(url_length, 1));
        app.app_boundary = static_cast<char*>(zalloc(url_length, 1));
        app.app_name = static_cast<char*>(zalloc(url_length, 1));
        app.app_type = static_cast<char*>(zalloc(128, 1));
        if (app.transport_protocol->url == nullptr || app.app_boundary == nullptr ||
            app.app_name == nullptr || app.app_type == nullptr)
            return nullptr;
        if (url_length > 0) std::snprintf(app.app_boundary, url_length, "%s", "no boundary");
    }
    table->app_lenght = num_of_applications;
    return table.release();
}

void free_ait_table(AitTable** ait_table) {
    if (ait_table == nullptr || *ait_table == nullptr) return;
    appmgr::records::AitTableDeleter()(*ait_table);
    *ait_table = nullptr;
}

}  // extern "C"
