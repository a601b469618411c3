// Which families of request ids each connection takes, and the serving of
// one request.
#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <vector>

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

// The rows a connection serves, sorted by id for a binary search: every
// request goes through this lookup. Where two families have the same id,
// the row of the family named first serves it. Built on first use and never
// destroyed: a receive thread may still look a row up while the process
// exits.
class ConnectionRows {
public:
    ConnectionRows(std::initializer_list<const RequestTable*> families) {
        for (const RequestTable* family : families)
            for (std::size_t i = 0; i < family->count; ++i) rows_.push_back(&family->rows[i]);
        std::stable_sort(rows_.begin(), rows_.end(),
                         [](const RequestRow* a, const RequestRow* b) { return a->id < b->id; });
        rows_.erase(std::unique(rows_.begin(), rows_.end(),
                                [](const RequestRow* a, const RequestRow* b) { return a->id == b->id; }),
                    rows_.end());
    }
    const RequestRow* find(int id) const {
        auto it = std::lower_bound(rows_.begin(), rows_.end(), id,
                                   [](const RequestRow* row, int wanted) { return row->id < wanted; });
        return it != rows_.end() && (*it)->id == id ? *it : nullptr;
    }

private:
    std::vector<const RequestRow*> rows_;
};

}  // namespace

const RequestRow* find_request(Mng_ConnectionType_t connection, int id) {
    switch (connection) {
        case MNG_CONNECTION_TYPE_APP: {
            static const ConnectionRows& rows = *new ConnectionRows{&kApplicationMessages};
            return rows.find(id);
        }
        case MNG_CONNECTION_TYPE_H_PUGINS: {
            static const ConnectionRows& rows = *new ConnectionRows{
                &kBroadcastRequests, &kReceiverRequests, &kApplicationControlRequests,
                &kSearchRequests,    &kComponentRequests, &kMediaRequests,
                &kBrowserRequests};
            return rows.find(id);
        }
        case MNG_CONNECTION_TYPE_C_PUGINS: {
            static const ConnectionRows& rows = *new ConnectionRows{&kMediaRequests};
            return rows.find(id);
        }
        case MNG_CONNECTION_TYPE_DSMCC: {
            static const ConnectionRows& rows = *new ConnectionRows{&kDsmccRequests};
            return rows.find(id);
        }
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
