// The allocation functions of libappmgr_faultable.so.
//
// That copy of the library is linked with --wrap for each allocation
// function its code calls, so every such call of the library lands here
// (__wrap_malloc) and the real function is reached as __real_malloc. The
// linker applies the wrapping to the copy's own objects only: the rest of
// the process allocates as usual.
//
// std::string's members normally live in the C++ runtime and allocate
// there, out of reach of the wrapping. The copy is compiled with
// _GLIBCXX_ASSERTIONS, which makes them instances of the library's own
// objects (kept local by the copy's version script), so string growth is
// counted and failed like any other allocation of the library.
#include "library_allocations.h"

#include <execinfo.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>

// operator new's names carry size_t's mangling: unsigned long ("m") on
// 64-bit targets, unsigned int ("j") on 32-bit ARM.
#if __SIZEOF_SIZE_T__ == 8
#define APPMGR_NEW(prefix, suffix) prefix "m" suffix
#else
#define APPMGR_NEW(prefix, suffix) prefix "j" suffix
#endif

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
char* __real_strdup(const char* text);
char* __real_strndup(const char* text, size_t size);
}
void* real_new(size_t size) __asm__(APPMGR_NEW("__real__Znw", ""));
void* real_new_array(size_t size) __asm__(APPMGR_NEW("__real__Zna", ""));
void* real_new_nothrow(size_t size, const std::nothrow_t& tag) noexcept
    __asm__(APPMGR_NEW("__real__Znw", "RKSt9nothrow_t"));
void* real_new_array_nothrow(size_t size, const std::nothrow_t& tag) noexcept
    __asm__(APPMGR_NEW("__real__Zna", "RKSt9nothrow_t"));
void* wrap_new(size_t size) __asm__(APPMGR_NEW("__wrap__Znw", ""));
void* wrap_new_array(size_t size) __asm__(APPMGR_NEW("__wrap__Zna", ""));
void* wrap_new_nothrow(size_t size, const std::nothrow_t& tag) noexcept
    __asm__(APPMGR_NEW("__wrap__Znw", "RKSt9nothrow_t"));
void* wrap_new_array_nothrow(size_t size, const std::nothrow_t& tag) noexcept
    __asm__(APPMGR_NEW("__wrap__Zna", "RKSt9nothrow_t"));

namespace {

constexpr int kStackFrames = 16;

std::atomic<long> counted{0};
std::atomic<long> fail_at{0};
std::atomic<int> failed{0};
std::mutex stack_mutex;
void* failed_stack[kStackFrames];
int failed_frames = 0;

// Counts one allocation of the library; true when the plan fails it. Never
// inlined, so that the stack of a failed allocation always starts with this
// function and the wrapper: its third frame is the library's call.
__attribute__((noinline)) bool fails_now() {
    const long n = counted.fetch_add(1, std::memory_order_relaxed) + 1;
    const long at = fail_at.load(std::memory_order_relaxed);
    if (at == 0 || n != at) return false;
    failed.fetch_add(1, std::memory_order_relaxed);
    // backtrace() allocates on its first use, inside the C library: that
    // allocation does not come back here.
    std::lock_guard<std::mutex> lock(stack_mutex);
    failed_frames = backtrace(failed_stack, kStackFrames);
    return true;
}

}  // namespace

extern "C" {

void appmgr_alloc_fail(long nth) {
    fail_at.store(nth > 0 ? nth : 0);
    counted.store(0);
    failed.store(0);
}

long appmgr_alloc_count(void) { return counted.load(); }

int appmgr_alloc_failed(void) { return failed.load(); }

int appmgr_alloc_failed_stack(void** frames, int max) {
    std::lock_guard<std::mutex> lock(stack_mutex);
    int n = failed_frames < max ? failed_frames : max;
    if (n > 0) std::memcpy(frames, failed_stack, static_cast<size_t>(n) * sizeof(void*));
    return n > 0 ? n : 0;
}

void* __wrap_malloc(size_t size) { return fails_now() ? nullptr : __real_malloc(size); }

void* __wrap_calloc(size_t count, size_t size) {
    return fails_now() ? nullptr : __real_calloc(count, size);
}

// A failed realloc leaves the block as it was.
void* __wrap_realloc(void* block, size_t size) {
    return fails_now() ? nullptr : __real_realloc(block, size);
}

char* __wrap_strdup(const char* text) { return fails_now() ? nullptr : __real_strdup(text); }

char* __wrap_strndup(const char* text, size_t size) {
    return fails_now() ? nullptr : __real_strndup(text, size);
}

}  // extern "C"

void* wrap_new(size_t size) {
    if (fails_now()) throw std::bad_alloc();
    return real_new(size);
}

void* wrap_new_array(size_t size) {
    if (fails_now()) throw std::bad_alloc();
    return real_new_array(size);
}

void* wrap_new_nothrow(size_t size, const std::nothrow_t& tag) noexcept {
    return fails_now() ? nullptr : real_new_nothrow(size, tag);
}

void* wrap_new_array_nothrow(size_t size, const std::nothrow_t& tag) noexcept {
    return fails_now() ? nullptr : real_new_array_nothrow(size, tag);
}
