/* libapp-mgr: string dictionary used by the INI reader.
 *
 * An ini_dict maps texts to texts. Keys are compared by hash and then by
 * text, with a linear scan; a free slot has a null key. Values may be null.
 * The dictionary owns copies of every key and value it holds.
 *
 * Not thread-safe: use one dictionary per thread or lock around every call.
 * strlwc() and strstrip() return a static buffer shared by all callers. */
#ifndef INI_DICT_H
#define INI_DICT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "app_mgr_export.h"

/* Longest text strlwc() and strstrip() return; longer inputs are cut. */
#define INI_DICT_STATIC_MAX 1024

typedef struct ini_dict {
    int n;          /* entries in use */
    int size;       /* capacity of the three arrays */
    char** val;     /* values, may be null */
    char** key;     /* keys; null marks a free slot */
    uint32_t* hash; /* hash of each key */
} ini_dict;

APPMGR_BEGIN_DECLS

/* Jenkins one-at-a-time hash of the key's bytes; 0 for a null key. */
APPMGR_API uint32_t ini_dict_hash(const char* key);
/* New empty dictionary with room for max(size, 128) entries; NULL on failure. */
APPMGR_API ini_dict* ini_dict_new(int size);
/* Frees the dictionary and everything in it; NULL is ignored. */
APPMGR_API void ini_dict_del(ini_dict* d);
/* Value stored under key (which may be NULL for a null value), or def when
 * the key is absent. */
APPMGR_API const char* ini_dict_get(const ini_dict* d, const char* key, const char* def);
/* Stores a copy of val (NULL allowed) under a copy of key, replacing any
 * earlier value; the capacity doubles when full. 0 on success, -1 for a NULL
 * dictionary or key or when memory runs out (the dictionary is unchanged). */
APPMGR_API int ini_dict_set(ini_dict* d, const char* key, const char* val);
/* Removes key and its value; absent keys are ignored. */
APPMGR_API void ini_dict_unset(ini_dict* d, const char* key);
/* Prints every entry as "key<TAB>[value]" ("UNDEF" for a null value). */
APPMGR_API void ini_dict_dump(const ini_dict* d, FILE* out);

/* Zero-filled block of 2 * size bytes starting with the first size bytes of
 * ptr; ptr is freed. On failure returns NULL and ptr is left untouched. */
APPMGR_API void* mem_double(void* ptr, size_t size);
/* malloc'ed copy of s (release with free()); NULL for NULL or no memory. */
APPMGR_API char* xstrdup(const char* s);
/* Lower-cased copy of s in a static buffer, cut to INI_DICT_STATIC_MAX
 * characters; NULL for NULL. Valid until the next strlwc() call. */
APPMGR_API char* strlwc(const char* s);
/* Copy of s without leading and trailing white space in a static buffer,
 * cut to INI_DICT_STATIC_MAX characters; NULL for NULL. Valid until the next
 * strstrip() call. */
APPMGR_API char* strstrip(const char* s);

APPMGR_END_DECLS

#endif /* INI_DICT_H */
