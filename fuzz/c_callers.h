/* See c_callers.c. */
#ifndef APPMGR_FUZZ_C_CALLERS_H
#define APPMGR_FUZZ_C_CALLERS_H

#ifdef __cplusplus
extern "C" {
#endif

int fuzz_c_set_query(int plugin, int search, int group, int query, int field, int comparison,
                     char* value);
void fuzz_c_stream_event(char* name, char* path, int status, char* payload, int length);

#ifdef __cplusplus
}
#endif

#endif
