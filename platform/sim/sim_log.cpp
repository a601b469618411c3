// Logging of the simulated platform: the console log (orb_log_printfs) goes
// to stderr and to the log hook, the file log (fpi_log_printf) to the file
// named by HBB_SIM_LOG_FILE or hbb_sim_set_log_file. Lines below the minimum
// level are dropped. One mutex serialises the settings and the output, so
// lines from different threads never interleave; the hook is called after
// it is released.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

#include "sim_internal.h"

namespace {

constexpr int kDefaultMinLevel = 2;

std::mutex log_mutex;
std::once_flag env_once;
int min_level = kDefaultMinLevel;
std::FILE* log_file = nullptr;
bool console_enabled = true;
hbb_sim_log_fn log_hook = nullptr;
void* log_hook_user = nullptr;

// Library levels: 2 information, 3 warning, 5 error; lower ones are debug.
const char* level_name(int level) {
    if (level >= 5) return "ERROR";
    if (level >= 3) return "WARN";
    if (level >= 2) return "INFO";
    return "DEBUG";
}

// ORBLOG_LOGLEVEL to library level; -1 for lines that are never printed.
int library_level_of(int orb_level) {
    switch (orb_level) {
        case ORBLOG_LOGLVL_SILENT: return -1;
        case ORBLOG_LOGLVL_FATAL:
        case ORBLOG_LOGLVL_ERROR: return 5;
        case ORBLOG_LOGLVL_WARN: return 3;
        case ORBLOG_LOGLVL_INFO: return 2;
        default: return 1;
    }
}

void close_file_locked() {
    if (log_file) std::fclose(log_file);
    log_file = nullptr;
}

int open_file_locked(const char* path) {
    close_file_locked();
    if (!path || !*path) return 0;
    log_file = std::fopen(path, "a");
    return log_file ? 0 : -1;
}

void apply_env_locked() {
    const char* level = std::getenv("HBB_SIM_LOG_LEVEL");
    min_level = (level && *level) ? std::atoi(level) : kDefaultMinLevel;
    open_file_locked(std::getenv("HBB_SIM_LOG_FILE"));
}

std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[48];
    size_t used = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + used, sizeof text - used, ".%03ld", now.tv_nsec / 1000000L);
    return text;
}

std::string format_message(const char* format, va_list args) {
    if (!format) return std::string();
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) return std::string();
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    // The library ends many lines with blank lines of its own; one line is
    // one log entry here.
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

bool passes_filter(int level) {
    std::lock_guard<std::mutex> lock(log_mutex);
    return level >= 0 && level >= min_level;
}

}  // namespace

namespace hbbsim {

void ensure_log_configured() {
    std::call_once(env_once, [] {
        std::lock_guard<std::mutex> lock(log_mutex);
        apply_env_locked();
    });
}

}  // namespace hbbsim

extern "C" {

int log_is_output(int module, int level) {
    (void)module;
    hbbsim::ensure_log_configured();
    return passes_filter(level) ? 1 : 0;
}

int log_is_outfile(int module, int level) {
    (void)module;
    hbbsim::ensure_log_configured();
    std::lock_guard<std::mutex> lock(log_mutex);
    return (log_file && level >= min_level) ? 1 : 0;
}

int log_get_cmd(int module) { return module; }

void orb_log_printfs(const char* tag, int cmd, int level, const char* format, ...) {
    hbbsim::ensure_log_configured();
    int library_level = library_level_of(level);
    if (!passes_filter(library_level)) return;

    va_list args;
    va_start(args, format);
    std::string message = format_message(format, args);
    va_end(args);
    std::string line = timestamp() + " " + level_name(library_level) + " " +
                       (tag ? tag : "-") + "[" + std::to_string(cmd) + "]: " + message;

    hbb_sim_log_fn hook;
    void* hook_user;
    {
        std::lock_guard<std::mutex> lock(log_mutex);
        if (console_enabled) {
            std::fputs(line.c_str(), stderr);
            std::fputc('\n', stderr);
        }
        hook = log_hook;
        hook_user = log_hook_user;
    }
    if (hook) hook(library_level, line.c_str(), hook_user);
}

void fpi_log_printf(int cmd, int level, const char* format, ...) {
    hbbsim::ensure_log_configured();
    va_list args;
    va_start(args, format);
    std::string message = format_message(format, args);
    va_end(args);

    std::lock_guard<std::mutex> lock(log_mutex);
    if (!log_file || level < min_level) return;
    std::fprintf(log_file, "%s %s [%d]: %s\n", timestamp().c_str(), level_name(level), cmd,
                 message.c_str());
    std::fflush(log_file);
}

void hbb_sim_set_log_level(int level) {
    hbbsim::ensure_log_configured();
    std::lock_guard<std::mutex> lock(log_mutex);
    min_level = level;
}

int hbb_sim_log_level(void) {
    hbbsim::ensure_log_configured();
    std::lock_guard<std::mutex> lock(log_mutex);
    return min_level;
}

int hbb_sim_set_log_file(const char* path) {
    hbbsim::ensure_log_configured();
    std::lock_guard<std::mutex> lock(log_mutex);
    return open_file_locked(path);
}

void hbb_sim_log_from_env(void) {
    hbbsim::ensure_log_configured();
    std::lock_guard<std::mutex> lock(log_mutex);
    apply_env_locked();
}

void hbb_sim_set_log_stderr(int enabled) {
    std::lock_guard<std::mutex> lock(log_mutex);
    console_enabled = enabled != 0;
}

void hbb_sim_set_log_hook(hbb_sim_log_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(log_mutex);
    log_hook = fn;
    log_hook_user = user;
}

}  // extern "C"
