// The field parser every request handler uses: the exported
// parse_parameter (fields cut to 1023 characters), the sized parser with
// each buffer size the handlers use (each buffer exactly that large, so the
// sanitizer sees a byte written past it), and the typed readers of a
// request.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "app_mgr.h"
#include "fuzz_support.h"
#include "protocol/protocol.h"
#include "tools/requests.h"

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::keep_offline();
    const std::string input(reinterpret_cast<const char*>(data), size);

    std::string text = input;
    char field[1024];
    for (char* rest = text.data(); rest != nullptr;) {
        rest = parse_parameter(rest, field);
        check(std::strlen(field) < sizeof(field));
    }

    for (std::size_t limit : {1u, 2u, 16u, 32u, 64u, 128u, 256u, 1024u}) {
        text = input;
        auto buffer = std::make_unique<char[]>(limit);
        for (char* rest = text.data(); rest != nullptr;) {
            char* next = appmgr::protocol::next_field(rest, buffer.get(), limit);
            check(std::strlen(buffer.get()) < limit);
            // Each field ends the text it was taken from at a "|".
            check(next == nullptr || (next > rest && next[-1] == '|'));
            rest = next;
        }
    }

    text = input;
    appmgr::msg::Request request(MNG_CONNECTION_TYPE_H_PUGINS, text.data());
    for (int i = 0; i < 64; ++i) {
        switch (i % 4) {
            case 0: check(request.text(15).size() <= 15); break;
            case 1: (void)request.integer(); break;
            case 2: (void)request.number(); break;
            default: check(request.text().size() <= 1023); break;
        }
    }
    return 0;
}
