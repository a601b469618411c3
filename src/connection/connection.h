// The byte transport between the library and the browser: five UNIX-domain
// stream sockets, each served by a receive thread of its own, with the
// library as the server end.
//
// This folder knows nothing of what the bytes mean. What differs from one
// connection to the next (name, port, socket file, whether the browser sends
// requests on it, what a lost peer means) is one row of the connection
// table below; everything else is the same code for all five.
//
// Sending never blocks: a frame the socket cannot take at once is queued
// (at most kQueueLimitBytes per connection, plus one frame of any size when
// the queue is empty) and written by the connection's receive thread as the
// browser reads. A browser that accepts no byte for kStallMillis while data
// waits is treated as lost: its connection is shut down and accepted anew.
#pragma once

#include <cstddef>
#include <string>

#include "app_mgr_types.h"

namespace appmgr::connection {

// What happens when the browser closes the connection (or stops reading).
enum class PeerLost {
    Reaccept,        // wait for the next client on the same socket
    BrowserCrashed,  // the browser process is gone: run the crash handler, then reaccept
};

struct ConnectionRow {
    Mng_ConnectionType_t type;
    const char* name;         // "Application", ... (logs)
    int port;                 // logical port; selects the socket file
    const char* socket_file;  // file name in the socket directory
    bool carries_requests;    // false: only the library talks on it
    PeerLost on_peer_lost;
};

constexpr std::size_t kQueueLimitBytes = 4u * 1024u * 1024u;
constexpr int kStallMillis = 10000;

// The row of a connection type (valid types only) / of a port (null when the
// port is none of the five).
const ConnectionRow& row(Mng_ConnectionType_t type);
const ConnectionRow* row_for_port(int port);

// The socket path of a port: the socket directory ("/tmp/") and the file of
// the port's row, at most 107 characters; "" for an unknown port (logged).
std::string socket_path(int port);

// The library's five connections (gData).
GlobalData_t& connections();

// Sends bytes on a connection of gData: RET_OK when sent or queued,
// RET_ERROR when no browser is connected, the queue is full, or the type is
// not one of the five.
ErrorType_t send(Mng_ConnectionType_t type, const void* bytes, std::size_t length);

// Runs on a receive thread when the browser drops a connection whose policy
// is BrowserCrashed. Set once by the lifecycle before the connections start.
using BrowserLostHandler = void (*)();
void set_browser_lost_handler(BrowserLostHandler handler);
void browser_lost();

}  // namespace appmgr::connection
