#include "common/threads.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace appmgr::threads {
namespace {

std::size_t own_size(Kind kind) {
    switch (kind) {
        case Kind::Receive: return kReceiveStackSize;
        case Kind::BrowserWait: return kBrowserWaitStackSize;
        case Kind::Search: return kSearchStackSize;
    }
    return kReceiveStackSize;
}

// The environment's stack size in bytes, 0 when unset or not a number.
std::size_t environment_size() {
    const char* text = std::getenv("APPMGR_THREAD_STACK_KIB");
    if (text == nullptr || *text == '\0') return 0;
    char* end = nullptr;
    errno = 0;
    const unsigned long kib = std::strtoul(text, &end, 10);
    // Beyond 1 GiB no thread stack makes sense on a receiver.
    if (errno != 0 || *end != '\0' || kib == 0 || kib > 1024ul * 1024ul) return 0;
    return static_cast<std::size_t>(kib) * 1024;
}

// Owns a pthread attribute object for the duration of a thread creation.
class Attributes {
public:
    Attributes() { ok_ = pthread_attr_init(&attr_) == 0; }
    ~Attributes() {
        if (ok_) pthread_attr_destroy(&attr_);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    int set_stack_size(std::size_t size) {
        return ok_ ? pthread_attr_setstacksize(&attr_, size) : ENOMEM;
    }
    const pthread_attr_t* get() const { return &attr_; }

private:
    pthread_attr_t attr_{};
    bool ok_ = false;
};

}  // namespace

std::size_t stack_size(Kind kind) {
    const std::size_t own = own_size(kind);
    const std::size_t raised = environment_size();
    return raised > own ? raised : own;
}

int start(pthread_t* thread, Kind kind, void* (*body)(void*), void* arg) {
    Attributes attributes;
    if (const int error = attributes.set_stack_size(stack_size(kind))) return error;
    return pthread_create(thread, attributes.get(), body, arg);
}

// ---- stack use in test builds ------------------------------------------------------------

#if defined(APPMGR_TEST_SEAMS) && !defined(APPMGR_SANITIZED_STACKS)

namespace {

constexpr unsigned char kPaint = 0xA5;
// Left unpainted: the page above the guard (what glibc keeps there), and
// what lies just below the current frame, which the painting call itself
// uses.
constexpr std::size_t kKeepAboveGuard = 4096;
constexpr std::size_t kKeepBelowFrame = 1024;

const char* kind_name(Kind kind) {
    switch (kind) {
        case Kind::Receive: return "receive";
        case Kind::BrowserWait: return "browser-wait";
        case Kind::Search: return "search";
    }
    return "?";
}

const char* report_path() {
    const char* path = std::getenv("APPMGR_STACK_REPORT");
    return path != nullptr && *path != '\0' ? path : nullptr;
}

// Never inlined, so that its frame is below the caller's and the painting
// starts beneath both.
__attribute__((noinline)) void paint(unsigned char* low, unsigned char* high) {
    volatile unsigned char* p = low;
    while (p < high) *p++ = kPaint;
}

}  // namespace

StackWatch::StackWatch(Kind kind) : kind_(kind) {
    if (report_path() == nullptr) return;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
    void* base = nullptr;
    std::size_t size = 0, guard = 0;
    pthread_attr_getstack(&attr, &base, &size);
    pthread_attr_getguardsize(&attr, &guard);
    pthread_attr_destroy(&attr);
    const auto bottom = reinterpret_cast<std::uintptr_t>(base);
    const auto low = bottom + guard + kKeepAboveGuard;
    const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) - kKeepBelowFrame;
    if (frame <= low) return;
    low_ = reinterpret_cast<unsigned char*>(low);
    high_ = reinterpret_cast<unsigned char*>(bottom + size);
    paint(low_, reinterpret_cast<unsigned char*>(frame));
}

StackWatch::~StackWatch() {
    const char* path = report_path();
    if (low_ == nullptr || path == nullptr) return;
    const volatile unsigned char* p = low_;
    while (p < high_ && *p == kPaint) ++p;
    const std::size_t used = static_cast<std::size_t>(high_ - p);
    char line[96];
    const int length = std::snprintf(line, sizeof line, "%s %zu %zu\n", kind_name(kind_), used,
                                     static_cast<std::size_t>(high_ - low_));
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    // One write of a short line to a file opened for appending: lines of
    // threads ending at the same time do not mix.
    ssize_t ignored = ::write(fd, line, static_cast<std::size_t>(length));
    (void)ignored;
    ::close(fd);
}

#else

StackWatch::StackWatch(Kind kind) : kind_(kind) {}
StackWatch::~StackWatch() = default;

#endif

}  // namespace appmgr::threads
