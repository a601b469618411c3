// Receiver facts the library reads: clock, free memory, exit-key handling,
// parental rating, capabilities, configuration, and the intent and
// media-delivery services. Answers a test may need to vary are settable
// through hbb_sim.h; the rest are fixed.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "sim_internal.h"

namespace {

// Blocks no DVB-SI rating: the library lets an application run when its
// rating is below the threshold value, and DVB-SI ratings stop at 15.
constexpr int kDefaultParentalThreshold = 16;

// A minimal capabilities document of an HD receiver without broadband
// download or PVR options.
constexpr const char* kXmlCapabilities =
    "<profilelist>"
    "<ui_profile name=\"OITF_HD_UIPROF+DVB_T\"/>"
    "<broadcast>urn:dvb:broadcast:ird:video:25_Hz_H.264_AVC_HDTV_IRD</broadcast>"
    "</profilelist>";

struct SimConfiguration {
    std::string audio = "eng", subtitle = "eng", country = "GBR", ui = "eng";
    uint8_t subtitles_enabled = 0;
    uint8_t time_shift_synchronized = 0;
    std::string device_id = "hbb-sim-0001";
    int audio_description_enabled = 0;
};

struct SettableAnswers {
    int free_memory_kb = -1;
    int current_time = 0;
    int exit_key_handled = 0;
    int parental_threshold = kDefaultParentalThreshold;
    int rating_schemes = 0;
    std::set<std::string> capabilities;
    int extra_sd_decodes = 0;
    int extra_hd_decodes = 0;
    std::optional<std::string> xml_capabilities = std::string(kXmlCapabilities);
    std::optional<SimConfiguration> configuration = SimConfiguration{};
};

std::mutex answers_mutex;
SettableAnswers answers;

SettableAnswers snapshot() {
    std::lock_guard<std::mutex> lock(answers_mutex);
    return answers;
}

// The texts handed out as the middleware's own (capabilities documents and
// configuration DeviceIds). Every text handed out stays until the process
// ends, so a reader on any thread always finds it whole.
std::set<std::string> handed_out_texts;

char* handed_out(const std::string& text) {
    return const_cast<char*>(handed_out_texts.insert(text).first->c_str());
}

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
    if (hbbsim::injected_failure(__func__)) return -1;
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
    if (hbbsim::injected_failure(__func__)) return -1;
    hbbsim::record("orb_am_sendBroadcast", "action=%s -> 0", hbbsim::text_or_null(action));
    return 0;
}

// Simulated later: a table of locations served by player applications. Until
// then no location is, and playerUrl is left unchanged.
int tvh_mds_get_player_url(const char* location, char* playerUrl, int playerUrlSize) {
    if (hbbsim::injected_failure(__func__)) return -1;
    (void)playerUrl;
    hbbsim::record("tvh_mds_get_player_url", "location=%s size=%d -> -1",
                   hbbsim::text_or_null(location), playerUrlSize);
    return -1;
}

// ---- parental rating, capabilities and configuration ----------------------------

// The scheme collection, one per thread (middleware-owned until released).
thread_local ParentalRatingSchemeCollection scheme_record{0};

ParentalRatingSchemeCollection* hbbGetParentalRatingSchemes(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    const int count = snapshot().rating_schemes;
    ParentalRatingSchemeCollection* schemes = nullptr;
    if (count > 0) {
        scheme_record.lenght = count;
        schemes = &scheme_record;
    }
    hbbsim::record("hbbGetParentalRatingSchemes", "-> %d", schemes ? count : -1);
    return schemes;
}

void hbbReleaseParentalRatingSchemes(void) { hbbsim::record("hbbReleaseParentalRatingSchemes", "-"); }

ParentalRating* hbbGetCurrentParentalRatingThreshold(const char* schemeName) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
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

