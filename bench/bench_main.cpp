// Costs on the library's hot paths, each beside the baseline it is compared
// with, measured in the same run (see README.md). With --figures=FILE the
// comparisons are also written to FILE as Markdown table rows.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include <libxml/parser.h>

#include "ait/ait.h"
#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/seams.h"
#include "core/core.h"
#include "dvbpsi_bare.h"
#include "figures.h"
#include "hbb_sim.h"
#include "parse_ini.h"
#include "state/state.h"
#include "structs/records.h"
#include "ts_decode.h"
#include "xml/xml.h"

namespace bench = appmgr::bench;

namespace {

// Library logging at error level, whichever benchmark runs first: every
// line below that costs only the platform's level checks, as on a
// receiver with its log turned down.
void quiet() {
    hbb_sim_set_log_stderr(0);
    hbb_sim_set_log_level(5);
}

// ---- the library's connections, with raw clients ---------------------------------------

// The five connections up in a private directory; "Application" and
// "dtvPlugins" have a raw client each, so that nothing but the socket
// stands between the benchmark and the library.
struct Messaging {
    std::string dir;
    int app = -1;
    int plugins = -1;
    Messaging() {
        quiet();
        char tmpl[] = "/tmp/appmgr-bench-XXXXXX";
        dir = std::string(mkdtemp(tmpl)) + "/";
        appmgr::seams::set_socket_dir(dir);
        appmgr::seams::set_settle_millis(0);
        // The plug-in connections dispatch under the AIT guard.
        initAitGuard();
        tools_msg_init(&gData, 0, nullptr);
        tools_msg_connect(&gData);
        app = bench::connect_unix(dir + "UNIX_APP.domain", 5000);
        plugins = bench::connect_unix(dir + "UNIX_H_PLUIN.domain", 5000);
        // The server threads mark a connection started right after accepting.
        for (auto type : {MNG_CONNECTION_TYPE_APP, MNG_CONNECTION_TYPE_H_PUGINS})
            while (gData.mng_connection[type].messenger.state != MESSENGER_STATE_STARTED)
                std::this_thread::yield();
    }
    ~Messaging() {
        tools_msg_close(&gData);
        ::close(app);
        ::close(plugins);
        std::filesystem::remove_all(dir);
    }
};

Messaging& messaging() {
    static Messaging m;
    return m;
}

// ---- request round trip beside a raw ping-pong -----------------------------------------

const std::string kUserAgent = "Mozilla/5.0 (bench) HbbTV/1.5.1 (;;;;;)";
const std::string kRequest = "401|";
// The library's reply to 401: the User-Agent field and the terminating zero.
std::string user_agent_reply() { return kUserAgent + "|" + std::string(1, '\0'); }

// Sends the request and waits for the whole reply.
bool request_once(int fd, std::string& reply) {
    return bench::send_all(fd, kRequest.data(), kRequest.size()) &&
           bench::receive_exactly(fd, reply.data(), reply.size());
}

// Where the threads run: all on one core, the requesting thread on one
// core and every other thread on another, or wherever the scheduler puts
// them.
enum Placement { kUnpinned = 0, kOneCore = 1, kTwoCores = 2 };

class Pinning {
public:
    explicit Pinning(benchmark::State& state, Placement placement) {
        bool ok = true;
        if (placement == kOneCore) ok = bench::pin_process_to_one_core();
        if (placement == kTwoCores) ok = bench::pin_process_apart();
        if (placement == kUnpinned) bench::unpin_process();
        if (!ok) state.SkipWithError("the threads cannot be placed");
    }
    ~Pinning() { bench::unpin_process(); }
};

std::string placement_name(Placement placement) {
    switch (placement) {
        case kOneCore: return "threads on one core";
        case kTwoCores: return "requester and the other threads on two cores";
        case kUnpinned: return "threads unpinned";
    }
    return "";
}

// A second thread that receives each request in one receive and sends the
// library's reply bytes back over a UNIX socket pair: the baseline.
class PingPongServer {
public:
    PingPongServer() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv_) != 0) return;
        thread_ = std::thread([fd = sv_[1], reply = user_agent_reply()] {
            char buffer[4096];
            while (::recv(fd, buffer, sizeof buffer, 0) > 0)
                if (!bench::send_all(fd, reply.data(), reply.size())) break;
        });
    }
    ~PingPongServer() {
        if (!thread_.joinable()) return;
        ::shutdown(sv_[0], SHUT_RDWR);
        thread_.join();
        ::close(sv_[0]);
        ::close(sv_[1]);
    }
    int client() const { return thread_.joinable() ? sv_[0] : -1; }

