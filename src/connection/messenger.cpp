// Byte transport between the library and the browser: one UNIX-domain stream
// socket per logical connection, each served by its own receiving thread.
//
// Stopping: a receiving thread never blocks in accept() or recv() directly.
// It first polls the socket together with the read end of a per-messenger
// wake-up pipe; messenger_stop() writes to the pipe and joins the thread, so
// a thread is never cancelled while it holds a lock or is inside a callback.
#include "connection/messenger_internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "app_mgr.h"
#include "common/atomic_state.h"
#include "common/log.h"
#include "common/seams.h"
#include "lifecycle_internal.h"

namespace appmgr::messenger {
namespace {

constexpr int kReceiveBufferSize = 4096;
constexpr int kListenBacklog = 20;
constexpr std::size_t kMaxPathLength = 107;

// Per-messenger stop control, kept beside the C record (whose layout is
// fixed) and looked up by address.
struct Control {
    int wake[2] = {-1, -1};
    std::atomic<bool> stopping{false};
    ~Control() {
        for (int fd : wake)
            if (fd >= 0) ::close(fd);
    }
};

std::mutex g_controls_mutex;
std::unordered_map<const Messenger_t*, std::shared_ptr<Control>> g_controls;

std::shared_ptr<Control> find_control(const Messenger_t* m) {
    std::lock_guard<std::mutex> lock(g_controls_mutex);
    auto it = g_controls.find(m);
    return it == g_controls.end() ? nullptr : it->second;
}

std::shared_ptr<Control> create_control(const Messenger_t* m) {
    auto control = std::make_shared<Control>();
    if (::pipe2(control->wake, O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
    std::lock_guard<std::mutex> lock(g_controls_mutex);
    g_controls[m] = control;
    return control;
}

void drop_control(const Messenger_t* m) {
    std::lock_guard<std::mutex> lock(g_controls_mutex);
    g_controls.erase(m);
}

bool stop_requested(const Messenger_t* m) {
    auto control = find_control(m);
    return control && control->stopping.load();
}

void set_fd(Messenger_t* m, int fd) { atomic_set(m->s_msg_connection, fd); }

enum class Wait { Readable, Stopped, Failed };

// Blocks until fd is readable or the messenger is asked to stop.
Wait wait_readable(const Messenger_t* m, int fd) {
    auto control = find_control(m);
    pollfd fds[2] = {{fd, POLLIN, 0}, {control ? control->wake[0] : -1, POLLIN, 0}};
    for (;;) {
        if (control && control->stopping.load()) return Wait::Stopped;
        int r = ::poll(fds, 2, -1);
        if (r < 0) {
            if (errno == EINTR) continue;
            return Wait::Failed;
        }
        if (fds[1].revents != 0) return Wait::Stopped;
        if (fds[0].revents != 0) return Wait::Readable;
    }
}

void sem_wait_retry(sem_t* s) {
    while (::sem_wait(s) != 0 && errno == EINTR) {
    }
}

int new_stream_socket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

bool fill_address(const Messenger_t* m, sockaddr_un* addr, std::string* path) {
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    *path = socket_path(m->msg_port);
    std::strncpy(addr->sun_path, path->c_str(), kMaxPathLength);
    return !path->empty();
}

void unlink_path(const std::string& path) {
    if (!path.empty()) ::unlink(path.c_str());
}

// Receives one block and hands it to the callback. Returns false when the
// receiving loop must end.
enum class Received { Delivered, Closed, Exit, GuardFailure };

Received receive_one(Messenger_t* m, int fd, bool take_guard, bool log_block) {
    // One spare byte keeps even a full 4096-byte block terminated for the
    // handlers' text parsing; the terminator is not counted in the length.
    char buffer[kReceiveBufferSize + 1];
    std::memset(buffer, 0, sizeof(buffer));
    ssize_t n;
    do {
        n = ::recv(fd, buffer, kReceiveBufferSize, 0);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return Received::Closed;

    if (log_block) AM_INFO("msg_task received -> %s", buffer);
    if (take_guard && !lockAitGuard()) {
        AM_ERROR("Error: lockAitGuard failed !");
        return Received::GuardFailure;
    }
    int result = m->cb_func ? m->cb_func(m, buffer, static_cast<int>(n)) : 0;
    if (take_guard && !unlockAitGuard()) {
        AM_ERROR("Error: unlockAitGuard failed !");
        return Received::GuardFailure;
    }
    if (result != 0) {
        AM_INFO("MESSENGER-TASK: exiting!");
        return Received::Exit;
    }
    return Received::Delivered;
}

}  // namespace

std::string socket_path(int port) {
    const char* file = nullptr;
    switch (port) {
        case 9513: file = "UNIX_APP.domain"; break;
        case 9514: file = "UNIX_H_PLUIN.domain"; break;
        case 9515: file = "UNIX_DSMCC.domain"; break;
        case 9516: file = "UNIX_CB.domain"; break;
        case 9517: file = "UNIX_C_PLUIN.domain"; break;
        default:
            AM_ERROR("Unknown message port\n!");
            return std::string();
    }
    std::string path = seams::socket_dir() + file;
    if (path.size() > kMaxPathLength) path.resize(kMaxPathLength);
    return path;
}

MessengerState_t state(const Messenger_t* m) { return atomic_get(m->state); }
void set_state(Messenger_t* m, MessengerState_t s) { atomic_set(m->state, s); }
int connection_fd(const Messenger_t* m) { return atomic_get(m->s_msg_connection); }

}  // namespace appmgr::messenger

using namespace appmgr::messenger;
using appmgr::messenger::state;

extern "C" {

APPMGR_API ErrorType_t messenger_init(Messenger_t* d_msg, data_recived_clb func, void* priv) {
    if (d_msg == nullptr) return RET_ERROR;
    // 80 itself is accepted although the message says "80 < PORT".
    if (d_msg->msg_port < 80 || d_msg->msg_port > 65534) {
        AM_ERROR("MESSENGER: Port (%d) error (80 < PORT < 65535)", d_msg->msg_port);
        return RET_ERROR;
    }
    d_msg->cb_func = func;
    d_msg->priv = priv;
    d_msg->t_msg_dispatcher = 0;
    set_fd(d_msg, -1);
    set_state(d_msg, MESSENGER_STATE_INIT);
    ::sem_init(&d_msg->sem_send, 0, 1);
    ::pthread_mutex_init(&d_msg->close_mutex, nullptr);
    return RET_OK;
}

APPMGR_API ErrorType_t messenger_start(Messenger_t* d_msg) {
    if (d_msg == nullptr) return RET_ERROR;
    if (!create_control(d_msg)) {
        AM_ERROR("MESSENGER: cannot create the stop pipe (%d)", errno);
        return RET_ERROR;
    }
    if (d_msg->msg_type == MESSENGER_TYPE_CLIENT) {
        if (messenger_connect_client(d_msg) != 0) {
            drop_control(d_msg);
            return RET_ERROR;
        }
        int err = ::pthread_create(&d_msg->t_msg_dispatcher, nullptr, manager_msg_task, d_msg);
        if (err != 0) {
            AM_ERROR("MESSENGER: msg_task error (%d)", err);
            d_msg->t_msg_dispatcher = 0;
            messenger_close_connection(d_msg);
            drop_control(d_msg);
            return RET_ERROR;
        }
        return RET_OK;
    }
    int err = ::pthread_create(&d_msg->t_msg_dispatcher, nullptr, manager_srv_task, d_msg);
    if (err != 0) {
        AM_ERROR("MESSENGER: srv_task error (%d)", err);
        d_msg->t_msg_dispatcher = 0;
        drop_control(d_msg);
        return RET_ERROR;
    }
    return RET_OK;
}

APPMGR_API ErrorType_t messenger_stop(Messenger_t* d_msg) {
    if (d_msg == nullptr) return RET_OK;
    auto control = find_control(d_msg);
    if (control) {
        control->stopping = true;
        char byte = 1;
        ssize_t ignored = ::write(control->wake[1], &byte, 1);
        (void)ignored;
    }
    pthread_t thread = d_msg->t_msg_dispatcher;
    if (thread != 0) {
        if (::pthread_equal(thread, ::pthread_self())) {
            // Stopped from inside its own callback: the loop ends on return.
            ::pthread_detach(thread);
        } else {
            ::pthread_join(thread, nullptr);
        }
        d_msg->t_msg_dispatcher = 0;
    }
    messenger_close_connection(d_msg);
    // A server stopped while listening leaves no socket file behind.
    if (d_msg->msg_type != MESSENGER_TYPE_CLIENT && control)
        unlink_path(socket_path(d_msg->msg_port));
    drop_control(d_msg);
    return RET_OK;
}

APPMGR_API ErrorType_t messenger_send(Messenger_t* d_msg, void* data, unsigned int length) {
    if (d_msg == nullptr || (data == nullptr && length != 0)) return RET_ERROR;
    if (state(d_msg) != MESSENGER_STATE_STARTED) return RET_ERROR;
    sem_wait_retry(&d_msg->sem_send);
    int fd = connection_fd(d_msg);
    ssize_t sent = fd >= 0 ? ::send(fd, data, length, MSG_NOSIGNAL) : -1;
    ::sem_post(&d_msg->sem_send);
    // One send call; a short send is not retried.
    return sent < 0 ? RET_ERROR : RET_OK;
}

APPMGR_API void messenger_close_connection(Messenger_t* d_msg) {
    if (d_msg == nullptr) return;
    ::pthread_mutex_lock(&d_msg->close_mutex);
    int fd = connection_fd(d_msg);
    if (fd != -1) {
        // Shutting down first wakes a sender blocked in send(); taking the
        // send semaphore then waits for it to leave before the descriptor is
        // closed, so no sender ever writes to a reused descriptor.
        ::shutdown(fd, SHUT_RDWR);
        sem_wait_retry(&d_msg->sem_send);
        ::close(fd);
        set_fd(d_msg, -1);
        ::sem_post(&d_msg->sem_send);
    }
    set_state(d_msg, MESSENGER_STATE_STOPPED);
    ::pthread_mutex_unlock(&d_msg->close_mutex);
}

int messenger_setup_server(Messenger_t* d_msg) {
    int fd = new_stream_socket();
    if (fd < 0) {
        AM_ERROR("MESSENGER: socket creation failed");
        return -1;
    }
    set_fd(d_msg, fd);
    AM_INFO("MESSENGER: server_task(%s) - waiting on port %d", d_msg->name, d_msg->msg_port);

    sockaddr_un addr;
    std::string path;
    // An unknown port has no path; binding an empty path would silently
    // create an abstract socket instead of failing.
    bool has_path = fill_address(d_msg, &addr, &path);
    unlink_path(path);
    if (!has_path || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        messenger_close_connection(d_msg);
        AM_ERROR("MESSENGER: socket bind failed");
        unlink_path(path);
        return -1;
    }
    if (::listen(fd, kListenBacklog) != 0) {
        messenger_close_connection(d_msg);
        AM_ERROR("MESSENGER: socket listen failed");
        unlink_path(path);
        return -1;
    }

    int client = -1;
    if (wait_readable(d_msg, fd) == Wait::Readable)
        client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    // Only one client is served per set-up: the listening socket goes at once.
    messenger_close_connection(d_msg);
    if (client < 0) {
        if (!stop_requested(d_msg)) AM_ERROR("MESSENGER: socket accept failed");
        unlink_path(path);
        return -1;
    }
    set_fd(d_msg, client);
    set_state(d_msg, MESSENGER_STATE_STARTED);
    // No second client can connect until the next set-up. The file goes
    // before the log line so that a reader of the line sees it gone.
    unlink_path(path);
    AM_INFO("MESSENGER: server_task() - connected");
    return 0;
}

int messenger_connect_client(Messenger_t* d_msg) {
    int fd = new_stream_socket();
    if (fd < 0) {
        AM_ERROR("MESSENGER: socket creation failed");
        return -1;
    }
    sockaddr_un addr;
    std::string path;
    bool has_path = fill_address(d_msg, &addr, &path);
    if (!has_path || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        AM_ERROR("MESSENGER: connect failed");
        return -1;
    }
    set_fd(d_msg, fd);
    set_state(d_msg, MESSENGER_STATE_STARTED);
    return 0;
}

void* manager_srv_task(void* arg) {
    auto* d_msg = static_cast<Messenger_t*>(arg);
    if (messenger_setup_server(d_msg) != 0 && !stop_requested(d_msg))
        AM_ERROR("MESSENGER-TASK-SERVER: Server error");
    set_state(d_msg, MESSENGER_STATE_STARTED);
    const bool plugins = std::strstr(d_msg->name, "Plugins") != nullptr;

    for (;;) {
        int fd = connection_fd(d_msg);
        if (fd <= 0) {
            if (!stop_requested(d_msg)) AM_ERROR("MESSENGER-TASK: Invalid socket");
            break;
        }
        Wait w = wait_readable(d_msg, fd);
        if (w == Wait::Stopped) break;
        Received r = w == Wait::Readable ? receive_one(d_msg, fd, plugins, true) : Received::Closed;
        if (r == Received::Delivered) continue;
        if (r == Received::Exit) break;
        if (r == Received::GuardFailure) return nullptr;

        if (stop_requested(d_msg)) break;
        AM_ERROR("MESSENGER-TASK-SERVER: socket closed (%s)", d_msg->name);
        messenger_close_connection(d_msg);
        if (std::strcmp(d_msg->name, "Application") == 0) appmgr::lifecycle::on_browser_crashed();
        if (messenger_setup_server(d_msg) == 0) continue;
        if (!stop_requested(d_msg)) AM_ERROR("MESSENGER-TASK-SERVER: Server error");
        break;
    }
    set_state(d_msg, MESSENGER_STATE_STOPPING);
    AM_INFO("MESSENGER-TASK: Done!");
    return nullptr;
}

void* manager_msg_task(void* arg) {
    auto* d_msg = static_cast<Messenger_t*>(arg);
    set_state(d_msg, MESSENGER_STATE_STARTED);
    for (;;) {
        int fd = connection_fd(d_msg);
        if (fd <= 0) {
            AM_ERROR("MESSENGER-TASK: Invalid socket");
            break;
        }
        Wait w = wait_readable(d_msg, fd);
        if (w == Wait::Stopped) break;
        Received r = w == Wait::Readable ? receive_one(d_msg, fd, false, false) : Received::Closed;
        if (r == Received::Delivered) continue;
        if (r == Received::Closed && !stop_requested(d_msg))
            AM_ERROR("MESSENGER-TASK-CLIENT: socket closed (%s)", d_msg->name);
        break;
    }
    set_state(d_msg, MESSENGER_STATE_STOPPING);
    AM_INFO("MESSENGER-TASK: Done!");
    return nullptr;
}

}  // extern "C"
