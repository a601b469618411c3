/* libapp-mgr: DSM-CC stream-event listeners.
 *
 * A page listens for a named event of a stream-event object. The object is
 * named by a dvb: URL (an object of the carousel), an http(s) URL (an XML
 * stream-event description naming the component tag and event id), or a URL
 * relative to the page the browser loaded last. The library subscribes the
 * listener with the middleware (QUMA_StreamEvents* of the porting layer) and
 * turns every event the middleware fires into the stream-event callback
 * (66) to the browser: location, name, data (the payload in hexadecimal),
 * text (the payload's ASCII and two-byte UTF-8 characters) and status
 * ("trigger" or "error").
 *
 * Requests for relative URLs that arrive before any page is loaded are kept
 * in the pending table streamEventsForSubscription (eight slots). The library
 * never replays that table: whatever loads the application reads it and
 * issues the pending adds and removes. It is written under the AIT guard: a
 * host reads it with lockAitGuard() held. */
#ifndef APP_MGR_STREAM_EVENTS_H
#define APP_MGR_STREAM_EVENTS_H

#include <stdint.h>

#include "app_mgr_export.h"
#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"

APPMGR_BEGIN_DECLS

/* Number of slots of the pending table. */
#define APPMGR_STREAM_EVENT_SLOTS 8

typedef enum {
    ADD_STREAM_EVENT_LISTENER = 0,
    REMOVE_STREM_EVENT_LISTENER = 1
} ListenerActionType;

/* One pending request; both texts are the table's own copies. */
typedef struct StreamEventDescriptor {
    char* targetURL;
    char* eventName;
    ListenerActionType type;
} StreamEventDescriptor;

typedef struct StreamEvents {
    int acquiredSlots;                                  /* requests stored so far */
    int eventSlotUsed[APPMGR_STREAM_EVENT_SLOTS];       /* 1 when the slot holds one */
    StreamEventDescriptor events[APPMGR_STREAM_EVENT_SLOTS];
} StreamEvents;

/* Results of the record helpers and of extractValidUTF8Characters. */
typedef enum {
    NO_ERROR = 0,
    NULL_PTR_ERR = 1,
    ALLOCATE_ERR = 2,
    PTHREAD_ERR = 3,
    UNDEFINED_ERR = 4
} HbbErrorCodes;

/* Result of adding a listener. */
typedef enum {
    HBBTV_STE_OK = 0,
    HBBTV_STE_BAD_PARAM = 1,
    HBBTV_STE_ERROR_SUBSCRIBE = 2,
    HBBTV_STE_NO_FREE_SLOTS = 3
} HbbTVSTEErrorCode;

/* The pending table (see above). */
APPMGR_API extern StreamEvents streamEventsForSubscription;

/* Adds a listener. HBBTV_STE_BAD_PARAM for a null argument;
 * HBBTV_STE_ERROR_SUBSCRIBE when the carousel object does not list the
 * event or the middleware refuses the subscription. A relative URL before
 * any page is loaded is stored in the pending table. */
APPMGR_API HbbTVSTEErrorCode hbbAddStreamEventListener(const char* targetURL,
                                                       const char* eventName);
/* Removes a listener (null arguments are ignored). */
APPMGR_API void hbbRemoveStreamEventListener(const char* targetURL, const char* eventName);
/* Subscribes / unsubscribes a URL relative to the loaded page: the XML
 * description is read from the page's directory followed by targetURL; the
 * middleware is given the relative targetURL. Add: 0 or 2
 * (HBBTV_STE_ERROR_SUBSCRIBE). */
APPMGR_API HbbTVSTEErrorCode addStreamEventListenerRelativeURL(const char* targetURL,
                                                               const char* eventName);
APPMGR_API void removeStreamEventListenerRelativeURL(const char* targetURL,
                                                     const char* eventName);

/* Pending-table slots (0 to 7; other indices are refused with an error
 * line). configure stores copies of both texts without looking at an
 * earlier occupant; release frees them and counts acquiredSlots down. */
APPMGR_API void configureStreamEventSlot(uint8_t slotIndex, const char* targetURL,
                                         const char* eventName, ListenerActionType type);
APPMGR_API void releaseStreamEventSlot(uint8_t slotIndex);
/* Releases the used slots 0 to 6; slot 7 is left as it is. */
APPMGR_API void releaseStreamEventsForSubscription(void);
/* Empty the pending table (init) / release it (deinit); both yield 1. */
APPMGR_API int initializeStreamEventsUtil(void);
APPMGR_API int deinitializeStreamEventsUtil(void);

/* The callback the library gives the middleware with every subscription.
 * Called on a middleware thread; every argument is borrowed for the call.
 * A fired event with a payload of at most 512 bytes gets its whole payload
 * in hexadecimal (longer payloads are cut to 512 bytes). */
APPMGR_API void hbbtvExtQUMAStreamEventsCallback(char* eventName, char* eventPath,
                                                 tQUMAm_DSMCC_StreamEventStatus eventStatus,
                                                 char* eventPayload, int payloadLen);

/* Keeps the ASCII bytes and the two-byte UTF-8 sequences of U+0080 to
 * U+00FF of rawData. With something kept: *utf8Output receives a new
 * zero-terminated text (released with free) and *utf8OutputLen the kept
 * count plus one; with nothing kept: *utf8OutputLen is 0 and *utf8Output is
 * left as it was. NULL_PTR_ERR for a null argument, UNDEFINED_ERR for a
 * negative length, ALLOCATE_ERR when out of memory. */
APPMGR_API HbbErrorCodes extractValidUTF8Characters(const char* rawData, int rowDataLen,
                                                    char** utf8Output, int* utf8OutputLen);

/* Downloads the XML stream-event description at url (connect time-out 20
 * s, at most 8191 bytes) and reads the component tag of its "dsmcc_object"
 * and the id of the "stream_event" named `name`; each output is written
 * only when found. Attributes are read by position: the first is the value,
 * the second the event's name. */
APPMGR_API void parse_xml_stream_event(const char* url, const char* name, int* event_id,
                                       int* c_tag);

/* Record helpers. The create functions return zeroed records (null when out
 * of memory). initStreamEventStructure copies the four texts (a null text
 * becomes "undefined"); initStreamEventCbStructure copies the path the same
 * way and links the event, which the callback data then owns.
 * freeStreamEventCbData releases the callback data with its event;
 * freeStreamEventStructure an event alone. Both accept null. */
APPMGR_API StreamEventCallbackData* createStreamEventCbDataStructure(void);
APPMGR_API StreamEvent* createStreamEventStructure(void);
APPMGR_API HbbErrorCodes initStreamEventStructure(StreamEvent* event, const char* name,
                                                  const char* data, const char* text,
                                                  const char* status);
APPMGR_API HbbErrorCodes initStreamEventCbStructure(StreamEventCallbackData* cbData,
                                                    const char* eventPath, StreamEvent* event);
APPMGR_API void freeStreamEventCbData(StreamEventCallbackData* cbData);
APPMGR_API void freeStreamEventStructure(StreamEvent* event);

APPMGR_END_DECLS

#endif /* APP_MGR_STREAM_EVENTS_H */
