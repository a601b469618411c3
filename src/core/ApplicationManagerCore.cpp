// Commands and callbacks the library sends to the browser on its own
// initiative. One message per call, framed as "%3d" body length followed by
// "id|field|...|", sent on the "Application" or "Callbacks" connection.
#include <pthread.h>

#include <cstdio>
#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"

extern "C" {
APPMGR_API pthread_mutex_t sendmsg_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

// How send_command reads its void* parameter for an id.
enum class Param {
    None,            // no field
    Text,            // zero-terminated text; null is sent as "(null)"
    IntAt,           // pointer to an int
    IntValue,        // the integer carried in the pointer value itself
    ChannelRecord,   // Channel*
    ErrorChannelRecord,
    ParentalRating,  // ParentalRatingCallbackData*
    StreamEventRecord,
    SearchEventRecord,
    DrmMessageResult,
    DrmSystemMessage,
};

struct CommandSpec {
    int id;
    const char* name;  // symbolic name for the "Sending message:" log, or null
    Mng_ConnectionType_t connection;
    Param param;
    bool result_ignored;  // reports success even when no browser listens
};

constexpr Mng_ConnectionType_t kApp = MNG_CONNECTION_TYPE_APP;
constexpr Mng_ConnectionType_t kCb = MNG_CONNECTION_TYPE_CALLBACK;

constexpr CommandSpec kCommands[] = {
    {24, nullptr, kApp, Param::Text, false},
    {25, nullptr, kApp, Param::Text, false},
    {26, nullptr, kApp, Param::Text, false},
    {27, nullptr, kApp, Param::IntAt, false},
    {48, "CMD_BIND_SERVICE", kApp, Param::None, false},
    {49, "CMD_UNBIND_SERVICE", kApp, Param::None, false},
    {50, nullptr, kApp, Param::Text, false},
    {51, nullptr, kApp, Param::None, false},
    {52, nullptr, kApp, Param::Text, false},
    {53, nullptr, kApp, Param::Text, false},
    {54, nullptr, kApp, Param::Text, false},
    {59, "CMD_SET_APPLICATION_BOUNDARY", kApp, Param::Text, true},
    {60, nullptr, kCb, Param::ChannelRecord, false},
    {61, nullptr, kCb, Param::ErrorChannelRecord, false},
    {62, nullptr, kCb, Param::ParentalRating, false},
    {63, nullptr, kCb, Param::IntAt, false},
    {64, "CB_PROGRAMME_LIST_CHANGED", kCb, Param::None, true},
    {65, nullptr, kCb, Param::None, false},
    {66, nullptr, kCb, Param::StreamEventRecord, false},
    {67, "CB_SEARCH_STATUS_EVENT", kCb, Param::SearchEventRecord, true},
    {68, "CB_APPLICATION_LOAD_ERROR", kCb, Param::None, false},
    {69, "CB_SELECTED_AV_COMPONENT_CHANGED", kCb, Param::IntValue, false},
    {76, nullptr, kCb, Param::IntAt, true},
    {77, "CB_SIGNAL_STATUS", kCb, Param::IntAt, true},
    {79, "CB_AV_COMPONENT_CHANGED", kCb, Param::IntValue, false},
    {81, nullptr, kApp, Param::IntAt, false},
    {140, nullptr, kApp, Param::Text, false},
    {141, nullptr, kApp, Param::Text, false},
    {160, nullptr, kApp, Param::None, false},
    {161, nullptr, kCb, Param::None, false},
    {170, "CB_DRM_MESSAGE_RESULT", kCb, Param::DrmMessageResult, false},
    {171, "CB_DRM_SYSTEM_STATUS_CHANGE", kCb, Param::IntAt, false},
    {172, "CB_DRM_SYSTEM_MESSAGE", kCb, Param::DrmSystemMessage, false},
    {209, nullptr, kCb, Param::Text, false},
    {220, "CMD_HANDLE_KEY_SET", kApp, Param::IntAt, false},
    {232, nullptr, kCb, Param::Text, false},
    {233, nullptr, kCb, Param::Text, false},
    {400, nullptr, kApp, Param::Text, false},
    {402, nullptr, kApp, Param::Text, false},
    {500, "CB_PROGRAMMES_CHANGED", kCb, Param::None, false},
};

const CommandSpec* find_command(int id) {
    for (const auto& c : kCommands)
        if (c.id == id) return &c;
    return nullptr;
}

// The body and frame buffers of the wire protocol are 4096 bytes: a frame
// (length prefix and body) must leave room for the terminator.
constexpr std::size_t kFrameBufferSize = 4096;

class Body {
public:
    explicit Body(int id) { add(id); }
    void add(int v) { text_ += std::to_string(v) + "|"; }
    void add(const char* s) {
        text_ += s != nullptr ? s : "(null)";
        text_ += "|";
    }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

void add_channel(Body& b, const Channel* c) {
    b.add(static_cast<int>(c->type));
    b.add(c->ccid);
    b.add(c->onid);
    b.add(c->nid);
    b.add(c->tsid);
    b.add(c->sid);
    b.add(c->name);
    b.add(c->dsd);
    b.add(c->TerminalChannel);
    b.add(c->MajorChannel);
    b.add(c->idType);
}

// Adds the fields of `param` as `kind` prescribes. False when a record
// parameter is missing (nothing can be sent then).
bool add_fields(Body& b, Param kind, void* param) {
    switch (kind) {
        case Param::None: return true;
        case Param::Text: b.add(static_cast<const char*>(param)); return true;
        case Param::IntValue:
            b.add(static_cast<int>(reinterpret_cast<intptr_t>(param)));
            return true;
        default: break;
    }
    if (param == nullptr) return false;
    switch (kind) {
        case Param::IntAt: b.add(*static_cast<const int*>(param)); return true;
        case Param::ChannelRecord: add_channel(b, static_cast<const Channel*>(param)); return true;
        case Param::ErrorChannelRecord: {
            auto* e = static_cast<const ErrorChannel*>(param);
            b.add(static_cast<int>(e->errorState));
            if (e->channel != nullptr) add_channel(b, e->channel);
            return true;
        }
        case Param::ParentalRating: {
            auto* p = static_cast<const ParentalRatingCallbackData*>(param);
            b.add(p->length);
            b.add(p->blocked);
            return true;
        }
        case Param::StreamEventRecord: {
            auto* s = static_cast<const StreamEventCallbackData*>(param);
            b.add(s->location);
            const StreamEvent* e = s->event_data;
            b.add(e ? e->name : nullptr);
            b.add(e ? e->data : nullptr);
            b.add(e ? e->text : nullptr);
            b.add(e ? e->status : nullptr);
            return true;
        }
        case Param::SearchEventRecord: {
            // eventsFound goes last although it is the record's third field.
            auto* s = static_cast<const SearchEvent*>(param);
            b.add(s->searchID);
            b.add(s->searchStatus);
            b.add(s->searchOffset);
            b.add(s->searchResult);
            b.add(s->eventsFound);
            return true;
        }
        case Param::DrmMessageResult: {
            auto* d = static_cast<const DRMMessageResultCallbackData*>(param);
            b.add(d->msgID);
            b.add(d->resultMsg);
            b.add(d->resultCode);
            return true;
        }
        case Param::DrmSystemMessage: {
            auto* d = static_cast<const DRMSystemMessageCallbackData*>(param);
            b.add(d->msg);
            b.add(d->drmSystemID);
            return true;
        }
        default: return false;
    }
}

class SendLock {
public:
    SendLock() { pthread_mutex_lock(&sendmsg_mutex); }
    ~SendLock() { pthread_mutex_unlock(&sendmsg_mutex); }
    SendLock(const SendLock&) = delete;
    SendLock& operator=(const SendLock&) = delete;
};

}  // namespace

extern "C" APPMGR_API int send_command(int commandID, void* param) {
    const CommandSpec* entry = find_command(commandID);
    if (entry == nullptr) {
        AM_ERROR("Type NOT implemented: %d", commandID);
        return 0;
    }
    if (entry->name != nullptr) AM_INFO("Sending message: %s", entry->name);
    if (commandID == 60) AM_INFO("CB_CHANNEL_CHANGED to be sent");

    bool sent = false;
    {
        SendLock lock;
        Body body(commandID);
        if (!add_fields(body, entry->param, param)) {
            AM_ERROR("send_command(%d): missing parameter record", commandID);
            return 0;
        }
        char prefix[16];
        std::snprintf(prefix, sizeof(prefix), "%3d", static_cast<int>(body.text().size()));
        std::string frame = std::string(prefix) + body.text();
        if (frame.size() >= kFrameBufferSize) {
            AM_ERROR("send_command(%d): message of %zu bytes exceeds the %zu-byte frame buffer",
                     commandID, frame.size(), kFrameBufferSize);
            return 0;
        }
        AM_INFO("Sending to socket:[%d].message:[%s]", static_cast<int>(entry->connection),
                frame.c_str());
        sent = tools_msg_send_msg(&gData, entry->connection, frame.data(),
                                  static_cast<unsigned int>(frame.size())) == RET_OK;
    }
    if (commandID == 76) AM_INFO("Sending message CB_APP_TYPE_CHANGED done!");
    if (commandID == 67) AM_INFO("Sending message done !");
    if (sent) {
        AM_INFO("ApplicationManagerCore -> send_message:[%d] success", commandID);
        return 1;
    }
    AM_ERROR("ApplicationManagerCore -> send_message failed ...");
    return entry->result_ignored ? 1 : 0;
}
