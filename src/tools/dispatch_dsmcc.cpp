// Carousel requests of the browser on the "DSMCC" connection.
#include "common/log.h"
#include "tools/tools_msg_internal.h"

namespace appmgr::msg {

void dispatch_dsmcc(int id, char* rest) {
    (void)id;
    (void)rest;
    // The carousel file service is not wired in yet: every id is unknown.
    AM_INFO(" Unknown message, id is not supported!");
}

}  // namespace appmgr::msg
