/* libapp-mgr: the broadcast object bridge.
 *
 * Thin functions over the middleware's broadcast API (hbb_platform.h) that
 * serve the browser's broadcast video object, channel list, channel
 * configuration, programme, AV component, parental-rating, capabilities and
 * configuration objects, and the middleware notifications that become
 * callbacks to the browser. Forwarders hand the middleware's records back
 * unchanged: "fresh" records (see hbb_platform.h) are released with the
 * destroy function named beside them, middleware-owned ones never.
 *
 * The media-player, DRM and DASH entry points at the end are exported for
 * the receiver's media stack; this library has no media back end, so they
 * are placeholders with fixed results (only the start and stop of broadcast
 * video do something: they set the broadcast presentation state).
 *
 * Every function may be called from any thread; none blocks longer than the
 * middleware call it makes. */
#ifndef APP_MGR_BROADCAST_H
#define APP_MGR_BROADCAST_H

#include "app_mgr_export.h"
#include "app_mgr_platform_types.h"
#include "app_mgr_stream_events.h"
#include "app_mgr_types.h"

APPMGR_BEGIN_DECLS

/* ---- records ------------------------------------------------------------ */

typedef struct ChannelConfig {
    ChannelList* channelList; /* the middleware's list, or null */
} ChannelConfig;

typedef struct SignalStatus {
    int signalStatus;
} SignalStatus;

/* A DASH component as the media stack describes it. */
typedef struct DASH_DATA {
    int m_componentTag;
    int m_pid;
    int m_type;
} DASH_DATA;

/* Records of a media-player back end. This library has none and never hands
 * one out; the types only name what the entry points below would return. */
typedef struct MediaPlayerDescriptor MediaPlayerDescriptor;
typedef struct MediaAVPlayer MediaAVPlayer;

/* ---- channels ------------------------------------------------------------
 * Channel records returned are fresh (release with channel_destroy of the
 * porting layer); lists are the middleware's. */

APPMGR_API ChannelList* broadcast_get_channel_list(void);
APPMGR_API ChannelList* channel_list_get(void);
APPMGR_API Channel* channel_list_item(int index);
APPMGR_API Channel* broadcast_get_channel_by_position(int pos);
APPMGR_API Channel* channel_list_get_channel(const char* channelID);
APPMGR_API Channel* broadcast_get_channel(const char* channelID);
APPMGR_API Channel* channel_list_get_channel_by_triplet(int onid, int tsid, int sid);
APPMGR_API Channel* broadcast_get_channel_by_triplet(int onid, int tsid, int sid);
APPMGR_API Channel* channel_new_by_dsd(const char* dsd, int sid);
APPMGR_API Channel* broadcast_get_channel_by_dsd(const char* dsd, int sid);
APPMGR_API Channel* broadcast_get_current_channel(void);
/* A new channel record (channel_create) with type = idType and the triplet
 * filled in; sourceID and ipBroadcastID are not used. Null when out of
 * memory. */
APPMGR_API Channel* channel_new(int idType, int onid, int tsid, int sid, int sourceID,
                                const char* ipBroadcastID);
/* The channel list and the channel-list destroy functions: the middleware
 * owns its lists, so channel_list_destroy and broadcast_free_channel_list
 * do nothing. */
APPMGR_API void channel_list_destroy(ChannelList* list);
APPMGR_API void broadcast_free_channel_list(void);
/* A channel configuration holding the middleware's channel list (null when
 * out of memory; channelList is null when there is no list). */
APPMGR_API ChannelConfig* channel_config_create(void);
APPMGR_API ChannelConfig* channel_config_get(void);
APPMGR_API void channel_config_destroy(ChannelConfig* config);

/* ---- the broadcast video object ---------------------------------------- */

/* Presents the current service again, only when the broadcast was stopped
 * and the manager is active. */
APPMGR_API void broadcast_bind_to_current_channel(void);
/* Remembers who asks for the tune (the running application's type; nothing
 * changes for an invalid type), then starts it: hbbSetChannel's result. The
 * outcome arrives later as channelChanged or channelChangeError. */
APPMGR_API int broadcast_set_channel(Channel* channel, int quiet);
/* Marks the broadcast stopped, then hbbStopChannel's result (1 / 0). */
APPMGR_API int broadcast_stop(void);
APPMGR_API int broadcast_previous_channel(void);
APPMGR_API int broadcast_next_channel(void);
APPMGR_API int broadcast_set_full_screen(int fullScreen);
APPMGR_API int broadcast_release(void);
APPMGR_API int broadcast_set_properties(int top, int left, int width, int height);
APPMGR_API int broadcast_select_default_av_component(int component_type);
APPMGR_API int broadcast_unselect_av_component_by_type(int component_type);
APPMGR_API int broadcast_select_av_video_component(AVVideoComponent* component);
APPMGR_API int broadcast_unselect_av_video_component(AVVideoComponent* component);
APPMGR_API int broadcast_select_av_audio_component(AVAudioComponent* component);
APPMGR_API int broadcast_unselect_av_audio_component(AVAudioComponent* component);
APPMGR_API int broadcast_select_av_subtitle_component(AVSubtitleComponent* component);
APPMGR_API int broadcast_unselect_av_subtitle_component(AVSubtitleComponent* component);
APPMGR_API HbbTVSTEErrorCode broadcast_add_stream_event_listener(const char* targetURL,
                                                                 const char* eventName);
