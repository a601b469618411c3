// Requests about the browser itself on "dtvPlugins".
#include <string>

#include "common/log.h"
#include "state/state.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

void get_user_agent(Request& request) {
    AM_INFO("Command CMD_GET_USER_AGENT received");
    bool stored = false;
    std::string ua = state::user_agent(&stored);
    if (!stored) {
        request.not_available("User agent not available!");
        return;
    }
    request.reply(ua + "|");
}

constexpr RequestRow kRows[] = {
    {401, "CMD_GET_USER_AGENT", Lock::None, get_user_agent},
};

}  // namespace

const RequestTable kBrowserRequests{kRows};

}  // namespace appmgr::msg
