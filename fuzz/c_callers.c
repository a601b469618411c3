/* Calls of the library's C ABI made as a C caller makes them, with any int
 * in an enum parameter (a C enum is an int). The targets are C++, where such
 * a value cannot be made without undefined behaviour. */
#include "app_mgr_search.h"
#include "app_mgr_stream_events.h"
#include "c_callers.h"

int fuzz_c_set_query(int plugin, int search, int group, int query, int field, int comparison,
                     char* value) {
    return hbbSetQueryInSubgroup(plugin, search, group, query, (eQueryFieldType)field,
                                 (eQueryComparisonType)comparison, value);
}

void fuzz_c_stream_event(char* name, char* path, int status, char* payload, int length) {
    hbbtvExtQUMAStreamEventsCallback(name, path, (tQUMAm_DSMCC_StreamEventStatus)status, payload,
                                     length);
}
