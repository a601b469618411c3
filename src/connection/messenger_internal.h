// Socket transport internals: the server/client set-up and the receiving
// thread bodies. Private to this folder (and its tests); the folder's
// interface is connection.h, the exported messenger_* calls are in app_mgr.h.
#pragma once

#include "app_mgr_types.h"

extern "C" {
int messenger_setup_server(Messenger_t* d_msg);
int messenger_connect_client(Messenger_t* d_msg);
void* manager_srv_task(void* d_msg);
void* manager_msg_task(void* d_msg);
}

namespace appmgr::messenger {

// Thread-safe accessors of the fields that the sending, closing and
// receiving threads share.
MessengerState_t state(const Messenger_t* m);
void set_state(Messenger_t* m, MessengerState_t s);
int connection_fd(const Messenger_t* m);

}  // namespace appmgr::messenger
