// Socket transport internals: the server/client set-up and the receiving
// thread bodies. Only the messenger and its tests use these directly.
#pragma once

#include <string>

#include "app_mgr_types.h"

extern "C" {
int messenger_setup_server(Messenger_t* d_msg);
int messenger_connect_client(Messenger_t* d_msg);
void* manager_srv_task(void* d_msg);
void* manager_msg_task(void* d_msg);
}

namespace appmgr::messenger {

// Socket path of a logical port ("" for an unknown port), at most 107 chars.
std::string socket_path(int port);

// Thread-safe accessors of the fields that the sending, closing and
// receiving threads share.
MessengerState_t state(const Messenger_t* m);
void set_state(Messenger_t* m, MessengerState_t s);
int connection_fd(const Messenger_t* m);

}  // namespace appmgr::messenger
