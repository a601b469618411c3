/* Records and enumerations shared between libapp-mgr, the TV middleware and
 * the browser bridge. Everything here has a fixed C layout. */
#ifndef APP_MGR_TYPES_H
#define APP_MGR_TYPES_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "app_mgr_export.h"

APPMGR_BEGIN_DECLS

/* ---- library state ------------------------------------------------------ */

typedef enum {
    APP_MANAGER_DEINITIALIZED = 0,
    APP_MANAGER_SUSPENDED = 1,
    APP_MANAGER_INITIALIZING = 2,
    APP_MANAGER_INITIALIZED = 3
} AppMgrState;

typedef enum {
    VBOS_UNREALIZED = 0,
    VBOS_CONNECTING = 1,
    VBOS_PRESENTING = 2,
    VBOS_STOPPED = 3
} VideoBroadcastState;

/* Result type of the messaging layer. RET_DONT_EXIST shares its value with
 * RET_OK on purpose. */
typedef enum {
    RET_ERROR = -1,
    RET_OK = 0,
    RET_EXIST = 1,
    RET_DONT_EXIST = 0
} ErrorType_t;

typedef enum { eFalse = 0, eTrue = 1 } eBool;

/* ---- socket transport --------------------------------------------------- */

typedef enum {
    MESSENGER_TYPE_NONE = 0,
    MESSENGER_TYPE_SERVER = 1,
    MESSENGER_TYPE_CLIENT = 2
} MessengerType_t;

typedef enum {
    MESSENGER_STATE_STOPPED = 0,
    MESSENGER_STATE_STARTED = 1,
    MESSENGER_STATE_INIT = 2,
    MESSENGER_STATE_STOPPING = 3
} MessengerState_t;

/* Receive callback: called with the Messenger_t itself, the received block
 * and its length. A non-zero result ends the receiving thread. */
typedef int (*data_recived_clb)(void* data, char* buff, int len);

typedef struct Messenger_t {
    MessengerType_t msg_type;
    char name[16];
    MessengerState_t state;
    int msg_port;
    int s_msg_connection;
    data_recived_clb cb_func;
    pthread_t t_msg_dispatcher;
    sem_t sem_send;
    pthread_mutex_t close_mutex;
    void* priv;
} Messenger_t;

/* ---- message connections ----------------------------------------------- */

typedef enum {
    MNG_CONNECTION_TYPE_APP = 0,
    MNG_CONNECTION_TYPE_H_PUGINS = 1,
    MNG_CONNECTION_TYPE_C_PUGINS = 2,
    MNG_CONNECTION_TYPE_CALLBACK = 3,
    MNG_CONNECTION_TYPE_DSMCC = 4,
    MNG_CONNECTION_TYPE_SIZE = 5
} Mng_ConnectionType_t;

struct GlobalData_t;

typedef struct Mng_Connection_t {
    Mng_ConnectionType_t mng_type;
    Messenger_t messenger;
    struct GlobalData_t* data;
} Mng_Connection_t;

typedef struct GlobalData_t {
    int widget_number;
    int active_widget;
    int init_mm_lib;
    Mng_Connection_t mng_connection[MNG_CONNECTION_TYPE_SIZE];
    int toolbar_active;
} GlobalData_t;

/* ---- applications and AITs --------------------------------------------- */

typedef enum {
    AUTOSTART = 1,
    PRESENT = 2,
    KILL = 4,
    DISABLED = 7
} ControlCode;

typedef enum {
    INVALID_APPLICATION_TYPE = -1,
    BROADCAST_RELATED = 0,
    BROADCAST_INDEPENDENT = 1
} ApplicationType;

typedef enum {
    HBBTV_APPLICATION_TYPE = 16,
    DTG_CTV_APPLICATION_TYPE = 18
} AitTableApplicationType;

typedef enum {
    REQUESTED_BY_RELATED_TYPE = 0,
    REQUESTED_BY_INDEPENDENT_TYPE = 1,
    NOT_REQUESTED = 2
} TunningRequestType;

typedef enum {
    NOT_VISIBLE_ALL = 0,
    NOT_VISIBLE_USERS = 1,
    VISIBLE_ALL = 3
} ApplicationVisibility;

typedef enum {
    NETWORK_OFF = 0,
    NETWORK_ON = 1,
    NETWORK_CHECKING = 2
} NetworkStatus;

typedef enum {
    eLaunchFormBroadcastApp = 0,
    eLaunchFormHomePage = 1,
    eLaunchFormPlayerPage = 2,
    eLaunchFormEpg = 3,
    eLaunchFormMiniguide = 4,
    eLaunchFormSearch = 5,
    eLaunchFormRecommendations = 6,
    eLaunchFormBrowse = 7,
    eLaunchFormSpeech = 8,
    eLaunchFormOther = 9
} eLaunchType;

typedef struct transport_protocol_descriptor {
    int protocol_id;
    int transport_protocol_label;
    int remote_connection;
    int original_network_id;
    int transport_stream_id;
    int service_id;
    int component_tag;
    char* url;
} transport_protocol_descriptor;

