// Reading stream events out of broadcast captures: the sections of one PID
// of an MPEG transport stream, and the stream-event descriptors of a DSM-CC
// stream-descriptor section (table 0x3D), as a receiver's demultiplexer
// would hand them to the middleware.
#pragma once

#include <string>
#include <vector>

namespace appmgr::test {

struct CapturedStreamEvent {
    int event_id = 0;
    std::string private_data;  // the payload the middleware passes on
};

// The complete sections carried on a PID, in stream order (188-byte
// packets; a section may span packets and a packet may end one section
// and start the next).
std::vector<std::string> sections_of_pid(const std::string& transport_stream, int pid);
// The stream-event descriptors (tag 0x1A) of one section, in order.
std::vector<CapturedStreamEvent> stream_events_of_section(const std::string& section);
// The contents of a file; empty when it cannot be read.
std::string read_file(const std::string& path);

}  // namespace appmgr::test
