// Key sets and remote-key injection: the library-internal entry points.
// setKeySet itself is exported (app_mgr.h); the mask now in force is read
// with current_key_set_value (core_internal.h).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Re-applies the mask last requested through setKeySet (within 0x3FF). Used
// once the running application is activated, so that the mask clamped to the
// colour and navigation keys until then takes full effect.
void setActivateKeySet(void);

// Injects one remote-control key into the remote-input service. The
// connection is opened by the first call and kept. 0: sent, or the key has
// no command; -1: connection or write failure.
// Closes the remote-input connection; the next sendIrCmd reconnects.
// Command text (newline included) of a key number, or NULL. Only key numbers
// up to 255 can be given, so table entries above 255 never match.
const char* map_key(uint8_t key);

#ifdef __cplusplus
}
#endif
