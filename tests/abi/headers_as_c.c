/* Every public header, compiled as plain C. */
#include "app_mgr.h"
#include "app_mgr_dsmcc.h"
#include "app_mgr_broadband.h"
#include "app_mgr_broadcast.h"
#include "app_mgr_export.h"
#include "app_mgr_platform_types.h"
#include "app_mgr_search.h"
#include "app_mgr_state.h"
#include "app_mgr_stream_events.h"
#include "app_mgr_types.h"
#include "hbb_platform.h"
#include "ini_dict.h"
#include "parse_ini.h"

int appmgr_c_headers_compiled(void);
int appmgr_c_headers_compiled(void) { return (int)sizeof(GlobalData_t) + (int)sizeof(AitTable); }
