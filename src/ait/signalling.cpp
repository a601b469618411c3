// The judgement of the running application against a table: keep or kill,
// adoption of a broadcast-independent application that a table now
// signals, a changed signalling of the running application, and the
// reaction to a change of service.
#include <cstdio>
#include <cstring>
#include <string>

#include "ait/ait.h"
#include "app_mgr.h"
#include "common/c_api.h"
#include "common/decision.h"
#include "common/log.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
namespace decision = appmgr::decision;
using appmgr::protocol::Command;

namespace {

constexpr int kHttpTransport = 3;

// Whether the page last loaded lies within one of the boundary's origins
// ("|"-separated). The boundary is read from a copy: the table is not
// changed.
bool loaded_page_within(const char* boundary) {
    std::string origins = boundary;
    char* save = nullptr;
    for (char* piece = strtok_r(origins.data(), "|", &save); piece != nullptr;
         piece = strtok_r(nullptr, "|", &save)) {
        if (std::strstr(state::loaded_url(), piece) != nullptr) return true;
    }
    return false;
}

void channel_changed(Channel* channel) {
    if (!state::active()) return;
    state::ManagerLock lock;
    AM_INFO("channel changed (tsid/onid/sid:%d/%d/%d)\n\n", channel ? channel->tsid : -1,
            channel ? channel->onid : -1, channel ? channel->sid : -1);
    // Any version is new on the new service.
    state::forget_version();
    if (channel != nullptr) appmgr::protocol::send(Command::ChannelChanged, channel);
    if (state::running() != nullptr && state::running_type() == BROADCAST_INDEPENDENT) {
        AM_INFO("running_application_type:%d tunning_requested_by:%d\n",
                static_cast<int>(state::running_type()),
                static_cast<int>(state::tune_requester()));
        DSMCC_Disconnect();
        // An independent application survives only a tune it asked for.
        if (state::tune_requester() != REQUESTED_BY_INDEPENDENT_TYPE) kill_application();
    }
    state::set_tune_requester(NOT_REQUESTED);
    const Application* running = state::running();
    if (running != nullptr && state::running_type() == BROADCAST_RELATED &&
        running->is_service_bound) {
        AM_DECISION(AM_LOG_INFO, decision::about(decision::Kind::Kill, running, "service_bound"),
                    "application IS service bound\n");
        kill_application();
    }
}

}  // namespace

namespace appmgr::ait {

Verdict judge_running(const AitTable* ait) {
    const Application* running = state::running();
    if (ait == nullptr || running == nullptr || ait->apps == nullptr) return {false, "not_signalled"};
    for (int i = 0; i < ait->app_lenght; ++i) {
        const Application& app = ait->apps[i];
        if (app.organisation_id != running->organisation_id || app.app_id != running->app_id)
            continue;
        if (app.control_code == KILL) {
            AM_INFO("running_application signaled with control code KILL\n");
            return {false, "signalled_kill"};
        }
        if (app.is_IP_connect_require == 1 && state::network() != NETWORK_ON) {
            AM_INFO("running_application signaled with is_IP_connect_require = 1,but network is off\n");
            return {false, "needs_broadband"};
        }
        AM_DECISION(AM_LOG_INFO, decision::about(decision::Kind::Keep, running, "signalled"),
                    "running application is still signaled in new ait -> keep it running\n\n");
        return {true, ""};
    }
    AM_INFO("application not signaled anymore\n");
    return {false, "not_signalled"};
}

}  // namespace appmgr::ait

extern "C" {

int check_running_application(AitTable* ait) { return appmgr::ait::judge_running(ait).keep ? 1 : 0; }

int check_independent_application_signalling(AitTable* table) {
    const Application* running = state::running();
    if (table == nullptr || table->apps == nullptr || running == nullptr) return 0;
    if (running->organisation_id <= 0 || running->app_id <= 0) return 0;
    char* running_url = const_cast<char*>(appmgr::records::entry_url(*running));
    for (int i = 0; i < table->app_lenght; ++i) {
        Application& app = table->apps[i];
        if (app.organisation_id != running->organisation_id || app.app_id != running->app_id)
            continue;
        if (app.control_code != AUTOSTART && app.control_code != PRESENT) continue;
        if (app.transport_protocol == nullptr || app.transport_protocol->protocol_id != kHttpTransport)
            continue;
        if (compareUrlOrigin(app.transport_protocol->url, running_url) != 1) continue;

        bool adopt = false;
        if (compareUrlOrigin(app.transport_protocol->url, const_cast<char*>(state::loaded_url())) ==
            1) {
            AM_INFO("B-I application has the same origin\n");
            adopt = true;
        } else if (app.app_boundary == nullptr || app.app_boundary[0] == '\0') {
            adopt = true;
        } else {
            AM_INFO("table->apps[counter].app_boundary len is not zero\n\n");
            if (!loaded_page_within(app.app_boundary)) return 0;
            adopt = true;
        }
        if (!adopt) return 0;
        state::set_running_type(BROADCAST_RELATED);
        update_running_application(&app);
        int related = 0;
        appmgr::protocol::send(Command::AppTypeChanged, &related);
        return 1;
    }
    return 0;
}

int check_independent_application_signalling_current_ait(void) {
    return check_independent_application_signalling(const_cast<AitTable*>(&state::current_ait()));
}

void check_application_new_signaling(AitTable* ait) {
    const Application* running = state::running();
    if (ait == nullptr || running == nullptr) return;
    for (int i = 0; ait->apps != nullptr && i < ait->app_lenght; ++i) {
        Application& app = ait->apps[i];
        if (app.organisation_id != running->organisation_id || app.app_id != running->app_id ||
            app.control_code != AUTOSTART)
            continue;
        appmgr::core::Launch start;
        start.url = appmgr::records::entry_url(app);
        start.entry = &app;
        start.boundary = appmgr::core::boundary_of(app);
        if (appmgr::core::launch(start)) state::set_running_type(BROADCAST_RELATED);
        return;
    }
    kill_application();
}

// ---- exported ----

APPMGR_API void channelChanged(Channel* channel) {
    appmgr::c_entry_void(__func__, [&] { channel_changed(channel); });
}

}  // extern "C"
