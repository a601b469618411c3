// The library's own threads and their stacks.
//
// Every thread the library starts has a fixed stack size chosen for its
// kind, instead of the platform default (the process's stack limit, 8 MiB on
// most systems), which on a 32-bit receiver would reserve 8 MiB of address
// space per thread for a need of a few dozen KiB. Each size is the deepest
// use measured over the test suite (docs/robustness.md, "Thread stacks")
// plus a margin for the middleware functions the thread calls.
//
// The environment variable "APPMGR_THREAD_STACK_KIB" raises every kind's
// stack to the given number of KiB, for a middleware whose functions need
// more than the margin. It is read when a thread starts; a value below a
// kind's own size leaves that kind as it is.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace appmgr::threads {

enum class Kind {
    Receive,      // the five browser connections' receive threads
    BrowserWait,  // the wait for the browser after a crash
    Search,       // one per live EPG search
};

// Sanitizer builds need several times more stack per frame, unoptimised
// builds about twice as much.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define APPMGR_SANITIZED_STACKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define APPMGR_SANITIZED_STACKS 1
#endif
#endif

#if defined(APPMGR_SANITIZED_STACKS)
constexpr std::size_t kBuildFactor = 8;
#elif !defined(__OPTIMIZE__)
constexpr std::size_t kBuildFactor = 2;
#else
constexpr std::size_t kBuildFactor = 1;
#endif

// A receive thread runs every request handler, and through them the
// middleware's functions (channel and programme lists, carousel files, text
// conversion, logging). The deepest use measured over the test suite, the
// real-browser tests included, is 26 KiB on x86_64 (optimised, with its
// 4 KiB receive buffer); 256 KiB leave the middleware about 230 KiB.
constexpr std::size_t kReceiveStackSize = 256 * 1024 * kBuildFactor;
// The browser wait only waits, logs and may run the kill command: 8 KiB
// measured. 64 KiB, as a search thread.
constexpr std::size_t kBrowserWaitStackSize = 64 * 1024 * kBuildFactor;
// A scan needs a few kilobytes (one event record, a programme-id buffer,
// the log and send paths; 9.4 KiB measured). 64 KiB keep 128 live searches
// at 8 MiB of stacks, where the platform default would take 1 GiB of a
// 32-bit address space.
constexpr std::size_t kSearchStackSize = 64 * 1024 * kBuildFactor;

// The stack size a thread of `kind` starts with: its own size, or the
// environment's when that is larger.
std::size_t stack_size(Kind kind);

// Starts `body(arg)` on a joinable thread with the stack of its kind.
// Returns 0 or the error of pthread_create (or of the stack size).
int start(pthread_t* thread, Kind kind, void* (*body)(void*), void* arg);

// Test builds, with APPMGR_STACK_REPORT naming a file: fills the unused
// part of the calling thread's stack with a pattern when constructed, and
// when destroyed appends "KIND USED_BYTES STACK_BYTES" to the file, USED
// being the deepest the thread reached. Nothing otherwise (and never under
// the sanitizers, whose frames differ).
class StackWatch {
public:
    explicit StackWatch(Kind kind);
    ~StackWatch();
    StackWatch(const StackWatch&) = delete;
    StackWatch& operator=(const StackWatch&) = delete;

private:
    [[maybe_unused]] Kind kind_;
    [[maybe_unused]] unsigned char* low_ = nullptr;   // lowest painted byte
    [[maybe_unused]] unsigned char* high_ = nullptr;  // one past the end of the stack
};

}  // namespace appmgr::threads
