// A small carousel tree on disk for the carousel tests, served by the
// simulated middleware as component 0x65 ("dvb://1.2.3.65/...").
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "hbb_sim.h"

namespace appmgr::test {

// root/index.html, bin.dat (zero bytes inside), empty.txt, dir/page.html,
// dir/sub/deep.txt, events.ste (stream-event object "events"), inner (a
// link to index.html) and escape (a link to a file beside the tree).
inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline const std::string& binary_bytes() {
    static const std::string bytes("\x00\x01\x00\xff|x\x00", 7);
    return bytes;
}

inline std::string make_carousel_tree(const std::string& base) {
    const std::string root = base + "carousel";
    std::filesystem::create_directories(root + "/dir/sub");
    write_file(root + "/index.html", "<html>hello</html>");
    write_file(root + "/bin.dat", binary_bytes());
    write_file(root + "/empty.txt", "");
    write_file(root + "/dir/page.html", "page");
    write_file(root + "/dir/sub/deep.txt", "deep");
    write_file(root + "/events.ste", "go\n# not an event\n\n  stop  \r\n");
    write_file(base + "secret.txt", "secret");
    std::filesystem::create_symlink("index.html", root + "/inner");
    std::filesystem::create_symlink("../secret.txt", root + "/escape");
    return root;
}

constexpr int kTag = 0x65;
constexpr const char* kBase = "dvb://1.2.3.65/";

}  // namespace appmgr::test
