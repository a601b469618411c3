// Message-connection internals shared by the dispatch tables.
#pragma once

#include <cstddef>
#include <string_view>

#include "app_mgr_types.h"

namespace appmgr::msg {

// Takes the next "|"-terminated field of `text` into `param` (a buffer of
// `param_size` bytes; longer fields are cut, the result is always
// terminated). Returns the position after the separator, or nullptr with
// `param` emptied when there is no further field.
char* next_field(char* text, char* param, std::size_t param_size);

template <std::size_t N>
char* next_field(char* text, char (&param)[N]) {
    return next_field(text, param, N);
}

// Sends a reply to a browser request on the request's own connection: the
// bytes of `reply` followed by a terminating zero byte.
ErrorType_t send_reply(Mng_ConnectionType_t connection, std::string_view reply);

// Dispatch tables, one per connection. `rest` points after the id field
// (it may be nullptr when the message had no further field).
void dispatch_application(int id, char* rest);
void dispatch_plugins(Mng_ConnectionType_t connection, int id, char* rest);
void dispatch_dsmcc(int id, char* rest);

}  // namespace appmgr::msg
