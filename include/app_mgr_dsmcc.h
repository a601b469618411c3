/* libapp-mgr: dvb: locators and object carousel mounting.
 *
 * A dvb: URL names a service and, in its last host segment, the component
 * that carries an object carousel: "dvb://onid.tsid.sid.ctag/dir/file".
 * The host may drive the carousel mount itself with the calls below; the
 * library uses the same code when it starts carousel applications and
 * serves the browser's carousel requests. */
#ifndef APP_MGR_DSMCC_H
#define APP_MGR_DSMCC_H

#include "app_mgr_export.h"

APPMGR_BEGIN_DECLS

/* One parsed dvb: URL. A plain value: nothing in it is allocated. */
typedef struct DVBUrl_t {
    char protocol[7];      /* always "dvb://" after parsing */
    char host[32];         /* the locator between the prefix and the first "/" */
    char path[1536];       /* directory part of the path, no trailing "/" */
    char entry_file[512];  /* last path component when it names a file */
    int ctag;              /* last host segment read as hexadecimal */
} DVBUrl_t;
typedef DVBUrl_t DVBUrl;

/* Mounts the carousel of the URL's component tag on the current service.
 * 1 mounted, 0 failed (not a dvb: URL, malformed, or refused by the
 * middleware). */
APPMGR_API int hbbMountCarousel(const char* dvbUrl);

/* Builds the local mount-point directory of a carousel in out (at least
 * 256 bytes): the base directory (environment variable DSMCC_MOUNT_POINT,
 * default "/tmp/dsmcc/", which must end with "/") followed by the URL's
 * host, and creates it when missing. 0 when the directory exists; non-zero
 * otherwise, with out emptied. Hosts other than letters, digits and dots
 * are refused. */
APPMGR_API int create_mount_point(DVBUrl_t in, char* out);

APPMGR_END_DECLS

#endif /* APP_MGR_DSMCC_H */
