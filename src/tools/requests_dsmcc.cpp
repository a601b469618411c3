// Carousel requests of the browser on the "DSMCC" connection. Each carries
// one field, the carousel URI (at most 1024 characters; a longer one is
// answered as a missing object rather than cut, since a cut URI may name
// another object).
//
// Replies, each followed by a zero byte like every reply:
//   130: "type|moduleId|0|"
//   131-133: the header "type|0|length|" immediately followed by `length`
//            payload bytes (binary for files, zero bytes included), then the
//            terminating zero byte, which the length does not count;
//            "NOT_AVAILABLE|" when the object is missing.
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "common/log.h"
#include "dsmcc/dsmcc.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

constexpr std::size_t kMaxUriLength = 1024;

// Takes the URI field into uri (kMaxUriLength + 2 bytes, so that an overlong
// field shows as longer than the limit). False when it is too long.
bool take_uri(Request& request, std::string* uri) {
    *uri = request.text(kMaxUriLength + 1);
    AM_INFO("Parsed DVB uri: %s", uri->c_str());
    if (uri->size() > kMaxUriLength) {
        AM_ERROR("DSMCC uri longer than %zu characters refused", kMaxUriLength);
        return false;
    }
    return true;
}

void get_entry_type(Request& request) {
    AM_INFO("Command CMD_DSMCC_GET_ENTRY_TYPE received");
    std::string uri;
    int type = eHBBTV_FS_ENTRY_INVALID_TYPE;
    int module_id = 0;
    if (take_uri(request, &uri)) type = hbbCheckDSMCCEntryType(uri.c_str(), &module_id);
    request.reply(protocol::Fields().add(type).add(module_id).add(0));
}

void reply_content(Request& request, const char* command,
                   HbbFileSystemEntryDescriptor* (*handler)(const char*)) {
    AM_INFO("Command %s received", command);
    std::string uri;
    HbbFileSystemEntryDescriptor* entry = take_uri(request, &uri) ? handler(uri.c_str()) : nullptr;
    if (entry == nullptr || entry->entryPayloadLen < 0 ||
        (entry->entryPayload == nullptr && entry->entryPayloadLen != 0)) {
        hbbReleaseDsmccEntryDescriptor(entry);
        request.reply("NOT_AVAILABLE|");
        return;
    }
    char header[48];
    const int header_length = std::snprintf(header, sizeof(header), "%d|0|%d|",
                                            static_cast<int>(entry->entryType),
                                            entry->entryPayloadLen);
    const std::size_t payload_length = static_cast<std::size_t>(entry->entryPayloadLen);
    std::vector<char> reply;
    try {
        reply.reserve(static_cast<std::size_t>(header_length) + payload_length + 1);
    } catch (const std::bad_alloc&) {
        AM_ERROR("out of memory for a DSMCC reply of %zu bytes", payload_length);
        hbbReleaseDsmccEntryDescriptor(entry);
        request.reply("NOT_AVAILABLE|");
        return;
    }
    reply.insert(reply.end(), header, header + header_length);
    if (payload_length != 0)
        reply.insert(reply.end(), entry->entryPayload, entry->entryPayload + payload_length);
    reply.push_back('\0');
    hbbReleaseDsmccEntryDescriptor(entry);
    request.reply_raw(reply.data(), reply.size());
}

void get_file_content(Request& request) {
    reply_content(request, "CMD_DSMCC_GET_FILE_CONTENT", hbbGetDsmccFileContent);
}

void get_dir_content(Request& request) {
    reply_content(request, "CMD_DSMCC_GET_DIR_CONTENT", hbbGetDsmccDirContent);
}

void get_stream_event_list(Request& request) {
    reply_content(request, "CMD_DSMCC_GET_STREAM_EVENT_LIST", hbbGetDsmccStreamEventList);
}

constexpr RequestRow kRows[] = {
    {130, "CMD_DSMCC_GET_ENTRY_TYPE", Lock::None, get_entry_type},
    {131, "file content", Lock::None, get_file_content},
    {132, "CMD_DSMCC_GET_DIR_CONTENT", Lock::None, get_dir_content},
    {133, "CMD_DSMCC_GET_STREAM_EVENT_LIST", Lock::None, get_stream_event_list},
};

}  // namespace

const RequestTable kDsmccRequests{kRows};

}  // namespace appmgr::msg
