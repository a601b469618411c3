// Lifecycle hooks used by the transport and the dispatcher.
#pragma once

namespace appmgr::lifecycle {

// The browser closed its "Application" connection: it is taken to have
// crashed. Rebinds the broadcast, marks the library as initialising and
// starts a new browser wait on a thread of its own.
void on_browser_crashed();

// The browser's state report (message 83): non-zero = present (suspended),
// zero = de-initialised. Wakes the browser wait.
void on_browser_state_report(int value);

}  // namespace appmgr::lifecycle
