// Requests of the browser's metadata-search object and the SI-descriptor
// requests on "dtvPlugins" (ids 90 to 105 and 122 to 125; 97 is not served).
//
// Declared in tools/requests.h:
//   extern const RequestTable kSearchRequests;
//
// Every handler logs "Command <name> received", reads its fields in order
// (integers with atoi semantics), logs them, calls the search function and
// replies on the request's connection. Searches may wait for a search
// thread (an abort waits for the scan to stop), so they run without the
// manager lock.
#include <cstdlib>
#include <cstring>
#include <string>

#include "broadcast/broadcast.h"
#include "common/log.h"
#include "epg/epg.h"
#include "hbb_platform.h"
#include "tools/requests.h"

namespace appmgr::msg {

namespace {

// Text fields of the SI-descriptor requests.
constexpr std::size_t kChannelIdLength = 16;
constexpr std::size_t kEventIdLength = 32;

void create_search(Request& r) {
    AM_INFO("Command CMD_CREATE_SEARCH received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    AM_INFO("Command CMD_CREATE_SEARCH received, pluginID: %d, searchID: %d", pluginID, searchID);
    r.reply_int(hbbCreateNewSearch(pluginID, searchID));
}

// The whole-query form of the request is not offered over this interface.
void set_search_query(Request& r) {
    AM_INFO("Command CMD_SET_SEARCH_QUERY is not supported in RPC configuration !!!");
    r.reply_int(-1);
}

void set_subgroups_number(Request& r) {
    AM_INFO("Command CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int numberOfAndGroups = r.integer();
    const int startTime = r.integer();
    const int count = r.integer();
    const int onid = r.integer();
    const int tsid = r.integer();
    const int sid = r.integer();
    AM_INFO("Command CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM received, pluginID: %d, searchID: %d, "
            "numberOfAndGroups: %d",
            pluginID, searchID, numberOfAndGroups);
    AM_INFO("Command CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM received, startTime: %d, count: %d, "
            "onid: %d, tsid: %d, sid: %d",
            startTime, count, onid, tsid, sid);
    r.reply_int(hbbSetSearchQuerySubGroupsNumber(pluginID, searchID, numberOfAndGroups, startTime,
                                                 count, onid, tsid, sid));
}

// Logs under the name of request 92, as the browser-side tools expect.
void set_queries_number(Request& r) {
    AM_INFO("Command CMD_SET_SEARCH_QUERY_NUM_IN_SUBGROUP received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int subGroupIndex = r.integer();
    const int queriesNumber = r.integer();
    AM_INFO("Command CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM received, pluginID: %d, searchID: %d, "
            "subGroupIndex: %d, queriesNumber: %d",
            pluginID, searchID, subGroupIndex, queriesNumber);
    r.reply_int(hbbSetSearchQueryNumbersInSubgroup(pluginID, searchID, subGroupIndex,
                                                   queriesNumber));
}

void set_query(Request& r) {
    AM_INFO("Command CMD_SET_SEARCH_QUERY_IN_SUBGROUP received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int subGroupIndex = r.integer();
    const int queryIndex = r.integer();
    const int fieldType = r.integer();
    const int comparison = r.integer();
    const std::string value = r.text();
    AM_INFO("Command CMD_SET_SEARCH_QUERY_IN_SUBGROUP received, pluginID: %d, searchID: %d, "
            "subGroupIndex: %d, queryIndex: %d",
            pluginID, searchID, subGroupIndex, queryIndex);
    AM_INFO("Command CMD_SET_SEARCH_QUERY_IN_SUBGROUP received, fieldType: %d, comparison: %d, "
            "value: %s",
            fieldType, comparison, value.c_str());
    // The query takes the copy over (and frees it if the call fails). An
    // out-of-range field or comparison is passed on as it came: the search
    // refuses to evaluate it.
    char* owned = strdup(value.c_str());
    r.reply_int(epg::set_query_in_subgroup(pluginID, searchID, subGroupIndex, queryIndex,
                                           fieldType, comparison, owned));
}

void get_results(Request& r) {
    AM_INFO("Command CMD_GET_RESULTS received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int offset = r.integer();
    const int count = r.integer();
    AM_INFO("Command CMD_GET_RESULTS received, pluginID: %d, searchID: %d, offset: %d, count: %d",
            pluginID, searchID, offset, count);
    r.reply_int(hbbGetResultsOfSearch(pluginID, searchID, offset, count));
}

void start_search(Request& r) {
    AM_INFO("Command CMD_START_SEARCH received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int offset = r.integer();
    const int count = r.integer();
    AM_INFO("Command CMD_START_SEARCH received, pluginID: %d, searchID: %d, offset: %d, count: %d",
            pluginID, searchID, offset, count);
    r.reply_int(hbbStartSearch(pluginID, searchID, offset, count));
}

void abort_search(Request& r) {
    AM_INFO("Command CMD_ABORT_SEARCH received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    AM_INFO("Command CMD_ABORT_SEARCH received, pluginID: %d, searchID: %d", pluginID, searchID);
    r.reply_int(hbbAbortSearch(pluginID, searchID));
}

// Reply: name, programmeID, programmeIDType, startTime, duration, channelID,
// each followed by "|". Search results carry no parental rating.
void get_search_item(Request& r) {
    AM_INFO("Command CMD_GET_SEARCH_ITEM received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int index = r.integer();
    AM_INFO("Command CMD_GET_SEARCH_ITEM received, pluginID: %d, searchID: %d, index %d",
            pluginID, searchID, index);
    const ShortProgramme* item = hbbGetSearchItem(pluginID, searchID, index);
    if (item == nullptr) {
        r.not_available("Information about search item not available!");
        return;
    }
    protocol::Fields fields;
    fields.add(item->name)
        .add(item->programmeID)
        .add(item->programmeIDType)
        .add(item->startTime)
        .add(item->duration)
        .add(item->channelID);
    r.reply(fields);
}

// Reply: the text followed by "|", or "NOT_AVAILABLE|".
void reply_text(Request& r, const char* text, const char* missing_log_line) {
    if (text == nullptr) {
        r.not_available(missing_log_line);
        return;
    }
    protocol::Fields fields;
    fields.add(text);
    r.reply(fields);
}

void get_search_item_description(Request& r) {
    AM_INFO("Command CMD_GET_SEARCH_ITEM_DESC received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int index = r.integer();
    AM_INFO("Command CMD_GET_SEARCH_ITEM_DESC received, pluginID: %d, searchID: %d, index: %d",
            pluginID, searchID, index);
    reply_text(r, hbbGetSearchItemDescriptor(pluginID, searchID, index),
               "Information about search item descriptor not available!");
}

void destroy_search(Request& r) {
    AM_INFO("Command CMD_DESTROY_SEARCH received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    AM_INFO("Command CMD_DESTROY_SEARCH received, pluginID: %d, searchID: %d", pluginID,
            searchID);
    r.reply_int(hbbDestroySearch(pluginID, searchID));
}

void get_search_item_long_description(Request& r) {
    AM_INFO("Command CMD_GET_SEARCH_ITEM_LONG_DESC received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int index = r.integer();
    AM_INFO("Command CMD_GET_SEARCH_ITEM_LONG_DESC received, pluginID: %d, searchID: %d, "
            "index: %d",
            pluginID, searchID, index);
    reply_text(r, hbbGetSearchItemLongDescriptor(pluginID, searchID, index),
               "Information about search item long descriptor not available!");
}

// Requests 103 to 105 are served by the programme object of the broadcast
// bridge. The texts it returns stay the middleware's and are not freed.
void get_si_descriptors_length(Request& r) {
    AM_INFO("Command CMD_GET_SI_DESCRIPTORS_LENGTH received");
    const std::string channelID = r.text(kChannelIdLength);
    const std::string eventID = r.text(kEventIdLength);
    const int tag = r.integer();
    const int tagExtension = r.integer();
    const int privateDataSpecifier = r.integer();
    AM_INFO("Command CMD_GET_SI_DESCRIPTORS_LENGTH received, channelID: %s, eventID: %s, "
            "descriptorTag: %d, descriptorTagExtension: %d, privateDataSpecifier: %d",
            channelID.c_str(), eventID.c_str(), tag, tagExtension, privateDataSpecifier);
    r.reply_int(programme_get_si_descriptors_length(channelID.c_str(), eventID.c_str(), tag,
                                                    tagExtension, privateDataSpecifier));
}

void get_si_descriptors_item(Request& r) {
    AM_INFO("Command CMD_GET_SI_DESCRIPTORS_ITEM received");
    const std::string channelID = r.text(kChannelIdLength);
    const std::string eventID = r.text(kEventIdLength);
    const int tag = r.integer();
    const int tagExtension = r.integer();
    const int index = r.integer();
    AM_INFO("Command CMD_GET_SI_DESCRIPTORS_ITEM received, channelID: %s, eventID: %s, "
            "descriptorTag: %d, descriptorTagExtension: %d, index: %d",
            channelID.c_str(), eventID.c_str(), tag, tagExtension, index);
    reply_text(r,
               programme_get_si_descriptors_item(channelID.c_str(), eventID.c_str(), tag,
                                                 tagExtension, index),
               "Information about SI descriptor not available!");
}

void get_programme_long_description(Request& r) {
    AM_INFO("Command CMD_GET_PROGRAMME_ITEM_LONG_DESC received");
    const std::string channelID = r.text(kChannelIdLength);
    const std::string eventID = r.text(kEventIdLength);
    AM_INFO("Command CMD_GET_PROGRAMME_ITEM_LONG_DESC received, channelID: %s, eventID: %s",
            channelID.c_str(), eventID.c_str());
    reply_text(r, programme_get_long_description(channelID.c_str(), eventID.c_str()),
               "Information about long descriptor not available!");
}

void set_constraints_number(Request& r) {
    AM_INFO("Command CMD_SET_CHANNEL_CONSTRAINTS_NUMBER received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int numberConstrains = r.integer();
    AM_INFO("Command CMD_SET_CHANNEL_CONSTRAINTS_NUMBER received, pluginID: %d, searchID: %d, "
            "numberConstrains: %d",
            pluginID, searchID, numberConstrains);
    r.reply_int(hbbSetNumberOfChannelConstraints(pluginID, searchID, numberConstrains));
}

void set_constraint(Request& r) {
    AM_INFO("Command CMD_SET_CHANNEL_CONSTRAINT received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    const int constraintIndex = r.integer();
    const int onid = r.integer();
    const int tsid = r.integer();
    const int sid = r.integer();
    AM_INFO("Command CMD_SET_CHANNEL_CONSTRAINT received, pluginID: %d, searchID: %d, "
            "constraintIndex: %d, onid: %d, tsid: %d, sid: %d",
            pluginID, searchID, constraintIndex, onid, tsid, sid);
    r.reply_int(hbbSetChannelConstraint(pluginID, searchID, constraintIndex, onid, tsid, sid));
}

void remove_constraints(Request& r) {
    AM_INFO("Command CMD_REMOVE_CHANNEL_CONSTRAINTS received");
    const int pluginID = r.integer();
    const int searchID = r.integer();
    AM_INFO("Command CMD_REMOVE_CHANNEL_CONSTRAINTS received, pluginID: %d, searchID: %d",
            pluginID, searchID);
    r.reply_int(hbbRemoveChannelConstraints(pluginID, searchID));
}

void get_current_time(Request& r) {
    AM_INFO("Command CMD_GET_CURRENT_TIME received");
    const int now = hbbGetCurrentTime();
    AM_INFO("Command CMD_GET_CURRENT_TIME : %d", now);
    r.reply_int(now);
}

constexpr RequestRow kRows[] = {
    {90, "CMD_CREATE_SEARCH", Lock::None, create_search},
    {91, "CMD_SET_SEARCH_QUERY", Lock::None, set_search_query},
    {92, "CMD_SET_SEARCH_QUERY_SUBGROUPS_NUM", Lock::None, set_subgroups_number},
    {93, "CMD_SET_SEARCH_QUERY_NUM_IN_SUBGROUP", Lock::None, set_queries_number},
    {94, "CMD_SET_SEARCH_QUERY_IN_SUBGROUP", Lock::None, set_query},
    {95, "CMD_GET_RESULTS", Lock::None, get_results},
    {96, "CMD_START_SEARCH", Lock::None, start_search},
    {98, "CMD_ABORT_SEARCH", Lock::None, abort_search},
    {99, "CMD_GET_SEARCH_ITEM", Lock::None, get_search_item},
    {100, "CMD_GET_SEARCH_ITEM_DESC", Lock::None, get_search_item_description},
    {101, "CMD_DESTROY_SEARCH", Lock::None, destroy_search},
    {102, "CMD_GET_SEARCH_ITEM_LONG_DESC", Lock::None, get_search_item_long_description},
    {103, "CMD_GET_SI_DESCRIPTORS_LENGTH", Lock::None, get_si_descriptors_length},
    {104, "CMD_GET_SI_DESCRIPTORS_ITEM", Lock::None, get_si_descriptors_item},
    {105, "CMD_GET_PROGRAMME_ITEM_LONG_DESC", Lock::None, get_programme_long_description},
    {122, "CMD_SET_CHANNEL_CONSTRAINTS_NUMBER", Lock::None, set_constraints_number},
    {123, "CMD_SET_CHANNEL_CONSTRAINT", Lock::None, set_constraint},
    {124, "CMD_REMOVE_CHANNEL_CONSTRAINTS", Lock::None, remove_constraints},
    {125, "CMD_GET_CURRENT_TIME", Lock::None, get_current_time},
};

}  // namespace

const RequestTable kSearchRequests{kRows};

}  // namespace appmgr::msg
