// Shared helpers of the simulated platform's modules.
//
// The simulator is built with hidden visibility: only the porting-layer and
// control functions, whose declarations are included below under default
// visibility, leave the shared object.
//
// No module calls an exported porting function of the simulator: a test may
// replace any single porting function by defining it in its own executable,
// and the rest of the simulator must then behave as before. Modules share
// state through the internal functions declared here instead.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#pragma GCC visibility push(default)
#endif
#include "hbb_sim.h"
#if defined(__GNUC__) || defined(__clang__)
#pragma GCC visibility pop
#endif

#include <functional>
#include <string>

namespace hbbsim {

// A service, as the programmes and components of the simulator know it.
struct Triplet {
    int onid = 0;
    int tsid = 0;
    int sid = 0;
    bool operator==(const Triplet& o) const { return onid == o.onid && tsid == o.tsid && sid == o.sid; }
};
// The triplet of the channel at a position of the list; false when none.
bool channel_triplet(int position, Triplet* out);
// The triplet (and ccid, when it has one; may be null) of the current
// channel; false when none is current.
bool current_channel(Triplet* out, std::string* ccid);
// The ccid of the first channel with this triplet ("" when it has none or
// there is no such channel).
std::string channel_ccid(const Triplet& channel);

// The component tag and the path ("" for the root; components decoded and
// joined with "/") of a carousel object's dvb: URL; false when the text is
// not one.
bool carousel_object(const char* url, int* component_tag, std::string* path);

// Whether the current channel carries a component with this tag (an AV or a
// data component of it); see hbb_sim_add_data_component.
bool current_channel_carries(int component_tag);
// Whether a carousel is served under this component tag.
bool carousel_served(int component_tag);

// Queues a notification for the notifier thread (see sim_notifier.cpp).
void post(std::function<void()> task);
// The library entry points the host registered.
hbb_sim_listeners listeners();

// Counts a porting call and hands its details (printf-style) to the trace
// hook. Must be called without any simulator lock held: the hook may call
// back into the control API.
void record(const char* function, const char* details_format, ...) HBB_PRINTF_LIKE(2, 3);

// True when the fault plan (sim_faults.cpp) fails this call of a failable
// porting function: the call is then traced as an injected failure and the
// caller answers its failure value. Every failable function asks first,
// holding no simulator lock.
bool injected_failure(const char* function);

// Printable rendering of a possibly null text, for call details.
inline const char* text_or_null(const char* text) { return text ? text : "(null)"; }

// malloc-based copy (released by the library with free()); null stays null.
char* dup_text(const char* text);

// Reads HBB_SIM_LOG_LEVEL / HBB_SIM_LOG_FILE once; every log entry point and
// control call goes through it first.
void ensure_log_configured();

// Start values of each module's state, for hbb_sim_reset.
void reset_trace_records();
void reset_notifications();
void reset_channels();
void reset_presentation();
void reset_settable_answers();
void reset_carousel();
void reset_notifier();
void reset_programmes();
void reset_components();
void reset_stream_events();
void reset_faults();

}  // namespace hbbsim
