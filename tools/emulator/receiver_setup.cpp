#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "emu_output.h"
#include "hbb_sim.h"
#include "receiver.h"

namespace appmgr::emu {

namespace {

// The scenario's channels come first: a capture's are added after them as it
// plays, so the positions of the scenario's stay those of its list.
void addChannels(const Scenario& s) {
    for (std::size_t i = 0; i < s.channels.size(); ++i) {
        ChannelRecord rec(s.channels[i], static_cast<int>(i));
        if (hbb_sim_add_channel(&rec.rec) < 0) fail("the simulator refused channel " + s.channels[i].name);
    }
    const bool tuned = s.channel("service") != nullptr;
    if (tuned) hbb_sim_set_current_channel(0);
    std::string list;
    for (const ChannelSpec& c : s.channels)
        list += (list.empty() ? "" : ", ") + c.name + " " + describeChannel(c);
    if (!list.empty()) emit("receiver  channels: " + list + (tuned ? "; current: service" : ""));
    if (s.terminal.parental_threshold) {
        hbb_sim_set_parental_threshold(*s.terminal.parental_threshold);
        emit("receiver  parental rating threshold " + std::to_string(*s.terminal.parental_threshold));
    }
}

void loadEitCache(const std::string& file) {
    hbb_sim_eit_clear();
    // Searches walk the cache event by event: those calls are not shown.
    hbb_sim_eit_trace_event_calls(0);
    int bad_line = 0;
    if (hbb_sim_eit_load_file(file.c_str(), &bad_line) < 0)
        fail("the EIT file " + file + " is not valid at line " + std::to_string(bad_line));
    emit("receiver  EIT cache: " + std::to_string(hbb_sim_eit_service_count()) + " services, " +
         std::to_string(hbb_sim_eit_event_count()) + " events from " + file);
}

void addProgramme(const Scenario& s, const ProgrammeSpec& p) {
    Programme rec{};
    rec.name = const_cast<char*>(p.title.c_str());
    rec.description = const_cast<char*>(p.description.c_str());
    rec.startTime = static_cast<int>(p.start);
    rec.duration = p.duration;
    rec.programmeID = const_cast<char*>(p.id.c_str());
    rec.programmeIDType = PROGRAMME_ID_DVB_EVENT;
    rec.longDescription = p.long_description ? const_cast<char*>(p.long_description->c_str()) : nullptr;
    const std::string value = std::to_string(p.rating_value);
    const std::string scheme = p.rating_scheme.value_or("");
    ParentalRating rating{const_cast<char*>(value.c_str()), const_cast<char*>(scheme.c_str()), p.rating_value,
                          0, nullptr};
    if (p.rating_scheme) rec.parentalRatings = &rating;
    if (hbb_sim_add_programme(s.channelIndex(p.channel), &rec) < 0)
        fail("the simulator refused programme " + p.section);
    emit("receiver  programme \"" + p.title + "\" on " + p.channel + " at " + std::to_string(p.start) +
         " for " + std::to_string(p.duration) + " s");
}

void addComponent(const Scenario& s, const ComponentSpec& c) {
    static const char* const kKinds[] = {"video", "audio", "subtitle"};
    AVComponent inner{static_cast<AVComponentType>(c.kind), const_cast<char*>(c.encoding.c_str()), 0, c.tag,
                      c.pid};
    char* language = const_cast<char*>(c.language.c_str());
    const int position = s.channelIndex(c.channel);
    int index = -1;
    if (c.kind == 0) {
        AVVideoComponent v{&inner, c.aspect_ratio};
        index = hbb_sim_add_video_component(position, &v, c.active);
    } else if (c.kind == 1) {
        AVAudioComponent a{&inner, language, c.audio_description ? 1 : 0, c.audio_channels};
        index = hbb_sim_add_audio_component(position, &a, c.active);
    } else {
        AVSubtitleComponent t{&inner, language, c.hearing_impaired ? 1 : 0};
        index = hbb_sim_add_subtitle_component(position, &t, c.active);
    }
    if (index < 0) fail("the simulator refused component " + c.section);
    emit("receiver  " + std::string(kKinds[c.kind]) + " component " + c.section + " on " + c.channel +
         ": tag " + std::to_string(c.tag) + ", pid " + std::to_string(c.pid) +
         (c.language.empty() ? "" : ", " + c.language) + (c.active ? ", active" : ""));
}

std::string readFile(const std::string& path) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    if (!in) fail("cannot read " + path);
    std::string document;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;) document.append(chunk, n);
    std::fclose(in);
    return document;
}

