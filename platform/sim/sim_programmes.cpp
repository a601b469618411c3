// Programmes of the simulated channels and the SI descriptors of their
// events. Programmes belong to a channel's triplet and are served for the
// current channel; every item handed out is a fresh record the library
// releases with programme_destroy (longDescription excepted: that text
// stays here).
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace {

struct SimRating {
    std::optional<std::string> name, scheme, region;
    int value = 0;
    int labels = 0;
};

struct SimProgramme {
    hbbsim::Triplet channel;
    std::optional<std::string> name, description, programme_id;
    int start = 0;
    int duration = 0;
    ProgrammeIDType id_type = PROGRAMME_ID_DVB_EVENT;
    // Handed out as it is: the library never frees it.
    std::optional<std::string> long_description;
    std::optional<SimRating> rating;
};

struct SimDescriptor {
    std::string ccid, event_id, hex;
    int tag = 0;
    int tag_extension = 0;
    int private_data_specifier = 0;
};

std::mutex programmes_mutex;
// Deques: the long descriptions and descriptor texts handed out keep their
// place while entries are added.
std::deque<SimProgramme> programmes;
std::deque<SimDescriptor> descriptors;
// The list record of hbbGetProgrammeList, one per thread (middleware-owned).
thread_local ProgrammeCollection list_record{0};

std::optional<std::string> optional_text(const char* text) {
    if (!text) return std::nullopt;
    return std::string(text);
}

char* dup_optional(const std::optional<std::string>& text) {
    return text ? hbbsim::dup_text(text->c_str()) : nullptr;
}

// The current channel's programmes, in the order added (lock held).
std::vector<const SimProgramme*> current_programmes(const hbbsim::Triplet& channel) {
    std::vector<const SimProgramme*> found;
    for (const SimProgramme& p : programmes)
        if (p.channel == channel) found.push_back(&p);
    return found;
}

ParentalRating* new_rating(const SimRating& r) {
    auto* rating = static_cast<ParentalRating*>(std::calloc(1, sizeof(ParentalRating)));
    if (!rating) return nullptr;
    rating->name = dup_optional(r.name);
    rating->scheme = dup_optional(r.scheme);
    rating->region = dup_optional(r.region);
    rating->value = r.value;
    rating->labels = r.labels;
    return rating;
}

Programme* new_programme(const SimProgramme& p, const std::string& ccid) {
    auto* record = static_cast<Programme*>(std::calloc(1, sizeof(Programme)));
    if (!record) return nullptr;
    record->name = dup_optional(p.name);
    record->description = dup_optional(p.description);
    record->startTime = p.start;
    record->duration = p.duration;
    record->channelID = ccid.empty() ? nullptr : hbbsim::dup_text(ccid.c_str());
    record->programmeID = dup_optional(p.programme_id);
    record->programmeIDType = p.id_type;
    record->longDescription =
        p.long_description ? const_cast<char*>(p.long_description->c_str()) : nullptr;
    record->parentalRatings = p.rating ? new_rating(*p.rating) : nullptr;
    return record;
}

bool descriptor_matches(const SimDescriptor& d, const char* ccid, const char* event_id, int tag,
                        int tag_extension, int private_data_specifier) {
    return ccid && event_id && d.ccid == ccid && d.event_id == event_id && d.tag == tag &&
           (tag_extension == -1 || d.tag_extension == tag_extension) &&
           (private_data_specifier == -1 || d.private_data_specifier == private_data_specifier);
}

}  // namespace

namespace hbbsim {

void reset_programmes() {
    std::lock_guard<std::mutex> lock(programmes_mutex);
    programmes.clear();
    descriptors.clear();
}

}  // namespace hbbsim

