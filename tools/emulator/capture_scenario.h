// The scenario appmgr-emu runs for --ts FILE without --scenario: the library
// starts, the capture plays the broadcast into the receiver, every AIT it
// hands to the library must draw a decision, and the library closes.
#pragma once

#include <string>

#include "scenario.h"

namespace appmgr::emu {

// Name the capture's scenario goes by in the output and in failure messages.
constexpr const char* kCaptureScenarioName = "--ts";

// Writes the scenario around the capture into the existing directory dir
// (capture.path must be absolute for a file). Returns the path of the
// scenario file, or "" with the reason in *error.
std::string writeCaptureScenario(const std::string& dir, const CaptureSpec& capture, std::string* error);

}  // namespace appmgr::emu
