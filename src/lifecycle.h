// The library lifecycle behind the exported entry points: the four ways the
// middleware moves the library between its states, in one place.
#pragma once

namespace appmgr::lifecycle {

// applicationManagerInit: the first call brings messaging up and waits for
// the browser; a call while suspended activates the manager.
int init();
// applicationManagerDeInit: hides the page, suspends the manager and ends
// the running application.
int deinit();
// applicationManagerRestart: restarts the autostart application of the
// current AIT (the step that also follows an application's end,
// core::restart in core/application_end.cpp).
int restart();
// applicationManagerClose: tells the browser to close and tears messaging
// down.
int close();

}  // namespace appmgr::lifecycle
