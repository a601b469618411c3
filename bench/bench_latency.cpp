// appmgr-latency: end-to-end latencies of the library, each over repeated
// runs (median and p99), beside the floor of the same path without the
// library, measured in the same run (see README.md):
//
//   - AIT delivered -> start command (50) on the browser socket, for a
//     carousel application and for an HTTP application on a loopback server;
//   - channel change -> kill command (51);
//   - browser crash (its sockets close) -> the browser's new report taken
//     (library suspended again);
//   - with the real browser (tools/web-browser, Debian's chromium): AIT
//     delivered -> first paint of the page.
//
// The library is the static test copy with its sockets in a private
// directory; nothing else of it is changed. The "browser" is a raw client
// on the five sockets whose reader thread stamps each frame as it arrives.
// With --figures=FILE the rows are also written to FILE as Markdown.
#include <curl/curl.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_broadcast.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "common/seams.h"
#include "figures.h"
#include "hbb_sim.h"
#include "http_test_server.h"
#include "state/state.h"
#ifdef APPMGR_LATENCY_WEB_BROWSER
#include "node_program.h"
#endif

namespace bench = appmgr::bench;
using Clock = std::chrono::steady_clock;
using appmgr::test::AppSpec;
using appmgr::test::OwnedAit;

namespace {

constexpr int kRuns = 200;
constexpr int kCrashRuns = 50;
constexpr int kPaintRuns = 10;
constexpr int kTag = 1;
const char* const kSocketFiles[5] = {"UNIX_APP.domain", "UNIX_H_PLUIN.domain", "UNIX_C_PLUIN.domain",
                                     "UNIX_CB.domain", "UNIX_DSMCC.domain"};

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "appmgr-latency: %s\n", what.c_str());
    std::exit(1);
}

// ---- the browser side: raw sockets, frames stamped on arrival ----------------------------

// Reads every connection it is given on a thread of its own; each frame the
// library sends is recorded with the time its last byte was received.
class FrameReader {
public:
    struct Arrival {
        int connection;
        int id;
        Clock::time_point at;
    };

    explicit FrameReader(std::vector<int> fds) : fds_(std::move(fds)), buffers_(fds_.size()) {
        if (::pipe2(stop_, O_CLOEXEC) != 0) fail("pipe");
        thread_ = std::thread([this] { run(); });
    }
    ~FrameReader() {
        char byte = 1;
        if (::write(stop_[1], &byte, 1) != 1) std::abort();
        thread_.join();
        ::close(stop_[0]);
        ::close(stop_[1]);
    }

    // Number of frames recorded so far: a mark for wait().
    std::size_t mark() {
        std::lock_guard<std::mutex> lock(mutex_);
        return arrivals_.size();
    }
    // The first frame `id` on `connection` recorded after `mark`.
    std::optional<Clock::time_point> wait(int connection, int id, std::size_t mark, int timeout_ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            for (std::size_t i = mark; i < arrivals_.size(); ++i)
                if (arrivals_[i].connection == connection && arrivals_[i].id == id) return arrivals_[i].at;
            if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) return std::nullopt;
        }
    }

private:
    void run() {
        std::vector<pollfd> polled;
        for (int fd : fds_) polled.push_back({fd, POLLIN, 0});
        polled.push_back({stop_[0], POLLIN, 0});
        char bytes[8192];
        for (;;) {
            if (::poll(polled.data(), polled.size(), -1) < 0) continue;
            if (polled.back().revents != 0) return;
            for (std::size_t c = 0; c < fds_.size(); ++c) {
                if (polled[c].revents == 0) continue;
                const ssize_t n = ::recv(fds_[c], bytes, sizeof bytes, MSG_DONTWAIT);
                if (n <= 0) {
                    polled[c].fd = -1;  // closed: no more frames on it
                    continue;
                }
                const Clock::time_point at = Clock::now();
                buffers_[c].append(bytes, static_cast<std::size_t>(n));
                std::lock_guard<std::mutex> lock(mutex_);
                while (auto frame = appmgr::standin::decodeFrame(buffers_[c]))
                    arrivals_.push_back({static_cast<int>(c), frame->id, at});
                changed_.notify_all();
            }
        }
    }

    std::vector<int> fds_;
    std::vector<std::string> buffers_;
    int stop_[2] = {-1, -1};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Arrival> arrivals_;
    std::thread thread_;
};