APPMGR_API void broadcast_remove_stream_event_listener(const char* targetURL,
                                                       const char* eventName);

/* ---- programmes ----------------------------------------------------------
 * Programme records are fresh (release with programme_destroy); the list is
 * the middleware's. Texts of the SI-descriptor and long-description calls
 * are the middleware's, valid until its next call of the same function. */

APPMGR_API ProgrammeCollection* programme_get_list(void);
APPMGR_API Programme* broadcast_get_programme_item(int index);
APPMGR_API int programme_get_si_descriptors_length(const char* cc_id, const char* event_id,
                                                   int descriptor_tag,
                                                   int descriptor_tag_extension,
                                                   int private_data_specifier);
APPMGR_API char* programme_get_si_descriptors_item(const char* cc_id, const char* event_id,
                                                   int descriptor_tag,
                                                   int descriptor_tag_extension, int position);
APPMGR_API char* programme_get_long_description(const char* cc_id, const char* event_id);
/* The middleware owns programme lists: this does nothing. */
APPMGR_API void broadcast_free_programmes_list(void);
APPMGR_API ProgrammeCollection* programme_collection_create(void);
APPMGR_API void programme_collection_destroy(ProgrammeCollection* collection);
/* Null-safe. Frees name, description, channelID, programmeID and the
 * parental rating; longDescription stays the middleware's. */
APPMGR_API void programme_destroy(Programme* p);
APPMGR_API void short_programme_destroy(ShortProgramme* p);

/* ---- middleware notifications: channels and programmes -------------------
 * channelChangeError and programmesListChanged tell the browser only while
 * the manager is active; programmesChanged always. The channel is borrowed
 * for the call. */
APPMGR_API void channelChangeError(ChannelChangeError errorState, Channel* channel);
APPMGR_API void programmesListChanged(void);
APPMGR_API void programmesChanged(void);

/* ---- AV components -------------------------------------------------------
 * Component records returned are fresh: release them with the matching
 * av_*_component_destroy. The create functions return records with a new
 * inner AVComponent and null texts (null when out of memory). */

APPMGR_API int av_components_get_length(int componentType);
APPMGR_API AVVideoComponent* av_components_get_video_item(int index);
APPMGR_API AVAudioComponent* av_components_get_audio_item(int index);
APPMGR_API AVSubtitleComponent* av_components_get_subtitle_item(int index);
APPMGR_API int av_components_get_length_of_active(int componentType);
APPMGR_API AVVideoComponent* av_components_get_active_video_item(int index);
APPMGR_API AVAudioComponent* av_components_get_active_audio_item(int index);
APPMGR_API AVSubtitleComponent* av_components_get_active_subtitle_item(int index);
APPMGR_API AVComponent* av_component_create(void);
APPMGR_API AVVideoComponent* av_video_component_create(void);
APPMGR_API AVAudioComponent* av_audio_component_create(void);
APPMGR_API AVSubtitleComponent* av_subtitle_component_create(void);
APPMGR_API void av_component_destroy(AVComponent* component);
APPMGR_API void av_video_component_destroy(AVVideoComponent* component);
APPMGR_API void av_audio_component_destroy(AVAudioComponent* component);
APPMGR_API void av_subtitle_component_destroy(AVSubtitleComponent* component);
/* Middleware notifications (any library state): the selected component of
 * a type changed / the components of a type changed. */
APPMGR_API void selectedComponentChanged(int componentType);
APPMGR_API void componentChanged(int componentType);

/* ---- parental rating, capabilities, configuration ------------------------ */

APPMGR_API ParentalRatingSchemeCollection* parental_rating_get_schemes(void);
APPMGR_API void parental_rating_release_schemes(void);
/* The viewer's threshold in a scheme, or null; release with
 * parental_rating_destroy (null-safe; frees name, region and scheme). */
APPMGR_API ParentalRating* parental_rating_get_threshold(const char* prSchemeName);
APPMGR_API void parental_rating_destroy(ParentalRating* rating);
APPMGR_API ParentalRatingCollection* parental_rating_collection_create(void);
APPMGR_API void parental_rating_collection_destroy(ParentalRatingCollection* collection);
/* Middleware notifications, told the browser only while the manager is
 * active: the ratings of the programme changed (callback 62 with the number
 * of ratings and the blocked flag) / a rating could not be checked
 * (callback 63 with the number of ratings). The collection is borrowed. */
