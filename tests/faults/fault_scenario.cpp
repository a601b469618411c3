#include "fault_scenario.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <thread>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "hbb_sim.h"
#include "simulated_services.h"
#include "state/state.h"

namespace appmgr::faults {

namespace {

using standin::BrowserStandin;
using standin::Connection;
using Clock = std::chrono::steady_clock;

// A healthy library answers in milliseconds. In a run with a fault, a reply
// or a command that takes this long is taken as not coming (its connection
// is then left alone for the rest of the run); the run without faults waits
// longer, since all of its answers must come.
constexpr int kReplyMillis = 300;
constexpr int kFrameMillis = 200;
constexpr int kCleanRunMillis = 5000;

constexpr const char* kAppUrl = "dvb://1.2.3.1/app/index.html";
constexpr const char* kEvents = "dvb://1.2.3.1/app/events";
using appmgr::test::kOneRecord;
using appmgr::test::kRadioRecord;
using appmgr::test::kTwoRecord;
// Channel "Two" as a request carries it (type, ccid, onid, tsid, sid, name,
// dsd, idType, nid, TerminalChannel, MajorChannel).
const std::vector<std::string> kTwoRequest = {"0", "ccid:1.2.4", "1", "2", "4",  "Two",
                                              "dsd-a", "12", "10", "2", "2"};

// The middleware's start and stop callbacks, as a receiver registers them.
int on_start() { return application_manager_cmd_start(); }
int on_stop() { return 1; }

// Page loads the library reported through the decision trace: a message
// without a reply has been taken in once its decision is seen.
std::mutex decisions_mutex;
std::condition_variable decisions_changed;
int pages_loaded = 0;
void count_decision(const hbbDecision* decision, void*) {
    if (std::strcmp(decision->name, "page_loaded") != 0) return;
    std::lock_guard<std::mutex> lock(decisions_mutex);
    ++pages_loaded;
    decisions_changed.notify_all();
}
bool wait_pages_loaded(int count, int timeout_ms) {
    std::unique_lock<std::mutex> lock(decisions_mutex);
    return decisions_changed.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                      [count] { return pages_loaded >= count; });
}

void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

template <typename Call>
auto deadline(int milliseconds, const std::string& what, Call call) {
    auto result = std::async(std::launch::async, call);
    if (result.wait_for(std::chrono::milliseconds(milliseconds)) != std::future_status::ready) {
        std::fprintf(stderr, "HANG: %s did not return within %d ms\n", what.c_str(), milliseconds);
        std::fflush(nullptr);
        std::_Exit(1);
    }
    return result.get();
}

}  // namespace

Scenario::Scenario(std::string socket_dir) : dir_(std::move(socket_dir)) {}

Scenario::~Scenario() = default;

void Scenario::prepare() {
    hbb_sim_reset();
    appmgr::test::add_services();
    hbb_sim_add_si_descriptor("ccid:1.2.3", "0x1001", 0x54, -1, -1, "5402abcd");
    appmgr::test::register_listeners();
    hbb_sim_set_decision_hook(count_decision, nullptr);
    hbb_sim_set_free_memory(4321);
    hbb_sim_set_capability("+DL", 1);

    const std::string root = dir_ + "carousel/";
    write_file(root + "app/index.html", "<html><body>app</body></html>\n");
    write_file(root + "app/events.ste", "go\nstop\n");
    hbb_sim_set_carousel(1, root.c_str());

    hbb_sim_eit_clear();
    hbb_sim_eit_feed_line("service 1 2 3");
    hbb_sim_eit_feed_line("event 1 2 3 0x10 1790000000 1800|Evening News|Headlines|Part one.");
    hbb_sim_eit_feed_line("event 1 2 3 0x11 1790001800 3600|Film|A film|");

    if (!http_) {
        http_ = std::make_unique<appmgr::test::HttpTestServer>(std::chrono::seconds(24 * 3600));
        http_->respond("/events.xml", "200 OK",
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<dsmcc xmlns=\"urn:dvb:mis:dsmcc:2009\">\n"
                       "  <dsmcc_object component_tag=\"1\">\n"
                       "    <stream_event stream_event_id=\"7\" stream_event_name=\"go\"/>\n"
                       "  </dsmcc_object>\n</dsmcc>\n",
                       {"Content-Type: application/xml"});
        http_->respond("/portal.html", "200 OK", "<html><body>portal</body></html>\n",
                       {"Content-Type: text/html"});
    }
    // Applications signalled for HbbTV 1.1.1 may start.
    appmgr::state::ManagerLock lock;
    appmgr::state::set_terminal_version({1, 7, 1});
}

