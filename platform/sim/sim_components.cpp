// AV components of the simulated channels: video, audio and subtitle
// tracks with their selection state. Components belong to a channel's
// triplet; every call works on the current channel's. Both families of the
// porting layer (hbb*, used by the library's broadcast bridge, and hbbtv*,
// called by its request dispatcher) share this code. Items handed out are
// fresh records the library releases with its av_*_component_destroy.
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace {

struct SimComponent {
    hbbsim::Triplet channel;
    AVComponentType type = AV_COMPONENT_TYPE_VIDEO;
    std::optional<std::string> encoding;
    int encrypted = 0;
    int tag = 0;
    int pid = 0;
    double aspect_ratio = 0;                 // video
    std::optional<std::string> language;     // audio, subtitle
    int audio_description = 0;               // audio
    int audio_channels = 0;                  // audio
    int hearing_impaired = 0;                // subtitle
    bool active = false;
};

std::mutex components_mutex;
std::vector<SimComponent> components;
// Data components (stream events, carousels): channel and component tag.
std::vector<std::pair<hbbsim::Triplet, int>> data_components;

std::optional<std::string> optional_text(const char* text) {
    if (!text) return std::nullopt;
    return std::string(text);
}

char* dup_optional(const std::optional<std::string>& text) {
    return text ? hbbsim::dup_text(text->c_str()) : nullptr;
}

// The common part of a component record given by the library or a host.
SimComponent from_record(const AVComponent* c, AVComponentType type) {
    SimComponent s;
    s.type = type;
    if (c) {
        s.encoding = optional_text(c->encoding);
        s.encrypted = c->encrypted;
        s.tag = c->componentTag;
        s.pid = c->pid;
    }
    return s;
}

SimComponent from_video(const AVVideoComponent& v) {
    SimComponent s = from_record(v.avComponent, AV_COMPONENT_TYPE_VIDEO);
    s.aspect_ratio = v.aspectRatio;
    return s;
}

SimComponent from_audio(const AVAudioComponent& a) {
    SimComponent s = from_record(a.avComponent, AV_COMPONENT_TYPE_AUDIO);
    s.language = optional_text(a.language);
    s.audio_description = a.audioDescription;
    s.audio_channels = a.audioChannels;
    return s;
}

SimComponent from_subtitle(const AVSubtitleComponent& t) {
    SimComponent s = from_record(t.avComponent, AV_COMPONENT_TYPE_SUBTITLE);
    s.language = optional_text(t.language);
    s.hearing_impaired = t.hearingImpaired;
    return s;
}

AVComponent* new_inner(const SimComponent& s) {
    auto* c = static_cast<AVComponent*>(std::calloc(1, sizeof(AVComponent)));
    if (!c) return nullptr;
    c->type = s.type;
    c->encoding = dup_optional(s.encoding);
    c->encrypted = s.encrypted;
    c->componentTag = s.tag;
    c->pid = s.pid;
    return c;
}

// A fresh record of the library's kind for a component.
template <typename Record>
Record* new_outer(const SimComponent& s) {
    auto* r = static_cast<Record*>(std::calloc(1, sizeof(Record)));
    if (!r) return nullptr;
    r->avComponent = new_inner(s);
    if (!r->avComponent) {
        std::free(r);
        return nullptr;
    }
    return r;
}

AVVideoComponent* new_record(const SimComponent& s, AVVideoComponent*) {
    auto* r = new_outer<AVVideoComponent>(s);
    if (r) r->aspectRatio = s.aspect_ratio;
    return r;
}

AVAudioComponent* new_record(const SimComponent& s, AVAudioComponent*) {
    auto* r = new_outer<AVAudioComponent>(s);
    if (r) {
        r->language = dup_optional(s.language);
        r->audioDescription = s.audio_description;
        r->audioChannels = s.audio_channels;
    }
    return r;
}

AVSubtitleComponent* new_record(const SimComponent& s, AVSubtitleComponent*) {
    auto* r = new_outer<AVSubtitleComponent>(s);
    if (r) {
        r->language = dup_optional(s.language);
        r->hearingImpaired = s.hearing_impaired;
    }
    return r;
}

// The current channel's components of a type, all or only the active ones
// (lock held).
std::vector<SimComponent*> of_type(const hbbsim::Triplet& channel, int type, bool active_only) {
    std::vector<SimComponent*> found;
    for (SimComponent& c : components)
        if (c.channel == channel && c.type == type && (!active_only || c.active))
            found.push_back(&c);
    return found;
}

bool current(hbbsim::Triplet* channel) { return hbbsim::current_channel(channel, nullptr); }

void tell_selection(int type) {
    if (auto changed = hbbsim::listeners().selected_component_changed)
        hbbsim::post([changed, type] { changed(type); });
}

int count(const char* function, int type, bool active_only) {
    if (hbbsim::injected_failure(function)) return 0;
    int n = 0;
    hbbsim::Triplet channel;
    if (current(&channel)) {
        std::lock_guard<std::mutex> lock(components_mutex);
        n = static_cast<int>(of_type(channel, type, active_only).size());
    }
    hbbsim::record(function, "type=%d -> %d", type, n);
    return n;
}

template <typename Record>
Record* item(const char* function, int type, int index, bool active_only) {
    if (hbbsim::injected_failure(function)) return nullptr;
    Record* r = nullptr;
    hbbsim::Triplet channel;
    if (current(&channel)) {
        std::lock_guard<std::mutex> lock(components_mutex);
        const auto found = of_type(channel, type, active_only);
        if (index >= 0 && index < static_cast<int>(found.size()))
            r = new_record(*found[static_cast<size_t>(index)], static_cast<Record*>(nullptr));
    }
    hbbsim::record(function, "index=%d -> %s", index, r ? "component" : "null");
    return r;
}

// Makes the component with the tag and pid of `wanted` the one active
// component of its type (select) or inactive (unselect). 0, or -1 when the
// current channel has no such component.
int select(const char* function, const SimComponent* wanted, bool on) {
    if (hbbsim::injected_failure(function)) return -1;
    int result = -1;
    hbbsim::Triplet channel;
    if (wanted && current(&channel)) {
        std::lock_guard<std::mutex> lock(components_mutex);
        for (SimComponent* c : of_type(channel, wanted->type, false)) {
            if (c->tag != wanted->tag || c->pid != wanted->pid) continue;
            if (on)
                for (SimComponent* other : of_type(channel, wanted->type, true)) other->active = false;
            c->active = on;
            result = 0;
            break;
        }
    }
    hbbsim::record(function, "type=%d tag=%d pid=%d -> %d", wanted ? static_cast<int>(wanted->type) : -1,
                   wanted ? wanted->tag : 0, wanted ? wanted->pid : 0, result);
    if (result == 0) tell_selection(wanted->type);
    return result;
}

// Select the first component of a type / unselect all of them.
int select_by_type(const char* function, int type, bool on) {
    if (hbbsim::injected_failure(function)) return -1;
    int result = -1;
    hbbsim::Triplet channel;
    if (current(&channel)) {
        std::lock_guard<std::mutex> lock(components_mutex);
        const auto found = of_type(channel, type, false);
        if (!found.empty()) {
            for (SimComponent* c : found) c->active = false;
            if (on) found.front()->active = true;
            result = 0;
        }
    }
    hbbsim::record(function, "type=%d -> %d", type, result);
    if (result == 0) tell_selection(type);
    return result;
}

// Adds a component the page described to the current channel: its index
// among the channel's components of its type, or -1.
int create(const char* function, std::optional<SimComponent> component) {
    if (hbbsim::injected_failure(function)) return -1;
    int index = -1;
    hbbsim::Triplet channel;
    if (component && current(&channel)) {
        component->channel = channel;
        component->active = false;
        std::lock_guard<std::mutex> lock(components_mutex);
        components.push_back(*component);
        index = static_cast<int>(of_type(channel, component->type, false).size()) - 1;
    }
    hbbsim::record(function, "-> %d", index);
    return index;
}

template <typename Record>
std::optional<SimComponent> given(const Record* r, SimComponent (*convert)(const Record&)) {
    if (!r) return std::nullopt;
    return convert(*r);
}

int select_video(const char* f, AVVideoComponent* c, bool on) {
    auto s = given(c, from_video);
    return select(f, s ? &*s : nullptr, on);
}
int select_audio(const char* f, AVAudioComponent* c, bool on) {
    auto s = given(c, from_audio);
    return select(f, s ? &*s : nullptr, on);
}
int select_subtitle(const char* f, AVSubtitleComponent* c, bool on) {
    auto s = given(c, from_subtitle);
    return select(f, s ? &*s : nullptr, on);
}

int add(int channel_position, std::optional<SimComponent> component, int active) {
    hbbsim::Triplet channel;
    if (!component || !hbbsim::channel_triplet(channel_position, &channel)) return -1;
    component->channel = channel;
    component->active = active != 0;
    std::lock_guard<std::mutex> lock(components_mutex);
    components.push_back(*component);
    return static_cast<int>(of_type(channel, component->type, false).size()) - 1;
}

}  // namespace

