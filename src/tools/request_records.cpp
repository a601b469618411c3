// Records on the wire (see request_records.h).
#include "tools/request_records.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/c_api.h"
#include "common/log.h"

namespace appmgr::msg {
namespace {

// A malloc'ed copy of a field cut to max_length characters; null for a
// missing (empty) field. *failed is set when the copy cannot be made.
char* take_copy(Request& request, std::size_t max_length, bool* failed) {
    const std::string text = request.text(max_length);
    if (text.empty()) return nullptr;
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
        *failed = true;
        return nullptr;
    }
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// The fields every component starts with. False when out of memory.
bool read_component_fields(Request& request, AVComponent& component) {
    bool failed = false;
    set_c_enum(component.type, request.integer());
    component.encoding = take_copy(request, kMaxNameLength, &failed);
    component.encrypted = request.integer();
    component.componentTag = request.integer();
    component.pid = request.integer();
    return !failed;
}

void add_component_fields(protocol::Fields& fields, const AVComponent* component) {
    static const AVComponent kNone{AV_COMPONENT_TYPE_INVALID, nullptr, 0, 0, 0};
    const AVComponent& c = component != nullptr ? *component : kNone;
    fields.add(c_enum(c.type)).add(c.encoding).add(c.encrypted).add(c.componentTag).add(c.pid);
}

}  // namespace

bool take_text(Request& request, std::size_t max_length, const char* what, std::string* out) {
    *out = request.text(max_length + 1);
    if (out->size() <= max_length) return true;
    AM_ERROR("%s longer than %zu characters refused", what, max_length);
    out->clear();
    return false;
}

ChannelPtr read_channel(Request& request) {
    ChannelPtr channel(channel_create());
    if (channel == nullptr) return nullptr;
    bool failed = false;
    Channel& c = *channel;
    set_c_enum(c.type, request.integer());
    c.ccid = take_copy(request, kMaxNameLength, &failed);
    c.onid = request.integer();
    c.tsid = request.integer();
    c.sid = request.integer();
    c.name = take_copy(request, kMaxNameLength, &failed);
    c.dsd = take_copy(request, kMaxTextLength, &failed);
    c.idType = request.integer();
    c.nid = request.integer();
    c.TerminalChannel = request.integer();
    c.MajorChannel = request.integer();
    if (failed) return nullptr;
    return channel;
}

VideoPtr read_video_component(Request& request) {
    VideoPtr video(av_video_component_create());
    if (video == nullptr || !read_component_fields(request, *video->avComponent)) return nullptr;
    video->aspectRatio = request.number();
    return video;
}

AudioPtr read_audio_component(Request& request) {
    AudioPtr audio(av_audio_component_create());
    if (audio == nullptr || !read_component_fields(request, *audio->avComponent)) return nullptr;
    bool failed = false;
    audio->language = take_copy(request, kMaxNameLength, &failed);
    audio->audioDescription = request.integer();
    audio->audioChannels = request.integer();
    if (failed) return nullptr;
    return audio;
}

SubtitlePtr read_subtitle_component(Request& request) {
    SubtitlePtr subtitle(av_subtitle_component_create());
    if (subtitle == nullptr || !read_component_fields(request, *subtitle->avComponent))
        return nullptr;
    bool failed = false;
    subtitle->language = take_copy(request, kMaxNameLength, &failed);
    subtitle->hearingImpaired = request.integer();
    if (failed) return nullptr;
    return subtitle;
}

std::string channel_record(const Channel& channel) {
    protocol::Fields whole;
    protocol::add_channel(whole, channel);
    if (whole.text().size() < kChannelRecordSize) return whole.text();

    std::size_t excess = whole.text().size() - (kChannelRecordSize - 1);
    std::string name = channel.name != nullptr ? channel.name : "";
    std::string dsd = channel.dsd != nullptr ? channel.dsd : "";
    std::string ccid = channel.ccid != nullptr ? channel.ccid : "";
    // The longest text gives up characters until it is as short as the next
    // one, then both do, and so on. A missing text ("(null)") is not cut.
    std::vector<std::string*> texts;
    if (channel.name != nullptr) texts.push_back(&name);
    if (channel.dsd != nullptr) texts.push_back(&dsd);
    if (channel.ccid != nullptr) texts.push_back(&ccid);
    while (excess > 0 && !texts.empty()) {
        std::stable_sort(texts.begin(), texts.end(),
                         [](const std::string* a, const std::string* b) { return a->size() > b->size(); });
        std::string& longest = *texts[0];
        if (longest.empty()) break;
        const std::size_t next = texts.size() > 1 ? texts[1]->size() : 0;
        std::size_t cut = longest.size() - next;
        if (cut == 0) cut = 1;
        if (cut > excess) cut = excess;
        longest.resize(longest.size() - cut);
        excess -= cut;
    }
    Channel shortened = channel;
    if (channel.name != nullptr) shortened.name = name.data();
    if (channel.dsd != nullptr) shortened.dsd = dsd.data();
    if (channel.ccid != nullptr) shortened.ccid = ccid.data();
    protocol::Fields cut;
    protocol::add_channel(cut, shortened);
    AM_WARN("channel record of %zu characters cut to %zu (longest texts shortened)",
            whole.text().size(), cut.text().size());
    return cut.text();
}

void add_video_component(protocol::Fields& fields, const AVVideoComponent& component) {
    add_component_fields(fields, component.avComponent);
    fields.add(component.aspectRatio);
}

void add_audio_component(protocol::Fields& fields, const AVAudioComponent& component) {
    add_component_fields(fields, component.avComponent);
    fields.add(component.language).add(component.audioDescription).add(component.audioChannels);
}

void add_subtitle_component(protocol::Fields& fields, const AVSubtitleComponent& component) {
    add_component_fields(fields, component.avComponent);
    fields.add(component.language).add(component.hearingImpaired);
}

void add_rating(protocol::Fields& fields, const ParentalRating& rating) {
    fields.add(rating.name).add(rating.scheme).add(rating.value).add(rating.labels).add(rating.region);
}

void add_programme(protocol::Fields& fields, const Programme& programme) {
    fields.add(programme.name)
        .add(programme.description)
        .add(programme.startTime)
        .add(programme.duration)
        .add(programme.channelID)
        .add(programme.programmeID)
        .add(static_cast<int>(programme.programmeIDType))
        .add(programme.longDescription);
    if (programme.parentalRatings == nullptr) {
        fields.add(0);
        return;
    }
    fields.add(1);
    add_rating(fields, *programme.parentalRatings);
}

void add_configuration(protocol::Fields& fields, const Configuration& c) {
    fields.add(c.preferredAudioLanguage)
        .add(c.preferredSubtitleLanguage)
        .add(c.countryID)
        .add(c.preferredUILanguage)
        .add(static_cast<int>(c.SubtitlesEnabled))
        .add(static_cast<int>(c.TimeShiftSynchronized))
        .add(c.DeviceId)
        .add(c.AudioDescriptionEnabled);
}

}  // namespace appmgr::msg
