// Messages the browser sends about its page on the "Application" connection.
// None of them is answered.
#include <cstdlib>

#include "common/log.h"
#include "lifecycle_internal.h"
#include "tools/tools_msg_internal.h"

namespace appmgr::msg {

void dispatch_application(int id, char* rest) {
    switch (id) {
        case 80:
            AM_WARN("Page not completely loaded, user might experience problems");
            break;
        case 83: {
            char value[32];
            next_field(rest, value);
            lifecycle::on_browser_state_report(std::atoi(value));
            break;
        }
        default:
            // Ids outside the table are dropped without a log line.
            break;
    }
}

}  // namespace appmgr::msg
