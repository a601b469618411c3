// AIT intake: the AIT guard and the current AIT.
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "core/core_internal.h"

namespace {

// The guard is recursive: application start and kill take it again while
// aitUpdate already holds it.
pthread_mutexattr_t g_guard_attr;
pthread_mutex_t mutexAitGuard;
int iAitGuardInitalized = 0;

}  // namespace

extern "C" {

APPMGR_API int initAitGuard(void) {
    if (iAitGuardInitalized) return 1;
    if (pthread_mutexattr_init(&g_guard_attr) != 0) return 0;
    pthread_mutexattr_settype(&g_guard_attr, PTHREAD_MUTEX_RECURSIVE);
    if (pthread_mutex_init(&mutexAitGuard, &g_guard_attr) != 0) return 0;
    iAitGuardInitalized = 1;
    return 1;
}

APPMGR_API int deinitAitGuard(void) {
    if (!iAitGuardInitalized) return 1;
    if (pthread_mutex_destroy(&mutexAitGuard) != 0) return 0;
    pthread_mutexattr_destroy(&g_guard_attr);
    iAitGuardInitalized = 0;
    return 1;
}

APPMGR_API int lockAitGuard(void) {
    if (!iAitGuardInitalized) return 0;
    return pthread_mutex_lock(&mutexAitGuard) == 0;
}

APPMGR_API int unlockAitGuard(void) {
    if (!iAitGuardInitalized) return 0;
    return pthread_mutex_unlock(&mutexAitGuard) == 0;
}

void init_current_ait(void) {
    current_ait.is_test_app = 0;
    current_ait.app_type = 0;
    current_ait.version = 0;
    current_ait.app_lenght = 0;
    current_ait.apps = nullptr;
    current_ait.CRC_count = 0;
    current_ait.CRC = nullptr;
    first_run = 1;
}

void clear_current_ait(void) {
    std::memset(current_ait.dvb_url, 0, sizeof(current_ait.dvb_url));
    for (int i = 0; current_ait.apps != nullptr && i < current_ait.app_lenght; ++i) {
        Application& app = current_ait.apps[i];
        if (app.transport_protocol != nullptr) {
            std::free(app.transport_protocol->url);
            std::free(app.transport_protocol);
            app.transport_protocol = nullptr;
        }
        std::free(app.app_name);
        app.app_name = nullptr;
        // The current AIT owns its deep copies of boundary and type too;
        // releasing them here changes nothing a caller can see.
        std::free(app.app_boundary);
        app.app_boundary = nullptr;
        std::free(app.app_type);
        app.app_type = nullptr;
        std::free(app.app_parental.parental);
        app.app_parental.parental = nullptr;
    }
    std::free(current_ait.apps);
    std::free(current_ait.CRC);
    current_ait.CRC_count = 0;
    current_ait.is_test_app = 0;
    current_ait.app_type = 0;
    current_ait.version = 0;
    current_ait.app_lenght = 0;
    current_ait.apps = nullptr;
    current_ait.CRC = nullptr;
    has_teletext_application = 0;
    teletext_application_index = -1;
}

// Placeholder until AIT judgement lands: tables are logged and not used.
APPMGR_API void aitUpdate(AitTable* ait) {
    AM_WARN("AIT received (%d entries): AIT processing is not available yet",
            ait != nullptr ? ait->app_lenght : -1);
}

// Placeholder until autostart selection lands: no entry is chosen.
void find_autostart_app(Application* applications, int length) {
    (void)applications;
    (void)length;
    autostart_app = nullptr;
}

}  // extern "C"
