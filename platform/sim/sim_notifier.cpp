// The middleware's notifier thread: the broadcast notifications (channel
// changes, programme, component and parental-rating changes, stream events)
// reach the library from here, in the order they were posted, never from
// inside a porting call. The library's entry points are registered by the
// host (hbb_sim_set_listeners): the simulator does not link to the library.
//
// The thread starts with the first notification and is stopped (and
// joined) by hbb_sim_reset and at process exit. Tasks run without any
// simulator lock held, because they enter the library, which takes its own
// locks and calls porting functions.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "sim_internal.h"

namespace {

class Notifier {
public:
    ~Notifier() { stop(); }

    void post(std::function<void()> task) {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(task));
        if (!worker_.joinable()) {
            stopping_ = false;
            worker_ = std::thread([this] { run(); });
        }
        wake_.notify_all();
    }

    bool wait_idle(int timeout_ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        return idle_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                              [this] { return queue_.empty() && !busy_; });
    }

    // Drops what is still queued and joins the thread (after the task it is
    // running, if any).
    void stop() {
        std::thread worker;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            queue_.clear();
            worker = std::move(worker_);
        }
        wake_.notify_all();
        if (worker.joinable()) worker.join();
        std::lock_guard<std::mutex> lock(mutex_);
        busy_ = false;
        idle_.notify_all();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) return;
            std::function<void()> task = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
            lock.unlock();
            task();
            lock.lock();
            busy_ = false;
            if (queue_.empty()) idle_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> queue_;
    std::thread worker_;
    bool stopping_ = false;
    bool busy_ = false;
};

Notifier notifier;

std::mutex listeners_mutex;
hbb_sim_listeners registered{};

}  // namespace

namespace hbbsim {

void post(std::function<void()> task) { notifier.post(std::move(task)); }

hbb_sim_listeners listeners() {
    std::lock_guard<std::mutex> lock(listeners_mutex);
    return registered;
}

void reset_notifier() {
    notifier.stop();
    std::lock_guard<std::mutex> lock(listeners_mutex);
    registered = hbb_sim_listeners{};
}

}  // namespace hbbsim

extern "C" {

void hbb_sim_set_listeners(const hbb_sim_listeners* listeners) {
    std::lock_guard<std::mutex> lock(listeners_mutex);
    registered = listeners != nullptr ? *listeners : hbb_sim_listeners{};
}

int hbb_sim_wait_notifications(int timeout_ms) { return notifier.wait_idle(timeout_ms) ? 0 : -1; }

int hbb_sim_fire_programmes_list_changed(void) {
    auto fn = hbbsim::listeners().programmes_list_changed;
    if (!fn) return -1;
    hbbsim::post([fn] { fn(); });
    return 0;
}

int hbb_sim_fire_programmes_changed(void) {
    auto fn = hbbsim::listeners().programmes_changed;
    if (!fn) return -1;
    hbbsim::post([fn] { fn(); });
    return 0;
}

int hbb_sim_fire_component_changed(int component_type) {
    auto fn = hbbsim::listeners().component_changed;
    if (!fn) return -1;
    hbbsim::post([fn, component_type] { fn(component_type); });
    return 0;
}

int hbb_sim_fire_parental_rating_changed(int ratings, int blocked) {
    auto fn = hbbsim::listeners().parental_rating_changed;
    if (!fn) return -1;
    hbbsim::post([fn, ratings, blocked] {
        ParentalRatingCollection collection{ratings};
        fn(&collection, blocked);
    });
    return 0;
}

int hbb_sim_fire_parental_rating_error(int ratings) {
    auto fn = hbbsim::listeners().parental_rating_error;
    if (!fn) return -1;
    hbbsim::post([fn, ratings] {
        ParentalRatingCollection collection{ratings};
        fn(&collection);
    });
    return 0;
}

}  // extern "C"
