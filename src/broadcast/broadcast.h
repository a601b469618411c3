// The broadcast video object, channels, channel configuration and
// programmes, served from the middleware; the broadcast presentation state
// and the requester of a tune; the middleware's channel-error and programme
// notifications. The C interface is exported (app_mgr_broadcast.h).
//
// Locks: the functions that read or write the presentation state or the
// tune requester take the manager lock themselves, briefly, and never hold
// it across a middleware call that may tune (hbbSetChannel, hbbNextChannel,
// hbbPreviousChannel): the middleware answers a tune with channelChanged on
// its own thread, which takes the manager lock.
#pragma once

#include "app_mgr_broadcast.h"