// Connects to a UNIX socket path as soon as it accepts, retrying every 50 µs.
int connect_soon(const std::string& path, int timeout_ms) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
        ::close(fd);
        if (Clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

// ---- the receiver: channels, a carousel, the middleware's callbacks ------------------------

void set_up_receiver(const std::string& carousel_dir) {
    hbb_sim_reset();
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_level(5);
    appmgr::test::add_tv_channel("ccid:1.2.3", 3, "One");
    appmgr::test::add_tv_channel("ccid:1.2.4", 4, "Two");
    hbb_sim_set_current_channel(0);
    if (hbb_sim_set_carousel(kTag, carousel_dir.c_str()) != 0) fail("cannot serve the carousel");
}

// The middleware's answer to the start and stop callbacks, as a receiver's.
void register_middleware() {
    application_manager_register([] { return application_manager_cmd_start(); },
                                 [] { return application_manager_cmd_stop(); });
}

void set_network_on() {
    appmgr::state::ManagerLock lock;
    appmgr::state::set_network(NETWORK_ON);
}

void set_terminal_version() {
    appmgr::state::ManagerLock lock;
    appmgr::state::set_terminal_version({1, 7, 1});
}

// Waits (bounded) until every connection's server thread has accepted.
void wait_accepted() {
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    for (int c = 0; c < MNG_CONNECTION_TYPE_SIZE; ++c)
        while (gData.mng_connection[c].messenger.state != MESSENGER_STATE_STARTED) {
            if (Clock::now() > deadline) fail("the library did not accept the browser");
            std::this_thread::yield();
        }
}

// The library brought up the middleware's way, a raw browser on its five
// sockets (in the library's index order).
class Library {
public:
    explicit Library(const std::string& dir) : dir_(dir) {
        std::thread first([] { applicationManagerInit(); });
        for (int c = 0; c < MNG_CONNECTION_TYPE_SIZE; ++c) {
            fds_[c] = connect_soon(dir_ + kSocketFiles[c], 10000);
            if (fds_[c] < 0) fail("cannot connect to the library");
        }
        report();
        first.join();
        if (appmgr_state != APP_MANAGER_SUSPENDED) fail("the browser report was not taken");
        applicationManagerInit();
        if (appmgr_state != APP_MANAGER_INITIALIZED) fail("the library did not become active");
        register_middleware();
        set_terminal_version();
        set_network_on();
        wait_accepted();
    }
    ~Library() {
        applicationManagerClose();
        for (int fd : fds_)
            if (fd >= 0) ::close(fd);
    }
    void report() {
        if (!bench::send_all(fds_[MNG_CONNECTION_TYPE_APP], "83|1|", 5)) fail("cannot report the browser");
    }
    std::vector<int> fds() const { return {fds_, fds_ + MNG_CONNECTION_TYPE_SIZE}; }
    // The browser process ends: all five sockets close; then it connects
    // again as soon as the library listens.
    void crash() {
        for (int& fd : fds_) {
            ::close(fd);
            fd = -1;
        }
    }
    void reconnect(int c) {
        fds_[c] = connect_soon(dir_ + kSocketFiles[c], 10000);
        if (fds_[c] < 0) fail("cannot connect again after the crash");
    }

private:
    std::string dir_;
    int fds_[MNG_CONNECTION_TYPE_SIZE] = {-1, -1, -1, -1, -1};
};

void deliver(const std::vector<AppSpec>& apps) {
    OwnedAit ait(16, "dvb://1.2.3", apps);
    if (hbb_sim_fire_ait(ait.get()) != 0) fail("the AIT was not delivered");
}

AppSpec carousel_app() {
    AppSpec a;
    a.org = 0x10;
    a.app = 1;
    a.url = "dvb://1.2.3.1/index.html";
    a.control = AUTOSTART;
    return a;
}

// ---- one latency row -------------------------------------------------------------------------

struct Latency {
    std::string what;
    bench::Samples samples;
    std::string floor;
    bench::Samples floor_samples;
    std::string note;
};

std::string latency_row(const Latency& l) {
    auto cell = [](const bench::Samples& s, double p) {
        return s.size() > 0 ? bench::format_duration(s.percentile(p)) : std::string("n/a");
    };
    std::string ratio = "n/a";
    if (l.samples.size() > 0 && l.floor_samples.size() > 0 && l.floor_samples.percentile(50) > 0) {
        char text[16];
        std::snprintf(text, sizeof text, "%.1f", l.samples.percentile(50) / l.floor_samples.percentile(50));
        ratio = text;
    }
    return "| " + l.what + " | " + cell(l.samples, 50) + " | " + cell(l.samples, 99) + " | " +
           std::to_string(l.samples.size()) + " | " + l.floor + " | " + cell(l.floor_samples, 50) +
           " | " + ratio + " | " + l.note + " |";
}

// ---- floors: the same paths without the library -------------------------------------------

// One frame from a thread to the browser's reader thread, over a UNIX
// socket pair.
bench::Samples frame_floor() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) fail("socketpair");
    bench::Samples samples;
    {
        FrameReader reader({sv[1]});
        const std::string frame = "  351|";
        for (int i = 0; i < kRuns; ++i) {
            const std::size_t mark = reader.mark();
            const auto begin = Clock::now();
            bench::send_all(sv[0], frame.data(), frame.size());
            auto at = reader.wait(0, 51, mark, 1000);
            if (!at) fail("the floor frame did not arrive");
            samples.add(begin, *at);
        }
    }
    ::close(sv[0]);
    ::close(sv[1]);
    return samples;
}

