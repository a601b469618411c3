#include "private_run.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "browser_standin.h"
#include "loopback_server.h"
#include "scenario.h"

namespace appmgr::emu {

namespace {

[[noreturn]] void setUpFailed(const std::string& what) {
    std::fprintf(stderr,
                 "appmgr-emu: cannot set up the private /tmp and network of this run: %s: %s\n",
                 what.c_str(), std::strerror(errno));
    std::_Exit(1);
}

bool writeProcFile(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const ssize_t n = ::write(fd, text.data(), text.size());
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return n == static_cast<ssize_t>(text.size());
}

// The entries of /tmp that hold the given paths ("x" for /tmp/x/a/b).
std::vector<std::string> tmpEntries(const std::vector<std::string>& paths) {
    std::vector<std::string> entries;
    for (const std::string& p : paths) {
        std::error_code ec;
        const std::string resolved = std::filesystem::canonical(p, ec).string();
        if (ec || resolved.rfind("/tmp/", 0) != 0) continue;
        const std::string entry = resolved.substr(5, resolved.find('/', 5) - 5);
        if (!entry.empty() && std::find(entries.begin(), entries.end(), entry) == entries.end())
            entries.push_back(entry);
    }
    return entries;
}

void loopbackUp() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) setUpFailed("socket");
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (::ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) setUpFailed("reading the flags of lo");
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
    if (::ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) setUpFailed("bringing lo up");
    ::close(fd);
}

}  // namespace

PrivateRun enterPrivateRun(const std::vector<std::string>& keep) {
    const std::vector<std::string> entries = tmpEntries(keep);
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWNET;

    // Root may create the namespaces directly; a user (or a root without
    // the capability, as in some containers) needs a user namespace in
    // which it holds it.
    bool in_user_ns = false;
    if (uid != 0 || ::unshare(kSpaces) != 0) {
        if (::unshare(kSpaces | CLONE_NEWUSER) != 0)
            return {false, std::string("namespaces not allowed: ") + std::strerror(errno)};
        in_user_ns = true;
        // The same ids inside as outside. setgroups must be denied before
        // an unprivileged process may write its gid map.
        writeProcFile("/proc/self/setgroups", "deny");
        if (!writeProcFile("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1\n"))
            setUpFailed("writing the uid map");
        if (!writeProcFile("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1\n"))
            setUpFailed("writing the gid map");
    }

    // The old /tmp stays reachable through this descriptor once the tmpfs
    // covers it.
    const int old_tmp = ::open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (old_tmp < 0) setUpFailed("opening /tmp");
    // Nothing mounted from here on may reach the other namespaces.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        setUpFailed("making the mounts private");
    if (::mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0)
        setUpFailed("mounting a tmpfs on /tmp");
    for (const std::string& entry : entries) {
        const std::string from = "/proc/self/fd/" + std::to_string(old_tmp) + "/" + entry;
        const std::string to = "/tmp/" + entry;
        struct stat st {};
        if (::stat(from.c_str(), &st) != 0) setUpFailed("reading " + to);
        const int made = S_ISDIR(st.st_mode) ? ::mkdir(to.c_str(), 0700)
                                             : ::close(::open(to.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        if (made != 0 || ::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            setUpFailed("keeping " + to + " reachable");
    }
    ::close(old_tmp);
    loopbackUp();

    std::string detail = "private /tmp and loopback network for this run";
    if (in_user_ns) detail += " (in a user namespace)";
    for (const std::string& e : entries) detail += "; /tmp/" + e + " is the machine's";
    return {true, detail};
}

std::vector<std::string> heldResources(bool remote_port) {
    std::vector<std::string> held;
    // A socket bound to a path is listed in /proc/net/unix with that path,
    // as are the connections a listening socket accepted. The file itself
    // proves nothing: the library removes it once the browser connected,
    // and a run that crashed may leave it behind.
    std::vector<std::string> bound;
    std::ifstream unix_sockets("/proc/net/unix");
    std::string line;
    std::getline(unix_sockets, line);  // header
    while (std::getline(unix_sockets, line)) {
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 7 && (fields >> field); ++i) {
        }
        std::string path;
        if (fields >> path) bound.push_back(path);
    }
    for (standin::Connection c : standin::kAllConnections) {
        const std::string path = std::string("/tmp/") + standin::socketFileName(c);
        if (std::find(bound.begin(), bound.end(), path) != bound.end()) held.push_back("socket " + path);
    }
    if (remote_port) {
        int port = kRemoteInputPort;
        std::string error;
        const int fd = loopback::listenOn(&port, &error);
        if (fd < 0)
            held.push_back("port 127.0.0.1:" + std::to_string(kRemoteInputPort));
        else
            ::close(fd);
    }
    return held;
}

}  // namespace appmgr::emu
