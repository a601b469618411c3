// The keys of the remote control that a "press" step gives the browser, by
// the names the browser process knows (VK_RED, red, ok, 5, ...), with the
// key-set group each belongs to: a key reaches the page only when the key
// set the library sent last (command 220) holds its group.
#pragma once

#include <optional>
#include <string>

namespace appmgr::emu {

struct RemoteKey {
    std::string name;  // "VK_RED"
    int code;          // the keyCode the page sees (403)
    int group;         // its key-set group (0x1)
};

// The key a name stands for ("VK_RED", "red", "OK", "5"), or nullopt.
std::optional<RemoteKey> findRemoteKey(const std::string& name);

}  // namespace appmgr::emu
