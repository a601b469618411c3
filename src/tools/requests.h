// The browser's requests: one table per family of request ids, each row
// naming the id, the handler that serves it and whether the handler needs
// the manager lock. The connection a message arrives on selects the
// families it may use (requests.cpp); docs/protocol.md is the reference of
// every id and its reply.
//
// A handler reads its fields in order from the Request and answers through
// it. Replies go back on the request's own connection, each field followed
// by "|", with a terminating zero byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "app_mgr_types.h"
#include "protocol/protocol.h"

namespace appmgr::msg {

class Request {
public:
    Request(Mng_ConnectionType_t connection, char* fields)
        : connection_(connection), rest_(fields) {}

    Mng_ConnectionType_t connection() const { return connection_; }

    // The next field cut to max_length characters; "" when there is none
    // (every later field is then "" too).
    std::string text(std::size_t max_length = 1023);
    // The next field read with atoi / atof: 0 when missing or malformed.
    int integer();
    double number();

    void reply(std::string_view fields);
    void reply(const protocol::Fields& fields) { reply(fields.text()); }
    void reply_int(int value);
    void ack();                                // "ACK|"
    void reply_bool(bool value);               // "TRUE|" / "FALSE|"
    void not_available(const char* log_line);  // logs the line, "NOT_AVAILABLE|"
    // Bytes exactly as given (binary content; the caller adds the zero).
    void reply_raw(const char* bytes, std::size_t length);

private:
    Mng_ConnectionType_t connection_;
    char* rest_;
};

enum class Lock {
    None,     // touches no manager state
    Manager,  // runs under the manager lock
};

struct RequestRow {
    int id;
    const char* name;  // the system's symbolic name, or a plain description
    Lock lock;
    void (*serve)(Request& request);
};

struct RequestTable {
    const RequestRow* rows;
    std::size_t count;

    template <std::size_t N>
    constexpr RequestTable(const RequestRow (&r)[N]) : rows(r), count(N) {}
    const RequestRow* find(int id) const;
};

// Families of request ids (one file each).
extern const RequestTable kApplicationMessages;  // "Application": 51-89
extern const RequestTable kBrowserRequests;      // 401 (User-Agent)
extern const RequestTable kDsmccRequests;        // "DSMCC": 130-133
extern const RequestTable kBroadcastRequests;    // 0-47: video object, channels, programmes
extern const RequestTable kReceiverRequests;     // 9, 41-44, 70-72: rating, configuration
extern const RequestTable kApplicationControlRequests;  // 50-58, 78
extern const RequestTable kComponentRequests;    // 106-129: AV components, decoders
extern const RequestTable kMediaRequests;        // 200-315: media, DRM, DASH
extern const RequestTable kSearchRequests;       // 90-105, 122-125 (metadata search)

// The row serving `id` on a connection, or null when the connection does not
// take that id.
const RequestRow* find_request(Mng_ConnectionType_t connection, int id);

// Serves one received message: `rest` points after its id field (it may be
// null when the message had no further field).
void dispatch(Mng_ConnectionType_t connection, int id, char* rest);

}  // namespace appmgr::msg
