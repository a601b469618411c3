// Start, stop and autostart of applications, and the middleware
// notifications the library registers for.
#include <cstdio>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "core/core_internal.h"

extern "C" {

void setCheckPageTransparent(int mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", mode);
    send_command(402, text);
}

// Placeholders until the application lifecycle lands. Each logs what it was
// asked to do and reports that nothing was started.
int application_create(char* param_url) {
    AM_WARN("application_create(%s): application start is not available yet",
            param_url != nullptr ? param_url : "(null)");
    return 0;
}

void application_destroy(int orgid, int appid) {
    AM_WARN("application_destroy(%d, %d): application stop is not available yet", orgid, appid);
}

void update_running_application(Application* a) { (void)a; }

void application_manager_request_stop(void) {
    AM_WARN("application_manager_request_stop: middleware callbacks are not available yet");
}

void runAutostartApplication(AitTable* ait) {
    AM_INFO("runAutostartApplication(%d entries): autostart is not available yet",
            ait != nullptr ? ait->app_lenght : -1);
}

APPMGR_API int sendNetworkStatus(int status) {
    AM_INFO("sendNetworkStatus(%d): network handling is not available yet", status);
    return 0;
}

APPMGR_API void send_dsmcc_module_date_update_msg(unsigned short nModuleID,
                                                  unsigned char bIsDirRef, void* pData) {
    (void)pData;
    AM_INFO("send_dsmcc_module_date_update_msg(%u, %u): carousel updates are not available yet",
            static_cast<unsigned>(nModuleID), static_cast<unsigned>(bIsDirRef));
}

// EPG search support is not built yet: start-up carries on without it.
int initializeEPGExternal(void) {
    AM_WARN("EPG search support is not available");
    return 1;
}

void deinitializeEPGExternal(void) {}

}  // extern "C"
