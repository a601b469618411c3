// Process-wide application state shared by the application core and the AIT
// processing. All of it is zero at load.
#include "app_mgr_state.h"

extern "C" {
APPMGR_API AitTable current_ait;
APPMGR_API Application* running_application = nullptr;
APPMGR_API Application* autostart_app = nullptr;
APPMGR_API ApplicationType running_application_type = BROADCAST_RELATED;
APPMGR_API VideoBroadcastState current_broadcast_state = VBOS_UNREALIZED;
APPMGR_API int first_run = 0;
APPMGR_API int has_teletext_application = 0;
APPMGR_API int teletext_application_index = -1;
}
