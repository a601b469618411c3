// Call recording of the simulated platform: every porting function reports
// its name and a details text here, for hbb_sim_call_count /
// hbb_sim_last_call and the trace hook.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "sim_internal.h"

namespace {

struct CallRecord {
    int count = 0;
    std::string last_details;
};

std::mutex records_mutex;
std::map<std::string, CallRecord> records;
hbb_sim_trace_fn trace_fn = nullptr;
void* trace_user = nullptr;

}  // namespace

namespace hbbsim {

void record(const char* function, const char* details_format, ...) {
    char details[512];
    va_list args;
    va_start(args, details_format);
    std::vsnprintf(details, sizeof details, details_format, args);
    va_end(args);

    hbb_sim_trace_fn fn;
    void* user;
    {
        std::lock_guard<std::mutex> lock(records_mutex);
        CallRecord& entry = records[function];
        ++entry.count;
        entry.last_details = details;
        fn = trace_fn;
        user = trace_user;
    }
    if (fn) fn(function, details, user);
}

char* dup_text(const char* text) {
    if (!text) return nullptr;
    size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy) std::memcpy(copy, text, size);
    return copy;
}

void reset_trace_records() {
    std::lock_guard<std::mutex> lock(records_mutex);
    records.clear();
}

}  // namespace hbbsim

extern "C" {

void hbb_sim_set_trace(hbb_sim_trace_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(records_mutex);
    trace_fn = fn;
    trace_user = user;
}

int hbb_sim_call_count(const char* function) {
    if (!function) return 0;
    std::lock_guard<std::mutex> lock(records_mutex);
    auto found = records.find(function);
    return found == records.end() ? 0 : found->second.count;
}

int hbb_sim_last_call(const char* function, char* buf, int buf_size) {
    std::string details;
    bool called = false;
    if (function) {
        std::lock_guard<std::mutex> lock(records_mutex);
        auto found = records.find(function);
        if (found != records.end()) {
            called = true;
            details = found->second.last_details;
        }
    }
    if (buf && buf_size > 0) std::snprintf(buf, static_cast<size_t>(buf_size), "%s", details.c_str());
    return called ? static_cast<int>(details.size()) : -1;
}

void hbb_sim_reset(void) {
    // Nothing queued from before the reset may reach the library afterwards.
    hbbsim::reset_notifier();
    hbbsim::reset_trace_records();
    hbbsim::reset_notifications();
    hbbsim::reset_channels();
    hbbsim::reset_presentation();
    hbbsim::reset_settable_answers();
    hbbsim::reset_carousel();
    hbbsim::reset_programmes();
    hbbsim::reset_components();
    hbbsim::reset_stream_events();
    hbbsim::reset_faults();
}

}  // extern "C"
