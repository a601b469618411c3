// The fault plan: porting functions fail on purpose, on their nth call, the
// way the porting header lets them fail. Every failable function asks
// injected_failure() first; the table below names them with the value they
// then return, and hbb_sim_fail_call arms a plan by name or for any of them.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "sim_internal.h"

namespace {

struct Failable {
    const char* function;
    const char* failure;  // what the call answers when it fails
};

// Every porting function whose contract has a failure answer. Functions
// without one (void calls, logging, hbbGetState, hbbGetCurrentTime,
// hbbExitKeyHandle, whose answers are all valid) are not listed.
constexpr Failable kFailable[] = {
    // registrations
    {"QUMAm_Broadcast_SubscribeForAIT", "-1"},
    {"QUMAm_Broadcast_NetworkStatusChangeCallback", "-1"},
    {"QUMAm_DSMCCModuleDataChangeCallback", "-1"},
    // carousel and loader
    {"QUMA_MountCarouselObject", "eQUMA_ERROR"},
    {"QUMA_UmountCarouselObject", "eQUMA_ERROR"},
    {"DSMCC_DeleteAllFileFromFSA", "-1"},
    {"DSMCC_LoaderGetEntryInfo", "DSMCC_LOADER_ERROR"},
    {"DSMCC_LoaderGetFile", "DSMCC_LOADER_ERROR"},
    {"DSMCC_LoaderGetDirectory", "DSMCC_LOADER_ERROR"},
    {"DSMCC_LoaderGetStreamEventList", "DSMCC_LOADER_ERROR"},
    // stream events
    {"QUMA_StreamEventsSubscribe", "-1"},
    {"QUMA_StreamEventsUnsubscribe", "-1"},
    {"QUMA_StreamEventsWOCSubscribe", "-1"},
    {"QUMA_StreamEventsWOCUnsubscribe", "-1"},
    // channels and tuning
    {"channel_create", "null"},
    {"getCurrentChannelData", "-1"},
    {"hbbGetCurrentChannel", "null"},
    {"hbbGetChannelList", "null"},
    {"hbbGetChannelByPosition", "null"},
    {"hbbGetChannel", "null"},
    {"hbbGetChannelByTriplet", "null"},
    {"hbbGetChannelByDsd", "null"},
    {"hbbSetChannel", "-1"},
    {"hbbPreviousChannel", "-1"},
    {"hbbNextChannel", "-1"},
    {"hbbStopChannel", "0"},
    {"hbbBindCurrentChannel", "-1"},
    {"hbbReleaseChannelResources", "-1"},
    // programmes
    {"hbbGetProgrammeList", "null"},
    {"hbbGetProgrammeItem", "null"},
    {"hbbGetSIDescriptorsLength", "0"},
    {"hbbGetSIDescriptorsItem", "null"},
    {"hbbGetProgrammeLongDescription", "null"},
    // components, both families
    {"hbbSelectDefaultAVComponent", "-1"},
    {"hbbUnselectAVComponentByType", "-1"},
    {"hbbSelectAVVideoComponent", "-1"},
    {"hbbUnselectAVVideoComponent", "-1"},
    {"hbbSelectAVAudioComponent", "-1"},
    {"hbbUnselectAVAudioComponent", "-1"},
    {"hbbSelectAVSubtitleComponent", "-1"},
    {"hbbUnselectAVSubtitleComponent", "-1"},
    {"hbbGetAVComponentsLength", "0"},
    {"hbbGetActiveAVComponentsLength", "0"},
    {"hbbGetVideoComponentItem", "null"},
    {"hbbGetAudioComponentItem", "null"},
    {"hbbGetSubtitleComponentItem", "null"},
    {"hbbGetActiveVideoComponentItem", "null"},
    {"hbbGetActiveAudioComponentItem", "null"},
    {"hbbGetActiveSubtitleComponentItem", "null"},
    {"hbbtvSelectAVComponentByType", "-1"},
    {"hbbtvUnselectAVComponentByType", "-1"},
    {"hbbtvSelectAVVideoComponent", "-1"},
    {"hbbtvUnselectAVVideoComponent", "-1"},
    {"hbbtvSelectAVAudioComponent", "-1"},
    {"hbbtvUnselectAVAudioComponent", "-1"},
    {"hbbtvSelectAVSubtitleComponent", "-1"},
    {"hbbtvUnselectAVSubtitleComponent", "-1"},
    {"hbbtvGetAVComponentsLength", "0"},
    {"hbbtvGetActiveAVComponentsLength", "0"},
    {"hbbtvGetVideoComponentItem", "null"},
    {"hbbtvGetAudioComponentItem", "null"},
    {"hbbtvGetSubtitleComponentItem", "null"},
    {"hbbtvGetActiveVideoComponentItem", "null"},
    {"hbbtvGetActiveAudioComponentItem", "null"},
    {"hbbtvGetActiveSubtitleComponentItem", "null"},
    {"hbbtvCreateAVVideoComponent", "-1"},
    {"hbbtvCreateAVAudioComponent", "-1"},
    {"hbbOpenDtvDecoderByMask", "-1"},
    {"hbbCloseDtvDecoderByMask", "-1"},
    // video window and keys
    {"hbbSetVideoFullScreen", "-1"},
    {"hbbSetVideoProperties", "-1"},
    {"fpi_zoom_get_current_display_window", "-1"},
    {"hbbRegisterKeySet", "-1"},
    // parental rating, capabilities, configuration
    {"hbbGetParentalRatingSchemes", "null"},
    {"hbbGetCurrentParentalRatingThreshold", "null"},
    {"hbbHasCapability", "0"},
    {"hbbGetVideoDecodes", "null"},
    {"hbbGetXmlCapabilities", "null"},
    {"hbbGetConfiguration", "null"},
    // EIT cache and text conversion
    {"EIT_DVB_ClientRegister", "-1"},
    {"EIT_DVB_ClientUnregister", "-1 (the client is unregistered all the same)"},
    {"EIT_DVB_GetFirstServiceCache", "0"},
    {"EIT_DVB_GetNextServiceCache", "0"},
    {"EIT_DVB_GetServiceCacheForSpecificService", "-1"},
    {"EIT_DVB_LockCache", "-1"},
    {"EIT_DVB_UnlockCache", "-1 (the lock is released all the same)"},
    {"EIT_DVB_GetFirstEventFromCacheNonLock", "0"},
    {"EIT_DVB_GetNextEventFromCacheNonLock", "0"},
    {"EIT_DVB_GetNextEventFromCache", "0"},
    {"EIT_DVB_GetEventDataNonLock", "-1"},
    {"EIT_DVB_GetRestOfEventDataNonLock", "-1"},
    {"mUT_ConvertCurStdToUTF8", "null"},
    // miscellaneous
    {"hbbGetFreeMemory", "-1"},
    {"orb_am_sendBroadcast", "-1"},
    {"tvh_mds_get_player_url", "-1"},
};

bool is_failable(const char* function) {
    for (const Failable& f : kFailable)
        if (std::strcmp(f.function, function) == 0) return true;
    return false;
}

// The plans: calls left before the failing one, per function and for any
// function (0: no plan). `armed` lets the many calls made without a plan
// pass without taking the mutex.
std::mutex plan_mutex;
std::map<std::string, int> by_function;
int any_left = 0;
std::atomic<bool> armed{false};

std::atomic<int> failable_calls{0};
std::atomic<int> injected{0};
std::string last_injected;  // guarded by plan_mutex

void rearm_locked() { armed.store(any_left > 0 || !by_function.empty()); }

}  // namespace

