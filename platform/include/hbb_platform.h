/* Porting layer of libapp-mgr.
 *
 * Every function the library needs from the receiver's middleware is declared
 * here and nowhere else. libapp-mgr calls these functions and never defines
 * them: on a receiver the middleware provides them, on a PC the simulated
 * platform library (libappmgr-platform-sim) does.
 *
 * Unless a comment says otherwise, a function may be called from any of the
 * library's threads (middleware callback threads, the five browser receive
 * threads, search threads), must not block for long, must not call back into
 * the library synchronously, and does not keep pointers it is given beyond
 * the call.
 *
 * The library's own threads run on fixed stacks: 256 KiB for a browser
 * receive thread, 64 KiB for a search thread, of which the library uses at
 * most about 27 KiB and 10 KiB. A middleware whose functions need more sets
 * the environment variable APPMGR_THREAD_STACK_KIB (a size in KiB) before
 * applicationManagerInit; threads the library starts afterwards get at
 * least that much.
 *
 * Records returned by pointer are either "fresh" (allocated with malloc for
 * this call, text fields included; the library releases them with free(),
 * through channel_destroy or its own destroy function named in the comment)
 * or "middleware-owned" (the library only reads them and never frees them).
 * Texts passed in are borrowed for the call. */
#ifndef HBB_PLATFORM_H
#define HBB_PLATFORM_H

#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__) || defined(__clang__)
#define HBB_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define HBB_PRINTF_LIKE(fmt_index, first_arg)
#endif

/* ---- logging ------------------------------------------------------------
 * The library tags its lines with module number 19. Levels passed to
 * log_is_output / log_is_outfile / fpi_log_printf are the library's own
 * (2 information, 3 warning, 5 error); orb_log_printfs receives the
 * ORBLOG_LOGLEVEL value. All four are called for every log line, from any
 * thread, and must be thread-safe. */
typedef enum {
    ORBLOG_LOGLVL_UNKNOWN = 0,
    ORBLOG_LOGLVL_VERBOSE = 1,
    ORBLOG_LOGLVL_DEBUG = 2,
    ORBLOG_LOGLVL_INFO = 3,
    ORBLOG_LOGLVL_WARN = 4,
    ORBLOG_LOGLVL_ERROR = 5,
    ORBLOG_LOGLVL_FATAL = 6,
    ORBLOG_LOGLVL_SILENT = 7
} ORBLOG_LOGLEVEL;

/* Non-zero when a line of this module and level goes to the console log. */
int log_is_output(int module, int level);
/* Non-zero when a line of this module and level goes to the log file. */
int log_is_outfile(int module, int level);
/* The command/channel number under which the module logs. */
int log_get_cmd(int module);
/* Console log: tag is the component ("lyra"). */
void orb_log_printfs(const char* tag, int cmd, int level, const char* format, ...)
    HBB_PRINTF_LIKE(4, 5);
/* File log. */
void fpi_log_printf(int cmd, int level, const char* format, ...) HBB_PRINTF_LIKE(3, 4);

