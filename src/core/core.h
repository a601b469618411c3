// The application core: which page the browser shows beside the service
// and how it gets there.
//
// It starts and ends applications (URL classification, probing, carousel
// checks, current-AIT locators, relative URLs, load-error recovery), chooses
// the autostart application of a table, reacts to the network state, runs
// the teletext application and the web portal, keeps the key set, waits for
// the browser and handles its crashes.
//
// Locking: every function below that reads or changes the manager record
// must be called with the manager lock held (state::ManagerLock); they say
// "(lock held)". The exported entry points of the core (app_mgr.h) take it
// themselves.
#pragma once

#include <cstdint>

#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"
#include "structs/records.h"

extern "C" {

// ---- queries of the running application (lock held) ----
void get_application_info(ApplicationInfo* info);
int get_application_type(void);
void getRuningApplicationType(ApplicationType* type);
int find_application_index(char* u);
int hasApplicationRuning(void);
int isCurrentApplicationVisible(void);

// ---- URLs (lock held) ----
int check_url_type(char* url);
int parseURI(char* URI, URIInfo* out);
int handle_url(char* url);
int compareUrlOrigin(char* url1, char* url2);
char* combinationUrl(char* dvb_url, char* location_url);
int find_app_from_ait(char* url);
int load_app_from_current_ait(URIInfo info);

// ---- starting (application_start.cpp) and ending (application_end.cpp)
// applications, presentation (presentation.cpp); lock held ----
void application_manager_request_start(void);
void application_manager_request_stop(void);
int application_create(char* param_url);
void application_destroy(int orgid, int appid);
void kill_application(void);
int restartApplication(void);
void update_running_application(Application* a);
void update_running_application_as_independent(char* uri);
void application_switch_to_independent(void);
void handle_application_load_error(char* app_url);
void application_load_error(void);
void application_show(int is_css);
void application_hide(int is_css);
void setApplicationActivate(unsigned int bIsActivate);
void setCheckPageTransparent(int mode);
void tune_to_current_channel(void);

// ---- autostart and the checks every start passes (lock held) ----
void runAutostartApplication(AitTable* ait);
void find_autostart_app(Application* applications, int length);
int check_parental_rating(parental_rating_descriptor* app_parental);
int check_support_version(int app_profile, int version_major, int version_minor,
                          int version_micro);

// ---- teletext, portal, notifications ----
int hasTeletextApplication(void);          // lock held
int find_teletext_application_index(void); // lock held
int openWebPortalFailed(void);             // lock held
int send_curr_epg_update_msg(void);
int delete_all_fsa_file(void);
int get_free_mem(void);

// ---- broadband AITs ----
// HEAD probe of an application URL: 1 reachable; 0 not, or the network is
// off (lock held).
int probe_http_app(char* http_app_url);
// Downloads a single-application XML AIT and starts its application (takes
// the lock for the start).
int parse_xml_ait(char* ait_url);
// Downloads a list XML AIT and hands its table to the autostart run (takes
// the lock for the hand-over).
int xmlAitUpdate(char* ait_url);
// Starts the application of an XML AIT text (lock held).
int ParseXmlAitFile(char* text, int length);
// URL of the best HbbTV application of an XML AIT text (pXMLAitUrl: 1024
// bytes). 1 when one was chosen.
int getUrlFromXMLAitFile(char* pXMLAitFile, int nXMLAitFileLen, char* pXMLAitUrl,
                         int* nXMLAitUrlLen);

// ---- key sets ----
void setActivateKeySet(void);
const char* map_key(uint8_t key);

}  // extern "C"

namespace appmgr::core {

// ---- the one launch path (lock held) ----

// A start of a page. What differs between the ways a page is started is
// said here; everything else is the same sequence: set the running type,
// announce the boundary, put the URL in place and ask the middleware to
// start (through application_create's checks, or as it is), and record the
// running application.
struct Launch {
    const char* url = nullptr;
    // The signalled entry the page belongs to: recorded as the running
    // application. Null: an unsignalled page, recorded as broadcast-
    // independent (and the broadcast is stopped).
    const Application* entry = nullptr;
    // Announced to the browser before the page; null: none.
    const char* boundary = nullptr;
    // Running type set first; INVALID_APPLICATION_TYPE keeps it.
    ApplicationType kind = INVALID_APPLICATION_TYPE;
    // Through application_create (probing, carousel check, locators,
    // relative URLs) or handed over as it is.
    bool checked = true;
};
// 1 when the page was started (or handed on), 0 otherwise.
int launch(const Launch& request);

// The boundary of an entry, or "no boundary".
const char* boundary_of(const Application& entry);

// Starts the autostart candidate (state::autostart(), non-null) as the
// running broadcast-related application.
void start_autostart_app();

// Hands a URL to the browser as it is: it becomes the start URL and the
// middleware is asked to start HbbTV. The portal's own pages (its error
// page) go this way; applications go through finish_start.
void hand_to_browser(const char* url);
// The end of every start that passed its checks: hand_to_browser, then the
// broadcast stops when asked (the page replaces it), then the loaded page is
// forgotten until the browser reports the new one.
void finish_start(const char* url, bool stop_the_broadcast);

// ---- ends ----
// Ends the running application through application_destroy (no-op when none).
void destroy_running_application();
// The browser's load error for the page last handed to it.
void handle_load_error(const char* url);
// Restarts the autostart application of the current AIT (takes the lock):
// after an application ended, on the EXIT key and for
// applicationManagerRestart. 1 if one was started.
int restart();
// Ends the running application because the library is shutting down
// (deinit or close): nothing is restarted in its place (lock held).
void end_for_shutdown();

// ---- browser messages on "Application" (lock held unless stated) ----
void on_exit_key();
void on_application_activated();

// ---- the browser process (no lock) ----
// Waits up to the browser time-out for the browser's state report.
int wait_for_browser();
// The browser's state report (message 83): non-zero present, zero gone.
void on_browser_state_report(int value);
// The browser closed its "Application" connection: it crashed.
void on_browser_crashed();
// Ends every browser wait and joins its thread (library close).
void stop_browser_waits();

// ---- key sets ----
// The key set now in force (lock held).
int current_key_set_value();

}  // namespace appmgr::core
