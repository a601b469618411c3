// Stream-event subscriptions and the events fired at them. The library
// subscribes through QUMA_StreamEvents*; a host fires events by URL and
// name, or by component tag and event id as the broadcast carries them, and
// the subscriptions' callbacks run on the notifier thread with copies of
// every text and of the payload.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "sim_internal.h"

namespace {

struct Subscription {
    std::string name;
    std::string url;
    tQUMAm_DSMCC_StreamEventCallback callback = nullptr;
    bool described = false;  // the WOC kind: tag and id from an XML description
    int tag = -1;
    int event_id = -1;
};

std::mutex subscriptions_mutex;
std::vector<Subscription> subscriptions;
int subscribe_result = 0;
// Component tags that carry stream events, as a host set them; empty: the
// current channel's components decide.
std::vector<int> carried_tags;

// Delivers an event to each subscription's callback on the notifier thread.
int fire(const std::vector<Subscription>& targets, int status, const void* payload, int length) {
    const auto* bytes = static_cast<const char*>(payload);
    const std::string copy = bytes && length > 0 ? std::string(bytes, static_cast<size_t>(length)) : "";
    const bool has_payload = bytes != nullptr;
    for (const Subscription& s : targets) {
        hbbsim::post([s, status, copy, has_payload, length] {
            std::string name = s.name;
            std::string path = s.url;
            std::string data = copy;
            s.callback(name.data(), path.data(), static_cast<tQUMAm_DSMCC_StreamEventStatus>(status),
                       has_payload ? data.data() : nullptr, length);
        });
    }
    return static_cast<int>(targets.size());
}

}  // namespace

namespace hbbsim {

void reset_stream_events() {
    std::lock_guard<std::mutex> lock(subscriptions_mutex);
    subscriptions.clear();
    subscribe_result = 0;
    carried_tags.clear();
}

}  // namespace hbbsim

extern "C" {

// ---- porting layer ----------------------------------------------------------------------

int QUMA_StreamEventsSubscribe(const char* eventName, const char* targetURL,
                               tQUMAm_DSMCC_StreamEventCallback callback) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (eventName && targetURL && callback) {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        result = subscribe_result;
        if (result == 0) subscriptions.push_back(Subscription{eventName, targetURL, callback});
    }
    hbbsim::record("QUMA_StreamEventsSubscribe", "name=%s url=%s callback=%s -> %d",
                   hbbsim::text_or_null(eventName), hbbsim::text_or_null(targetURL),
                   callback ? "set" : "null", result);
    return result;
}

int QUMA_StreamEventsUnsubscribe(const char* eventName, const char* targetURL) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (eventName && targetURL) {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
            if (!it->described && it->name == eventName && it->url == targetURL) {
                subscriptions.erase(it);
                result = 0;
                break;
            }
        }
    }
    hbbsim::record("QUMA_StreamEventsUnsubscribe", "name=%s url=%s -> %d",
                   hbbsim::text_or_null(eventName), hbbsim::text_or_null(targetURL), result);
    return result;
}

// A component the current service does not carry cannot be filtered: the
// subscription is refused, as a receiver refuses it. The tags a host set
// decide when there are any; else the current channel's components and the
// carousels served.
int QUMA_StreamEventsWOCSubscribe(unsigned short componentTag, const char* eventName,
                                  const char* targetURL, unsigned short eventId,
                                  tQUMAm_DSMCC_StreamEventCallback callback) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    bool listed = false;
    bool by_list = false;
    {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        by_list = !carried_tags.empty();
        listed = std::find(carried_tags.begin(), carried_tags.end(), componentTag) != carried_tags.end();
    }
    const bool carried = by_list ? listed
                                 : hbbsim::current_channel_carries(componentTag) ||
                                       hbbsim::carousel_served(componentTag);
    if (eventName && targetURL && callback && carried) {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        result = subscribe_result;
        if (result == 0)
            subscriptions.push_back(
                Subscription{eventName, targetURL, callback, true, componentTag, eventId});
    }
    hbbsim::record("QUMA_StreamEventsWOCSubscribe",
                   "ctag=%u name=%s url=%s id=%u callback=%s%s -> %d",
                   static_cast<unsigned>(componentTag), hbbsim::text_or_null(eventName),
                   hbbsim::text_or_null(targetURL), static_cast<unsigned>(eventId),
                   callback ? "set" : "null", carried ? "" : " (component not carried)", result);
    return result;
}

