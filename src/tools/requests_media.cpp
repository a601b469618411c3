// Media-player, DRM, DASH and media AV-component requests: served on
// "vodPlugins" and also accepted on "dtvPlugins" (the reply goes back on the
// connection the request came in on). The handlers are the library's media
// placeholders, so the answers are fixed; the fields are still read in the
// order of each handler's parameters.
#include <string>

#include "avcontrol/avcontrol.h"
#include "common/log.h"
#include "tools/request_records.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

// A bounded text field (cut to max_length characters).
std::string text(Request& request, std::size_t max_length = kMaxTextLength) {
    return request.text(max_length);
}

// The player records are opaque: they have no form on the wire, and the
// placeholders never hand one out.
void reply_opaque(Request& request, const void* record, const char* what) {
    if (record != nullptr) AM_ERROR("%s has no reply form", what);
    request.not_available("Media player not available!");
}

// ---- player ----

template <int (*Call)(int)>
void player(Request& request) {
    request.reply_int(Call(request.integer()));
}

// Fields: player id, URL.
void open_player(Request& request) {
    const int player_id = request.integer();
    const std::string url = text(request, kMaxUrlLength);
    request.reply_int(media_open_player(player_id, url.c_str()));
}

// Fields: player id, property, value.
void set_player_property(Request& request) {
    const int player_id = request.integer();
    const int property = request.integer();
    const std::string value = text(request);
    request.reply_int(media_set_player_property(player_id, property, value.c_str()));
}

// Fields: player id, property.
void get_player_property(Request& request) {
    const int player_id = request.integer();
    request.reply_int(media_get_player_property(player_id, request.integer()));
}

// Fields: player id, command, argument.
void player_command(Request& request) {
    const int player_id = request.integer();
    const int command = request.integer();
    const std::string argument = text(request);
    request.reply_int(media_cmd_player(player_id, command, argument.c_str()));
}

void player_descriptor(Request& request) {
    reply_opaque(request, media_get_player_descriptor(request.integer()), "player descriptor");
}

void av_player(Request& request) {
    reply_opaque(request, media_get_av_player(request.integer()), "AV player");
}

void start_broadcast_video(Request& request) {
    media_start_broadcast_video();
    request.ack();
}

void stop_broadcast_video(Request& request) {
    media_stop_broadcast_video();
    request.ack();
}

// ---- DRM ----

// Fields: handle, message type, message, DRM system id. The answer is
// always null.
void drm_message(Request& request) {
    const int handle = request.integer();
    const std::string type = text(request, kMaxNameLength);
    const std::string message = text(request);
    const std::string system = text(request, kMaxNameLength);
    const char* result = send_DRMM_message(handle, type.c_str(), message.c_str(), system.c_str());
    if (result == nullptr) {
        request.not_available("DRM message result not available!");
        return;
    }
    request.reply(protocol::Fields().add(result));
}

// Field: DRM system id.
void drm_system_status(Request& request) {
    const std::string system = text(request, kMaxNameLength);
    request.reply_int(DRM_system_status(system.c_str()));
}

void drm_init(Request& request) {
    const int handle = DRM_init();
    AM_INFO("CMD_DRM_INIT finish drm_handle = %d", handle);
    request.reply_int(handle);
}

// Field: handle.
void drm_uninit(Request& request) {
    DRM_uninit(request.integer());
    request.ack();
}

// ---- DASH ----

// Field: component type.
void dash_length(Request& request) { request.reply_int(dash_get_collection_length(request.integer())); }

// Fields: component type, index. A component: m_componentTag, m_pid, m_type.
void dash_item(Request& request) {
    const int type = request.integer();
    const DASH_DATA* data = dash_get_AV_component_item(type, request.integer());
    if (data == nullptr) {
        request.not_available("Dash data not available!");
        return;
    }
    request.reply(protocol::Fields().add(data->m_componentTag).add(data->m_pid).add(data->m_type));
}

template <void (*Call)(int)>
void dash_by_type(Request& request) {
    Call(request.integer());
    request.ack();
}

// Fields: m_componentTag, m_pid, m_type.
template <void (*Call)(DASH_DATA*)>
void dash_component(Request& request) {
    DASH_DATA data{};
    data.m_componentTag = request.integer();
    data.m_pid = request.integer();
    data.m_type = request.integer();
    Call(&data);
    request.ack();
}

// ---- media AV components (fields: player id first) ----

template <void (*Call)(int, int)>
void media_by_type(Request& request) {
    const int player_id = request.integer();
    Call(player_id, request.integer());
    request.ack();
}

template <typename Record, typename Ptr, Ptr (*Read)(Request&), void (*Call)(int, Record*)>
void media_component(Request& request) {
    const int player_id = request.integer();
    Ptr component = Read(request);
    if (component != nullptr) Call(player_id, component.get());
    request.ack();
}

