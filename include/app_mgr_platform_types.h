/* Records and enumerations that the TV middleware hands to libapp-mgr, or
 * that the library hands back to it, through the porting layer
 * (hbb_platform.h). Everything here has a fixed C layout.
 *
 * Ownership of each record is given with the function that returns it in
 * hbb_platform.h. As a rule, text fields are heap strings (malloc) owned by
 * the record they sit in, and the library frees records it is given with its
 * own destroy functions using free(). */
#ifndef APP_MGR_PLATFORM_TYPES_H
#define APP_MGR_PLATFORM_TYPES_H

#include <stdint.h>

#include "app_mgr_types.h"

APPMGR_BEGIN_DECLS

/* ---- display state and video window ------------------------------------ */

/* The middleware's HbbTV display state. */
typedef enum {
    EN_HBB_OFF = 0,               /* no HbbTV graphics */
    EN_HBB_RED_BUTTON = 1,        /* application loaded but hidden (red-button hint only) */
    EN_HBB_FULLSCREEN_NO_VOD = 2, /* application shown over the broadcast */
    EN_HBB_FULLSCREEN_VOD = 3     /* application plays broadband video itself */
} EN_HBB_STATE;

/* Display zoom window, in screen pixels. */
typedef struct fpi_zoom_setting_window_t {
    uint16_t un16_hposition;
    uint16_t un16_vposition;
    uint16_t un16_hsize;
    uint16_t un16_vsize;
} fpi_zoom_setting_window_t;

/* ---- parental rating ----------------------------------------------------- */

typedef struct ParentalRating {
    char* name;
    char* scheme;
    int value;
    int labels;
    char* region;
} ParentalRating;

/* The ratings themselves stay with the middleware; only the count is read. */
typedef struct ParentalRatingCollection {
    int lenght;
} ParentalRatingCollection;

typedef struct ParentalRatingSchemeCollection {
    int lenght;
} ParentalRatingSchemeCollection;

/* ---- programmes ---------------------------------------------------------- */

typedef enum {
    PROGRAMME_ID_TVA_CRID = 0,
    PROGRAMME_ID_DVB_EVENT = 1
} ProgrammeIDType;

typedef struct Programme {
    char* name;
    char* description;
    int startTime; /* seconds since 1970-01-01 UTC */
    int duration;  /* seconds */
    char* channelID;
    char* programmeID;
    ProgrammeIDType programmeIDType;
    char* longDescription;
    ParentalRating* parentalRatings;
} Programme;

/* A programme as a metadata search result. */
typedef struct ShortProgramme {
    char* name;
    char* programmeID;
    int programmeIDType;
    int startTime;
    int duration;
    char* channelID;
    ParentalRatingCollection* parentalRating;
} ShortProgramme;

/* The programmes themselves stay with the middleware; only the count is read. */
typedef struct ProgrammeCollection {
    int lenght;
} ProgrammeCollection;

/* ---- AV components ------------------------------------------------------- */

typedef enum {
    AV_COMPONENT_TYPE_INVALID = -1,
    AV_COMPONENT_TYPE_VIDEO = 0,
    AV_COMPONENT_TYPE_AUDIO = 1,
    AV_COMPONENT_TYPE_SUBTITLE = 2
} AVComponentType;

typedef struct AVComponent {
    AVComponentType type;
    char* encoding;
    int encrypted;
    int componentTag;
    int pid;
} AVComponent;

typedef struct AVVideoComponent {
    AVComponent* avComponent;
    double aspectRatio;
} AVVideoComponent;

typedef struct AVAudioComponent {
    AVComponent* avComponent;
    char* language;
    int audioDescription;
    int audioChannels;
} AVAudioComponent;

typedef struct AVSubtitleComponent {
    AVComponent* avComponent;
    char* language;
    int hearingImpaired;
} AVSubtitleComponent;

/* ---- capabilities and configuration -------------------------------------- */

typedef struct VideoDecodes {
    int extraSDVideoDecodes;
    int extraHDVideoDecodes;
} VideoDecodes;

typedef struct Configuration {
    char* preferredAudioLanguage;
    char* preferredSubtitleLanguage;
    char* countryID;
    char* preferredUILanguage;
    uint8_t SubtitlesEnabled;
    uint8_t TimeShiftSynchronized;
    char* DeviceId; /* owned by the middleware, never freed by the library */
    int AudioDescriptionEnabled;
} Configuration;

/* ---- carousel and DSM-CC loader ------------------------------------------- */

/* Result of the QUMA carousel calls; any non-zero value is a failure. */
typedef enum {
    eQUMA_NO_ERROR = 0,
    eQUMA_ERROR = 1,
    eQUMA_BAD_PARAMETER = 2,
    eQUMA_NOT_AVAILABLE = 3
} tQUMA_ErrorCode;

/* Result of the DSM-CC loader calls. */
typedef enum {
    DSMCC_LOADER_OK = 0,
    DSMCC_LOADER_NOT_FOUND = 1, /* the carousel holds no such entry */
    DSMCC_LOADER_BREAK = 2,     /* interrupted because the service changed */
    DSMCC_LOADER_ERROR = 3      /* no carousel, time-out or out of memory */
} DSMCC_LoaderResult;

/* Kind of a carousel entry. */
typedef enum {
    DSMCC_LOADER_ENTRY_FILE = 0,
    DSMCC_LOADER_ENTRY_DIR = 1,
    DSMCC_LOADER_ENTRY_STREAM_EVENT = 2
} DSMCC_LoaderEntryType;

/* ---- stream events ---------------------------------------------------------- */

typedef enum {
    eQUMAm_DSMCC_EVENT_FIRE = 0,
    eQUMAm_DSMCC_EVENT_ERROR = 1
} tQUMAm_DSMCC_StreamEventStatus;

/* ---- EIT cache ---------------------------------------------------------------- */

/* An event text split into segments. Each segment comes from
 * mUT_ConvertCurStdToUTF8 and is released with UT_FreeDVBStringConverted; the
 * array itself is released with free(). */
typedef struct tEIT_DVB_EventDescriptor {
    int16_t eitEventSegmentNum;
    char** eitEventSegments;
} tEIT_DVB_EventDescriptor;

/* One event of the EIT cache. */
typedef struct tEIT_DVB_HbbTVDescriptor {
    char* eitName;
    char* eitDescription;
    char* eitLongDescription;
    char* eitCRID;
    int eitCRIDType;
    int eitStartTime; /* seconds since 1970-01-01 UTC */
    int eitDuration;  /* seconds */
    int eitEventID;
    int eitOnid;
    int eitTsid;
    int eitSid;
    tEIT_DVB_EventDescriptor eitShortEventDesc;
    tEIT_DVB_EventDescriptor eitLongEventDesc;
} tEIT_DVB_HbbTVDescriptor;

APPMGR_END_DECLS

#endif /* APP_MGR_PLATFORM_TYPES_H */
