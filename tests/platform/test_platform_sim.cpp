// The porting layer as the library uses it, run against the simulated
// platform: log filtering and output, the notification registrations, fresh
// channel records, tuning, the record of presentation calls, and a captured
// carousel's module numbers and stream-event objects.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "hbb_sim.h"

namespace {

class PlatformSim : public ::testing::Test {
protected:
    void SetUp() override {
        hbb_sim_reset();
        hbb_sim_set_log_stderr(0);
        hbb_sim_set_log_level(2);
    }
    void TearDown() override {
        hbb_sim_set_log_hook(nullptr, nullptr);
        hbb_sim_set_decision_hook(nullptr, nullptr);
        hbb_sim_set_trace(nullptr, nullptr);
        hbb_sim_set_tune_hook(nullptr, nullptr);
        hbb_sim_set_log_file(nullptr);
    }

    // Channel with heap texts owned by the test.
    static Channel make(const char* ccid, int onid, int tsid, int sid, const char* dsd) {
        Channel c{};
        c.ccid = const_cast<char*>(ccid);
        c.name = const_cast<char*>("Name");
        c.dsd = const_cast<char*>(dsd);
        c.onid = onid;
        c.tsid = tsid;
        c.sid = sid;
        c.MajorChannel = sid;
        return c;
    }
    void addTwoChannels() {
        Channel a = make("ccid:a", 1, 2, 3, "dsd-a");
        Channel b = make("ccid:b", 1, 2, 4, "dsd-b");
        ASSERT_EQ(0, hbb_sim_add_channel(&a));
        ASSERT_EQ(1, hbb_sim_add_channel(&b));
    }
};

std::vector<std::pair<int, std::string>> logged;
void collect_log(int level, const char* line, void*) { logged.emplace_back(level, line); }

TEST_F(PlatformSim, LogFilterFollowsLevelAndEnvironment) {
    hbb_sim_set_log_level(3);
    EXPECT_EQ(0, log_is_output(19, 2));
    EXPECT_NE(0, log_is_output(19, 3));
    EXPECT_NE(0, log_is_output(19, 5));
    EXPECT_EQ(0, log_is_outfile(19, 5)) << "no log file is open";

    setenv("HBB_SIM_LOG_LEVEL", "5", 1);
    hbb_sim_log_from_env();
    EXPECT_EQ(5, hbb_sim_log_level());
    EXPECT_EQ(0, log_is_output(19, 3));
    EXPECT_NE(0, log_is_output(19, 5));
    unsetenv("HBB_SIM_LOG_LEVEL");
    hbb_sim_log_from_env();
    EXPECT_EQ(2, hbb_sim_log_level());
}

TEST_F(PlatformSim, LogHookReceivesFilteredFormattedLines) {
    logged.clear();
    hbb_sim_set_log_hook(collect_log, nullptr);
    hbb_sim_set_log_level(3);
    orb_log_printfs("lyra", log_get_cmd(19), ORBLOG_LOGLVL_INFO, "[%s:%d]:hidden\n", "f", 1);
    orb_log_printfs("lyra", log_get_cmd(19), ORBLOG_LOGLVL_WARN, "[%s:%d]:value %d\n\n", "fn", 7, 42);
    orb_log_printfs("lyra", log_get_cmd(19), ORBLOG_LOGLVL_ERROR, "%s", "broken");
    ASSERT_EQ(2u, logged.size());
    EXPECT_EQ(3, logged[0].first);
    EXPECT_NE(std::string::npos, logged[0].second.find("WARN lyra[19]: [fn:7]:value 42"));
    EXPECT_NE('\n', logged[0].second.back());
    EXPECT_EQ(5, logged[1].first);
    EXPECT_NE(std::string::npos, logged[1].second.find("ERROR"));
}

// The optional decision trace reaches the host's hook with the record as
// given; the hook survives a reset and is not counted as a porting call.
TEST_F(PlatformSim, DecisionTraceReachesTheHook) {
    std::vector<std::string> seen;
    hbb_sim_set_decision_hook(
        [](const hbbDecision* d, void* user) {
            static_cast<std::vector<std::string>*>(user)->push_back(
                std::string(d->name) + " " + std::to_string(d->org_id) + "." +
                std::to_string(d->app_id) + " " + d->reason + " " + d->url);
        },
        &seen);
    hbb_sim_reset();
    const hbbDecision kill{"kill", 7, 8, 0, "", "dvb://1.2.3.4/a.html", "service_bound", 0};
    ASSERT_NE(hbbTraceDecision, nullptr);
    hbbTraceDecision(&kill);
    hbbTraceDecision(nullptr);
    ASSERT_EQ(seen, std::vector<std::string>{"kill 7.8 service_bound dvb://1.2.3.4/a.html"});
    EXPECT_EQ(0, hbb_sim_call_count("hbbTraceDecision"));
    hbb_sim_set_decision_hook(nullptr, nullptr);
    hbbTraceDecision(&kill);
    EXPECT_EQ(1u, seen.size());
}

TEST_F(PlatformSim, LogFileGetsFileLinesAtOrAboveLevel) {
    char path[] = "/tmp/hbb_sim_logXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(0, hbb_sim_set_log_file(path));
    hbb_sim_set_log_level(3);
    EXPECT_NE(0, log_is_outfile(19, 3));
    EXPECT_EQ(0, log_is_outfile(19, 2));
    fpi_log_printf(19, 2, "quiet %d", 1);
    fpi_log_printf(19, 5, "disk %s", "full");
    ASSERT_EQ(0, hbb_sim_set_log_file(nullptr));
    EXPECT_EQ(0, log_is_outfile(19, 5));

    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    unlink(path);
    EXPECT_NE(std::string::npos, text.str().find("ERROR [19]: disk full\n"));
    EXPECT_EQ(std::string::npos, text.str().find("quiet"));
}

AitTable* seen_ait;
int seen_status = -1;
unsigned short seen_module;
void on_ait(AitTable* ait) { seen_ait = ait; }
int on_network(int status) { return seen_status = status; }
void on_module(unsigned short id, unsigned char, void*) { seen_module = id; }

TEST_F(PlatformSim, RegisteredNotificationsAreFired) {
    AitTable table{};
    EXPECT_EQ(-1, hbb_sim_fire_ait(&table)) << "nothing registered yet";
    ASSERT_EQ(0, QUMAm_Broadcast_SubscribeForAIT(on_ait));
    ASSERT_EQ(0, QUMAm_Broadcast_NetworkStatusChangeCallback(on_network));
    ASSERT_EQ(0, QUMAm_DSMCCModuleDataChangeCallback(on_module));
    EXPECT_NE(0, QUMAm_Broadcast_SubscribeForAIT(nullptr)) << "a null callback is refused";

    EXPECT_EQ(0, hbb_sim_fire_ait(&table));
    EXPECT_EQ(&table, seen_ait);
    EXPECT_EQ(0, hbb_sim_fire_network_status(NETWORK_ON));
    EXPECT_EQ(NETWORK_ON, seen_status);
    EXPECT_EQ(0, hbb_sim_fire_module_update(7, 1, nullptr));
    EXPECT_EQ(7, seen_module);

    hbb_sim_reset();
    EXPECT_EQ(-1, hbb_sim_fire_network_status(NETWORK_OFF));
}

TEST_F(PlatformSim, ChannelGettersHandOutFreshRecords) {
    EXPECT_EQ(nullptr, hbbGetChannelList());
    EXPECT_EQ(nullptr, hbbGetCurrentChannel());
    addTwoChannels();
    ASSERT_EQ(0, hbb_sim_set_current_channel(1));

    Channel* first = hbbGetCurrentChannel();
    Channel* second = hbbGetCurrentChannel();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(first, second);
    EXPECT_STREQ("ccid:b", first->ccid);
    EXPECT_NE(first->ccid, second->ccid);
    EXPECT_EQ(4, first->sid);
    first->name[0] = 'X';  // a record is the caller's: changing it changes nothing else
    EXPECT_STREQ("Name", second->name);
    channel_destroy(first);
    channel_destroy(second);

    std::vector<Channel*> found = {hbbGetChannelByPosition(0), hbbGetChannel("ccid:b"),
                                   hbbGetChannelByTriplet(1, 2, 3), hbbGetChannelByDsd("dsd-b", 4)};
    EXPECT_EQ(3, found[0]->sid);
    EXPECT_EQ(4, found[1]->sid);
    EXPECT_STREQ("ccid:a", found[2]->ccid);
    EXPECT_STREQ("ccid:b", found[3]->ccid);
    for (Channel* c : found) channel_destroy(c);
    EXPECT_EQ(nullptr, hbbGetChannelByPosition(2));
    EXPECT_EQ(nullptr, hbbGetChannelByTriplet(9, 9, 9));
    EXPECT_EQ(nullptr, hbbGetChannelByDsd("dsd-b", 3));

    ASSERT_NE(nullptr, hbbGetChannelList());
    EXPECT_EQ(2, hbbGetChannelList()->length);
    Channel* filled = channel_create();
    filled->name = strdup("old");  // replaced and freed by the fill
    ASSERT_EQ(0, getCurrentChannelData(filled));
    EXPECT_STREQ("ccid:b", filled->ccid);
    EXPECT_STREQ("Name", filled->name);
    channel_destroy(filled);
    channel_destroy(nullptr);
}

std::vector<std::pair<int, int>> tunes;  // (sid, quiet)
void on_tune(const Channel* c, int quiet, void*) { tunes.emplace_back(c->sid, quiet); }

TEST_F(PlatformSim, TuningChangesCurrentChannelAndPresentation) {
    addTwoChannels();
    tunes.clear();
    hbb_sim_set_tune_hook(on_tune, nullptr);
    Channel wanted = make(nullptr, 1, 2, 4, nullptr);
    ASSERT_EQ(0, hbbSetChannel(&wanted, 2));
    EXPECT_EQ(1, hbb_sim_current_channel());
    Channel* current = hbbGetCurrentChannel();
    EXPECT_STREQ("ccid:b", current->ccid);
    channel_destroy(current);

    Channel unknown = make(nullptr, 5, 5, 5, nullptr);
    EXPECT_EQ(-1, hbbSetChannel(&unknown, 0));
    EXPECT_EQ(1, hbb_sim_current_channel());
    EXPECT_EQ(0, hbbNextChannel());
    EXPECT_EQ(0, hbb_sim_current_channel()) << "next wraps to the start";
    EXPECT_EQ(0, hbbPreviousChannel());
    EXPECT_EQ(1, hbb_sim_current_channel());
    EXPECT_EQ((std::vector<std::pair<int, int>>{{4, 2}, {3, 0}, {4, 0}}), tunes);

    EXPECT_EQ(1, hbbStopChannel());
    EXPECT_EQ(0, hbb_sim_broadcast_presenting());
    EXPECT_EQ(0, hbbBindCurrentChannel());
    EXPECT_EQ(1, hbb_sim_broadcast_presenting());
}

std::vector<std::string> traced;
void on_trace(const char* function, const char* details, void*) {
    traced.push_back(std::string(function) + " " + details);
}

TEST_F(PlatformSim, PresentationCallsAreRecordedAndTraced) {
    traced.clear();
    hbb_sim_set_trace(on_trace, nullptr);
    char details[64];
    EXPECT_EQ(-1, hbb_sim_last_call("hbbRegisterKeySet", details, sizeof details));
    EXPECT_STREQ("", details);

    EXPECT_EQ(0, hbbRegisterKeySet(0x1f));
    EXPECT_EQ(-1, hbbRegisterKeySet(0x800));
    EXPECT_EQ(0x1f, hbb_sim_registered_keyset()) << "an invalid mask changes nothing";
    EXPECT_EQ(2, hbb_sim_call_count("hbbRegisterKeySet"));
    EXPECT_LT(0, hbb_sim_last_call("hbbRegisterKeySet", details, sizeof details));
    EXPECT_STREQ("mask=0x800 -> -1", details);

    hbbStateChange(EN_HBB_FULLSCREEN_NO_VOD);
    EXPECT_EQ(EN_HBB_FULLSCREEN_NO_VOD, hbbGetState());
    EXPECT_EQ(EN_HBB_FULLSCREEN_NO_VOD, hbb_sim_display_state());
    hbbOpenDtvDecoderByMask(0x3);
    hbbCloseDtvDecoderByMask(0x1);
    EXPECT_EQ(0x2, hbb_sim_open_decoders());

    int top = 0, width = 0;
    EXPECT_EQ(0, hbbSetVideoProperties(10, 20, 640, 360));
    setVideoToFullscreen();
    EXPECT_EQ(1, hbb_sim_video_window(nullptr, nullptr, nullptr, nullptr));
    restoreCoordinates();
    EXPECT_EQ(0, hbb_sim_video_window(&top, nullptr, &width, nullptr));
    EXPECT_EQ(10, top);
    EXPECT_EQ(640, width);

    ASSERT_EQ(9u, traced.size());
    EXPECT_EQ("hbbRegisterKeySet mask=0x1f -> 0", traced[0]);
    EXPECT_EQ("hbbStateChange state=2", traced[2]);
    hbb_sim_reset();
    EXPECT_EQ(0, hbb_sim_call_count("hbbRegisterKeySet"));
    EXPECT_EQ(0, hbb_sim_registered_keyset());
}

}  // namespace