// The library narrows the event id to 8 bits here: the match uses those.
int QUMA_StreamEventsWOCUnsubscribe(unsigned short componentTag, const char* eventName,
                                    const char* targetURL, unsigned short eventId) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = -1;
    if (eventName && targetURL) {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        for (auto it = subscriptions.begin(); it != subscriptions.end(); ++it) {
            if (it->described && it->tag == componentTag && it->name == eventName &&
                it->url == targetURL && (it->event_id & 0xFF) == (eventId & 0xFF)) {
                subscriptions.erase(it);
                result = 0;
                break;
            }
        }
    }
    hbbsim::record("QUMA_StreamEventsWOCUnsubscribe", "ctag=%u name=%s url=%s id=%u -> %d",
                   static_cast<unsigned>(componentTag), hbbsim::text_or_null(eventName),
                   hbbsim::text_or_null(targetURL), static_cast<unsigned>(eventId), result);
    return result;
}

// ---- control API -----------------------------------------------------------------------

void hbb_sim_set_stream_event_subscribe_result(int result) {
    std::lock_guard<std::mutex> lock(subscriptions_mutex);
    subscribe_result = result;
}

void hbb_sim_set_stream_event_tags(const int* tags, int count) {
    std::lock_guard<std::mutex> lock(subscriptions_mutex);
    carried_tags.assign(tags, tags + (tags && count > 0 ? count : 0));
}

int hbb_sim_stream_event_subscriptions(void) {
    std::lock_guard<std::mutex> lock(subscriptions_mutex);
    return static_cast<int>(subscriptions.size());
}

int hbb_sim_stream_event_subscribed(const char* url, const char* name, int* component_tag,
                                    int* event_id) {
    if (!url || !name) return 0;
    std::lock_guard<std::mutex> lock(subscriptions_mutex);
    for (const Subscription& s : subscriptions) {
        if (s.url != url || s.name != name) continue;
        if (component_tag) *component_tag = s.tag;
        if (event_id) *event_id = s.event_id;
        return 1;
    }
    return 0;
}

int hbb_sim_fire_stream_event(const char* url, const char* name, int status, const void* payload,
                              int length) {
    if (!url || !name) return 0;
    std::vector<Subscription> targets;
    {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        for (const Subscription& s : subscriptions)
            if (s.url == url && s.name == name) targets.push_back(s);
    }
    return fire(targets, status, payload, length);
}

int hbb_sim_fire_carousel_stream_event(int component_tag, const char* path, const char* name, int status,
                                       const void* payload, int length) {
    if (path == nullptr || name == nullptr) return 0;
    std::vector<Subscription> targets;
    {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        for (const Subscription& s : subscriptions) {
            int tag = -1;
            std::string object;
            if (!s.described && s.name == name && hbbsim::carousel_object(s.url.c_str(), &tag, &object) &&
                tag == component_tag && object == path)
                targets.push_back(s);
        }
    }
    return fire(targets, status, payload, length);
}

int hbb_sim_fire_stream_event_by_id(int component_tag, int event_id, int status,
                                    const void* payload, int length) {
    std::vector<Subscription> targets;
    {
        std::lock_guard<std::mutex> lock(subscriptions_mutex);
        for (const Subscription& s : subscriptions)
            if (s.described && s.tag == component_tag && s.event_id == event_id) targets.push_back(s);
    }
    return fire(targets, status, payload, length);
}

}  // extern "C"
