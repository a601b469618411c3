// The middleware's stream-event callback and the records it sends.
//
// Every event becomes one stream-event callback (66) to the browser with the
// event's path as location, its name, data, text and status:
// - an error event: data and text "undefined", status "error";
// - a fired event: status "trigger"; text is the payload's ASCII and
//   two-byte UTF-8 characters (U+0080 to U+00FF), or "undefined" when none
//   survive; data is hexadecimal, of the filtered text when something
//   survived, else of the raw payload.
//
// The hexadecimal text is written byte by byte with "%x" at two-character
// steps. A byte below 0x10 gives one digit and leaves the zero behind it,
// so the data text ends there; browsers rely on what this has always sent,
// so it stays. At most kMaxDataBytes source bytes are converted.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/c_api.h"
#include "common/log.h"
#include "hbbtv_externals/hbbtv_externals.h"
#include "protocol/protocol.h"

using appmgr::stream_events::kMaxDataBytes;

namespace {

constexpr const char* kUndefined = "undefined";
// The converted text: two characters per source byte, plus the terminator
// that "%x" writes after the last pair.
constexpr int kDataSize = 2 * kMaxDataBytes + 1;

// A new copy of text, "undefined" for a null text; null when out of memory.
char* copy_or_undefined(const char* text) {
    const char* source = text != nullptr ? text : kUndefined;
    const std::size_t size = std::strlen(source) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, source, size);
    return copy;
}

void send_event(StreamEventCallbackData* data) {
    appmgr::protocol::send(appmgr::protocol::Command::StreamEvent, data);
}

void send_error_event(const char* name, const char* path) {
    StreamEventCallbackData* data = createStreamEventCbDataStructure();
    StreamEvent* event = createStreamEventStructure();
    if (data == nullptr || event == nullptr ||
        initStreamEventStructure(event, name, kUndefined, kUndefined, "error") != NO_ERROR ||
        initStreamEventCbStructure(data, path, event) != NO_ERROR) {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback: out of memory for an error event\n");
        if (data == nullptr || data->event_data != event) freeStreamEventStructure(event);
        freeStreamEventCbData(data);
        return;
    }
    send_event(data);
    freeStreamEventCbData(data);
}

// The hexadecimal form of `length` bytes of source into data (kDataSize
// bytes, zeroed). A filtered (zero-terminated) source stops at its zero.
void write_hex(const char* source, int length, bool stop_at_zero, char (&data)[kDataSize]) {
    long long limit = 2LL * length;
    if (limit >= 2 * kMaxDataBytes) {
        AM_WARN("hbbtvExtQumaStreamEventsCallback called - stream event data overflow "
                "(eventDataLen: %lld) !\n",
                limit);
        limit = 2 * kMaxDataBytes - 1;
    }
    for (long long position = 0; position < limit; position += 2) {
        const unsigned char byte = static_cast<unsigned char>(source[position / 2]);
        if (stop_at_zero && byte == 0) break;
        std::snprintf(data + position, static_cast<std::size_t>(kDataSize - position), "%x", byte);
    }
}

void send_fired_event(const char* name, const char* path, const char* payload, int length) {
    AM_INFO("hbbtvExtQumaStreamEventsCallback received event eQUMAm_DSMCC_EVENT_FIRE\n");
    if (payload == nullptr || length < 1) {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback Error eQUMAm_DSMCC_EVENT_FIRE provided invalid "
                 "event payload eventStatus=%d, (payloadLen %d)\n",
                 static_cast<int>(eQUMAm_DSMCC_EVENT_FIRE), length);
        return;
    }
    char* utf8 = nullptr;
    int utf8_length = 0;
    const HbbErrorCodes filtered = extractValidUTF8Characters(payload, length, &utf8, &utf8_length);
    if (filtered != NO_ERROR) {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback Error - extractValidUTF8Characters failed "
                 "(code: %d)!\n",
                 static_cast<int>(filtered));
        return;
    }
    char data[kDataSize] = {0};
    const char* text = kUndefined;
    if (utf8_length != 0) {
        write_hex(utf8, utf8_length, true, data);
        text = utf8;
        AM_INFO("hbbtvExtQumaStreamEventsCallback - extractValidUTF8Characters passed (utf8 "
                "payload len %d) (utf8 payload %s)\n",
                utf8_length, utf8);
    } else {
        write_hex(payload, length, false, data);
        AM_INFO("hbbtvExtQumaStreamEventsCallback - create data filed passed (payload len %d) no "
                "UTF8 characters\n",
                length);
    }

    StreamEventCallbackData* callback_data = createStreamEventCbDataStructure();
    StreamEvent* event = createStreamEventStructure();
    HbbErrorCodes code = callback_data != nullptr && event != nullptr ? NO_ERROR : ALLOCATE_ERR;
    if (code == NO_ERROR) code = initStreamEventStructure(event, name, data, text, "trigger");
    if (code != NO_ERROR) {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback Error - initStreamEventStructure failed "
                 "(code: %d)!\n",
                 static_cast<int>(code));
    } else if ((code = initStreamEventCbStructure(callback_data, path, event)) != NO_ERROR) {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback Error - initStreamEventCbStructure failed "
                 "(code: %d)!\n",
                 static_cast<int>(code));
    } else {
        send_event(callback_data);
    }
    // The callback data owns the event once it is linked.
    if (callback_data == nullptr || callback_data->event_data != event)
        freeStreamEventStructure(event);
    freeStreamEventCbData(callback_data);
    std::free(utf8);
}