private:
    int sv_[2] = {-1, -1};
    std::thread thread_;
};

// The library's answer to a request (its receive thread, the dispatcher,
// the handler and the reply path of CMD_GET_USER_AGENT) beside the
// ping-pong of the same bytes. The two take turns in blocks of
// kTurnRequests (a millisecond or two), so that both see the same moments
// of a shared machine while each keeps its caches warm within its turn;
// the iteration is one request. p50 and p99 of each are counters ("rt_*"
// the library, "pp_*" the ping-pong).
constexpr int kTurnRequests = 200;

void BM_RoundTripBesidePingPong(benchmark::State& state) {
    Messaging& m = messaging();
    std::string ua = kUserAgent;
    setAMUserAgent(ua.data());
    PingPongServer ping_pong;
    if (ping_pong.client() < 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    Pinning pinning(state, static_cast<Placement>(state.range(0)));
    std::string reply(user_agent_reply().size(), '\0');
    bench::Samples library, baseline;
    long n = 0;
    for (auto _ : state) {
        const bool library_turn = (n++ / kTurnRequests) % 2 == 1;
        const auto begin = bench::Samples::Clock::now();
        if (!request_once(library_turn ? m.plugins : ping_pong.client(), reply)) {
            state.SkipWithError("a connection failed");
            break;
        }
        (library_turn ? library : baseline).add(begin, bench::Samples::Clock::now());
    }
    state.counters["rt_p50_ns"] = library.percentile(50);
    state.counters["rt_p99_ns"] = library.percentile(99);
    state.counters["pp_p50_ns"] = baseline.percentile(50);
    state.counters["pp_p99_ns"] = baseline.percentile(99);
}
BENCHMARK(BM_RoundTripBesidePingPong)
    ->ArgName("placement")->Arg(kOneCore)->Arg(kTwoCores)->Arg(kUnpinned)->UseRealTime()->Repetitions(5);

// ---- send_command beside a raw send ------------------------------------------------------

const std::string kTimeZoneFrame = " 17141|UTC+01:00:00|";

// Baseline: the same frame sent on a UNIX socket pair and read back.
void BM_RawSend(benchmark::State& state) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
    std::string in(kTimeZoneFrame.size(), '\0');
    for (auto _ : state) {
        bench::send_all(sv[0], kTimeZoneFrame.data(), kTimeZoneFrame.size());
        bench::receive_exactly(sv[1], in.data(), in.size());
    }
    ::close(sv[0]);
    ::close(sv[1]);
}
BENCHMARK(BM_RawSend)->Repetitions(5);

// send_command: body, frame, sendmsg_mutex, the connection's send; read
// back by the raw client.
void BM_SendCommand(benchmark::State& state) {
    Messaging& m = messaging();
    char zone[] = "UTC+01:00:00";
    std::string in(kTimeZoneFrame.size(), '\0');
    for (auto _ : state) {
        send_command(141, zone);
        bench::receive_exactly(m.app, in.data(), in.size());
    }
    if (in != kTimeZoneFrame) state.SkipWithError("unexpected frame");
}
BENCHMARK(BM_SendCommand)->Repetitions(5);

// ---- AIT intake and the autostart choice --------------------------------------------------

