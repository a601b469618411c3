// The library's front door: the exported lifecycle entry points (start-up,
// activation, suspension, restart, close), the User-Agent store and the
// time-zone notification. Each validates, crosses the exception barrier and
// calls the lifecycle (lifecycle.cpp) or the module that does the work.
#include <cstdio>
#include <cstring>
#include <string>

#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "common/seams.h"
#include "lifecycle.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace {

constexpr const char* kDefaultUserAgent =
    "Mozilla/5.0 (X11;Linux x86_64;ZORVANEXQTL)(KHTML, like Gecko)Safari/534.24 ";

// The text used to be written with itself as the print format and no
// arguments. The defined part of that is kept ("%%" becomes "%"); any other
// '%' is copied as it stands instead of reading arguments that do not exist.
std::string expand_user_agent(const char* ua) {
    std::string out;
    for (const char* p = ua; *p != '\0'; ++p) {
        out.push_back(*p);
        if (p[0] == '%' && p[1] == '%') ++p;
    }
    return out;
}

}  // namespace

extern "C" {

APPMGR_API int applicationManagerInit(void) {
    return appmgr::c_entry(__func__, 0, [] { return appmgr::lifecycle::init(); });
}

APPMGR_API int applicationManagerDeInit(void) {
    return appmgr::c_entry(__func__, 1, [] { return appmgr::lifecycle::deinit(); });
}

APPMGR_API int applicationManagerRestart(void) {
    return appmgr::c_entry(__func__, 0, [] { return appmgr::lifecycle::restart(); });
}

APPMGR_API int applicationManagerClose(void) {
    return appmgr::c_entry(__func__, 0, [] { return appmgr::lifecycle::close(); });
}

APPMGR_API void ctrlc_handler(void) {
    appmgr::seams::run_shell("killall -SIGQUIT hbbtv-web-browser");
    AM_INFO("Web Browser closed...");
    AM_INFO("ApplicationManager closed");
    appmgr::seams::exit_process(0);
}

APPMGR_API int setAMUserAgent(char* ua) {
    if (ua == nullptr) {
        AM_ERROR("setAMUserAgent error - invalid argument");
        return 0;
    }
    return appmgr::c_entry(__func__, 0, [&] {
        if (std::strlen(ua) < 4096) {
            const std::string text = expand_user_agent(ua);
            appmgr::state::set_user_agent(text.c_str());
            AM_INFO("UserAgent = %s", text.c_str());
        } else {
            appmgr::state::set_user_agent(kDefaultUserAgent);
        }
        return 1;
    });
}

APPMGR_API char* getAMUserAgent(void) {
    return appmgr::c_entry(__func__, static_cast<char*>(nullptr), [] {
        bool stored = false;
        const std::string ua = appmgr::state::user_agent(&stored);
        if (!stored) return static_cast<char*>(nullptr);
        AM_INFO("UserAgent = %s\n\n", ua.c_str());
        return appmgr::state::user_agent_buffer();
    });
}

APPMGR_API int setTimeZone(int polarity, int hour, int minute) {
    // 13 bytes hold "UTC+hh:mm:00"; larger numbers are cut, never overflow.
    char zone[13] = {0};
    if (polarity == 1)
        std::snprintf(zone, sizeof(zone), "UTC-%02d:%02d:00", hour, minute);
    else if (polarity == 0)
        std::snprintf(zone, sizeof(zone), "UTC+%02d:%02d:00", hour, minute);
    return appmgr::protocol::send_text(appmgr::protocol::Command::TimeZone, zone);
}

}  // extern "C"
