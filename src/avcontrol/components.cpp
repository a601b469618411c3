// AV components of the broadcast service: forwarders to the middleware,
// the records' constructors and destructors, and the notifications.
#include <cstdint>
#include <cstdlib>

#include "avcontrol/avcontrol.h"
#include "common/c_api.h"
#include "common/log.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"

using appmgr::protocol::Command;

namespace {

// A zeroed record with a new zeroed inner component, or null (logged with
// failure_line) when out of memory.
template <typename Record>
Record* new_component(const char* failure_line) {
    auto* record = static_cast<Record*>(std::calloc(1, sizeof(Record)));
    if (record != nullptr) record->avComponent = av_component_create();
    if (record == nullptr || record->avComponent == nullptr) {
        std::free(record);
        AM_ERROR("%s", failure_line);
        return nullptr;
    }
    return record;
}

// Callbacks 69 and 79 carry the component type in the parameter itself.
void* type_parameter(int componentType) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(componentType));
}

}  // namespace

extern "C" {

// ---- forwarders (one porting call each) ----

APPMGR_API int av_components_get_length(int componentType) {
    return hbbGetAVComponentsLength(componentType);
}
APPMGR_API AVVideoComponent* av_components_get_video_item(int index) {
    return hbbGetVideoComponentItem(index);
}
APPMGR_API AVAudioComponent* av_components_get_audio_item(int index) {
    return hbbGetAudioComponentItem(index);
}
APPMGR_API AVSubtitleComponent* av_components_get_subtitle_item(int index) {
    return hbbGetSubtitleComponentItem(index);
}
APPMGR_API int av_components_get_length_of_active(int componentType) {
    return hbbGetActiveAVComponentsLength(componentType);
}
APPMGR_API AVVideoComponent* av_components_get_active_video_item(int index) {
    return hbbGetActiveVideoComponentItem(index);
}
APPMGR_API AVAudioComponent* av_components_get_active_audio_item(int index) {
    return hbbGetActiveAudioComponentItem(index);
}
APPMGR_API AVSubtitleComponent* av_components_get_active_subtitle_item(int index) {
    return hbbGetActiveSubtitleComponentItem(index);
}

// ---- records ----

APPMGR_API AVComponent* av_component_create(void) {
    auto* component = static_cast<AVComponent*>(std::calloc(1, sizeof(AVComponent)));
    if (component == nullptr) AM_ERROR("AV COMPONENT CREATION FAILED");
    return component;
}

APPMGR_API AVVideoComponent* av_video_component_create(void) {
    return new_component<AVVideoComponent>("AV VIDEO COMPONENT CREATION FAILED");
}

APPMGR_API AVAudioComponent* av_audio_component_create(void) {
    return new_component<AVAudioComponent>("AV AUDIO COMPONENT CREATION FAILED");
}

APPMGR_API AVSubtitleComponent* av_subtitle_component_create(void) {
    return new_component<AVSubtitleComponent>("AV SUBTITLE COMPONENT CREATION FAILED");
}

APPMGR_API void av_component_destroy(AVComponent* component) {
    if (component == nullptr) return;
    std::free(component->encoding);
    std::free(component);
}

APPMGR_API void av_video_component_destroy(AVVideoComponent* component) {
    if (component == nullptr) return;
    av_component_destroy(component->avComponent);
    std::free(component);
}

APPMGR_API void av_audio_component_destroy(AVAudioComponent* component) {
    if (component == nullptr) return;
    av_component_destroy(component->avComponent);
    std::free(component->language);
    std::free(component);
}

APPMGR_API void av_subtitle_component_destroy(AVSubtitleComponent* component) {
    if (component == nullptr) return;
    av_component_destroy(component->avComponent);
    std::free(component->language);
    std::free(component);
}

// ---- notifications (any library state) ----

APPMGR_API void selectedComponentChanged(int componentType) {
    appmgr::c_entry_void(__func__, [&] {
        appmgr::protocol::send(Command::SelectedComponentChanged, type_parameter(componentType));
    });
}

APPMGR_API void componentChanged(int componentType) {
    appmgr::c_entry_void(__func__, [&] {
        appmgr::protocol::send(Command::ComponentChanged, type_parameter(componentType));
    });
}

}  // extern "C"
