// The manager's shared state and its one owner.
//
// Every piece of state that more than one thread touches lives here, and
// this module is the only code that writes it. The exported C names of
// app_mgr_state.h are the storage, so the middleware always reads current
// values. (The other exported names there belong to modules that own a
// resource of their own: the connections, the send lock, the remote-input
// socket.)
//
// The rule, in two parts:
//   1. The manager record (the current AIT, the running application and
//      everything that describes what the browser shows) is read and written
//      only while the calling thread holds the manager lock, a ManagerLock
//      (the recursive AIT guard). Every accessor in the "manager record"
//      section checks that; a test build aborts on a violation.
//   2. The lifecycle flags are atomics: any thread reads them, only the
//      lifecycle (library start, close, browser hand-shake) writes them.
//
// The manager lock is never held while waiting for another thread of the
// library (joining a receive thread, waiting for the browser) and sends to
// the browser never block, so holding it is always bounded by the calls
// into the middleware and the HTTP transfers made under it.
#pragma once

#include <string>

#include "app_mgr_platform_types.h"
#include "app_mgr_stream_events.h"
#include "app_mgr_types.h"
#include "structs/records.h"

namespace appmgr::state {

// ---- the manager lock -------------------------------------------------------

// Takes the manager lock for a scope. The lock exists for the whole life of
// the process, so taking it cannot fail; only the exported lockAitGuard
// refuses before initAitGuard (and after deinitAitGuard), as middleware
// callers expect.
class ManagerLock {
public:
    ManagerLock();
    ~ManagerLock();
    ManagerLock(const ManagerLock&) = delete;
    ManagerLock& operator=(const ManagerLock&) = delete;
};

// True when the calling thread holds the manager lock.
bool lock_held();
// True between initAitGuard and deinitAitGuard.
bool guard_ready();

// ---- lifecycle flags (atomic) ---------------------------------------------------

AppMgrState library();
void set_library(AppMgrState s);
// The library state is APP_MANAGER_INITIALIZED.
bool active();
const char* library_name(AppMgrState s);
// The browser reported itself within a start-up wait (webkit_running).
bool browser_running();
void set_browser_running(bool running);
// The factory test marker was found at start-up (is_tessel).
bool tessel();
void set_tessel(bool on);
// The EPG search module started (epgExternalsInitialized).
bool epg_initialized();
void set_epg_initialized(bool on);

// The process-private semaphore of the library (sem), set to 0 at start-up.
void init_semaphore();

// The User-Agent store (activeAMUserAgent), guarded by its own mutex since
// the middleware sets it while browser requests read it. Texts of 4096
// bytes or more are cut.
void set_user_agent(const char* text);
// A copy of the stored text; *stored is false when none was ever stored.
std::string user_agent(bool* stored);
// The stored text itself (the exported buffer), or null when none.
char* user_agent_buffer();

// The middleware's start/stop callbacks (registered at any time, even
// before the library starts; guarded by their own mutex).
void register_callbacks(application_mngr_callback start, application_mngr_callback stop);
application_mngr_callback_item_t callbacks();

// ---- manager record (manager lock required) -----------------------------------------

// The current AIT.
const AitTable& current_ait();
// The current AIT's locator buffer itself, for the exported
// get_current_dvb_url (no lock: the middleware orders its reads itself).
char* current_dvb_url_buffer();
// An entry of the current AIT by index (null when out of range).
Application* current_entry(int index);
int current_entry_count();
// Replaces the current AIT by a deep copy of `table`, makes every entry
// startable again and notes whether a teletext application is signalled.
// False when out of memory (the current AIT is then empty).
bool replace_current_ait(const AitTable& table);
// Empties the current AIT (every field, dvb_url included).
void clear_current_ait();
// Start-of-life reset of the current AIT (dvb_url kept); first_run set.
void init_current_ait();
// Index of the first entry whose URL equals `url` exactly, or -1.
int find_entry(const char* url);
// Load errors mark entries that must not be chosen again until the next
// table: false for a marked entry (and for an index out of range).
bool entry_startable(int index);
void mark_entry_failed(int index);

// Version of the last accepted table. accept_version takes a newer one
// (31 -> 0 counts as newer) and answers whether it was newer.
bool accept_version(int version);
void forget_version();
void set_current_ait_type(AitTableApplicationType type);
// Locator of the service that carried the last table offered (s_dvb_url).
const char* carrier_url();
void set_carrier_url(const char* url);
void clear_service_bound();
bool has_teletext();
int teletext_index();
void set_teletext_index(int index);

// The running application (a private copy), or null.
const Application* running();
// Makes a deep copy of `entry` the running application (control code
// PRESENT activates it). A null URL in the entry is not copied. False when
// out of memory.
bool set_running(const Application& entry);
// Makes `url` the running application as a broadcast-independent record
// (ids and control code -1, not service bound).
bool set_running_independent(const char* url);
// Releases the running application (and resets the display mode).
void clear_running();
ApplicationType running_type();
void set_running_type(ApplicationType type);
// The autostart candidate: borrowed, valid while the table it points into
// lives (the current AIT or a table handed to the autostart run).
Application* autostart();
void set_autostart(Application* entry);

VideoBroadcastState broadcast();
void set_broadcast(VideoBroadcastState s);
TunningRequestType tune_requester();
void set_tune_requester(TunningRequestType who);
NetworkStatus network();
void set_network(NetworkStatus status);
bool portal();
void set_portal(bool on);
bool visible();
void set_visible(bool on);
int screen_saver();
void set_screen_saver(int saver);
bool activated();
void set_activated(bool on);
// A shut-down is ending the running application (is_deinit).
bool deinit_in_progress();
void set_deinit_in_progress(bool on);

// URL of the page the browser last reported loaded (loaded_application).
const char* loaded_url();
void set_loaded_url(const char* url);
// URL handed to the browser when the middleware starts HbbTV (hbbtv_start_url).
const char* start_url();
void set_start_url(const char* url);

struct TerminalVersion {
    int major, minor, micro;
};
TerminalVersion terminal_version();
void set_terminal_version(TerminalVersion v);

// The display window saved when the portal opened.
fpi_zoom_setting_window_t& saved_window();

// The key set in force (keySet) and the mask last requested.
KeySet key_set();
void set_key_set(KeySet keys);
int requested_keys();
void set_requested_keys(int mask);

// The pending stream-event listeners (streamEventsForSubscription): requests
// for URLs relative to a page that arrived before any page was loaded. Kept
// under the manager lock so that "no page yet, keep the request" cannot
// interleave with the browser reporting its page loaded.
StreamEvents& pending_stream_events();

}  // namespace appmgr::state
