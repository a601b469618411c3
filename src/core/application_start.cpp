// How an application starts.
//
// Every start goes through core::launch: set the running type, announce the
// boundary (command 59), check the URL and put it in place
// (application_create: HTTP probe, carousel check, current-AIT locators,
// relative URLs), record the running application. Every start that passes
// its checks ends the same way (finish_start): the URL becomes the start URL
// and the middleware's start callback is called, the broadcast stops when
// the page replaces it, and the loaded page is forgotten until the browser
// reports the new one. The middleware answers the callback with
// application_manager_cmd_start, which sends the URL to the browser
// (command 50, or 140 for the portal).
//
// How applications end, and what a load error starts instead, is in
// application_end.cpp; showing and hiding in presentation.cpp.
#include <cstdio>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "common/decision.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "core/core_private.h"
#include "dsmcc/dsmcc.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
namespace core = appmgr::core;
using appmgr::protocol::Command;
using appmgr::records::entry_url;

namespace {

constexpr const char* kNoBoundary = "no boundary";

// Starts nest: a load error chooses and starts another entry from inside
// the failed start. Each failed entry is marked, so a chain ends with the
// table; the depth limit is a second stop for tables that point at each
// other in ways the marks do not catch.
constexpr int kMaxNestedStarts = 16;
thread_local int t_start_depth = 0;
thread_local int t_starting_entry = -1;

class NestedStart {
public:
    NestedStart() { ++t_start_depth; }
    ~NestedStart() { --t_start_depth; }
    NestedStart(const NestedStart&) = delete;
    NestedStart& operator=(const NestedStart&) = delete;
    bool allowed() const { return t_start_depth <= kMaxNestedStarts; }
};

class EntryBeingStarted {
public:
    explicit EntryBeingStarted(int index) : saved_(t_starting_entry) { t_starting_entry = index; }
    ~EntryBeingStarted() { t_starting_entry = saved_; }
    EntryBeingStarted(const EntryBeingStarted&) = delete;
    EntryBeingStarted& operator=(const EntryBeingStarted&) = delete;

private:
    int saved_;
};

// Index of `entry` in the current AIT, or -1 when it belongs to another table.
int current_index_of(const Application* entry) {
    const AitTable& current = state::current_ait();
    if (entry == nullptr || current.apps == nullptr) return -1;
    if (entry < current.apps || entry >= current.apps + current.app_lenght) return -1;
    return static_cast<int>(entry - current.apps);
}

// Broadcaster portal pages are started without a probe: their servers are
// known to answer and probing them would only delay the red-button page.
constexpr const char* kPortalOrigins[] = {
    "http://www.live.bbctvapps.co.uk/",  "https://www.live.bbctvapps.co.uk/",
    "http://www.test.bbctvapps.co.uk/",  "https://www.test.bbctvapps.co.uk/",
};

// The HTTP probe of a broadband start; false when the start must not go on
// (held while the network state is checked, or a failed probe, which is a
// load error).
bool broadband_reachable(char* url) {
    if (state::network() == NETWORK_CHECKING) {
        // Held until the network state is known; the autostart runs
        // again then.
        AM_DECISION(AM_LOG_INFO, decision::at(decision::Kind::Held, url),
                    "network_status:%d is checking, hold Http App util network ok\n",
                    static_cast<int>(state::network()));
        return false;
    }
    if (core::is_portal_origin(url) || state::portal()) {
        AM_INFO("application_create is in bbc RB+ , do not probe ,url:[%s]\n\n", url);
        return true;
    }
    AM_INFO("Detected Http App\n");
    if (probe_http_app(url) != 0) return true;
    AM_DECISION(AM_LOG_INFO, decision::at(decision::Kind::ProbeFailed, url),
                " Http App probing failed !!!\n");
    handle_application_load_error(url);
    return false;
}

int create_broadband(char* url, int type) {
    AM_INFO("Http or file protocol found!\n");
    if (type == HTTP_URL && !broadband_reachable(url)) return 0;
    const bool independent = state::running_type() == BROADCAST_INDEPENDENT;
    core::finish_start(url, independent);
    if (independent) {
        appmgr::protocol::send_text(Command::SetBoundary, kNoBoundary);
        update_running_application_as_independent(url);
    }
    return 1;
}

int create_carousel(char* url) {
    AM_INFO("Mounting carousel for url:[%s]\n", url);
    switch (hbbCheckDSMCCExist(url)) {
        case eHBBTV_FS_CHECK_BREAK_TYPE:
            AM_INFO("hbbCheckDSMCCEntryType break\n\n");
            return 0;
        case eHBBTV_FS_CHECK_INVALID_TYPE:
            AM_INFO("hbbCheckDSMCCEntryType failed\n\n");
            if (!state::portal()) handle_application_load_error(url);
            return 0;
        default: break;
    }
    AM_INFO("Mounting carousel successful.url:[%s]\n\n", url);
    if (state::portal()) return 0;
    core::finish_start(url, false);
    return 1;
}

int create_current_ait_entry(char* url) {
    AM_INFO("DVB_CURRENT_URL found!\n");
    const int found = find_app_from_ait(url);
    if (found == 0) handle_application_load_error(url);
    return found;
}

// A relative URL, resolved against the page last loaded.
int create_relative(const char* url) {
    AM_INFO("Relative url found\n");
    std::string base = state::loaded_url();
    const auto slash = base.rfind('/');
    if (slash == std::string::npos) {
        AM_ERROR("Full URL: %s is not a good url\n", base.c_str());
        return 0;
    }
    // Past a scheme's "://" the base is cut after its last "/".
    if (slash > 7) {
        base.resize(slash + 1);
        AM_INFO("Base URL: %s\n", base.c_str());
    }
    char full[2048];
    std::snprintf(full, sizeof(full), "%s%s", base.c_str(), url);
    AM_INFO("Full URL: %s\n", full);
    // A base of no known form would give another relative URL to resolve
    // against the same base, without end.
    const int type = check_url_type(full);
    if (type == UNKNOWN_URL_TYPE || type == XML_AIT_FILE) {
        AM_ERROR("Full URL: %s cannot be started\n", full);
        return 0;
    }
    return handle_url(full);
}

}  // namespace