namespace {

std::atomic<int> carousel_events{0};
void count_event(char*, char*, tQUMAm_DSMCC_StreamEventStatus, char*, int) { ++carousel_events; }

// A capture's carousel: the module numbers the broadcast gave its entries,
// and events of its stream-event objects fired at the listeners of the
// object's URL, whatever the URL's locator.
TEST_F(PlatformSim, CarouselModulesAndObjectEventsOfACapturedCarousel) {
    char pattern[] = "/tmp/appmgr-sim-carousel-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string root = pattern;
    ASSERT_EQ(0, mkdir((root + "/a").c_str(), 0755));
    std::ofstream(root + "/a/b.txt") << "b";
    std::ofstream(root + "/ev.ste") << "go\n";
    ASSERT_EQ(0, hbb_sim_set_carousel(0x17, root.c_str()));
    const char* paths[] = {"", "a/b.txt", "ev"};
    const unsigned short modules[] = {9, 5, 6};
    ASSERT_EQ(0, hbb_sim_set_carousel_modules(0x17, paths, modules, 3));
    EXPECT_EQ(-1, hbb_sim_set_carousel_modules(0x10000, paths, modules, 3));
    EXPECT_EQ(-1, hbb_sim_set_carousel_modules(0x17, nullptr, modules, 3));
    ASSERT_EQ(eQUMA_NO_ERROR, QUMA_MountCarouselObject(0x17));
    auto module_of = [](const char* url) {
        DSMCC_LoaderEntryType type;
        unsigned short module = 0;
        return DSMCC_LoaderGetEntryInfo(url, &type, &module) == DSMCC_LOADER_OK ? module : -1;
    };
    EXPECT_EQ(9, module_of("dvb://1.2.3.17/"));
    EXPECT_EQ(5, module_of("dvb://1.2.3.17/a/b.txt"));
    EXPECT_EQ(6, module_of("dvb://1.2.3.17/ev"));
    EXPECT_EQ(1, module_of("dvb://1.2.3.17/a"));  // not listed: its directory's
    // The list goes with the carousel.
    ASSERT_EQ(0, hbb_sim_set_carousel(0x17, nullptr));
    ASSERT_EQ(0, hbb_sim_set_carousel(0x17, root.c_str()));
    ASSERT_EQ(eQUMA_NO_ERROR, QUMA_MountCarouselObject(0x17));
    EXPECT_NE(5, module_of("dvb://1.2.3.17/a/b.txt"));

    carousel_events = 0;
    ASSERT_EQ(0, QUMA_StreamEventsSubscribe("go", "dvb://1.2.3.17/%65v", count_event));
    ASSERT_EQ(0, QUMA_StreamEventsSubscribe("go", "dvb://9.9.9.17/ev", count_event));
    ASSERT_EQ(0, QUMA_StreamEventsSubscribe("stop", "dvb://1.2.3.17/ev", count_event));
    ASSERT_EQ(0, QUMA_StreamEventsSubscribe("go", "dvb://1.2.3.18/ev", count_event));
    ASSERT_EQ(0, QUMA_StreamEventsWOCSubscribe(0x17, "go", "dvb://1.2.3.17/ev", 1, count_event));
    EXPECT_EQ(2, hbb_sim_fire_carousel_stream_event(0x17, "ev", "go", eQUMAm_DSMCC_EVENT_FIRE, "x", 1));
    EXPECT_EQ(0, hbb_sim_fire_carousel_stream_event(0x17, "a/ev", "go", eQUMAm_DSMCC_EVENT_FIRE, "x", 1));
    ASSERT_EQ(0, hbb_sim_wait_notifications(3000));
    EXPECT_EQ(2, carousel_events.load());
    std::filesystem::remove_all(root);
}

// A subscription by component tag needs a component the current channel
// carries; the channel's AV and data components count, and follow it.
TEST_F(PlatformSim, DescribedEventsNeedAComponentOfTheCurrentChannel) {
    Channel one{};
    one.onid = 1;
    one.tsid = 2;
    one.sid = 3;
    Channel two = one;
    two.sid = 4;
    const int first = hbb_sim_add_channel(&one);
    const int second = hbb_sim_add_channel(&two);
    ASSERT_EQ(0, hbb_sim_add_data_component(first, 0x13));
    AVComponent inner{AV_COMPONENT_TYPE_VIDEO, nullptr, 0, 0x21, 100};
    AVVideoComponent video{&inner, 1.78};
    ASSERT_EQ(0, hbb_sim_add_video_component(second, &video, 1));
    EXPECT_EQ(-1, hbb_sim_add_data_component(7, 0x13));
    EXPECT_EQ(-1, hbb_sim_add_data_component(first, 0x10000));

    EXPECT_NE(0, QUMA_StreamEventsWOCSubscribe(0x13, "go", "http://a/e.xml", 1, count_event))
        << "no channel is current";
    ASSERT_EQ(0, hbb_sim_set_current_channel(first));
    EXPECT_EQ(0, QUMA_StreamEventsWOCSubscribe(0x13, "go", "http://a/e.xml", 1, count_event));
    EXPECT_NE(0, QUMA_StreamEventsWOCSubscribe(0, "go", "http://a/f.xml", 0, count_event));
    EXPECT_NE(0, QUMA_StreamEventsWOCSubscribe(0x21, "go", "http://a/g.xml", 1, count_event));
    char details[256];
    hbb_sim_last_call("QUMA_StreamEventsWOCSubscribe", details, sizeof details);
    EXPECT_NE(std::string(details).find("(component not carried) -> -1"), std::string::npos) << details;
    ASSERT_EQ(0, hbb_sim_set_current_channel(second));
    EXPECT_EQ(0, QUMA_StreamEventsWOCSubscribe(0x21, "go", "http://a/g.xml", 1, count_event));
    EXPECT_NE(0, QUMA_StreamEventsWOCSubscribe(0x13, "go", "http://a/h.xml", 1, count_event));
    EXPECT_EQ(2, hbb_sim_stream_event_subscriptions());
}

}  // namespace