// The receiver's configuration, when the scenario sets any of it (the rest
// keeps the simulator's defaults).
void setConfiguration(const ReceiverSpec& r) {
    if (!r.audio_language && !r.subtitle_language && !r.ui_language && !r.country && !r.device_id) return;
    const std::string audio = r.audio_language.value_or("eng");
    const std::string subtitle = r.subtitle_language.value_or("eng");
    const std::string ui = r.ui_language.value_or("eng");
    const std::string country = r.country.value_or("GBR");
    const std::string device = r.device_id.value_or("hbb-sim-0001");
    Configuration config{};
    config.preferredAudioLanguage = const_cast<char*>(audio.c_str());
    config.preferredSubtitleLanguage = const_cast<char*>(subtitle.c_str());
    config.preferredUILanguage = const_cast<char*>(ui.c_str());
    config.countryID = const_cast<char*>(country.c_str());
    config.DeviceId = const_cast<char*>(device.c_str());
    hbb_sim_set_configuration(&config);
}

void setAnswers(const ReceiverSpec& r) {
    for (const std::string& name : r.capabilities) hbb_sim_set_capability(name.c_str(), 1);
    if (r.decodes) hbb_sim_set_video_decodes(r.decodes->first, r.decodes->second);
    if (r.rating_schemes) hbb_sim_set_parental_rating_schemes(*r.rating_schemes);
    if (r.xml_capabilities) hbb_sim_set_xml_capabilities(readFile(*r.xml_capabilities).c_str());
    setConfiguration(r);
}

// The library's notification entry points, called by the simulator's
// notifier thread as a middleware would.
void reportChanges() {
    hbb_sim_listeners listeners{};
    listeners.channel_changed = channelChanged;
    listeners.channel_change_error = channelChangeError;
    listeners.programmes_list_changed = programmesListChanged;
    listeners.programmes_changed = programmesChanged;
    listeners.selected_component_changed = selectedComponentChanged;
    listeners.component_changed = componentChanged;
    listeners.parental_rating_changed = parentalRatingChanged;
    listeners.parental_rating_error = parentalRatingError;
    hbb_sim_set_listeners(&listeners);
    emit("receiver  reports tunes and broadcast changes to the library from its notifier thread");
}

void addCarousels(const Scenario& s) {
    for (const CarouselSpec& c : s.carousels) {
        if (hbb_sim_set_carousel(c.tag, c.path.c_str()) != 0)
            fail("the simulator refused directory " + c.path + " as the carousel of tag " +
                 std::to_string(c.tag));
        emit("receiver  object carousel of component tag " + hex(c.tag) + ": directory " + c.path);
    }
}

}  // namespace

ChannelRecord::ChannelRecord(const ChannelSpec& c, int position)
    : ccid("ccid:" + std::to_string(position + 1)), name(c.label) {
    rec.type = static_cast<ChannelType>(c.type);
    rec.ccid = ccid.data();
    rec.onid = c.onid;
    rec.tsid = c.tsid;
    rec.sid = c.sid;
    rec.name = name.data();
    rec.idType = 12;  // DVB-T
    rec.nid = c.onid;
    rec.TerminalChannel = position + 1;
    rec.MajorChannel = position + 1;
}

std::string hex(int v) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%x", static_cast<unsigned>(v));
    return text;
}

std::string describeEntry(int index, const Application& a) {
    const char* control = controlCodeName(a.control_code);
    const transport_protocol_descriptor* tp = a.transport_protocol;
    const int protocol = tp ? tp->protocol_id : 0;
    const std::string transport = protocol == kTransportHttp       ? "http"
                                  : protocol == kTransportCarousel ? "dvb"
                                                                   : "protocol " + std::to_string(protocol);
    const int version[3] = {a.version_major, a.version_minor, a.version_micro};
    std::string extra;
    if (!a.is_service_bound) extra += ", unbound";
    if (a.is_IP_connect_require) extra += ", needs IP";
    for (int r = 0; r < a.app_parental.count && a.app_parental.parental; ++r) {
        // A captured table's country code need not end in a zero byte.
        const parental_rating& p = a.app_parental.parental[r];
        extra += ", " + std::string(p.country, strnlen(p.country, sizeof p.country)) + ":" + std::to_string(p.rating);
    }
    if (a.app_profile != 0) extra += ", profile " + std::to_string(a.app_profile);
    return "          [" + std::to_string(index) + "] " + formatAppIds(a.organisation_id, a.app_id) + " " +
           (control ? control : "control " + std::to_string(a.control_code)) + " priority " +
           std::to_string(a.app_priority) + ", " + transport + ", version " + formatVersion(version) + extra +
           ": " + (tp && tp->url ? tp->url : "(no URL)");
}

std::string describeChannel(const ChannelSpec& c) {
    return "\"" + c.label + "\" " + hex(c.onid) + "." + hex(c.tsid) + "." + hex(c.sid);
}

void setUpReceiver(const Scenario& s) {
    addChannels(s);
    if (s.receiver.eit) loadEitCache(*s.receiver.eit);
    for (const ProgrammeSpec& p : s.programmes) addProgramme(s, p);
    for (const ComponentSpec& c : s.components) addComponent(s, c);
    setAnswers(s.receiver);
    if (s.receiver.notifications) reportChanges();
    addCarousels(s);
}

}  // namespace appmgr::emu
