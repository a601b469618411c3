#include "capture_scenario.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "receiver.h"

namespace appmgr::emu {

namespace {

// The capture brings the channels; the network is on, as on a connected
// receiver: a broadband application is probed on its real server, which a
// run in its private network cannot reach, so it fails as offline.
const char* const kHead = R"ini(# appmgr-emu --ts: a capture plays the broadcast into the simulated receiver.
# Its services become the channels, its HbbTV AITs reach the library (each
# must draw a decision), its EIT fills the guide, its object carousels are
# served and its stream events reach whatever the library subscribed.

[scenario]
title = the broadcast of a capture
time_limit = 300

[terminal]
network = on

)ini";

const char* const kTimeline = R"ini(
[timeline]
step1 = say The capture plays: its AITs reach the library, its EIT the guide, its carousels are served
step2 = play_capture
step3 = expect capture answered
step4 = close
)ini";

}  // namespace

std::string writeCaptureScenario(const std::string& dir, const CaptureSpec& capture, std::string* error) {
    std::string text = kHead;
    // Quoted, so that a ';' or '#' in the path does not end the value.
    text += "[capture]\nfile = \"" + capture.path + "\"\n";
    if (capture.service >= 0) text += "service = " + hex(capture.service) + "\n";
    text += std::string("speed = ") + (capture.realtime ? "1" : "max") + "\n";
    text += std::string("broadband = ") + (capture.broadband ? "yes" : "no") + "\n";
    text += kTimeline;
    const std::string path = dir + "/capture.ini";
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (!out) {
        if (error) *error = "cannot write " + path + ": " + std::strerror(errno);
        return "";
    }
    return path;
}

}  // namespace appmgr::emu
