// A received block of up to 4096 bytes, dispatched on each connection as the
// receiving thread would (no browser connected: replies fail quietly).
#include <cstdint>
#include <cstring>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "hbb_sim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        hbb_sim_set_log_stderr(0);
        initAitGuard();
        return true;
    }();
    (void)once;
    if (size > 4096) size = 4096;
    char buffer[4097];
    std::memcpy(buffer, data, size);
    buffer[size] = '\0';
    const uint8_t selector = size > 0 ? data[0] : 0;
    Mng_Connection_t& connection = gData.mng_connection[selector % MNG_CONNECTION_TYPE_SIZE];
    connection.mng_type = static_cast<Mng_ConnectionType_t>(selector % MNG_CONNECTION_TYPE_SIZE);
    connection.messenger.priv = &connection;
    input_data_received(&connection.messenger, buffer, static_cast<int>(size));
    return 0;
}
