// Requests of the browser's page objects on the "dtvPlugins" and
// "vodPlugins" connections, each answered at once on its own connection.
#include <string>

#include "app_mgr.h"
#include "common/log.h"
#include "lifecycle_user_agent.h"
#include "tools/tools_msg_internal.h"

namespace appmgr::msg {

namespace {

constexpr int kCmdGetUserAgent = 401;

void reply_user_agent() {
    bool available = false;
    std::string ua = lifecycle::user_agent_copy(&available);
    if (!available) {
        AM_INFO("User agent not available!");
        send_reply(MNG_CONNECTION_TYPE_H_PUGINS, "NOT_AVAILABLE|");
        return;
    }
    send_reply(MNG_CONNECTION_TYPE_H_PUGINS, ua + "|");
}

}  // namespace

void dispatch_plugins(Mng_ConnectionType_t connection, int id, char* rest) {
    (void)rest;
    if (connection == MNG_CONNECTION_TYPE_H_PUGINS) {
        switch (id) {
            case kCmdGetUserAgent:
                AM_INFO("Command CMD_GET_USER_AGENT received");
                reply_user_agent();
                return;
            default:
                AM_INFO(" Unknown message, id is not supported!");
                return;
        }
    }
    // "vodPlugins": ids outside its table are dropped without a log line.
}

}  // namespace appmgr::msg
