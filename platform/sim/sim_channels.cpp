// The simulated channel list, the current channel and the broadcast
// presentation state (tuned / bound versus stopped). Channels are held as
// C++ values; every getter hands out a fresh malloc'ed Channel that the
// library releases with channel_destroy.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace {

struct SimChannel {
    ChannelType type = CHANNEL_TYPE_TV;
    std::optional<std::string> ccid;
    int onid = 0;
    int tsid = 0;
    int sid = 0;
    std::optional<std::string> name;
    std::optional<std::string> dsd;
    int idType = 0;
    int nid = 0;
    int TerminalChannel = 0;
    int MajorChannel = 0;
};

std::mutex channels_mutex;
std::vector<SimChannel> channels;
int current = -1;
bool presenting = true;
// The list record handed out by hbbGetChannelList; the middleware owns it.
// One per thread, so that a caller's record stays as it read it.
thread_local ChannelList channel_list_record{0};
hbb_sim_tune_fn tune_hook = nullptr;
void* tune_hook_user = nullptr;
// The error the next found tune fails with (hbb_sim_fail_next_tune).
bool tune_fails = false;
ChannelChangeError tune_failure = CCE_UNDEFINED;

std::optional<std::string> optional_text(const char* text) {
    if (!text) return std::nullopt;
    return std::string(text);
}

char* dup_optional(const std::optional<std::string>& text) {
    return text ? hbbsim::dup_text(text->c_str()) : nullptr;
}

SimChannel from_record(const Channel& channel) {
    SimChannel copy;
    copy.type = channel.type;
    copy.ccid = optional_text(channel.ccid);
    copy.onid = channel.onid;
    copy.tsid = channel.tsid;
    copy.sid = channel.sid;
    copy.name = optional_text(channel.name);
    copy.dsd = optional_text(channel.dsd);
    copy.idType = channel.idType;
    copy.nid = channel.nid;
    copy.TerminalChannel = channel.TerminalChannel;
    copy.MajorChannel = channel.MajorChannel;
    return copy;
}

void free_texts(Channel* channel) {
    std::free(channel->ccid);
    std::free(channel->name);
    std::free(channel->dsd);
    channel->ccid = channel->name = channel->dsd = nullptr;
}

// Writes a channel into a record whose texts are already released. Returns
// false (with the texts released again) when a copy cannot be made.
bool fill_record(Channel* out, const SimChannel& channel) {
    out->type = channel.type;
    out->onid = channel.onid;
    out->tsid = channel.tsid;
    out->sid = channel.sid;
    out->idType = channel.idType;
    out->nid = channel.nid;
    out->TerminalChannel = channel.TerminalChannel;
    out->MajorChannel = channel.MajorChannel;
    out->ccid = dup_optional(channel.ccid);
    out->name = dup_optional(channel.name);
    out->dsd = dup_optional(channel.dsd);
    if ((channel.ccid && !out->ccid) || (channel.name && !out->name) || (channel.dsd && !out->dsd)) {
        free_texts(out);
        return false;
    }
    return true;
}

Channel* new_record(const SimChannel& channel) {
    auto* record = static_cast<Channel*>(std::calloc(1, sizeof(Channel)));
    if (record && !fill_record(record, channel)) {
        std::free(record);
        record = nullptr;
    }
    return record;
}

// A fresh record of the channel at a position, or null; takes the lock.
Channel* record_at(int position) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    if (position < 0 || position >= static_cast<int>(channels.size())) return nullptr;
    return new_record(channels[static_cast<size_t>(position)]);
}

// First position whose channel satisfies the predicate, or -1; the caller
// holds the lock.
template <typename Predicate>
int find_locked(Predicate matches) {
    for (size_t i = 0; i < channels.size(); ++i) {
        if (matches(channels[i])) return static_cast<int>(i);
    }
    return -1;
}

template <typename Predicate>
Channel* find_record(Predicate matches) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    int position = find_locked(matches);
    return position < 0 ? nullptr : new_record(channels[static_cast<size_t>(position)]);
}

std::string describe(const Channel* channel) {
    if (!channel) return "null";
    return std::to_string(channel->onid) + "." + std::to_string(channel->tsid) + "." +
           std::to_string(channel->sid);
}

// Hands a copy of a channel to a library entry point on the notifier thread.
template <typename Deliver>
void post_channel(const SimChannel& channel, Deliver deliver) {
    hbbsim::post([channel, deliver] {
        Channel record{};
        if (!fill_record(&record, channel)) return;
        deliver(&record);
        free_texts(&record);
    });
}

