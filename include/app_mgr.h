/* libapp-mgr: the HbbTV application manager of the receiver.
 *
 * The TV middleware loads this library and drives it through the entry
 * points below. Results follow the convention of each module: lifecycle and
 * core calls return 1 for success and 0 for failure, the messaging layer
 * returns ErrorType_t. No call blocks longer than stated and none raises. */
#ifndef APP_MGR_H
#define APP_MGR_H

#include "app_mgr_export.h"
#include "app_mgr_types.h"

#include <stdint.h>

APPMGR_BEGIN_DECLS

/* ---- lifecycle ----------------------------------------------------------
 * First call: opens the five browser connections and waits up to 60 s for
 * the browser to report itself (blocking the caller). Second call, once the
 * browser is up: activates the manager and starts the autostart application
 * of the current AIT. */
APPMGR_API int applicationManagerInit(void);
/* Back to suspended: the browser stays, the running application is ended. */
APPMGR_API int applicationManagerDeInit(void);
/* Restarts the autostart application of the current AIT (1 if one started). */
APPMGR_API int applicationManagerRestart(void);
/* Tells the browser to close and tears messaging down. */
APPMGR_API int applicationManagerClose(void);
/* Waits (up to 60 s) for the browser's state report; 1 reported, 0 time-out. */
APPMGR_API int start_web_browser(void);
/* Process-exit handler: quits the browser and exits with status 0. */
APPMGR_API void ctrlc_handler(void);

/* Stores the User-Agent text (at most 4095 characters; longer texts select
 * the built-in default). "%%" in the text is stored as "%". */
APPMGR_API int setAMUserAgent(char* ua);
/* The stored User-Agent, or NULL if none was ever stored. */
APPMGR_API char* getAMUserAgent(void);
/* polarity 1 sends "UTC-hh:mm:00", 0 sends "UTC+hh:mm:00", else an empty text. */
APPMGR_API int setTimeZone(int polarity, int hour, int minute);

/* ---- socket transport --------------------------------------------------- */

APPMGR_API ErrorType_t messenger_init(Messenger_t* d_msg, data_recived_clb func, void* priv);
APPMGR_API ErrorType_t messenger_start(Messenger_t* d_msg);
APPMGR_API ErrorType_t messenger_stop(Messenger_t* d_msg);
APPMGR_API ErrorType_t messenger_send(Messenger_t* d_msg, void* data, unsigned int length);
APPMGR_API void messenger_close_connection(Messenger_t* d_msg);

/* ---- message connections and wire format -------------------------------- */

APPMGR_API ErrorType_t tools_msg_init(GlobalData_t* data, int argc, char** argv);
APPMGR_API ErrorType_t tools_msg_connect(GlobalData_t* data);
APPMGR_API ErrorType_t tools_msg_close(GlobalData_t* data);
APPMGR_API ErrorType_t tools_msg_send_msg(GlobalData_t* data, Mng_ConnectionType_t type,
                                          char* buff, unsigned int len);
/* Takes the next "|"-terminated field of temp_string into param and returns
 * the position after the separator, or NULL (param is then empty). param must
 * hold 1024 bytes: longer fields are cut to 1023 characters. */
APPMGR_API char* parse_parameter(char* temp_string, char* param);
APPMGR_API int input_data_received(void* data, char* buff, int len);

/* ---- outgoing commands -------------------------------------------------- */

/* Sends one command or callback to the browser; 1 sent, 0 not sent. */
APPMGR_API int send_command(int commandID, void* param);

/* ---- AIT guard (recursive, process-wide) -------------------------------- */

APPMGR_API int initAitGuard(void);
APPMGR_API int deinitAitGuard(void);
APPMGR_API int lockAitGuard(void);
APPMGR_API int unlockAitGuard(void);

/* ---- middleware notifications ------------------------------------------- */

