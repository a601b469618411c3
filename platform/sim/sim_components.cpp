// AV components of the current service.
//
// Simulated later: components per channel (video, audio and subtitle tracks
// with their selection state). Until then every service has none: lengths
// are 0, items null, and selecting or creating a component fails with -1.
// Every call is still recorded.
#include "sim_internal.h"

namespace {

int no_selection(const char* function, const void* component) {
    hbbsim::record(function, "component=%s -> -1", component ? "given" : "null");
    return -1;
}

int no_selection_by_type(const char* function, int componentType) {
    hbbsim::record(function, "type=%d -> -1", componentType);
    return -1;
}

int no_components(const char* function, int componentType) {
    hbbsim::record(function, "type=%d -> 0", componentType);
    return 0;
}

template <typename Component>
Component* no_item(const char* function, int index) {
    hbbsim::record(function, "index=%d -> null", index);
    return nullptr;
}

}  // namespace

extern "C" {

// ---- broadcast object bridge family ----------------------------------------

int hbbSelectDefaultAVComponent(int t) { return no_selection_by_type("hbbSelectDefaultAVComponent", t); }
int hbbUnselectAVComponentByType(int t) { return no_selection_by_type("hbbUnselectAVComponentByType", t); }
int hbbSelectAVVideoComponent(AVVideoComponent* c) { return no_selection("hbbSelectAVVideoComponent", c); }
int hbbUnselectAVVideoComponent(AVVideoComponent* c) { return no_selection("hbbUnselectAVVideoComponent", c); }
int hbbSelectAVAudioComponent(AVAudioComponent* c) { return no_selection("hbbSelectAVAudioComponent", c); }
int hbbUnselectAVAudioComponent(AVAudioComponent* c) { return no_selection("hbbUnselectAVAudioComponent", c); }
int hbbSelectAVSubtitleComponent(AVSubtitleComponent* c) { return no_selection("hbbSelectAVSubtitleComponent", c); }
int hbbUnselectAVSubtitleComponent(AVSubtitleComponent* c) {
    return no_selection("hbbUnselectAVSubtitleComponent", c);
}
int hbbGetAVComponentsLength(int t) { return no_components("hbbGetAVComponentsLength", t); }
int hbbGetActiveAVComponentsLength(int t) { return no_components("hbbGetActiveAVComponentsLength", t); }
AVVideoComponent* hbbGetVideoComponentItem(int i) {
    return no_item<AVVideoComponent>("hbbGetVideoComponentItem", i);
}
AVAudioComponent* hbbGetAudioComponentItem(int i) {
    return no_item<AVAudioComponent>("hbbGetAudioComponentItem", i);
}
AVSubtitleComponent* hbbGetSubtitleComponentItem(int i) {
    return no_item<AVSubtitleComponent>("hbbGetSubtitleComponentItem", i);
}
AVVideoComponent* hbbGetActiveVideoComponentItem(int i) {
    return no_item<AVVideoComponent>("hbbGetActiveVideoComponentItem", i);
}
AVAudioComponent* hbbGetActiveAudioComponentItem(int i) {
    return no_item<AVAudioComponent>("hbbGetActiveAudioComponentItem", i);
}
AVSubtitleComponent* hbbGetActiveSubtitleComponentItem(int i) {
    return no_item<AVSubtitleComponent>("hbbGetActiveSubtitleComponentItem", i);
}

// ---- browser request dispatcher family -----------------------------------------

int hbbtvSelectAVComponentByType(int t) { return no_selection_by_type("hbbtvSelectAVComponentByType", t); }
int hbbtvUnselectAVComponentByType(int t) {
    return no_selection_by_type("hbbtvUnselectAVComponentByType", t);
}
int hbbtvSelectAVVideoComponent(AVVideoComponent* c) { return no_selection("hbbtvSelectAVVideoComponent", c); }
int hbbtvUnselectAVVideoComponent(AVVideoComponent* c) {
    return no_selection("hbbtvUnselectAVVideoComponent", c);
}
int hbbtvSelectAVAudioComponent(AVAudioComponent* c) { return no_selection("hbbtvSelectAVAudioComponent", c); }
int hbbtvUnselectAVAudioComponent(AVAudioComponent* c) {
    return no_selection("hbbtvUnselectAVAudioComponent", c);
}
int hbbtvSelectAVSubtitleComponent(AVSubtitleComponent* c) {
    return no_selection("hbbtvSelectAVSubtitleComponent", c);
}
int hbbtvUnselectAVSubtitleComponent(AVSubtitleComponent* c) {
    return no_selection("hbbtvUnselectAVSubtitleComponent", c);
}
int hbbtvGetAVComponentsLength(int t) { return no_components("hbbtvGetAVComponentsLength", t); }
int hbbtvGetActiveAVComponentsLength(int t) { return no_components("hbbtvGetActiveAVComponentsLength", t); }
AVVideoComponent* hbbtvGetVideoComponentItem(int i) {
    return no_item<AVVideoComponent>("hbbtvGetVideoComponentItem", i);
}
AVAudioComponent* hbbtvGetAudioComponentItem(int i) {
    return no_item<AVAudioComponent>("hbbtvGetAudioComponentItem", i);
}
AVSubtitleComponent* hbbtvGetSubtitleComponentItem(int i) {
    return no_item<AVSubtitleComponent>("hbbtvGetSubtitleComponentItem", i);
}
AVVideoComponent* hbbtvGetActiveVideoComponentItem(int i) {
    return no_item<AVVideoComponent>("hbbtvGetActiveVideoComponentItem", i);
}
AVAudioComponent* hbbtvGetActiveAudioComponentItem(int i) {
    return no_item<AVAudioComponent>("hbbtvGetActiveAudioComponentItem", i);
}
AVSubtitleComponent* hbbtvGetActiveSubtitleComponentItem(int i) {
    return no_item<AVSubtitleComponent>("hbbtvGetActiveSubtitleComponentItem", i);
}
int hbbtvCreateAVVideoComponent(AVVideoComponent* c) { return no_selection("hbbtvCreateAVVideoComponent", c); }
int hbbtvCreateAVAudioComponent(AVAudioComponent* c) { return no_selection("hbbtvCreateAVAudioComponent", c); }

}  // extern "C"