namespace appmgr::core {

bool is_portal_origin(const char* url) {
    if (url == nullptr) return false;
    for (const char* origin : kPortalOrigins)
        if (std::strncmp(url, origin, std::strlen(origin)) == 0) return true;
    return false;
}

void stop_broadcast() {
    hbbStopChannel();
    state::set_broadcast(VBOS_STOPPED);
}

void hand_to_browser(const char* url) {
    state::set_start_url(url);
    application_manager_request_start();
}

void finish_start(const char* url, bool stop_the_broadcast) {
    hand_to_browser(url);
    if (stop_the_broadcast) stop_broadcast();
    state::set_loaded_url("");
}

void ask_middleware(bool start) {
    const application_mngr_callback_item_t callbacks = state::callbacks();
    const application_mngr_callback callback =
        start ? callbacks.hbbtv_start_app_callback : callbacks.hbbtv_stop_app_callback;
    if (callbacks.enable_flag != 1 || callback == nullptr) return;
    hbbIsAllowStopChannel(start ? 1 : 0);
    callback();
}

const char* boundary_of(const Application& entry) {
    return entry.app_boundary != nullptr ? entry.app_boundary : kNoBoundary;
}

int entry_being_started() { return t_starting_entry; }

int launch(const Launch& request) {
    if (request.url == nullptr) return 0;
    // The start may replace the table the entry lives in (an XML AIT
    // empties the current AIT), so it works on copies.
    std::string url = request.url;
    records::ApplicationPtr entry;
    if (request.entry != nullptr) {
        entry = records::copy_application(*request.entry);
        if (entry == nullptr) {
            AM_ERROR("out of memory starting %s\n", url.c_str());
            return 0;
        }
    }
    const std::string boundary = request.boundary != nullptr ? request.boundary : "";
    EntryBeingStarted starting(current_index_of(request.entry));

    if (request.kind != INVALID_APPLICATION_TYPE) state::set_running_type(request.kind);
    if (request.boundary != nullptr) protocol::send_text(Command::SetBoundary, boundary.c_str());
    if (request.checked) {
        if (!application_create(url.data())) return 0;
    } else {
        // An unsignalled page handed over as it is replaces the broadcast.
        finish_start(url.c_str(), entry == nullptr);
        if (entry == nullptr) update_running_application_as_independent(url.data());
    }
    if (entry != nullptr) update_running_application(entry.get());
    state::set_loaded_url("");
    return 1;
}

void start_autostart_app() {
    const Application* chosen = state::autostart();
    if (chosen == nullptr) return;
    Launch start;
    start.url = entry_url(*chosen);
    start.entry = chosen;
    start.boundary = boundary_of(*chosen);
    start.kind = BROADCAST_RELATED;
    launch(start);
}

}  // namespace appmgr::core

extern "C" {

void application_manager_request_start(void) { appmgr::core::ask_middleware(true); }

int application_create(char* param_url) {
    if (param_url == nullptr) {
        AM_ERROR("param_url is NULL\n");
        return 0;
    }
    NestedStart nested;
    if (!nested.allowed()) {
        AM_ERROR("application starts nested %d deep: %s not started\n", t_start_depth, param_url);
        return 0;
    }
    // Longer URLs are cut to 1023 characters; every later step uses the copy.
    char url[1024];
    std::snprintf(url, sizeof(url), "%s", param_url);
    AM_INFO("int application_create(%s) CALLED!\n", url);
    const int type = check_url_type(url);
    switch (type) {
        case HTTP_URL:
        case FILE_URL: return create_broadband(url, type);
        case DVB_URL: return create_carousel(url);
        case DVB_CURRENT_URL: return create_current_ait_entry(url);
        default: return create_relative(url);
    }
}

void update_running_application(Application* a) {
    if (a == nullptr) return;
    if (entry_url(*a) == nullptr) {
        appmgr::protocol::send_text(Command::StartApplication, "about:blank");
        return;
    }
    if (!state::set_running(*a)) {
        AM_ERROR("out of memory copying the running application\n");
        return;
    }
    if (a->control_code == PRESENT) setApplicationActivate(1);
}

void update_running_application_as_independent(char* uri) {
    if (uri != nullptr && !state::set_running_independent(uri))
        AM_ERROR("out of memory recording the running application\n");
}

// ---- exported ----

APPMGR_API void application_manager_register(application_mngr_callback start,
                                             application_mngr_callback stop) {
    state::register_callbacks(start, stop);
}

APPMGR_API int application_manager_cmd_start(void) {
    return appmgr::c_entry(__func__, 0, [] {
        state::ManagerLock lock;
        const bool portal = state::portal();
        AM_INFO("call application_manager_cmd_start,is_portal_mode=%d\n\n", portal ? 1 : 0);
        if (!portal) {
            appmgr::protocol::send_text(Command::StartApplication, state::start_url());
            hbbStateChange(EN_HBB_RED_BUTTON);
        } else {
            appmgr::protocol::send_text(Command::StartPortal, state::start_url());
        }
        return 1;
    });
}

}  // extern "C"
