// Application and AIT records: allocation, release, deep copies and the
// owning handles the library keeps them in.
//
// The records are plain C structures (the middleware hands AITs in and may
// read the library's copies), so they are allocated with calloc/malloc and
// released with free. Inside the library a record that somebody owns is held
// in an ApplicationPtr / AitTablePtr, never as a bare pointer.
#pragma once

#include <memory>

#include "app_mgr_types.h"

extern "C" {

// A zeroed record with a zeroed transport descriptor, a zeroed URL buffer of
// url_length bytes and a zeroed boundary buffer of url_length bytes. Null
// when out of memory.
Application* allocate_application(unsigned int url_length);
// Releases a whole record (URL, descriptor, ratings, boundary, name, type)
// and resets the middleware's display mode; acts only on a record whose
// descriptor and URL are set, and then nulls *app.
void free_application(Application** app);
// A table of num_of_applications zeroed entries; each has a descriptor with
// an empty URL of url_length bytes, the boundary "no boundary", a zeroed name
// of url_length bytes and a zeroed 128-byte type. Null when out of memory or
// for a negative count.
AitTable* allocate_ait_table(int num_of_applications, unsigned int url_length);
// Releases a table and everything it points to, then nulls *ait_table.
void free_ait_table(AitTable** ait_table);

}  // extern "C"

namespace appmgr::records {

// Releases what an entry points to and nulls the pointers; the entry itself
// (usually an element of a table's array) stays.
void release_application_fields(Application& app);
// Releases what a table points to and empties it (dvb_url included).
void release_ait_fields(AitTable& table);

struct ApplicationDeleter {
    void operator()(Application* app) const;
};
struct AitTableDeleter {
    void operator()(AitTable* table) const;
};
using ApplicationPtr = std::unique_ptr<Application, ApplicationDeleter>;
using AitTablePtr = std::unique_ptr<AitTable, AitTableDeleter>;

// Deep copy of every field of an entry into `dst`, whose fields must be
// empty (zeroed or released). Texts and ratings are duplicated; null texts
// stay null. False when out of memory (dst is then released again).
bool copy_application_into(const Application& src, Application& dst);
// A new deep copy of an entry, or null when out of memory.
ApplicationPtr copy_application(const Application& src);
// Deep copy of a table into `dst`, which must be empty (zeroed or released).
// Entries, CRC words and texts are duplicated; a negative entry count reads
// as none. False when out of memory (dst is then left empty).
bool copy_ait_into(const AitTable& src, AitTable& dst);
// A new deep copy of a table, or null when out of memory.
AitTablePtr copy_ait(const AitTable& src);

// The entry URL of a record, or null when it has no transport.
inline const char* entry_url(const Application& app) {
    return app.transport_protocol != nullptr ? app.transport_protocol->url : nullptr;
}

}  // namespace appmgr::records
