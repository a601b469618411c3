// The decision trace of the simulated platform: hbbTraceDecision hands each
// decision of the library to the host's hook. The hook is read under a
// mutex and called after it is released, so a hook may set another one.
#include <mutex>

#include "sim_internal.h"

namespace {

std::mutex decision_mutex;
hbb_sim_decision_fn decision_hook = nullptr;
void* decision_hook_user = nullptr;

}  // namespace

extern "C" {

void hbbTraceDecision(const hbbDecision* decision) {
    if (decision == nullptr) return;
    hbb_sim_decision_fn hook;
    void* user;
    {
        std::lock_guard<std::mutex> lock(decision_mutex);
        hook = decision_hook;
        user = decision_hook_user;
    }
    if (hook != nullptr) hook(decision, user);
}

void hbb_sim_set_decision_hook(hbb_sim_decision_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(decision_mutex);
    decision_hook = fn;
    decision_hook_user = user;
}

}  // extern "C"