bool Scenario::start(BrowserStandin& browser, const std::string& label) {
    auto init = std::async(std::launch::async, [] { return applicationManagerInit(); });
    // The sockets exist once init has set the connections up; an init that
    // failed before never makes them, and then returns at once.
    const auto until = Clock::now() + std::chrono::seconds(3);
    bool all = false;
    while (!all && Clock::now() < until) {
        all = true;
        for (Connection c : standin::kAllConnections)
            if (!browser.connected(c) && !browser.connect(c, 20)) all = false;
        if (!all && init.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready) break;
    }
    if (browser.connected(Connection::Application)) browser.send(Connection::Application, "83|1|");
    // The browser wait (1 s in the walks) bounds init when the report is
    // lost.
    if (init.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        std::fprintf(stderr, "HANG: applicationManagerInit (%s)\n", label.c_str());
        std::fflush(nullptr);
        std::_Exit(1);
    }
    const int first = init.get();
    const int second = deadline(20000, "activation (" + label + ")", [] { return applicationManagerInit(); });
    application_manager_register(on_start, on_stop);
    return all && first == 1 && second == 1;
}

void Scenario::close(BrowserStandin& browser, const std::string& label) {
    deadline(20000, "applicationManagerDeInit (" + label + ")",
             [] { return applicationManagerDeInit(); });
    deadline(20000, "applicationManagerClose (" + label + ")",
             [] { return applicationManagerClose(); });
    browser.disconnectAll();
}

void Scenario::failed(const std::string& what) { failures_.push_back(what); }

void Scenario::ask(Connection c, int id, const std::vector<std::string>& fields,
                   const std::string& expected, bool whole) {
    const int index = static_cast<int>(c);
    const std::string what = std::string(standin::connectionName(c)) + " " + std::to_string(id);
    if (dead_[index]) return failed(what + ": skipped");
    auto reply = browser_->request(c, id, fields, reply_ms_);
    if (!reply) {
        dead_[index] = true;
        return failed(what + ": no reply");
    }
    if (whole ? *reply != expected : reply->rfind(expected, 0) != 0) failed(what + ": " + *reply);
}

void Scenario::askPrefix(Connection c, int id, const std::vector<std::string>& fields,
                         const std::string& prefix) {
    ask(c, id, fields, prefix, false);
}

void Scenario::tell(Connection c, const std::string& raw) {
    if (dead_[static_cast<int>(c)] || !browser_->send(c, raw)) failed("not sent: " + raw);
}

bool Scenario::frame(Connection c, int id, const char* first_field) {
    const int index = static_cast<int>(c);
    const std::string what = std::string(standin::connectionName(c)) + " frame " + std::to_string(id);
    if (dead_[index]) {
        failed(what + ": skipped");
        return false;
    }
    const auto until = Clock::now() + std::chrono::milliseconds(frame_ms_);
    while (Clock::now() < until) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        auto f = browser_->readFrame(c, static_cast<int>(left) + 1);
        if (!f) break;
        if (f->id == id && (first_field == nullptr || (!f->fields.empty() && f->fields[0] == first_field)))
            return true;
    }
    dead_[index] = true;
    failed(what + ": not sent");
    return false;
}

