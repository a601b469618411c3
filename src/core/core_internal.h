// Application-core functions used across the library but not exported. They
// keep their C names and linkage so traces and logs read the same on every
// build.
#pragma once

#include "app_mgr_types.h"

extern "C" {

// Lifecycle of the running application.
int application_create(char* param_url);
void application_destroy(int orgid, int appid);
void update_running_application(Application* a);
void application_manager_request_stop(void);
void setCheckPageTransparent(int mode);

// Autostart.
void runAutostartApplication(AitTable* ait);
void find_autostart_app(Application* applications, int length);

// Current AIT.
void init_current_ait(void);
void clear_current_ait(void);

// EPG search support (0 on success).
int initializeEPGExternal(void);
void deinitializeEPGExternal(void);

}
