/* Process-wide state of libapp-mgr, exported read-mostly for hosts and
 * diagnostics tools. Writing to it from outside the library is not
 * supported; the library itself changes it from several threads. */
#ifndef APP_MGR_STATE_H
#define APP_MGR_STATE_H

#include <pthread.h>
#include <semaphore.h>

#include "app_mgr_export.h"
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
APPMGR_API extern int first_run;
APPMGR_API extern int has_teletext_application;
APPMGR_API extern int teletext_application_index;

/* serialises every command sent to the browser */
APPMGR_API extern pthread_mutex_t sendmsg_mutex;

APPMGR_END_DECLS

#endif /* APP_MGR_STATE_H */
