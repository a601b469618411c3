// The five logical message connections with the browser, the field parser
// and the entry of every received message.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "common/seams.h"
#include "tools/tools_msg_internal.h"

namespace {

struct ConnectionSpec {
    const char* name;
    int port;
};

// Indexed by Mng_ConnectionType_t. The port numbers do not follow the
// connection order; they select the socket paths.
constexpr ConnectionSpec kConnections[MNG_CONNECTION_TYPE_SIZE] = {
    {"Application", 9513}, {"dtvPlugins", 9514}, {"vodPlugins", 9517},
    {"Callbacks", 9516},   {"DSMCC", 9515},
};

constexpr std::size_t kLargestField = 1024;

void settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(appmgr::seams::settle_millis()));
}

}  // namespace

namespace appmgr::msg {

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
    std::string bytes(reply);
    bytes.push_back('\0');
    return tools_msg_send_msg(&gData, connection, bytes.data(),
                              static_cast<unsigned int>(bytes.size()));
}

}  // namespace appmgr::msg

extern "C" {

APPMGR_API ErrorType_t tools_msg_init(GlobalData_t* data, int argc, char** argv) {
    (void)argc;
    (void)argv;
    if (data == nullptr) return RET_ERROR;
    AM_INFO("Application-manager: Connection port = %d", 9513);
    for (int i = 0; i < MNG_CONNECTION_TYPE_SIZE; ++i) {
        Messenger_t& m = data->mng_connection[i].messenger;
        m.msg_type = MESSENGER_TYPE_SERVER;
        std::memset(m.name, 0, sizeof(m.name));
        std::strncpy(m.name, kConnections[i].name, sizeof(m.name) - 1);
        m.msg_port = kConnections[i].port;
    }
    for (int i = 0; i < MNG_CONNECTION_TYPE_SIZE; ++i) {
        Mng_Connection_t& c = data->mng_connection[i];
        c.mng_type = static_cast<Mng_ConnectionType_t>(i);
        c.data = data;
        if (messenger_init(&c.messenger, input_data_received, &c) != RET_OK) {
            AM_ERROR("Widget-manager: Error during messenger_init (%d)!!!", i);
            return RET_ERROR;
        }
    }
    return RET_OK;
}

APPMGR_API ErrorType_t tools_msg_connect(GlobalData_t* data) {
    if (data == nullptr) return RET_ERROR;
    for (int i = 0; i < MNG_CONNECTION_TYPE_SIZE; ++i) {
        if (messenger_start(&data->mng_connection[i].messenger) != RET_OK) {
            AM_ERROR("Widget-manager: Error connecting (%d)!!!", i);
            return RET_ERROR;
        }
    }
    settle();
    return RET_OK;
}

APPMGR_API ErrorType_t tools_msg_close(GlobalData_t* data) {
    if (data == nullptr) return RET_OK;
    for (int i = 0; i < MNG_CONNECTION_TYPE_SIZE; ++i) {
        if (messenger_stop(&data->mng_connection[i].messenger) != RET_OK)
            AM_ERROR("Widget-manager: Error closing connection (%d)!!!", i);
    }
    settle();
    return RET_OK;
}

APPMGR_API ErrorType_t tools_msg_send_msg(GlobalData_t* data, Mng_ConnectionType_t type,
                                          char* buff, unsigned int len) {
    if (data == nullptr || type < 0 || type >= MNG_CONNECTION_TYPE_SIZE) {
        AM_ERROR("Error mng_type(%d) not supported!!!", static_cast<int>(type));
        return RET_ERROR;
    }
    return messenger_send(&data->mng_connection[type].messenger, buff, len);
}

// The copy is bounded to 1024 bytes, the largest field buffer of any
// request; callers with smaller buffers use the sized parser internally.
APPMGR_API char* parse_parameter(char* temp_string, char* param) {
    return appmgr::msg::next_field(temp_string, param, kLargestField);
}

APPMGR_API int input_data_received(void* data, char* buff, int len) {
    (void)len;
    auto* messenger = static_cast<Messenger_t*>(data);
    if (messenger == nullptr) {
        AM_ERROR("input_data_received: Error msg_d == NULL");
        return 0;
    }
    if (buff == nullptr) {
        AM_ERROR("Error-Tools_msg.c-->input_data_received: buff == NULL");
        return 0;
    }
    auto* connection = static_cast<Mng_Connection_t*>(messenger->priv);
    if (connection == nullptr) {
        AM_ERROR("input_data_received: Error msg_conn == NULL");
        return 0;
    }
    const int type = static_cast<int>(connection->mng_type);
    if (type < 0 || type >= MNG_CONNECTION_TYPE_SIZE || type == MNG_CONNECTION_TYPE_CALLBACK) {
        AM_ERROR("input_data_received: Error mng_type(%d) not supported!!!", type);
        return 0;
    }
    AM_INFO("Reply received: %s", buff);
    char id_field[32];
    char* rest = appmgr::msg::next_field(buff, id_field);
    const int id = std::atoi(id_field);
    switch (connection->mng_type) {
        case MNG_CONNECTION_TYPE_APP: appmgr::msg::dispatch_application(id, rest); break;
        case MNG_CONNECTION_TYPE_H_PUGINS:
        case MNG_CONNECTION_TYPE_C_PUGINS:
            appmgr::msg::dispatch_plugins(connection->mng_type, id, rest);
            break;
        case MNG_CONNECTION_TYPE_DSMCC: appmgr::msg::dispatch_dsmcc(id, rest); break;
        default: break;
    }
    return 0;
}

}  // extern "C"