// A HEAD request with a fresh libcurl handle, as the library's probe makes it.
bench::Samples http_floor(const std::string& url) {
    bench::Samples samples;
    for (int i = 0; i < kRuns; ++i) {
        const auto begin = Clock::now();
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        const CURLcode result = curl_easy_perform(curl);
        curl_easy_cleanup(curl);
        if (result != CURLE_OK) fail("the loopback server did not answer");
        samples.add(begin, Clock::now());
    }
    return samples;
}

// A server that accepts one client per set-up, as the library's connections
// do: after the client closes, the socket is bound and listened on again,
// the client connects and sends its report.
bench::Samples reconnect_floor(const std::string& dir) {
    const std::string path = dir + "floor.domain";
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::condition_variable reported;
    std::optional<Clock::time_point> report_at;
    std::thread server([&] {
        char bytes[64];
        while (!stop) {
            const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
            ::unlink(path.c_str());
            if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
                ::listen(listener, 20) != 0)
                fail("cannot listen for the floor");
            const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            ::close(listener);
            ::unlink(path.c_str());
            while (client >= 0 && ::recv(client, bytes, sizeof bytes, 0) > 0) {
                std::lock_guard<std::mutex> lock(mutex);
                report_at = Clock::now();
                reported.notify_all();
            }
            if (client >= 0) ::close(client);
        }
    });
    bench::Samples samples;
    int fd = -1;
    // The first round only connects: once its report arrived, the server has
    // accepted and removed the socket file, so no later connect can reach a
    // listener that is about to close.
    for (int i = 0; i <= kCrashRuns; ++i) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            report_at.reset();
        }
        const auto begin = Clock::now();
        if (fd >= 0) ::close(fd);
        fd = connect_soon(path, 5000);
        if (fd < 0 || !bench::send_all(fd, "83|1|", 5)) fail("the floor's reconnect failed");
        std::unique_lock<std::mutex> lock(mutex);
        if (!reported.wait_for(lock, std::chrono::seconds(5), [&] { return report_at.has_value(); }))
            fail("the floor's report did not arrive");
        if (i > 0) samples.add(begin, *report_at);
    }
    stop = true;
    ::close(fd);
    // Unblock the server's accept with a last client.
    const int last = connect_soon(path, 1000);
    if (last >= 0) ::close(last);
    server.join();
    return samples;
}

// ---- the library's paths ---------------------------------------------------------------------

struct Paths {
    Latency carousel, http, channel, crash;
};

