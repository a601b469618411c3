// An XML AIT text through the single-application reader, as a downloaded
// document and as the text the middleware hands over (ParseXmlAitFile, which
// starts what it read; the browser is not connected, so nothing leaves).
#include <cstdint>
#include <string>

#include "core/core.h"
#include "fuzz_support.h"
#include "state/state.h"
#include "xml/xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::simulate_receiver();
    if (size > 64 * 1024) return 0;
    std::string text(reinterpret_cast<const char*>(data), size);
    appmgr::records::ApplicationPtr app =
        appmgr::xml::read_application_document(text.data(), static_cast<int>(text.size()));
    if (app) appmgr::xml::log_application(*app);
    appmgr::state::ManagerLock lock;
    ParseXmlAitFile(text.data(), static_cast<int>(text.size()));
    return 0;
}
