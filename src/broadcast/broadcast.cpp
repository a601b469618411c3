// The broadcast video object and the channel functions.
//
// Most functions are one call of the porting layer (C functions that cannot
// throw) handing the middleware's result back unchanged. The others keep
// the presentation state and the tune requester, under the manager lock.
#include <cstdlib>

#include "broadcast/broadcast.h"
#include "common/c_api.h"
#include "common/log.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;
using appmgr::protocol::Command;

namespace {

// The requester recorded for a tune asked while this type of application
// runs; false for a type that records nothing.
bool requester_of(ApplicationType type, TunningRequestType* who) {
    switch (type) {
        case BROADCAST_RELATED: *who = REQUESTED_BY_RELATED_TYPE; return true;
        case BROADCAST_INDEPENDENT: *who = REQUESTED_BY_INDEPENDENT_TYPE; return true;
        default: return false;
    }
}

}  // namespace

extern "C" {

// ---- channels ----

APPMGR_API ChannelList* broadcast_get_channel_list(void) { return hbbGetChannelList(); }
APPMGR_API ChannelList* channel_list_get(void) { return hbbGetChannelList(); }
APPMGR_API Channel* channel_list_item(int index) { return hbbGetChannelByPosition(index); }
APPMGR_API Channel* broadcast_get_channel_by_position(int pos) {
    return hbbGetChannelByPosition(pos);
}
APPMGR_API Channel* channel_list_get_channel(const char* channelID) {
    return hbbGetChannel(channelID);
}
APPMGR_API Channel* broadcast_get_channel(const char* channelID) { return hbbGetChannel(channelID); }
APPMGR_API Channel* channel_list_get_channel_by_triplet(int onid, int tsid, int sid) {
    return hbbGetChannelByTriplet(onid, tsid, sid);
}
APPMGR_API Channel* broadcast_get_channel_by_triplet(int onid, int tsid, int sid) {
    return hbbGetChannelByTriplet(onid, tsid, sid);
}
APPMGR_API Channel* channel_new_by_dsd(const char* dsd, int sid) {
    return hbbGetChannelByDsd(dsd, sid);
}
APPMGR_API Channel* broadcast_get_channel_by_dsd(const char* dsd, int sid) {
    return hbbGetChannelByDsd(dsd, sid);
}
APPMGR_API Channel* broadcast_get_current_channel(void) { return hbbGetCurrentChannel(); }

// The type is written as given, whatever ChannelType it stands for.
APPMGR_API Channel* channel_new(int idType, int onid, int tsid, int sid, int sourceID,
                                const char* ipBroadcastID) {
    (void)sourceID;
    (void)ipBroadcastID;
    Channel* channel = channel_create();
    if (channel == nullptr) {
        AM_ERROR("channel_create failed");
        return nullptr;
    }
    channel->type = static_cast<ChannelType>(idType);
    channel->onid = onid;
    channel->tsid = tsid;
    channel->sid = sid;
    return channel;
}

// The middleware owns its lists.
APPMGR_API void channel_list_destroy(ChannelList*) {}
APPMGR_API void broadcast_free_channel_list(void) {}

APPMGR_API ChannelConfig* channel_config_create(void) {
    auto* config = static_cast<ChannelConfig*>(std::calloc(1, sizeof(ChannelConfig)));
    if (config == nullptr) AM_ERROR("CHANNEL CONFIG CREATION FAILED");
    return config;
}

APPMGR_API ChannelConfig* channel_config_get(void) {
    ChannelConfig* config = channel_config_create();
    if (config == nullptr) {
        AM_ERROR("channel_config_create failed!\n");
        return nullptr;
    }
    config->channelList = channel_list_get();
    if (config->channelList == nullptr) AM_INFO("CHANNEL LIST NOT PRESENT");
    return config;
}

APPMGR_API void channel_config_destroy(ChannelConfig* config) {
    if (config == nullptr) return;
    channel_list_destroy(config->channelList);
    std::free(config);
}

// ---- the broadcast video object ----

// hbbBindCurrentChannel does not tune (it binds the decoders to the service
// already selected), so the lock may be held across it: the check and the
// new state stay one step.
APPMGR_API void broadcast_bind_to_current_channel(void) {
    appmgr::c_entry_void(__func__, [] {
        state::ManagerLock lock;
        if (state::broadcast() != VBOS_STOPPED || !state::active()) return;
        hbbBindCurrentChannel();
        state::set_broadcast(VBOS_PRESENTING);
    });
}

// The tune itself runs without the lock (see broadcast.h).
APPMGR_API int broadcast_set_channel(Channel* channel, int quiet) {
    return appmgr::c_entry(__func__, -1, [&] {
        {
            state::ManagerLock lock;
            TunningRequestType who;
            if (requester_of(state::running_type(), &who)) state::set_tune_requester(who);
        }
        return hbbSetChannel(channel, quiet);
    });
}

APPMGR_API int broadcast_stop(void) {
    return appmgr::c_entry(__func__, 0, [] {
        {
            state::ManagerLock lock;
            state::set_broadcast(VBOS_STOPPED);
        }
        return hbbStopChannel();
    });
}

APPMGR_API int broadcast_previous_channel(void) { return hbbPreviousChannel(); }
APPMGR_API int broadcast_next_channel(void) { return hbbNextChannel(); }
APPMGR_API int broadcast_set_full_screen(int fullScreen) { return hbbSetVideoFullScreen(fullScreen); }
APPMGR_API int broadcast_release(void) { return hbbReleaseChannelResources(); }
APPMGR_API int broadcast_set_properties(int top, int left, int width, int height) {
    return hbbSetVideoProperties(top, left, width, height);
}

APPMGR_API int broadcast_select_default_av_component(int component_type) {
    return hbbSelectDefaultAVComponent(component_type);
}
APPMGR_API int broadcast_unselect_av_component_by_type(int component_type) {
    return hbbUnselectAVComponentByType(component_type);
}
APPMGR_API int broadcast_select_av_video_component(AVVideoComponent* component) {
    return hbbSelectAVVideoComponent(component);
}
APPMGR_API int broadcast_unselect_av_video_component(AVVideoComponent* component) {
    return hbbUnselectAVVideoComponent(component);
}
APPMGR_API int broadcast_select_av_audio_component(AVAudioComponent* component) {
    return hbbSelectAVAudioComponent(component);
}
APPMGR_API int broadcast_unselect_av_audio_component(AVAudioComponent* component) {
    return hbbUnselectAVAudioComponent(component);
}
APPMGR_API int broadcast_select_av_subtitle_component(AVSubtitleComponent* component) {
    return hbbSelectAVSubtitleComponent(component);
}
APPMGR_API int broadcast_unselect_av_subtitle_component(AVSubtitleComponent* component) {
    return hbbUnselectAVSubtitleComponent(component);
}

APPMGR_API HbbTVSTEErrorCode broadcast_add_stream_event_listener(const char* targetURL,
                                                                 const char* eventName) {
    return hbbAddStreamEventListener(targetURL, eventName);
}

APPMGR_API void broadcast_remove_stream_event_listener(const char* targetURL,
                                                       const char* eventName) {
    hbbRemoveStreamEventListener(targetURL, eventName);
}

// ---- notification ----

APPMGR_API void channelChangeError(ChannelChangeError errorState, Channel* channel) {
    appmgr::c_entry_void(__func__, [&] {
        if (!state::active()) return;
        ErrorChannel error{errorState, channel};
        appmgr::protocol::send(Command::ChannelChangeError, &error);
    });
}

}  // extern "C"
