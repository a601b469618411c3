// One UNIX-domain stream socket per logical connection, each served by its
// own receive thread.
//
// Receive threads never block in accept(), recv() or send() directly: they
// poll the socket together with the read end of a per-messenger wake-up
// pipe. messenger_stop() shuts the socket down, writes to the pipe and joins
// the thread, so a thread is never cancelled and a close never waits behind
// a browser that does not read.
//
// Senders never block either (see connection.h): a frame is written with
// non-blocking sends; what the socket cannot take is queued and written by
// the receive thread when the socket becomes writable again.
#include "connection/messenger_internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "app_mgr.h"
#include "common/atomic_word.h"
#include "common/c_api.h"
#include "common/interruption.h"
#include "common/log.h"
#include "common/threads.h"
#include "connection/connection.h"

namespace appmgr::messenger {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kReceiveBufferSize = 4096;
constexpr int kListenBacklog = 20;
constexpr std::size_t kMaxPathLength = 107;

// Per-messenger control, kept beside the C record (whose layout is fixed)
// and looked up by address: the stop request, the wake-up pipe and the
// frames waiting for the browser to read.
struct Control {
    int wake[2] = {-1, -1};
    std::atomic<bool> stopping{false};

    std::mutex out_mutex;  // guards everything below, and the fd while sending
    std::deque<std::string> queue;
    std::size_t front_written = 0;  // bytes of queue.front() already sent
    std::size_t queued_bytes = 0;
    Clock::time_point last_progress;

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

void wake(Control& control) {
    char byte = 1;
    ssize_t ignored = ::write(control.wake[1], &byte, 1);  // a full pipe is awake already
    (void)ignored;
}

void drain(Control& control) {
    char bytes[64];
    while (::read(control.wake[0], bytes, sizeof(bytes)) > 0) {
    }
}

void set_fd(Messenger_t* m, int fd) { store_release(m->s_msg_connection, fd); }

long millis_since(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

enum class Write { Done, Pending, Failed };

// Writes as much of `bytes` as the socket takes now. *written is advanced.
Write write_some(int fd, const char* bytes, std::size_t length, std::size_t* written) {
    while (*written < length) {
        ssize_t n = ::send(fd, bytes + *written, length - *written, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            *written += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Write::Pending;
        return Write::Failed;
    }
    return Write::Done;
}

// Writes queued frames; control.out_mutex must be held.
Write flush_locked(Control& control, int fd) {
    while (!control.queue.empty()) {
        const std::string& front = control.queue.front();
        const std::size_t before = control.front_written;
        Write w = write_some(fd, front.data(), front.size(), &control.front_written);
        if (control.front_written != before) control.last_progress = Clock::now();
        if (w != Write::Done) return w;
        control.queued_bytes -= front.size();
        control.queue.pop_front();
        control.front_written = 0;
    }
    return Write::Done;
}

void clear_queue_locked(Control& control) {
    control.queue.clear();
    control.front_written = 0;
    control.queued_bytes = 0;
}

// Sending on a messenger that was never started has no queue: the frame
// goes out with non-blocking sends and whatever does not fit fails.
ErrorType_t send_unqueued(Messenger_t* m, const char* bytes, std::size_t length) {
    int fd = load_acquire(m->s_msg_connection);
    std::size_t written = 0;
    if (fd < 0) return RET_ERROR;
    return write_some(fd, bytes, length, &written) == Write::Done ? RET_OK : RET_ERROR;
}

enum class Event { Readable, Stopped, Stalled, Failed };

// Blocks until fd is readable, the messenger is asked to stop, or queued
// frames have waited too long; writes queued frames as the socket allows.
// `control` is the messenger's (null for one that was never started).
Event wait_event(Control* control, int fd) {
    for (;;) {
        if (control && control->stopping.load()) return Event::Stopped;
        bool pending = false;
        int timeout = -1;
        if (control) {
            std::lock_guard<std::mutex> lock(control->out_mutex);
            pending = !control->queue.empty();
            if (pending) {
                long left = connection::kStallMillis - millis_since(control->last_progress);
                timeout = left > 0 ? static_cast<int>(left) : 0;
            }
        }
        pollfd fds[2] = {{fd, static_cast<short>(POLLIN | (pending ? POLLOUT : 0)), 0},
                         {control ? control->wake[0] : -1, POLLIN, 0}};
        int r = ::poll(fds, 2, timeout);
        if (r < 0) {
            if (errno == EINTR) continue;
            return Event::Failed;
        }
        if (fds[1].revents != 0) {
            drain(*control);
            continue;
        }
        if (control && (r == 0 || (fds[0].revents & POLLOUT) != 0)) {
            std::lock_guard<std::mutex> lock(control->out_mutex);
            if (flush_locked(*control, fd) == Write::Failed) return Event::Failed;
            if (!control->queue.empty() && millis_since(control->last_progress) >= connection::kStallMillis)
                return Event::Stalled;
        }
        if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) return Event::Readable;
    }
}

int new_stream_socket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

bool fill_address(const Messenger_t* m, sockaddr_un* addr, std::string* path) {
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    *path = connection::socket_path(m->msg_port);
    std::strncpy(addr->sun_path, path->c_str(), kMaxPathLength);
    return !path->empty();
}

void unlink_path(const std::string& path) {
    if (!path.empty()) ::unlink(path.c_str());
}

// Work that a request starts (an HTTP transfer) ends early once the browser
// has hung up on the connection or the connection is stopping: its answer
// could not be delivered, and close or the next browser would wait for it.
bool peer_gone(const void* context) {
    const auto* m = static_cast<const Messenger_t*>(context);
    if (stop_requested(m)) return true;
    const int fd = load_acquire(m->s_msg_connection);
    if (fd < 0) return true;
    pollfd p{fd, POLLRDHUP, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

enum class Received { Delivered, Closed, Exit };

// The receive buffer of a receiving thread. Before every receive the bytes
// of the previous block and its terminator are cleared, not the whole
// 4 KiB: a request is a few dozen bytes. The byte after each block is set
// to zero on receipt, so the block is terminated whatever a callback wrote
// into the buffer before; the zero is not counted in the length. One spare
// byte keeps even a full 4096-byte block terminated.
class ReceiveBuffer {
public:
    ReceiveBuffer() { std::memset(bytes_, 0, sizeof(bytes_)); }
    char* clear() {
        std::memset(bytes_, 0, used_);
        used_ = 0;
        return bytes_;
    }
    void received(std::size_t length) {
        bytes_[length] = '\0';
        used_ = length + 1;
    }

private:
    char bytes_[kReceiveBufferSize + 1];
    std::size_t used_ = 0;
};

// Receives one block and hands it to the callback.
Received receive_one(Messenger_t* m, int fd, ReceiveBuffer& receive, bool log_block) {
    char* buffer = receive.clear();
    ssize_t n;
    do {
        n = ::recv(fd, buffer, kReceiveBufferSize, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Received::Delivered;
    if (n <= 0) return Received::Closed;
    receive.received(static_cast<std::size_t>(n));

    if (log_block) AM_INFO("msg_task received -> %s", buffer);
    appmgr::interruption::Scope interruptible(peer_gone, m);
    int result = m->cb_func ? m->cb_func(m, buffer, static_cast<int>(n)) : 0;
    if (result != 0) {
        AM_INFO("MESSENGER-TASK: exiting!");
        return Received::Exit;
    }
    return Received::Delivered;
}

}  // namespace

MessengerState_t state(const Messenger_t* m) { return load_acquire(m->state); }
void set_state(Messenger_t* m, MessengerState_t s) { store_release(m->state, s); }
int connection_fd(const Messenger_t* m) { return load_acquire(m->s_msg_connection); }

}  // namespace appmgr::messenger

using namespace appmgr::messenger;
using appmgr::messenger::state;

namespace {

ErrorType_t start_messenger(Messenger_t* d_msg) {
    if (!create_control(d_msg)) {
        AM_ERROR("MESSENGER: cannot create the stop pipe (%d)", errno);
        return RET_ERROR;
    }
    const bool client = d_msg->msg_type == MESSENGER_TYPE_CLIENT;
    if (client && messenger_connect_client(d_msg) != 0) {
        drop_control(d_msg);
        return RET_ERROR;
    }
    int err = appmgr::threads::start(&d_msg->t_msg_dispatcher, appmgr::threads::Kind::Receive,
                                     client ? manager_msg_task : manager_srv_task, d_msg);
    if (err != 0) {
        if (client)
            AM_ERROR("MESSENGER: msg_task error (%d)", err);
        else
            AM_ERROR("MESSENGER: srv_task error (%d)", err);
        d_msg->t_msg_dispatcher = 0;
        messenger_close_connection(d_msg);
        drop_control(d_msg);
        return RET_ERROR;
    }
    return RET_OK;
}

ErrorType_t stop_messenger(Messenger_t* d_msg) {
    auto control = find_control(d_msg);
    if (control) {
        control->stopping = true;
        {
            // A receive thread inside recv() or a callback returns at once.
            std::lock_guard<std::mutex> lock(control->out_mutex);
            int fd = connection_fd(d_msg);
            if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
        }
        wake(*control);
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
        unlink_path(appmgr::connection::socket_path(d_msg->msg_port));
    drop_control(d_msg);
    return RET_OK;
}

ErrorType_t send_on(Messenger_t* d_msg, const char* bytes, unsigned int length) {
    auto control = find_control(d_msg);
    if (!control) return send_unqueued(d_msg, bytes, length);

    bool notify = false;
    {
        std::lock_guard<std::mutex> lock(control->out_mutex);
        const int fd = connection_fd(d_msg);
        if (fd < 0 || flush_locked(*control, fd) == Write::Failed) return RET_ERROR;
        std::size_t written = 0;
        if (control->queue.empty()) {
            if (write_some(fd, bytes, length, &written) == Write::Failed) return RET_ERROR;
            if (written == length) return RET_OK;
        }
        const std::size_t rest = length - written;
        const bool fits = control->queued_bytes + rest <= appmgr::connection::kQueueLimitBytes ||
                          control->queue.empty();
        if (!fits) {
            AM_ERROR("MESSENGER(%s): browser is not reading, frame of %u bytes dropped "
                     "(%zu bytes wait)", d_msg->name, length, control->queued_bytes);
            return RET_ERROR;
        }
        if (control->queue.empty()) control->last_progress = Clock::now();
        control->queue.emplace_back(bytes + written, rest);
        control->queued_bytes += rest;
        notify = true;
    }
    // The receive thread now also watches for the socket becoming writable.
    if (notify) wake(*control);
    return RET_OK;
}

void close_connection(Messenger_t* d_msg) {
    auto control = find_control(d_msg);
    ::pthread_mutex_lock(&d_msg->close_mutex);
    {
        // No sender may be using the descriptor while it is closed.
        std::unique_lock<std::mutex> out;
        if (control) out = std::unique_lock<std::mutex>(control->out_mutex);
        int fd = connection_fd(d_msg);
        if (fd != -1) {
            ::shutdown(fd, SHUT_RDWR);
            ::close(fd);
            set_fd(d_msg, -1);
        }
        if (control) clear_queue_locked(*control);
    }
    set_state(d_msg, MESSENGER_STATE_STOPPED);
    ::pthread_mutex_unlock(&d_msg->close_mutex);
}

}  // namespace

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
    return appmgr::c_entry(__func__, RET_ERROR, [&] { return start_messenger(d_msg); });
}

APPMGR_API ErrorType_t messenger_stop(Messenger_t* d_msg) {
    if (d_msg == nullptr) return RET_OK;
    return appmgr::c_entry(__func__, RET_OK, [&] { return stop_messenger(d_msg); });
}

APPMGR_API ErrorType_t messenger_send(Messenger_t* d_msg, void* data, unsigned int length) {
    if (d_msg == nullptr || (data == nullptr && length != 0)) return RET_ERROR;
    if (state(d_msg) != MESSENGER_STATE_STARTED) return RET_ERROR;
    return appmgr::c_entry(__func__, RET_ERROR,
                           [&] { return send_on(d_msg, static_cast<const char*>(data), length); });
}

APPMGR_API void messenger_close_connection(Messenger_t* d_msg) {
    if (d_msg == nullptr) return;
    appmgr::c_entry_void(__func__, [&] { close_connection(d_msg); });
}

}  // extern "C"

namespace {

int setup_server(Messenger_t* d_msg) {
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
    if (wait_event(find_control(d_msg).get(), fd) == Event::Readable)
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

int connect_client(Messenger_t* d_msg) {
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

void serve(Messenger_t* d_msg) {
    if (messenger_setup_server(d_msg) != 0 && !stop_requested(d_msg))
        AM_ERROR("MESSENGER-TASK-SERVER: Server error");
    set_state(d_msg, MESSENGER_STATE_STARTED);
    const appmgr::connection::ConnectionRow* row =
        appmgr::connection::row_for_port(d_msg->msg_port);
    // Looked up once: the thread ends before its control is dropped.
    const std::shared_ptr<Control> control = find_control(d_msg);
    ReceiveBuffer buffer;

    for (;;) {
        int fd = connection_fd(d_msg);
        if (fd <= 0) {
            if (!stop_requested(d_msg)) AM_ERROR("MESSENGER-TASK: Invalid socket");
            break;
        }
        Event e = wait_event(control.get(), fd);
        if (e == Event::Stopped) break;
        if (e == Event::Readable) {
            Received r = receive_one(d_msg, fd, buffer, true);
            if (r == Received::Delivered) continue;
            if (r == Received::Exit) break;
        }
        if (stop_requested(d_msg)) break;
        if (e == Event::Stalled)
            AM_ERROR("MESSENGER-TASK-SERVER: browser stopped reading (%s)", d_msg->name);
        else
            AM_ERROR("MESSENGER-TASK-SERVER: socket closed (%s)", d_msg->name);
        messenger_close_connection(d_msg);
        if (row != nullptr && row->on_peer_lost == appmgr::connection::PeerLost::BrowserCrashed)
            appmgr::connection::browser_lost();
        if (messenger_setup_server(d_msg) == 0) continue;
        if (!stop_requested(d_msg)) AM_ERROR("MESSENGER-TASK-SERVER: Server error");
        break;
    }
}

void receive_as_client(Messenger_t* d_msg) {
    set_state(d_msg, MESSENGER_STATE_STARTED);
    const std::shared_ptr<Control> control = find_control(d_msg);
    ReceiveBuffer buffer;
    for (;;) {
        int fd = connection_fd(d_msg);
        if (fd <= 0) {
            AM_ERROR("MESSENGER-TASK: Invalid socket");
            break;
        }
        Event e = wait_event(control.get(), fd);
        if (e == Event::Stopped) break;
        if (e == Event::Readable) {
            Received r = receive_one(d_msg, fd, buffer, false);
            if (r == Received::Delivered) continue;
            if (r == Received::Exit) break;
        }
        if (!stop_requested(d_msg))
            AM_ERROR("MESSENGER-TASK-CLIENT: socket closed (%s)", d_msg->name);
        break;
    }
}

// Runs a receive thread's loop. Nothing thrown inside (std::bad_alloc from
// a socket path or a handler's strings) may reach the thread's start, which
// would end the process: the loop then ends as a failed connection does.
void* run_receive_thread(void* arg, void (*loop)(Messenger_t*), const char* name) {
    appmgr::threads::StackWatch stack_watch(appmgr::threads::Kind::Receive);
    auto* d_msg = static_cast<Messenger_t*>(arg);
    appmgr::c_entry_void(name, [&] { loop(d_msg); });
    set_state(d_msg, MESSENGER_STATE_STOPPING);
    AM_INFO("MESSENGER-TASK: Done!");
    return nullptr;
}

}  // namespace

extern "C" {

int messenger_setup_server(Messenger_t* d_msg) {
    return appmgr::c_entry(__func__, -1, [&] { return setup_server(d_msg); });
}

int messenger_connect_client(Messenger_t* d_msg) {
    return appmgr::c_entry(__func__, -1, [&] { return connect_client(d_msg); });
}

void* manager_srv_task(void* arg) { return run_receive_thread(arg, serve, __func__); }

void* manager_msg_task(void* arg) { return run_receive_thread(arg, receive_as_client, __func__); }

}  // extern "C"
