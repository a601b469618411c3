// Capabilities objects served from the middleware: named capabilities,
// extra video decodes and the capabilities XML document. The functions are
// exported (app_mgr_broadcast.h); nothing here keeps state.
#pragma once

#include "app_mgr_broadcast.h"
