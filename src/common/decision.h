// The library's decisions (an autostart entry chosen, the running
// application kept or killed, a table refused, a load error, ...), each told
// in one trace point: AM_DECISION writes the log line the decision has
// always had and reports the same decision as a named event with its fields
// to the platform's optional decision trace (hbbTraceDecision in the porting
// header). Tests and the emulator follow the events, never the log wording.
#pragma once

#include "app_mgr_types.h"
#include "common/log.h"

namespace appmgr::decision {

// The events; name() gives the names the porting header lists.
enum class Kind {
    Autostart,
    NoAutostart,
    Keep,
    Kill,
    Refused,
    Empty,
    Held,
    ProbeFailed,
    LoadError,
    PageLoaded,
};

const char* name(Kind kind);

// A decision and its fields; texts are borrowed until report() returns.
struct Event {
    Kind kind;
    int org_id = -1;
    int app_id = -1;
    int priority = 0;
    const char* app_name = "";
    const char* url = "";
    const char* reason = "";
    int value = 0;
};

// A decision about an application record (its ids, priority, name and URL).
Event about(Kind kind, const Application* app, const char* reason = "");
// A decision about a URL (a page, or a table's locator).
Event at(Kind kind, const char* url, const char* reason = "", int value = 0);

// Hands the event to the platform's decision trace, when there is one.
void report(const Event& event);

}  // namespace appmgr::decision

// A trace point: the log line exactly as AM_LOG writes it (the deciding
// function and line in its prefix), then the event.
#define AM_DECISION(level, event, fmt, ...)             \
    do {                                                \
        AM_LOG(level, fmt, ##__VA_ARGS__);              \
        appmgr::decision::report(event);                \
    } while (0)
