// Object carousel, DSM-CC loader and stream events.
//
// Simulated later: a carousel served from a local directory tree, with
// stream-event objects and events fired through the control API. Until then
// the simulated receiver has no carousel: mounting fails with
// eQUMA_NOT_AVAILABLE, every loader look-up answers DSMCC_LOADER_ERROR, and
// stream-event subscriptions fail with -1. Unmounting, disconnecting and
// emptying the file cache succeed, as there is nothing to undo. Every call is
// still recorded.
#include <cstdlib>

#include "sim_internal.h"

namespace {

DSMCC_LoaderResult no_carousel(const char* function, const char* dvbUrl) {
    hbbsim::record(function, "url=%s -> %d", hbbsim::text_or_null(dvbUrl),
                   static_cast<int>(DSMCC_LOADER_ERROR));
    return DSMCC_LOADER_ERROR;
}

}  // namespace

extern "C" {

// ---- carousel ------------------------------------------------------------------

tQUMA_ErrorCode QUMA_MountCarouselObject(unsigned short componentTag) {
    hbbsim::record("QUMA_MountCarouselObject", "ctag=%u -> %d", static_cast<unsigned>(componentTag),
                   static_cast<int>(eQUMA_NOT_AVAILABLE));
    return eQUMA_NOT_AVAILABLE;
}

tQUMA_ErrorCode QUMA_UmountCarouselObject(const char* mountName) {
    hbbsim::record("QUMA_UmountCarouselObject", "name=%s -> 0", hbbsim::text_or_null(mountName));
    return eQUMA_NO_ERROR;
}

void DSMCC_Disconnect(void) { hbbsim::record("DSMCC_Disconnect", "-"); }

int DSMCC_DeleteAllFileFromFSA(void) {
    hbbsim::record("DSMCC_DeleteAllFileFromFSA", "-> 0");
    return 0;
}

// ---- DSM-CC loader ----------------------------------------------------------------

DSMCC_LoaderResult DSMCC_LoaderGetEntryInfo(const char* dvbUrl, DSMCC_LoaderEntryType* entryType,
                                            unsigned short* moduleId) {
    (void)entryType;
    (void)moduleId;
    return no_carousel("DSMCC_LoaderGetEntryInfo", dvbUrl);
}

DSMCC_LoaderResult DSMCC_LoaderGetFile(const char* dvbUrl, unsigned char** data,
                                       unsigned int* length) {
    (void)data;
    (void)length;
    return no_carousel("DSMCC_LoaderGetFile", dvbUrl);
}

DSMCC_LoaderResult DSMCC_LoaderGetDirectory(const char* dvbUrl, char** listing) {
    (void)listing;
    return no_carousel("DSMCC_LoaderGetDirectory", dvbUrl);
}

DSMCC_LoaderResult DSMCC_LoaderGetStreamEventList(const char* dvbUrl, char** eventNames) {
    (void)eventNames;
    return no_carousel("DSMCC_LoaderGetStreamEventList", dvbUrl);
}

// Loader buffers are plain malloc blocks, so a test that replaces a loader
// call with one of its own can rely on this release.
void DSMCC_LoaderRelease(void* buffer) {
    hbbsim::record("DSMCC_LoaderRelease", "%s", buffer ? "buffer" : "null");
    std::free(buffer);
}

// ---- stream events -------------------------------------------------------------------

int QUMA_StreamEventsSubscribe(const char* eventName, const char* targetURL,
                               tQUMAm_DSMCC_StreamEventCallback callback) {
    hbbsim::record("QUMA_StreamEventsSubscribe", "name=%s url=%s callback=%s -> -1",
                   hbbsim::text_or_null(eventName), hbbsim::text_or_null(targetURL),
                   callback ? "set" : "null");
    return -1;
}

int QUMA_StreamEventsUnsubscribe(const char* eventName, const char* targetURL) {
    hbbsim::record("QUMA_StreamEventsUnsubscribe", "name=%s url=%s -> -1",
                   hbbsim::text_or_null(eventName), hbbsim::text_or_null(targetURL));
    return -1;
}

int QUMA_StreamEventsWOCSubscribe(unsigned short componentTag, const char* eventName,
                                  const char* targetURL, unsigned short eventId,
                                  tQUMAm_DSMCC_StreamEventCallback callback) {
    hbbsim::record("QUMA_StreamEventsWOCSubscribe", "ctag=%u name=%s url=%s id=%u callback=%s -> -1",
                   static_cast<unsigned>(componentTag), hbbsim::text_or_null(eventName),
                   hbbsim::text_or_null(targetURL), static_cast<unsigned>(eventId),
                   callback ? "set" : "null");
    return -1;
}

int QUMA_StreamEventsWOCUnsubscribe(unsigned short componentTag, const char* eventName,
                                    const char* targetURL, unsigned short eventId) {
    hbbsim::record("QUMA_StreamEventsWOCUnsubscribe", "ctag=%u name=%s url=%s id=%u -> -1",
                   static_cast<unsigned>(componentTag), hbbsim::text_or_null(eventName),
                   hbbsim::text_or_null(targetURL), static_cast<unsigned>(eventId));
    return -1;
}

}  // extern "C"
