// Key sets of the running application.
//
// The key set is the mask of key groups the running application receives.
// It is clamped to what the application may have at its activation state,
// sent to the browser (command 220) and registered with the platform's key
// routing. Injecting remote-control keys into the graphics system is a
// separate client (remote_input.cpp).
#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

namespace state = appmgr::state;

namespace {

// Key-group masks.
constexpr int kKeySetEnd = 0x800;          // first mask that is not valid
constexpr int kAllButOtherKeys = 0x3FF;    // every group except "other keys" (0x400)
constexpr int kBeforeActivation = 0x1F;    // colour keys and navigation

// Key-set calls count only while the manager is up or a portal is shown
// (manager lock held).
bool key_sets_accepted() { return state::active() || state::portal(); }

// Applies a valid mask: the browser and the platform are told under the
// manager lock, in the order of the changes.
int apply_key_set(int value, bool has_other_keys) {
    if (!has_other_keys) value &= kAllButOtherKeys;
    state::set_requested_keys(value);
    KeySet keys = state::key_set();
    keys.value = state::activated() ? value : (value & kBeforeActivation);
    state::set_key_set(keys);
    AM_INFO("set keySet.value:0x%x (requested:0x%x)\n", static_cast<unsigned>(keys.value),
            static_cast<unsigned>(value));
    int mask = keys.value;
    appmgr::protocol::send(appmgr::protocol::Command::SetKeySet, &mask);
    hbbRegisterKeySet(mask);
    return mask;
}

int set_key_set(int value, bool has_other_keys) {
    state::ManagerLock lock;
    if (!key_sets_accepted()) return 1;
    if (value < 0 || value >= kKeySetEnd) {
        AM_ERROR("INVALID KEYSET VALUE\n");
        return 0;
    }
    return apply_key_set(value, has_other_keys);
}

}  // namespace

namespace appmgr::core {

int current_key_set_value() { return state::key_set().value; }

}  // namespace appmgr::core

extern "C" {

APPMGR_API int setKeySet(int value, int* otherKeys) {
    // Only the presence of the other-keys list matters; it is never read.
    return appmgr::c_entry(__func__, 0, [&] { return set_key_set(value, otherKeys != nullptr); });
}

void setActivateKeySet(void) {
    state::ManagerLock lock;
    AM_INFO(" Enter setDefaultKeySet, activateValue:0x%x\n\n",
            static_cast<unsigned>(state::requested_keys()));
    if (!key_sets_accepted()) return;
    apply_key_set(state::requested_keys(), false);
}

}  // extern "C"
