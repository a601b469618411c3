/* Control interface of the simulated platform (libappmgr-platform-sim).
 *
 * A host, the emulator or a test uses these calls to set the simulated
 * receiver up (channels, network), to fire the middleware notifications the
 * library registered for, and to observe the platform calls the library
 * made. None of these functions is part of the porting layer: a receiver's
 * middleware does not provide them. All of them are thread-safe. */
#ifndef HBB_SIM_H
#define HBB_SIM_H

#include "hbb_platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- call trace ----------------------------------------------------------
 * Every porting-layer function of the simulator reports itself to the trace
 * hook (if set) with its name and a short rendering of its arguments and
 * result, e.g. ("hbbBindCurrentChannel", "-> 0"). Log functions are not
 * traced. The hook runs on the calling thread. */
typedef void (*hbb_sim_trace_fn)(const char* function, const char* details, void* user);
void hbb_sim_set_trace(hbb_sim_trace_fn fn, void* user);

/* Number of calls made to a porting-layer function since the last reset. */
int hbb_sim_call_count(const char* function);
/* Details text of the last call to a function ("" if none); copied into buf
 * (always terminated, cut to buf_size - 1 characters). Returns the length of
 * the full details text, or -1 when the function was not called. */
int hbb_sim_last_call(const char* function, char* buf, int buf_size);
/* Forgets recorded calls, registered callbacks and listeners, channels,
 * programmes, components and stream-event subscriptions, drops the
 * notifications not yet delivered (stopping the notifier thread), and puts
 * every other simulated state (display, keys, decoders, video window,
 * settable answers, fault plans) back to its start value. Log settings and
 * hooks stay. */
void hbb_sim_reset(void);

/* ---- logging -------------------------------------------------------------
 * Lines go to stderr at or above the minimum level (library levels: 2 info,
 * 3 warning, 5 error). The environment variable HBB_SIM_LOG_LEVEL sets the
 * initial minimum (default 2); HBB_SIM_LOG_FILE names an optional log file.
 * Both are read once, at the first log call or control call. */
void hbb_sim_set_log_level(int min_level);
int hbb_sim_log_level(void);
int hbb_sim_set_log_file(const char* path);  /* NULL closes it; 0 on success */
/* Reads HBB_SIM_LOG_LEVEL and HBB_SIM_LOG_FILE again (an unset level means
 * 2, an unset file closes the log file). */
void hbb_sim_log_from_env(void);
/* Console output on (default) or off; the hook and the file are unaffected. */
void hbb_sim_set_log_stderr(int enabled);
/* Optional hook that receives every formatted console line (after filtering,
 * without the final newline). It runs on the logging thread, outside the
 * simulator's locks. */
typedef void (*hbb_sim_log_fn)(int level, const char* line, void* user);
void hbb_sim_set_log_hook(hbb_sim_log_fn fn, void* user);

/* ---- decision trace ------------------------------------------------------
 * The simulator provides the optional hbbTraceDecision and forwards every
 * decision to this hook (if set), on the deciding thread, with the record
 * borrowed for the call. The hook must not block and must not call into
 * the library; like the log hook it is not traced as a porting call and
 * stays set across hbb_sim_reset. */
typedef void (*hbb_sim_decision_fn)(const hbbDecision* decision, void* user);
void hbb_sim_set_decision_hook(hbb_sim_decision_fn fn, void* user);

/* ---- middleware notifications --------------------------------------------
 * Fire the callbacks the library registered through QUMAm_*; each returns 0
 * when a callback was registered and called, -1 otherwise. The callback runs
 * on the calling thread. */
int hbb_sim_fire_ait(AitTable* ait);
int hbb_sim_fire_network_status(int status);
int hbb_sim_fire_module_update(unsigned short module_id, unsigned char is_dir_ref, void* data);