/* ---- decision trace (optional) --------------------------------------------
 * Each decision the library takes about applications and tables is logged
 * (as above) and also reported here as a named event with its fields, so a
 * host can follow the decisions without reading log texts. A receiver may
 * leave this function out: the library refers to it weakly and calls it only
 * when the process provides it; the log lines are the same either way.
 *
 * Called on the thread that took the decision (the AIT callback thread, a
 * browser receive thread or a middleware thread inside an entry point),
 * usually while that thread holds the library's AIT guard: it must return
 * promptly, must not block, and must not call into the library. The record
 * and its texts are borrowed for the call.
 *
 * Events (name: when; fields set besides name):
 *   "autostart"    an AUTOSTART entry was chosen to start: org_id, app_id,
 *                  priority, app_name, url
 *   "no_autostart" no AUTOSTART entry of the table may start
 *   "keep"         the running application stays: org_id, app_id, reason
 *                  "signalled" (the new table still signals it) or
 *                  "network_off" (an HTTP application, the network went off)
 *   "kill"         the running application is ended: org_id, app_id,
 *                  reason "signalled_kill", "not_signalled",
 *                  "needs_broadband" (it needs the network, which is not on),
 *                  "test_table" (a test table ends every application) or
 *                  "service_bound" (bound to the service just left)
 *   "refused"      a table was not taken: url (the table's locator), reason
 *                  "unknown_type", "locator_length" (value: the length),
 *                  "dtg_current" (a DTG table of the service is current),
 *                  "no_entries" or "incomplete_entry"
 *   "empty"        a table without applications cleared the current one: url
 *   "held"         an HTTP application waits for the network state: url
 *   "probe_failed" the HTTP probe of an application failed: url
 *   "load_error"   an application could not be loaded and recovery starts: url
 *   "page_loaded"  the browser reported a page loaded: url
 * Fields not set are -1 (ids), 0 (numbers) or "" (texts); new events and
 * reasons may be added, so a host ignores names it does not know. */
typedef struct {
    const char* name;
    int org_id;
    int app_id;
    int priority;
    const char* app_name;
    const char* url;
    const char* reason;
    int value;
} hbbDecision;

#if defined(__GNUC__) || defined(__clang__)
void hbbTraceDecision(const hbbDecision* decision) __attribute__((weak));
#else
void hbbTraceDecision(const hbbDecision* decision);
#endif

/* ---- AIT, network and carousel notifications ----------------------------
 * Registration calls made once by applicationManagerInit (and again on each
 * later init). The middleware keeps the function pointer and calls it from
 * its own threads; the callbacks may block on the library's AIT guard.
 * Results: 0 on success, non-zero on failure. */
typedef void (*QUMAm_AitUpdateCallback)(AitTable* ait);          /* table borrowed for the call */
typedef int (*QUMAm_NetworkStatusCallback)(int status);          /* NetworkStatus value */
typedef void (*QUMAm_ModuleDataChangeCallback)(unsigned short nModuleID,
                                               unsigned char bIsDirRef, void* pData);

int QUMAm_Broadcast_SubscribeForAIT(QUMAm_AitUpdateCallback callback);
int QUMAm_Broadcast_NetworkStatusChangeCallback(QUMAm_NetworkStatusCallback callback);
int QUMAm_DSMCCModuleDataChangeCallback(QUMAm_ModuleDataChangeCallback callback);

/* ---- application start and stop ------------------------------------------
 * Called on the thread that starts or ends an application (AIT callback
 * thread or a browser receive thread), often under the library's AIT guard:
 * these must return promptly and must not wait for a library callback. */

/* Tells the middleware whether HbbTV may stop the broadcast service: 1 just
 * before the library asks the middleware to start HbbTV, 0 just before it
 * asks it to stop. */
void hbbIsAllowStopChannel(int allow);
/* No application of the service's table may be started (the table was
 * refused, or no entry is eligible). dvb_url is the locator of the service
 * that carried the table, borrowed for the call; it may be empty. */
void application_manager_invaild_app(const char* dvb_url);
/* The page reported the EXIT key. Non-zero when the middleware handled it
 * itself (for example by leaving the portal); 0 lets the library restart the
 * broadcast application. Called on the "Application" receive thread. */
int hbbExitKeyHandle(void);