/* A decoded AIT of the current service; the table stays the caller's. */
APPMGR_API void aitUpdate(AitTable* ait);
/* Application type (16 HbbTV, 18 DTG) of the current AIT. */
APPMGR_API AitTableApplicationType getCurrentAitTableApplicationType(void);
/* Takes a table version as the current one when it is newer (5-bit
 * versions: 31 -> 0 counts as newer): 1 newer, 0 not. */
APPMGR_API int check_version(int version);
/* Locator of the service that carried the current AIT (the library's buffer). */
APPMGR_API char* get_current_dvb_url(void);
/* A change of service (the new channel, borrowed for the call). */
APPMGR_API void channelChanged(Channel* channel);
/* Broadband network state: 0 off, 1 on, 2 being checked; 1 = handled. */
APPMGR_API int sendNetworkStatus(int status);
APPMGR_API void send_dsmcc_module_date_update_msg(unsigned short nModuleID,
                                                  unsigned char bIsDirRef, void* pData);

/* ---- application start and stop (middleware side) ------------------------
 * The middleware registers its start/stop callbacks; after the start
 * callback it calls application_manager_cmd_start, which hands the start URL
 * to the browser. */
APPMGR_API void application_manager_register(application_mngr_callback start,
                                             application_mngr_callback stop);
APPMGR_API int application_manager_cmd_start(void);
APPMGR_API int application_manager_cmd_stop(void);
/* Tells the browser that memory runs low (only while active). */
APPMGR_API void memoryLow(void);
/* Hands a stream event (location, event texts) to the browser. */
APPMGR_API void dispatchStreamEvent(char* location, StreamEvent* event);
/* The middleware's display mode changed; the value passes through. */
APPMGR_API void displayModeChanged(int newMode);

/* ---- the middleware's own menus ------------------------------------------ */

/* 1 switches the signalled digital teletext application on, 0 off. */
APPMGR_API int toggleTeletextApplication(int state);
/* Opens a broadcaster portal (player page, XML AIT or plain URL) / closes it. */
APPMGR_API int openWebPortal(char* webPortalURL);
APPMGR_API int closeWebPortal(void);
/* 1 when the URL answers (HEAD probe; portal origins are not probed). */
APPMGR_API int Hbbtv_AM_Probe_Url(char* pUrl);
/* Starts a URL from a menu; only eLaunchFormBroadcastApp launches. */
APPMGR_API int Hbbtv_AM_Launch_Application(eLaunchType eType, char* pUrl);

/* Browser settings passed through. The add-on also sets the terminal's
 * HbbTV version from its "HbbTV/x.y.z " part. */
APPMGR_API void configureUserAgentAddon(char* userAgentAddOn);
APPMGR_API void configureCookies(int enableCookies);
APPMGR_API void configureDNT(int state);
APPMGR_API void configureAcceptLanguage(char* acceptLanguage);
/* Screen-saver state: decides the page-transparency check. */
APPMGR_API void signalStatusNotification(int saver);

/* ---- key sets -----------------------------------------------------------
 * Sets the key groups (OIPF KeySet bits, 0 to 0x7FF) the running application
 * receives and tells the browser and the platform. Without an otherKeys list
 * the "other keys" group (0x400) is dropped; until the application is
 * activated only the colour and navigation keys (0x1F) pass. Returns the mask
 * now in force, 0 for a mask out of range, and 1 (nothing done) unless the
 * manager is initialised or a portal is shown. The list is not read. */

APPMGR_API int setKeySet(int value, int* otherKeys);

/* Injects a remote-control key into the graphics system's remote-input
 * service (local TCP port 3585): 0 sent or unknown key, -1 on a connection
 * or write failure. The connection is opened on first use and kept; after a
 * failure every call fails until resetRemoteKeySocket. */
APPMGR_API int sendIrCmd(uint16_t key);
/* Closes the remote-input connection; the next key reconnects. */
APPMGR_API void resetRemoteKeySocket(void);

APPMGR_END_DECLS

#endif /* APP_MGR_H */
