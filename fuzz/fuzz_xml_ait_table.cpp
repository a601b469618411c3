// An XML AIT text through the table reader: the table a list download
// hands to the autostart choice, and the URL of the best HbbTV application.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/core.h"
#include "fuzz_support.h"
#include "xml/xml.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::keep_offline();
    if (size > 64 * 1024) return 0;
    std::string text(reinterpret_cast<const char*>(data), size);
    int in_document = 0;
    appmgr::records::AitTablePtr table = appmgr::xml::read_ait_document(
        text.data(), static_cast<int>(text.size()), appmgr::xml::kUpdateDocumentUrl, &in_document);
    if (table && (table->app_lenght < 0 || table->app_lenght > appmgr::xml::kMaxApplications))
        std::abort();
    char url[1024];
    int url_length = -1;
    if (getUrlFromXMLAitFile(text.data(), static_cast<int>(text.size()), url, &url_length) == 1 &&
        (url_length < 0 || static_cast<std::size_t>(url_length) != std::strlen(url)))
        std::abort();
    return 0;
}
