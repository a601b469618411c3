// The storage of the manager's shared state (the exported C names), the
// manager lock, and the accessors through which the rest of the library
// reads and writes it. See state.h for the rule.
#include "state/state.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <type_traits>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/atomic_word.h"
#include "common/log.h"
#include "hbb_platform.h"

extern "C" {
// ---- lifecycle ----
APPMGR_API AppMgrState appmgr_state = APP_MANAGER_DEINITIALIZED;
APPMGR_API pthread_mutex_t appmgr_mutex = PTHREAD_MUTEX_INITIALIZER;
APPMGR_API pthread_cond_t appmgr_cond_var;
APPMGR_API pthread_condattr_t appmgr_condattr;
APPMGR_API int webkit_running = 0;
APPMGR_API int is_deinit = 0;
APPMGR_API int is_portal_mode = 0;
APPMGR_API int is_tessel = 0;
APPMGR_API int epgExternalsInitialized = 0;
APPMGR_API sem_t sem;
APPMGR_API char activeAMUserAgent[4096];
APPMGR_API int activeAMUserAgentSet = 0;

// ---- applications and the current AIT ----
APPMGR_API AitTable current_ait;
APPMGR_API Application* running_application = nullptr;
APPMGR_API Application* autostart_app = nullptr;
APPMGR_API ApplicationType running_application_type = BROADCAST_RELATED;
APPMGR_API VideoBroadcastState current_broadcast_state = VBOS_UNREALIZED;
// Exported for the middleware; the library only sets it (nothing reads it).
APPMGR_API int first_run = 0;
APPMGR_API int has_teletext_application = 0;
APPMGR_API int teletext_application_index = -1;
APPMGR_API int current_version = 0;
// Exported for the middleware; the library only sets it (nothing reads it).
APPMGR_API AitTableApplicationType current_ait_app_type = HBBTV_APPLICATION_TYPE;
APPMGR_API TunningRequestType tunning_requested_by = REQUESTED_BY_RELATED_TYPE;
// Exported for the middleware; the library only clears it (nothing reads it).
APPMGR_API int service_bound = 0;
APPMGR_API char s_dvb_url[256];
APPMGR_API NetworkStatus network_status = NETWORK_OFF;
APPMGR_API int is_app_visible = 0;
APPMGR_API int screen_saver = 0;
APPMGR_API unsigned int bIsApplicationActivated = 0;
APPMGR_API char loaded_application[4096];
APPMGR_API char hbbtv_start_url[4096];
// Exported for the middleware; the library never uses it (always null).
APPMGR_API hbbApplication* running_hbb_application = nullptr;
APPMGR_API int teminal_version_major = 0;
APPMGR_API int teminal_version_minor = 0;
APPMGR_API int teminal_version_micro = 0;
APPMGR_API application_mngr_callback_item_t s_application_mngr_callback;
APPMGR_API unsigned char* application_vadility_flags = nullptr;
APPMGR_API fpi_zoom_setting_window_t nZoomdisplayWindow;

// ---- key sets ----
APPMGR_API KeySet keySet = {0, 0};
APPMGR_API int activateValue = 0;

// ---- pending stream-event listeners ----
APPMGR_API StreamEvents streamEventsForSubscription;
}

