// AIT intake: the checks that refuse unusable tables, the deep copy into the
// current AIT and the keep-or-kill / autostart judgement made when a table
// arrives. Everything runs under the manager lock, across the start and
// kill of applications.
#include <cstring>
#include <string>

#include "ait/ait.h"
#include "app_mgr.h"
#include "common/c_api.h"
#include "common/decision.h"
#include "common/log.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
using appmgr::decision::Kind;

namespace {

// The judgement of the running application and the autostart run against
// the table just made current.
void judge_running_application(AitTable& current, bool test_table) {
    if (state::running() != nullptr) {
        AM_INFO("Application IS running running_application_type:%d\n\n",
                static_cast<int>(state::running_type()));
        const appmgr::ait::Verdict verdict =
            state::running_type() == BROADCAST_INDEPENDENT
                ? appmgr::ait::Verdict{check_independent_application_signalling(&current) != 0,
                                       "not_signalled"}
                : appmgr::ait::judge_running(&current);
        if (!verdict.keep || test_table) {
            const char* reason = verdict.keep ? "test_table" : verdict.kill_reason;
            AM_DECISION(AM_LOG_INFO, decision::about(Kind::Kill, state::running(), reason),
                        "kill running application because it is not signaled anymore\n");
            kill_application();
        } else {
            setKeySet(appmgr::core::current_key_set_value(), nullptr);
            application_show(0);
        }
    }
    if (state::running() == nullptr) {
        AM_INFO("Application IS NOT running\n");
        state::set_autostart(nullptr);
        find_autostart_app(current.apps, current.app_lenght);
        if (state::autostart() != nullptr)
            appmgr::core::start_autostart_app();
        else
            AM_INFO("no autostart application available\n");
    }
}

void ait_update(AitTable* ait) {
    // Before the library is set up (and after it closed) tables are refused,
    // as the guard refuses the middleware then.
    if (!state::guard_ready()) {
        AM_ERROR("Error: lockAitGuard failed !\n");
        return;
    }
    state::ManagerLock lock;
    if (ait == nullptr || (ait->app_type != HBBTV_APPLICATION_TYPE &&
                           ait->app_type != DTG_CTV_APPLICATION_TYPE)) {
        // The locator field of the middleware's table need not be terminated.
        const std::string locator =
            ait != nullptr ? std::string(ait->dvb_url, strnlen(ait->dvb_url, sizeof(ait->dvb_url)))
                           : std::string();
        AM_DECISION(AM_LOG_ERROR, decision::at(Kind::Refused, locator.c_str(), "unknown_type"),
                    "Unknown application type. Rejecting AIT table.\n");
        return;
    }
    state::set_current_ait_type(static_cast<AitTableApplicationType>(ait->app_type));
    if (checkNewAITTable(ait) == 0) {
        AM_INFO("aitupdate s_dvb_url=%s\n\n", state::carrier_url());
        application_manager_invaild_app(state::carrier_url());
        return;
    }
    update_current_ait(ait);
    if (!state::active()) {
        AM_INFO("appmgr_state != APP_MANAGER_INITIALIZED\n");
        return;
    }
    // The judgement works on the library's copy: the middleware's table is
    // only borrowed for this call, and nothing may point into it afterwards.
    judge_running_application(const_cast<AitTable&>(state::current_ait()), ait->is_test_app != 0);
}

}  // namespace

