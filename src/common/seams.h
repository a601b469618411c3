// Fixed paths and time limits of the library, with the hooks that only the
// test build compiles in (APPMGR_TEST_SEAMS). The shared object is built
// without them: there every value below is the fixed default.
#pragma once

#include <string>

namespace appmgr::seams {

// Directory holding the five browser sockets ("/tmp/").
std::string socket_dir();
// Seconds the library waits for the browser's state report (60).
int browser_wait_seconds();
// Milliseconds the connection set-up and tear-down pause (1000).
int settle_millis();
// Path of the factory test marker ("/system/hbbtv/bin/tessel").
std::string tessel_marker();
// Runs a process-control shell command ("busybox killall ..."); returns the
// status of system().
int run_shell(const char* command);
// Ends the process (ctrlc_handler).
[[noreturn]] void exit_process(int status);

#ifdef APPMGR_TEST_SEAMS
// Test-only overrides. An empty / negative / null value restores the default.
void set_socket_dir(const std::string& dir);
void set_browser_wait_seconds(int seconds);
void set_settle_millis(int millis);
void set_tessel_marker(const std::string& path);
void set_shell_runner(int (*runner)(const char* command));
void set_process_exit(void (*exit_fn)(int status));
#endif

}  // namespace appmgr::seams
