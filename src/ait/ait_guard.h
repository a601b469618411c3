// Scoped hold of the recursive AIT guard.
#pragma once

#include "app_mgr.h"
#include "common/log.h"

namespace appmgr {

// Takes the AIT guard for a scope. A failure is logged with the lock message
// used for lock and unlock alike; callers check locked().
class AitGuardScope {
public:
    AitGuardScope() : locked_(lockAitGuard() != 0) {
        if (!locked_) AM_ERROR("Error: lockAitGuard failed !\n");
    }
    ~AitGuardScope() {
        if (locked_ && !unlockAitGuard()) AM_ERROR("Error: lockAitGuard failed !\n");
    }
    AitGuardScope(const AitGuardScope&) = delete;
    AitGuardScope& operator=(const AitGuardScope&) = delete;
    bool locked() const { return locked_; }

private:
    bool locked_;
};

}  // namespace appmgr