// AIT -> 50 for a table holding `app`; the empty AIT that follows ends it.
void measure_start(FrameReader& reader, const AppSpec& app, Latency& out) {
    for (int i = 0; i < kRuns; ++i) {
        std::size_t mark = reader.mark();
        const auto begin = Clock::now();
        deliver({app});
        auto at = reader.wait(MNG_CONNECTION_TYPE_APP, 50, mark, 5000);
        if (!at) fail("no start command for " + app.url);
        out.samples.add(begin, *at);
        mark = reader.mark();
        deliver({});
        if (!reader.wait(MNG_CONNECTION_TYPE_APP, 51, mark, 5000)) fail("the application was not ended");
    }
}

void change_channel(int index) {
    if (hbb_sim_set_current_channel(index) != 0) fail("no such channel");
    Channel* now = hbbGetCurrentChannel();
    if (now == nullptr) fail("no current channel");
    channelChanged(now);
    channel_destroy(now);
}

// Channel change -> 51 for the service-bound carousel application.
void measure_channel_change(FrameReader& reader, Latency& out) {
    for (int i = 0; i < kRuns; ++i) {
        std::size_t mark = reader.mark();
        deliver({carousel_app()});
        if (!reader.wait(MNG_CONNECTION_TYPE_APP, 50, mark, 5000)) fail("the application did not start");
        mark = reader.mark();
        const auto begin = Clock::now();
        change_channel(1);
        auto at = reader.wait(MNG_CONNECTION_TYPE_APP, 51, mark, 5000);
        if (!at) fail("no kill command on the channel change");
        out.samples.add(begin, *at);
        change_channel(0);
    }
}

// Browser crash -> the library suspended again after the new report. The
// browser connects "Application" first and reports at once; the other four
// connections follow after the measurement. The reader is stopped meanwhile
// (its sockets go).
void measure_crash(Library& library, Latency& out) {
    for (int i = 0; i < kCrashRuns; ++i) {
        const auto begin = Clock::now();
        library.crash();
        library.reconnect(MNG_CONNECTION_TYPE_APP);
        library.report();
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        // The report's effect is the library's state: read as the
        // middleware would, as soon as it changes.
        while (appmgr::state::library() != APP_MANAGER_SUSPENDED) {
            if (Clock::now() > deadline) fail("the new report was not taken");
            std::this_thread::yield();
        }
        out.samples.add(begin, Clock::now());
        for (int c = 0; c < MNG_CONNECTION_TYPE_SIZE; ++c)
            if (c != MNG_CONNECTION_TYPE_APP) library.reconnect(c);
        // The middleware activates the library again.
        applicationManagerInit();
        wait_accepted();
    }
}

// ---- the real browser --------------------------------------------------------------------------

#ifdef APPMGR_LATENCY_WEB_BROWSER
double epoch_ms_now() {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count()) /
           1000.0;
}

// AIT delivered -> first paint of the page in Chromium. The page's timing
// (navigation start, document received, "first-paint"; in the page's time
// origin) is taken back to the wall clock, the clock the delivery was
// stamped with, which also splits the latency into its parts.
struct PaintParts {
    bench::Samples to_navigation, fetching, to_paint;
};

