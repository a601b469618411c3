// How the running application is presented: shown or hidden over the
// broadcast, activated, switched to broadcast-independent, and the one-line
// notifications the middleware passes to the page (display mode, low
// memory, stream events).
#include <cstdio>

#include "app_mgr.h"
#include "common/log.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
using appmgr::protocol::Command;

namespace appmgr::core {

void on_application_activated() {
    setApplicationActivate(1);
    setActivateKeySet();
}

}  // namespace appmgr::core

extern "C" {

void setCheckPageTransparent(int mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%d", mode);
    appmgr::protocol::send_text(Command::PageTransparencyCheck, text);
}

void setApplicationActivate(unsigned int bIsActivate) {
    state::set_activated(bIsActivate == 1U);
    AM_INFO("setApplicationActivate bIsApplicationActivated = %u\n", bIsActivate);
}

void application_switch_to_independent(void) {
    hbbStopChannel();
    if (state::tessel()) state::clear_current_ait();
    setApplicationActivate(1);
    state::set_running_type(BROADCAST_INDEPENDENT);
    state::set_broadcast(VBOS_STOPPED);
}

void application_show(int is_css) {
    const bool portal = state::portal();
    const int saver = state::screen_saver();
    AM_INFO(" application_show ,is_css = %d,screen_saver =%d,is_portal_mode = %d", is_css, saver,
            portal ? 1 : 0);
    if (hbbGetState() == EN_HBB_FULLSCREEN_VOD) {
        AM_INFO("old state is EN_HBB_FULLSCREEN_VOD,so don't change\n");
        return;
    }
    if (is_css != 0 || saver == 0 || portal) hbbStateChange(EN_HBB_FULLSCREEN_NO_VOD);
    if (is_css == 0) {
        state::set_visible(true);
        restoreCoordinates();
        appmgr::protocol::send(Command::ShowApplication);
        setCheckPageTransparent(saver && !portal ? 1 : 0);
    }
}

void application_hide(int is_css) {
    AM_INFO(" application_hide ,is_css = %d", is_css);
    if (hbbGetState() == EN_HBB_FULLSCREEN_VOD) {
        AM_INFO("old state is EN_HBB_FULLSCREEN_VOD,so don't change\n");
        return;
    }
    hbbStateChange(EN_HBB_RED_BUTTON);
    AM_INFO(" application hidden... is_css = %d\n", is_css);
    if (is_css == 0) {
        state::set_visible(false);
        setVideoToFullscreen();
        appmgr::protocol::send(Command::HideApplication);
        setCheckPageTransparent(0);
    }
}

// ---- exported ----

APPMGR_API void memoryLow(void) {
    if (state::active()) appmgr::protocol::send(Command::MemoryLow);
}

APPMGR_API void dispatchStreamEvent(char* location, StreamEvent* event) {
    StreamEventCallbackData data{location, event};
    appmgr::protocol::send(Command::StreamEvent, &data);
}

APPMGR_API void displayModeChanged(int newMode) {
    AM_INFO("Display mode changed..\n");
    appmgr::protocol::send(Command::DisplayModeChanged, &newMode);
}

}  // extern "C"
