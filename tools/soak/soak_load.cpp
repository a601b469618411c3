#include "soak_load.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>

#include "ait_builder.h"
#include "app_mgr.h"
#include "hbb_sim.h"
#include "simulated_services.h"
#include "state/state.h"

namespace appmgr::soak {

namespace {

using Clock = std::chrono::steady_clock;

// How long a healthy library may take for anything the load waits for; a
// sanitizer build on a busy machine is far slower than usual.
constexpr int kReplyMillis = 10000;

constexpr const char* kAppUrl = "dvb://1.2.3.1/app/index.html";
constexpr const char* kOtherAppUrl = "dvb://1.2.3.1/app/other.html";
constexpr const char* kEventsUrl = "dvb://1.2.3.1/app/events";

void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// A request of a page: its id and fields.
struct Request {
    int id;
    std::vector<std::string> fields;
};

// The page's traffic on each request connection, taken in turn. Every
// eighth step of "dtvPlugins" is a whole EPG search instead.
const std::vector<Request> kDtvRequests = {
    {30, {}}, {33, {"1", "2", "4"}}, {35, {}}, {43, {}}, {45, {"0"}}, {44, {}},
    {114, {"1"}}, {116, {"0"}}, {118, {"1"}}, {401, {}}, {56, {}}, {125, {}}};
const std::vector<Request> kSearch = {
    {101, {"1", "9"}}, {90, {"1", "9"}}, {92, {"1", "9", "1", "0", "0", "0", "0", "0"}},
    {93, {"1", "9", "0", "1"}}, {94, {"1", "9", "0", "0", "0", "6", "news"}},
    {96, {"1", "9", "0", "10"}}, {99, {"1", "9", "0"}}, {101, {"1", "9"}}};
const std::vector<Request> kVodRequests = {
    {212, {}}, {213, {}}, {234, {}}, {240, {"1"}}, {200, {"1"}}};
const std::vector<Request> kDsmccRequests = {
    {130, {kAppUrl}}, {131, {kAppUrl}}, {132, {"dvb://1.2.3.1/app"}}, {133, {kEventsUrl}}};
// What a page sends just before its connection drops.
const std::vector<Request> kDtvInFlight = {{96, {"1", "9", "0", "10"}}, {30, {}}, {45, {"0"}}};

}  // namespace

void Tally::reset_counts() {
    for (auto* count : {&answered, &in_flight, &browser_crashes, &searches, &ait_updates,
                        &channel_changes, &network_changes, &key_sets, &stream_events})
        *count = 0;
    for (auto& count : crashes) count = 0;
}

void Tally::error(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (errors_.size() < 50) errors_.push_back(what);
}

std::vector<std::string> Tally::errors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

// ---- the page on one connection ----------------------------------------------

class Load::Page {
public:
    Page(Load& load, Connection c) : load_(load), c_(c) {}
    ~Page() { join(); }

    void start() { thread_ = std::thread([this] { run(); }); }

    // Holds the page between two steps (its connection then belongs to the
    // caller) until released; false when it did not stop in time.
    bool hold(int timeout_ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        hold_ = true;
        changed_.notify_all();
        if (changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return held_; }))
            return true;
        load_.tally_.error(std::string(name()) + ": the page did not stop in time");
        return false;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        hold_ = false;
        changed_.notify_all();
    }
    void join() {
        if (thread_.joinable()) thread_.join();
    }

    bool crash(int timeout_ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        requested_ = true;
        done_ = false;
        if (!changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return done_; })) {
            load_.tally_.error(std::string("the crash of ") + standin::connectionName(c_) +
                               " did not end in time");
            return false;
        }
        return ok_;
    }

