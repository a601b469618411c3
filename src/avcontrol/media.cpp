// The media-player, DRM and DASH entry points. The receiver's media stack
// links against these names; the library has no media back end, so each
// ignores its arguments and gives a fixed result. Starting and stopping
// broadcast video are the exception: they keep the broadcast presentation
// state that the application core reads.
#include "avcontrol/avcontrol.h"
#include "common/c_api.h"
#include "common/log.h"
#include "state/state.h"

namespace {

void set_broadcast_state(VideoBroadcastState s) {
    appmgr::state::ManagerLock lock;
    appmgr::state::set_broadcast(s);
}

const char* shown(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

extern "C" {

APPMGR_API int s_DRMHandle = 0;

// ---- media player ----

APPMGR_API int media_register_player(int) { return 1; }
APPMGR_API int media_unregister_player(int) { return 1; }
APPMGR_API int media_init_player(int) { return 1; }
APPMGR_API int media_open_player(int, const char*) { return 1; }
APPMGR_API int media_close_player(int) { return 1; }
APPMGR_API int media_set_player_property(int, int, const char*) { return 1; }
APPMGR_API int media_get_player_property(int, int) { return 1; }
APPMGR_API int media_cmd_player(int, int, const char*) { return 1; }
APPMGR_API MediaPlayerDescriptor* media_get_player_descriptor(int) { return nullptr; }
APPMGR_API MediaAVPlayer* media_get_av_player(int) { return nullptr; }
APPMGR_API void media_callback_msg(int, int, const char*) {}

APPMGR_API void media_start_broadcast_video(void) {
    appmgr::c_entry_void(__func__, [] { set_broadcast_state(VBOS_PRESENTING); });
}

APPMGR_API void media_stop_broadcast_video(void) {
    appmgr::c_entry_void(__func__, [] { set_broadcast_state(VBOS_STOPPED); });
}

// ---- media AV components ----

APPMGR_API void media_select_default_AV_component(int, int) {}
APPMGR_API void media_unselect_default_AV_component(int, int) {}
APPMGR_API void media_unselect_AV_component_by_type(int, int) {}
APPMGR_API void media_select_AV_video_component(int, AVVideoComponent*) {}
APPMGR_API void media_unselect_AV_video_component(int, AVVideoComponent*) {}
APPMGR_API void media_select_AV_audio_component(int, AVAudioComponent*) {}
APPMGR_API void media_unselect_AV_audio_component(int, AVAudioComponent*) {}
APPMGR_API void media_select_AV_aubtitle_component(int, AVSubtitleComponent*) {}
APPMGR_API void media_unselect_AV_subtitle_component(int, AVSubtitleComponent*) {}
APPMGR_API int media_get_AV_components_length(int, int) { return 1; }
APPMGR_API AVVideoComponent* media_get_video_component_item(int, int) { return nullptr; }
APPMGR_API AVAudioComponent* media_get_audio_component_item(int, int) { return nullptr; }
APPMGR_API AVSubtitleComponent* media_get_subtitle_component_item(int, int) { return nullptr; }
APPMGR_API int media_get_active_AV_components_length(int, int) { return 1; }
APPMGR_API AVVideoComponent* media_get_active_video_component_item(int, int) { return nullptr; }
APPMGR_API AVAudioComponent* media_get_active_audio_component_item(int, int) { return nullptr; }
APPMGR_API AVSubtitleComponent* media_get_active_subtitle_component_item(int, int) {
    return nullptr;
}

// ---- DRM ----

APPMGR_API int DRM_init(void) { return s_DRMHandle; }
APPMGR_API void DRM_uninit(int) {}
APPMGR_API int DRM_system_status(const char*) { return 1; }
APPMGR_API void DRM_callback_message(int, const char*) {}
APPMGR_API void DRM_rights_error(int, int, const char*, const char*, const char*) {}

// The handle shown is the library's own, whatever the caller passed.
APPMGR_API char* send_DRMM_message(int, const char* msgType, const char* message,
                                   const char* DRMSystemID) {
    const char* result = nullptr;
    AM_INFO("send_DRMM_message :  handle=%d , msgType=%s, message=%s , DRMSystemID=%s, "
            "return value=%s ",
            s_DRMHandle, shown(msgType), shown(message), shown(DRMSystemID), shown(result));
    return nullptr;
}

// ---- DASH ----

APPMGR_API int dash_get_collection_length(int) { return 1; }
APPMGR_API DASH_DATA* dash_get_AV_component_item(int, int) { return nullptr; }
APPMGR_API void dash_select_default_AV_component(int) {}
APPMGR_API void dash_unselect_default_AV_component(int) {}
APPMGR_API void dash_select_AV_component(DASH_DATA*) {}
APPMGR_API void dash_unselect_AV_component(DASH_DATA*) {}

}  // extern "C"
