/* libapp-mgr: reader for INI-style configuration files.
 *
 * parse_ini_load() turns a file into an ini_dict. Every "[name]" line adds
 * an entry "name" with a null value and starts a section; every
 * "key = value" line adds "section:key". Section names and keys are stored
 * lower-cased, values as written. The getters take the same "section:key"
 * form and lower-case it before the lookup.
 *
 * Not thread-safe (see ini_dict.h): one dictionary per thread, or external
 * locking. Keys given to the getters are cut to PARSE_INI_LINE_MAX
 * characters. */
#ifndef PARSE_INI_H
#define PARSE_INI_H

#include <stdio.h>

#include "app_mgr_export.h"
#include "ini_dict.h"

/* Longest logical line (continuations included) the loader accepts. */
#define PARSE_INI_LINE_MAX 1024

typedef enum line_status {
    LINE_UNPROCESSED = 0,
    LINE_ERROR = 1,
    LINE_EMPTY = 2,
    LINE_COMMENT = 3,
    LINE_SECTION = 4,
    LINE_VALUE = 5
} line_status;

APPMGR_BEGIN_DECLS

/* Reads the file at path. NULL when it cannot be read, when a line is longer
 * than PARSE_INI_LINE_MAX characters, when any line is malformed or when
 * memory runs out. Release the result with parse_ini_freedict(). */
APPMGR_API ini_dict* parse_ini_load(const char* path);
APPMGR_API void parse_ini_freedict(ini_dict* d);

/* Number of sections (entries whose key has no ':'); -1 for NULL. */
APPMGR_API int parse_ini_getnsec(const ini_dict* d);
/* Name of the n-th section (from 0), or NULL. */
APPMGR_API const char* parse_ini_getsecname(const ini_dict* d, int n);

/* Value of "section:key", or def when absent (a section name gives NULL). */
APPMGR_API const char* parse_ini_getstring(const ini_dict* d, const char* key,
                                           const char* def);
/* Value read as a C integer ("0x1F" hex, "017" octal, "-5"), clamped to the
 * range of int; notfound when absent or null. */
APPMGR_API int parse_ini_getint(const ini_dict* d, const char* key, int notfound);
APPMGR_API double parse_ini_getdouble(const ini_dict* d, const char* key, double notfound);
/* 1 for a value starting with y Y 1 t T, 0 for n N 0 f F, otherwise notfound. */
APPMGR_API int parse_ini_getboolean(const ini_dict* d, const char* key, int notfound);

/* Sets / removes the lower-cased entry; set returns 0 or -1 like ini_dict_set. */
APPMGR_API int parse_ini_set(ini_dict* d, const char* entry, const char* val);
APPMGR_API void parse_ini_unset(ini_dict* d, const char* entry);
/* 1 when the lower-cased entry exists (even with a null value), else 0. */
APPMGR_API int parse_ini_find_entry(const ini_dict* d, const char* entry);

/* Prints every entry as "[key]=[value]" ("[key]=UNDEF" for a null value). */
APPMGR_API void parse_ini_dump(const ini_dict* d, FILE* out);
/* Prints the dictionary as an INI file that parse_ini_load() reads back into
 * the same entries (see docs/ini.md for the few texts that cannot). */
APPMGR_API void parse_ini_dump_ini(const ini_dict* d, FILE* out);

/* Classifies one line. section, key and value must each hold
 * PARSE_INI_LINE_MAX + 1 bytes; section is written only for LINE_SECTION,
 * key and value only for LINE_VALUE. The line is cut to PARSE_INI_LINE_MAX
 * characters after stripping. */
APPMGR_API line_status parse_ini_line(const char* input_line, char* section, char* key,
                                      char* value);

APPMGR_END_DECLS

#endif /* PARSE_INI_H */
