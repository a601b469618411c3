// Parental-rating objects served from the middleware: rating schemes, the
// viewer's threshold (also read by the application core before it starts an
// application) and the middleware's two rating notifications.
//
// The functions are exported (app_mgr_broadcast.h). The notifications tell
// the browser only while the manager is active; nothing here keeps state.
#pragma once

#include "app_mgr_broadcast.h"