/* ---- object carousel -------------------------------------------------------
 * A local directory tree serves as the object carousel of a component tag:
 * QUMA_MountCarouselObject mounts a tag that has one (eQUMA_NOT_AVAILABLE
 * otherwise) and the DSM-CC loader then serves URLs of that tag from the
 * tree. Directories are directories, regular files are files, and a regular
 * file "NAME.ste" is the stream-event object "NAME" whose lines are its
 * event names (blank lines and lines starting with "#" ignored). Paths
 * never leave the tree: "..", "." and empty components and symbolic links
 * leading outside are answered DSMCC_LOADER_NOT_FOUND. Entries are listed in
 * byte order of their names; each is carried in its directory's module (1
 * for the root directory). The tree is read afresh on every call. */

/* Serves directory (copied as its real path) as the carousel of the tag
 * (0 to 65535); NULL removes the tag's carousel. 0 on success, -1 for a bad
 * tag or a path that is not a directory. */
int hbb_sim_set_carousel(int component_tag, const char* directory);
/* The modules that carry the entries of a tag's carousel, as a real
 * carousel numbers them: paths[i] ("" for the root, "dir/name" below it;
 * a stream-event object by its name, without ".ste") is carried in
 * modules[i]. DSMCC_LoaderGetEntryInfo reports these numbers; entries not
 * listed keep the derived ones. The list replaces the tag's earlier one
 * (count 0 clears it) and goes with hbb_sim_set_carousel(tag, NULL). 0, or
 * -1 for a bad tag or null arrays. */
int hbb_sim_set_carousel_modules(int component_tag, const char* const* paths,
                                 const unsigned short* modules, int count);
/* Removes every carousel and unmounts; no breaks stay pending. */
void hbb_sim_clear_carousels(void);
/* The next `count` loader calls (of any kind) report DSMCC_LOADER_BREAK and
 * drop the mount, as a service change during a load would; 0 cancels. */
void hbb_sim_carousel_break_next(int count);
/* Component tag of the mounted carousel, or -1 when none is mounted (after
 * an unmount, DSMCC_Disconnect, a failed mount or a simulated break). */
int hbb_sim_mounted_carousel(void);

/* ---- channels --------------------------------------------------------------
 * The simulated channel list. Channels are copied in; the list starts empty
 * and with no current channel. */

/* Appends a copy of a channel; returns its position, or -1. */
int hbb_sim_add_channel(const Channel* channel);
/* Replaces the channel at a position by a copy (what a service scan learns
 * later, such as the name from the SDT); the current channel stays the one
 * at its position. 0 on success, -1 for a position outside the list. */
int hbb_sim_update_channel(int position, const Channel* channel);
/* Makes the channel at a position current (and presenting); -1 leaves no
 * channel current. 0 on success, -1 for a position outside the list. */
int hbb_sim_set_current_channel(int position);
/* Empties the list; no channel is current afterwards. */
void hbb_sim_clear_channels(void);
int hbb_sim_channel_count(void);
/* Position of the current channel, or -1. */
int hbb_sim_current_channel(void);
/* Called after hbbSetChannel, hbbNextChannel or hbbPreviousChannel made a
 * channel current, with that channel (borrowed for the call) and the quiet
 * value (0 for next / previous). It runs on the thread that asked for the
 * tune, inside the porting call: a host that forwards the change to the
 * library (channelChanged) must do so from another thread. */
typedef void (*hbb_sim_tune_fn)(const Channel* channel, int quiet, void* user);
void hbb_sim_set_tune_hook(hbb_sim_tune_fn fn, void* user);

/* ---- presentation state ------------------------------------------------------
 * What the library's calls left the simulated receiver in. */

/* 1 while the broadcast is presented (bound or tuned), 0 after hbbStopChannel
 * or hbbReleaseChannelResources. Starts at 1. */
