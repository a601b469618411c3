// Requests of the broadcast video object on "dtvPlugins": presentation,
// tuning, channels, programmes and stream-event listeners.
//
// None runs under the manager lock: the broadcast functions take it
// themselves where they touch the presentation state or the tune requester,
// and never across a tune, whose outcome (channelChanged) arrives on a
// middleware thread that needs the lock.
#include <string>

#include "broadcast/broadcast.h"
#include "common/log.h"
#include "hbbtv_externals/hbbtv_externals.h"
#include "tools/request_records.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

// ---- presentation and tuning ----

void bind_to_current_channel(Request& request) {
    AM_INFO("Command CMD_BIND_CURRENT_CHANNEL received");
    broadcast_bind_to_current_channel();
    request.ack();
}

void next_channel(Request& request) {
    broadcast_next_channel();
    request.ack();
}

void previous_channel(Request& request) {
    broadcast_previous_channel();
    request.ack();
}

// Only 1 and 0 have an answer; any other result gets an empty reply.
void stop(Request& request) {
    const int stopped = broadcast_stop();
    if (stopped == 1 || stopped == 0)
        request.reply_bool(stopped == 1);
    else
        request.reply("");
}

void release(Request& request) {
    broadcast_release();
    request.ack();
}

void free_channel_list(Request& request) {
    broadcast_free_channel_list();
    request.ack();
}

// Fields: the channel (type, ccid, onid, tsid, sid, name, dsd, idType, nid,
// TerminalChannel, MajorChannel), then quiet.
void set_channel(Request& request) {
    AM_INFO("CMD_SET_CHANNEL called!");
    ChannelPtr channel = read_channel(request);
    if (channel == nullptr) {
        AM_ERROR("CMD_SET_CHANNEL: out of memory for the channel");
        request.reply_int(-1);
        return;
    }
    const int quiet = request.integer();
    request.reply_int(broadcast_set_channel(channel.get(), quiet));
}

void set_full_screen(Request& request) {
    request.reply_int(broadcast_set_full_screen(request.integer()));
}

void set_properties(Request& request) {
    AM_INFO("Changing video properties ");
    const int top = request.integer();
    const int left = request.integer();
    const int width = request.integer();
    const int height = request.integer();
    request.reply_int(broadcast_set_properties(top, left, width, height));
}

// ---- channels ----

void reply_channel(Request& request, Channel* found) {
    ChannelPtr channel(found);
    if (channel == nullptr) {
        request.not_available("Channel not available!");
        return;
    }
    const std::string record = channel_record(*channel);
    AM_INFO("Sending message return: %s", record.c_str());
    request.reply(record);
}

void get_current_channel(Request& request) { reply_channel(request, broadcast_get_current_channel()); }

void get_channel(Request& request) {
    std::string ccid;
    if (!take_text(request, kMaxNameLength, "channel id", &ccid)) {
        request.not_available("Channel not available!");
        return;
    }
    reply_channel(request, broadcast_get_channel(ccid.c_str()));
}

void get_channel_by_position(Request& request) {
    reply_channel(request, broadcast_get_channel_by_position(request.integer()));
}

void get_channel_by_triplet(Request& request) {
    AM_INFO("CMD_GET_CHANNEL_BY_TRIPLET received");
    const int onid = request.integer();
    const int tsid = request.integer();
    const int sid = request.integer();
    reply_channel(request, broadcast_get_channel_by_triplet(onid, tsid, sid));
}

void get_channel_by_dsd(Request& request) {
    std::string dsd;
    if (!take_text(request, kMaxTextLength, "delivery system descriptor", &dsd)) {
        request.not_available("Channel not available!");
        return;
    }
    reply_channel(request, broadcast_get_channel_by_dsd(dsd.c_str(), request.integer()));
}

void get_channel_list(Request& request) {
    const ChannelList* list = channel_list_get();
    if (list == nullptr) {
        request.not_available("Channel list not available!");
        return;
    }
    request.reply_int(list->length);
}

// ---- programmes ----

void get_programme_list(Request& request) {
    const ProgrammeCollection* programmes = programme_get_list();
    if (programmes == nullptr) {
        request.not_available("No programme list available");
        return;
    }
    AM_INFO("Programmes length --> %d", programmes->lenght);
    request.reply_int(programmes->lenght);
}

void get_programme_item(Request& request) {
    ProgrammePtr programme(broadcast_get_programme_item(request.integer()));
    if (programme == nullptr) {
        request.not_available("Information about programme not available!");
        return;
    }
    protocol::Fields fields;
    add_programme(fields, *programme);
    request.reply(fields);
}

// ---- stream-event listeners ----

// Fields: target URL, event name. A missing field, or one too long to
// carry, is refused.
bool take_listener(Request& request, std::string* url, std::string* name) {
    const bool taken =
        take_text(request, stream_events::kMaxUrlLength, "stream event target URL", url) &&
        take_text(request, stream_events::kMaxNameLength, "stream event name", name);
    if (taken && !url->empty() && !name->empty()) return true;
    AM_ERROR("stream event listener request without a usable target URL and event name");
    return false;
}

void add_stream_event_listener(Request& request) {
    std::string url, name;
    if (!take_listener(request, &url, &name)) {
        request.reply_int(HBBTV_STE_BAD_PARAM);
        return;
    }
    request.reply_int(broadcast_add_stream_event_listener(url.c_str(), name.c_str()));
}

void remove_stream_event_listener(Request& request) {
    std::string url, name;
    if (take_listener(request, &url, &name))
        broadcast_remove_stream_event_listener(url.c_str(), name.c_str());
    request.ack();
}

constexpr RequestRow kRows[] = {
    {0, "CMD_BIND_CURRENT_CHANNEL", Lock::None, bind_to_current_channel},
    {1, "next channel", Lock::None, next_channel},
    {2, "previous channel", Lock::None, previous_channel},
    {3, "stop broadcast", Lock::None, stop},
    {4, "release broadcast", Lock::None, release},
    {8, "free channel list", Lock::None, free_channel_list},
    {20, "CMD_SET_CHANNEL", Lock::None, set_channel},
    {22, "set full screen", Lock::None, set_full_screen},
    {23, "set video properties", Lock::None, set_properties},
    {30, "get current channel", Lock::None, get_current_channel},
    {31, "get channel", Lock::None, get_channel},
    {32, "get channel by position", Lock::None, get_channel_by_position},
    {33, "CMD_GET_CHANNEL_BY_TRIPLET", Lock::None, get_channel_by_triplet},
    {34, "get channel by DSD", Lock::None, get_channel_by_dsd},
    {35, "get channel list", Lock::None, get_channel_list},
    {43, "get programme list", Lock::None, get_programme_list},
    {45, "get programme item", Lock::None, get_programme_item},
    {46, "add stream event listener", Lock::None, add_stream_event_listener},
    {47, "remove stream event listener", Lock::None, remove_stream_event_listener},
};

}  // namespace

const RequestTable kBroadcastRequests{kRows};

}  // namespace appmgr::msg
