// The library state and a few flags are plain C globals (exported with their
// C types) that several threads read and write. Accesses from the library go
// through these helpers so that they are atomic without changing the type.
#pragma once

#include "app_mgr_types.h"

namespace appmgr {

template <typename T>
inline T atomic_get(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}
template <typename T>
inline void atomic_set(T& v, T value) {
    __atomic_store_n(&v, value, __ATOMIC_RELEASE);
}

AppMgrState library_state();
void set_library_state(AppMgrState state);
const char* library_state_name(AppMgrState state);

}  // namespace appmgr
