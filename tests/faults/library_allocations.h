/* Allocation failures of the library's own code, for the fault walks.
 *
 * Only libappmgr_faultable.so, the copy of the library that the walks link,
 * provides these calls: every allocation its code makes (malloc, calloc,
 * realloc, strdup, strndup, operator new and new[], std::string growth
 * included) is counted here, and a plan can fail the nth one. Allocations of
 * anything else in the process (test framework, simulated platform,
 * libcurl, libxml2, the C++ runtime) are neither counted nor failed.
 * tests/faults/CMakeLists.txt says how the copy is built. */
#ifndef APPMGR_LIBRARY_ALLOCATIONS_H
#define APPMGR_LIBRARY_ALLOCATIONS_H

#ifdef __cplusplus
extern "C" {
#endif

/* The nth allocation of the library from now (1 = the next) fails: the C
 * functions answer null, operator new throws std::bad_alloc (its nothrow
 * form answers null). 0 plans no failure. Restarts the counts below. */
void appmgr_alloc_fail(long nth);
/* Allocations of the library since the last appmgr_alloc_fail. */
long appmgr_alloc_count(void);
/* Allocations failed by the plan since the last appmgr_alloc_fail. */
int appmgr_alloc_failed(void);
/* The call stack (return addresses, innermost first) of the allocation
 * that failed last: the number of frames written to frames (at most max).
 * Frame 0 is the counting function, 1 the wrapper of the allocation
 * function, 2 the library's call. */
int appmgr_alloc_failed_stack(void** frames, int max);

#ifdef __cplusplus
}
#endif

#endif /* APPMGR_LIBRARY_ALLOCATIONS_H */
