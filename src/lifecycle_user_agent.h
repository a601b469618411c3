// User-Agent helpers shared by the lifecycle and the request dispatcher.
#pragma once

#include <string>

namespace appmgr::lifecycle {

// A copy of the stored User-Agent taken under its lock; *available is false
// when none was ever stored.
std::string user_agent_copy(bool* available);

// The stored form of a User-Agent text: "%%" becomes "%".
std::string expand_user_agent(const char* ua);

}  // namespace appmgr::lifecycle
