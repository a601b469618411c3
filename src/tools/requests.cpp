// Which families of request ids each connection takes, and the serving of
// one request.
#include <cstdlib>
#include <initializer_list>

#include "common/log.h"
#include "protocol/protocol.h"
#include "state/state.h"
#include "tools/requests.h"

namespace appmgr::msg {

std::string Request::text(std::size_t max_length) {
    std::string field(max_length + 1, '\0');
    rest_ = protocol::next_field(rest_, field.data(), field.size());
    field.resize(std::char_traits<char>::length(field.c_str()));
    return field;
}

int Request::integer() {
    char field[32];
    rest_ = protocol::next_field(rest_, field);
    return std::atoi(field);
}

double Request::number() {
    char field[64];
    rest_ = protocol::next_field(rest_, field);
    return std::atof(field);
}

void Request::reply(std::string_view fields) {
    if (protocol::send_reply(connection_, fields) != RET_OK)
        AM_ERROR("reply of %zu bytes not sent", fields.size() + 1);
}

void Request::reply_int(int value) { reply(protocol::Fields().add(value)); }

void Request::ack() { reply("ACK|"); }

void Request::reply_bool(bool value) { reply(value ? "TRUE|" : "FALSE|"); }

void Request::not_available(const char* log_line) {
    AM_INFO("%s", log_line);
    reply("NOT_AVAILABLE|");
}

void Request::reply_raw(const char* bytes, std::size_t length) {
    if (protocol::send_raw(connection_, bytes, length) != RET_OK)
        AM_ERROR("reply of %zu bytes not sent", length);
}

const RequestRow* RequestTable::find(int id) const {
    for (std::size_t i = 0; i < count; ++i)
        if (rows[i].id == id) return &rows[i];
    return nullptr;
}

namespace {

const RequestRow* find_in(std::initializer_list<const RequestTable*> families, int id) {
    for (const RequestTable* family : families)
        if (const RequestRow* row = family->find(id)) return row;
    return nullptr;
}

}  // namespace

const RequestRow* find_request(Mng_ConnectionType_t connection, int id) {
    switch (connection) {
        case MNG_CONNECTION_TYPE_APP: return find_in({&kApplicationMessages}, id);
        case MNG_CONNECTION_TYPE_H_PUGINS:
            return find_in({&kBroadcastRequests, &kReceiverRequests, &kApplicationControlRequests,
                            &kSearchRequests, &kComponentRequests, &kMediaRequests,
                            &kBrowserRequests},
                           id);
        case MNG_CONNECTION_TYPE_C_PUGINS: return find_in({&kMediaRequests}, id);
        case MNG_CONNECTION_TYPE_DSMCC: return find_in({&kDsmccRequests}, id);
        default: return nullptr;
    }
}

void dispatch(Mng_ConnectionType_t connection, int id, char* rest) {
    const RequestRow* row = find_request(connection, id);
    if (row == nullptr) {
        // No reply: a browser waiting for one relies on its own time-out.
        // "Application" and "vodPlugins" drop unknown ids without a word.
        if (connection == MNG_CONNECTION_TYPE_H_PUGINS || connection == MNG_CONNECTION_TYPE_DSMCC)
            AM_INFO(" Unknown message, id is not supported!");
        return;
    }
    Request request(connection, rest);
    if (row->lock == Lock::None) {
        row->serve(request);
        return;
    }
    state::ManagerLock lock;
    row->serve(request);
}

}  // namespace appmgr::msg