namespace appmgr::state {
namespace {

// The guard is never destroyed: a middleware thread may still be inside an
// entry point (or waiting for the guard) when the library closes, and must
// find a valid mutex whatever it does next. "Initialised" only decides
// whether the guard may be taken.
pthread_mutex_t g_guard = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
std::atomic<bool> g_guard_ready{false};
thread_local int t_guard_depth = 0;

// Number of entries application_vadility_flags covers (the current AIT's).
int g_flag_count = 0;

std::mutex g_user_agent_mutex;
std::mutex g_callbacks_mutex;

// Every accessor of the manager record starts here. The test build stops at
// the first access without the lock, so that the suites (and TSan) find it.
inline void require_lock(const char* accessor) {
#ifdef APPMGR_TEST_SEAMS
    if (t_guard_depth <= 0) {
        std::fprintf(stderr, "manager state accessed without the manager lock: %s\n", accessor);
        std::abort();
    }
#else
    (void)accessor;
#endif
}
#define REQUIRE_LOCK() require_lock(__func__)

// Copies at most size - 1 characters, never reading further: a locator of
// a middleware table need not be terminated within its field.
void copy_text(char* dst, std::size_t size, const char* src) {
    std::snprintf(dst, size, "%.*s", static_cast<int>(size - 1), src != nullptr ? src : "");
}

// The exported storage keeps the C types of the interface (int flags,
// unsigned activation); the accessors speak bool where the value is one.
template <typename Type, typename Storage>
Type from_storage(Storage value) {
    if constexpr (std::is_same_v<Type, bool>)
        return value != 0;
    else
        return value;
}
template <typename Storage, typename Type>
Storage to_storage(Type value) {
    if constexpr (std::is_same_v<Type, bool>)
        return value ? 1 : 0;
    else
        return value;
}

void reset_flags(int count) {
    std::free(application_vadility_flags);
    application_vadility_flags = nullptr;
    g_flag_count = 0;
    if (count <= 0) return;
    application_vadility_flags = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(count)));
    if (application_vadility_flags == nullptr) return;
    std::memset(application_vadility_flags, 1, static_cast<std::size_t>(count));
    g_flag_count = count;
}

}  // namespace

// ---- the manager lock ------------------------------------------------------

ManagerLock::ManagerLock() {
    pthread_mutex_lock(&g_guard);
    ++t_guard_depth;
}

ManagerLock::~ManagerLock() {
    --t_guard_depth;
    pthread_mutex_unlock(&g_guard);
}

bool lock_held() { return t_guard_depth > 0; }

bool guard_ready() { return g_guard_ready.load(); }

// ---- lifecycle flags ---------------------------------------------------------

AppMgrState library() { return load_acquire(appmgr_state); }
void set_library(AppMgrState s) { store_release(appmgr_state, s); }
bool active() { return library() == APP_MANAGER_INITIALIZED; }

const char* library_name(AppMgrState s) {
    switch (s) {
        case APP_MANAGER_DEINITIALIZED: return "DEINITIALIZED";
        case APP_MANAGER_SUSPENDED: return "SUSPENDED";
        case APP_MANAGER_INITIALIZING: return "INITIALIZING";
        case APP_MANAGER_INITIALIZED: return "INITIALIZED";
    }
    return "UNKNOWN";
}

#define APPMGR_DEFINE_FLAG(name, storage)                                   \
    bool name() { return load_acquire(::storage) != 0; }                    \
    void set_##name(bool on) { store_release(::storage, on ? 1 : 0); }
APPMGR_LIFECYCLE_FLAGS(APPMGR_DEFINE_FLAG)
#undef APPMGR_DEFINE_FLAG

void init_semaphore() { sem_init(&sem, 0, 0); }

void set_user_agent(const char* text) {
    std::lock_guard<std::mutex> lock(g_user_agent_mutex);
    copy_text(activeAMUserAgent, sizeof(activeAMUserAgent), text);
    store_release(activeAMUserAgentSet, 1);
}

std::string user_agent(bool* stored) {
    std::lock_guard<std::mutex> lock(g_user_agent_mutex);
    *stored = load_acquire(activeAMUserAgentSet) != 0;
    return *stored ? std::string(activeAMUserAgent) : std::string();
}

char* user_agent_buffer() { return load_acquire(activeAMUserAgentSet) != 0 ? activeAMUserAgent : nullptr; }

void register_callbacks(application_mngr_callback start, application_mngr_callback stop) {
    std::lock_guard<std::mutex> lock(g_callbacks_mutex);
    s_application_mngr_callback.hbbtv_start_app_callback = start;
    s_application_mngr_callback.hbbtv_stop_app_callback = stop;
    s_application_mngr_callback.enable_flag = 1;
}