/* ---- carousel and DSM-CC loader ------------------------------------------
 * One object carousel is mounted at a time. Loader calls may block while the
 * middleware acquires a module from the broadcast, up to a time-out of its
 * own; they must return DSMCC_LOADER_BREAK promptly when the service changes
 * during the wait (the library then mounts again and retries once). They are
 * called on the "DSMCC" receive thread and from application start (AIT
 * callback and browser threads), possibly at the same time.
 *
 * A dvbUrl is "dvb://onid.tsid.sid.ctag/dir/.../name" (the prefix always in
 * lower case) without query or fragment; "dvb://host/" or "dvb://host" names
 * the carousel's root directory. The library never passes a path with an
 * empty, "." or ".." component (also not percent-encoded) or a control
 * character; a port that maps the carousel onto a local file system must
 * still keep every lookup inside the carousel.
 *
 * Buffers handed out are malloc-compatible blocks owned by the caller until
 * released with DSMCC_LoaderRelease. Outputs are written on DSMCC_LOADER_OK
 * only. */

/* Mounts the carousel carried in the component with this tag on the current
 * service, replacing any carousel mounted before. May block for the mount;
 * eQUMA_NO_ERROR when mounted. */
tQUMA_ErrorCode QUMA_MountCarouselObject(unsigned short componentTag);
/* Unmounts the current carousel; the library always passes "DSM://". */
tQUMA_ErrorCode QUMA_UmountCarouselObject(const char* mountName);
/* Drops the carousel connection of the service that is being left. Called
 * on a middleware thread inside channelChanged. */
void DSMCC_Disconnect(void);
/* Empties the middleware's carousel file cache. 0 on success. */
int DSMCC_DeleteAllFileFromFSA(void);

/* Looks an entry up without loading its content: its kind and the number of
 * the module that carries it. DSMCC_LOADER_NOT_FOUND when the carousel has no such entry,
 * DSMCC_LOADER_ERROR when the URL's carousel is not the mounted one. */
DSMCC_LoaderResult DSMCC_LoaderGetEntryInfo(const char* dvbUrl, DSMCC_LoaderEntryType* entryType,
                                            unsigned short* moduleId);
/* Loads a file. On DSMCC_LOADER_OK *data holds *length bytes (binary, not
 * terminated; null or any pointer when *length is 0). DSMCC_LOADER_NOT_FOUND
 * when there is no file of that name (also when the entry is a directory or
 * a stream-event object). */
DSMCC_LoaderResult DSMCC_LoaderGetFile(const char* dvbUrl, unsigned char** data,
                                       unsigned int* length);
/* Lists a directory. On DSMCC_LOADER_OK *records holds *length bytes: one
 * record per entry, in carousel order, each made of the entry's kind as one
 * digit ('0' file, '1' directory, '2' stream-event object, the values of
 * DSMCC_LoaderEntryType), the entry's name and a zero byte. An empty
 * directory gives *length 0. DSMCC_LOADER_NOT_FOUND when the entry is
 * missing or not a directory. */
DSMCC_LoaderResult DSMCC_LoaderGetDirectory(const char* dvbUrl, char** records,
                                            unsigned int* length);
/* Names of the events of a stream-event object. On DSMCC_LOADER_OK *names
 * holds *length bytes: each event name followed by a zero byte, in the
 * object's order. DSMCC_LOADER_NOT_FOUND when the entry is missing or not a
 * stream-event object. */
DSMCC_LoaderResult DSMCC_LoaderGetStreamEventList(const char* dvbUrl, char** names,
                                                  unsigned int* length);
/* Releases a buffer handed out by a loader call; null is ignored. */
void DSMCC_LoaderRelease(void* buffer);

/* ---- stream events ---------------------------------------------------------
 * Subscriptions are made on the browser receive thread that serves the
 * broadcast object. The middleware keeps the callback and calls it from its
 * own thread for every occurrence of the event until unsubscribed; all texts
 * and the payload are borrowed for the duration of the callback. The callback
 * sends one message to the browser and may block on the library's send lock.
 * Results: 0 on success, non-zero on failure. */
typedef void (*tQUMAm_DSMCC_StreamEventCallback)(char* eventName, char* eventPath,
                                                 tQUMAm_DSMCC_StreamEventStatus eventStatus,
                                                 char* eventPayload, int payloadLen);