std::vector<appmgr::test::AppSpec> apps(int n) {
    std::vector<appmgr::test::AppSpec> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        v[static_cast<size_t>(i)].app = i + 1;
        v[static_cast<size_t>(i)].priority = i % 7;
    }
    return v;
}

// Taking a table of N entries as the current AIT (checks, deep copy, flags)
// while the library is not active, so nothing is started.
void BM_AitIntake(benchmark::State& state) {
    quiet();
    initAitGuard();
    appmgr::state::set_library(APP_MANAGER_SUSPENDED);
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) aitUpdate(ait.get());
    clear_current_ait();
}
BENCHMARK(BM_AitIntake)->Arg(1)->Arg(8)->Arg(64)->Repetitions(5);

// Baseline: the deep copy of the same table and its release, which any
// intake that keeps the table must do.
void BM_AitCopy(benchmark::State& state) {
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        auto copy = appmgr::records::copy_ait(*ait.get());
        benchmark::DoNotOptimize(copy.get());
    }
}
BENCHMARK(BM_AitCopy)->Arg(1)->Arg(8)->Arg(64)->Repetitions(5);

// The autostart choice over N entries (network, parental rating, profile,
// priority).
void BM_FindAutostart(benchmark::State& state) {
    quiet();
    appmgr::state::ManagerLock lock;
    appmgr::state::set_terminal_version({1, 7, 1});
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) find_autostart_app(ait->apps, ait->app_lenght);
}
BENCHMARK(BM_FindAutostart)->Arg(1)->Arg(8)->Arg(64)->Repetitions(5);

// Baseline: a loop that keeps the AUTOSTART entry of highest priority.
void BM_AutostartLoop(benchmark::State& state) {
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        const Application* best = nullptr;
        for (int i = 0; i < ait->app_lenght; ++i) {
            const Application& a = ait->apps[i];
            if (a.control_code == AUTOSTART && (best == nullptr || a.app_priority > best->app_priority))
                best = &a;
        }
        benchmark::DoNotOptimize(best);
    }
}
BENCHMARK(BM_AutostartLoop)->Arg(1)->Arg(8)->Arg(64)->Repetitions(5);

// ---- XML AIT ------------------------------------------------------------------------------

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

const std::string kXmlAitPath =
    APPMGR_SOURCE_DIR "/tests/data/xmlait/mitxp-hbbtv-testsuite/xmlait.rendered.aitx";
const std::string kXmlAitUrl = "http://itv.mit-xperts.com/hbbtv/xmlait.aitx";

// The document read into an AIT table with every application's fields.
void BM_XmlAitRead(benchmark::State& state) {
    quiet();
    const std::string doc = read_file(kXmlAitPath);
    int in_document = 0;
    for (auto _ : state) {
        auto table = appmgr::xml::read_ait_document(doc.data(), static_cast<int>(doc.size()),
                                                    kXmlAitUrl.c_str(), &in_document);
        benchmark::DoNotOptimize(table.get());
    }
    if (in_document != 1) state.SkipWithError("the document was not read");
}
BENCHMARK(BM_XmlAitRead)->Repetitions(5);

// Baseline: libxml2 parses the same document into a tree and frees it.
void BM_XmlParse(benchmark::State& state) {
    const std::string doc = read_file(kXmlAitPath);
    for (auto _ : state) {
        xmlDoc* tree = xmlReadMemory(doc.data(), static_cast<int>(doc.size()), kXmlAitUrl.c_str(),
                                     nullptr, XML_PARSE_NOWARNING | XML_PARSE_NONET | XML_PARSE_NOERROR);
        benchmark::DoNotOptimize(tree);
        xmlFreeDoc(tree);
    }
}
BENCHMARK(BM_XmlParse)->Repetitions(5);

// ---- INI ----------------------------------------------------------------------------------

