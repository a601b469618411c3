// The local-system configuration object served from the middleware. The
// functions are exported (app_mgr_broadcast.h); nothing here keeps state.
#pragma once

#include "app_mgr_broadcast.h"
