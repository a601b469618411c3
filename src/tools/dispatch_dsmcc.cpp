// Carousel requests of the browser on the "DSMCC" connection (ids 130 to
// 133). Each carries one field, the carousel URI (at most 1024 characters;
// a longer one is answered as a missing object rather than cut, since a cut
// URI may name another object).
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

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "hbbtv_externals/hbbtvDSMCCExternals.h"
#include "tools/tools_msg_internal.h"

namespace appmgr::msg {

namespace {

constexpr int kCmdGetEntryType = 130;
constexpr int kCmdGetFileContent = 131;
constexpr int kCmdGetDirContent = 132;
constexpr int kCmdGetStreamEventList = 133;

constexpr std::size_t kMaxUriLength = 1024;

// Takes the URI field into uri (kMaxUriLength + 2 bytes, so that an overlong
// field shows as longer than the limit). False when it is too long.
bool take_uri(char* rest, char (&uri)[kMaxUriLength + 2]) {
    next_field(rest, uri);
    AM_INFO("Parsed DVB uri: %s", uri);
    if (std::strlen(uri) > kMaxUriLength) {
        AM_ERROR("DSMCC uri longer than %zu characters refused", kMaxUriLength);
        return false;
    }
    return true;
}

// Sends bytes that may contain zero bytes, exactly as given.
ErrorType_t send_raw(const char* bytes, std::size_t length) {
    return tools_msg_send_msg(&gData, MNG_CONNECTION_TYPE_DSMCC, const_cast<char*>(bytes),
                              static_cast<unsigned int>(length));
}

void reply_entry_type(char* rest) {
    AM_INFO("Command CMD_DSMCC_GET_ENTRY_TYPE received");
    char uri[kMaxUriLength + 2];
    int type = eHBBTV_FS_ENTRY_INVALID_TYPE;
    int module_id = 0;
    if (take_uri(rest, uri)) type = hbbCheckDSMCCEntryType(uri, &module_id);
    char reply[48];
    std::snprintf(reply, sizeof(reply), "%d|%d|0|", type, module_id);
    send_reply(MNG_CONNECTION_TYPE_DSMCC, reply);
}

void reply_content(const char* command, char* rest,
                   HbbFileSystemEntryDescriptor* (*handler)(const char*)) {
    AM_INFO("Command %s received", command);
    char uri[kMaxUriLength + 2];
    HbbFileSystemEntryDescriptor* entry = take_uri(rest, uri) ? handler(uri) : nullptr;
    if (entry == nullptr || entry->entryPayloadLen < 0 ||
        (entry->entryPayload == nullptr && entry->entryPayloadLen != 0)) {
        hbbReleaseDsmccEntryDescriptor(entry);
        send_reply(MNG_CONNECTION_TYPE_DSMCC, "NOT_AVAILABLE|");
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
        send_reply(MNG_CONNECTION_TYPE_DSMCC, "NOT_AVAILABLE|");
        return;
    }
    reply.insert(reply.end(), header, header + header_length);
    if (payload_length != 0)
        reply.insert(reply.end(), entry->entryPayload, entry->entryPayload + payload_length);
    reply.push_back('\0');
    hbbReleaseDsmccEntryDescriptor(entry);
    if (send_raw(reply.data(), reply.size()) != RET_OK)
        AM_ERROR("DSMCC reply of %zu bytes not sent", reply.size());
}

}  // namespace

void dispatch_dsmcc(int id, char* rest) {
    switch (id) {
        case kCmdGetEntryType: reply_entry_type(rest); return;
        case kCmdGetFileContent:
            reply_content("CMD_DSMCC_GET_FILE_CONTENT", rest, hbbGetDsmccFileContent);
            return;
        case kCmdGetDirContent:
            reply_content("CMD_DSMCC_GET_DIR_CONTENT", rest, hbbGetDsmccDirContent);
            return;
        case kCmdGetStreamEventList:
            reply_content("CMD_DSMCC_GET_STREAM_EVENT_LIST", rest, hbbGetDsmccStreamEventList);
            return;
        default: AM_INFO(" Unknown message, id is not supported!"); return;
    }
}

}  // namespace appmgr::msg
