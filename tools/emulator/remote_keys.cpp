#include "remote_keys.h"

#include <cctype>

namespace appmgr::emu {

namespace {

enum Group : int {
    kRed = 0x1, kGreen = 0x2, kYellow = 0x4, kBlue = 0x8, kNavigation = 0x10, kVcr = 0x20,
    kScroll = 0x40, kInfo = 0x80, kNumeric = 0x100, kOther = 0x400,
};

const RemoteKey kKeys[] = {
    {"VK_RED", 403, kRed}, {"VK_GREEN", 404, kGreen}, {"VK_YELLOW", 405, kYellow}, {"VK_BLUE", 406, kBlue},
    {"VK_UP", 38, kNavigation}, {"VK_DOWN", 40, kNavigation}, {"VK_LEFT", 37, kNavigation},
    {"VK_RIGHT", 39, kNavigation}, {"VK_ENTER", 13, kNavigation}, {"VK_BACK", 461, kNavigation},
    {"VK_PLAY", 415, kVcr}, {"VK_PAUSE", 19, kVcr}, {"VK_PLAY_PAUSE", 402, kVcr}, {"VK_STOP", 413, kVcr},
    {"VK_FAST_FWD", 417, kVcr}, {"VK_REWIND", 412, kVcr}, {"VK_RECORD", 416, kVcr},
    {"VK_TRACK_NEXT", 425, kVcr}, {"VK_TRACK_PREV", 424, kVcr}, {"VK_PAGE_UP", 33, kScroll},
    {"VK_PAGE_DOWN", 34, kScroll}, {"VK_INFO", 457, kInfo}, {"VK_TELETEXT", 459, kOther},
    {"VK_SUBTITLE", 460, kOther},
    {"VK_0", 48, kNumeric}, {"VK_1", 49, kNumeric}, {"VK_2", 50, kNumeric}, {"VK_3", 51, kNumeric},
    {"VK_4", 52, kNumeric}, {"VK_5", 53, kNumeric}, {"VK_6", 54, kNumeric}, {"VK_7", 55, kNumeric},
    {"VK_8", 56, kNumeric}, {"VK_9", 57, kNumeric},
};

// Short names, as the browser process accepts them.
const struct {
    const char* alias;
    const char* name;
} kAliases[] = {{"OK", "VK_ENTER"}, {"ENTER", "VK_ENTER"}, {"FFWD", "VK_FAST_FWD"}};

}  // namespace

std::optional<RemoteKey> findRemoteKey(const std::string& name) {
    std::string upper;
    for (char c : name) upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const auto& a : kAliases)
        if (upper == a.alias) upper = a.name;
    if (upper.rfind("VK_", 0) != 0) upper = "VK_" + upper;
    for (const RemoteKey& k : kKeys)
        if (upper == k.name) return k;
    return std::nullopt;
}

}  // namespace appmgr::emu
