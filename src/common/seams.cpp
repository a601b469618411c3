#include "common/seams.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace appmgr::seams {

namespace {
constexpr const char* kSocketDir = "/tmp/";
constexpr int kBrowserWaitSeconds = 60;
constexpr int kSettleMillis = 1000;
constexpr const char* kTesselMarker = "/system/hbbtv/bin/tessel";
constexpr const char* kCaBundle = "/system/kestrel2/config/crt/ca-certificates.crt";
constexpr const char* kClientCert = "/system/kestrel2/config/crt/client/client_cert.pem";
constexpr const char* kClientKey = "/system/kestrel2/config/crt/client/client_key.pem";

#ifdef APPMGR_TEST_SEAMS
std::mutex g_mutex;
std::string g_socket_dir;
std::string g_tessel_marker;
std::atomic<int> g_wait_seconds{-1};
std::atomic<int> g_settle_millis{-1};
std::atomic<int (*)(const char*)> g_shell{nullptr};
std::atomic<void (*)(int)> g_exit{nullptr};
std::string g_ca_bundle;
std::string g_client_cert;
std::string g_client_key;
std::atomic<long> g_connect_timeout{0};
std::atomic<long> g_total_timeout{0};
AitHandoverObserver g_handover_observer = nullptr;
void* g_handover_user = nullptr;
#endif
}  // namespace

#ifdef APPMGR_TEST_SEAMS
std::string socket_dir() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_socket_dir.empty() ? kSocketDir : g_socket_dir;
}
int browser_wait_seconds() {
    int v = g_wait_seconds.load();
    return v < 0 ? kBrowserWaitSeconds : v;
}
int settle_millis() {
    int v = g_settle_millis.load();
    return v < 0 ? kSettleMillis : v;
}
std::string tessel_marker() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_tessel_marker.empty() ? kTesselMarker : g_tessel_marker;
}
int run_shell(const char* command) {
    if (auto fn = g_shell.load()) return fn(command);
    return std::system(command);
}
void exit_process(int status) {
    if (auto fn = g_exit.load()) fn(status);
    std::exit(status);
}
void set_socket_dir(const std::string& dir) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_socket_dir = dir.empty() || dir.back() == '/' ? dir : dir + "/";
}
void set_browser_wait_seconds(int seconds) { g_wait_seconds = seconds; }
void set_settle_millis(int millis) { g_settle_millis = millis; }
void set_tessel_marker(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_tessel_marker = path;
}
void set_shell_runner(int (*runner)(const char*)) { g_shell = runner; }
void set_process_exit(void (*exit_fn)(int)) { g_exit = exit_fn; }

std::string ca_bundle_path() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_ca_bundle.empty() ? kCaBundle : g_ca_bundle;
}
std::string client_cert_path() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_client_cert.empty() ? kClientCert : g_client_cert;
}
std::string client_key_path() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_client_key.empty() ? kClientKey : g_client_key;
}
long http_connect_timeout(long fixed) {
    long v = g_connect_timeout.load();
    return v > 0 ? v : fixed;
}
long http_total_timeout(long fixed) {
    long v = g_total_timeout.load();
    return v > 0 ? v : fixed;
}
void set_tls_paths(const std::string& ca_bundle, const std::string& client_cert,
                   const std::string& client_key) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_ca_bundle = ca_bundle;
    g_client_cert = client_cert;
    g_client_key = client_key;
}
void set_http_timeouts(long connect_seconds, long total_seconds) {
    g_connect_timeout = connect_seconds;
    g_total_timeout = total_seconds;
}
void set_ait_handover_observer(AitHandoverObserver observer, void* user) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_handover_observer = observer;
    g_handover_user = user;
}
void notify_ait_handover(const AitTable* table) {
    AitHandoverObserver observer;
    void* user;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        observer = g_handover_observer;
        user = g_handover_user;
    }
    if (observer != nullptr) observer(table, user);
}
#else
std::string socket_dir() { return kSocketDir; }
int browser_wait_seconds() { return kBrowserWaitSeconds; }
int settle_millis() { return kSettleMillis; }
std::string tessel_marker() { return kTesselMarker; }
int run_shell(const char* command) { return std::system(command); }
void exit_process(int status) { std::exit(status); }
std::string ca_bundle_path() { return kCaBundle; }
std::string client_cert_path() { return kClientCert; }
std::string client_key_path() { return kClientKey; }
long http_connect_timeout(long fixed) { return fixed; }
long http_total_timeout(long fixed) { return fixed; }
#endif

// Remote-input service port, kept apart from the values above.
namespace {
constexpr unsigned short kRemoteInputPort = 3585;
#ifdef APPMGR_TEST_SEAMS
std::atomic<unsigned short> g_remote_input_port{0};
#endif
}  // namespace

#ifdef APPMGR_TEST_SEAMS
unsigned short remote_input_port() {
    unsigned short v = g_remote_input_port.load();
    return v != 0 ? v : kRemoteInputPort;
}
void set_remote_input_port(unsigned short port) { g_remote_input_port = port; }
#else
unsigned short remote_input_port() { return kRemoteInputPort; }
#endif

namespace {
#ifdef APPMGR_TEST_SEAMS
std::atomic<bool> g_transfers_offline{false};
#endif
}  // namespace

#ifdef APPMGR_TEST_SEAMS
bool transfers_offline() { return g_transfers_offline.load(); }
void set_transfers_offline(bool offline) { g_transfers_offline = offline; }
#else
bool transfers_offline() { return false; }
#endif

}  // namespace appmgr::seams
