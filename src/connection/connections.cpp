// The connection table and the library's five connections.
#include <atomic>
#include <cstring>

#include "app_mgr.h"
#include "common/log.h"
#include "common/seams.h"
#include "connection/connection.h"

extern "C" {
APPMGR_API GlobalData_t gData;
}

namespace appmgr::connection {
namespace {

constexpr std::size_t kMaxPathLength = 107;

// Indexed by Mng_ConnectionType_t. The port numbers do not follow the
// connection order; each selects its socket file.
constexpr ConnectionRow kConnections[MNG_CONNECTION_TYPE_SIZE] = {
    {MNG_CONNECTION_TYPE_APP, "Application", 9513, "UNIX_APP.domain", true,
     PeerLost::BrowserCrashed},
    {MNG_CONNECTION_TYPE_H_PUGINS, "dtvPlugins", 9514, "UNIX_H_PLUIN.domain", true,
     PeerLost::Reaccept},
    {MNG_CONNECTION_TYPE_C_PUGINS, "vodPlugins", 9517, "UNIX_C_PLUIN.domain", true,
     PeerLost::Reaccept},
    {MNG_CONNECTION_TYPE_CALLBACK, "Callbacks", 9516, "UNIX_CB.domain", false,
     PeerLost::Reaccept},
    {MNG_CONNECTION_TYPE_DSMCC, "DSMCC", 9515, "UNIX_DSMCC.domain", true, PeerLost::Reaccept},
};

std::atomic<BrowserLostHandler> g_browser_lost{nullptr};

}  // namespace

const ConnectionRow& row(Mng_ConnectionType_t type) { return kConnections[type]; }

const ConnectionRow* row_for_port(int port) {
    for (const ConnectionRow& c : kConnections)
        if (c.port == port) return &c;
    return nullptr;
}

std::string socket_path(int port) {
    const ConnectionRow* c = row_for_port(port);
    if (c == nullptr) {
        AM_ERROR("Unknown message port\n!");
        return std::string();
    }
    std::string path = seams::socket_dir() + c->socket_file;
    if (path.size() > kMaxPathLength) path.resize(kMaxPathLength);
    return path;
}

GlobalData_t& connections() { return gData; }

ErrorType_t send(Mng_ConnectionType_t type, const void* bytes, std::size_t length) {
    if (type < 0 || type >= MNG_CONNECTION_TYPE_SIZE) {
        AM_ERROR("Error mng_type(%d) not supported!!!", static_cast<int>(type));
        return RET_ERROR;
    }
    return messenger_send(&gData.mng_connection[type].messenger, const_cast<void*>(bytes),
                          static_cast<unsigned int>(length));
}

void set_browser_lost_handler(BrowserLostHandler handler) { g_browser_lost.store(handler); }

void browser_lost() {
    if (BrowserLostHandler handler = g_browser_lost.load()) handler();
}

}  // namespace appmgr::connection
