#include "fuzz_support.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>

#include "ait_builder.h"
#include "app_mgr.h"
#include "app_mgr_search.h"
#include "app_mgr_stream_events.h"
#include "common/seams.h"
#include "epg/epg.h"
#include "epg/epg_internal.h"
#include "hbb_platform.h"
#include "hbb_sim.h"
#include "state/state.h"

// Tuning never leaves the target: the channel stays, nothing is posted to
// the simulator's notifier thread.
extern "C" {
int hbbSetChannel(Channel*, int) { return 0; }
int hbbPreviousChannel(void) { return 0; }
int hbbNextChannel(void) { return 0; }
}

namespace appmgr::fuzz {

namespace {

int record_shell(const char*) { return 0; }

std::string private_directory() {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/appmgr-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return "/tmp/";
    return pattern + "/";
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

}  // namespace

void keep_offline() {
    static std::once_flag once;
    std::call_once(once, [] {
        hbb_sim_set_log_stderr(0);
        seams::set_transfers_offline(true);
        seams::set_shell_runner(record_shell);
        seams::set_remote_input_port(1);
        seams::set_settle_millis(0);
        seams::set_browser_wait_seconds(0);
        seams::set_socket_dir(private_directory());
        initAitGuard();
        initializeStreamEventsUtil();
        initializeEPGExternal();
    });
}

void simulate_receiver() {
    static std::once_flag once;
    std::call_once(once, [] {
        keep_offline();
        const std::string dir = private_directory();
        // Channels 1.2.3 (current), 1.2.4 and a radio service.
        const char* names[] = {"One", "Two", "Radio"};
        for (int i = 0; i < 3; ++i) {
            Channel c{};
            c.type = i == 2 ? CHANNEL_TYPE_RADIO : CHANNEL_TYPE_TV;
            std::string ccid = "ccid:1.2." + std::to_string(3 + i);
            c.ccid = ccid.data();
            c.onid = 1;
            c.tsid = 2;
            c.sid = 3 + i;
            c.name = const_cast<char*>(names[i]);
            c.dsd = const_cast<char*>("dsd-a");
            c.idType = 12;
            hbb_sim_add_channel(&c);
        }
        hbb_sim_set_current_channel(0);
        hbb_sim_add_data_component(0, 19);
        AVComponent video_inner{AV_COMPONENT_TYPE_VIDEO, const_cast<char*>("H.264"), 0, 1, 100};
        AVVideoComponent video{&video_inner, 1.78};
        hbb_sim_add_video_component(0, &video, 1);
        AVComponent audio_inner{AV_COMPONENT_TYPE_AUDIO, const_cast<char*>("AAC"), 0, 2, 101};
        AVAudioComponent audio{&audio_inner, const_cast<char*>("eng"), 0, 2};
        hbb_sim_add_audio_component(0, &audio, 1);
        Programme p{};
        p.name = const_cast<char*>("News");
        p.description = const_cast<char*>("Headlines");
        p.startTime = 1790000000;
        p.duration = 1800;
        p.programmeID = const_cast<char*>("0x10");
        p.longDescription = const_cast<char*>("All the news.");
        hbb_sim_add_programme(0, &p);
        hbb_sim_add_si_descriptor("ccid:1.2.3", "0x10", 0x54, -1, 0, "54020010");
        hbb_sim_eit_feed_line("service 1 2 3");
        hbb_sim_eit_feed_line("event 1 2 3 0x10 1790000000 1800|Evening News|Headlines|Part one.");
        hbb_sim_eit_feed_line("event 1 2 3 0x11 1790001800 3600|Film|A film|");
        hbb_sim_eit_feed_line("event 1 2 4 0x12 1790000000 600|-");

        // The carousel of component tag 1: files, a directory, an event object.
        const std::string carousel = dir + "carousel/";
        std::string mkdir = "mkdir -p " + carousel + "app";
        (void)!std::system(mkdir.c_str());
        write_file(carousel + "index.html", "<html>index</html>");
        write_file(carousel + "app/index.html", "<html>app</html>");
        write_file(carousel + "events.ste", "go\nstop\n");
        hbb_sim_set_carousel(1, carousel.c_str());

        test::AppSpec carousel_app;
        carousel_app.url = "dvb://1.2.3.1/app/index.html";
        test::AppSpec broadband = test::http_app(0x10, 0x2, "http://127.0.0.1:1/index.html");
        broadband.control = PRESENT;
        static test::OwnedAit ait(16, "dvb://1.2.3", {carousel_app, broadband});
        state::ManagerLock lock;
        state::replace_current_ait(*ait.get());
        state::set_library(APP_MANAGER_INITIALIZED);
        state::set_terminal_version({1, 7, 1});
        state::set_network(NETWORK_ON);
    });
}

std::vector<std::string> pieces(const uint8_t* data, std::size_t size, std::size_t max_piece) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] != 0) continue;
        if (i > start)
            out.emplace_back(reinterpret_cast<const char*>(data + start),
                             std::min(i - start, max_piece));
        start = i + 1;
    }
    return out;
}

void forget_input_state() {
    if (epg::active_search_count() > 0) {
        deinitializeEPGExternal();
        initializeEPGExternal();
    }
    for (int slot = 0; slot < APPMGR_STREAM_EVENT_SLOTS; ++slot) {
        bool used;
        {
            state::ManagerLock lock;
            used = state::pending_stream_events().eventSlotUsed[slot] != 0;
        }
        if (used) releaseStreamEventSlot(static_cast<uint8_t>(slot));
    }
}

}  // namespace appmgr::fuzz
