// Fixed paths and time limits of the library, with the hooks that only the
// test build compiles in (APPMGR_TEST_SEAMS). The shared object is built
// without them: there every value below is the fixed default.
#pragma once

#include <string>

struct AitTable;

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

// TLS material of the broadband transfers: the CA bundle (given to libcurl as
// CA file and CA directory), and the client certificate and private key (PEM)
// that the XML AIT download presents.
std::string ca_bundle_path();
std::string client_cert_path();
std::string client_key_path();
// Time limits of the broadband transfers in seconds. `fixed` is the library's
// own value; only the test build can shorten it.
long http_connect_timeout(long fixed);
long http_total_timeout(long fixed);

// TCP port of the remote-input service on the local host (3585).
unsigned short remote_input_port();

// Whether HTTP transfers are refused before they start (never, except in a
// test build that asked for it: fuzzers run the request handlers offline).
bool transfers_offline();

#ifdef APPMGR_TEST_SEAMS
// Test-only overrides. An empty / negative / null value restores the default.
void set_socket_dir(const std::string& dir);
void set_browser_wait_seconds(int seconds);
void set_settle_millis(int millis);
void set_tessel_marker(const std::string& path);
void set_shell_runner(int (*runner)(const char* command));
void set_process_exit(void (*exit_fn)(int status));
// TLS file locations; an empty text restores the fixed path.
void set_tls_paths(const std::string& ca_bundle, const std::string& client_cert,
                   const std::string& client_key);
// Transfer time limits in seconds; 0 or less restores the fixed value.
void set_http_timeouts(long connect_seconds, long total_seconds);
// Observer of every table the broadband AIT update hands to the autostart
// run, called just before the hand-over on the updating thread. Null clears.
using AitHandoverObserver = void (*)(const AitTable* table, void* user);
void set_ait_handover_observer(AitHandoverObserver observer, void* user);
void notify_ait_handover(const AitTable* table);
// Port of the remote-input service; 0 restores the fixed port.
void set_remote_input_port(unsigned short port);
// Refuses every HTTP transfer before it starts (true) / lets them run.
void set_transfers_offline(bool offline);
#endif

}  // namespace appmgr::seams
