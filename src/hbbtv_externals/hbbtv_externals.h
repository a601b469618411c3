// Stream events: listeners for the events of DSM-CC stream-event objects
// (dvb: URLs into the carousel, XML descriptions over HTTP(S), URLs relative
// to the loaded page), the pending table for requests made before a page is
// loaded, and the middleware callback that turns each event into the
// stream-event callback to the browser. The C interface is exported
// (app_mgr_stream_events.h).
//
// Threads and locks: adds and removes run on the browser thread that serves
// the broadcast object; they take the manager lock only to classify the URL,
// read the loaded page and use the pending table, never across a download
// or a middleware call. The callback runs on a middleware thread and takes
// no lock of its own (the send lock only).
#pragma once

#include <cstddef>

#include "app_mgr_stream_events.h"

namespace appmgr::stream_events {

// Fields of a browser listener request the library carries: longer ones
// are refused rather than cut, since a cut URL or name would subscribe to
// something else.
constexpr std::size_t kMaxUrlLength = 1024;
constexpr std::size_t kMaxNameLength = 255;

// Payload bytes whose hexadecimal form fits the event's data text; a longer
// payload is cut to these.
constexpr int kMaxDataBytes = 512;

}  // namespace appmgr::stream_events
