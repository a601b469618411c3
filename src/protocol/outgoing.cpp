// Commands and callbacks the library sends to the browser on its own
// initiative. One message per call, framed as "%3d" body length followed by
// "id|field|...|", sent on the "Application" or "Callbacks" connection.
#include <pthread.h>

#include <cstdio>
#include <string>

#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "connection/connection.h"
#include "protocol/protocol.h"

extern "C" {
// Serialises the framing and sending of every command: it is held from the
// first byte of a frame to its hand-over to the connection, never longer.
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

using appmgr::protocol::Command;

struct CommandSpec {
    Command id;
    const char* name;  // symbolic name for the "Sending message:" log, or null
    Mng_ConnectionType_t connection;
    Param param;
    bool result_ignored;  // reports success even when no browser listens
};

constexpr Mng_ConnectionType_t kApp = MNG_CONNECTION_TYPE_APP;
constexpr Mng_ConnectionType_t kCb = MNG_CONNECTION_TYPE_CALLBACK;

constexpr CommandSpec kCommands[] = {
    {Command::UserAgentAddon, nullptr, kApp, Param::Text, false},
    {Command::AcceptLanguage, nullptr, kApp, Param::Text, false},
    {Command::Cookies, nullptr, kApp, Param::Text, false},
    {Command::CarouselModuleUpdated, nullptr, kApp, Param::IntAt, false},
    {Command::BindService, "CMD_BIND_SERVICE", kApp, Param::None, false},
    {Command::UnbindService, "CMD_UNBIND_SERVICE", kApp, Param::None, false},
    {Command::StartApplication, nullptr, kApp, Param::Text, false},
    {Command::DestroyApplication, nullptr, kApp, Param::None, false},
    {Command::Text52, nullptr, kApp, Param::Text, false},
    {Command::ShowApplication, nullptr, kApp, Param::Text, false},
    {Command::HideApplication, nullptr, kApp, Param::Text, false},
    {Command::SetBoundary, "CMD_SET_APPLICATION_BOUNDARY", kApp, Param::Text, true},
    {Command::ChannelChanged, nullptr, kCb, Param::ChannelRecord, false},
    {Command::ChannelChangeError, nullptr, kCb, Param::ErrorChannelRecord, false},
    {Command::ParentalRatingChanged, nullptr, kCb, Param::ParentalRating, false},
    {Command::ParentalRatingError, nullptr, kCb, Param::IntAt, false},
    {Command::ProgrammeListChanged, "CB_PROGRAMME_LIST_CHANGED", kCb, Param::None, true},
    {Command::MemoryLow, nullptr, kCb, Param::None, false},
    {Command::StreamEvent, nullptr, kCb, Param::StreamEventRecord, false},
    {Command::SearchStatus, "CB_SEARCH_STATUS_EVENT", kCb, Param::SearchEventRecord, true},
    {Command::ApplicationLoadError, "CB_APPLICATION_LOAD_ERROR", kCb, Param::None, false},
    {Command::SelectedComponentChanged, "CB_SELECTED_AV_COMPONENT_CHANGED", kCb, Param::IntValue, false},
    {Command::AppTypeChanged, nullptr, kCb, Param::IntAt, true},
    {Command::SignalStatus, "CB_SIGNAL_STATUS", kCb, Param::IntAt, true},
    {Command::ComponentChanged, "CB_AV_COMPONENT_CHANGED", kCb, Param::IntValue, false},
    {Command::DisplayModeChanged, nullptr, kApp, Param::IntAt, false},
    {Command::StartPortal, nullptr, kApp, Param::Text, false},
    {Command::TimeZone, nullptr, kApp, Param::Text, false},
    {Command::CloseBrowser, nullptr, kApp, Param::None, false},
    {Command::EpgUpdate, nullptr, kCb, Param::None, false},
    {Command::DrmMessageResult, "CB_DRM_MESSAGE_RESULT", kCb, Param::DrmMessageResult, false},
    {Command::DrmSystemStatusChange, "CB_DRM_SYSTEM_STATUS_CHANGE", kCb, Param::IntAt, false},
    {Command::DrmSystemMessage, "CB_DRM_SYSTEM_MESSAGE", kCb, Param::DrmSystemMessage, false},
    {Command::Text209, nullptr, kCb, Param::Text, false},
    {Command::SetKeySet, "CMD_HANDLE_KEY_SET", kApp, Param::IntAt, false},
    {Command::Text232, nullptr, kCb, Param::Text, false},
    {Command::Text233, nullptr, kCb, Param::Text, false},
    {Command::DoNotTrack, nullptr, kApp, Param::Text, false},
    {Command::PageTransparencyCheck, nullptr, kApp, Param::Text, false},
    {Command::ProgrammesChanged, "CB_PROGRAMMES_CHANGED", kCb, Param::None, false},
};

const CommandSpec* find_command(int id) {
    for (const auto& c : kCommands)
        if (static_cast<int>(c.id) == id) return &c;
    return nullptr;
}

// The body and frame buffers of the wire protocol are 4096 bytes: a frame
// (length prefix and body) must leave room for the terminator.
constexpr std::size_t kFrameBufferSize = 4096;

using Body = appmgr::protocol::Fields;

// Adds the fields of a record parameter (non-null) as `kind` prescribes.
bool add_record_fields(Body& b, Param kind, const void* param) {
    switch (kind) {
        case Param::IntAt: b.add(*static_cast<const int*>(param)); return true;
        case Param::ChannelRecord:
            appmgr::protocol::add_channel(b, *static_cast<const Channel*>(param));
            return true;
        case Param::ErrorChannelRecord: {
            auto* e = static_cast<const ErrorChannel*>(param);
            b.add(static_cast<int>(e->errorState));
            if (e->channel != nullptr) appmgr::protocol::add_channel(b, *e->channel);
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
    return param != nullptr && add_record_fields(b, kind, param);
}

class SendLock {
public:
    SendLock() { pthread_mutex_lock(&sendmsg_mutex); }
    ~SendLock() { pthread_mutex_unlock(&sendmsg_mutex); }
    SendLock(const SendLock&) = delete;
    SendLock& operator=(const SendLock&) = delete;
};

// Builds and sends one frame. The result of ids whose result is ignored is 1
// whatever happens after the id was recognised (no browser, a frame too
// large for the buffer, a missing record).
int send_frame(const CommandSpec& entry, void* param) {
    const int id = static_cast<int>(entry.id);
    if (entry.name != nullptr) AM_INFO("Sending message: %s", entry.name);
    if (entry.id == Command::ChannelChanged) AM_INFO("CB_CHANNEL_CHANGED to be sent");

    bool sent = false;
    {
        SendLock lock;
        Body body;
        body.add(id);
        if (!add_fields(body, entry.param, param)) {
            AM_ERROR("send_command(%d): missing parameter record", id);
            return entry.result_ignored ? 1 : 0;
        }
        char prefix[16];
        std::snprintf(prefix, sizeof(prefix), "%3d", static_cast<int>(body.text().size()));
        std::string frame = std::string(prefix) + body.text();
        if (frame.size() >= kFrameBufferSize) {
            AM_ERROR("send_command(%d): message of %zu bytes exceeds the %zu-byte frame buffer",
                     id, frame.size(), kFrameBufferSize);
            return entry.result_ignored ? 1 : 0;
        }
        AM_INFO("Sending to socket:[%d].message:[%s]", static_cast<int>(entry.connection),
                frame.c_str());
        sent = appmgr::connection::send(entry.connection, frame.data(), frame.size()) == RET_OK;
    }
    if (entry.id == Command::AppTypeChanged) AM_INFO("Sending message CB_APP_TYPE_CHANGED done!");
    if (entry.id == Command::SearchStatus) AM_INFO("Sending message done !");
    if (sent) {
        AM_INFO("ApplicationManagerCore -> send_message:[%d] success", id);
        return 1;
    }
    AM_ERROR("ApplicationManagerCore -> send_message failed ...");
    return entry.result_ignored ? 1 : 0;
}

}  // namespace

namespace appmgr::protocol {

int send(Command id, void* param) { return send_command(static_cast<int>(id), param); }

int send_text(Command id, const char* text) { return send(id, const_cast<char*>(text)); }

}  // namespace appmgr::protocol

extern "C" APPMGR_API int send_command(int commandID, void* param) {
    return appmgr::c_entry(__func__, 0, [&] {
        const CommandSpec* entry = find_command(commandID);
        if (entry == nullptr) {
            AM_ERROR("Type NOT implemented: %d", commandID);
            return 0;
        }
        return send_frame(*entry, param);
    });
}