// Makes a position current and presenting, reports the tune to the host's
// hook (outside the lock), then has the library told on the notifier
// thread.
void tune_to(int position, int quiet) {
    SimChannel tuned;
    hbb_sim_tune_fn hook;
    void* hook_user;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        // The list may have been emptied since the position was found.
        if (position >= static_cast<int>(channels.size())) return;
        current = position;
        presenting = true;
        tuned = channels[static_cast<size_t>(position)];
        hook = tune_hook;
        hook_user = tune_hook_user;
    }
    if (hook) {
        Channel record{};
        if (fill_record(&record, tuned)) {
            hook(&record, quiet, hook_user);
            free_texts(&record);
        }
    }
    if (auto changed = hbbsim::listeners().channel_changed)
        post_channel(tuned, [changed](Channel* c) { changed(c); });
}

// A tune that hbb_sim_fail_next_tune set to fail: the channel stays, the
// library is told of the error. False when no failure is pending.
bool fail_tune(int position) {
    SimChannel asked;
    ChannelChangeError error;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        if (!tune_fails || position >= static_cast<int>(channels.size())) return false;
        tune_fails = false;
        error = tune_failure;
        asked = channels[static_cast<size_t>(position)];
    }
    if (auto failed = hbbsim::listeners().channel_change_error)
        post_channel(asked, [failed, error](Channel* c) { failed(error, c); });
    return true;
}

// Steps the current position through the list; -1 when the list is empty.
int step_position(int direction) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    int count = static_cast<int>(channels.size());
    if (count == 0) return -1;
    if (current < 0) return direction > 0 ? 0 : count - 1;
    return (current + direction + count) % count;
}

}  // namespace

namespace hbbsim {

void reset_channels() {
    std::lock_guard<std::mutex> lock(channels_mutex);
    channels.clear();
    current = -1;
    presenting = true;
    tune_fails = false;
}

bool channel_triplet(int position, Triplet* out) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    if (position < 0 || position >= static_cast<int>(channels.size())) return false;
    const SimChannel& c = channels[static_cast<size_t>(position)];
    *out = Triplet{c.onid, c.tsid, c.sid};
    return true;
}

std::string channel_ccid(const Triplet& channel) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    for (const SimChannel& c : channels)
        if (Triplet{c.onid, c.tsid, c.sid} == channel) return c.ccid.value_or("");
    return "";
}

bool current_channel(Triplet* out, std::string* ccid) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    if (current < 0) return false;
    const SimChannel& c = channels[static_cast<size_t>(current)];
    *out = Triplet{c.onid, c.tsid, c.sid};
    if (ccid) *ccid = c.ccid.value_or("");
    return true;
}

}  // namespace hbbsim

extern "C" {

// ---- porting layer: records ----------------------------------------------

Channel* channel_create(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    auto* channel = static_cast<Channel*>(std::calloc(1, sizeof(Channel)));
    hbbsim::record("channel_create", "-> %s", channel ? "record" : "null");
    return channel;
}

void channel_destroy(Channel* channel) {
    hbbsim::record("channel_destroy", "%s", describe(channel).c_str());
    if (!channel) return;
    free_texts(channel);
    std::free(channel);
}

int getCurrentChannelData(Channel* channel) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (channel) {
        std::lock_guard<std::mutex> lock(channels_mutex);
        if (current >= 0) {
            free_texts(channel);
            result = fill_record(channel, channels[static_cast<size_t>(current)]) ? 0 : -1;
        }
    }
    hbbsim::record("getCurrentChannelData", "-> %d (%s)", result,
                   result == 0 ? describe(channel).c_str() : "none");
    return result;
}

// ---- porting layer: getters ----------------------------------------------

Channel* hbbGetCurrentChannel(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Channel* channel = nullptr;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        if (current >= 0) channel = new_record(channels[static_cast<size_t>(current)]);
    }
    hbbsim::record("hbbGetCurrentChannel", "-> %s", describe(channel).c_str());
    return channel;
}

ChannelList* hbbGetChannelList(void) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    ChannelList* list = nullptr;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        channel_list_record.length = static_cast<int>(channels.size());
        if (!channels.empty()) list = &channel_list_record;
    }
    hbbsim::record("hbbGetChannelList", "-> %s", list ? "list" : "null");
    return list;
}

Channel* hbbGetChannelByPosition(int position) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Channel* channel = record_at(position);
    hbbsim::record("hbbGetChannelByPosition", "position=%d -> %s", position,
                   describe(channel).c_str());
    return channel;
}