namespace hbbsim {

void reset_components() {
    std::lock_guard<std::mutex> lock(components_mutex);
    components.clear();
    data_components.clear();
}

bool current_channel_carries(int component_tag) {
    Triplet channel;
    if (!current_channel(&channel, nullptr)) return false;
    std::lock_guard<std::mutex> lock(components_mutex);
    for (const SimComponent& c : components)
        if (c.channel == channel && c.tag == component_tag) return true;
    for (const auto& [owner, tag] : data_components)
        if (owner == channel && tag == component_tag) return true;
    return false;
}

}  // namespace hbbsim

extern "C" {

// ---- broadcast object bridge family ----------------------------------------

int hbbSelectDefaultAVComponent(int t) { return select_by_type("hbbSelectDefaultAVComponent", t, true); }
int hbbUnselectAVComponentByType(int t) { return select_by_type("hbbUnselectAVComponentByType", t, false); }
int hbbSelectAVVideoComponent(AVVideoComponent* c) { return select_video("hbbSelectAVVideoComponent", c, true); }
int hbbUnselectAVVideoComponent(AVVideoComponent* c) {
    return select_video("hbbUnselectAVVideoComponent", c, false);
}
int hbbSelectAVAudioComponent(AVAudioComponent* c) { return select_audio("hbbSelectAVAudioComponent", c, true); }
int hbbUnselectAVAudioComponent(AVAudioComponent* c) {
    return select_audio("hbbUnselectAVAudioComponent", c, false);
}
int hbbSelectAVSubtitleComponent(AVSubtitleComponent* c) {
    return select_subtitle("hbbSelectAVSubtitleComponent", c, true);
}
int hbbUnselectAVSubtitleComponent(AVSubtitleComponent* c) {
    return select_subtitle("hbbUnselectAVSubtitleComponent", c, false);
}
int hbbGetAVComponentsLength(int t) { return count("hbbGetAVComponentsLength", t, false); }
int hbbGetActiveAVComponentsLength(int t) { return count("hbbGetActiveAVComponentsLength", t, true); }
AVVideoComponent* hbbGetVideoComponentItem(int i) {
    return item<AVVideoComponent>("hbbGetVideoComponentItem", AV_COMPONENT_TYPE_VIDEO, i, false);
}
AVAudioComponent* hbbGetAudioComponentItem(int i) {
    return item<AVAudioComponent>("hbbGetAudioComponentItem", AV_COMPONENT_TYPE_AUDIO, i, false);
}
AVSubtitleComponent* hbbGetSubtitleComponentItem(int i) {
    return item<AVSubtitleComponent>("hbbGetSubtitleComponentItem", AV_COMPONENT_TYPE_SUBTITLE, i, false);
}
AVVideoComponent* hbbGetActiveVideoComponentItem(int i) {
    return item<AVVideoComponent>("hbbGetActiveVideoComponentItem", AV_COMPONENT_TYPE_VIDEO, i, true);
}
AVAudioComponent* hbbGetActiveAudioComponentItem(int i) {
    return item<AVAudioComponent>("hbbGetActiveAudioComponentItem", AV_COMPONENT_TYPE_AUDIO, i, true);
}
AVSubtitleComponent* hbbGetActiveSubtitleComponentItem(int i) {
    return item<AVSubtitleComponent>("hbbGetActiveSubtitleComponentItem", AV_COMPONENT_TYPE_SUBTITLE, i,
                                     true);
}

// ---- browser request dispatcher family -----------------------------------------

int hbbtvSelectAVComponentByType(int t) { return select_by_type("hbbtvSelectAVComponentByType", t, true); }
int hbbtvUnselectAVComponentByType(int t) {
    return select_by_type("hbbtvUnselectAVComponentByType", t, false);
}
int hbbtvSelectAVVideoComponent(AVVideoComponent* c) {
    return select_video("hbbtvSelectAVVideoComponent", c, true);
}
int hbbtvUnselectAVVideoComponent(AVVideoComponent* c) {
    return select_video("hbbtvUnselectAVVideoComponent", c, false);
}
int hbbtvSelectAVAudioComponent(AVAudioComponent* c) {
    return select_audio("hbbtvSelectAVAudioComponent", c, true);
}
int hbbtvUnselectAVAudioComponent(AVAudioComponent* c) {
    return select_audio("hbbtvUnselectAVAudioComponent", c, false);
}
int hbbtvSelectAVSubtitleComponent(AVSubtitleComponent* c) {
    return select_subtitle("hbbtvSelectAVSubtitleComponent", c, true);
}
int hbbtvUnselectAVSubtitleComponent(AVSubtitleComponent* c) {
    return select_subtitle("hbbtvUnselectAVSubtitleComponent", c, false);
}
int hbbtvGetAVComponentsLength(int t) { return count("hbbtvGetAVComponentsLength", t, false); }
int hbbtvGetActiveAVComponentsLength(int t) { return count("hbbtvGetActiveAVComponentsLength", t, true); }
AVVideoComponent* hbbtvGetVideoComponentItem(int i) {
    return item<AVVideoComponent>("hbbtvGetVideoComponentItem", AV_COMPONENT_TYPE_VIDEO, i, false);
}
AVAudioComponent* hbbtvGetAudioComponentItem(int i) {
    return item<AVAudioComponent>("hbbtvGetAudioComponentItem", AV_COMPONENT_TYPE_AUDIO, i, false);
}
AVSubtitleComponent* hbbtvGetSubtitleComponentItem(int i) {
    return item<AVSubtitleComponent>("hbbtvGetSubtitleComponentItem", AV_COMPONENT_TYPE_SUBTITLE, i,
                                     false);
}
AVVideoComponent* hbbtvGetActiveVideoComponentItem(int i) {
    return item<AVVideoComponent>("hbbtvGetActiveVideoComponentItem", AV_COMPONENT_TYPE_VIDEO, i, true);
}
AVAudioComponent* hbbtvGetActiveAudioComponentItem(int i) {
    return item<AVAudioComponent>("hbbtvGetActiveAudioComponentItem", AV_COMPONENT_TYPE_AUDIO, i, true);
}
AVSubtitleComponent* hbbtvGetActiveSubtitleComponentItem(int i) {
    return item<AVSubtitleComponent>("hbbtvGetActiveSubtitleComponentItem", AV_COMPONENT_TYPE_SUBTITLE,
                                     i, true);
}
int hbbtvCreateAVVideoComponent(AVVideoComponent* c) {
    return create("hbbtvCreateAVVideoComponent", given(c, from_video));
}
int hbbtvCreateAVAudioComponent(AVAudioComponent* c) {
    return create("hbbtvCreateAVAudioComponent", given(c, from_audio));
}

// ---- control API ------------------------------------------------------------------

int hbb_sim_add_video_component(int channel_position, const AVVideoComponent* component, int active) {
    return add(channel_position, given(component, from_video), active);
}

int hbb_sim_add_audio_component(int channel_position, const AVAudioComponent* component, int active) {
    return add(channel_position, given(component, from_audio), active);
}

int hbb_sim_add_subtitle_component(int channel_position, const AVSubtitleComponent* component,
                                   int active) {
    return add(channel_position, given(component, from_subtitle), active);
}

int hbb_sim_add_data_component(int channel_position, int component_tag) {
    hbbsim::Triplet channel;
    if (component_tag < 0 || component_tag > 0xFFFF ||
        !hbbsim::channel_triplet(channel_position, &channel))
        return -1;
    std::lock_guard<std::mutex> lock(components_mutex);
    for (const auto& [owner, tag] : data_components)
        if (owner == channel && tag == component_tag) return 0;
    data_components.emplace_back(channel, component_tag);
    return 0;
}

void hbb_sim_clear_components(void) { hbbsim::reset_components(); }

}  // extern "C"
