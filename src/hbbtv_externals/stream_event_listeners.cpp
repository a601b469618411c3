// Adding and removing stream-event listeners, and the pending table of
// requests made before a page is loaded.
//
// What a target URL names decides how the listener is subscribed:
// - a dvb: URL names a stream-event object of the carousel: the object's
//   event list must carry the event, then the middleware subscribes it by
//   name and URL;
// - an http(s) URL names an XML description: its component tag and event id
//   are read from it and the middleware subscribes those;
// - anything else is relative to the page the browser loaded last. Before
//   any page is loaded the request waits in the pending table; afterwards
//   the description is read from the page's directory.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/c_api.h"
#include "common/log.h"
#include "core/core.h"
#include "dsmcc/dsmcc.h"
#include "hbb_platform.h"
#include "hbbtv_externals/hbbtv_externals.h"
#include "state/state.h"
#include "xml/xml.h"

namespace state = appmgr::state;

namespace {

// Releases the texts of a pending request and clears them.
void free_texts(StreamEventDescriptor& slot) {
    std::free(slot.targetURL);
    std::free(slot.eventName);
    slot.targetURL = nullptr;
    slot.eventName = nullptr;
}

constexpr int kSlots = APPMGR_STREAM_EVENT_SLOTS;
// Connect time-out of a description download, in seconds.
constexpr long kDescriptionConnectSeconds = 20;

// The slot a pending request goes to: the first free one of slots 0 to 6,
// else slot 7 whether it is taken or not (its request is then overwritten).
// The table never runs out of slots this way.
int pending_slot(const StreamEvents& table) {
    int index = 0;
    while (index <= kSlots - 2 && table.eventSlotUsed[index] != 0) ++index;
    return index;
}

// Keeps a request for a relative URL until a page is loaded (lock held).
HbbTVSTEErrorCode enqueue(const char* url, const char* name, ListenerActionType type) {
    const int slot = pending_slot(state::pending_stream_events());
    if (slot >= kSlots) {
        AM_ERROR("No free stream events slots (acquired slots %d)!\n",
                 state::pending_stream_events().acquiredSlots);
        return HBBTV_STE_NO_FREE_SLOTS;
    }
    configureStreamEventSlot(static_cast<uint8_t>(slot), url, name, type);
    return HBBTV_STE_OK;
}

// The directory of the page loaded last (up to and including its last
// "/"), or the empty text.
std::string loaded_page_directory() {
    state::ManagerLock lock;
    std::string page = state::loaded_url();
    const auto slash = page.rfind('/');
    return slash == std::string::npos ? std::string() : page.substr(0, slash + 1);
}

// Whether the comma-separated event list of a carousel stream-event object
// names the event.
bool carousel_lists_event(const char* url, const char* name) {
    HbbFileSystemEntryDescriptor* list = hbbGetDsmccStreamEventList(url);
    if (list == nullptr) return false;
    std::string names;
    if (list->entryPayload != nullptr && list->entryPayloadLen > 0)
        names.assign(list->entryPayload, static_cast<std::size_t>(list->entryPayloadLen));
    hbbReleaseDsmccEntryDescriptor(list);
    char* save = nullptr;
    for (char* piece = strtok_r(names.data(), ",", &save); piece != nullptr;
         piece = strtok_r(nullptr, ",", &save)) {
        if (std::strcmp(piece, name) == 0) return true;
    }
    return false;
}

void log_subscribe_failure(const char* url, const char* name) {
    AM_ERROR("hbbAddStreamEventListener Error - QUMA_StreamEventsSubscribe failed! (targetURL: "
             "%s) (eventName: %s)\n",
             url, name);
}

HbbTVSTEErrorCode subscribe_carousel_event(const char* url, const char* name) {
    AM_INFO("Target url points to the StreamEvent object, load it from carousel\n");
    if (!carousel_lists_event(url, name)) return HBBTV_STE_ERROR_SUBSCRIBE;
    AM_INFO("QUMA_SubscribeDSMCCEvent\n");
    if (QUMA_StreamEventsSubscribe(name, url, hbbtvExtQUMAStreamEventsCallback) == 0)
        return HBBTV_STE_OK;
    log_subscribe_failure(url, name);
    return HBBTV_STE_ERROR_SUBSCRIBE;
}

// Reads the description at description_url and subscribes the event under
// subscription_url. The event id goes out in 16 bits here, but in 8 bits
// when unsubscribing: ports match subscriptions on the low 8 bits.
HbbTVSTEErrorCode subscribe_described_event(const char* description_url,
                                            const char* subscription_url, const char* name) {
    int event_id = 0;
    int component_tag = 0;
    parse_xml_stream_event(description_url, name, &event_id, &component_tag);
    AM_INFO("Parsed stream event: %s %d %d\n", name, event_id, component_tag);
    if (QUMA_StreamEventsWOCSubscribe(static_cast<unsigned short>(component_tag), name,
                                      subscription_url, static_cast<unsigned short>(event_id),
                                      hbbtvExtQUMAStreamEventsCallback) == 0)
        return HBBTV_STE_OK;
    log_subscribe_failure(subscription_url, name);
    return HBBTV_STE_ERROR_SUBSCRIBE;
}

// Unsubscribing logs the add-error text on failure, like subscribing.
void unsubscribe_described_event(const char* description_url, const char* subscription_url,
                                 const char* name) {
    int event_id = 0;
    int component_tag = 0;
    parse_xml_stream_event(description_url, name, &event_id, &component_tag);
    AM_INFO("Parsed stream event: %s %d %d\n", name, event_id, component_tag);
    if (QUMA_StreamEventsWOCUnsubscribe(static_cast<unsigned short>(component_tag), name,
                                        subscription_url,
                                        static_cast<unsigned short>(static_cast<uint8_t>(event_id))) != 0)
        log_subscribe_failure(subscription_url, name);
}

// Both classify the URL and, for a relative one, look for a loaded page
// under one hold of the lock (check_url_type reads the current AIT's
// locator): a request either waits in the pending table or finds the page.
HbbTVSTEErrorCode add_listener(const char* url, const char* name) {
    AM_INFO("hbbAddStreamEventListener called -> targetURL: %s, eventName: %s\n", url, name);
    int type;
    {
        state::ManagerLock lock;
        type = check_url_type(const_cast<char*>(url));
        if (type != DVB_URL && type != HTTP_URL && state::loaded_url()[0] == '\0') {
            AM_INFO("Enqueueing adding stream event listener, wating for app to load ...\n");
            return enqueue(url, name, ADD_STREAM_EVENT_LISTENER);
        }
    }
    if (type == DVB_URL) return subscribe_carousel_event(url, name);
    if (type == HTTP_URL) return subscribe_described_event(url, url, name);
    return addStreamEventListenerRelativeURL(url, name) == HBBTV_STE_OK ? HBBTV_STE_OK
                                                                        : HBBTV_STE_ERROR_SUBSCRIBE;
}

void remove_listener(const char* url, const char* name) {
    AM_INFO("hbbRemoveStreamEventListener called -> targetURL: %s, eventName: %s\n", url, name);
    int type;
    {
        state::ManagerLock lock;
        type = check_url_type(const_cast<char*>(url));
        if (type != DVB_URL && type != HTTP_URL && state::loaded_url()[0] == '\0') {
            AM_INFO("Enqueueing removing stream event listener, wating for app to load ...\n");
            enqueue(url, name, REMOVE_STREM_EVENT_LISTENER);
            return;
        }
    }
    if (type == DVB_URL) {
        if (QUMA_StreamEventsUnsubscribe(name, url) != 0)
            AM_ERROR("QUMA_StreamEventsUnsubscribe Error - QUMA_StreamEventsUnsubscribe failed! "
                     "(targetURL: %s) (eventName: %s)\n",
                     url, name);
    } else if (type == HTTP_URL) {
        unsubscribe_described_event(url, url, name);
    } else {
        removeStreamEventListenerRelativeURL(url, name);
    }
}

char* copy_text(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

bool valid_slot(uint8_t slot, const char* caller) {
    if (slot < kSlots) return true;
    AM_ERROR("%s: slot %d outside the %d pending slots\n", caller, static_cast<int>(slot), kSlots);
    return false;
}

}  // namespace

extern "C" {

APPMGR_API HbbTVSTEErrorCode hbbAddStreamEventListener(const char* targetURL,
                                                       const char* eventName) {
    if (targetURL == nullptr || eventName == nullptr) return HBBTV_STE_BAD_PARAM;
    return appmgr::c_entry(__func__, HBBTV_STE_ERROR_SUBSCRIBE,
                           [&] { return add_listener(targetURL, eventName); });
}

APPMGR_API void hbbRemoveStreamEventListener(const char* targetURL, const char* eventName) {
    if (targetURL == nullptr || eventName == nullptr) return;
    appmgr::c_entry_void(__func__, [&] { remove_listener(targetURL, eventName); });
}

APPMGR_API HbbTVSTEErrorCode addStreamEventListenerRelativeURL(const char* targetURL,
                                                               const char* eventName) {
    if (targetURL == nullptr || eventName == nullptr) return HBBTV_STE_ERROR_SUBSCRIBE;
    return appmgr::c_entry(__func__, HBBTV_STE_ERROR_SUBSCRIBE, [&] {
        const std::string full = loaded_page_directory() + targetURL;
        return subscribe_described_event(full.c_str(), targetURL, eventName);
    });
}

APPMGR_API void removeStreamEventListenerRelativeURL(const char* targetURL,
                                                     const char* eventName) {
    if (targetURL == nullptr || eventName == nullptr) return;
    appmgr::c_entry_void(__func__, [&] {
        const std::string full = loaded_page_directory() + targetURL;
        unsubscribe_described_event(full.c_str(), targetURL, eventName);
    });
}

APPMGR_API void parse_xml_stream_event(const char* url, const char* name, int* event_id,
                                       int* c_tag) {
    if (url == nullptr || name == nullptr || event_id == nullptr || c_tag == nullptr) {
        AM_ERROR("parse_xml_stream_event: missing argument\n");
        return;
    }
    appmgr::c_entry_void(__func__, [&] {
        auto page = std::make_unique<PageInfo>();
        if (!appmgr::xml::fetch_document(url, kDescriptionConnectSeconds, page.get()) ||
            page->len <= 0)
            return;
        appmgr::xml::read_stream_event_description(page->data, page->len, name, event_id, c_tag);
    });
}

// ---- the pending table (kept under the manager lock) ----

APPMGR_API void configureStreamEventSlot(uint8_t slotIndex, const char* targetURL,
                                         const char* eventName, ListenerActionType type) {
    if (!valid_slot(slotIndex, __func__) || targetURL == nullptr || eventName == nullptr) return;
    appmgr::c_entry_void(__func__, [&] {
        char* url = copy_text(targetURL);
        if (url == nullptr) {
            AM_ERROR("Failed to malloc targetURL\n");
            return;
        }
        char* name = copy_text(eventName);
        if (name == nullptr) {
            AM_ERROR("Failed to malloc eventName\n");
            std::free(url);
            return;
        }
        state::ManagerLock lock;
        StreamEvents& table = state::pending_stream_events();
        // An earlier occupant (slot 7 when the others are taken) is replaced;
        // its texts are released rather than lost.
        StreamEventDescriptor& slot = table.events[slotIndex];
        free_texts(slot);
        slot.targetURL = url;
        slot.eventName = name;
        slot.type = type;
        table.eventSlotUsed[slotIndex] = 1;
        ++table.acquiredSlots;
    });
}

APPMGR_API void releaseStreamEventSlot(uint8_t slotIndex) {
    if (!valid_slot(slotIndex, __func__)) return;
    appmgr::c_entry_void(__func__, [&] {
        state::ManagerLock lock;
        StreamEvents& table = state::pending_stream_events();
        free_texts(table.events[slotIndex]);
        table.eventSlotUsed[slotIndex] = 0;
        --table.acquiredSlots;
    });
}

// Slot 7 is left as it is: it is the slot that takes every request once
// the others are full.
APPMGR_API void releaseStreamEventsForSubscription(void) {
    appmgr::c_entry_void(__func__, [] {
        state::ManagerLock lock;
        for (int slot = 0; slot < kSlots - 1; ++slot) {
            if (state::pending_stream_events().eventSlotUsed[slot] == 1)
                releaseStreamEventSlot(static_cast<uint8_t>(slot));
        }
    });
}

APPMGR_API int initializeStreamEventsUtil(void) {
    return appmgr::c_entry(__func__, 1, [] {
        state::ManagerLock lock;
        StreamEvents& table = state::pending_stream_events();
        for (StreamEventDescriptor& slot : table.events) free_texts(slot);
        std::memset(&table, 0, sizeof(table));
        return 1;
    });
}

APPMGR_API int deinitializeStreamEventsUtil(void) {
    releaseStreamEventsForSubscription();
    return 1;
}

}  // extern "C"
