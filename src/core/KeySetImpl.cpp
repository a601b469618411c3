// Key sets of the running application and remote-key injection.
//
// The key set is the mask of key groups the running application receives.
// It is clamped to what the application may have at its activation state,
// sent to the browser (command 220) and registered with the platform's key
// routing. Remote-control keys are injected into the graphics system's
// remote-input service as text commands over a local TCP connection that is
// opened on first use and kept open.
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
#include "common/atomic_state.h"
#include "common/log.h"
#include "common/seams.h"
#include "core/core_internal.h"
#include "core/keyset_internal.h"
#include "hbb_platform.h"

namespace {

constexpr int kCmdHandleKeySet = 220;

// Key-group masks.
constexpr int kKeySetEnd = 0x800;          // first mask that is not valid
constexpr int kAllButOtherKeys = 0x3FF;    // every group except "other keys" (0x400)
constexpr int kBeforeActivation = 0x1F;    // colour keys and navigation

// Time limits of the remote-input connection.
constexpr int kConnectMillis = 1000;
constexpr int kWriteMillis = 1000;

struct KeyCode {
    uint16_t key;
    const char* rccode;  // command line, newline included
};

// Key numbers and their remote-input commands, ended by key 0.
constexpr KeyCode kKeyCodes[] = {
    {10, "key 0\n"},
    {1, "key 1\n"},
    {2, "key 2\n"},
    {3, "key 3\n"},
    {4, "key 4\n"},
    {5, "key 5\n"},
    {6, "key 6\n"},
    {7, "key 7\n"},
    {8, "key 8\n"},
    {9, "key 9\n"},
    {40, "function key 8\n"},
    {43, "function key 7\n"},
    {41, "function key 6\n"},
    {42, "function key 5\n"},
    {22, "key up\n"},
    {23, "key down\n"},
    {24, "key left\n"},
    {25, "key right\n"},
    {37, "key back\n"},
    {485, "key pause\n"},
    {21, "key return\n"},
    {365, "key rewind\n"},
    {366, "key fast fwd\n"},
    {363, "key play\n"},
    {364, "key stop\n"},
    {191, "key subtitle\n"},
    {0, nullptr},
};

// ---- key-set state -------------------------------------------------------

// Guards g_key_set and g_activate_value, and keeps the browser and the
// platform told in the same order as the state changes.
std::mutex g_key_set_mutex;
KeySet g_key_set{0, 0};
// Last requested mask after the 10-bit clamp; setActivateKeySet re-applies it.
int g_activate_value = 0;
// Copy of g_key_set.value for readers that must not take the lock.
int g_value_in_force = 0;

// Key-set calls count only while the manager is up or a portal is shown.
bool key_sets_accepted() {
    return appmgr::library_state() == APP_MANAGER_INITIALIZED ||
           appmgr::atomic_get(is_portal_mode) == 1;
}

// Applies a valid mask; g_key_set_mutex must be held.
int apply_key_set(int value, bool has_other_keys) {
    if (!has_other_keys) value &= kAllButOtherKeys;
    g_activate_value = value;
    const bool activated = appmgr::atomic_get(bIsApplicationActivated) == 1U;
    g_key_set.value = activated ? value : (value & kBeforeActivation);
    appmgr::atomic_set(g_value_in_force, g_key_set.value);
    AM_INFO("set keySet.value:0x%x (requested:0x%x)\n", static_cast<unsigned>(g_key_set.value),
            static_cast<unsigned>(value));
    int mask = g_key_set.value;
    send_command(kCmdHandleKeySet, &mask);
    hbbRegisterKeySet(mask);
    return mask;
}

// ---- remote-input connection --------------------------------------------

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

    bool is_open() const { return fd_ >= 0; }

    // Creates the socket and connects it to the local host within
    // kConnectMillis. false (errno set) when it could not connect.
    bool open(unsigned short port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) return false;
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect_bounded(addr);
        if (!connected_) return false;
        timeval tv{};
        tv.tv_sec = kWriteMillis / 1000;
        tv.tv_usec = (kWriteMillis % 1000) * 1000;
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
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
            n = ::send(fd_, data, size, MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n < 0) return false;
        if (static_cast<std::size_t>(n) != size) {
            errno = EIO;
            return false;
        }
        return true;
    }

    void close() {
        if (fd_ < 0) return;
        ::shutdown(fd_, SHUT_RDWR);
        ::close(fd_);
        fd_ = -1;
        connected_ = false;
    }

private:
    bool connect_bounded(const sockaddr_in& addr) {
        const int flags = ::fcntl(fd_, F_GETFL, 0);
        if (flags < 0 || ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK) < 0) return false;
        int rc = ::connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
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
                pollfd pfd{fd_, POLLOUT, 0};
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
            if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &len) < 0) return false;
            if (err != 0) {
                errno = err;
                return false;
            }
            rc = 0;
        }
        if (rc < 0) return false;
        return ::fcntl(fd_, F_SETFL, flags) == 0;
    }

    int fd_ = -1;
    bool connected_ = false;
};

std::mutex g_remote_mutex;
RemoteInputConnection g_remote;

}  // namespace

extern "C" {

APPMGR_API int setKeySet(int value, int* otherKeys) {
    if (!key_sets_accepted()) return 1;
    if (value < 0 || value >= kKeySetEnd) {
        AM_ERROR("INVALID KEYSET VALUE\n");
        return 0;
    }
    std::lock_guard<std::mutex> lock(g_key_set_mutex);
    // Only the presence of the other-keys list matters; it is never read.
    return apply_key_set(value, otherKeys != nullptr);
}

void setActivateKeySet(void) {
    std::lock_guard<std::mutex> lock(g_key_set_mutex);
    AM_INFO(" Enter setDefaultKeySet, activateValue:0x%x\n\n",
            static_cast<unsigned>(g_activate_value));
    if (!key_sets_accepted()) return;
    apply_key_set(g_activate_value, false);
}

int current_key_set_value(void) { return appmgr::atomic_get(g_value_in_force); }

const char* map_key(uint8_t key) {
    for (const KeyCode* entry = kKeyCodes; entry->key != 0; ++entry)
        if (entry->key == key) return entry->rccode;
    return nullptr;
}

APPMGR_API int sendIrCmd(uint16_t key) {
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

APPMGR_API void resetRemoteKeySocket(void) {
    std::lock_guard<std::mutex> lock(g_remote_mutex);
    g_remote.close();
}

}  // extern "C"
