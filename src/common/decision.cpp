#include "common/decision.h"

#include "hbb_platform.h"

namespace appmgr::decision {

const char* name(Kind kind) {
    switch (kind) {
        case Kind::Autostart: return "autostart";
        case Kind::NoAutostart: return "no_autostart";
        case Kind::Keep: return "keep";
        case Kind::Kill: return "kill";
        case Kind::Refused: return "refused";
        case Kind::Empty: return "empty";
        case Kind::Held: return "held";
        case Kind::ProbeFailed: return "probe_failed";
        case Kind::LoadError: return "load_error";
        case Kind::PageLoaded: return "page_loaded";
    }
    return "unknown";
}

Event about(Kind kind, const Application* app, const char* reason) {
    Event event{kind};
    event.reason = reason;
    if (app == nullptr) return event;
    event.org_id = app->organisation_id;
    event.app_id = app->app_id;
    event.priority = app->app_priority;
    if (app->app_name != nullptr) event.app_name = app->app_name;
    if (app->transport_protocol != nullptr && app->transport_protocol->url != nullptr)
        event.url = app->transport_protocol->url;
    return event;
}

Event at(Kind kind, const char* url, const char* reason, int value) {
    Event event{kind};
    if (url != nullptr) event.url = url;
    event.reason = reason;
    event.value = value;
    return event;
}

void report(const Event& event) {
    // A weak reference: null when the platform leaves the trace out.
    if (hbbTraceDecision == nullptr) return;
    const hbbDecision record{name(event.kind), event.org_id, event.app_id, event.priority,
                             event.app_name,   event.url,    event.reason, event.value};
    hbbTraceDecision(&record);
}

}  // namespace appmgr::decision
