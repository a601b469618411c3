// What the fuzz targets of the library share.
//
// keep_offline() sets the library up to be fuzzed on a PC without touching
// anything outside the process: HTTP transfers are refused before they
// start (a test seam), shell commands (the browser kill) are recorded
// instead of run, the remote-input service is a closed port, and the
// browser sockets belong to a private directory (no browser is connected:
// replies and commands fail quietly). Tuning is answered by the porting
// functions fuzz_support.cpp defines in the target itself, so a request
// never changes channel (the simulator would deliver the change on its own
// thread, and the next input would start from another state).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace appmgr::fuzz {

// Once per process (later calls do nothing).
void keep_offline();

// A receiver for the request handlers to work on: three channels with AV
// components, programmes, SI descriptors, an EIT cache, a served carousel
// with files, a directory and a stream-event object, and a current AIT with
// carousel and broadband entries. Once per process.
void simulate_receiver();

// The pieces of an input separated by zero bytes (empty pieces dropped),
// each cut to `max_piece` bytes.
std::vector<std::string> pieces(const uint8_t* data, std::size_t size, std::size_t max_piece);

// Gives back what the library holds for the browser after an input: the
// live searches, the pending stream-event listeners.
void forget_input_state();

}  // namespace appmgr::fuzz