int hbb_sim_broadcast_presenting(void);
/* Last EN_HBB_STATE given to hbbStateChange (starts at EN_HBB_OFF). */
int hbb_sim_display_state(void);
/* Last mode given to hbbSetDisplayMode (starts at 0). */
int hbb_sim_display_mode(void);
/* Last value given to hbbIsAllowStopChannel (starts at 0). */
int hbb_sim_allow_stop_channel(void);
/* Last mask given to hbbRegisterKeySet (starts at 0). */
int hbb_sim_registered_keyset(void);
/* Decoders opened by hbbOpenDtvDecoderByMask and not closed since, as a
 * mask (starts at 0). */
int hbb_sim_open_decoders(void);
/* The broadcast video window: returns 1 when full screen (the default), 0
 * when windowed; the pointers (any may be null) receive the window last set
 * by hbbSetVideoProperties. */
int hbb_sim_video_window(int* top, int* left, int* width, int* height);

/* ---- EIT cache ---------------------------------------------------------------
 * The service caches the EIT_DVB_* functions walk. A service cache holds its
 * events in start-time order; services keep the order in which they were
 * first fed. Feeding takes the cache lock, so it waits while a search walks
 * a service. Texts are DVB-coded (the first byte may select the character
 * table, as in the broadcast); the cache converts them to UTF-8 like
 * mUT_ConvertCurStdToUTF8 does. The cache is not part of hbb_sim_reset:
 * hbb_sim_eit_clear empties it. */

/* A DVB-coded text of `length` bytes (it may contain zero bytes, e.g. in
 * UCS-2). bytes null: no text. */
typedef struct hbb_sim_dvb_text {
    const unsigned char* bytes;
    int length;
} hbb_sim_dvb_text;

typedef struct hbb_sim_eit_event {
    int onid;
    int tsid;
    int sid;
    int event_id;
    int start_time; /* seconds since 1970-01-01 UTC */
    int duration;   /* seconds */
    hbb_sim_dvb_text name;              /* bytes null: the event has no name */
    hbb_sim_dvb_text short_description; /* bytes null: no short-event text */
    /* Extended-event text, one entry per segment (each becomes one
     * converted segment); may be null when extended_segments is 0. */
    const hbb_sim_dvb_text* extended_description;
    int extended_segments;
} hbb_sim_eit_event;

/* Adds an (empty) service cache; an existing one is kept. Its index, or -1. */
int hbb_sim_eit_add_service(int onid, int tsid, int sid);
/* Adds an event (creating its service cache when needed). 0 on success, -1
 * for a null event, a negative length or more than 255 segments. */
int hbb_sim_eit_add_event(const hbb_sim_eit_event* event);
/* One scenario line: "service ONID TSID SID" or
 * "event ONID TSID SID EVENT_ID START DURATION|NAME|SHORT|EXT1|EXT2..."
 * Numbers are decimal or 0x-hexadecimal. Texts are UTF-8 (fed with the UTF-8
 * table byte); "\xNN" inserts a raw byte (a text starting with a raw byte
 * below 0x20 is taken as DVB-coded as it stands), "\|" and "\\" a bar and a
 * backslash. A NAME of "-" means no name; missing texts mean none. Blank
 * lines and lines starting with "#" are ignored. 0 on success, -1 for a
 * malformed line. */
int hbb_sim_eit_feed_line(const char* line);
/* Feeds every line of a scenario file. The number of events added, or -1
 * (nothing of the bad line on is fed; errorLine, when not null, receives
 * its number, 0 when the file cannot be read). */
int hbb_sim_eit_load_file(const char* path, int* errorLine);
/* Fills the cache with `services` services of `events_per_service`
 * consecutive events each, from first_start on, with names, durations and
 * texts drawn deterministically from seed. Service k has the triplet
 * (1, 1 + k / 10, 100 + k); events are numbered from 1 in each service.
 * Generated names include the word "News" in 1 of 64 events. Returns the
 * number of events added, or -1. */
int hbb_sim_eit_generate(int services, int events_per_service, int first_start,
                         unsigned int seed);