namespace {

// What a porting call answered, in the words of hbb_sim_failable_function.
std::string answer(const void* record) { return record ? "record" : "null"; }
std::string answer(int value) { return std::to_string(value); }
std::string answer(tQUMA_ErrorCode code) {
    return code == eQUMA_ERROR ? "eQUMA_ERROR" : std::to_string(static_cast<int>(code));
}
std::string answer(DSMCC_LoaderResult result) {
    return result == DSMCC_LOADER_ERROR ? "DSMCC_LOADER_ERROR" : std::to_string(static_cast<int>(result));
}

int registered_client = -1;
void noop_event(char*, char*, tQUMAm_DSMCC_StreamEventStatus, char*, int) {}
void noop_ait(AitTable*) {}
int noop_status(int) { return 0; }
void noop_module(unsigned short, unsigned char, void*) {}

// One call of every failable function, with arguments it accepts.
#define CALL(function, ...) {#function, [] { return answer(function(__VA_ARGS__)); }}
struct FailableCall {
    const char* function;
    std::string (*call)();
};
AVVideoComponent video{};
AVAudioComponent audio{};
AVSubtitleComponent subtitle{};
Channel tuned{};
unsigned char* bytes = nullptr;
char* text = nullptr;
unsigned int length = 0;
DSMCC_LoaderEntryType entry_type;
unsigned short module_id = 0;
fpi_zoom_setting_window_t window;
tEIT_DVB_HbbTVDescriptor eit_event;
char player_url[64];
const FailableCall kCalls[] = {
    CALL(QUMAm_Broadcast_SubscribeForAIT, noop_ait),
    CALL(QUMAm_Broadcast_NetworkStatusChangeCallback, noop_status),
    CALL(QUMAm_DSMCCModuleDataChangeCallback, noop_module),
    CALL(QUMA_MountCarouselObject, 1),
    CALL(QUMA_UmountCarouselObject, "DSM://"),
    CALL(DSMCC_DeleteAllFileFromFSA),
    CALL(DSMCC_LoaderGetEntryInfo, "dvb://1.2.3.1/a", &entry_type, &module_id),
    CALL(DSMCC_LoaderGetFile, "dvb://1.2.3.1/a", &bytes, &length),
    CALL(DSMCC_LoaderGetDirectory, "dvb://1.2.3.1/", &text, &length),
    CALL(DSMCC_LoaderGetStreamEventList, "dvb://1.2.3.1/ev", &text, &length),
    CALL(QUMA_StreamEventsSubscribe, "go", "dvb://1.2.3.1/ev", noop_event),
    CALL(QUMA_StreamEventsUnsubscribe, "go", "dvb://1.2.3.1/ev"),
    CALL(QUMA_StreamEventsWOCSubscribe, 1, "go", "http://a/ev", 1, noop_event),
    CALL(QUMA_StreamEventsWOCUnsubscribe, 1, "go", "http://a/ev", 1),
    CALL(channel_create),
    CALL(getCurrentChannelData, &tuned),
    CALL(hbbGetCurrentChannel),
    CALL(hbbGetChannelList),
    CALL(hbbGetChannelByPosition, 0),
    CALL(hbbGetChannel, "ccid:a"),
    CALL(hbbGetChannelByTriplet, 1, 2, 3),
    CALL(hbbGetChannelByDsd, "dsd-a", 3),
    CALL(hbbSetChannel, &tuned, 0),
    CALL(hbbPreviousChannel),
    CALL(hbbNextChannel),
    CALL(hbbStopChannel),
    CALL(hbbBindCurrentChannel),
    CALL(hbbReleaseChannelResources),
    CALL(hbbGetProgrammeList),
    CALL(hbbGetProgrammeItem, 0),
    CALL(hbbGetSIDescriptorsLength, "ccid:a", "1", 0x4d, -1, -1),
    CALL(hbbGetSIDescriptorsItem, "ccid:a", "1", 0x4d, -1, 0),
    CALL(hbbGetProgrammeLongDescription, "ccid:a", "1"),
    CALL(hbbSelectDefaultAVComponent, 0),
    CALL(hbbUnselectAVComponentByType, 0),
    CALL(hbbSelectAVVideoComponent, &video),
    CALL(hbbUnselectAVVideoComponent, &video),
    CALL(hbbSelectAVAudioComponent, &audio),
    CALL(hbbUnselectAVAudioComponent, &audio),
    CALL(hbbSelectAVSubtitleComponent, &subtitle),
    CALL(hbbUnselectAVSubtitleComponent, &subtitle),
    CALL(hbbGetAVComponentsLength, 0),
    CALL(hbbGetActiveAVComponentsLength, 0),
    CALL(hbbGetVideoComponentItem, 0),
    CALL(hbbGetAudioComponentItem, 0),
    CALL(hbbGetSubtitleComponentItem, 0),
    CALL(hbbGetActiveVideoComponentItem, 0),
    CALL(hbbGetActiveAudioComponentItem, 0),
    CALL(hbbGetActiveSubtitleComponentItem, 0),
    CALL(hbbtvSelectAVComponentByType, 0),
    CALL(hbbtvUnselectAVComponentByType, 0),
    CALL(hbbtvSelectAVVideoComponent, &video),
    CALL(hbbtvUnselectAVVideoComponent, &video),
    CALL(hbbtvSelectAVAudioComponent, &audio),
    CALL(hbbtvUnselectAVAudioComponent, &audio),
    CALL(hbbtvSelectAVSubtitleComponent, &subtitle),
    CALL(hbbtvUnselectAVSubtitleComponent, &subtitle),
    CALL(hbbtvGetAVComponentsLength, 0),
    CALL(hbbtvGetActiveAVComponentsLength, 0),
    CALL(hbbtvGetVideoComponentItem, 0),
    CALL(hbbtvGetAudioComponentItem, 0),
    CALL(hbbtvGetSubtitleComponentItem, 0),
    CALL(hbbtvGetActiveVideoComponentItem, 0),
    CALL(hbbtvGetActiveAudioComponentItem, 0),
    CALL(hbbtvGetActiveSubtitleComponentItem, 0),
    CALL(hbbtvCreateAVVideoComponent, &video),
    CALL(hbbtvCreateAVAudioComponent, &audio),
    CALL(hbbOpenDtvDecoderByMask, 1),
    CALL(hbbCloseDtvDecoderByMask, 1),
    CALL(hbbSetVideoFullScreen, 1),
    CALL(hbbSetVideoProperties, 0, 0, 640, 360),
    CALL(fpi_zoom_get_current_display_window, &window),
    CALL(hbbRegisterKeySet, 0x1f),
    CALL(hbbGetParentalRatingSchemes),
    CALL(hbbGetCurrentParentalRatingThreshold, "dvb-si"),
    CALL(hbbHasCapability, "+DL"),
    CALL(hbbGetVideoDecodes),
    CALL(hbbGetXmlCapabilities),
    CALL(hbbGetConfiguration),
    CALL(EIT_DVB_ClientRegister),
    CALL(EIT_DVB_ClientUnregister, registered_client),
    CALL(EIT_DVB_GetFirstServiceCache, registered_client),
    CALL(EIT_DVB_GetNextServiceCache, registered_client),
    CALL(EIT_DVB_GetServiceCacheForSpecificService, registered_client, 1, 2, 3),
    CALL(EIT_DVB_LockCache),
    CALL(EIT_DVB_UnlockCache),
    CALL(EIT_DVB_GetFirstEventFromCacheNonLock, registered_client),
    CALL(EIT_DVB_GetNextEventFromCacheNonLock, registered_client),
    CALL(EIT_DVB_GetNextEventFromCache, registered_client),
    CALL(EIT_DVB_GetEventDataNonLock, registered_client, &eit_event),
    CALL(EIT_DVB_GetRestOfEventDataNonLock, registered_client, &eit_event),
    CALL(mUT_ConvertCurStdToUTF8, reinterpret_cast<const unsigned char*>("a"), 1, nullptr),
    CALL(hbbGetFreeMemory),
    CALL(orb_am_sendBroadcast, "orb.broadcast.stop.hbbtv.portal"),
    CALL(tvh_mds_get_player_url, "http://a/", player_url, sizeof player_url),
};
#undef CALL

// Every function of the fault plan fails as its entry says when its turn
// comes, and the trace shows the failure was the plan's.
TEST_F(PlatformSim, EachFailableFunctionFailsAsListed) {
    addTwoChannels();
    ASSERT_EQ(0, hbb_sim_set_current_channel(0));
    ASSERT_EQ(0, hbb_sim_eit_feed_line("event 1 2 3 1 1700000000 60|News|Short"));
    registered_client = EIT_DVB_ClientRegister();
    ASSERT_GE(registered_client, 0);
    ASSERT_NE(0, EIT_DVB_GetFirstServiceCache(registered_client));
    ASSERT_EQ(0, EIT_DVB_LockCache());
    ASSERT_NE(0, EIT_DVB_GetFirstEventFromCacheNonLock(registered_client));

    int listed = 0;
    const char* failure = nullptr;
    for (const char* function; (function = hbb_sim_failable_function(listed, &failure)) != nullptr;
         ++listed) {
        SCOPED_TRACE(function);
        const FailableCall* row = nullptr;
        for (const FailableCall& c : kCalls)
            if (std::strcmp(c.function, function) == 0) row = &c;
        ASSERT_NE(nullptr, row) << "no call for it in this test";
        // The release calls fail after releasing: take the lock once more
        // for the unlock, which must leave it held once (for the calls
        // below it) afterwards.
        if (std::strcmp(function, "EIT_DVB_UnlockCache") == 0) {
            ASSERT_EQ(0, EIT_DVB_LockCache());
        }
        ASSERT_EQ(0, hbb_sim_fail_call(function, 1));
        const std::string expected(failure, std::strcspn(failure, " "));
        EXPECT_EQ(expected, row->call());
        char details[64];
        hbb_sim_last_call(function, details, sizeof details);
        EXPECT_STREQ("injected failure", details);
        EXPECT_EQ(1, hbb_sim_injected_failures(details, sizeof details));
        EXPECT_STREQ(function, details);
    }
    EXPECT_EQ(static_cast<int>(sizeof kCalls / sizeof kCalls[0]), listed);
    // The failed unregister and unlock released all the same.
    EXPECT_EQ(0, hbb_sim_eit_client_count());
    EXPECT_EQ(1, hbb_sim_eit_cache_locked());
    EXPECT_EQ(0, EIT_DVB_UnlockCache());
    EXPECT_EQ(0, hbb_sim_eit_cache_locked());
    hbb_sim_eit_clear();
}

TEST_F(PlatformSim, FaultPlansCountFailableCallsAndFailTheNth) {
    addTwoChannels();
    EXPECT_EQ(-1, hbb_sim_fail_call("hbbGetState", 1)) << "no failure answer";
    EXPECT_EQ(-1, hbb_sim_fail_call("noSuchFunction", 1));
    EXPECT_EQ(-1, hbb_sim_eit_fail_call("hbbGetChannelList", 1));

    // Counting only: non-failable calls are not counted.
    ASSERT_EQ(0, hbb_sim_fail_call(nullptr, 0));
    hbbGetState();
    channel_destroy(hbbGetChannelByPosition(0));
    EXPECT_EQ(1, hbb_sim_failable_calls());

    // The third failable call of any function fails, and only that one.
    ASSERT_EQ(0, hbb_sim_fail_call(nullptr, 3));
    EXPECT_NE(nullptr, hbbGetChannelList());
    EXPECT_EQ(0, hbbRegisterKeySet(1));
    EXPECT_EQ(-1, hbbRegisterKeySet(2));
    EXPECT_EQ(0, hbbRegisterKeySet(3));
    EXPECT_EQ(3, hbb_sim_registered_keyset());
    EXPECT_EQ(4, hbb_sim_failable_calls());
    char last[8];
    EXPECT_EQ(1, hbb_sim_injected_failures(last, sizeof last));
    EXPECT_STREQ("hbbRegi", last) << "cut to the buffer";

    // A named plan counts that function's calls only, beside a plan for any.
    ASSERT_EQ(0, hbb_sim_fail_call("hbbHasCapability", 2));
    ASSERT_EQ(0, hbb_sim_fail_call(nullptr, 2));
    EXPECT_EQ(0, hbbHasCapability("x"));
    EXPECT_EQ(-1, hbbSetVideoFullScreen(1)) << "second call of any function";
    EXPECT_EQ(0, hbbHasCapability("x")) << "second call of the named one";
    EXPECT_EQ(2, hbb_sim_injected_failures(nullptr, 0));
    EXPECT_EQ(0, hbbSetVideoFullScreen(1));

    // Cancelled plans and reset plans fail nothing.
    ASSERT_EQ(0, hbb_sim_fail_call("hbbRegisterKeySet", 1));
    ASSERT_EQ(0, hbb_sim_fail_call("hbbRegisterKeySet", 0));
    EXPECT_EQ(0, hbbRegisterKeySet(1));
    ASSERT_EQ(0, hbb_sim_fail_call(nullptr, 1));
    hbb_sim_reset();
    EXPECT_EQ(0, hbbRegisterKeySet(1));
    EXPECT_EQ(0, hbb_sim_injected_failures(nullptr, 0));
}

}  // namespace