application_mngr_callback_item_t callbacks() {
    std::lock_guard<std::mutex> lock(g_callbacks_mutex);
    return s_application_mngr_callback;
}

// ---- manager record ------------------------------------------------------------

// The plain fields, one accessor pair per row of APPMGR_MANAGER_FIELDS.
#define APPMGR_DEFINE_VALUE(name, Type, storage)           \
    Type name() {                                          \
        require_lock(#name);                               \
        return from_storage<Type>(::storage);              \
    }                                                      \
    void set_##name(Type value) {                          \
        require_lock("set_" #name);                        \
        ::storage = to_storage<decltype(::storage)>(value); \
    }
#define APPMGR_DEFINE_TEXT(name, storage)                  \
    const char* name() {                                   \
        require_lock(#name);                               \
        return ::storage;                                  \
    }                                                      \
    void set_##name(const char* text) {                    \
        require_lock("set_" #name);                        \
        copy_text(::storage, sizeof(::storage), text);     \
    }
#define APPMGR_DEFINE_OBJECT(name, Type, storage) \
    Type& name() {                                \
        require_lock(#name);                      \
        return ::storage;                         \
    }
#define APPMGR_DEFINE_FOR_MIDDLEWARE(name, Type, storage)   \
    void set_##name(Type value) {                           \
        require_lock("set_" #name);                         \
        ::storage = to_storage<decltype(::storage)>(value); \
    }
APPMGR_MANAGER_FIELDS(APPMGR_DEFINE_VALUE, APPMGR_DEFINE_TEXT, APPMGR_DEFINE_OBJECT,
                      APPMGR_DEFINE_FOR_MIDDLEWARE)
#undef APPMGR_DEFINE_VALUE
#undef APPMGR_DEFINE_TEXT
#undef APPMGR_DEFINE_OBJECT
#undef APPMGR_DEFINE_FOR_MIDDLEWARE

// The tables and the running application.

const AitTable& current_ait() {
    REQUIRE_LOCK();
    return ::current_ait;
}

char* current_dvb_url_buffer() { return ::current_ait.dvb_url; }

Application* current_entry(int index) {
    REQUIRE_LOCK();
    if (index < 0 || index >= ::current_ait.app_lenght || ::current_ait.apps == nullptr)
        return nullptr;
    return &::current_ait.apps[index];
}

int current_entry_count() {
    REQUIRE_LOCK();
    return ::current_ait.apps != nullptr ? ::current_ait.app_lenght : 0;
}

bool replace_current_ait(const AitTable& table) {
    REQUIRE_LOCK();
    if (&table == &::current_ait) return true;
    clear_current_ait();
    const bool copied = records::copy_ait_into(table, ::current_ait);
    reset_flags(::current_ait.app_lenght);
    for (int i = 0; i < ::current_ait.app_lenght; ++i)
        if (::current_ait.apps[i].app_usage_type == 1) has_teletext_application = 1;
    first_run = 0;
    return copied;
}

void clear_current_ait() {
    REQUIRE_LOCK();
    // The autostart candidate may point into the table being released.
    if (autostart_app != nullptr && ::current_ait.apps != nullptr &&
        autostart_app >= ::current_ait.apps &&
        autostart_app < ::current_ait.apps + ::current_ait.app_lenght)
        autostart_app = nullptr;
    records::release_ait_fields(::current_ait);
    reset_flags(0);
    has_teletext_application = 0;
    teletext_application_index = -1;
}

void init_current_ait() {
    REQUIRE_LOCK();
    // Everything but the locator, which is kept.
    char locator[sizeof(::current_ait.dvb_url)];
    std::memcpy(locator, ::current_ait.dvb_url, sizeof(locator));
    records::release_ait_fields(::current_ait);
    std::memcpy(::current_ait.dvb_url, locator, sizeof(locator));
    reset_flags(0);
    first_run = 1;
}

int find_entry(const char* url) {
    REQUIRE_LOCK();
    if (url == nullptr || ::current_ait.apps == nullptr) return -1;
    for (int i = 0; i < ::current_ait.app_lenght; ++i) {
        const char* entry = records::entry_url(::current_ait.apps[i]);
        if (entry != nullptr && std::strcmp(entry, url) == 0) return i;
    }
    return -1;
}

bool entry_startable(int index) {
    REQUIRE_LOCK();
    return index >= 0 && index < g_flag_count && application_vadility_flags != nullptr &&
           application_vadility_flags[index] != 0;
}

void mark_entry_failed(int index) {
    REQUIRE_LOCK();
    if (index >= 0 && index < g_flag_count && application_vadility_flags != nullptr)
        application_vadility_flags[index] = 0;
}

bool accept_version(int version) {
    REQUIRE_LOCK();
    // AIT versions are 5 bits: only 31 -> 0 counts as a wrap.
    if (!(current_version == 31 && version == 0) && version <= current_version) return false;
    current_version = version;
    return true;
}

void forget_version() {
    REQUIRE_LOCK();
    current_version = -1;
}

const Application* running() {
    REQUIRE_LOCK();
    return running_application;
}

bool set_running(const Application& entry) {
    REQUIRE_LOCK();
    records::ApplicationPtr copy = records::copy_application(entry);
    if (copy == nullptr) return false;
    if (copy->transport_protocol == nullptr) {
        copy->transport_protocol = static_cast<transport_protocol_descriptor*>(
            std::calloc(1, sizeof(transport_protocol_descriptor)));
        if (copy->transport_protocol == nullptr) return false;
    }
    // Replacing the record is not an end of the application: the display
    // mode stays as it is.
    records::ApplicationDeleter()(running_application);
    running_application = copy.release();
    return true;
}

bool set_running_independent(const char* url) {
    REQUIRE_LOCK();
    if (url == nullptr) return false;
    const std::size_t size = std::strlen(url) + 1;
    Application* record = allocate_application(static_cast<unsigned int>(size));
    if (record == nullptr) return false;
    std::memcpy(record->transport_protocol->url, url, size);
    record->organisation_id = -1;
    record->app_id = -1;
    record->control_code = static_cast<ControlCode>(-1);
    record->is_service_bound = 0;
    records::ApplicationDeleter()(running_application);
    running_application = record;
    return true;
}

void clear_running() {
    REQUIRE_LOCK();
    if (running_application == nullptr) return;
    records::ApplicationDeleter()(running_application);
    running_application = nullptr;
    hbbSetDisplayMode(0);
}

TerminalVersion terminal_version() {
    REQUIRE_LOCK();
    return {teminal_version_major, teminal_version_minor, teminal_version_micro};
}

void set_terminal_version(TerminalVersion v) {
    REQUIRE_LOCK();
    teminal_version_major = v.major;
    teminal_version_minor = v.minor;
    teminal_version_micro = v.micro;
}

}  // namespace appmgr::state

using appmgr::state::g_guard;
using appmgr::state::g_guard_ready;
using appmgr::state::t_guard_depth;

extern "C" {

APPMGR_API int initAitGuard(void) {
    g_guard_ready.store(true);
    return 1;
}

// The guard itself stays: see g_guard. From here on it can no longer be
// taken; a thread that still holds it releases it normally.
APPMGR_API int deinitAitGuard(void) {
    g_guard_ready.store(false);
    return 1;
}

APPMGR_API int lockAitGuard(void) {
    if (!g_guard_ready.load()) return 0;
    if (pthread_mutex_lock(&g_guard) != 0) return 0;
    ++t_guard_depth;
    return 1;
}

// Only a thread that holds the guard may release it; anything else fails
// instead of corrupting the mutex.
APPMGR_API int unlockAitGuard(void) {
    if (t_guard_depth <= 0) return 0;
    --t_guard_depth;
    return pthread_mutex_unlock(&g_guard) == 0;
}

}  // extern "C"
