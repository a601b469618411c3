// dvb: URL handling and carousel mounting.
//
// The exported part (DVBUrl_t, hbbMountCarousel, create_mount_point) is
// declared in app_mgr_dsmcc.h; the rest is internal to the library.
#pragma once

#include <cstddef>

#include "app_mgr_dsmcc.h"

extern "C" {

// Splits a dvb: URL into `out`. Returns the component tag, or 0 on any
// failure (a component tag of 0 reads as failure too, with `out` filled).
// The prefix is not checked: callers run iIsDVBURI first.
int parse_dvb_url(const char* dvb_url, DVBUrl_t* out);
// 1 when the text begins with "dvb://" or "DVB://", else 0.
int iIsDVBURI(const char* dvbPath);
// Cuts the text at the first "?" and then at the first "#".
void removeURIParams(char* dvbPath);
// Unmounts the current carousel.
void hbbUnmountCarousel(void);

}  // extern "C"

namespace appmgr::dsmcc {

// Longest dvb: URL text the carousel code takes at all: prefix, the largest
// host, "/" and the largest path.
constexpr std::size_t kMaxDvbUrlLength = 6 + sizeof(DVBUrl_t::host) - 1 + 1 +
                                         sizeof(DVBUrl_t::path) - 1;

// The locator (host) of the carousel that hbbMountCarousel mounted last and
// that was not unmounted since, or the empty text. Copied into `host`.
void mounted_host(char (&host)[sizeof(DVBUrl_t::host)]);
// Forgets the mounted carousel without telling the middleware (it dropped
// the carousel itself, for example after a service change).
void forget_mounted_carousel();

}  // namespace appmgr::dsmcc