int hbbHasCapability(const char* profileName) {
    if (hbbsim::injected_failure(__func__)) return 0;
    int has = 0;
    if (profileName) {
        std::lock_guard<std::mutex> lock(answers_mutex);
        has = answers.capabilities.count(profileName) != 0 ? 1 : 0;
    }
    hbbsim::record("hbbHasCapability", "profile=%s -> %d", hbbsim::text_or_null(profileName), has);
    return has;
}

VideoDecodes* hbbGetVideoDecodes(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    const SettableAnswers a = snapshot();
    VideoDecodes* decodes = nullptr;
    if (a.extra_sd_decodes >= 0 && a.extra_hd_decodes >= 0) {
        decodes = static_cast<VideoDecodes*>(std::calloc(1, sizeof(VideoDecodes)));
        if (decodes) {
            decodes->extraSDVideoDecodes = a.extra_sd_decodes;
            decodes->extraHDVideoDecodes = a.extra_hd_decodes;
        }
    }
    hbbsim::record("hbbGetVideoDecodes", "-> %s", decodes ? "decodes" : "null");
    return decodes;
}

char* hbbGetXmlCapabilities(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    char* document = nullptr;
    {
        std::lock_guard<std::mutex> lock(answers_mutex);
        if (answers.xml_capabilities) document = handed_out(*answers.xml_capabilities);
    }
    hbbsim::record("hbbGetXmlCapabilities", "-> %s", document ? "document" : "null");
    return document;
}

Configuration* hbbGetConfiguration(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Configuration* config = nullptr;
    std::lock_guard<std::mutex> lock(answers_mutex);
    if (answers.configuration) {
        const SimConfiguration& c = *answers.configuration;
        config = static_cast<Configuration*>(std::calloc(1, sizeof(Configuration)));
        if (config) {
            config->preferredAudioLanguage = hbbsim::dup_text(c.audio.c_str());
            config->preferredSubtitleLanguage = hbbsim::dup_text(c.subtitle.c_str());
            config->countryID = hbbsim::dup_text(c.country.c_str());
            config->preferredUILanguage = hbbsim::dup_text(c.ui.c_str());
            config->SubtitlesEnabled = c.subtitles_enabled;
            config->TimeShiftSynchronized = c.time_shift_synchronized;
            // Never freed by the library: the text stays here.
            config->DeviceId = handed_out(c.device_id);
            config->AudioDescriptionEnabled = c.audio_description_enabled;
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
    }
    hbbsim::record("hbbGetConfiguration", "-> %s", config ? config->countryID : "null");
    return config;
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

void hbb_sim_set_parental_rating_schemes(int count) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.rating_schemes = count;
}

void hbb_sim_set_capability(const char* name, int has) {
    if (!name) return;
    std::lock_guard<std::mutex> lock(answers_mutex);
    if (has)
        answers.capabilities.insert(name);
    else
        answers.capabilities.erase(name);
}

void hbb_sim_set_video_decodes(int extra_sd, int extra_hd) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.extra_sd_decodes = extra_sd;
    answers.extra_hd_decodes = extra_hd;
}

void hbb_sim_set_xml_capabilities(const char* document) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    answers.xml_capabilities = document ? std::optional<std::string>(document) : std::nullopt;
}

void hbb_sim_set_configuration(const Configuration* configuration) {
    std::lock_guard<std::mutex> lock(answers_mutex);
    if (!configuration) {
        answers.configuration.reset();
        return;
    }
    auto text = [](const char* t) { return std::string(t ? t : ""); };
    SimConfiguration c;
    c.audio = text(configuration->preferredAudioLanguage);
    c.subtitle = text(configuration->preferredSubtitleLanguage);
    c.country = text(configuration->countryID);
    c.ui = text(configuration->preferredUILanguage);
    c.subtitles_enabled = configuration->SubtitlesEnabled;
    c.time_shift_synchronized = configuration->TimeShiftSynchronized;
    c.device_id = text(configuration->DeviceId);
    c.audio_description_enabled = configuration->AudioDescriptionEnabled;
    answers.configuration = c;
}

}  // extern "C"
