// Records on the wire: the channel and AV component records that requests
// carry in their fields, and the records that replies carry. docs/protocol.md
// lists every field order given here.
//
// Enum fields take the browser's number as it came and give it back as it
// is (common/c_api.h: c_enum, set_c_enum).
//
// Text fields of requests are bounded: a field longer than its limit is cut
// (records) or refused (take_text, for texts that name something, where a
// cut text would name something else).
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "app_mgr_broadcast.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "tools/requests.h"

namespace appmgr::msg {

// Limits of the text fields of requests.
constexpr std::size_t kMaxNameLength = 255;   // names, ids, languages, encodings
constexpr std::size_t kMaxTextLength = 1023;  // delivery system descriptors, DRM texts
constexpr std::size_t kMaxUrlLength = 1024;

// The next field as a text of at most max_length characters. False (and
// the reason logged with `what`) when the field is longer; *out is then
// empty. A missing field is an empty text.
bool take_text(Request& request, std::size_t max_length, const char* what, std::string* out);

struct ChannelDeleter {
    void operator()(Channel* c) const { channel_destroy(c); }
};
struct VideoDeleter {
    void operator()(AVVideoComponent* c) const { av_video_component_destroy(c); }
};
struct AudioDeleter {
    void operator()(AVAudioComponent* c) const { av_audio_component_destroy(c); }
};
struct SubtitleDeleter {
    void operator()(AVSubtitleComponent* c) const { av_subtitle_component_destroy(c); }
};
struct ProgrammeDeleter {
    void operator()(Programme* p) const { programme_destroy(p); }
};
struct RatingDeleter {
    void operator()(ParentalRating* r) const { parental_rating_destroy(r); }
};
struct ConfigurationDeleter {
    void operator()(Configuration* c) const { configuration_destroy(c); }
};
struct DecodesDeleter {
    void operator()(VideoDecodes* d) const { capabilities_decodes_destroy(d); }
};
using ChannelPtr = std::unique_ptr<Channel, ChannelDeleter>;
using VideoPtr = std::unique_ptr<AVVideoComponent, VideoDeleter>;
using AudioPtr = std::unique_ptr<AVAudioComponent, AudioDeleter>;
using SubtitlePtr = std::unique_ptr<AVSubtitleComponent, SubtitleDeleter>;
using ProgrammePtr = std::unique_ptr<Programme, ProgrammeDeleter>;
using RatingPtr = std::unique_ptr<ParentalRating, RatingDeleter>;
using ConfigurationPtr = std::unique_ptr<Configuration, ConfigurationDeleter>;
using DecodesPtr = std::unique_ptr<VideoDecodes, DecodesDeleter>;

// ---- records in requests (null when out of memory) ----

// A channel from the fields type, ccid, onid, tsid, sid, name, dsd, idType,
// nid, TerminalChannel, MajorChannel. Missing texts are null.
ChannelPtr read_channel(Request& request);
// Components from the fields of their records: type, encoding, encrypted,
// componentTag, pid, then aspectRatio (video); language, audioDescription,
// audioChannels (audio); language, hearingImpaired (subtitle).
VideoPtr read_video_component(Request& request);
AudioPtr read_audio_component(Request& request);
SubtitlePtr read_subtitle_component(Request& request);

// ---- records in replies ----

// Room for the channel record of replies 30 to 34, its terminating zero
// included: the browser reads the record into a buffer of this size.
constexpr std::size_t kChannelRecordSize = 256;
// The channel record of replies 30 to 34 (the fields of
// protocol::add_channel) in at most kChannelRecordSize - 1 characters. When
// the texts make it longer, the longest of name, delivery system descriptor
// and ccid are shortened first, so that every field is still there and ends
// with "|" (the numbers and separators need at most 99 characters, which
// leaves every text at least 52).
std::string channel_record(const Channel& channel);

void add_video_component(protocol::Fields& fields, const AVVideoComponent& component);
void add_audio_component(protocol::Fields& fields, const AVAudioComponent& component);
void add_subtitle_component(protocol::Fields& fields, const AVSubtitleComponent& component);
// name, scheme, value, labels, region.
void add_rating(protocol::Fields& fields, const ParentalRating& rating);
// name, description, startTime, duration, channelID, programmeID,
// programmeIDType, longDescription, then the number of ratings (0 or 1)
// followed by the rating's fields.
void add_programme(protocol::Fields& fields, const Programme& programme);
// preferredAudioLanguage, preferredSubtitleLanguage, countryID,
// preferredUILanguage, SubtitlesEnabled, TimeShiftSynchronized, DeviceId,
// AudioDescriptionEnabled.
void add_configuration(protocol::Fields& fields, const Configuration& configuration);

}  // namespace appmgr::msg
