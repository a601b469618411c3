// The library lifecycle behind the exported entry points.
#pragma once

namespace appmgr::lifecycle {

// applicationManagerInit: the first call brings messaging up and waits for
// the browser; a call while suspended activates the manager.
int init();
// applicationManagerClose: tells the browser to close and tears messaging
// down.
int close();

}  // namespace appmgr::lifecycle