bool measure_first_paint(const std::string& dir, Latency& out, PaintParts& parts, std::string* why) {
    set_up_receiver(APPMGR_WEB_BROWSER_DATA "/carousel/");
    appmgr::seams::set_browser_wait_seconds(30);
    std::thread first([] { applicationManagerInit(); });
    auto browser = std::make_unique<appmgr::webbrowser::NodeProgram>(
        appmgr::webbrowser::browserScript(), std::vector<std::string>{"--socket-dir", dir});
    first.join();
    bool ok = browser->started() && browser->waitEvent("connected", 30000);
    if (!ok) *why = "the browser did not start";
    if (ok) {
        applicationManagerInit();
        register_middleware();
        set_terminal_version();
        const std::string url = "dvb://1.2.3.1/index.html";
        for (int i = 0; i < kPaintRuns && ok; ++i) {
            const double begin = epoch_ms_now();
            deliver({carousel_app()});
            ok = browser->waitEvent("loaded " + url, 30000);
            double origin = 0, received = 0, painted = 0;
            // The paint entry may come a little after the load event.
            for (int tries = 0; ok && tries < 100 && painted <= 0; ++tries) {
                const std::string timing = browser->eval(
                    "(function(){var p=performance.getEntriesByName('first-paint');"
                    "var n=performance.getEntriesByType('navigation')[0];"
                    "return p.length&&n?[performance.timeOrigin,n.responseEnd,p[0].startTime].join(' '):'';})()");
                if (std::sscanf(timing.c_str(), "\"%lf %lf %lf", &origin, &received, &painted) != 3)
                    painted = 0;
                if (painted <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (!ok || painted <= 0) {
                *why = "no first paint reported";
                ok = false;
                break;
            }
            out.samples.add_ns((origin + painted - begin) * 1e6);
            parts.to_navigation.add_ns((origin - begin) * 1e6);
            parts.fetching.add_ns(received * 1e6);
            parts.to_paint.add_ns((painted - received) * 1e6);
            deliver({});
            ok = browser->waitEvent("destroyed", 10000);
            if (!ok) *why = "the page was not ended";
        }
    }
    applicationManagerClose();
    browser->finish();
    return ok;
}
#endif

}  // namespace

int main(int argc, char** argv) {
    const bench::FiguresFile figures(&argc, argv);
    if (argc > 1) fail(std::string("unknown argument ") + argv[1]);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    char tmpl[] = "/tmp/appmgr-latency-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) fail("mkdtemp");
    const std::string dir = std::string(tmpl) + "/";
    const std::string carousel = dir + "carousel/";
    std::filesystem::create_directories(carousel);
    std::ofstream(carousel + "index.html") << "<html><body>latency</body></html>\n";
    appmgr::seams::set_socket_dir(dir);

    Paths p;
    p.carousel.what = "AIT delivered → start command (50), carousel application";
    p.http.what = "AIT delivered → start command (50), HTTP application (HEAD probe, loopback)";
    p.channel.what = "channel change → kill command (51), service-bound application";
    p.crash.what = "browser crash (its sockets close) → its new report taken (library suspended)";
    const bench::Samples one_frame = frame_floor();
    for (Latency* l : {&p.carousel, &p.channel}) {
        l->floor = "one frame from a thread to the browser's reader thread";
        l->floor_samples = one_frame;
    }

    appmgr::test::HttpTestServer server(std::chrono::seconds(600));
    server.respond("/app.html", "200 OK", "<html></html>", {"Content-Type: text/html"});
    const std::string app_url = server.url("/app.html");
    p.http.floor = "HEAD request with a fresh libcurl handle to the same server";
    p.http.floor_samples = http_floor(app_url);
    p.crash.floor = "raw socket: close, listen again, connect, one report";
    p.crash.floor_samples = reconnect_floor(dir);

    set_up_receiver(carousel);
    {
        auto library = std::make_unique<Library>(dir);
        {
            FrameReader reader(library->fds());
            measure_start(reader, carousel_app(), p.carousel);
            measure_start(reader, appmgr::test::http_app(0x10, 2, app_url), p.http);
            measure_channel_change(reader, p.channel);
        }
        measure_crash(*library, p.crash);
    }

    Latency paint;
    paint.what = "AIT delivered → first paint of the page in Chromium (real browser)";
    paint.floor = "—";
#ifdef APPMGR_LATENCY_WEB_BROWSER
    std::string why;
    PaintParts parts;
    if (!measure_first_paint(dir, paint, parts, &why)) {
        paint.samples = bench::Samples();
        paint.note = "not measured: " + why;
    } else {
        paint.note = "medians: " + bench::format_duration(parts.to_navigation.percentile(50)) +
                     " until Chromium starts the navigation, " +
                     bench::format_duration(parts.fetching.percentile(50)) +
                     " fetching the page (through \"DSMCC\"), " +
                     bench::format_duration(parts.to_paint.percentile(50)) + " from there to the paint";
    }
#endif

    std::vector<std::string> rows;
    for (const Latency* l : {&p.carousel, &p.http, &p.channel, &p.crash, &paint}) {
        rows.push_back(latency_row(*l));
        std::printf("%s\n", rows.back().c_str());
    }
    std::filesystem::remove_all(dir);
    curl_global_cleanup();
    if (!figures.write(rows)) fail("cannot write the figures");
    return 0;
}