/* Empties the cache (cursors of registered clients then find nothing). */
void hbb_sim_eit_clear(void);
int hbb_sim_eit_service_count(void);
int hbb_sim_eit_event_count(void);
/* Registered cache clients. */
int hbb_sim_eit_client_count(void);
/* Non-zero while some thread holds the cache lock. */
int hbb_sim_eit_cache_locked(void);
/* Calls that move the event cursor or read an event are traced only while
 * this is on (the default). A large scan is then traced call by call;
 * benchmarks turn it off. */
void hbb_sim_eit_trace_event_calls(int enabled);
/* hbb_sim_fail_call (below) for the EIT_DVB_* functions only: -1 for any
 * other name. */
int hbb_sim_eit_fail_call(const char* function, int nth);
/* Called by EIT_DVB_GetEventDataNonLock on the scanning thread, with the
 * cache lock held, before it fills the event: lets a test hold a scan at an
 * event. Null clears it. */
typedef void (*hbb_sim_eit_event_hook_fn)(int handle, int event_id, void* user);
void hbb_sim_eit_set_event_hook(hbb_sim_eit_event_hook_fn fn, void* user);

/* ---- fault plan -------------------------------------------------------------
 * Every porting function whose contract has a failure answer (a null record,
 * an error code, an empty list or a count of 0) can be made to fail on
 * purpose. A failing call answers that failure and does nothing else, with
 * two exceptions: EIT_DVB_UnlockCache and EIT_DVB_ClientUnregister still
 * release (a caller cannot retry a release; the failure is only reported).
 * It is traced with the details "injected failure". Functions without a
 * failure answer (void calls, logging, hbbGetState, hbbGetCurrentTime,
 * hbbExitKeyHandle) never fail.
 *
 * Calls of failable functions are counted, so that a test can run a
 * scenario once to count them and then fail each call in turn. Plans and
 * counts go with hbb_sim_reset. */

/* The nth failable call from now (1 = the next) fails: a call of the named
 * function, or of any failable function when function is null. The plan for
 * any function and one plan per name run side by side; nth 0 cancels the
 * plan. Restarts the counts below. 0, or -1 for a function that cannot
 * fail. */
int hbb_sim_fail_call(const char* function, int nth);
/* Failable calls made (failed or not) since the last hbb_sim_fail_call or
 * reset. */
int hbb_sim_failable_calls(void);
/* Calls failed by a plan since the last hbb_sim_fail_call or reset;
 * function, when not null, receives the name of the last one ("" when none;
 * always terminated, cut to size - 1 characters). */
int hbb_sim_injected_failures(char* function, int size);
/* The failable functions, by index from 0: the name, and in *failure (may
 * be null) what it answers when it fails ("null", "-1", "0",
 * "DSMCC_LOADER_ERROR", ...). Null past the last one. */
const char* hbb_sim_failable_function(int index, const char** failure);

/* ---- settable answers ---------------------------------------------------------- */

/* hbbGetFreeMemory's answer in kilobytes (start: -1, unknown). */
void hbb_sim_set_free_memory(int kilobytes);
/* hbbGetCurrentTime's answer; 0 (the start value) follows the host clock. */
void hbb_sim_set_current_time(int seconds_since_epoch);
/* hbbExitKeyHandle's answer (start: 0, not handled by the middleware). */
void hbb_sim_set_exit_key_handled(int handled);
/* The value of the threshold hbbGetCurrentParentalRatingThreshold hands out
 * for every scheme (start: 16, which blocks no DVB-SI rating). */
void hbb_sim_set_parental_threshold(int value);

/* ---- broadcast notifications -------------------------------------------------
 * The library's notification entry points, registered by the host (the
 * simulator does not link to the library; a receiver's middleware calls
 * them directly). With an entry registered, the simulator calls it the way
 * a middleware does: on a notifier thread of its own, in the order the
 * notifications arose, never inside a porting call. Unregistered entries
 * are skipped.
 * - channel_changed: after hbbSetChannel, hbbNextChannel or
 *   hbbPreviousChannel made a channel current (after the tune hook);
 * - channel_change_error: for a tune that hbb_sim_fail_next_tune set to
 *   fail;
 * - selected_component_changed: after a component was selected or
 *   unselected;
 * - the others when fired below.
 * The fire calls return 0 when the entry is registered (the call is then
 * posted), -1 otherwise. */
