// An XML stream-event description: the first line is the event's name, the
// rest the document as a server would send it.
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "xml/xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::keep_offline();
    if (size > 64 * 1024) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = input.find('\n');
    const std::string name = input.substr(0, newline);
    const std::string document = newline == std::string::npos ? "" : input.substr(newline + 1);
    int event_id = 0;
    int component_tag = 0;
    appmgr::xml::read_stream_event_description(document.data(), static_cast<int>(document.size()),
                                               name.c_str(), &event_id, &component_tag);
    return 0;
}
