// Helpers shared by the files of the application core; not for other
// folders (their interface is core.h). All need the manager lock.
#pragma once

#include "app_mgr_types.h"

namespace appmgr::core {

// True when the URL begins with one of the broadcaster portal origins
// (started without a probe).
bool is_portal_origin(const char* url);

// check_url_type for a caller that does not hold the manager lock.
int classify_url(char* url);

// Calls the middleware's registered start (true) or stop callback, telling
// it first whether HbbTV may stop the broadcast (hbbIsAllowStopChannel).
void ask_middleware(bool start);

// Stops presenting the broadcast (hbbStopChannel) and notes it stopped.
void stop_broadcast();

// When the media-delivery service serves `location` with a player page,
// starts that page as a broadcast-independent application; true then.
bool start_player_page_of(const char* location);

// The entry of the current AIT with these ids that may be started by name
// (best priority), or null.
Application* find_named_entry(int org_id, int app_id);

// The current-AIT entry being started on this thread (its index), or -1:
// a load error of a page that is not byte-equal to its entry's URL (a
// relative entry URL, a URL cut to 1023 characters) still marks the entry.
int entry_being_started();

// The web portal's error page, shown when a portal page cannot be opened.
constexpr const char* kPortalErrorPage = "file:///system/hbbtv/config/invaild_url.html";

}  // namespace appmgr::core
