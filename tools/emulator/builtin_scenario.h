// The scenario appmgr-emu runs without --scenario: a short tour of what the
// library does for a receiver, checked step by step like any scenario file.
#pragma once

#include <string>

namespace appmgr::emu {

// Name the built-in scenario goes by in the output and in failure messages.
constexpr const char* kBuiltinScenarioName = "built-in";

// Writes the scenario file and the files it serves (the object carousel and
// the HTTP root) into the existing directory dir. Returns the path of the
// scenario file, or "" with the reason in *error.
std::string writeBuiltinScenario(const std::string& dir, std::string* error);

}  // namespace appmgr::emu
