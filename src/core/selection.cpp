// Which application of a table may start: the autostart choice, the start
// of a named application of the current AIT, and the two checks every start
// passes (parental rating and terminal version).
#include <cstdio>
#include <cstring>

#include "common/decision.h"
#include "common/log.h"
#include "core/core.h"
#include "core/core_private.h"
#include "hbb_platform.h"
#include "parental_rating/parental_rating.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
using appmgr::records::entry_url;

namespace {

constexpr int kHttpTransport = 3;

bool begins_with(const char* text, const char* prefix) {
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

enum class Purpose { Autostart, Named };

// Load errors mark entries of the current AIT; entries of any other table
// (an XML AIT handed to the autostart run) start out startable.
bool startable(const Application* apps, int index) {
    const AitTable& current = state::current_ait();
    if (apps != current.apps) return true;
    return state::entry_startable(index);
}

// The eligibility rule shared by the autostart choice and the start of a
// named application; the checks run in this order and all must pass.
bool eligible(Application* apps, int index, Purpose purpose) {
    Application& app = apps[index];
    if (purpose == Purpose::Autostart) {
        if (app.control_code != AUTOSTART) return false;
    } else if (app.control_code == DISABLED || app.control_code == KILL) {
        return false;
    }
    if (app.transport_protocol == nullptr) return false;
    const NetworkStatus network = state::network();
    if (app.transport_protocol->protocol_id == kHttpTransport && network == NETWORK_OFF) return false;
    if (purpose == Purpose::Autostart && app.is_IP_connect_require == 1 && network != NETWORK_ON)
        return false;
    if (!startable(apps, index)) return false;
    if (purpose == Purpose::Autostart) {
        const char* url = entry_url(app);
        if (!begins_with(url, "http://") && !begins_with(url, "https://") &&
            !begins_with(url, "dvb://")) {
            std::printf("find_autostart_app called but not a good typen");
            std::fflush(stdout);
            return false;
        }
    }
    if (!check_parental_rating(&app.app_parental)) return false;
    int supported = check_support_version(app.app_profile, app.version_major, app.version_minor,
                                          app.version_micro);
    AM_INFO("check_support_version[%d] app_profile:%d, version:%d.%d.%d\n\n", supported,
            app.app_profile, app.version_major, app.version_minor, app.version_micro);
    return supported != 0;
}

// Table order; a later eligible entry wins only with a strictly higher
// priority.
Application* choose(Application* apps, int length, Purpose purpose, int org_id = 0,
                    int app_id = 0) {
    Application* best = nullptr;
    for (int i = 0; apps != nullptr && i < length; ++i) {
        Application& app = apps[i];
        if (purpose == Purpose::Named) {
            AM_INFO("current_ait::org_id: %d, current_ait::app_id: %d\n", app.organisation_id,
                    app.app_id);
            if (app.organisation_id != org_id || app.app_id != app_id) continue;
        }
        if (!eligible(apps, i, purpose)) continue;
        if (best == nullptr || app.app_priority > best->app_priority) best = &app;
    }
    return best;
}

}  // namespace

namespace appmgr::core {

Application* find_named_entry(int org_id, int app_id) {
    const AitTable& current = state::current_ait();
    return choose(current.apps, current.app_lenght, Purpose::Named, org_id, app_id);
}

}  // namespace appmgr::core

extern "C" {

void find_autostart_app(Application* applications, int length) {
    Application* chosen = choose(applications, length, Purpose::Autostart);
    if (chosen != nullptr) {
        state::set_autostart(chosen);
        AM_DECISION(AM_LOG_INFO, decision::about(decision::Kind::Autostart, chosen),
                    "autostart_app found\n");
        return;
    }
    AM_INFO("find autostart app s_dvb_url = %s\n\n", state::carrier_url());
    // While the network is still being checked an HTTP entry may yet become
    // eligible, so the platform is not told.
    if (state::network() != NETWORK_CHECKING) application_manager_invaild_app(state::carrier_url());
    state::set_autostart(nullptr);
    AM_DECISION(AM_LOG_INFO, decision::Event{decision::Kind::NoAutostart},
                "autostart_app NOT found\n");
}

// Without a threshold from the middleware a rated application is refused:
// the viewer's limit is unknown, and starting content the viewer may not
// see is worse than not starting it (docs/application-core.md).
int check_parental_rating(parental_rating_descriptor* app_parental) {
    if (app_parental == nullptr) return 1;
    AM_INFO("app_parental->count = %d\n", app_parental->count);
    if (app_parental->count <= 0 || app_parental->parental == nullptr) return 1;
    char scheme[] = "dvb-si";
    ParentalRating* threshold = parental_rating_get_threshold(scheme);
    // Only the first rating is compared; the country is not.
    const int allowed =
        threshold != nullptr && app_parental->parental[0].rating < threshold->value ? 1 : 0;
    parental_rating_destroy(threshold);
    return allowed;
}

int check_support_version(int app_profile, int version_major, int version_minor,
                          int version_micro) {
    if (app_profile != 0) return 0;
    const state::TerminalVersion terminal = state::terminal_version();
    // Part by part, not as one number: 1.5.1 on a 2.0.1 terminal fails.
    if (version_major > terminal.major || version_minor > terminal.minor ||
        version_micro > terminal.micro)
        return 0;
    // Terminals up to 1.2.1 activate applications at once.
    if (terminal.major < 2 && terminal.minor < 3 && terminal.micro < 2) setApplicationActivate(1);
    return 1;
}

}  // extern "C"
