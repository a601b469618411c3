// The five logical message connections with the browser (the exported
// tools_msg_* calls), the exported field parser, and the entry of every
// received message.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "app_mgr.h"
#include "common/c_api.h"
#include "common/log.h"
#include "common/seams.h"
#include "connection/connection.h"
#include "protocol/protocol.h"
#include "tools/requests.h"

namespace {

// The largest field buffer of any request.
constexpr std::size_t kLargestField = 1024;

void settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(appmgr::seams::settle_millis()));
}

ErrorType_t init_connections(GlobalData_t* data) {
    AM_INFO("Application-manager: Connection port = %d",
            appmgr::connection::row(MNG_CONNECTION_TYPE_APP).port);
    for (int i = 0; i < MNG_CONNECTION_TYPE_SIZE; ++i) {
        const auto& row = appmgr::connection::row(static_cast<Mng_ConnectionType_t>(i));
        Messenger_t& m = data->mng_connection[i].messenger;
        m.msg_type = MESSENGER_TYPE_SERVER;
        std::memset(m.name, 0, sizeof(m.name));
        std::strncpy(m.name, row.name, sizeof(m.name) - 1);
        m.msg_port = row.port;
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

// The checks every received message passes before its id is looked up.
const Mng_Connection_t* checked_connection(void* data, const char* buff) {
    auto* messenger = static_cast<Messenger_t*>(data);
    if (messenger == nullptr) {
        AM_ERROR("input_data_received: Error msg_d == NULL");
        return nullptr;
    }
    if (buff == nullptr) {
        AM_ERROR("Error-Tools_msg.c-->input_data_received: buff == NULL");
        return nullptr;
    }
    auto* connection = static_cast<Mng_Connection_t*>(messenger->priv);
    if (connection == nullptr) {
        AM_ERROR("input_data_received: Error msg_conn == NULL");
        return nullptr;
    }
    const int type = static_cast<int>(connection->mng_type);
    if (type < 0 || type >= MNG_CONNECTION_TYPE_SIZE ||
        !appmgr::connection::row(connection->mng_type).carries_requests) {
        AM_ERROR("input_data_received: Error mng_type(%d) not supported!!!", type);
        return nullptr;
    }
    return connection;
}

}  // namespace

extern "C" {

APPMGR_API ErrorType_t tools_msg_init(GlobalData_t* data, int argc, char** argv) {
    (void)argc;
    (void)argv;
    if (data == nullptr) return RET_ERROR;
    return appmgr::c_entry(__func__, RET_ERROR, [&] { return init_connections(data); });
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
// request; the library's own handlers use the sized parser.
APPMGR_API char* parse_parameter(char* temp_string, char* param) {
    return appmgr::protocol::next_field(temp_string, param, kLargestField);
}

APPMGR_API int input_data_received(void* data, char* buff, int len) {
    (void)len;
    const Mng_Connection_t* connection = checked_connection(data, buff);
    if (connection == nullptr) return 0;
    appmgr::c_entry_void(__func__, [&] {
        AM_INFO("Reply received: %s", buff);
        char id_field[32];
        char* rest = appmgr::protocol::next_field(buff, id_field);
        appmgr::msg::dispatch(connection->mng_type, std::atoi(id_field), rest);
    });
    return 0;
}

}  // extern "C"