APPMGR_API void parentalRatingChanged(ParentalRatingCollection* ratings, int blocked);
APPMGR_API void parentalRatingError(ParentalRatingCollection* ratings);

APPMGR_API int capabilities_has_capability(const char* profileName);
/* Fresh; release with capabilities_decodes_destroy (null-safe). */
APPMGR_API VideoDecodes* capabilities_get_decodes(void);
APPMGR_API void capabilities_decodes_destroy(VideoDecodes* decodes);
/* The capabilities XML document (the middleware's text), or null. */
APPMGR_API char* capabilities_get_xml_capabilities(void);
/* Fresh; release with configuration_destroy (null-safe; DeviceId stays the
 * middleware's). */
APPMGR_API Configuration* configuration_get(void);
APPMGR_API void configuration_destroy(Configuration* configuration);

/* ---- media player, DRM and DASH (placeholders) ---------------------------
 * Every argument is ignored. Results: the int functions yield 1 (DRM_init
 * yields s_DRMHandle), the pointer functions null; the start and stop of
 * broadcast video set the broadcast state to presenting / stopped. */

/* The DRM handle; nothing in the library assigns it (0). */
APPMGR_API extern int s_DRMHandle;

APPMGR_API int media_register_player(int playerID);
APPMGR_API int media_unregister_player(int playerID);
APPMGR_API int media_init_player(int playerID);
APPMGR_API int media_open_player(int playerID, const char* url);
APPMGR_API int media_close_player(int playerID);
APPMGR_API int media_set_player_property(int playerID, int property, const char* value);
APPMGR_API int media_get_player_property(int playerID, int property);
APPMGR_API int media_cmd_player(int playerID, int command, const char* argument);
APPMGR_API MediaPlayerDescriptor* media_get_player_descriptor(int playerID);
APPMGR_API MediaAVPlayer* media_get_av_player(int playerID);
APPMGR_API void media_start_broadcast_video(void);
APPMGR_API void media_stop_broadcast_video(void);
APPMGR_API void media_callback_msg(int playerID, int messageType, const char* message);

APPMGR_API void media_select_default_AV_component(int playerID, int componentType);
APPMGR_API void media_unselect_default_AV_component(int playerID, int componentType);
APPMGR_API void media_unselect_AV_component_by_type(int playerID, int componentType);
APPMGR_API void media_select_AV_video_component(int playerID, AVVideoComponent* component);
APPMGR_API void media_unselect_AV_video_component(int playerID, AVVideoComponent* component);
APPMGR_API void media_select_AV_audio_component(int playerID, AVAudioComponent* component);
APPMGR_API void media_unselect_AV_audio_component(int playerID, AVAudioComponent* component);
/* Selects a subtitle component (the name is the interface's own). */
APPMGR_API void media_select_AV_aubtitle_component(int playerID, AVSubtitleComponent* component);
APPMGR_API void media_unselect_AV_subtitle_component(int playerID, AVSubtitleComponent* component);
APPMGR_API int media_get_AV_components_length(int playerID, int componentType);
APPMGR_API AVVideoComponent* media_get_video_component_item(int playerID, int index);
APPMGR_API AVAudioComponent* media_get_audio_component_item(int playerID, int index);
APPMGR_API AVSubtitleComponent* media_get_subtitle_component_item(int playerID, int index);
APPMGR_API int media_get_active_AV_components_length(int playerID, int componentType);
APPMGR_API AVVideoComponent* media_get_active_video_component_item(int playerID, int index);
APPMGR_API AVAudioComponent* media_get_active_audio_component_item(int playerID, int index);
APPMGR_API AVSubtitleComponent* media_get_active_subtitle_component_item(int playerID, int index);

APPMGR_API int DRM_init(void);
APPMGR_API void DRM_uninit(int handle);
/* Always null (logged with its arguments). */
APPMGR_API char* send_DRMM_message(int handle, const char* msgType, const char* message,
                                   const char* DRMSystemID);
APPMGR_API int DRM_system_status(const char* DRMSystemID);
APPMGR_API void DRM_callback_message(int handle, const char* message);
APPMGR_API void DRM_rights_error(int handle, int errorState, const char* contentID,
                                 const char* DRMSystemID, const char* rightsIssuerURL);

APPMGR_API int dash_get_collection_length(int componentType);
APPMGR_API DASH_DATA* dash_get_AV_component_item(int componentType, int index);
APPMGR_API void dash_select_default_AV_component(int componentType);
APPMGR_API void dash_unselect_default_AV_component(int componentType);
APPMGR_API void dash_select_AV_component(DASH_DATA* component);
APPMGR_API void dash_unselect_AV_component(DASH_DATA* component);

APPMGR_END_DECLS

#endif /* APP_MGR_BROADCAST_H */
