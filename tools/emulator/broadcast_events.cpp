#include "broadcast_events.h"

#include <algorithm>
#include <chrono>

#include "emu_output.h"
#include "hbb_sim.h"

namespace appmgr::emu {

void StreamEventBroadcast::start(const std::vector<StreamEventSpec>& events) {
    if (events.empty() || thread_.joinable()) return;
    // Listeners for events described outside the carousel can only be had
    // on the components that carry them.
    std::vector<int> tags;
    for (const StreamEventSpec& e : events)
        if (e.tag) tags.push_back(*e.tag);
    if (!tags.empty()) hbb_sim_set_stream_event_tags(tags.data(), static_cast<int>(tags.size()));
    for (const StreamEventSpec& e : events)
        emit("receiver  stream event " + e.name + " broadcast every " + std::to_string(e.interval_ms) + " ms" +
             (e.url ? " on " + *e.url : "") +
             (e.tag ? " (component tag " + std::to_string(*e.tag) + ", event id " + std::to_string(*e.event_id) + ")"
                    : "") +
             ", " + std::to_string(e.payloads.size()) + " payload" + (e.payloads.size() == 1 ? "" : "s"));
    {
        std::lock_guard<std::mutex> g(mu_);
        stopping_ = false;
    }
    thread_ = std::thread([this, events] { run(events); });
}

void StreamEventBroadcast::stop() {
    {
        std::lock_guard<std::mutex> g(mu_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
}

// Each event on its own schedule: the next payload when its interval has
// passed. Only deliveries that reached a listener are shown.
void StreamEventBroadcast::run(std::vector<StreamEventSpec> events) {
    using Clock = std::chrono::steady_clock;
    std::vector<Clock::time_point> due(events.size(), Clock::now());
    std::vector<std::size_t> next(events.size(), 0);
    std::unique_lock<std::mutex> g(mu_);
    while (!stopping_) {
        const std::size_t i =
            static_cast<std::size_t>(std::min_element(due.begin(), due.end()) - due.begin());
        if (cv_.wait_until(g, due[i], [this] { return stopping_; })) break;
        g.unlock();
        const StreamEventSpec& e = events[i];
        const std::string& payload = e.payloads[next[i]];
        const int length = static_cast<int>(payload.size());
        int reached = 0;
        if (e.url)
            reached += hbb_sim_fire_stream_event(e.url->c_str(), e.name.c_str(), eQUMAm_DSMCC_EVENT_FIRE,
                                                 payload.data(), length);
        if (e.tag)
            reached += hbb_sim_fire_stream_event_by_id(*e.tag, *e.event_id, eQUMAm_DSMCC_EVENT_FIRE, payload.data(),
                                                       length);
        if (reached > 0)
            emit("receiver  stream event " + e.name + " fired at " + std::to_string(reached) + " listener" +
                 (reached == 1 ? "" : "s") + " with " + quoted(payload));
        next[i] = (next[i] + 1) % e.payloads.size();
        due[i] = Clock::now() + std::chrono::milliseconds(e.interval_ms);
        g.lock();
    }
}

}  // namespace appmgr::emu
