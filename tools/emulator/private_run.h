// The shipped library keeps fixed local resources: the five browser sockets
// in /tmp/, the carousel mount directory /tmp/dsmcc/ and the remote-input
// port 127.0.0.1:3585. Two runs of appmgr-emu on one machine would share
// them. A run therefore moves into namespaces of its own: a private /tmp
// (a fresh tmpfs) and a private network whose loopback interface it brings
// up. Where namespaces are not allowed, the run checks that no other process
// holds those resources and refuses to start if one does.
#pragma once

#include <string>
#include <vector>

namespace appmgr::emu {

struct PrivateRun {
    bool isolated = false;
    // How the run was isolated, or why it could not be.
    std::string detail;
};

// Must be called while the process has a single thread (the kernel refuses
// a user namespace, and a mount namespace for a process that shares its
// file-system state, otherwise). Enters a new mount and network namespace,
// with a user namespace when not root (or when root may not create the
// other two directly), makes every mount private, mounts a tmpfs on /tmp
// and brings the loopback interface up. Whatever the process starts later
// inherits all of it.
//
// Files the run needs that lie under /tmp would be hidden by the new tmpfs:
// for each path in `keep` (resolved, links followed) under /tmp, the
// top-level entry of /tmp that holds it is bound into the new /tmp.
//
// Returns isolated = false, with nothing changed, when the namespaces
// cannot be created. Ends the process with status 1 when they were created
// but could not be set up (the run would then have neither a private nor
// the shared /tmp and network).
PrivateRun enterPrivateRun(const std::vector<std::string>& keep);

// The library's fixed resources that another process holds: each of the
// five socket paths that a live socket is bound to, and 127.0.0.1:3585 when
// `remote_port` is set and the port cannot be bound. Texts such as
// "socket /tmp/UNIX_APP.domain".
std::vector<std::string> heldResources(bool remote_port);

}  // namespace appmgr::emu
