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

// One row per flag: the accessor's name and the exported storage. A row
// makes the reader `name()` (an acquire load) and the writer
// `set_name(bool)` (a release store) in state.cpp.
#define APPMGR_LIFECYCLE_FLAGS(FLAG)                                           \
    /* the browser reported itself within a start-up wait */                   \
    FLAG(browser_running, webkit_running)                                      \
    /* the factory test marker was found at start-up */                        \
    FLAG(tessel, is_tessel)                                                    \
    /* the EPG search module started */                                        \
    FLAG(epg_initialized, epgExternalsInitialized)

#define APPMGR_DECLARE_FLAG(name, storage) \
    bool name();                           \
    void set_##name(bool on);
APPMGR_LIFECYCLE_FLAGS(APPMGR_DECLARE_FLAG)
#undef APPMGR_DECLARE_FLAG

AppMgrState library();
void set_library(AppMgrState s);
// The library state is APP_MANAGER_INITIALIZED.
bool active();
const char* library_name(AppMgrState s);

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

// ---- manager record: the plain fields (manager lock required) ------------------

// One row per field: the accessor's name, its type and the exported
// storage. state.cpp turns every row into accessors that check the manager
// lock first (the test build aborts without it), so a field cannot be added
// without its check.
//   VALUE           reader `name()` and writer `set_name(value)`
//   TEXT            a fixed-size text: the reader gives the buffer, the
//                   writer copies (cut to the buffer, always terminated)
//   OBJECT          a record changed in place: `name()` gives a reference
//   FOR_MIDDLEWARE  written only for the middleware, which reads the
//                   exported name; the library never reads it, so there is
//                   a writer only
#define APPMGR_MANAGER_FIELDS(VALUE, TEXT, OBJECT, FOR_MIDDLEWARE)                      \
    /* how the running application relates to the broadcast */                          \
    VALUE(running_type, ApplicationType, running_application_type)                      \
    /* the autostart candidate: borrowed, valid while the table it points    */         \
    /* into lives (the current AIT or a table handed to the autostart run)   */         \
    VALUE(autostart, Application*, autostart_app)                                       \
    VALUE(broadcast, VideoBroadcastState, current_broadcast_state)                      \
    VALUE(tune_requester, TunningRequestType, tunning_requested_by)                     \
    VALUE(network, NetworkStatus, network_status)                                       \
    VALUE(portal, bool, is_portal_mode)                                                 \
    VALUE(visible, bool, is_app_visible)                                                \
    VALUE(screen_saver, int, screen_saver)                                              \
    VALUE(activated, bool, bIsApplicationActivated)                                     \
    /* a shut-down is ending the running application */                                 \
    VALUE(deinit_in_progress, bool, is_deinit)                                          \
    /* the current AIT signals a teletext application (set with the table) */           \
    VALUE(has_teletext, bool, has_teletext_application)                                 \
    VALUE(teletext_index, int, teletext_application_index)                              \
    /* the key set in force and the mask last requested */                              \
    VALUE(key_set, KeySet, keySet)                                                      \
    VALUE(requested_keys, int, activateValue)                                           \
    /* URL of the page the browser last reported loaded */                              \
    TEXT(loaded_url, loaded_application)                                                \
    /* URL handed to the browser when the middleware starts HbbTV */                    \
    TEXT(start_url, hbbtv_start_url)                                                    \
    /* locator of the service that carried the last table offered */                    \
    TEXT(carrier_url, s_dvb_url)                                                        \
    /* the display window saved when the portal opened */                               \
    OBJECT(saved_window, fpi_zoom_setting_window_t, nZoomdisplayWindow)                 \
    /* the pending stream-event listeners: requests for URLs relative to a   */         \
    /* page that arrived before any page was loaded. Under the manager lock  */         \
    /* so that "no page yet, keep the request" cannot interleave with the    */         \
    /* browser reporting its page loaded.                                    */         \
    OBJECT(pending_stream_events, StreamEvents, streamEventsForSubscription)            \
    /* the type of the last table offered */                                            \
    FOR_MIDDLEWARE(current_ait_type, AitTableApplicationType, current_ait_app_type)     \
    /* cleared when an empty table arrives */                                           \
    FOR_MIDDLEWARE(service_bound, bool, service_bound)

#define APPMGR_DECLARE_VALUE(name, Type, storage) \
    Type name();                                  \
    void set_##name(Type value);
#define APPMGR_DECLARE_TEXT(name, storage) \
    const char* name();                    \
    void set_##name(const char* text);
#define APPMGR_DECLARE_OBJECT(name, Type, storage) Type& name();
#define APPMGR_DECLARE_FOR_MIDDLEWARE(name, Type, storage) void set_##name(Type value);
APPMGR_MANAGER_FIELDS(APPMGR_DECLARE_VALUE, APPMGR_DECLARE_TEXT, APPMGR_DECLARE_OBJECT,
                      APPMGR_DECLARE_FOR_MIDDLEWARE)
#undef APPMGR_DECLARE_VALUE
#undef APPMGR_DECLARE_TEXT
#undef APPMGR_DECLARE_OBJECT
#undef APPMGR_DECLARE_FOR_MIDDLEWARE

// ---- manager record: the tables and the running application (manager lock
// required) ------------------------------------------------------------------------
//
// Operations on more than one field at a time; each checks the lock as the
// generated accessors do. The middleware also reads first_run (set here with
// the table, never read by the library).

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

struct TerminalVersion {
    int major, minor, micro;
};
TerminalVersion terminal_version();
void set_terminal_version(TerminalVersion v);

}  // namespace appmgr::state