void Scenario::pluginRequests() {
    const Connection dtv = Connection::DtvPlugins;
    ask(dtv, 30, {}, kOneRecord);
    ask(dtv, 31, {"ccid:1.2.4"}, kTwoRecord);
    ask(dtv, 32, {"2"}, kRadioRecord);
    ask(dtv, 33, {"1", "2", "4"}, kTwoRecord);
    ask(dtv, 34, {"dsd-a", "3"}, kOneRecord);
    ask(dtv, 35, {}, "3|");
    askPrefix(dtv, 41, {"dvb-si"}, "threshold|dvb-si|");
    askPrefix(dtv, 42, {}, "eng|");
    ask(dtv, 43, {}, "2|");
    askPrefix(dtv, 45, {"0"}, "News|Headlines|1700000000|1800|ccid:1.2.3|0x1001|");
    ask(dtv, 44, {}, "4321|");
    ask(dtv, 103, {"ccid:1.2.3", "0x1001", "84", "-1", "-1"}, "1|");
    ask(dtv, 104, {"ccid:1.2.3", "0x1001", "84", "-1", "0"}, "5402abcd|");
    ask(dtv, 105, {"ccid:1.2.3", "0x1001"}, "Long news|");
    ask(dtv, 70, {"+DL"}, "1|");
    ask(dtv, 71, {}, "0|0|");
    askPrefix(dtv, 72, {}, "<");
    ask(dtv, 114, {"1"}, "2|");
    askPrefix(dtv, 116, {"1"}, "1|AAC|0|3|102|deu|");
    ask(dtv, 118, {"1"}, "1|");
    askPrefix(dtv, 120, {"0"}, "1|AAC|0|2|101|eng|");
    const std::vector<std::string> german = {"1", "AAC", "0", "3", "102", "deu", "1", "2"};
    ask(dtv, 111, german, "0|");
    ask(dtv, 110, german, "0|");
    ask(dtv, 106, {"2"}, "0|");
    ask(dtv, 107, {"2"}, "0|");
    askPrefix(dtv, 129, {"1", "AC3", "0", "9", "109", "fra", "0", "2"}, "");
    const std::vector<std::string> video = {"0", "H.264", "0", "1", "100", "1.78"};
    const std::vector<std::string> subtitle = {"2", "DVB", "0", "4", "103", "eng", "1"};
    askPrefix(dtv, 115, {"0"}, "0|H.264|0|1|100|");
    askPrefix(dtv, 117, {"0"}, "2|DVB|0|4|103|eng|");
    askPrefix(dtv, 119, {"0"}, "0|H.264|0|1|100|");
    ask(dtv, 121, {"0"}, "NOT_AVAILABLE|");
    ask(dtv, 109, video, "0|");
    ask(dtv, 108, video, "0|");
    ask(dtv, 112, subtitle, "0|");
    ask(dtv, 113, subtitle, "0|");
    askPrefix(dtv, 128, {"0", "MPEG2", "0", "8", "108", "1.33"}, "");
    ask(dtv, 9, {}, "ACK|");
    ask(dtv, 22, {"0"}, "0|");
    ask(dtv, 23, {"10", "20", "640", "360"}, "0|");
    ask(dtv, 126, {"1"}, "ACK|");
    ask(dtv, 127, {"1"}, "ACK|");
    ask(dtv, 3, {}, "TRUE|");
    ask(dtv, 0, {}, "ACK|");
    ask(dtv, 4, {}, "ACK|");
    ask(dtv, 0, {}, "ACK|");
    // Ids of no running application: only the receiver's intent goes out.
    ask(dtv, 51, {"99", "99"}, "ACK|");
    ask(dtv, 56, {}, "0|");
    ask(dtv, 57, {}, "16|1|");
    ask(dtv, 78, {}, "16|");
    askPrefix(dtv, 55, {"31", "0"}, "");
    ask(dtv, 401, {}, "faults/1.0|");
    const Connection vod = Connection::VodPlugins;
    ask(vod, 212, {}, "ACK|");
    ask(vod, 200, {"1"}, "1|");
    ask(vod, 234, {}, "0|");
}

void Scenario::searchRequests() {
    const Connection dtv = Connection::DtvPlugins;
    ask(dtv, 90, {"1", "5"}, "0|");
    ask(dtv, 92, {"1", "5", "1", "0", "0", "0", "0", "0"}, "0|");
    ask(dtv, 93, {"1", "5", "0", "1"}, "0|");
    ask(dtv, 94, {"1", "5", "0", "0", "0", "6", "news"}, "0|");
    // A channel constraint set and removed: the scan walks every service.
    ask(dtv, 122, {"1", "5", "1"}, "0|");
    ask(dtv, 123, {"1", "5", "0", "1", "2", "3"}, "0|");
    ask(dtv, 124, {"1", "5"}, "0|");
    ask(dtv, 96, {"1", "5", "0", "10"}, "0|");
    // The end of the scan: callback 67 of search 5.
    frame(Connection::Callbacks, 67, "5");
    askPrefix(dtv, 99, {"1", "5", "0"}, "Evening News|");
    ask(dtv, 100, {"1", "5", "0"}, "Headlines|");
    ask(dtv, 102, {"1", "5", "0"}, "Part one.|");
    ask(dtv, 101, {"1", "5"}, "0|");
    // No comparison groups: the events of one service, its own cache walked.
    ask(dtv, 90, {"1", "6"}, "0|");
    ask(dtv, 92, {"1", "6", "0", "0", "0", "1", "2", "3"}, "0|");
    ask(dtv, 96, {"1", "6", "0", "10"}, "0|");
    frame(Connection::Callbacks, 67, "6");
    askPrefix(dtv, 99, {"1", "6", "1"}, "Film|");
    ask(dtv, 101, {"1", "6"}, "0|");
}

