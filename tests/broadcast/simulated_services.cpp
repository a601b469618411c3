// The simulated services of the broadcast suites and the fault walks.
#include "simulated_services.h"

#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "hbb_sim.h"

namespace appmgr::test {

const char* const kOneRecord = "0|ccid:1.2.3|1|10|2|3|One|dsd-a|1|1|12|";
const char* const kTwoRecord = "0|ccid:1.2.4|1|10|2|4|Two|dsd-a|2|2|12|";
const char* const kRadioRecord = "1|ccid:1.2.5|1|10|2|5|Radio|dsd-b|3|3|12|";

namespace {

void add_channel(ChannelType type, const char* ccid, int sid, const char* name, const char* dsd,
                 int number) {
    Channel c{};
    c.type = type;
    c.ccid = const_cast<char*>(ccid);
    c.onid = 1;
    c.tsid = 2;
    c.sid = sid;
    c.name = const_cast<char*>(name);
    c.dsd = const_cast<char*>(dsd);
    c.idType = 12;
    c.nid = 10;
    c.TerminalChannel = number;
    c.MajorChannel = number;
    hbb_sim_add_channel(&c);
}

void add_programme(const char* name, const char* description, int start, int duration,
                   const char* id, const char* long_description, ParentalRating* rating) {
    Programme p{};
    p.name = const_cast<char*>(name);
    p.description = const_cast<char*>(description);
    p.startTime = start;
    p.duration = duration;
    p.programmeID = const_cast<char*>(id);
    p.programmeIDType = PROGRAMME_ID_DVB_EVENT;
    p.longDescription = const_cast<char*>(long_description);
    p.parentalRatings = rating;
    hbb_sim_add_programme(kOne, &p);
}

}  // namespace

void add_services() {
    add_channel(CHANNEL_TYPE_TV, "ccid:1.2.3", 3, "One", "dsd-a", 1);
    add_channel(CHANNEL_TYPE_TV, "ccid:1.2.4", 4, "Two", "dsd-a", 2);
    add_channel(CHANNEL_TYPE_RADIO, "ccid:1.2.5", 5, "Radio", "dsd-b", 3);
    hbb_sim_set_current_channel(kOne);
    // The first service carries stream events on component tags 7 and 19.
    hbb_sim_add_data_component(kOne, 7);
    hbb_sim_add_data_component(kOne, 19);

    ParentalRating twelve{const_cast<char*>("12"), const_cast<char*>("dvb-si"), 9, 0,
                          const_cast<char*>("GBR")};
    add_programme("News", "Headlines", 1700000000, 1800, "0x1001", "Long news", &twelve);
    add_programme("Film", "A film", 1700001800, 5400, "0x1002", nullptr, nullptr);

    AVComponent video{AV_COMPONENT_TYPE_VIDEO, const_cast<char*>("H.264"), 0, 1, 100};
    AVVideoComponent v{&video, 1.78};
    hbb_sim_add_video_component(kOne, &v, 1);
    AVComponent english{AV_COMPONENT_TYPE_AUDIO, const_cast<char*>("AAC"), 0, 2, 101};
    AVAudioComponent en{&english, const_cast<char*>("eng"), 0, 2};
    hbb_sim_add_audio_component(kOne, &en, 1);
    AVComponent german{AV_COMPONENT_TYPE_AUDIO, const_cast<char*>("AAC"), 0, 3, 102};
    AVAudioComponent de{&german, const_cast<char*>("deu"), 1, 2};
    hbb_sim_add_audio_component(kOne, &de, 0);
    AVComponent subtitles{AV_COMPONENT_TYPE_SUBTITLE, const_cast<char*>("DVB"), 0, 4, 103};
    AVSubtitleComponent sub{&subtitles, const_cast<char*>("eng"), 1};
    hbb_sim_add_subtitle_component(kOne, &sub, 0);
}

void register_listeners() {
    hbb_sim_listeners l{};
    l.channel_changed = channelChanged;
    l.channel_change_error = channelChangeError;
    l.programmes_list_changed = programmesListChanged;
    l.programmes_changed = programmesChanged;
    l.selected_component_changed = selectedComponentChanged;
    l.component_changed = componentChanged;
    l.parental_rating_changed = parentalRatingChanged;
    l.parental_rating_error = parentalRatingError;
    hbb_sim_set_listeners(&l);
}

}  // namespace appmgr::test
