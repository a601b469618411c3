// The load of a soak: a page on each of the five browser connections and
// the middleware's notifications from several threads at once.
//
// Each page has a thread of its own that keeps its connection busy with the
// requests a page makes (channels, programmes, components, the user agent,
// EPG searches, carousel files, media, page events; callbacks read as they
// come) and that, when asked, plays a crash of that connection: a few
// requests go out and the connection drops before their replies are read,
// then it connects again and shows that the library serves it. The crash of
// "Application" is the browser process's as the library sees it: the new
// browser reports itself and the middleware activates the library again.
// A whole browser crash drops all five at once.
//
// The middleware threads fire AIT updates, channel changes, network
// changes, key sets and stream events, each at its own pace, until stopped.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "browser_standin.h"

namespace appmgr::soak {

using standin::BrowserStandin;
using standin::Connection;

// What the load did, and what went wrong.
struct Tally {
    std::atomic<long> answered{0};     // replies, commands and callbacks read
    std::atomic<long> in_flight{0};    // requests left unanswered by a crash
    std::array<std::atomic<long>, standin::kConnectionCount> crashes{};
    std::atomic<long> browser_crashes{0};  // all five connections at once
    std::atomic<long> searches{0};
    std::atomic<long> ait_updates{0};
    std::atomic<long> channel_changes{0};
    std::atomic<long> network_changes{0};
    std::atomic<long> key_sets{0};
    std::atomic<long> stream_events{0};

    // Zeroes the counts above (errors stay).
    void reset_counts();
    void error(const std::string& what);
    std::vector<std::string> errors() const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> errors_;
};

class Load {
public:
    // Services, carousel (served from carousel_dir) and EIT cache of the
    // simulated receiver the load expects; before the library starts.
    static void prepare_receiver(const std::string& carousel_dir);

    Load(BrowserStandin& browser, Tally& tally, unsigned seed);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    // The page's one-time set-up (a stream-event listener) and the AIT that
    // starts its application; then the threads.
    void start();
    // Stops and joins every thread; the page removes its listener.
    void stop();
    // Has the page on c crash its connection and come back; false (with
    // the reason in the tally) when it did not within timeout_ms.
    bool crash(Connection c, int timeout_ms);
    // The browser process dies: all five connections drop at once, with
    // requests in flight, and a new browser connects, reports itself and
    // is activated by the middleware. The pages go on afterwards.
    bool crash_browser(int timeout_ms);

private:
    // The report of a new browser on "Application" and the middleware's
    // activation that follows.
    static bool browser_returns(BrowserStandin& browser, Tally& tally);
    class Page;
    void middleware(int which);

    BrowserStandin& browser_;
    Tally& tally_;
    unsigned seed_;
    std::atomic<bool> stopping_{false};
    std::vector<std::unique_ptr<Page>> pages_;
    std::vector<std::thread> middleware_;
};

}  // namespace appmgr::soak