private:
    void run() {
        while (!load_.stopping_) {
            bool crash_now;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                if (hold_) {
                    held_ = true;
                    changed_.notify_all();
                    changed_.wait(lock, [this] { return !hold_; });
                    held_ = false;
                    continue;
                }
                crash_now = requested_;
            }
            if (!crash_now) {
                work();
                continue;
            }
            const bool ok = crash_and_return();
            std::lock_guard<std::mutex> lock(mutex_);
            requested_ = false;
            done_ = true;
            ok_ = ok;
            changed_.notify_all();
        }
    }

    BrowserStandin& browser() { return load_.browser_; }
    const char* name() const { return standin::connectionName(c_); }
    bool fail(const std::string& what) {
        load_.tally_.error(std::string(name()) + ": " + what);
        return false;
    }

    bool ask(const Request& r) {
        if (browser().request(c_, r.id, r.fields, kReplyMillis)) {
            ++load_.tally_.answered;
            return true;
        }
        return fail("no reply to " + std::to_string(r.id));
    }

    // Reads frames until one with this id; false when none came in time.
    // `cause` (when given) makes the library send it, again every 100 ms:
    // a command sent before the library has accepted the connection anew
    // is dropped, and the browser cannot tell when that happened.
    bool frame(int id, void (*cause)() = nullptr) {
        const auto until = Clock::now() + std::chrono::milliseconds(kReplyMillis);
        while (Clock::now() < until) {
            if (cause != nullptr) cause();
            for (auto next = Clock::now() + std::chrono::milliseconds(100); Clock::now() < next;) {
                auto f = browser().readFrame(c_, 100);
                if (!f) continue;
                ++load_.tally_.answered;
                if (f->id == id) return true;
            }
        }
        return fail("no command " + std::to_string(id));
    }

    // Frames that arrive within `ms`, counted and dropped.
    void drain(int ms) {
        if (browser().readFrame(c_, ms)) ++load_.tally_.answered;
    }

    void work() {
        ++step_;
        switch (c_) {
            case Connection::Application:
                // A page reports its load now and then; commands are read.
                if (step_ % 20 == 0) browser().send(c_, std::string("82|") + kAppUrl + "|");
                drain(5);
                break;
            case Connection::DtvPlugins:
                if (step_ % 8 == 0) {
                    for (const Request& r : kSearch)
                        if (!ask(r)) break;
                    ++load_.tally_.searches;
                } else {
                    ask(kDtvRequests[static_cast<size_t>(step_) % kDtvRequests.size()]);
                }
                break;
            case Connection::VodPlugins:
                ask(kVodRequests[static_cast<size_t>(step_) % kVodRequests.size()]);
                break;
            case Connection::Callbacks:
                drain(20);
                break;
            case Connection::Dsmcc:
                ask(kDsmccRequests[static_cast<size_t>(step_) % kDsmccRequests.size()]);
                break;
        }
    }

    // Requests that go out just before the drop; their replies are never
    // read.
    void send_in_flight() {
        std::vector<Request> requests;
        if (c_ == Connection::DtvPlugins) requests = kDtvInFlight;
        if (c_ == Connection::VodPlugins) requests = {{212, {}}, {234, {}}};
        if (c_ == Connection::Dsmcc) requests = {{131, {kAppUrl}}};
        for (const Request& r : requests)
            if (browser().sendRequest(c_, r.id, r.fields)) ++load_.tally_.in_flight;
        if (c_ == Connection::Application &&
            browser().send(c_, std::string("82|") + kAppUrl + "|"))
            ++load_.tally_.in_flight;
    }

    // The new browser on "Application" reports itself and the middleware
    // activates the library again; the time zone is the command that shows
    // the connection works.
    bool application_returns() {
        if (!Load::browser_returns(browser(), load_.tally_)) return false;
        return frame(141, [] { setTimeZone(0, 1, 0); });
    }

    bool crash_and_return() {
        send_in_flight();
        browser().disconnect(c_);
        if (!browser().connect(c_, kReplyMillis)) return fail("not accepted again");
        ++load_.tally_.crashes[static_cast<size_t>(c_)];
        switch (c_) {
            case Connection::Application:
                return application_returns();
            case Connection::DtvPlugins:
                return ask({401, {}});
            case Connection::VodPlugins:
                return ask({234, {}});
            case Connection::Callbacks:
                // The middleware's notification reaches the new connection.
                return frame(500, [] { hbb_sim_fire_programmes_changed(); });
            case Connection::Dsmcc:
                return ask({130, {kAppUrl}});
        }
        return false;
    }

    Load& load_;
    Connection c_;
    int step_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool requested_ = false;
    bool done_ = false;
    bool ok_ = false;
    bool hold_ = false;
    bool held_ = false;
};

// ---- the load --------------------------------------------------------------------

void Load::prepare_receiver(const std::string& carousel_dir) {
    hbb_sim_reset();
    appmgr::test::add_services();
    appmgr::test::register_listeners();
    write_file(carousel_dir + "app/index.html", "<html><body>app</body></html>\n");
    write_file(carousel_dir + "app/other.html", "<html><body>other</body></html>\n");
    write_file(carousel_dir + "app/events.ste", "go\nstop\n");
    hbb_sim_set_carousel(1, carousel_dir.c_str());
    hbb_sim_eit_clear();
    hbb_sim_eit_generate(10, 50, static_cast<int>(std::time(nullptr)), 1);
    // Applications signalled for HbbTV 1.1.1 may start.
    appmgr::state::ManagerLock lock;
    appmgr::state::set_terminal_version({1, 7, 1});
}

