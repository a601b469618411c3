/* EPG metadata search of libapp-mgr.
 *
 * The browser's metadata-search object is served here. A search is named by
 * the pair (plug-in instance id, search id) the browser chose. The browser
 * builds a query piece by piece, starts it, and reads result items back; the
 * scan of the middleware's EIT cache runs on a thread of the search's own.
 * When a scan ends the browser receives the search-status callback
 * (CB_SEARCH_STATUS_EVENT, a SearchEvent record).
 *
 * A query is a disjunction of conjunctions: N subgroups are OR-ed, each
 * subgroup holds M comparisons that are AND-ed. A query with zero subgroups
 * asks for the programmes of one stream instead: the programme on air at a
 * start time and every later one of the service given by its triplet.
 *
 * Unless stated otherwise the functions return 0 on success and 1 on
 * failure. They are meant to be called from one thread (the browser request
 * thread); the library serialises them anyway. */
#ifndef APP_MGR_SEARCH_H
#define APP_MGR_SEARCH_H

#include "app_mgr_export.h"
#include "app_mgr_platform_types.h"
#include "app_mgr_types.h"

APPMGR_BEGIN_DECLS

/* ---- query model ---------------------------------------------------------- */

/* The event field a comparison looks at. */
typedef enum {
    eTitle = 0,       /* the event name */
    eStartTime = 1,   /* start time, seconds since 1970-01-01 UTC */
    eProgrammeID = 2  /* "dvb://onid.tsid.sid;event_id", lower-case hexadecimal */
} eQueryFieldType;

/* The comparison; the event is the left operand. */
typedef enum {
    eEqual = 0,
    eNotEqual = 1,
    eGreater = 2,
    eGreaterOrEqual = 3,
    eLess = 4,
    eLessOrEqual = 5,
    eContainString = 6,    /* case-insensitive substring (titles) */
    eDontContainString = 7
} eQueryComparisonType;

/* One comparison. queriesIDs and negated are reserved and never consulted. */
typedef struct sQueryDesc {
    int queriesIDs;
    eBool negated;
    eQueryFieldType fieldType;
    eQueryComparisonType finalComparisonType;
    char* strValue; /* the value as text */
    int numValue;   /* the value as a number (start-time comparisons only) */
} sQueryDesc;

/* One subgroup: its comparisons must all hold. */
typedef struct sGroupOfAndOperations {
    int numberOfQueries;
    sQueryDesc* descriptors;
} sGroupOfAndOperations;

/* The whole query of a search. With subGroupsNumber 0 it is a request for
 * the programmes of one stream: startTime, count and the triplet apply. */
typedef struct sGroupOfOrOperations {
    int subGroupsNumber;
    sGroupOfAndOperations** groups;
    int count;
    eBool haveChannelRestrictions; /* reserved */
    int onid;
    int tsid;
    int sid;
    eBool haveStartTimeRestrictions; /* reserved */
    int startTime;
    int pluginInstanceID;
    int searchID;
} sGroupOfOrOperations;

/* One channel a search may be limited to. */
typedef struct ChannelConstraintDesc {
    int iOnid;
    int iTsid;
    int iSid;
} ChannelConstraintDesc;

/* Commands of a search's thread. */
typedef enum {
    STC_CMD_START_SEARCH = 0,
    STC_CMD_ABORT_SEARCH = 1,
    STC_CMD_DESTROY_SEARCH = 2
} eSearchTaskCommand;

/* One stored result: the programme and its converted description texts. */
typedef struct sSearchTaskResultsData {
    ShortProgramme programme;
    tEIT_DVB_EventDescriptor eitShortEventDesc;
    tEIT_DVB_EventDescriptor eitLongEventDesc;
} sSearchTaskResultsData;

/* Values of SearchEvent.searchStatus. */
#define APPMGR_SEARCH_STATUS_FINISHED 0
#define APPMGR_SEARCH_STATUS_ABORTED 2

/* ---- searches ------------------------------------------------------------- */

/* Claims one of the 128 search slots for the key and starts the search's
 * thread. Creating a key twice takes two slots; lookups find the first. */
APPMGR_API int hbbCreateNewSearch(int pluginID, int searchID);
/* Stops a running scan, ends the thread and frees the slot. */
APPMGR_API int hbbDestroySearch(int pluginID, int searchID);
/* Stops a running scan (its results are dropped and the browser receives
 * status 2); the query stays. 1 only when the search does not exist. */
APPMGR_API int hbbAbortSearch(int pluginID, int searchID);

/* (Re)dimensions the query: numberOfAndGroups subgroups, or with 0 a
 * request for the programmes of one stream (startTime, count, triplet).
 * A scan in progress is stopped first. */
APPMGR_API int hbbSetSearchQuerySubGroupsNumber(int pluginID, int searchID, int numberOfAndGroups,
                                                int startTime, int count, int onid, int tsid,
                                                int sid);
/* Dimensions subgroup subGroupIndex with queriesNumber comparisons. */
APPMGR_API int hbbSetSearchQueryNumbersInSubgroup(int pluginID, int searchID, int subGroupIndex,
                                                  int queriesNumber);
/* Fills one comparison. value is a malloc'ed text that the call takes over
 * in every case (it is freed when the call fails). */
APPMGR_API int hbbSetQueryInSubgroup(int pluginID, int searchID, int subGroupIndex, int queryIndex,
                                     eQueryFieldType fieldType, eQueryComparisonType comparison,
                                     char* value);
/* Sets the result window (offset, count) and starts a scan; returns at
 * once. The end of the scan reaches the browser as CB_SEARCH_STATUS_EVENT. */
APPMGR_API int hbbStartSearch(int pluginID, int searchID, int offset, int count);
/* Reads the number of results found. Returns 1 in every case, success
 * included: callers must not take the result for an error. */
APPMGR_API int hbbGetResultsOfSearch(int pluginID, int searchID, int offset, int count);

/* Result `index` of the window (window offset + index), or NULL. The record
 * and its texts live in one library-wide buffer that the next item call
 * (of any search) overwrites. */
APPMGR_API ShortProgramme* hbbGetSearchItem(int pluginID, int searchID, int index);
/* The short / extended description of a result ("undefined" when the event
 * has none), or NULL. Same lifetime as hbbGetSearchItem's record. */
APPMGR_API char* hbbGetSearchItemDescriptor(int pluginID, int searchID, int index);
APPMGR_API char* hbbGetSearchItemLongDescriptor(int pluginID, int searchID, int index);

/* Limits the search to numberConstrains channels (replacing an earlier
 * list); each entry is then set with hbbSetChannelConstraint. */
APPMGR_API int hbbSetNumberOfChannelConstraints(int pluginID, int searchID, int numberConstrains);
APPMGR_API int hbbSetChannelConstraint(int pluginID, int searchID, int constraintIndex, int onid,
                                       int tsid, int sid);
/* Drops the channel list; 1 when the search has none. */
APPMGR_API int hbbRemoveChannelConstraints(int pluginID, int searchID);

APPMGR_END_DECLS

#endif /* APP_MGR_SEARCH_H */
