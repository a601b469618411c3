// The stream events a scenario's broadcast carries ([stream_event.NAME]):
// fired at whatever listens, each payload in turn, on a thread of their
// own while the run lasts.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "scenario.h"

namespace appmgr::emu {

class StreamEventBroadcast {
public:
    StreamEventBroadcast() = default;
    ~StreamEventBroadcast() { stop(); }
    StreamEventBroadcast(const StreamEventBroadcast&) = delete;
    StreamEventBroadcast& operator=(const StreamEventBroadcast&) = delete;

    // Starts firing the events (nothing when there are none).
    void start(const std::vector<StreamEventSpec>& events);
    // Stops and joins the thread; no event is fired after it returns.
    void stop();

private:
    void run(std::vector<StreamEventSpec> events);

    std::mutex mu_;
    std::condition_variable cv_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace appmgr::emu