extern "C" {

void init_current_ait(void) {
    state::ManagerLock lock;
    state::init_current_ait();
}

void clear_current_ait(void) {
    state::ManagerLock lock;
    state::clear_current_ait();
}

int checkNewAITTable(AitTable* ait) {
    if (ait == nullptr) {
        AM_INFO("AitTable NULL, rejecting AIT table\n");
        return 0;
    }
    state::set_carrier_url(ait->dvb_url);
    if (ait->app_type == HBBTV_APPLICATION_TYPE) {
        const std::size_t len = strnlen(ait->dvb_url, sizeof(ait->dvb_url));
        if (len <= 3 || len >= 256) {
            AM_DECISION(AM_LOG_INFO,
                        decision::at(Kind::Refused, state::carrier_url(), "locator_length",
                                     static_cast<int>(len)),
                        "Invalid DVB url len: %d\n", static_cast<int>(len));
            return 0;
        }
    }
    const AitTable& current = state::current_ait();
    if (current.app_type == DTG_CTV_APPLICATION_TYPE && ait->app_type == HBBTV_APPLICATION_TYPE &&
        std::strncmp(current.dvb_url, ait->dvb_url, sizeof(ait->dvb_url)) == 0) {
        AM_DECISION(AM_LOG_INFO, decision::at(Kind::Refused, state::carrier_url(), "dtg_current"),
                    "Ignoring AIT table since we are in DTG mode...\n");
        return 0;
    }
    if (ait->app_lenght == 0) {
        AM_DECISION(AM_LOG_INFO, decision::at(Kind::Empty, state::carrier_url()),
                    "Empty AIT, loading empty page..appmgr_state:%d,is_portal_mode: %d\n\n",
                    static_cast<int>(state::library()), state::portal() ? 1 : 0);
        state::set_service_bound(false);
        state::clear_current_ait();
        if (state::running() != nullptr && state::active())
            appmgr::core::destroy_running_application();
        else
            AM_INFO("Empty AIT, loading empty page... running_application = NULL\n");
        return 0;
    }
    if (ait->apps == nullptr || ait->app_lenght < 0) {
        AM_DECISION(AM_LOG_INFO, decision::at(Kind::Refused, state::carrier_url(), "no_entries"),
                    "Apps NULL, rejecting AIT table\n");
        return 0;
    }
    for (int i = 0; i < ait->app_lenght; ++i) {
        const Application& app = ait->apps[i];
        if (app.transport_protocol == nullptr || app.transport_protocol->url == nullptr ||
            app.app_name == nullptr) {
            AM_DECISION(AM_LOG_INFO,
                        decision::at(Kind::Refused, state::carrier_url(), "incomplete_entry"),
                        "Transport protocol NULL, rejecting AIT table\n");
            return 0;
        }
    }
    AM_INFO("AIT pointers valid...\n");
    return 1;
}

void update_current_ait(AitTable* ait) {
    if (ait == nullptr) return;
    if (!state::replace_current_ait(*ait)) AM_ERROR("out of memory copying the AIT");
    if (state::current_ait().CRC_count > 0)
        AM_INFO("current_ait.CRC_count: is %d\n\n", state::current_ait().CRC_count);
}

void displayTransportProtocolDescriptorInfo(transport_protocol_descriptor* tpd) {
    if (tpd == nullptr) return;
    AM_INFO("Aplication URI %s\n", tpd->url != nullptr ? tpd->url : "(null)");
    AM_INFO("Application Protocol %d\n", tpd->protocol_id);
}

void displayApplicationInfo(Application* app) {
    if (app == nullptr) return;
    AM_INFO("Org id: %4d; App id: %4d; Ctr code: %4d;\n", app->organisation_id, app->app_id,
            static_cast<int>(app->control_code));
    AM_INFO("Aplication is service bound %d\n", app->is_service_bound);
    AM_INFO("Aplication usage type %d\n", app->app_usage_type);
    AM_INFO("Aplication name %s\n", app->app_name != nullptr ? app->app_name : "(null)");
    displayTransportProtocolDescriptorInfo(app->transport_protocol);
}

void aitUpdateInfo(AitTable* ait) {
    if (ait == nullptr) {
        AM_INFO("Passed ait pointer is NULL!\n");
        return;
    }
    AM_INFO("Passed ait info:\n");
    AM_INFO("Aplication type: %d\n", ait->app_type);
    AM_INFO("Version: %d\n", ait->version);
    if (ait->app_lenght <= 0) {
        AM_INFO("Lenght: 0\n");
        return;
    }
    AM_INFO("Lenght: %d\n", ait->app_lenght);
    if (ait->apps == nullptr) {
        AM_INFO("Passed ait->apps pointer is NULL!\n");
        return;
    }
    for (int i = 0; i < ait->app_lenght; ++i) {
        AM_INFO("_____Aplication number: %d info_____\n", i);
        displayApplicationInfo(&ait->apps[i]);
    }
}

// ---- exported ----

APPMGR_API void aitUpdate(AitTable* ait) {
    appmgr::c_entry_void(__func__, [&] { ait_update(ait); });
}

APPMGR_API int check_version(int version) {
    return appmgr::c_entry(__func__, 0, [&] {
        state::ManagerLock lock;
        return state::accept_version(version) ? 1 : 0;
    });
}

}  // extern "C"
