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

#ifdef APPMGR_TEST_SEAMS
std::mutex g_mutex;
std::string g_socket_dir;
std::string g_tessel_marker;
std::atomic<int> g_wait_seconds{-1};
std::atomic<int> g_settle_millis{-1};
std::atomic<int (*)(const char*)> g_shell{nullptr};
std::atomic<void (*)(int)> g_exit{nullptr};
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
#else
std::string socket_dir() { return kSocketDir; }
int browser_wait_seconds() { return kBrowserWaitSeconds; }
int settle_millis() { return kSettleMillis; }
std::string tessel_marker() { return kTesselMarker; }
int run_shell(const char* command) { return std::system(command); }
void exit_process(int status) { std::exit(status); }
#endif

}  // namespace appmgr::seams
