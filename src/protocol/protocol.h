// The text protocol with the browser: the ids of what the library sends,
// the field parser every request handler uses, and the two ways out (a
// command or callback of the library's own, a reply to a request).
//
// Every message is plain 8-bit text: an id and fields, each followed by "|".
// Library-initiated messages carry a "%3d" length prefix and no terminating
// zero; replies carry the terminating zero and no prefix. docs/protocol.md
// lists every id of every connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "app_mgr_types.h"

namespace appmgr::protocol {

// Commands (on "Application") and callbacks (on "Callbacks") of the library.
// The comment gives the system's own symbolic name where it has one.
enum class Command : int {
    UserAgentAddon = 24,
    AcceptLanguage = 25,
    Cookies = 26,
    CarouselModuleUpdated = 27,
    BindService = 48,            // CMD_BIND_SERVICE
    UnbindService = 49,          // CMD_UNBIND_SERVICE
    StartApplication = 50,
    DestroyApplication = 51,     // CMD_DESTROY_APPLICATION
    Text52 = 52,
    ShowApplication = 53,
    HideApplication = 54,
    SetBoundary = 59,            // CMD_SET_APPLICATION_BOUNDARY
    ChannelChanged = 60,         // CB_CHANNEL_CHANGED
    ChannelChangeError = 61,
    ParentalRatingChanged = 62,
    ParentalRatingError = 63,
    ProgrammeListChanged = 64,   // CB_PROGRAMME_LIST_CHANGED
    MemoryLow = 65,
    StreamEvent = 66,
    SearchStatus = 67,           // CB_SEARCH_STATUS_EVENT
    ApplicationLoadError = 68,   // CB_APPLICATION_LOAD_ERROR
    SelectedComponentChanged = 69,  // CB_SELECTED_AV_COMPONENT_CHANGED
    AppTypeChanged = 76,         // CB_APP_TYPE_CHANGED
    SignalStatus = 77,           // CB_SIGNAL_STATUS
    ComponentChanged = 79,       // CB_AV_COMPONENT_CHANGED
    DisplayModeChanged = 81,
    StartPortal = 140,
    TimeZone = 141,
    CloseBrowser = 160,
    EpgUpdate = 161,
    DrmMessageResult = 170,      // CB_DRM_MESSAGE_RESULT
    DrmSystemStatusChange = 171, // CB_DRM_SYSTEM_STATUS_CHANGE
    DrmSystemMessage = 172,      // CB_DRM_SYSTEM_MESSAGE
    Text209 = 209,
    SetKeySet = 220,             // CMD_HANDLE_KEY_SET
    Text232 = 232,
    Text233 = 233,
    DoNotTrack = 400,
    PageTransparencyCheck = 402,
    ProgrammesChanged = 500,     // CB_PROGRAMMES_CHANGED
};

// send_command with a named id: 1 sent, 0 not sent.
int send(Command id, void* param = nullptr);
// send for a text parameter (copied into the frame at once).
int send_text(Command id, const char* text);

// Builds "|"-terminated fields: integers with "%d", floating-point values
// with "%.2f", texts as they are (a null text as "(null)"). Texts are not
// escaped: a "|" inside a text splits the field on the browser side.
class Fields {
public:
    Fields& add(int value);
    Fields& add(double value);
    Fields& add(const char* text);
    Fields& add(std::string_view text);
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

// The fields of a channel, in the one order the browser reads channels in
// (callbacks 60 and 61 and every channel reply): type, ccid, onid, nid,
// tsid, sid, name, dsd, TerminalChannel, MajorChannel, idType.
void add_channel(Fields& fields, const Channel& channel);

// Takes the next "|"-terminated field of `text` into `param` (a buffer of
// `param_size` bytes; longer fields are cut, the result is always
// terminated). Returns the position after the separator, or nullptr with
// `param` emptied when there is no further field (also for an empty field).
char* next_field(char* text, char* param, std::size_t param_size);

template <std::size_t N>
char* next_field(char* text, char (&param)[N]) {
    return next_field(text, param, N);
}

// A reply to a browser request on the request's own connection: the bytes
// of `reply` followed by a terminating zero byte.
ErrorType_t send_reply(Mng_ConnectionType_t connection, std::string_view reply);
// A reply sent exactly as given (binary payloads; the caller adds the zero).
ErrorType_t send_raw(Mng_ConnectionType_t connection, const char* bytes, std::size_t length);

}  // namespace appmgr::protocol