typedef struct parental_rating {
    char country[4];
    int rating;
} parental_rating;

typedef struct parental_rating_descriptor {
    parental_rating* parental;
    int count;
} parental_rating_descriptor;

typedef struct Application {
    int organisation_id;
    int app_id;
    ControlCode control_code;
    int app_profile;
    int version_major;
    int version_minor;
    int version_micro;
    int is_service_bound;
    int visibility;
    int app_priority;
    int app_usage_type;
    char* app_name;
    char* app_boundary;
    char* app_type;
    transport_protocol_descriptor* transport_protocol;
    parental_rating_descriptor app_parental;
    int is_IP_connect_require;
} Application;

typedef struct AitTable {
    int is_test_app;
    int app_type;
    int version;
    int app_lenght;
    char dvb_url[256];
    Application* apps;
    int CRC_count;
    char* CRC;
} AitTable;

typedef struct ApplicationInfo {
    int orgid;
    int appid;
} ApplicationInfo;

typedef struct URIInfo {
    int type;
    int org_id;
    int app_id;
    char* URIptr;
} URIInfo;

/* Key groups an application receives (OIPF KeySet bits, 0 to 0x7FF). */
typedef struct KeySet {
    int value;
    int maximumValue;
} KeySet;

/* One entry of the remote-control key map: a key number and the command
 * line (newline included) sent to the remote-input service. */
typedef struct KeyCode {
    uint16_t key;
    const char* rccode;
} KeyCode;

/* URL classes of check_url_type. */
typedef enum {
    UNKNOWN_URL_TYPE = 0,
    HTTP_URL = 1,
    DVB_URL = 2,
    DVB_CURRENT_URL = 3,
    XML_AIT_FILE = 4,
    FILE_URL = 5,
    XML_FILE_URL = 6
} UrlType;

/* Result of parseURI. */
typedef enum { URI_VALID = 0, URI_NOT_VALID = 1 } URIParseResult;

/* ---- broadcast objects -------------------------------------------------- */

typedef enum {
    CHANNEL_TYPE_TV = 0,
    CHANNEL_TYPE_RADIO = 1,
    CHANNEL_TYPE_OTHER = 2
} ChannelType;

typedef enum {
    CCE_CHANNEL_NOT_SUPPORTED = 0,
    CCE_NO_SIGNAL = 1,
    CCE_TUNER_IN_USE = 2,
    CCE_PARENTAL_RATING_LOCK = 3,
    CCE_ENCRYPTION_KEY_MISSING = 4,
    CCE_UNKNOWN_CHANNEL = 5,
    CCE_NEW_CHANNEL_SWITCH_REQUEST = 6,
    CCE_RECORDING_IN_PROGRESS = 7,
    CCE_INVALID_URI = 8,
    CCE_INSUFFICIENT_BANDWIDTH = 9,
    CCE_NO_CHANNEL_LIST = 10,
    CCE_INSUFFICIENT_RESOURCES = 11,
    CCE_CHANNEL_NOT_FOUND = 12,
    CCE_UNDEFINED = 100
} ChannelChangeError;

typedef struct Channel {
    ChannelType type;
    char* ccid;
    int onid;
    int tsid;
    int sid;
    char* name;
    char* dsd;
    int idType;
    int nid;
    int TerminalChannel;
    int MajorChannel;
} Channel;

typedef struct ChannelList {
    int length;
} ChannelList;

typedef struct ErrorChannel {
    ChannelChangeError errorState;
    Channel* channel;
} ErrorChannel;

/* ---- the running application as the browser side sees it --------------- */

typedef struct ApplicationPrivateData {
    KeySet keyset;
    Channel* currentChannel;
} ApplicationPrivateData;

typedef struct hbbApplication {
    ApplicationPrivateData* privateData;
    char* url;
} hbbApplication;

/* The middleware's start and stop callbacks (application_manager_register). */
typedef int (*application_mngr_callback)(void);
typedef signed char fpi_bool;

typedef struct application_mngr_callback_item_t {
    application_mngr_callback hbbtv_start_app_callback;
    application_mngr_callback hbbtv_stop_app_callback;
    fpi_bool enable_flag;
} application_mngr_callback_item_t;

/* ---- callback payloads sent to the browser ----------------------------- */

typedef struct ParentalRatingCallbackData {
    int length;
    int blocked;
} ParentalRatingCallbackData;

typedef struct StreamEvent {
    char* name;
    char* data;
    char* text;
    char* status;
} StreamEvent;

typedef struct StreamEventCallbackData {
    char* location;
    StreamEvent* event_data;
} StreamEventCallbackData;

typedef struct SearchEvent {
    int searchID;
    int searchStatus;
    int eventsFound;
    int searchOffset;
    int searchResult;
} SearchEvent;

typedef struct DRMMessageResultCallbackData {
    int msgID;
    char* resultMsg;
    int resultCode;
} DRMMessageResultCallbackData;

typedef struct DRMSystemMessageCallbackData {
    char* msg;
    char* drmSystemID;
} DRMSystemMessageCallbackData;

APPMGR_END_DECLS

#endif /* APP_MGR_TYPES_H */
