// AV components of the broadcast service, the two component notifications,
// and the media-player, DRM and DASH entry points the library exports for
// the receiver's media stack (placeholders with fixed results: the library
// has no media back end).
//
// Everything is exported (app_mgr_broadcast.h). The only state touched is
// the broadcast presentation state (media_start_broadcast_video /
// media_stop_broadcast_video), written briefly under the manager lock.
#pragma once

#include "app_mgr_broadcast.h"