void Scenario::broadcastObjects() {
    // The middleware's own use of the broadcast objects.
    auto check = [this](bool ok, const char* what) {
        if (!ok) failed(std::string("broadcast object: ") + what);
    };
    check(av_components_get_length(AV_COMPONENT_TYPE_AUDIO) >= 2, "audio components");
    check(av_components_get_length_of_active(AV_COMPONENT_TYPE_AUDIO) == 1, "active audio");
    AVVideoComponent* video = av_components_get_video_item(0);
    AVAudioComponent* audio = av_components_get_audio_item(1);
    AVSubtitleComponent* subtitle = av_components_get_subtitle_item(0);
    check(video && audio && subtitle, "component items");
    av_audio_component_destroy(av_components_get_active_audio_item(0));
    av_video_component_destroy(av_components_get_active_video_item(0));
    av_subtitle_component_destroy(av_components_get_active_subtitle_item(0));
    if (video) check(broadcast_unselect_av_video_component(video) == 0, "unselect video");
    if (video) check(broadcast_select_av_video_component(video) == 0, "select video");
    if (audio) check(broadcast_select_av_audio_component(audio) == 0, "select audio");
    if (audio) check(broadcast_unselect_av_audio_component(audio) == 0, "unselect audio");
    if (subtitle) check(broadcast_select_av_subtitle_component(subtitle) == 0, "select subtitle");
    if (subtitle) check(broadcast_unselect_av_subtitle_component(subtitle) == 0, "unselect subtitle");
    check(broadcast_select_default_av_component(AV_COMPONENT_TYPE_AUDIO) == 0, "select default");
    check(broadcast_unselect_av_component_by_type(AV_COMPONENT_TYPE_SUBTITLE) == 0, "unselect by type");
    av_video_component_destroy(video);
    av_audio_component_destroy(audio);
    av_subtitle_component_destroy(subtitle);
    hbb_sim_set_parental_rating_schemes(2);
    check(parental_rating_get_schemes() != nullptr, "rating schemes");
    parental_rating_release_schemes();
}

void Scenario::carouselRequests() {
    const Connection dsmcc = Connection::Dsmcc;
    askPrefix(dsmcc, 130, {kAppUrl}, "0|");
    askPrefix(dsmcc, 131, {kAppUrl}, "0|0|30|<html>");
    askPrefix(dsmcc, 132, {"dvb://1.2.3.1/app"}, "1|0|");
    askPrefix(dsmcc, 133, {kEvents}, "2|0|7|go,stop");
}

void Scenario::streamEvents() {
    const Connection dtv = Connection::DtvPlugins;
    const std::string described = http_->url("/events.xml");
    ask(dtv, 46, {kEvents, "go"}, "0|");
    ask(dtv, 46, {described, "go"}, "0|");
    hbb_sim_fire_carousel_stream_event(1, "app/events", "go", eQUMAm_DSMCC_EVENT_FIRE, "AB", 2);
    frame(Connection::Callbacks, 66);
    hbb_sim_fire_stream_event_by_id(1, 7, eQUMAm_DSMCC_EVENT_FIRE, "CD", 2);
    frame(Connection::Callbacks, 66);
    ask(dtv, 47, {kEvents, "go"}, "ACK|");
    ask(dtv, 47, {described, "go"}, "ACK|");
}

