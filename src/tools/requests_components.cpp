// AV-component and decoder requests of the broadcast object on "dtvPlugins",
// served by the middleware's hbbtv* component functions directly. Component
// records travel in their record's field order (request_records.h).
#include "common/log.h"
#include "hbb_platform.h"
#include "tools/request_records.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

// ---- select and unselect ----

// Field: the component type.
template <int (*Call)(int)>
void by_type(Request& request) {
    request.reply_int(Call(request.integer()));
}

// Fields: a component record. A record that cannot be built (out of
// memory) is answered -1 without asking the middleware.
template <typename Record, typename Ptr, Ptr (*Read)(Request&), int (*Call)(Record*)>
void with_component(Request& request) {
    Ptr component = Read(request);
    request.reply_int(component != nullptr ? Call(component.get()) : -1);
}

template <int (*Call)(AVVideoComponent*)>
void with_video(Request& request) {
    with_component<AVVideoComponent, VideoPtr, read_video_component, Call>(request);
}
template <int (*Call)(AVAudioComponent*)>
void with_audio(Request& request) {
    with_component<AVAudioComponent, AudioPtr, read_audio_component, Call>(request);
}
template <int (*Call)(AVSubtitleComponent*)>
void with_subtitle(Request& request) {
    with_component<AVSubtitleComponent, SubtitlePtr, read_subtitle_component, Call>(request);
}

// 128 logs the name of 129 although it creates a video component; tools
// that read the receiver's logs match that text, so it stays.
template <int (*Call)(AVVideoComponent*)>
void create_video(Request& request) {
    AM_INFO("Command CMD_CREATE_AV_AUDIO_COMPONENT received");
    with_video<Call>(request);
}
template <int (*Call)(AVAudioComponent*)>
void create_audio(Request& request) {
    AM_INFO("Command CMD_CREATE_AV_AUDIO_COMPONENT received");
    with_audio<Call>(request);
}

// ---- items ----

// Field: the index. The record of the component, or NOT_AVAILABLE.
template <typename Record, typename Ptr, Record* (*Get)(int),
          void (*Add)(protocol::Fields&, const Record&)>
void item(Request& request) {
    Ptr component(Get(request.integer()));
    if (component == nullptr) {
        request.not_available("Information about AV component not available!");
        return;
    }
    protocol::Fields fields;
    Add(fields, *component);
    request.reply(fields);
}

template <AVVideoComponent* (*Get)(int)>
void video_item(Request& request) {
    item<AVVideoComponent, VideoPtr, Get, add_video_component>(request);
}
template <AVAudioComponent* (*Get)(int)>
void audio_item(Request& request) {
    item<AVAudioComponent, AudioPtr, Get, add_audio_component>(request);
}
template <AVSubtitleComponent* (*Get)(int)>
void subtitle_item(Request& request) {
    item<AVSubtitleComponent, SubtitlePtr, Get, add_subtitle_component>(request);
}

// ---- decoders ----

// Field: the decoder mask.
void open_decoders(Request& request) {
    const int mask = request.integer();
    AM_INFO("CMD_OPEN_DTV_DECODER_BY_MASK mask = 0x%x", static_cast<unsigned>(mask));
    hbbOpenDtvDecoderByMask(mask);
    request.ack();
}

void close_decoders(Request& request) {
    const int mask = request.integer();
    AM_INFO("CMD_CLOSE_DTV_DECODER_BY_MASK mask = 0x%x", static_cast<unsigned>(mask));
    hbbCloseDtvDecoderByMask(mask);
    request.ack();
}

constexpr RequestRow kRows[] = {
    {106, "CMD_SELECT_DEFAULT_AV_COMPONENT", Lock::None, by_type<hbbtvSelectAVComponentByType>},
    {107, "CMD_UNSELECT_AV_COMPONENT_BY_TYPE", Lock::None, by_type<hbbtvUnselectAVComponentByType>},
    {108, "CMD_SELECT_AV_VIDEO_COMPONENT", Lock::None, with_video<hbbtvSelectAVVideoComponent>},
    {109, "CMD_UNSELECT_AV_VIDEO_COMPONENT", Lock::None, with_video<hbbtvUnselectAVVideoComponent>},
    {110, "CMD_SELECT_AV_AUDIO_COMPONENT", Lock::None, with_audio<hbbtvSelectAVAudioComponent>},
    {111, "CMD_UNSELECT_AV_AUDIO_COMPONENT", Lock::None, with_audio<hbbtvUnselectAVAudioComponent>},
    {112, "CMD_SELECT_AV_SUBTITLE_COMPONENT", Lock::None,
     with_subtitle<hbbtvSelectAVSubtitleComponent>},
    {113, "CMD_UNSELECT_AV_SUBTITLE_COMPONENT", Lock::None,
     with_subtitle<hbbtvUnselectAVSubtitleComponent>},
    {114, "CMD_GET_AV_COMPONENTS_LENGTH", Lock::None, by_type<hbbtvGetAVComponentsLength>},
    {115, "CMD_GET_VIDEO_COMPONENT_ITEM", Lock::None, video_item<hbbtvGetVideoComponentItem>},
    {116, "CMD_GET_AUDIO_COMPONENTS_ITEM", Lock::None, audio_item<hbbtvGetAudioComponentItem>},
    {117, "CMD_GET_SUBTITLE_COMPONENTS_ITEM", Lock::None,
     subtitle_item<hbbtvGetSubtitleComponentItem>},
    {118, "CMD_GET_ACTIVE_AV_COMPONENTS_LENGTH", Lock::None,
     by_type<hbbtvGetActiveAVComponentsLength>},
    {119, "CMD_GET_ACTIVE_VIDEO_COMPONENT_ITEM", Lock::None,
     video_item<hbbtvGetActiveVideoComponentItem>},
    {120, "CMD_GET_ACTIVE_AUDIO_COMPONENTS_ITEM", Lock::None,
     audio_item<hbbtvGetActiveAudioComponentItem>},
    {121, "CMD_GET_ACTIVE_SUBTITLE_COMPONENTS_ITEM", Lock::None,
     subtitle_item<hbbtvGetActiveSubtitleComponentItem>},
    {126, "CMD_OPEN_DTV_DECODER_BY_MASK", Lock::None, open_decoders},
    {127, "CMD_CLOSE_DTV_DECODER_BY_MASK", Lock::None, close_decoders},
    {128, "create AV video component", Lock::None, create_video<hbbtvCreateAVVideoComponent>},
    {129, "CMD_CREATE_AV_AUDIO_COMPONENT", Lock::None, create_audio<hbbtvCreateAVAudioComponent>},
};

}  // namespace

const RequestTable kComponentRequests{kRows};

}  // namespace appmgr::msg