/* An event of a stream-event object of the mounted carousel; targetURL is
 * its dvb: URL. */
int QUMA_StreamEventsSubscribe(const char* eventName, const char* targetURL,
                               tQUMAm_DSMCC_StreamEventCallback callback);
int QUMA_StreamEventsUnsubscribe(const char* eventName, const char* targetURL);
/* An event described outside the carousel (XML stream-event description):
 * the library gives the component tag and event id it read from the
 * description; targetURL identifies the subscription. A port refuses
 * (non-zero) a component tag the current service does not carry: a
 * description that could not be read arrives as tag 0 and event id 0. */
int QUMA_StreamEventsWOCSubscribe(unsigned short componentTag, const char* eventName,
                                  const char* targetURL, unsigned short eventId,
                                  tQUMAm_DSMCC_StreamEventCallback callback);
/* eventId arrives narrowed to its low 8 bits: a port matches the
 * subscription by component tag, name, URL and the low 8 bits of the id. */
int QUMA_StreamEventsWOCUnsubscribe(unsigned short componentTag, const char* eventName,
                                    const char* targetURL, unsigned short eventId);

/* ---- channels and tuning --------------------------------------------------
 * Called on the "dtvPlugins" receive thread (without the AIT guard), on AIT
 * and channel callback threads (often under it), and on the HTTP path that
 * fetches XML AITs.
 * A Channel returned by pointer is fresh: its texts (ccid, name, dsd) are
 * heap strings owned by the record, and the library releases it with
 * channel_destroy. */

/* An empty channel record (all fields zero, texts null). Null when out of
 * memory. */
Channel* channel_create(void);
/* Releases a channel record and its texts with free(); null is ignored. The
 * library also releases records it filled itself with strdup'ed texts. */
void channel_destroy(Channel* channel);
/* Fills a record (usually from channel_create) with the current service,
 * replacing (and freeing) texts already in it. 0 on success, -1 when no
 * service is current. */
int getCurrentChannelData(Channel* channel);

/* The current service, or null when none. Fresh. */
Channel* hbbGetCurrentChannel(void);
/* The channel list, or null when there is none. Middleware-owned: valid until
 * the channel list changes; the library never frees it. */
ChannelList* hbbGetChannelList(void);
/* Entry of the channel list at a zero-based position, or null. Fresh. */
Channel* hbbGetChannelByPosition(int position);
/* The channel with this ccid, or null. Fresh. */
Channel* hbbGetChannel(const char* channelID);
/* The channel with this DVB triplet, or null. Fresh. */
Channel* hbbGetChannelByTriplet(int onid, int tsid, int sid);
/* The channel with this delivery system descriptor and service id, or null.
 * Fresh. */
Channel* hbbGetChannelByDsd(const char* dsd, int sid);

/* Tunes to a channel (matched by its triplet; the record is borrowed).
 * quiet: 0 normal, 1 no channel banner, 2 quiet (no banner, the last-viewed
 * channel is not updated). Returns once the tune is started: 0 accepted, -1
 * refused. The outcome reaches the library later through channelChanged or
 * channelChangeError on a middleware thread, never from inside this call. */
int hbbSetChannel(Channel* channel, int quiet);
/* Tunes to the previous / next entry of the channel list. 0 accepted, -1
 * refused. */
int hbbPreviousChannel(void);
int hbbNextChannel(void);
/* Stops presenting the broadcast service (decoders stopped, the service stays
 * selected). 1 stopped, 0 not stopped. */
int hbbStopChannel(void);
/* Re-binds the decoders to the current service (after a browser crash or
 * when a broadcast-related application takes over again). 0 on success. */
int hbbBindCurrentChannel(void);
/* Releases the decoders and tuner held for the broadcast video object. 0 on
 * success. */
int hbbReleaseChannelResources(void);

