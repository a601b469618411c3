/* libapp-mgr: broadband diagnostics.
 *
 * The library fetches XML AITs and probes broadband applications with
 * libcurl; this header offers the timing dump it uses when a transfer is
 * being investigated. */
#ifndef APP_MGR_BROADBAND_H
#define APP_MGR_BROADBAND_H

#include "app_mgr_export.h"

APPMGR_BEGIN_DECLS

/* Prints the timing and size figures of a finished transfer to standard
 * output (not to the log). curl is a libcurl easy handle (CURL*) that has
 * performed a transfer; it stays the caller's. NULL prints nothing. */
APPMGR_API void Hbbtv_PrintfCURLTime(void* curl);

APPMGR_END_DECLS

#endif /* APP_MGR_BROADBAND_H */