void Scenario::browserCrash(const std::string& label) {
    // The browser process dies: its "Application" connection drops, the
    // library waits for the next browser on the same socket.
    browser_->disconnect(Connection::Application);
    if (!browser_->connect(Connection::Application, reply_ms_)) {
        dead_[static_cast<int>(Connection::Application)] = true;
        return failed("Application: not accepted again after the crash");
    }
    browser_->send(Connection::Application, "83|1|");
    const auto until = Clock::now() + std::chrono::milliseconds(reply_ms_);
    while (appmgr::state::library() != APP_MANAGER_SUSPENDED && Clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (appmgr::state::library() != APP_MANAGER_SUSPENDED) failed("report after the crash not taken");
    // The middleware activates the library again.
    if (deadline(20000, "activation after the crash (" + label + ")",
                 [] { return applicationManagerInit(); }) != 1)
        failed("activation after the crash");
}

void Scenario::middlewareEvents(const std::string& label) {
    deadline(20000, "sendNetworkStatus (" + label + ")",
             [] { return hbb_sim_fire_network_status(NETWORK_ON); });
    // A directory module changed: the carousel is unmounted.
    deadline(20000, "module update (" + label + ")",
             [] { return hbb_sim_fire_module_update(7, 1, nullptr); });
    frame(Connection::Application, 27);
    const std::string portal = http_->url("/portal.html");
    if (deadline(20000, "openWebPortal (" + label + ")",
                 [&portal] { return openWebPortal(const_cast<char*>(portal.c_str())); }) != 1)
        failed("openWebPortal");
    frame(Connection::Application, 140);
    if (deadline(20000, "closeWebPortal (" + label + ")", [] { return closeWebPortal(); }) != 1)
        failed("closeWebPortal");
    int keys[] = {0x1CD};
    deadline(20000, "setKeySet (" + label + ")", [&keys] { return setKeySet(0x21F, keys); });
    // Tunes from the page: the middleware answers each on its own thread
    // with channelChanged; the first ends the service-bound application.
    auto fields = kTwoRequest;
    fields.push_back("0");
    for (const auto& [id, tune] : std::vector<std::pair<int, std::vector<std::string>>>{
             {1, {}}, {2, {}}, {20, fields}}) {
        ask(Connection::DtvPlugins, id, tune, id == 20 ? "0|" : "ACK|");
        if (hbb_sim_wait_notifications(20000) != 0) {
            std::fprintf(stderr, "HANG: channelChanged (%s)\n", label.c_str());
            std::fflush(nullptr);
            std::_Exit(1);
        }
        frame(Connection::Callbacks, 60);
    }
}

std::vector<std::string> Scenario::run(const std::string& label, bool with_fault) {
    reply_ms_ = with_fault ? kReplyMillis : kCleanRunMillis;
    frame_ms_ = with_fault ? kFrameMillis : kCleanRunMillis;
    failures_.clear();
    for (bool& d : dead_) d = false;
    browser_ = std::make_unique<BrowserStandin>(dir_);
    setAMUserAgent(const_cast<char*>("faults/1.0"));
    if (!start(*browser_, label)) failed("start");

    appmgr::test::AppSpec app;
    app.url = kAppUrl;
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", {app});
    deadline(20000, "aitUpdate (" + label + ")", [&ait] { return hbb_sim_fire_ait(ait.get()); });
    frame(Connection::Application, 50);
    // One block is one message: the next one goes once this one was seen.
    int loaded = 0;
    {
        std::lock_guard<std::mutex> lock(decisions_mutex);
        loaded = pages_loaded;
    }
    tell(Connection::Application, std::string("82|") + kAppUrl + "|");
    if (!wait_pages_loaded(loaded + 1, reply_ms_)) failed("page load not reported");
    tell(Connection::Application, "87|");
    frame(Connection::Application, 220);

    pluginRequests();
    carouselRequests();
    broadcastObjects();
    browserCrash(label);
    searchRequests();
    streamEvents();
    middlewareEvents(label);

    close(*browser_, label);
    browser_.reset();
    return failures_;
}

std::string Scenario::stillAnswers(const std::string& label) {
    BrowserStandin browser(dir_);
    std::string problem;
    if (!start(browser, label + ", after"))
        problem = "did not start";
    else if (browser.request(Connection::DtvPlugins, 30, {}, 5000).value_or("") != kOneRecord)
        problem = "no channel from dtvPlugins";
    else if (browser.request(Connection::Dsmcc, 130, {kAppUrl}, 5000).value_or("").rfind("0|", 0) != 0)
        problem = "no entry from DSMCC";
    close(browser, label + ", after");
    return problem;
}

}  // namespace appmgr::faults
