// The middleware notifications the library registers for (AIT updates,
// network status, carousel module updates), and the control calls that fire
// them. Callbacks are called without any simulator lock held, because they
// take the library's own locks and may call porting functions.
#include <mutex>

#include "sim_internal.h"

namespace {

std::mutex callbacks_mutex;
QUMAm_AitUpdateCallback ait_callback = nullptr;
QUMAm_NetworkStatusCallback network_callback = nullptr;
QUMAm_ModuleDataChangeCallback module_callback = nullptr;

// Stores a registration; a null callback is refused and leaves the previous
// one in place.
template <typename Callback>
int store(Callback& slot, Callback callback) {
    if (!callback) return -1;
    std::lock_guard<std::mutex> lock(callbacks_mutex);
    slot = callback;
    return 0;
}

template <typename Callback>
Callback load(Callback& slot) {
    std::lock_guard<std::mutex> lock(callbacks_mutex);
    return slot;
}

}  // namespace

namespace hbbsim {

void reset_notifications() {
    std::lock_guard<std::mutex> lock(callbacks_mutex);
    ait_callback = nullptr;
    network_callback = nullptr;
    module_callback = nullptr;
}

}  // namespace hbbsim

extern "C" {

int QUMAm_Broadcast_SubscribeForAIT(QUMAm_AitUpdateCallback callback) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = store(ait_callback, callback);
    hbbsim::record("QUMAm_Broadcast_SubscribeForAIT", "callback=%s -> %d",
                   callback ? "set" : "null", result);
    return result;
}

int QUMAm_Broadcast_NetworkStatusChangeCallback(QUMAm_NetworkStatusCallback callback) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = store(network_callback, callback);
    hbbsim::record("QUMAm_Broadcast_NetworkStatusChangeCallback", "callback=%s -> %d",
                   callback ? "set" : "null", result);
    return result;
}

int QUMAm_DSMCCModuleDataChangeCallback(QUMAm_ModuleDataChangeCallback callback) {
    if (hbbsim::injected_failure(__func__)) return -1;
    int result = store(module_callback, callback);
    hbbsim::record("QUMAm_DSMCCModuleDataChangeCallback", "callback=%s -> %d",
                   callback ? "set" : "null", result);
    return result;
}

int hbb_sim_fire_ait(AitTable* ait) {
    QUMAm_AitUpdateCallback callback = load(ait_callback);
    if (!callback) return -1;
    callback(ait);
    return 0;
}

int hbb_sim_fire_network_status(int status) {
    QUMAm_NetworkStatusCallback callback = load(network_callback);
    if (!callback) return -1;
    callback(status);
    return 0;
}

int hbb_sim_fire_module_update(unsigned short module_id, unsigned char is_dir_ref, void* data) {
    QUMAm_ModuleDataChangeCallback callback = load(module_callback);
    if (!callback) return -1;
    callback(module_id, is_dir_ref, data);
    return 0;
}

}  // extern "C"