Channel* hbbGetChannel(const char* channelID) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Channel* channel = nullptr;
    if (channelID) {
        channel = find_record([&](const SimChannel& c) { return c.ccid && *c.ccid == channelID; });
    }
    hbbsim::record("hbbGetChannel", "ccid=%s -> %s", hbbsim::text_or_null(channelID),
                   describe(channel).c_str());
    return channel;
}

Channel* hbbGetChannelByTriplet(int onid, int tsid, int sid) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Channel* channel = find_record([&](const SimChannel& c) {
        return c.onid == onid && c.tsid == tsid && c.sid == sid;
    });
    hbbsim::record("hbbGetChannelByTriplet", "onid=%d tsid=%d sid=%d -> %s", onid, tsid, sid,
                   describe(channel).c_str());
    return channel;
}

Channel* hbbGetChannelByDsd(const char* dsd, int sid) {
    if (hbbsim::injected_failure(__func__)) return nullptr;
    Channel* channel = nullptr;
    if (dsd) {
        channel = find_record([&](const SimChannel& c) { return c.dsd && *c.dsd == dsd && c.sid == sid; });
    }
    hbbsim::record("hbbGetChannelByDsd", "dsd=%s sid=%d -> %s", hbbsim::text_or_null(dsd), sid,
                   describe(channel).c_str());
    return channel;
}

// ---- porting layer: tuning -----------------------------------------------

int hbbSetChannel(Channel* channel, int quiet) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int position = -1;
    if (channel) {
        std::lock_guard<std::mutex> lock(channels_mutex);
        position = find_locked([&](const SimChannel& c) {
            return c.onid == channel->onid && c.tsid == channel->tsid && c.sid == channel->sid;
        });
    }
    int result = position < 0 ? -1 : 0;
    hbbsim::record("hbbSetChannel", "%s quiet=%d -> %d", describe(channel).c_str(), quiet, result);
    if (position >= 0 && !fail_tune(position)) tune_to(position, quiet);
    return result;
}

int hbbPreviousChannel(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int position = step_position(-1);
    hbbsim::record("hbbPreviousChannel", "-> %d (position %d)", position < 0 ? -1 : 0, position);
    if (position < 0) return -1;
    tune_to(position, 0);
    return 0;
}

int hbbNextChannel(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int position = step_position(+1);
    hbbsim::record("hbbNextChannel", "-> %d (position %d)", position < 0 ? -1 : 0, position);
    if (position < 0) return -1;
    tune_to(position, 0);
    return 0;
}

int hbbStopChannel(void) {
    if (hbbsim::injected_failure(__func__)) return 0;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        presenting = false;
    }
    hbbsim::record("hbbStopChannel", "-> 1");
    return 1;
}

int hbbBindCurrentChannel(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        if (current >= 0) {
            presenting = true;
            result = 0;
        }
    }
    hbbsim::record("hbbBindCurrentChannel", "-> %d", result);
    return result;
}

int hbbReleaseChannelResources(void) {
    if (hbbsim::injected_failure(__func__)) return -1;
    {
        std::lock_guard<std::mutex> lock(channels_mutex);
        presenting = false;
    }
    hbbsim::record("hbbReleaseChannelResources", "-> 0");
    return 0;
}

// ---- control API -----------------------------------------------------------

int hbb_sim_add_channel(const Channel* channel) {
    if (!channel) return -1;
    std::lock_guard<std::mutex> lock(channels_mutex);
    channels.push_back(from_record(*channel));
    return static_cast<int>(channels.size()) - 1;
}

int hbb_sim_update_channel(int position, const Channel* channel) {
    if (!channel) return -1;
    std::lock_guard<std::mutex> lock(channels_mutex);
    if (position < 0 || position >= static_cast<int>(channels.size())) return -1;
    channels[static_cast<size_t>(position)] = from_record(*channel);
    return 0;
}

int hbb_sim_set_current_channel(int position) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    if (position < -1 || position >= static_cast<int>(channels.size())) return -1;
    current = position;
    if (position >= 0) presenting = true;
    return 0;
}

void hbb_sim_clear_channels(void) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    channels.clear();
    current = -1;
}

int hbb_sim_channel_count(void) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    return static_cast<int>(channels.size());
}

int hbb_sim_current_channel(void) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    return current;
}

void hbb_sim_fail_next_tune(ChannelChangeError error) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    tune_fails = true;
    tune_failure = error;
}

void hbb_sim_set_tune_hook(hbb_sim_tune_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    tune_hook = fn;
    tune_hook_user = user;
}

int hbb_sim_broadcast_presenting(void) {
    std::lock_guard<std::mutex> lock(channels_mutex);
    return presenting ? 1 : 0;
}

}  // extern "C"
