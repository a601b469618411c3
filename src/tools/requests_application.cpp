// Messages the browser sends about its page on the "Application"
// connection. None of them is answered.
#include "common/decision.h"
#include "common/log.h"
#include "core/core.h"
#include "state/state.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

void application_destroyed(Request&) {
    AM_INFO("CMD_DESTROY_APPLICATION come from hbbtv-web-brower\n\n");
    core::destroy_running_application();
}

void initial_page_not_available(Request&) {
    AM_INFO("Initial page of application not available");
    // The page that failed is the one last handed to the browser.
    core::handle_load_error(state::start_url());
}

void page_partly_loaded(Request&) {
    AM_WARN("Page not completely loaded, user might experience problems");
}

void page_loaded(Request& request) {
    const std::string url = request.text(1023);
    state::set_loaded_url(url.c_str());
    AM_DECISION(AM_LOG_INFO, decision::at(decision::Kind::PageLoaded, url.c_str()),
                "page %s is loaded...", url.c_str());
}

void browser_state(Request& request) { core::on_browser_state_report(request.integer()); }

void exit_key(Request&) { core::on_exit_key(); }

void application_activated(Request&) { core::on_application_activated(); }

void page_load_failed(Request&) { openWebPortalFailed(); }

void page_transparency_changed(Request& request) {
    if (request.integer() != 0)
        application_hide(1);
    else
        application_show(1);
}

constexpr RequestRow kRows[] = {
    {51, "CMD_DESTROY_APPLICATION", Lock::Manager, application_destroyed},
    {68, "initial page not available", Lock::Manager, initial_page_not_available},
    {80, "page partly loaded", Lock::None, page_partly_loaded},
    {82, "page loaded", Lock::Manager, page_loaded},
    {83, "browser state", Lock::None, browser_state},
    {86, "exit key", Lock::Manager, exit_key},
    {87, "CB_SET_APPLICATION_ACTIVATED", Lock::Manager, application_activated},
    {88, "CB_APPLICATION_LOAD_FAILED", Lock::Manager, page_load_failed},
    {89, "CB_PAGE_PAGE_TRANSPARENT_CHANGE", Lock::Manager, page_transparency_changed},
};

}  // namespace

const RequestTable kApplicationMessages{kRows};

}  // namespace appmgr::msg
