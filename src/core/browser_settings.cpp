// The browser settings the middleware passes through: the User-Agent
// add-on (which also carries the terminal's HbbTV version), cookies,
// do-not-track, the accept-language text and the screen-saver status that
// decides whether the page is checked for transparency.
#include <cstdio>
#include <cstring>

#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
using appmgr::protocol::Command;

namespace {

// The text of an integer setting, sent as a browser command.
void send_setting(Command command, int value) {
    char text[8];
    std::snprintf(text, sizeof(text), "%d", value);
    appmgr::protocol::send_text(command, text);
}

void configure_user_agent_addon(char* addon) {
    setAMUserAgent(addon);
    appmgr::protocol::send_text(Command::UserAgentAddon, addon);
    // The terminal version is read from the single digits 6, 8 and 10
    // characters after "HbbTV/" starts ("HbbTV/1.4.1 "); the text from "H" on
    // must be at least 12 characters long, so a text ending right after the
    // micro digit leaves the version unchanged.
    const char* h = std::strstr(addon, "HbbTV/");
    if (h != nullptr && std::strlen(h) >= 12) {
        state::ManagerLock lock;
        state::set_terminal_version({h[6] - '0', h[8] - '0', h[10] - '0'});
    }
}

void screen_saver_changed(int saver) {
    state::ManagerLock lock;
    if (saver == state::screen_saver()) return;
    state::set_screen_saver(saver);
    setCheckPageTransparent(saver && state::visible() && !state::portal() ? 1 : 0);
}

}  // namespace

extern "C" {

APPMGR_API void configureUserAgentAddon(char* userAgentAddOn) {
    if (userAgentAddOn == nullptr) {
        AM_INFO("configureUserAgentAddon error - invalid argument\n");
        return;
    }
    appmgr::c_entry_void(__func__, [&] { configure_user_agent_addon(userAgentAddOn); });
}

APPMGR_API void configureCookies(int enableCookies) { send_setting(Command::Cookies, enableCookies); }

APPMGR_API void configureDNT(int value) { send_setting(Command::DoNotTrack, value); }

APPMGR_API void configureAcceptLanguage(char* acceptLanguage) {
    appmgr::protocol::send_text(Command::AcceptLanguage, acceptLanguage);
}

APPMGR_API void signalStatusNotification(int saver) {
    appmgr::c_entry_void(__func__, [&] { screen_saver_changed(saver); });
}

}  // extern "C"
