// Costs on the library's hot paths, each beside the baseline it is compared
// with (see README.md).
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "common/seams.h"
#include "ait/ait.h"
#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"
#include "parse_ini.h"

using appmgr::standin::BrowserStandin;
using appmgr::standin::Connection;

namespace {

// The five connections up in a private directory, the stand-in connected.
struct Messaging {
    std::string dir;
    BrowserStandin* browser = nullptr;
    Messaging() {
        hbb_sim_set_log_stderr(0);
        hbb_sim_set_log_level(5);
        char tmpl[] = "/tmp/appmgr-bench-XXXXXX";
        dir = std::string(mkdtemp(tmpl)) + "/";
        appmgr::seams::set_socket_dir(dir);
        appmgr::seams::set_settle_millis(0);
        // The plug-in connections dispatch under the AIT guard.
        initAitGuard();
        tools_msg_init(&gData, 0, nullptr);
        tools_msg_connect(&gData);
        browser = new BrowserStandin(dir);
        browser->connectAll(5000);
        // The server threads mark a connection started right after accepting.
        while (gData.mng_connection[MNG_CONNECTION_TYPE_APP].messenger.state !=
               MESSENGER_STATE_STARTED)
            std::this_thread::yield();
        while (gData.mng_connection[MNG_CONNECTION_TYPE_H_PUGINS].messenger.state !=
               MESSENGER_STATE_STARTED)
            std::this_thread::yield();
    }
    ~Messaging() {
        tools_msg_close(&gData);
        delete browser;
        std::filesystem::remove_all(dir);
    }
};

Messaging& messaging() {
    static Messaging m;
    return m;
}

// Baseline: one 20-byte write and read on a UNIX stream socket pair.
void BM_RawSocketFrame(benchmark::State& state) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    char frame[] = " 17141|UTC+01:00:00|";
    char in[64];
    for (auto _ : state) {
        send(sv[0], frame, sizeof(frame) - 1, MSG_NOSIGNAL);
        benchmark::DoNotOptimize(recv(sv[1], in, sizeof(in), 0));
    }
    close(sv[0]);
    close(sv[1]);
}
BENCHMARK(BM_RawSocketFrame);

// send_command: build, frame, lock and send one command, read by the stand-in.
void BM_SendCommand(benchmark::State& state) {
    Messaging& m = messaging();
    char zone[] = "UTC+01:00:00";
    for (auto _ : state) {
        send_command(141, zone);
        benchmark::DoNotOptimize(m.browser->readFrame(Connection::Application, 1000));
    }
}
BENCHMARK(BM_SendCommand);

// A synchronous browser request answered by the library (User-Agent).
void BM_RequestRoundTrip(benchmark::State& state) {
    Messaging& m = messaging();
    char ua[] = "Mozilla/5.0 (bench) HbbTV/1.5.1 (;;;;;)";
    setAMUserAgent(ua);
    for (auto _ : state)
        benchmark::DoNotOptimize(m.browser->request(Connection::DtvPlugins, 401, {}, 1000));
}
BENCHMARK(BM_RequestRoundTrip);

std::vector<appmgr::test::AppSpec> apps(int n) {
    std::vector<appmgr::test::AppSpec> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        v[static_cast<size_t>(i)].app = i + 1;
        v[static_cast<size_t>(i)].priority = i % 7;
    }
    return v;
}

// Taking a table of N entries as the current AIT (deep copy, flags) while
// the library is not active, so nothing is started.
void BM_AitIntake(benchmark::State& state) {
    hbb_sim_set_log_stderr(0);
    initAitGuard();
    appmgr::state::set_library(APP_MANAGER_SUSPENDED);
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) aitUpdate(ait.get());
    clear_current_ait();
}
BENCHMARK(BM_AitIntake)->Arg(1)->Arg(8)->Arg(64);

// The autostart choice over N entries.
void BM_FindAutostart(benchmark::State& state) {
    hbb_sim_set_log_stderr(0);
    appmgr::state::ManagerLock lock;
    appmgr::state::set_terminal_version({1, 7, 1});
    appmgr::test::OwnedAit ait(16, "dvb://1.2.3", apps(static_cast<int>(state.range(0))));
    for (auto _ : state) find_autostart_app(ait->apps, ait->app_lenght);
}
BENCHMARK(BM_FindAutostart)->Arg(1)->Arg(8)->Arg(64);

// Loading an INI file of N keys in N/10 sections.
void BM_IniLoad(benchmark::State& state) {
    char path[] = "/tmp/appmgr-bench-ini-XXXXXX";
    int fd = mkstemp(path);
    FILE* f = fdopen(fd, "w");
    for (int i = 0; i < state.range(0); ++i) {
        if (i % 10 == 0) std::fprintf(f, "[section%d]\n", i / 10);
        std::fprintf(f, "key%d = value %d ; comment\n", i, i);
    }
    std::fclose(f);
    for (auto _ : state) {
        ini_dict* d = parse_ini_load(path);
        benchmark::DoNotOptimize(d);
        parse_ini_freedict(d);
    }
    unlink(path);
}
BENCHMARK(BM_IniLoad)->Arg(100)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
