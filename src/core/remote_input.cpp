// The client of the graphics system's remote-input service: remote-control
// keys are injected as text commands over a local TCP connection that is
// opened on first use and kept open. The connection has a mutex of its own
// (never held together with the manager lock).
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "common/atomic_word.h"
#include "common/c_api.h"
#include "common/log.h"
#include "common/seams.h"
#include "core/core.h"

extern "C" {
// The remote-input service's port and the key map, in table order, ended by
// key 0. Only key numbers up to 255 can be looked up (map_key takes 8 bits),
// so the entries above 255 never match.
APPMGR_API extern const unsigned short dfb_remote_port = 3585;
APPMGR_API extern const KeyCode keycodes[27] = {
    {10, "key 0\n"},          {1, "key 1\n"},         {2, "key 2\n"},
    {3, "key 3\n"},           {4, "key 4\n"},         {5, "key 5\n"},
    {6, "key 6\n"},           {7, "key 7\n"},         {8, "key 8\n"},
    {9, "key 9\n"},           {40, "function key 8\n"}, {43, "function key 7\n"},
    {41, "function key 6\n"}, {42, "function key 5\n"}, {22, "key up\n"},
    {23, "key down\n"},       {24, "key left\n"},     {25, "key right\n"},
    {37, "key back\n"},       {485, "key pause\n"},   {21, "key return\n"},
    {365, "key rewind\n"},    {366, "key fast fwd\n"}, {363, "key play\n"},
    {364, "key stop\n"},      {191, "key subtitle\n"}, {0, nullptr},
};
// The socket to the remote-input service, -1 when not open (written under
// the remote-input mutex).
APPMGR_API int remote_key_socket_fd = -1;
}

namespace {

// Time limits of the remote-input connection.
constexpr int kConnectMillis = 1000;
constexpr int kWriteMillis = 1000;

// Picks the message of either strerror_r flavour.
[[maybe_unused]] const char* error_message(int, const char* buf) { return buf; }
[[maybe_unused]] const char* error_message(const char* text, const char*) { return text; }

std::string error_text(int err) {
    char buf[128] = {0};
    return error_message(strerror_r(err, buf, sizeof(buf)), buf);
}

// A TCP stream socket to the remote-input service. A failed connect leaves
// the socket open but unusable: writes fail until close().
class RemoteInputConnection {
public:
    RemoteInputConnection() = default;
    ~RemoteInputConnection() { close(); }
    RemoteInputConnection(const RemoteInputConnection&) = delete;
    RemoteInputConnection& operator=(const RemoteInputConnection&) = delete;

    bool is_open() const { return fd() >= 0; }

    // Creates the socket and connects it to the local host within
    // kConnectMillis. false (errno set) when it could not connect.
    bool open(unsigned short port) {
        set_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (fd() < 0) return false;
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect_bounded(addr);
        if (!connected_) return false;
        timeval tv{};
        tv.tv_sec = kWriteMillis / 1000;
        tv.tv_usec = (kWriteMillis % 1000) * 1000;
        ::setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        return true;
    }

    // Writes the bytes in one send; false (errno set) on failure or a short
    // write.
    bool write(const char* data, std::size_t size) {
        if (!connected_) {
            errno = ENOTCONN;
            return false;
        }
        ssize_t n;
        do {
            n = ::send(fd(), data, size, MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n < 0) return false;
        if (static_cast<std::size_t>(n) != size) {
            errno = EIO;
            return false;
        }
        return true;
    }

    void close() {
        if (fd() < 0) return;
        ::shutdown(fd(), SHUT_RDWR);
        ::close(fd());
        set_fd(-1);
        connected_ = false;
    }

private:
    bool connect_bounded(const sockaddr_in& addr) {
        const int flags = ::fcntl(fd(), F_GETFL, 0);
        if (flags < 0 || ::fcntl(fd(), F_SETFL, flags | O_NONBLOCK) < 0) return false;
        int rc = ::connect(fd(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
        if (rc < 0 && (errno == EINPROGRESS || errno == EINTR)) {
            const auto deadline =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(kConnectMillis);
            for (;;) {
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                      deadline - std::chrono::steady_clock::now())
                                      .count();
                if (left <= 0) {
                    errno = ETIMEDOUT;
                    return false;
                }
                pollfd pfd{fd(), POLLOUT, 0};
                const int ready = ::poll(&pfd, 1, static_cast<int>(left));
                if (ready < 0 && errno == EINTR) continue;
                if (ready < 0) return false;
                if (ready == 0) {
                    errno = ETIMEDOUT;
                    return false;
                }
                break;
            }
            int err = 0;
            socklen_t len = sizeof(err);
            if (::getsockopt(fd(), SOL_SOCKET, SO_ERROR, &err, &len) < 0) return false;
            if (err != 0) {
                errno = err;
                return false;
            }
            rc = 0;
        }
        if (rc < 0) return false;
        return ::fcntl(fd(), F_SETFL, flags) == 0;
    }

    // The descriptor lives in the exported remote_key_socket_fd.
    static int fd() { return appmgr::load_acquire(remote_key_socket_fd); }
    static void set_fd(int fd) { appmgr::store_release(remote_key_socket_fd, fd); }
    bool connected_ = false;
};

std::mutex g_remote_mutex;
RemoteInputConnection g_remote;

int send_ir_command(uint16_t key) {
    std::lock_guard<std::mutex> lock(g_remote_mutex);
    if (!g_remote.is_open() && !g_remote.open(appmgr::seams::remote_input_port())) {
        AM_ERROR("Connecting to DFB remote-input failed.\n\n");
        return -1;
    }
    const char* command = map_key(static_cast<uint8_t>(key & 0xFFU));
    if (command == nullptr) {
        AM_INFO("Unknown IrCmd ('%d')\n", static_cast<int>(key));
        return 0;
    }
    // The service reads NUL-terminated commands.
    if (!g_remote.write(command, std::strlen(command) + 1)) {
        const std::string reason = error_text(errno);
        AM_ERROR("Could not send key to DFB remote-input: %s\n", reason.c_str());
        return -1;
    }
    AM_INFO("Send IrCmd ('%d'): %s\n", static_cast<int>(key), command);
    return 0;
}

}  // namespace

extern "C" {

const char* map_key(uint8_t key) {
    for (const KeyCode* entry = keycodes; entry->key != 0; ++entry)
        if (entry->key == key) return entry->rccode;
    return nullptr;
}

APPMGR_API int sendIrCmd(uint16_t key) {
    return appmgr::c_entry(__func__, -1, [&] { return send_ir_command(key); });
}

APPMGR_API void resetRemoteKeySocket(void) {
    std::lock_guard<std::mutex> lock(g_remote_mutex);
    g_remote.close();
}

}  // extern "C"
