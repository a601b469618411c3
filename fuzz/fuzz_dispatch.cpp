// The messages of one browser connection as its receive thread hands them
// to the dispatcher. An input is a sequence of received blocks separated by
// zero bytes (each cut to 4096 bytes, as one receive delivers at most that),
// so that one input can create a search, fill it and start it. The
// connection is chosen when the target is built (APPMGR_FUZZ_CONNECTION):
// one target per connection.
#include <cstdint>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "fuzz_support.h"

namespace {

constexpr auto kConnection = static_cast<Mng_ConnectionType_t>(APPMGR_FUZZ_CONNECTION);
constexpr std::size_t kBlock = 4096;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::simulate_receiver();
    Mng_Connection_t& connection = gData.mng_connection[kConnection];
    connection.mng_type = kConnection;
    connection.messenger.priv = &connection;
    for (const std::string& block : appmgr::fuzz::pieces(data, size, kBlock)) {
        // The receive buffer keeps a terminator after a full block.
        char buffer[kBlock + 1];
        std::memcpy(buffer, block.data(), block.size());
        buffer[block.size()] = '\0';
        input_data_received(&connection.messenger, buffer, static_cast<int>(block.size()));
    }
    appmgr::fuzz::forget_input_state();
    return 0;
}
