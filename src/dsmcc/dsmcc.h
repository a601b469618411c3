// The object carousel: dvb: URLs, mounting, and reading carousel entries.
//
// The exported part (DVBUrl_t, hbbMountCarousel, create_mount_point) is
// declared in app_mgr_dsmcc.h; the rest is internal to the library.
//
// Reading: every call takes a dvb: URL (query and fragment are ignored),
// mounts the carousel of its component tag when that carousel is not the one
// mounted, and reads through the middleware's DSM-CC loader. A loader call
// that is interrupted by a service change is retried once after a fresh
// mount. All calls are thread-safe; they may block as long as the loader
// does. docs/carousel.md describes the payload texts and the full contract.
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



extern "C" {

typedef enum {
    eHBBTV_FS_CHECK_INVALID_TYPE = 0,  // no such file, or it cannot be read
    eHBBTV_FS_CHECK_BREAK_TYPE = 1,    // a service change interrupted the check
    eHBBTV_FS_CHECK_FILE_TYPE = 2      // the entry exists
} HbbFileSystemCheckType;

typedef enum {
    eHBBTV_FS_ENTRY_INVALID_TYPE = -1,
    eHBBTV_FS_ENTRY_FILE_TYPE = 0,
    eHBBTV_FS_ENTRY_DIR_TYPE = 1,
    eHBBTV_FS_ENTRY_STE_TYPE = 2
} HbbFileSystemEntryType;

// One entry's content. The payload holds entryPayloadLen bytes (binary for
// files, not terminated); released with hbbReleaseDsmccEntryDescriptor.
typedef struct {
    HbbFileSystemEntryType entryType;
    int entryPayloadLen;
    char* entryPayload;
} HbbFileSystemEntryDescriptor;

// Checks that the URL names an entry of its carousel (a file, a directory
// or a stream-event object), mounting the carousel as needed (application
// start): eHBBTV_FS_CHECK_FILE_TYPE when it exists.
int hbbCheckDSMCCExist(const char* url);
// The kind of the entry (an HbbFileSystemEntryType value) and, through
// moduleId (may be null), the module that carries it; -1 and module 0 when
// the entry cannot be found.
int hbbCheckDSMCCEntryType(const char* uri, int* moduleId);
// The bytes of a file, the listing of a directory, the event names of a
// stream-event object; null when the entry is missing, of another kind, or
// cannot be read.
HbbFileSystemEntryDescriptor* hbbGetDsmccFileContent(const char* uri);
HbbFileSystemEntryDescriptor* hbbGetDsmccDirContent(const char* uri);
HbbFileSystemEntryDescriptor* hbbGetDsmccStreamEventList(const char* uri);
// Releases a descriptor of the calls above; null is ignored.
void hbbReleaseDsmccEntryDescriptor(HbbFileSystemEntryDescriptor* descriptor);
// Empties the middleware's carousel file cache; 0 on success.
int hbbtvDeleteDsmccFSAFile(void);

}  // extern "C"