/* ---- programmes --------------------------------------------------------------
 * Called on the "dtvPlugins" receive thread. A Programme is fresh, its texts
 * heap strings, released by the library's programme_destroy, which frees
 * name, description, channelID, programmeID and parentalRatings (a fresh
 * ParentalRating) but not longDescription: longDescription must be
 * middleware-owned or null. Texts returned by the other calls are
 * middleware-owned and need to stay valid only until the next call of the
 * same function; the library copies them at once. */

/* Programmes of the current service (present first), or null. Middleware-
 * owned. */
ProgrammeCollection* hbbGetProgrammeList(void);
/* Programme at an index of that list, or null. Fresh. */
Programme* hbbGetProgrammeItem(int index);
/* Number of SI descriptors of an event that match the tag, tag extension
 * (-1 any) and private data specifier (-1 any); 0 when none. channelID is the
 * ccid, eventID the programme id. */
int hbbGetSIDescriptorsLength(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int privateDataSpecifier);
/* The descriptor at a position of that selection, as hexadecimal text, or
 * null. */
char* hbbGetSIDescriptorsItem(const char* channelID, const char* eventID, int descriptorTag,
                              int descriptorTagExtension, int position);
/* The extended description of an event, or null. */
char* hbbGetProgrammeLongDescription(const char* channelID, const char* eventID);

/* ---- AV components and decoders -----------------------------------------------
 * Called on the "dtvPlugins" receive thread. Component records returned by
 * pointer are fresh (the AVComponent and every text included) and are
 * released by the library's av_*_component_destroy functions. Components
 * given to the middleware are borrowed for the call; the middleware matches
 * them by componentTag and pid. Integer results: 0 on success, -1 on failure,
 * unless stated. */

/* Used by the broadcast object bridge. */
int hbbSelectDefaultAVComponent(int componentType); /* AVComponentType */
int hbbUnselectAVComponentByType(int componentType);
int hbbSelectAVVideoComponent(AVVideoComponent* component);
int hbbUnselectAVVideoComponent(AVVideoComponent* component);
int hbbSelectAVAudioComponent(AVAudioComponent* component);
int hbbUnselectAVAudioComponent(AVAudioComponent* component);
int hbbSelectAVSubtitleComponent(AVSubtitleComponent* component);
int hbbUnselectAVSubtitleComponent(AVSubtitleComponent* component);
/* Number of components of a type on the current service (all / active). */
int hbbGetAVComponentsLength(int componentType);
int hbbGetActiveAVComponentsLength(int componentType);
/* Component at an index of that type, or null. Fresh. */
AVVideoComponent* hbbGetVideoComponentItem(int index);
AVAudioComponent* hbbGetAudioComponentItem(int index);
AVSubtitleComponent* hbbGetSubtitleComponentItem(int index);
AVVideoComponent* hbbGetActiveVideoComponentItem(int index);
AVAudioComponent* hbbGetActiveAudioComponentItem(int index);
AVSubtitleComponent* hbbGetActiveSubtitleComponentItem(int index);

/* The same operations as called directly by the browser request dispatcher.
 * A port may implement both families with the same code. */
int hbbtvSelectAVComponentByType(int componentType);
int hbbtvUnselectAVComponentByType(int componentType);
int hbbtvSelectAVVideoComponent(AVVideoComponent* component);
int hbbtvUnselectAVVideoComponent(AVVideoComponent* component);
int hbbtvSelectAVAudioComponent(AVAudioComponent* component);
int hbbtvUnselectAVAudioComponent(AVAudioComponent* component);
int hbbtvSelectAVSubtitleComponent(AVSubtitleComponent* component);
int hbbtvUnselectAVSubtitleComponent(AVSubtitleComponent* component);
int hbbtvGetAVComponentsLength(int componentType);
int hbbtvGetActiveAVComponentsLength(int componentType);
AVVideoComponent* hbbtvGetVideoComponentItem(int index);
AVAudioComponent* hbbtvGetAudioComponentItem(int index);
AVSubtitleComponent* hbbtvGetSubtitleComponentItem(int index);
AVVideoComponent* hbbtvGetActiveVideoComponentItem(int index);
AVAudioComponent* hbbtvGetActiveAudioComponentItem(int index);
AVSubtitleComponent* hbbtvGetActiveSubtitleComponentItem(int index);
/* Makes a component the page described known to the middleware (so that it
 * can be selected later). Returns the middleware's index for it (>= 0) or
 * -1. */