void stream_event(const char* name, const char* path, int status, const char* payload,
                  int length) {
    AM_INFO("hbbtvExtQumaStreamEventsCallback called (eventName %s) (eventPath %s) (eventStatus "
            "%d) (payloadSize %d)\n",
            name != nullptr ? name : "(null)", path != nullptr ? path : "(null)", status, length);
    if (status == eQUMAm_DSMCC_EVENT_ERROR) {
        send_error_event(name, path);
    } else if (status == eQUMAm_DSMCC_EVENT_FIRE) {
        send_fired_event(name, path, payload, length);
    } else {
        AM_ERROR("hbbtvExtQumaStreamEventsCallback received unsupported event (status: %d)\n",
                 status);
    }
}

}  // namespace

extern "C" {

APPMGR_API void hbbtvExtQUMAStreamEventsCallback(char* eventName, char* eventPath,
                                                 tQUMAm_DSMCC_StreamEventStatus eventStatus,
                                                 char* eventPayload, int payloadLen) {
    // The middleware is C code and may pass any number as the status.
    const int status = appmgr::c_enum(eventStatus);
    appmgr::c_entry_void(__func__, [&] {
        stream_event(eventName, eventPath, status, eventPayload, payloadLen);
    });
}

// Keeps bytes below 0x80, and 0xC2 / 0xC3 followed by a continuation byte
// (both bytes); 0xC2 / 0xC3 followed by anything else is dropped with that
// byte, every other byte of 0x80 or more alone.
APPMGR_API HbbErrorCodes extractValidUTF8Characters(const char* rawData, int rowDataLen,
                                                    char** utf8Output, int* utf8OutputLen) {
    if (rawData == nullptr || utf8Output == nullptr || utf8OutputLen == nullptr)
        return NULL_PTR_ERR;
    if (rowDataLen < 0) return UNDEFINED_ERR;
    auto* kept = static_cast<char*>(std::malloc(static_cast<std::size_t>(rowDataLen) + 1));
    if (kept == nullptr) return ALLOCATE_ERR;
    const auto* in = reinterpret_cast<const unsigned char*>(rawData);
    int count = 0;
    int i = 0;
    while (i < rowDataLen) {
        const unsigned char byte = in[i];
        if (byte < 0x80) {
            kept[count++] = static_cast<char>(byte);
            i += 1;
        } else if (byte == 0xC2 || byte == 0xC3) {
            if (i + 1 < rowDataLen && in[i + 1] >= 0x80 && in[i + 1] <= 0xBF) {
                kept[count++] = static_cast<char>(byte);
                kept[count++] = static_cast<char>(in[i + 1]);
            }
            i += 2;
        } else {
            i += 1;
        }
    }
    if (count == 0) {
        *utf8OutputLen = 0;
        std::free(kept);
        return NO_ERROR;
    }
    kept[count] = '\0';
    *utf8OutputLen = count + 1;
    *utf8Output = kept;
    return NO_ERROR;
}

APPMGR_API StreamEventCallbackData* createStreamEventCbDataStructure(void) {
    return static_cast<StreamEventCallbackData*>(std::calloc(1, sizeof(StreamEventCallbackData)));
}

APPMGR_API StreamEvent* createStreamEventStructure(void) {
    return static_cast<StreamEvent*>(std::calloc(1, sizeof(StreamEvent)));
}

APPMGR_API HbbErrorCodes initStreamEventStructure(StreamEvent* event, const char* name,
                                                  const char* data, const char* text,
                                                  const char* status) {
    if (event == nullptr) return NULL_PTR_ERR;
    char** fields[] = {&event->name, &event->data, &event->text, &event->status};
    const char* values[] = {name, data, text, status};
    for (std::size_t i = 0; i < 4; ++i) {
        std::free(*fields[i]);
        *fields[i] = copy_or_undefined(values[i]);
        if (*fields[i] == nullptr) return ALLOCATE_ERR;
    }
    return NO_ERROR;
}

APPMGR_API HbbErrorCodes initStreamEventCbStructure(StreamEventCallbackData* cbData,
                                                    const char* eventPath, StreamEvent* event) {
    if (cbData == nullptr) return NULL_PTR_ERR;
    std::free(cbData->location);
    cbData->location = copy_or_undefined(eventPath);
    if (cbData->location == nullptr) return ALLOCATE_ERR;
    cbData->event_data = event;
    return NO_ERROR;
}

APPMGR_API void freeStreamEventStructure(StreamEvent* event) {
    if (event == nullptr) return;
    std::free(event->name);
    std::free(event->data);
    std::free(event->text);
    std::free(event->status);
    std::free(event);
}

APPMGR_API void freeStreamEventCbData(StreamEventCallbackData* cbData) {
    if (cbData == nullptr) return;
    std::free(cbData->location);
    freeStreamEventStructure(cbData->event_data);
    std::free(cbData);
}

}  // extern "C"
