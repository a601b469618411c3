// Receiver facts the library reads: clock, free memory, exit-key handling,
// parental-rating threshold, capabilities, configuration, programmes, and the
// intent and media-delivery services. Answers a test may need to vary are
// settable through hbb_sim.h; the rest are fixed.
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "sim_internal.h"

namespace {

// Blocks no DVB-SI rating: the library lets an application run when its
// rating is below the threshold value, and DVB-SI ratings stop at 15.
constexpr int kDefaultParentalThreshold = 16;

struct SettableAnswers {
    int free_memory_kb = -1;
    int current_time = 0;
    int exit_key_handled = 0;
    int parental_threshold = kDefaultParentalThreshold;
};

std::mutex answers_mutex;
SettableAnswers answers;

SettableAnswers snapshot() {
    std::lock_guard<std::mutex> lock(answers_mutex);
    return answers;
}

// A minimal capabilities document of an HD receiver without broadband
// download or PVR options.
const char kXmlCapabilities[] =
    "<profilelist>"
    "<ui_profile name=\"OITF_HD_UIPROF+DVB_T\"/>"
    "<broadcast>urn:dvb:broadcast:ird:video:25_Hz_H.264_AVC_HDTV_IRD</broadcast>"
    "</profilelist>";

// Never freed by the library (Configuration.DeviceId stays with the
// middleware).
char kDeviceId[] = "hbb-sim-0001";

}  // namespace

namespace hbbsim {

void reset_settable_answers() {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers = SettableAnswers{};
}

}  // namespace hbbsim