template <void (*Call)(int, AVVideoComponent*)>
void media_video(Request& request) {
    media_component<AVVideoComponent, VideoPtr, read_video_component, Call>(request);
}
template <void (*Call)(int, AVAudioComponent*)>
void media_audio(Request& request) {
    media_component<AVAudioComponent, AudioPtr, read_audio_component, Call>(request);
}
template <void (*Call)(int, AVSubtitleComponent*)>
void media_subtitle(Request& request) {
    media_component<AVSubtitleComponent, SubtitlePtr, read_subtitle_component, Call>(request);
}

template <int (*Call)(int, int)>
void media_length(Request& request) {
    const int player_id = request.integer();
    request.reply_int(Call(player_id, request.integer()));
}

// Fields: player id, index. A component is sent like a broadcast one and
// released afterwards.
template <typename Record, typename Ptr, Record* (*Get)(int, int),
          void (*Add)(protocol::Fields&, const Record&)>
void media_item(Request& request) {
    const int player_id = request.integer();
    Ptr component(Get(player_id, request.integer()));
    if (component == nullptr) {
        request.not_available("Information about media AV component not available!");
        return;
    }
    protocol::Fields fields;
    Add(fields, *component);
    request.reply(fields);
}

template <AVVideoComponent* (*Get)(int, int)>
void media_video_item(Request& request) {
    media_item<AVVideoComponent, VideoPtr, Get, add_video_component>(request);
}
template <AVAudioComponent* (*Get)(int, int)>
void media_audio_item(Request& request) {
    media_item<AVAudioComponent, AudioPtr, Get, add_audio_component>(request);
}
template <AVSubtitleComponent* (*Get)(int, int)>
void media_subtitle_item(Request& request) {
    media_item<AVSubtitleComponent, SubtitlePtr, Get, add_subtitle_component>(request);
}

constexpr RequestRow kRows[] = {
    {200, "register player", Lock::None, player<media_register_player>},
    {201, "unregister player", Lock::None, player<media_unregister_player>},
    {203, "init player", Lock::None, player<media_init_player>},
    {204, "open player", Lock::None, open_player},
    {205, "close player", Lock::None, player<media_close_player>},
    {206, "set player property", Lock::None, set_player_property},
    {207, "get player property", Lock::None, get_player_property},
    {208, "player command", Lock::None, player_command},
    {210, "get player descriptor", Lock::None, player_descriptor},
    {211, "get AV player", Lock::None, av_player},
    {212, "start broadcast video", Lock::None, start_broadcast_video},
    {213, "stop broadcast video", Lock::None, stop_broadcast_video},
    {230, "send DRM message", Lock::None, drm_message},
    {231, "DRM system status", Lock::None, drm_system_status},
    {234, "DRM init", Lock::None, drm_init},
    {235, "DRM uninit", Lock::None, drm_uninit},
    {240, "DASH collection length", Lock::None, dash_length},
    {241, "DASH AV component item", Lock::None, dash_item},
    {242, "DASH select default AV component", Lock::None,
     dash_by_type<dash_select_default_AV_component>},
    {243, "DASH unselect default AV component", Lock::None,
     dash_by_type<dash_unselect_default_AV_component>},
    {244, "DASH select AV component", Lock::None, dash_component<dash_select_AV_component>},
    {245, "DASH unselect AV component", Lock::None, dash_component<dash_unselect_AV_component>},
    {300, "media select default AV component", Lock::None,
     media_by_type<media_select_default_AV_component>},
    {301, "media unselect AV component by type", Lock::None,
     media_by_type<media_unselect_AV_component_by_type>},
    {302, "media select video component", Lock::None, media_video<media_select_AV_video_component>},
    {303, "media unselect video component", Lock::None,
     media_video<media_unselect_AV_video_component>},
    {304, "media select audio component", Lock::None, media_audio<media_select_AV_audio_component>},
    {305, "media unselect audio component", Lock::None,
     media_audio<media_unselect_AV_audio_component>},
    {306, "media select subtitle component", Lock::None,
     media_subtitle<media_select_AV_aubtitle_component>},
    {307, "media unselect subtitle component", Lock::None,
     media_subtitle<media_unselect_AV_subtitle_component>},
    {308, "media AV components length", Lock::None, media_length<media_get_AV_components_length>},
    {309, "media video component item", Lock::None,
     media_video_item<media_get_video_component_item>},
    {310, "media audio component item", Lock::None,
     media_audio_item<media_get_audio_component_item>},
    {311, "media subtitle component item", Lock::None,
     media_subtitle_item<media_get_subtitle_component_item>},
    {312, "media active AV components length", Lock::None,
     media_length<media_get_active_AV_components_length>},
    {313, "media active video component item", Lock::None,
     media_video_item<media_get_active_video_component_item>},
    {314, "media active audio component item", Lock::None,
     media_audio_item<media_get_active_audio_component_item>},
    {315, "media active subtitle component item", Lock::None,
     media_subtitle_item<media_get_active_subtitle_component_item>},
};

}  // namespace

const RequestTable kMediaRequests{kRows};

}  // namespace appmgr::msg
