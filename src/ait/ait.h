// AIT processing: the intake of the broadcast AITs the middleware decodes,
// and the judgement of the running application when a table arrives or the
// service changes. The middleware's entry points (aitUpdate, channelChanged,
// check_version) are exported in app_mgr.h; this header is the folder's
// interface for the rest of the library.
#pragma once

#include "app_mgr_types.h"

extern "C" {

// Start-of-life reset and emptying of the current AIT (take the lock).
void init_current_ait(void);
void clear_current_ait(void);
// Refusal checks of a new table (lock held): 1 when it may become current.
int checkNewAITTable(AitTable* ait);
// Replaces the current AIT by a deep copy of `ait` (lock held).
void update_current_ait(AitTable* ait);
// Keep-or-kill of the running application against a new table (lock held):
// 1 keeps it.
int check_running_application(AitTable* ait);
int check_independent_application_signalling(AitTable* table);
int check_independent_application_signalling_current_ait(void);
void check_application_new_signaling(AitTable* ait);
// Dumps of a table (logs).
void aitUpdateInfo(AitTable* ait);
void displayApplicationInfo(Application* app);
void displayTransportProtocolDescriptorInfo(transport_protocol_descriptor* tpd);

}  // extern "C"

namespace appmgr::ait {

// The keep-or-kill judgement of a broadcast-related running application
// against a table (lock held), with the reason of a kill as the decision
// trace names it. check_running_application answers `keep` alone.
struct Verdict {
    bool keep;
    const char* kill_reason;
};
Verdict judge_running(const AitTable* ait);

}  // namespace appmgr::ait
