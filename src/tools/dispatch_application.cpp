// Messages the browser sends about its page on the "Application" connection.
// None of them is answered.
#include <cstdio>
#include <cstdlib>

#include "app_mgr_state.h"
#include "common/log.h"
#include "core/core_internal.h"
#include "core/keyset_internal.h"
#include "hbb_platform.h"
#include "lifecycle_internal.h"
#include "tools/tools_msg_internal.h"

namespace appmgr::msg {

namespace {

int int_field(char* rest) {
    char value[32];
    next_field(rest, value);
    return std::atoi(value);
}

}  // namespace

void dispatch_application(int id, char* rest) {
    switch (id) {
        case 51:
            AM_INFO("CMD_DESTROY_APPLICATION come from hbbtv-web-brower\n\n");
            if (running_application != nullptr)
                application_destroy(running_application->organisation_id,
                                    running_application->app_id);
            break;
        case 68: {
            AM_INFO("Initial page of application not available");
            // The page that failed is the one last handed to the browser. A
            // copy is passed: the recovery may rewrite the start URL.
            char url[sizeof(hbbtv_start_url)];
            std::snprintf(url, sizeof(url), "%s", hbbtv_start_url);
            handle_application_load_error(url);
            break;
        }
        case 80:
            AM_WARN("Page not completely loaded, user might experience problems");
            break;
        case 82: {
            char url[1024];
            next_field(rest, url);
            std::snprintf(loaded_application, sizeof(loaded_application), "%s", url);
            AM_INFO("page %s is loaded...", url);
            break;
        }
        case 83:
            lifecycle::on_browser_state_report(int_field(rest));
            break;
        case 86:
            if (hbbExitKeyHandle() == 0) restartApplication();
            break;
        case 87:
            setApplicationActivate(1);
            setActivateKeySet();
            break;
        case 88:
            openWebPortalFailed();
            break;
        case 89:
            if (int_field(rest) != 0)
                application_hide(1);
            else
                application_show(1);
            break;
        default:
            // Ids outside the table are dropped without a log line.
            break;
    }
}

}  // namespace appmgr::msg