// An INI file of N keys in N/10 sections, removed at exit.
struct IniFile {
    std::string path;
    explicit IniFile(int keys) {
        char tmpl[] = "/tmp/appmgr-bench-ini-XXXXXX";
        const int fd = mkstemp(tmpl);
        path = tmpl;
        FILE* f = fdopen(fd, "w");
        for (int i = 0; i < keys; ++i) {
            if (i % 10 == 0) std::fprintf(f, "[section%d]\n", i / 10);
            std::fprintf(f, "key%d = value %d ; comment\n", i, i);
        }
        std::fclose(f);
    }
    ~IniFile() { unlink(path.c_str()); }
};

void BM_IniLoad(benchmark::State& state) {
    quiet();
    IniFile file(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        ini_dict* d = parse_ini_load(file.path.c_str());
        benchmark::DoNotOptimize(d);
        parse_ini_freedict(d);
    }
}
BENCHMARK(BM_IniLoad)->Arg(1000)->Repetitions(5);

// Reads a whole file with read(2) in 64 KiB blocks; returns its size.
std::size_t read_whole(const std::string& path, std::vector<char>& buffer) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    std::size_t total = 0;
    for (;;) {
        if (buffer.size() < total + 65536) buffer.resize(total + 65536);
        const ssize_t n = ::read(fd, buffer.data() + total, 65536);
        if (n <= 0) break;
        total += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return total;
}

// Baseline: reading the same file.
void BM_IniReadFile(benchmark::State& state) {
    IniFile file(static_cast<int>(state.range(0)));
    std::vector<char> buffer;
    for (auto _ : state) benchmark::DoNotOptimize(read_whole(file.path, buffer));
}
BENCHMARK(BM_IniReadFile)->Arg(1000)->Repetitions(5);

// ---- transport stream ---------------------------------------------------------------------

// The French DTT capture of the tests: PSI, SDT and a full EIT schedule.
const std::string kCapture = APPMGR_SOURCE_DIR "/tests/data/third-party/tsduck-test/test-184.ts";

// The capture decoded: packets read, sections gathered by libdvbpsi, PAT,
// PMT, SDT, EIT and AIT decoded, the service map and collectors filled.
void BM_TsDecode(benchmark::State& state) {
    ts::set_log_sink([](int, const std::string&) {});
    std::uint64_t events = 0;
    for (auto _ : state) {
        ts::PacketReader reader;
        ts::Capture capture;
        if (!reader.open(kCapture)) {
            state.SkipWithError("the capture cannot be read");
            break;
        }
        std::uint8_t packet[ts::kPacketSize];
        while (reader.next(packet)) capture.push(packet);
        events = capture.eit_events();
    }
    state.counters["eit_events"] = static_cast<double>(events);
    ts::set_log_default();
}
BENCHMARK(BM_TsDecode)->Unit(benchmark::kMillisecond)->Repetitions(5);

// Baseline: reading the capture file.
void BM_TsReadFile(benchmark::State& state) {
    std::vector<char> buffer;
    for (auto _ : state) benchmark::DoNotOptimize(read_whole(kCapture, buffer));
}
BENCHMARK(BM_TsReadFile)->Unit(benchmark::kMillisecond)->Repetitions(5);