typedef struct hbb_sim_listeners {
    void (*channel_changed)(Channel* channel);
    void (*channel_change_error)(ChannelChangeError error, Channel* channel);
    void (*programmes_list_changed)(void);
    void (*programmes_changed)(void);
    void (*selected_component_changed)(int component_type);
    void (*component_changed)(int component_type);
    void (*parental_rating_changed)(ParentalRatingCollection* ratings, int blocked);
    void (*parental_rating_error)(ParentalRatingCollection* ratings);
} hbb_sim_listeners;
/* Registers the entries (copied); NULL unregisters all of them. */
void hbb_sim_set_listeners(const hbb_sim_listeners* listeners);
/* Waits until every notification posted so far has been delivered: 0, or -1
 * after timeout_ms. Must not be called while holding a lock the library's
 * notification entry points take (the AIT guard). */
int hbb_sim_wait_notifications(int timeout_ms);
/* The next hbbSetChannel that finds its channel is accepted (0) but fails:
 * the current channel stays and channel_change_error(error, the channel
 * asked for) is delivered instead of channel_changed. */
void hbb_sim_fail_next_tune(ChannelChangeError error);
int hbb_sim_fire_programmes_list_changed(void);
int hbb_sim_fire_programmes_changed(void);
int hbb_sim_fire_component_changed(int component_type);
/* The collection handed over carries only the number of ratings. */
int hbb_sim_fire_parental_rating_changed(int ratings, int blocked);
int hbb_sim_fire_parental_rating_error(int ratings);

/* ---- programmes -----------------------------------------------------------------
 * Programmes of a channel (given by its position in the channel list; they
 * stay with the channel's triplet), in the order added: hbbGetProgrammeList
 * counts those of the current channel and hbbGetProgrammeItem hands them
 * out (fresh; channelID is the channel's ccid; longDescription stays the
 * simulator's). hbbGetProgrammeLongDescription finds a programme by the
 * channel's ccid and its programmeID. */

/* Copies a programme in (texts and the rating). Its index among the
 * channel's programmes, or -1 for a position outside the list. */
int hbb_sim_add_programme(int channel_position, const Programme* programme);
/* An SI descriptor of an event (ccid, programme id) as hexadecimal text, for
 * hbbGetSIDescriptorsLength / hbbGetSIDescriptorsItem (a tag extension or
 * private data specifier of -1 in a query matches any). 0, or -1 for a null
 * text. */
int hbb_sim_add_si_descriptor(const char* ccid, const char* event_id, int tag, int tag_extension,
                              int private_data_specifier, const char* hex);
/* Forgets every programme and SI descriptor. */
void hbb_sim_clear_programmes(void);

/* ---- AV components -----------------------------------------------------------------
 * Video, audio and subtitle components of a channel (by position; they stay
 * with its triplet), each active or not. Both component families of the
 * porting layer (hbb* and hbbtv*) serve them: lengths and items count the
 * current channel's components of a type (all / active; items are fresh),
 * selecting a component (matched by componentTag and pid) makes it the one
 * active component of its type, unselecting deactivates it, the by-type
 * calls select the first / unselect every component of the type; a
 * selection that matches nothing answers -1. hbbtvCreateAV*Component adds
 * an inactive component to the current channel and answers its index. */
int hbb_sim_add_video_component(int channel_position, const AVVideoComponent* component,
                                int active);
int hbb_sim_add_audio_component(int channel_position, const AVAudioComponent* component,
                                int active);
int hbb_sim_add_subtitle_component(int channel_position, const AVSubtitleComponent* component,
                                   int active);
