// The middleware's broadcast notifications as the browser receives them,
// before the manager is active and while it is, and the records the bridge
// builds and releases for its callers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "app_mgr_broadcast.h"
#include "broadcast_fixture.h"
#include "hbb_sim.h"
#include "state/state.h"

using namespace appmgr::test;

namespace {

class InactiveNotificationTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        add_services();
        startMessagingOnly();
    }
};

char* copy(const char* text) { return strdup(text); }

}  // namespace

// Before the manager is active only the notifications that hold in any
// state reach the browser; the first frame that arrives is the marker.
TEST_F(InactiveNotificationTest, OnlyStatelessNotificationsPass) {
    Channel* two = hbbGetChannelByPosition(kTwo);
    channelChangeError(CCE_NO_SIGNAL, two);
    channel_destroy(two);
    programmesListChanged();
    ParentalRatingCollection ratings{2};
    parentalRatingChanged(&ratings, 1);
    parentalRatingError(&ratings);
    programmesChanged();
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "500|");
    selectedComponentChanged(AV_COMPONENT_TYPE_SUBTITLE);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "69|2|");
    componentChanged(AV_COMPONENT_TYPE_AUDIO);
    EXPECT_EQ(nextFrame(Connection::Callbacks).body, "79|1|");

    // Binding needs an active manager too.
    locked([] { appmgr::state::set_broadcast(VBOS_STOPPED); });
    broadcast_bind_to_current_channel();
    EXPECT_EQ(hbb_sim_call_count("hbbBindCurrentChannel"), 0);
    EXPECT_EQ(broadcast_state(), VBOS_STOPPED);
}

TEST_F(BroadcastTest, MiddlewareNotificationsReachTheBrowser) {
    hbb_sim_fail_next_tune(CCE_NO_SIGNAL);
    Channel two{};
    two.onid = 1;
    two.tsid = 2;
    two.sid = 4;
    ASSERT_EQ(hbbSetChannel(&two, 0), 0);
    EXPECT_EQ(callback(61).body, "61|1|" + std::string(kTwoRecord));
    ASSERT_EQ(hbb_sim_fire_programmes_list_changed(), 0);
    EXPECT_EQ(callback(64).body, "64|");
    EXPECT_TRUE(log_.waitFor("Programme list changed", 1000));
    ASSERT_EQ(hbb_sim_fire_programmes_changed(), 0);
    EXPECT_EQ(callback(500).body, "500|");
    ASSERT_EQ(hbb_sim_fire_parental_rating_changed(2, 1), 0);
    EXPECT_EQ(callback(62).body, "62|2|1|");
    ASSERT_EQ(hbb_sim_fire_parental_rating_error(3), 0);
    EXPECT_EQ(callback(63).body, "63|3|");
    ASSERT_EQ(hbb_sim_fire_component_changed(AV_COMPONENT_TYPE_VIDEO), 0);
    EXPECT_EQ(callback(79).body, "79|0|");
    // A middleware without a channel for the error still tells the browser.
    channelChangeError(CCE_UNDEFINED, nullptr);
    EXPECT_EQ(callback(61).body, "61|100|");
}

TEST(BroadcastRecords, ConstructorsAndDestructors) {
    AVAudioComponent* audio = av_audio_component_create();
    ASSERT_NE(audio, nullptr);
    ASSERT_NE(audio->avComponent, nullptr);
    EXPECT_EQ(audio->language, nullptr);
    EXPECT_EQ(audio->avComponent->encoding, nullptr);
    audio->avComponent->encoding = copy("AAC");
    av_audio_component_destroy(audio);  // language null: component and record only
    AVSubtitleComponent* subtitle = av_subtitle_component_create();
    ASSERT_NE(subtitle, nullptr);
    subtitle->language = copy("eng");
    av_subtitle_component_destroy(subtitle);
    av_video_component_destroy(av_video_component_create());
    av_video_component_destroy(nullptr);
    av_component_destroy(nullptr);

    Channel* channel = channel_new(CHANNEL_TYPE_RADIO, 1, 2, 5, 77, "ignored");
    ASSERT_NE(channel, nullptr);
    EXPECT_EQ(channel->type, CHANNEL_TYPE_RADIO);
    EXPECT_EQ(channel->sid, 5);
    EXPECT_EQ(channel->ccid, nullptr);
    channel_destroy(channel);

    // The programme's long description stays the middleware's.
    static char long_description[] = "kept";
    Programme* programme = static_cast<Programme*>(std::calloc(1, sizeof(Programme)));
    programme->name = copy("News");
    programme->longDescription = long_description;
    programme->parentalRatings = static_cast<ParentalRating*>(std::calloc(1, sizeof(ParentalRating)));
    programme->parentalRatings->scheme = copy("dvb-si");
    programme_destroy(programme);
    programme_destroy(nullptr);
    ShortProgramme* short_programme = static_cast<ShortProgramme*>(std::calloc(1, sizeof(ShortProgramme)));
    short_programme->channelID = copy("ccid:1.2.3");
    short_programme->parentalRating = parental_rating_collection_create();
    short_programme_destroy(short_programme);
    short_programme_destroy(nullptr);

    Configuration* configuration = static_cast<Configuration*>(std::calloc(1, sizeof(Configuration)));
    configuration->countryID = copy("GBR");
    configuration->DeviceId = long_description;  // never freed
    configuration_destroy(configuration);
    configuration_destroy(nullptr);
    capabilities_decodes_destroy(nullptr);
    parental_rating_destroy(nullptr);
    parental_rating_collection_destroy(nullptr);
    programme_collection_destroy(programme_collection_create());
}

TEST(BroadcastRecords, ChannelConfigurationHoldsTheMiddlewaresList) {
    hbb_sim_reset();
    ChannelConfig* empty = channel_config_get();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->channelList, nullptr);
    channel_config_destroy(empty);
    add_services();
    ChannelConfig* config = channel_config_get();
    ASSERT_NE(config, nullptr);
    ASSERT_NE(config->channelList, nullptr);
    EXPECT_EQ(config->channelList->length, 3);
    channel_config_destroy(config);
    channel_config_destroy(nullptr);
}

TEST(MediaPlaceholders, FixedResultsWhateverTheArguments) {
    EXPECT_EQ(media_register_player(-7), 1);
    EXPECT_EQ(media_open_player(3, nullptr), 1);
    EXPECT_EQ(media_get_AV_components_length(0, 99), 1);
    EXPECT_EQ(dash_get_collection_length(-1), 1);
    EXPECT_EQ(DRM_system_status(nullptr), 1);
    EXPECT_EQ(media_get_player_descriptor(1), nullptr);
    EXPECT_EQ(media_get_active_subtitle_component_item(1, 0), nullptr);
    EXPECT_EQ(dash_get_AV_component_item(0, 0), nullptr);
    EXPECT_EQ(send_DRMM_message(9, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(DRM_init(), s_DRMHandle);
    media_select_AV_aubtitle_component(1, nullptr);
    media_callback_msg(1, 2, nullptr);
    DRM_rights_error(1, 2, nullptr, nullptr, nullptr);
}