int hbbtvCreateAVVideoComponent(AVVideoComponent* component);
int hbbtvCreateAVAudioComponent(AVAudioComponent* component);

/* Opens / closes the broadcast decoders named by a bit mask of the
 * middleware's decoder numbers. 0 on success. */
int hbbOpenDtvDecoderByMask(int mask);
int hbbCloseDtvDecoderByMask(int mask);
/* Waits until the decoders used for broadband video are free again, so that
 * the broadcast can be re-tuned. Blocks for up to a second or two; called
 * on the middleware thread that closes the web portal. */
void hbbWaitingVodDecoderRelease(void);

/* ---- video window and display state -----------------------------------------
 * Called from browser receive threads, middleware callback threads and under
 * the AIT guard; all return promptly. */

/* Puts the broadcast video back to full screen. */
void setVideoToFullscreen(void);
/* Puts the broadcast video back into the window it had before the last
 * switch to full screen. */
void restoreCoordinates(void);
/* Full screen on (non-zero) or off for the broadcast video object. 0 on
 * success. */
int hbbSetVideoFullScreen(int fullScreen);
/* Places the broadcast video in a window, in graphics-plane pixels, and
 * leaves full screen. 0 on success, -1 for an empty window or one that lies
 * outside the screen. */
int hbbSetVideoProperties(int top, int left, int width, int height);
/* Changes the HbbTV display state. */
void hbbStateChange(EN_HBB_STATE state);
/* The HbbTV display state in force. */
EN_HBB_STATE hbbGetState(void);
/* Sets the display mode; the library passes 0 (default mode) whenever the
 * running application's record is released. */
void hbbSetDisplayMode(int mode);
/* Copies the display zoom window in force into *window. 0 on success, -1
 * when it is not available (then *window is left unchanged). Called on the
 * middleware thread that opens the web portal. */
int fpi_zoom_get_current_display_window(fpi_zoom_setting_window_t* window);

/* ---- keys ---------------------------------------------------------------------- */

/* Routes the key groups of this OIPF key-set mask (0 to 0x7FF) to HbbTV;
 * every other key stays with the middleware. Replaces the previous mask.
 * 0 on success. */
int hbbRegisterKeySet(int mask);

/* ---- parental rating, capabilities and configuration --------------------------
 * Called on the "dtvPlugins" receive thread, and the threshold also from
 * application start (AIT callback thread, under the AIT guard). */

/* The rating schemes known to the receiver, or null. Middleware-owned until
 * hbbReleaseParentalRatingSchemes. */
ParentalRatingSchemeCollection* hbbGetParentalRatingSchemes(void);
void hbbReleaseParentalRatingSchemes(void);
/* The viewer's threshold in a scheme ("dvb-si": value is the DVB minimum age
 * minus 3), or null. Fresh; released by the library's parental_rating_destroy
 * (frees name, region and scheme). */
ParentalRating* hbbGetCurrentParentalRatingThreshold(const char* schemeName);
/* Non-zero when the receiver has the named capability (an HbbTV / OIPF
 * profile or option name such as "+DL"). */
int hbbHasCapability(const char* profileName);
/* Extra video decodes available beside the broadcast, or null. Fresh;
 * released by the library with free(). */
VideoDecodes* hbbGetVideoDecodes(void);
/* The capabilities XML document, or null. Middleware-owned, valid until the
 * next call. */
