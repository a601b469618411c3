// What the library's presentation calls leave the simulated receiver in:
// HbbTV display state and mode, the broadcast video window, open decoders,
// the registered key set, and the application start / stop notifications.
// Each call only stores its argument; the hbb_sim_* getters read it back.
#include <mutex>

#include "sim_internal.h"

namespace {

struct Window {
    int top = 0;
    int left = 0;
    int width = 0;
    int height = 0;
};

struct Presentation {
    EN_HBB_STATE display_state = EN_HBB_OFF;
    int display_mode = 0;
    int allow_stop_channel = 0;
    int keyset = 0;
    int open_decoders = 0;
    bool video_fullscreen = true;
    Window video_window;
    // The window restoreCoordinates goes back to, once a window was left for
    // full screen.
    bool has_saved_window = false;
    Window saved_window;
};

std::mutex presentation_mutex;
Presentation state;

// The display zoom window of a 1080-line panel; the simulated receiver has no
// zoom of its own.
constexpr fpi_zoom_setting_window_t kZoomWindow = {0, 0, 1920, 1080};

constexpr int kKeySetMaximum = 0x7FF;

// Goes to full screen, remembering a window that was in use; the caller
// holds the lock.
void enter_fullscreen_locked() {
    if (!state.video_fullscreen) {
        state.saved_window = state.video_window;
        state.has_saved_window = true;
    }
    state.video_fullscreen = true;
}

}  // namespace

namespace hbbsim {

void reset_presentation() {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    state = Presentation{};
}

}  // namespace hbbsim

extern "C" {

// ---- application start and stop --------------------------------------------

void hbbIsAllowStopChannel(int allow) {
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.allow_stop_channel = allow;
    }
    hbbsim::record("hbbIsAllowStopChannel", "allow=%d", allow);
}

void application_manager_invaild_app(const char* dvb_url) {
    hbbsim::record("application_manager_invaild_app", "dvb_url=%s", hbbsim::text_or_null(dvb_url));
}

// ---- video window and display state -----------------------------------------

void setVideoToFullscreen(void) {
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        enter_fullscreen_locked();
    }
    hbbsim::record("setVideoToFullscreen", "-");
}

void restoreCoordinates(void) {
    bool restored = false;
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        if (state.has_saved_window) {
            state.video_window = state.saved_window;
            state.video_fullscreen = false;
            restored = true;
        }
    }
    hbbsim::record("restoreCoordinates", "%s", restored ? "window restored" : "nothing saved");
}

int hbbSetVideoFullScreen(int fullScreen) {
    if (hbbsim::injected_failure(__func__)) return -1;
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        if (fullScreen) {
            enter_fullscreen_locked();
        } else {
            state.video_fullscreen = false;
        }
    }
    hbbsim::record("hbbSetVideoFullScreen", "fullScreen=%d -> 0", fullScreen);
    return 0;
}

int hbbSetVideoProperties(int top, int left, int width, int height) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (top >= 0 && left >= 0 && width > 0 && height > 0) {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.video_window = Window{top, left, width, height};
        state.video_fullscreen = false;
        result = 0;
    }
    hbbsim::record("hbbSetVideoProperties", "top=%d left=%d width=%d height=%d -> %d", top, left,
                   width, height, result);
    return result;
}

void hbbStateChange(EN_HBB_STATE newState) {
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.display_state = newState;
    }
    hbbsim::record("hbbStateChange", "state=%d", static_cast<int>(newState));
}

EN_HBB_STATE hbbGetState(void) {
    EN_HBB_STATE current;
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        current = state.display_state;
    }
    hbbsim::record("hbbGetState", "-> %d", static_cast<int>(current));
    return current;
}

void hbbSetDisplayMode(int mode) {
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.display_mode = mode;
    }
    hbbsim::record("hbbSetDisplayMode", "mode=%d", mode);
}

int fpi_zoom_get_current_display_window(fpi_zoom_setting_window_t* window) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (window) {
        *window = kZoomWindow;
        result = 0;
    }
    hbbsim::record("fpi_zoom_get_current_display_window", "-> %d", result);
    return result;
}

// ---- decoders -------------------------------------------------------------------

int hbbOpenDtvDecoderByMask(int mask) {
    if (hbbsim::injected_failure(__func__)) return -1;
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.open_decoders |= mask;
    }
    hbbsim::record("hbbOpenDtvDecoderByMask", "mask=0x%x -> 0", static_cast<unsigned>(mask));
    return 0;
}

int hbbCloseDtvDecoderByMask(int mask) {
    if (hbbsim::injected_failure(__func__)) return -1;
    {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.open_decoders &= ~mask;
    }
    hbbsim::record("hbbCloseDtvDecoderByMask", "mask=0x%x -> 0", static_cast<unsigned>(mask));
    return 0;
}

// The simulated receiver plays no broadband video, so the decoders are
// always free at once.
void hbbWaitingVodDecoderRelease(void) { hbbsim::record("hbbWaitingVodDecoderRelease", "-"); }

// ---- keys ------------------------------------------------------------------------

int hbbRegisterKeySet(int mask) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (mask >= 0 && mask <= kKeySetMaximum) {
        std::lock_guard<std::mutex> lock(presentation_mutex);
        state.keyset = mask;
        result = 0;
    }
    hbbsim::record("hbbRegisterKeySet", "mask=0x%x -> %d", static_cast<unsigned>(mask), result);
    return result;
}

// ---- control API -----------------------------------------------------------------

int hbb_sim_display_state(void) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    return static_cast<int>(state.display_state);
}

int hbb_sim_display_mode(void) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    return state.display_mode;
}

int hbb_sim_allow_stop_channel(void) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    return state.allow_stop_channel;
}

int hbb_sim_registered_keyset(void) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    return state.keyset;
}

int hbb_sim_open_decoders(void) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    return state.open_decoders;
}

int hbb_sim_video_window(int* top, int* left, int* width, int* height) {
    std::lock_guard<std::mutex> lock(presentation_mutex);
    if (top) *top = state.video_window.top;
    if (left) *left = state.video_window.left;
    if (width) *width = state.video_window.width;
    if (height) *height = state.video_window.height;
    return state.video_fullscreen ? 1 : 0;
}

}  // extern "C"
