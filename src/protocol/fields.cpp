// Field parsing of browser messages and the replies to browser requests.
#include <cstdio>
#include <cstring>
#include <string>

#include "common/c_api.h"
#include "common/log.h"
#include "connection/connection.h"
#include "protocol/protocol.h"

namespace appmgr::protocol {

Fields& Fields::add(int value) {
    text_ += std::to_string(value);
    text_ += '|';
    return *this;
}

Fields& Fields::add(double value) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.2f", value);
    text_ += text;
    text_ += '|';
    return *this;
}

Fields& Fields::add(const char* text) {
    text_ += text != nullptr ? text : "(null)";
    text_ += '|';
    return *this;
}

Fields& Fields::add(std::string_view text) {
    text_ += text;
    text_ += '|';
    return *this;
}

void add_channel(Fields& fields, const Channel& channel) {
    fields.add(c_enum(channel.type))
        .add(channel.ccid)
        .add(channel.onid)
        .add(channel.nid)
        .add(channel.tsid)
        .add(channel.sid)
        .add(channel.name)
        .add(channel.dsd)
        .add(channel.TerminalChannel)
        .add(channel.MajorChannel)
        .add(channel.idType);
}

char* next_field(char* text, char* param, std::size_t param_size) {
    if (param == nullptr || param_size == 0) return nullptr;
    param[0] = '\0';
    if (text == nullptr) {
        AM_INFO("temp_string = NULL is error ");
        return nullptr;
    }
    char* bar = std::strchr(text, '|');
    if (bar == nullptr) {
        AM_INFO("parse_parameter error string = %s", text);
        return nullptr;
    }
    if (bar == text) {
        // Empty fields cannot be carried: an empty field ends the parsing.
        AM_INFO("parse_parameter length error, string = %s", text);
        return nullptr;
    }
    std::size_t length = static_cast<std::size_t>(bar - text);
    if (length >= param_size) {
        AM_WARN("parse_parameter: field of %zu characters cut to %zu", length, param_size - 1);
        length = param_size - 1;
    }
    std::memcpy(param, text, length);
    param[length] = '\0';
    return bar + 1;
}

ErrorType_t send_reply(Mng_ConnectionType_t connection, std::string_view reply) {
    // Most replies are short: they are terminated in a buffer on the stack,
    // and only long ones (records, lists) take a copy on the heap.
    char small[512];
    if (reply.size() < sizeof(small)) {
        std::memcpy(small, reply.data(), reply.size());
        small[reply.size()] = '\0';
        return connection::send(connection, small, reply.size() + 1);
    }
    std::string bytes(reply);
    bytes.push_back('\0');
    return connection::send(connection, bytes.data(), bytes.size());
}

ErrorType_t send_raw(Mng_ConnectionType_t connection, const char* bytes, std::size_t length) {
    return connection::send(connection, bytes, length);
}

}  // namespace appmgr::protocol