char* hbbGetXmlCapabilities(void);
/* Local system configuration, or null. Fresh; the library's
 * configuration_destroy frees the four language / country texts and the
 * record but not DeviceId, which stays middleware-owned. */
Configuration* hbbGetConfiguration(void);

/* ---- EIT cache and string conversion -------------------------------------------
 * Used by the EPG search threads (one per running search), which hold the
 * cache lock while walking the events of one service. Each client has its own
 * service cursor and event cursor. Integer results: 0 on success unless
 * stated. */

/* Registers a cache client: its handle (>= 0), or -1. */
int EIT_DVB_ClientRegister(void);
int EIT_DVB_ClientUnregister(int handle);
/* Moves the client's service cursor to the first / next service cache:
 * non-zero when the cursor is on a cache, 0 when there is none (left). */
int EIT_DVB_GetFirstServiceCache(int handle);
int EIT_DVB_GetNextServiceCache(int handle);
/* Moves the service cursor to the cache of one service: its index (>= 0), or
 * -1 when the service has no cache. */
int EIT_DVB_GetServiceCacheForSpecificService(int handle, int onid, int tsid, int sid);
/* The lock over all caches. It is recursive: EIT_DVB_GetNextEventFromCache
 * takes it again while the caller holds it. May block while the middleware
 * updates the cache. */
int EIT_DVB_LockCache(void);
int EIT_DVB_UnlockCache(void);
/* Moves the event cursor within the current service cache: non-zero when the
 * cursor is on an event, 0 when there is none (left). The NonLock variants
 * expect the caller to hold the cache lock; EIT_DVB_GetNextEventFromCache
 * takes it itself. */
int EIT_DVB_GetFirstEventFromCacheNonLock(int handle);
int EIT_DVB_GetNextEventFromCacheNonLock(int handle);
int EIT_DVB_GetNextEventFromCache(int handle);
/* Fills name, start time, duration, event id and triplet of the event under
 * the cursor (the caller holds the lock). The texts are the cache's own,
 * valid until the lock is released or the cursor moves. */
int EIT_DVB_GetEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event);
/* Fills the short and extended description segments of the event under the
 * cursor. The segments and their arrays pass to the caller (see
 * tEIT_DVB_EventDescriptor). */
int EIT_DVB_GetRestOfEventDataNonLock(int handle, tEIT_DVB_HbbTVDescriptor* event);

/* Converts an SI text of the current broadcast standard (DVB character
 * tables, selected by its first byte) into a new zero-terminated UTF-8
 * text, released with UT_FreeDVBStringConverted; null on failure.
 * utf8Length, when not null, receives the length without the terminator. */
char* mUT_ConvertCurStdToUTF8(const unsigned char* dvbText, int dvbLength, int* utf8Length);
void UT_FreeDVBStringConverted(char* converted);

/* ---- miscellaneous ---------------------------------------------------------------- */

/* The broadcast time (from the TDT), seconds since 1970-01-01 UTC. Called on
 * the "dtvPlugins" receive thread. */
int hbbGetCurrentTime(void);
/* Free memory for applications, in kilobytes, or -1 when unknown. */
int hbbGetFreeMemory(void);
/* Sends a broadcast intent (an action text such as
 * "orb.broadcast.stop.hbbtv.portal") to the receiver's other components.
 * 0 on success. Must not wait for the receivers of the intent. */
int orb_am_sendBroadcast(const char* action);
/* Asks the media-delivery service whether a location is served by a player
 * application. 0 when it is: playerUrl (playerUrlSize bytes, owned by the
 * caller) receives the player's URL, zero-terminated. Non-zero otherwise,
 * playerUrl unchanged. May block briefly on a local look-up. */
int tvh_mds_get_player_url(const char* location, char* playerUrl, int playerUrlSize);

#ifdef __cplusplus
}
#endif

#endif /* HBB_PLATFORM_H */
