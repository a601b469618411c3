/* Process-wide state of libapp-mgr, exported read-only for hosts and
 * diagnostics tools. Writing to it from outside the library is not
 * supported. The library writes the application state (the current AIT,
 * the running application and what describes the page the browser shows)
 * only while it holds the AIT guard: a host that needs a consistent view
 * takes lockAitGuard() around its reads. The lifecycle flags are written
 * atomically. */
#ifndef APP_MGR_STATE_H
#define APP_MGR_STATE_H

#include <pthread.h>
#include <semaphore.h>

#include "app_mgr_export.h"
#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"

APPMGR_BEGIN_DECLS

/* lifecycle */
APPMGR_API extern AppMgrState appmgr_state;
APPMGR_API extern pthread_mutex_t appmgr_mutex;
APPMGR_API extern pthread_cond_t appmgr_cond_var;
APPMGR_API extern pthread_condattr_t appmgr_condattr;
APPMGR_API extern int webkit_running;
APPMGR_API extern int is_deinit;
APPMGR_API extern int is_portal_mode;
APPMGR_API extern int is_tessel;
APPMGR_API extern int epgExternalsInitialized;
/* initialised at start-up; the library never waits on it */
APPMGR_API extern sem_t sem;
APPMGR_API extern char activeAMUserAgent[4096];
APPMGR_API extern int activeAMUserAgentSet;

/* browser connections */
APPMGR_API extern GlobalData_t gData;

/* applications and the current AIT */
APPMGR_API extern AitTable current_ait;
APPMGR_API extern Application* running_application;
APPMGR_API extern Application* autostart_app;
APPMGR_API extern ApplicationType running_application_type;
APPMGR_API extern VideoBroadcastState current_broadcast_state;
/* set to 1 at start-up and 0 once a table is current; the library never reads it */
APPMGR_API extern int first_run;
APPMGR_API extern int has_teletext_application;
APPMGR_API extern int teletext_application_index;
APPMGR_API extern int current_version;
/* the type of the last table offered; the library only writes it */
APPMGR_API extern AitTableApplicationType current_ait_app_type;
APPMGR_API extern TunningRequestType tunning_requested_by;
/* cleared when an empty AIT arrives; the library never reads it */
APPMGR_API extern int service_bound;
APPMGR_API extern char s_dvb_url[256];
APPMGR_API extern NetworkStatus network_status;
APPMGR_API extern int is_app_visible;
APPMGR_API extern int screen_saver;
APPMGR_API extern unsigned int bIsApplicationActivated;
APPMGR_API extern char loaded_application[4096];
APPMGR_API extern char hbbtv_start_url[4096];
/* kept for the middleware; the library never uses it (always null) */
APPMGR_API extern hbbApplication* running_hbb_application;
APPMGR_API extern int teminal_version_major;
APPMGR_API extern int teminal_version_minor;
APPMGR_API extern int teminal_version_micro;
APPMGR_API extern application_mngr_callback_item_t s_application_mngr_callback;
/* one byte per entry of the current AIT: 1 = may be started */
APPMGR_API extern unsigned char* application_vadility_flags;

/* key sets: the key set last set and the mask last requested (restored
 * when the application is activated) */
APPMGR_API extern KeySet keySet;
APPMGR_API extern int activateValue;
/* remote-key injection: the service's port, the key map (ended by key 0)
 * and the socket to the service (-1 when not open) */
APPMGR_API extern const unsigned short dfb_remote_port;
APPMGR_API extern const KeyCode keycodes[27];
APPMGR_API extern int remote_key_socket_fd;

/* display window saved when the portal opened */
APPMGR_API extern fpi_zoom_setting_window_t nZoomdisplayWindow;

/* serialises every command sent to the browser */
APPMGR_API extern pthread_mutex_t sendmsg_mutex;

APPMGR_END_DECLS

#endif /* APP_MGR_STATE_H */