// Baseline: reading the capture and handing the packets of the PIDs the
// decoder watches to libdvbpsi, which gathers and checks the sections;
// the sections are dropped.
void BM_TsDemuxOnly(benchmark::State& state) {
    // The PIDs the decoder ends up watching (PAT, PMTs, SDT, EIT, ...).
    std::set<std::uint16_t> pids;
    {
        ts::set_log_sink([](int, const std::string&) {});
        ts::PacketReader reader;
        ts::Capture capture;
        reader.open(kCapture);
        std::uint8_t packet[ts::kPacketSize];
        while (reader.next(packet)) capture.push(packet);
        for (int pid = 0; pid <= 0x1FFF; ++pid)
            if (capture.demux().watching(static_cast<std::uint16_t>(pid)))
                pids.insert(static_cast<std::uint16_t>(pid));
        ts::set_log_default();
    }
    std::vector<char> buffer;
    std::uint64_t sections = 0;
    for (auto _ : state) {
        bench::BareDemux demux(pids);
        const std::size_t size = read_whole(kCapture, buffer);
        for (std::size_t at = 0; at + ts::kPacketSize <= size; at += ts::kPacketSize)
            demux.push(reinterpret_cast<const std::uint8_t*>(buffer.data() + at));
        sections = demux.sections();
    }
    state.counters["sections"] = static_cast<double>(sections);
    state.counters["pids"] = static_cast<double>(pids.size());
}
BENCHMARK(BM_TsDemuxOnly)->Unit(benchmark::kMillisecond)->Repetitions(5);

// ---- the table ----------------------------------------------------------------------------

std::vector<std::string> table(const bench::Collector& c) {
    std::vector<std::string> rows;
    auto add = [&](bench::Row row) { rows.push_back(bench::table_row(row)); };
    const std::string pair = "BM_RoundTripBesidePingPong/placement:";
    for (Placement placement : {kOneCore, kTwoCores, kUnpinned}) {
        const std::string where = placement_name(placement);
        const std::string name = pair + std::to_string(placement);
        for (const char* p : {"p50", "p99"}) {
            const std::string counter = std::string(p) + "_ns";
            add({"request round trip on \"dtvPlugins\" (401), " + std::string(p) + ", " + where,
                 c.counter(name, "rt_" + counter),
                 "two-thread ping-pong of the same bytes, " + std::string(p) + ", " + where,
                 c.counter(name, "pp_" + counter), placement == kOneCore ? "1.3" : "1.1", ""});
        }
    }
    add({"`send_command(141, ...)`, read back", c.cpu_ns("BM_SendCommand"),
         "raw `send` of the same frame, read back", c.cpu_ns("BM_RawSend"), "", ""});
    for (int n : {1, 8, 64}) {
        const std::string arg = "/" + std::to_string(n);
        add({"AIT intake of a " + std::to_string(n) + "-entry table", c.cpu_ns("BM_AitIntake" + arg),
             "deep copy and release of the same table", c.cpu_ns("BM_AitCopy" + arg), "", ""});
    }
    for (int n : {1, 8, 64}) {
        const std::string arg = "/" + std::to_string(n);
        add({"autostart choice over " + std::to_string(n) + (n == 1 ? " entry" : " entries"),
             c.cpu_ns("BM_FindAutostart" + arg),
             "loop keeping the AUTOSTART entry of highest priority",
             c.cpu_ns("BM_AutostartLoop" + arg), "", ""});
    }
    add({"XML AIT read into a table (1.8 KB document)", c.cpu_ns("BM_XmlAitRead"),
         "bare libxml2 parse of the same document", c.cpu_ns("BM_XmlParse"), "", ""});
    add({"INI load, 1,000 keys", c.cpu_ns("BM_IniLoad/1000"), "reading the same file",
         c.cpu_ns("BM_IniReadFile/1000"), "", ""});
    add({"TS decoding of a 1.2 MB capture (PSI, SDT, EIT, AIT)", c.cpu_ns("BM_TsDecode"),
         "reading the same file", c.cpu_ns("BM_TsReadFile"), "", ""});
    add({"TS decoding of a 1.2 MB capture (PSI, SDT, EIT, AIT)", c.cpu_ns("BM_TsDecode"),
         "bare libdvbpsi demultiplex of the same PIDs", c.cpu_ns("BM_TsDemuxOnly"), "", ""});
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    bench::remember_cores();
    const bench::FiguresFile figures(&argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    bench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    benchmark::Shutdown();
    if (!figures.write(table(collector))) {
        std::fprintf(stderr, "appmgr-bench: cannot write the figures\n");
        return 1;
    }
    return 0;
}