extern "C" {

// ---- porting layer -----------------------------------------------------------------

ProgrammeCollection* hbbGetProgrammeList(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    hbbsim::Triplet channel;
    ProgrammeCollection* list = nullptr;
    if (hbbsim::current_channel(&channel, nullptr)) {
        std::lock_guard<std::mutex> lock(programmes_mutex);
        const auto found = current_programmes(channel);
        if (!found.empty()) {
            list_record.lenght = static_cast<int>(found.size());
            list = &list_record;
        }
    }
    hbbsim::record("hbbGetProgrammeList", "-> %d", list ? list->lenght : -1);
    return list;
}

Programme* hbbGetProgrammeItem(int index) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    hbbsim::Triplet channel;
    std::string ccid;
    Programme* item = nullptr;
    if (hbbsim::current_channel(&channel, &ccid)) {
        std::lock_guard<std::mutex> lock(programmes_mutex);
        const auto found = current_programmes(channel);
        if (index >= 0 && index < static_cast<int>(found.size()))
            item = new_programme(*found[static_cast<size_t>(index)], ccid);
    }
    hbbsim::record("hbbGetProgrammeItem", "index=%d -> %s", index,
                   item ? hbbsim::text_or_null(item->name) : "null");
    return item;
}

int hbbGetSIDescriptorsLength(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int privateDataSpecifier) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int count = 0;
    {
        std::lock_guard<std::mutex> lock(programmes_mutex);
        for (const SimDescriptor& d : descriptors)
            if (descriptor_matches(d, channelID, eventID, descriptorTag, descriptorTagExtension,
                                   privateDataSpecifier))
                ++count;
    }
    hbbsim::record("hbbGetSIDescriptorsLength", "ccid=%s event=%s tag=%d ext=%d pds=%d -> %d",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID), descriptorTag,
                   descriptorTagExtension, privateDataSpecifier, count);
    return count;
}

char* hbbGetSIDescriptorsItem(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int position) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    char* item = nullptr;
    {
        std::lock_guard<std::mutex> lock(programmes_mutex);
        int seen = 0;
        for (const SimDescriptor& d : descriptors) {
            if (!descriptor_matches(d, channelID, eventID, descriptorTag, descriptorTagExtension, -1))
                continue;
            if (seen++ == position) {
                item = const_cast<char*>(d.hex.c_str());
                break;
            }
        }
    }
    hbbsim::record("hbbGetSIDescriptorsItem", "ccid=%s event=%s tag=%d ext=%d position=%d -> %s",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID), descriptorTag,
                   descriptorTagExtension, position, item ? "descriptor" : "null");
    return item;
}

// Programmes are found by the ccid of their channel and their programme id.
char* hbbGetProgrammeLongDescription(const char* channelID, const char* eventID) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    char* text = nullptr;
    if (channelID && eventID) {
        std::lock_guard<std::mutex> lock(programmes_mutex);
        for (const SimProgramme& p : programmes) {
            if (!p.programme_id || *p.programme_id != eventID || !p.long_description) continue;
            if (hbbsim::channel_ccid(p.channel) != channelID) continue;
            text = const_cast<char*>(p.long_description->c_str());
            break;
        }
    }
    hbbsim::record("hbbGetProgrammeLongDescription", "ccid=%s event=%s -> %s",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID),
                   text ? "text" : "null");
    return text;
}

// ---- control API -----------------------------------------------------------------------

int hbb_sim_add_programme(int channel_position, const Programme* programme) {
    hbbsim::Triplet channel;
    if (!programme || !hbbsim::channel_triplet(channel_position, &channel)) return -1;
    SimProgramme p;
    p.channel = channel;
    p.name = optional_text(programme->name);
    p.description = optional_text(programme->description);
    p.programme_id = optional_text(programme->programmeID);
    p.start = programme->startTime;
    p.duration = programme->duration;
    p.id_type = programme->programmeIDType;
    p.long_description = optional_text(programme->longDescription);
    if (const ParentalRating* r = programme->parentalRatings) {
        p.rating = SimRating{optional_text(r->name), optional_text(r->scheme),
                             optional_text(r->region), r->value, r->labels};
    }
    std::lock_guard<std::mutex> lock(programmes_mutex);
    programmes.push_back(std::move(p));
    return static_cast<int>(current_programmes(channel).size()) - 1;
}

int hbb_sim_add_si_descriptor(const char* ccid, const char* event_id, int tag, int tag_extension,
                              int private_data_specifier, const char* hex) {
    if (!ccid || !event_id || !hex) return -1;
    std::lock_guard<std::mutex> lock(programmes_mutex);
    descriptors.push_back(SimDescriptor{ccid, event_id, hex, tag, tag_extension, private_data_specifier});
    return 0;
}

void hbb_sim_clear_programmes(void) { hbbsim::reset_programmes(); }

}  // extern "C"