namespace hbbsim {

bool injected_failure(const char* function) {
    failable_calls.fetch_add(1, std::memory_order_relaxed);
    if (!armed.load(std::memory_order_acquire)) return false;
    bool fail = false;
    {
        std::lock_guard<std::mutex> lock(plan_mutex);
        // Both plans count this call, whichever of them fires.
        if (any_left > 0 && --any_left == 0) fail = true;
        auto found = by_function.find(function);
        if (found != by_function.end() && --found->second == 0) {
            by_function.erase(found);
            fail = true;
        }
        if (fail) {
            injected.fetch_add(1, std::memory_order_relaxed);
            last_injected = function;
        }
        rearm_locked();
    }
    if (fail) record(function, "injected failure");
    return fail;
}

void reset_faults() {
    std::lock_guard<std::mutex> lock(plan_mutex);
    by_function.clear();
    any_left = 0;
    last_injected.clear();
    failable_calls = 0;
    injected = 0;
    rearm_locked();
}

}  // namespace hbbsim

extern "C" {

int hbb_sim_fail_call(const char* function, int nth) {
    if (function != nullptr && !is_failable(function)) return -1;
    std::lock_guard<std::mutex> lock(plan_mutex);
    if (function == nullptr)
        any_left = nth > 0 ? nth : 0;
    else if (nth > 0)
        by_function[function] = nth;
    else
        by_function.erase(function);
    failable_calls = 0;
    injected = 0;
    last_injected.clear();
    rearm_locked();
    return 0;
}

int hbb_sim_failable_calls(void) { return failable_calls.load(); }

int hbb_sim_injected_failures(char* function, int size) {
    std::lock_guard<std::mutex> lock(plan_mutex);
    if (function != nullptr && size > 0)
        std::snprintf(function, static_cast<size_t>(size), "%s", last_injected.c_str());
    return injected.load();
}

const char* hbb_sim_failable_function(int index, const char** failure) {
    constexpr int count = static_cast<int>(sizeof kFailable / sizeof kFailable[0]);
    if (index < 0 || index >= count) return nullptr;
    if (failure != nullptr) *failure = kFailable[index].failure;
    return kFailable[index].function;
}

int hbb_sim_eit_fail_call(const char* function, int nth) {
    if (function == nullptr || std::strncmp(function, "EIT_DVB_", 8) != 0) return -1;
    return hbb_sim_fail_call(function, nth);
}

}  // extern "C"
