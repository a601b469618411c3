#include "common/interruption.h"

#include <atomic>

namespace appmgr::interruption {
namespace {

std::atomic<bool> g_closing{false};
thread_local Check t_check = nullptr;
thread_local const void* t_context = nullptr;

}  // namespace

Scope::Scope(Check check, const void* context) noexcept
    : previous_check_(t_check), previous_context_(t_context) {
    t_check = check;
    t_context = context;
}

Scope::~Scope() {
    t_check = previous_check_;
    t_context = previous_context_;
}

bool requested() noexcept {
    if (g_closing.load(std::memory_order_acquire)) return true;
    return t_check != nullptr && t_check(t_context);
}

void set_closing(bool closing) noexcept { g_closing.store(closing, std::memory_order_release); }

}  // namespace appmgr::interruption