/* A data component of a channel (DSM-CC stream events or a carousel) by its
 * component tag; it stays with the channel's triplet. 0, or -1 for a
 * position outside the list or a tag outside 0..0xFFFF.
 * The components the current channel carries are its AV components, its
 * data components and the carousels served (hbb_sim_set_carousel): a
 * subscription to stream events described outside the carousel
 * (QUMA_StreamEventsWOCSubscribe) on any other component tag is refused, as
 * a receiver refuses one on a component it cannot filter (unless a host set
 * the tags itself, hbb_sim_set_stream_event_tags). */
int hbb_sim_add_data_component(int channel_position, int component_tag);
/* Forgets every component, data components included. */
void hbb_sim_clear_components(void);

/* ---- receiver settings ---------------------------------------------------------------- */

/* Number of parental-rating schemes hbbGetParentalRatingSchemes reports
 * (start: 0, no scheme list). */
void hbb_sim_set_parental_rating_schemes(int count);
/* A named capability for hbbHasCapability (start: none). */
void hbb_sim_set_capability(const char* name, int has);
/* hbbGetVideoDecodes' answer (start: 0, 0); a negative count makes it null. */
void hbb_sim_set_video_decodes(int extra_sd, int extra_hd);
/* hbbGetXmlCapabilities' document (copied); NULL makes it null. The start
 * value is a minimal HD profile list. */
void hbb_sim_set_xml_capabilities(const char* document);
/* hbbGetConfiguration's answer (copied, DeviceId included); NULL makes it
 * null. The start value is an English receiver in the United Kingdom. */
void hbb_sim_set_configuration(const Configuration* configuration);

/* ---- stream events ------------------------------------------------------------------------
 * QUMA_StreamEventsSubscribe and QUMA_StreamEventsWOCSubscribe record a
 * subscription (name, URL, callback; component tag and event id for the
 * second) and answer the settable result (start 0); the unsubscribe calls
 * remove a matching one (the WOC kind matched on tag, name, URL and the low
 * 8 bits of the event id): 0, or -1 when none matched. */
void hbb_sim_set_stream_event_subscribe_result(int result);
/* The component tags whose stream events the service carries (copied):
 * QUMA_StreamEventsWOCSubscribe fails (-1) for any other tag, as a
 * middleware does for a component its service does not have. A count of 0
 * (the start value) leaves it to the current channel's components (see
 * hbb_sim_add_data_component). */
void hbb_sim_set_stream_event_tags(const int* tags, int count);
/* Number of subscriptions recorded now. */
int hbb_sim_stream_event_subscriptions(void);
/* 1 when a subscription for this URL and event name exists (either kind),
 * else 0; component_tag / event_id (may be null) receive a WOC
 * subscription's values (-1 for the other kind). */
int hbb_sim_stream_event_subscribed(const char* url, const char* name, int* component_tag,
                                    int* event_id);
/* Fires an event (status: a tQUMAm_DSMCC_StreamEventStatus value, or any
 * other number) at every subscription for this URL and name: its callback
 * gets the event name, the URL as event path and a copy of the payload, on
 * the notifier thread. Returns the number of subscriptions reached. */
int hbb_sim_fire_stream_event(const char* url, const char* name, int status, const void* payload,
                              int length);
/* The same for an event of a carousel's stream-event object: every
 * subscription of the first kind for this event name whose URL names the
 * object at `path` ("dir/name", decoded) of the carousel of component_tag,
 * whatever the rest of its locator. */
int hbb_sim_fire_carousel_stream_event(int component_tag, const char* path, const char* name,
                                       int status, const void* payload, int length);
/* The same for events as the broadcast identifies them: every WOC
 * subscription with this component tag and event id. */
int hbb_sim_fire_stream_event_by_id(int component_tag, int event_id, int status,
                                    const void* payload, int length);

#ifdef __cplusplus
}
#endif

#endif /* HBB_SIM_H */
