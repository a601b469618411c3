// Names of the ids exchanged with the library, for traces and test output.
// Symbolic names are the system's own; the others are short descriptions of
// what the id carries. This file is the one place that lists them.
#include "browser_standin.h"

#include <cstddef>

namespace appmgr::standin {
namespace {

struct Name {
    int id;
    const char* name;
};

// Commands and callbacks the library sends ("Application" and "Callbacks").
constexpr Name kCommands[] = {
    {24, "user-agent add-on"},
    {25, "accept-language"},
    {26, "cookie setting"},
    {27, "carousel module updated"},
    {48, "CMD_BIND_SERVICE"},
    {49, "CMD_UNBIND_SERVICE"},
    {50, "start application URL"},
    {51, "CMD_DESTROY_APPLICATION"},
    {52, "text"},
    {53, "show application"},
    {54, "hide application"},
    {59, "CMD_SET_APPLICATION_BOUNDARY"},
    {60, "CB_CHANNEL_CHANGED"},
    {61, "channel change error"},
    {62, "parental rating changed"},
    {63, "parental rating error"},
    {64, "CB_PROGRAMME_LIST_CHANGED"},
    {65, "memory low"},
    {66, "stream event"},
    {67, "CB_SEARCH_STATUS_EVENT"},
    {68, "CB_APPLICATION_LOAD_ERROR"},
    {69, "CB_SELECTED_AV_COMPONENT_CHANGED"},
    {76, "CB_APP_TYPE_CHANGED"},
    {77, "CB_SIGNAL_STATUS"},
    {79, "CB_AV_COMPONENT_CHANGED"},
    {81, "display mode"},
    {140, "application start text"},
    {141, "time zone"},
    {160, "browser close"},
    {161, "current EPG update"},
    {170, "CB_DRM_MESSAGE_RESULT"},
    {171, "CB_DRM_SYSTEM_STATUS_CHANGE"},
    {172, "CB_DRM_SYSTEM_MESSAGE"},
    {209, "text"},
    {220, "CMD_HANDLE_KEY_SET"},
    {232, "text"},
    {233, "text"},
    {400, "do-not-track"},
    {402, "page transparency check"},
    {500, "CB_PROGRAMMES_CHANGED"},
};

// Page events the browser reports on "Application" (never answered).
constexpr Name kApplicationRequests[] = {
    {51, "CMD_DESTROY_APPLICATION"},
    {68, "initial page not available"},
    {80, "page partly loaded"},
    {82, "page loaded"},
    {83, "browser state report"},
    {86, "exit key"},
    {87, "CB_SET_APPLICATION_ACTIVATED"},
    {88, "CB_APPLICATION_LOAD_FAILED"},
    {89, "CB_PAGE_PAGE_TRANSPARENT_CHANGE"},
};

// Requests served only on "dtvPlugins".
constexpr Name kDtvRequests[] = {
    {0, "CMD_BIND_CURRENT_CHANNEL"},
    {1, "next channel"},
    {2, "previous channel"},
    {3, "stop broadcast"},
    {4, "release broadcast"},
    {8, "free channel list"},
    {9, "release parental rating schemes"},
    {20, "CMD_SET_CHANNEL"},
    {22, "set full screen"},
    {23, "set video properties"},
    {30, "get current channel"},
    {31, "get channel"},
    {32, "get channel by position"},
    {33, "CMD_GET_CHANNEL_BY_TRIPLET"},
    {34, "get channel by DSD"},
    {35, "get channel list"},
    {41, "get parental rating threshold"},
    {42, "get configuration"},
    {43, "get programme list"},
    {44, "get free memory"},
    {45, "get programme item"},
    {46, "add stream event listener"},
    {47, "remove stream event listener"},
    {50, "CMD_CREATE_APPLICATION"},
    {51, "CMD_DESTROY_APPLICATION"},
    {53, "show application"},
    {54, "hide application"},
    {55, "set key set"},
    {56, "CMD_GET_APPLICATION_TYPE"},
    {57, "CMD_GET_APPLICATION_INFO"},
    {58, "switch to independent application"},
    {70, "has capability"},
    {71, "get decodes"},
    {72, "CMD_GET_XML_CAPABILITIES"},
    {78, "CMD_GET_AIT_TABLE_APPLICATION_TYPE"},
    {90, "CMD_CREATE_SEARCH"},
    {91, "CMD_SET_SEARCH_QUERY"},
    {92, "CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM"},
    {93, "CMD_SET_SEARCH_QUERY_NUM_IN_SUBGROUP"},
    {94, "CMD_SET_SEARCH_QUERY_IN_SUBGROUP"},
    {95, "CMD_GET_RESULTS"},
    {96, "CMD_START_SEARCH"},
    {98, "CMD_ABORT_SEARCH"},
    {99, "CMD_GET_SEARCH_ITEM"},
    {100, "CMD_GET_SEARCH_ITEM_DESC"},
    {101, "CMD_DESTROY_SEARCH"},
    {102, "CMD_GET_SEARCH_ITEM_LONG_DESC"},
    {103, "CMD_GET_SI_DESCRIPTORS_LENGTH"},
    {104, "CMD_GET_SI_DESCRIPTORS_ITEM"},
    {105, "CMD_GET_PROGRAMME_ITEM_LONG_DESC"},
    {106, "CMD_SELECT_DEFAULT_AV_COMPONENT"},
    {107, "CMD_UNSELECT_AV_COMPONENT_BY_TYPE"},
    {108, "CMD_SELECT_AV_VIDEO_COMPONENT"},
    {109, "CMD_UNSELECT_AV_VIDEO_COMPONENT"},
    {110, "CMD_SELECT_AV_AUDIO_COMPONENT"},
    {111, "CMD_UNSELECT_AV_AUDIO_COMPONENT"},
    {112, "CMD_SELECT_AV_SUBTITLE_COMPONENT"},
    {113, "CMD_UNSELECT_AV_SUBTITLE_COMPONENT"},
    {114, "CMD_GET_AV_COMPONENTS_LENGTH"},
    {115, "CMD_GET_VIDEO_COMPONENT_ITEM"},
    {116, "CMD_GET_AUDIO_COMPONENTS_ITEM"},
    {117, "CMD_GET_SUBTITLE_COMPONENTS_ITEM"},
    {118, "CMD_GET_ACTIVE_AV_COMPONENTS_LENGTH"},
    {119, "CMD_GET_ACTIVE_VIDEO_COMPONENT_ITEM"},
    {120, "CMD_GET_ACTIVE_AUDIO_COMPONENTS_ITEM"},
    {121, "CMD_GET_ACTIVE_SUBTITLE_COMPONENTS_ITEM"},
    {122, "CMD_SET_CHANNEL_CONSTRAINTS_NUMBER"},
    {123, "CMD_SET_CHANNEL_CONSTRAINT"},
    {124, "CMD_REMOVE_CHANNEL_CONSTRAINTS"},
    {125, "CMD_GET_CURRENT_TIME"},
    {126, "CMD_OPEN_DTV_DECODER_BY_MASK"},
    {127, "CMD_CLOSE_DTV_DECODER_BY_MASK"},
    {128, "create AV video component"},
    {129, "CMD_CREATE_AV_AUDIO_COMPONENT"},
    {401, "CMD_GET_USER_AGENT"},
};

// Media player, DRM and DASH requests: served on "vodPlugins" and also
// accepted on "dtvPlugins".
constexpr Name kMediaRequests[] = {
    {200, "register player"},
    {201, "unregister player"},
    {203, "init player"},
    {204, "open player"},
    {205, "close player"},
    {206, "set player property"},
    {207, "get player property"},
    {208, "player command"},
    {210, "get player descriptor"},
    {211, "get AV player"},
    {212, "start broadcast video"},
    {213, "stop broadcast video"},
    {230, "send DRM message"},
    {231, "DRM system status"},
    {234, "DRM init"},
    {235, "DRM uninit"},
    {240, "DASH collection length"},
    {241, "DASH AV component item"},
    {242, "DASH select default AV component"},
    {243, "DASH unselect default AV component"},
    {244, "DASH select AV component"},
    {245, "DASH unselect AV component"},
    {300, "media select default AV component"},
    {301, "media unselect AV component by type"},
    {302, "media select video component"},
    {303, "media unselect video component"},
    {304, "media select audio component"},
    {305, "media unselect audio component"},
    {306, "media select subtitle component"},
    {307, "media unselect subtitle component"},
    {308, "media AV components length"},
    {309, "media video component item"},
    {310, "media audio component item"},
    {311, "media subtitle component item"},
    {312, "media active AV components length"},
    {313, "media active video component item"},
    {314, "media active audio component item"},
    {315, "media active subtitle component item"},
};

constexpr Name kDsmccRequests[] = {
    {130, "CMD_DSMCC_GET_ENTRY_TYPE"},
    {131, "get file content"},
    {132, "CMD_DSMCC_GET_DIR_CONTENT"},
    {133, "CMD_DSMCC_GET_STREAM_EVENT_LIST"},
};

constexpr const char* kUnknown = "unknown";

template <std::size_t N>
const char* find(const Name (&table)[N], int id) {
    for (const Name& n : table)
        if (n.id == id) return n.name;
    return nullptr;
}

}  // namespace

const char* connectionName(Connection c) {
    switch (c) {
        case Connection::Application: return "Application";
        case Connection::DtvPlugins: return "dtvPlugins";
        case Connection::VodPlugins: return "vodPlugins";
        case Connection::Callbacks: return "Callbacks";
        case Connection::Dsmcc: return "DSMCC";
    }
    return kUnknown;
}

const char* socketFileName(Connection c) {
    switch (c) {
        case Connection::Application: return "UNIX_APP.domain";
        case Connection::DtvPlugins: return "UNIX_H_PLUIN.domain";
        case Connection::VodPlugins: return "UNIX_C_PLUIN.domain";
        case Connection::Callbacks: return "UNIX_CB.domain";
        case Connection::Dsmcc: return "UNIX_DSMCC.domain";
    }
    return "";
}

const char* commandName(int id) {
    const char* n = find(kCommands, id);
    return n ? n : kUnknown;
}

const char* requestName(Connection c, int id) {
    const char* n = nullptr;
    switch (c) {
        case Connection::Application: n = find(kApplicationRequests, id); break;
        case Connection::DtvPlugins:
            n = find(kDtvRequests, id);
            if (!n) n = find(kMediaRequests, id);
            break;
        case Connection::VodPlugins: n = find(kMediaRequests, id); break;
        case Connection::Dsmcc: n = find(kDsmccRequests, id); break;
        case Connection::Callbacks: break;  // the library accepts nothing here
    }
    return n ? n : kUnknown;
}

}  // namespace appmgr::standin