Load::Load(BrowserStandin& browser, Tally& tally, unsigned seed)
    : browser_(browser), tally_(tally), seed_(seed) {}

Load::~Load() { stop(); }

void Load::start() {
    stopping_ = false;
    if (!browser_.request(Connection::DtvPlugins, 46, {kEventsUrl, "go"}, kReplyMillis))
        tally_.error("the stream-event listener was not added");
    for (Connection c : standin::kAllConnections) pages_.push_back(std::make_unique<Page>(*this, c));
    for (auto& page : pages_) page->start();
    for (int which = 0; which < 5; ++which) middleware_.emplace_back([this, which] { middleware(which); });
}

void Load::stop() {
    stopping_ = true;
    for (auto& t : middleware_) t.join();
    middleware_.clear();
    for (auto& page : pages_) page->join();
    if (!pages_.empty() &&
        !browser_.request(Connection::DtvPlugins, 47, {kEventsUrl, "go"}, kReplyMillis))
        tally_.error("the stream-event listener was not removed");
    pages_.clear();
}

bool Load::crash(Connection c, int timeout_ms) {
    return pages_[static_cast<size_t>(c)]->crash(timeout_ms);
}

bool Load::browser_returns(BrowserStandin& browser, Tally& tally) {
    if (!browser.send(Connection::Application, "83|1|")) {
        tally.error("Application: report not sent");
        return false;
    }
    const auto until = Clock::now() + std::chrono::milliseconds(kReplyMillis);
    while (appmgr::state::library() != APP_MANAGER_SUSPENDED && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (appmgr::state::library() != APP_MANAGER_SUSPENDED) {
        tally.error("Application: report not taken");
        return false;
    }
    if (applicationManagerInit() != 1) {
        tally.error("Application: not activated again");
        return false;
    }
    return true;
}

bool Load::crash_browser(int timeout_ms) {
    // The pages stop between two steps; the process then dies with requests
    // of every page in flight, and a new one connects all five.
    bool ok = true;
    for (auto& page : pages_) ok = page->hold(timeout_ms) && ok;
    if (ok) {
        for (const Request& r : kDtvInFlight)
            if (browser_.sendRequest(Connection::DtvPlugins, r.id, r.fields)) ++tally_.in_flight;
        if (browser_.sendRequest(Connection::Dsmcc, 131, {kAppUrl})) ++tally_.in_flight;
        browser_.disconnectAll();
        ok = browser_.connectAll(timeout_ms);
        if (!ok) tally_.error("the new browser was not accepted");
        ok = ok && browser_returns(browser_, tally_);
        if (ok) ++tally_.browser_crashes;
    }
    for (auto& page : pages_) page->release();
    return ok;
}

// One middleware thread: 0 AIT updates, 1 channel changes, 2 network
// changes, 3 key sets, 4 stream events; each a few milliseconds apart.
void Load::middleware(int which) {
    std::mt19937 random(seed_ + static_cast<unsigned>(which));
    appmgr::test::AppSpec first;
    first.url = kAppUrl;
    appmgr::test::AppSpec second;
    second.app = 2;
    second.url = kOtherAppUrl;
    appmgr::test::OwnedAit one(16, "dvb://1.2.3", {first});
    appmgr::test::OwnedAit other(16, "dvb://1.2.3", {second});
    for (long n = 0; !stopping_; ++n) {
        switch (which) {
            case 0:
                hbb_sim_fire_ait(n % 2 == 0 ? one.get() : other.get());
                ++tally_.ait_updates;
                break;
            case 1: {
                // The middleware tunes on its own and tells the library.
                const int position = static_cast<int>(n % 2);
                hbb_sim_set_current_channel(position);
                if (Channel* channel = hbbGetChannelByPosition(position)) {
                    channelChanged(channel);
                    channel_destroy(channel);
                }
                ++tally_.channel_changes;
                break;
            }
            case 2:
                hbb_sim_fire_network_status(n % 2 == 0 ? NETWORK_OFF : NETWORK_ON);
                ++tally_.network_changes;
                break;
            case 3: {
                int other_keys[] = {0x1CD, 0x1CE};
                setKeySet(static_cast<int>(random() % 0x800), n % 2 == 0 ? other_keys : nullptr);
                ++tally_.key_sets;
                break;
            }
            case 4: {
                const char payload[] = "soak event";
                hbb_sim_fire_carousel_stream_event(1, "app/events", "go", eQUMAm_DSMCC_EVENT_FIRE,
                                                   payload, static_cast<int>(sizeof payload - 1));
                ++tally_.stream_events;
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(1000 + random() % 2000));
    }
}

}  // namespace appmgr::soak