extern "C" {

// ---- miscellaneous ---------------------------------------------------------------

int hbbGetCurrentTime(void) {
    int fixed = snapshot().current_time;
    int now = fixed != 0 ? fixed : static_cast<int>(std::time(nullptr));
    hbbsim::record("hbbGetCurrentTime", "-> %d", now);
    return now;
}

int hbbGetFreeMemory(void) {
    int kilobytes = snapshot().free_memory_kb;
    hbbsim::record("hbbGetFreeMemory", "-> %d", kilobytes);
    return kilobytes;
}

int hbbExitKeyHandle(void) {
    int handled = snapshot().exit_key_handled;
    hbbsim::record("hbbExitKeyHandle", "-> %d", handled);
    return handled;
}

int orb_am_sendBroadcast(const char* action) {
    hbbsim::record("orb_am_sendBroadcast", "action=%s -> 0", hbbsim::text_or_null(action));
    return 0;
}

// Simulated later: a table of locations served by player applications. Until
// then no location is, and playerUrl is left unchanged.
int tvh_mds_get_player_url(const char* location, char* playerUrl, int playerUrlSize) {
    (void)playerUrl;
    hbbsim::record("tvh_mds_get_player_url", "location=%s size=%d -> -1",
                   hbbsim::text_or_null(location), playerUrlSize);
    return -1;
}

// ---- parental rating, capabilities and configuration ----------------------------

// Simulated later: rating schemes. Until then the receiver knows none.
ParentalRatingSchemeCollection* hbbGetParentalRatingSchemes(void) {
    hbbsim::record("hbbGetParentalRatingSchemes", "-> null");
    return nullptr;
}

void hbbReleaseParentalRatingSchemes(void) { hbbsim::record("hbbReleaseParentalRatingSchemes", "-"); }

ParentalRating* hbbGetCurrentParentalRatingThreshold(const char* schemeName) {
    int value = snapshot().parental_threshold;
    auto* rating = static_cast<ParentalRating*>(std::calloc(1, sizeof(ParentalRating)));
    if (rating) {
        rating->name = hbbsim::dup_text("threshold");
        rating->scheme = hbbsim::dup_text(schemeName ? schemeName : "dvb-si");
        rating->value = value;
        if (!rating->name || !rating->scheme) {
            std::free(rating->name);
            std::free(rating->scheme);
            std::free(rating);
            rating = nullptr;
        }
    }
    hbbsim::record("hbbGetCurrentParentalRatingThreshold", "scheme=%s -> %d",
                   hbbsim::text_or_null(schemeName), rating ? value : -1);
    return rating;
}

// Fixed answer: the simulated receiver claims no optional capability.
int hbbHasCapability(const char* profileName) {
    hbbsim::record("hbbHasCapability", "profile=%s -> 0", hbbsim::text_or_null(profileName));
    return 0;
}

// Fixed answer: no extra decodes beside the broadcast.
VideoDecodes* hbbGetVideoDecodes(void) {
    auto* decodes = static_cast<VideoDecodes*>(std::calloc(1, sizeof(VideoDecodes)));
    hbbsim::record("hbbGetVideoDecodes", "-> %s", decodes ? "0 SD, 0 HD" : "null");
    return decodes;
}

char* hbbGetXmlCapabilities(void) {
    hbbsim::record("hbbGetXmlCapabilities", "-> document");
    return const_cast<char*>(kXmlCapabilities);
}

// Fixed answer: an English-speaking receiver in the United Kingdom.
Configuration* hbbGetConfiguration(void) {
    auto* config = static_cast<Configuration*>(std::calloc(1, sizeof(Configuration)));
    if (config) {
        config->preferredAudioLanguage = hbbsim::dup_text("eng");
        config->preferredSubtitleLanguage = hbbsim::dup_text("eng");
        config->countryID = hbbsim::dup_text("GBR");
        config->preferredUILanguage = hbbsim::dup_text("eng");
        config->DeviceId = kDeviceId;
        if (!config->preferredAudioLanguage || !config->preferredSubtitleLanguage ||
            !config->countryID || !config->preferredUILanguage) {
            std::free(config->preferredAudioLanguage);
            std::free(config->preferredSubtitleLanguage);
            std::free(config->countryID);
            std::free(config->preferredUILanguage);
            std::free(config);
            config = nullptr;
        }
    }
    hbbsim::record("hbbGetConfiguration", "-> %s", config ? "eng/GBR" : "null");
    return config;
}

// ---- programmes --------------------------------------------------------------------
// Simulated later: programmes per channel. Until then no service has any.

ProgrammeCollection* hbbGetProgrammeList(void) {
    hbbsim::record("hbbGetProgrammeList", "-> null");
    return nullptr;
}

Programme* hbbGetProgrammeItem(int index) {
    hbbsim::record("hbbGetProgrammeItem", "index=%d -> null", index);
    return nullptr;
}

int hbbGetSIDescriptorsLength(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int privateDataSpecifier) {
    hbbsim::record("hbbGetSIDescriptorsLength", "ccid=%s event=%s tag=%d ext=%d pds=%d -> 0",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID), descriptorTag,
                   descriptorTagExtension, privateDataSpecifier);
    return 0;
}

char* hbbGetSIDescriptorsItem(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int position) {
    hbbsim::record("hbbGetSIDescriptorsItem", "ccid=%s event=%s tag=%d ext=%d position=%d -> null",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID), descriptorTag,
                   descriptorTagExtension, position);
    return nullptr;
}

char* hbbGetProgrammeLongDescription(const char* channelID, const char* eventID) {
    hbbsim::record("hbbGetProgrammeLongDescription", "ccid=%s event=%s -> null",
                   hbbsim::text_or_null(channelID), hbbsim::text_or_null(eventID));
    return nullptr;
}

// ---- control API ---------------------------------------------------------------------

void hbb_sim_set_free_memory(int kilobytes) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.free_memory_kb = kilobytes;
}

void hbb_sim_set_current_time(int seconds_since_epoch) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.current_time = seconds_since_epoch;
}

void hbb_sim_set_exit_key_handled(int handled) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.exit_key_handled = handled;
}

void hbb_sim_set_parental_threshold(int value) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.parental_threshold = value;
}

}  // extern "C"
