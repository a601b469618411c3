// HTTP transfers of the broadband path, each a blocking single-shot libcurl
// easy transfer on the caller's thread: the HEAD probe of an application's
// entry URL, the download of a single-application XML AIT (HTTPS with a
// client certificate), the download of a list XML AIT that becomes the
// autostart table, and a timing dump for diagnostics.
//
// Every transfer has its own download buffer and its own 404 marker, so
// transfers on different threads do not touch each other's data; the XML
// reading after a download is serialised by the reader's parser lock.
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "app_mgr.h"
#include "app_mgr_broadband.h"
#include "app_mgr_state.h"
#include "common/log.h"
#include "common/seams.h"
#include "core/core_internal.h"
#include "hbb_platform.h"
#include "xml/xml_ait_internal.h"

namespace {

using appmgr::xml::kMaxApplications;
using appmgr::xml::kUrlLength;
namespace seams = appmgr::seams;

constexpr long kProbeConnectTimeout = 20;
constexpr long kProbeTimeout = 30;
constexpr long kXmlAitConnectTimeout = 10;
constexpr long kUpdateConnectTimeout = 20;
constexpr long kUpdateTimeout = 30;
constexpr std::size_t kTripletLength = 256;

// The application types a list XML AIT may carry for its table to be taken
// as it is.
const char* const xml_ait_valid_application_types[] = {
    "application/vnd.hbbtv.xhtml+xml",
    "application/vnd.ctv.xhtml+xml",
};

// The reason phrases that make a probe fail. Only these exact spellings
// count; the status code itself is not looked at.
const char* const kNotFoundPhrases[] = {"404 Not Found", "404 NOT FOUND", "404 not found"};

bool contains(const char* data, std::size_t len, const char* needle) {
    const std::size_t n = std::strlen(needle);
    if (len < n) return false;
    for (std::size_t i = 0; i + n <= len; ++i)
        if (std::memcmp(data + i, needle, n) == 0) return true;
    return false;
}

// Appends one received chunk to a page. A chunk that does not fit whole
// (leaving room for the terminating NUL) is refused, which makes libcurl end
// the transfer with a write error.
size_t append_chunk(PageInfo* page, const char* ptr, size_t n) {
    if (ptr != nullptr && page != nullptr && page->len >= 0 &&
        n < static_cast<size_t>(APPMGR_PAGE_SIZE) - static_cast<size_t>(page->len)) {
        std::memcpy(page->data + page->len, ptr, n);
        page->len += static_cast<int>(n);
        return n;
    }
    AM_ERROR("\nprt is NULL\n\n");
    if (ptr != nullptr && page != nullptr)
        AM_ERROR("download exceeds %d bytes (%d kept, %d more): transfer aborted\n",
                 APPMGR_PAGE_SIZE - 1, page->len, static_cast<int>(n));
    return 0;
}

struct CurlHandle {
    CURL* curl = curl_easy_init();
    ~CurlHandle() {
        if (curl != nullptr) curl_easy_cleanup(curl);
    }
    CurlHandle() = default;
    CurlHandle(const CurlHandle&) = delete;
    CurlHandle& operator=(const CurlHandle&) = delete;
};

// The autostart run gets the table together with a fresh validity flag for
// each of its entries. The AIT guard keeps the broadcast AIT intake from
// replacing the flags meanwhile.
void hand_over(AitTable* table) {
    const bool locked = lockAitGuard() != 0;
    std::free(application_vadility_flags);
    application_vadility_flags = nullptr;
    if (table->app_lenght > 0) {
        application_vadility_flags =
            static_cast<unsigned char*>(std::malloc(static_cast<size_t>(table->app_lenght)));
        if (application_vadility_flags != nullptr)
            std::memset(application_vadility_flags, 1, static_cast<size_t>(table->app_lenght));
    }
#ifdef APPMGR_TEST_SEAMS
    seams::notify_ait_handover(table);
#endif
    runAutostartApplication(table);
    // The chosen entry lives in a table freed right after this hand-over;
    // the running application keeps its own copy.
    autostart_app = nullptr;
    if (locked) unlockAitGuard();
}

bool is_valid_type(const char* type) {
    if (type == nullptr) return false;
    for (const char* valid : xml_ait_valid_application_types)
        if (std::strcmp(type, valid) == 0) return true;
    return false;
}

void copy_text(char* dst, std::size_t size, const char* src) {
    if (dst != nullptr && size > 0) std::snprintf(dst, size, "%s", src != nullptr ? src : "");
}

// Copies the valid applications of `table` into `filtered` (allocated for
// exactly that many), in document order. Texts go into the buffers
// allocate_ait_table made, each within its size.
void copy_valid_applications(const AitTable* table, AitTable* filtered) {
    int j = 0;
    for (int i = 0; i < table->app_lenght && j < filtered->app_lenght; ++i) {
        const Application& src = table->apps[i];
        if (!is_valid_type(src.app_type)) continue;
        Application& dst = filtered->apps[j++];
        appmgr::records::copy_application_numbers(src, dst);
        copy_text(dst.app_name, kUrlLength, src.app_name);
        copy_text(dst.app_boundary, kUrlLength, src.app_boundary);
        copy_text(dst.app_type, 128, src.app_type);
        if (dst.transport_protocol != nullptr && src.transport_protocol != nullptr) {
            char* url = dst.transport_protocol->url;
            *dst.transport_protocol = *src.transport_protocol;
            dst.transport_protocol->url = url;
            copy_text(url, kUrlLength, src.transport_protocol->url);
        }
    }
}

}  // namespace

extern "C" {

size_t HTTPProbingDataProbeHttp(char* ptr, size_t size, size_t nmemb, void* data) {
    AM_INFO("size = %d,nmemb =%d\n\n", static_cast<int>(size), static_cast<int>(nmemb));
    if (ptr == nullptr) {
        AM_ERROR("\nprt is NULL\n\n");
        return 0;
    }
    const size_t n = size * nmemb;
    for (const char* phrase : kNotFoundPhrases) {
        if (contains(ptr, n, phrase)) {
            if (data != nullptr) *static_cast<long*>(data) = 404;
            break;
        }
    }
    return n;
}

size_t HTTPProbingDataXmlAit(char* ptr, size_t size, size_t nmemb, void* data) {
    auto* page = static_cast<PageInfo*>(data);
    AM_INFO("page_xml_ait.len:%d,size = %d,nmemb =%d\n\n", page != nullptr ? page->len : -1,
            static_cast<int>(size), static_cast<int>(nmemb));
    return append_chunk(page, ptr, size * nmemb);
}

size_t HTTPProbingDataAitUpdate(char* ptr, size_t size, size_t nmemb, void* data) {
    AM_INFO("size = %d,nmemb =%d\n\n", static_cast<int>(size), static_cast<int>(nmemb));
    return append_chunk(static_cast<PageInfo*>(data), ptr, size * nmemb);
}

int probe_http_app(char* http_app_url) {
    if (network_status == NETWORK_OFF) return 0;
    if (http_app_url == nullptr) {
        AM_ERROR("Invalid arguments !\n");
        return 0;
    }
    AM_INFO("CALLED probe_http_app WAITING...: %s\n", http_app_url);
    char* user_agent = getAMUserAgent();
    long page_error = 0;
    CurlHandle handle;
    CURL* curl = handle.curl;
    if (curl == nullptr) {
        AM_ERROR("curl_easy_init call failed !\n");
        return 0;
    }
    const std::string ca_bundle = seams::ca_bundle_path();
    CURLcode rc = CURLE_OK;
    auto set = [&](CURLcode result) {
        if (rc == CURLE_OK) rc = result;
        return rc == CURLE_OK;
    };
    bool ok = set(curl_easy_setopt(curl, CURLOPT_URL, http_app_url)) &&
              set(curl_easy_setopt(curl, CURLOPT_USERAGENT, user_agent)) &&
              set(curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L)) &&
              set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                                   seams::http_connect_timeout(kProbeConnectTimeout)));
    if (ok) AM_INFO("set probe_http_app timeout is 30S in [%s]\n", http_app_url);
    ok = ok &&
         set(curl_easy_setopt(curl, CURLOPT_TIMEOUT, seams::http_total_timeout(kProbeTimeout))) &&
         set(curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &HTTPProbingDataProbeHttp)) &&
         set(curl_easy_setopt(curl, CURLOPT_HEADERDATA, &page_error)) &&
         set(curl_easy_setopt(curl, CURLOPT_NOBODY, 1L)) &&
         set(curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str())) &&
         set(curl_easy_setopt(curl, CURLOPT_CAPATH, ca_bundle.c_str())) &&
         set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));
    if (!ok) {
        AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
        return 0;
    }
    const CURLcode res = curl_easy_perform(curl);
    if (res != CURLE_OK) {
        AM_ERROR("curl_easy_perform---ERROR---curl_res = %d!\n", static_cast<int>(res));
        return 0;
    }
    if (page_error == 0) {
        AM_INFO("Application probed successully\n");
        return 1;
    }
    AM_ERROR("page_error = %d\n\n", static_cast<int>(page_error));
    return 0;
}

int parse_xml_ait(char* ait_url) {
    if (ait_url == nullptr) {
        AM_ERROR("parse_xml_ait: no URL\n");
        return 0;
    }
    auto page_xml_ait = std::make_unique<PageInfo>();
    {
        CurlHandle handle;
        CURL* curl = handle.curl;
        if (curl == nullptr) {
            AM_ERROR("Cannot create curl handle \n\n");
            return 0;
        }
        const std::string ca_bundle = seams::ca_bundle_path();
        const std::string client_cert = seams::client_cert_path();
        const std::string client_key = seams::client_key_path();
        CURLcode rc = curl_easy_setopt(curl, CURLOPT_URL, ait_url);
        if (rc == CURLE_OK) rc = curl_easy_setopt(curl, CURLOPT_USERAGENT, getAMUserAgent());
        if (rc != CURLE_OK) {
            AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
            return 0;
        }
        rc = curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        if (rc != CURLE_OK) {
            AM_ERROR("curl_easy_setopt CURLOPT_FOLLOWLOCATION failed with code: %d\n",
                     static_cast<int>(rc));
            return 0;
        }
        auto set = [&](CURLcode result) {
            if (rc == CURLE_OK) rc = result;
            return rc == CURLE_OK;
        };
        const bool ok =
            set(curl_easy_setopt(curl, CURLOPT_SSLCERTTYPE, "PEM")) &&
            set(curl_easy_setopt(curl, CURLOPT_SSLCERT, client_cert.c_str())) &&
            set(curl_easy_setopt(curl, CURLOPT_SSLKEYTYPE, "PEM")) &&
            set(curl_easy_setopt(curl, CURLOPT_SSLKEY, client_key.c_str())) &&
            set(curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str())) &&
            set(curl_easy_setopt(curl, CURLOPT_CAPATH, ca_bundle.c_str())) &&
            set(curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HTTPProbingDataXmlAit)) &&
            set(curl_easy_setopt(curl, CURLOPT_WRITEDATA, page_xml_ait.get())) &&
            set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                                 seams::http_connect_timeout(kXmlAitConnectTimeout))) &&
            set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));
        if (!ok) {
            AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
            return 0;
        }
        // No overall time limit: only the connect limit bounds this transfer
        // (the download itself is bounded to APPMGR_PAGE_SIZE - 1 bytes).
        const CURLcode res = curl_easy_perform(curl);
        if (res != CURLE_OK) {
            AM_ERROR("Sending soup message failed :%d\n\n", static_cast<int>(res));
            return 0;
        }
    }
    AM_INFO("parse_xml_ait downloaded %d bytes from %s\n", page_xml_ait->len, ait_url);
    return appmgr::xml::start_downloaded_xml_ait(page_xml_ait->data, page_xml_ait->len, ait_url);
}

int xmlAitUpdate(char* ait_url) {
    if (ait_url == nullptr) {
        AM_ERROR("xmlAitUpdate: no URL\n");
        return 0;
    }
    char* user_agent = getAMUserAgent();
    auto page_ait_update = std::make_unique<PageInfo>();
    PageInfo& page = *page_ait_update;
    {
        CurlHandle handle;
        CURL* curl = handle.curl;
        if (curl == nullptr) {
            AM_ERROR("Cannot create curl handle \n\n");
            return 0;
        }
        AM_INFO("xmlAitUpdate ait_url = %s,UA:[%s]\n\n", ait_url,
                user_agent != nullptr ? user_agent : "");
        const std::string ca_bundle = seams::ca_bundle_path();
        // Option results are not checked: a refused option shows up as a
        // failed transfer.
        curl_easy_setopt(curl, CURLOPT_URL, ait_url);
        curl_easy_setopt(curl, CURLOPT_USERAGENT, user_agent);
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str());
        curl_easy_setopt(curl, CURLOPT_CAPATH, ca_bundle.c_str());
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HTTPProbingDataAitUpdate);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &page);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                         seams::http_connect_timeout(kUpdateConnectTimeout));
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, seams::http_total_timeout(kUpdateTimeout));
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        const CURLcode res = curl_easy_perform(curl);
        AM_INFO("xmlAitUpdate res = %d\n\n", static_cast<int>(res));
        if (res != CURLE_OK) return 0;
    }
    // A document must begin with the XML declaration itself: no byte-order
    // mark, no blank before it. Five bytes or fewer are no document at all.
    if (page.len <= 5) {
        AM_ERROR("XML not parsed successfully \n\n");
        return 0;
    }
    if (std::memcmp(page.data, "<?xml", 5) != 0) {
        const auto* b = reinterpret_cast<const unsigned char*>(page.data);
        AM_ERROR(" error-->this url is not xml file,data:[%x-%x-%x-%x-%x]\n\n", b[0], b[1], b[2],
                 b[3], b[4]);
        return 0;
    }
    AM_INFO("ait update down ok\n");

    AitTable* table = nullptr;
    int num = 0;
    char triplet[kTripletLength] = "";
    Channel* channel = nullptr;
    {
        appmgr::xml::ParsedDocument doc(page.data, page.len, appmgr::xml::kUpdateDocumentUrl);
        if (!doc.ok()) {
            AM_ERROR("XML not parsed successfully \n\n");
            return 0;
        }
        num = find_number_of_applications(doc.root());
        if (num > kMaxApplications) {
            AM_WARN("%d applications in the XML AIT, the first %d are read\n", num,
                    kMaxApplications);
            num = kMaxApplications;
        }
        table = allocate_ait_table(num, kUrlLength);
        if (table == nullptr) {
            AM_ERROR("out of memory for the XML AIT table\n");
            return 0;
        }
        int counter = 0;
        find_elements_ait_table(doc.root(), table, &counter);
    }
    // The service the table is attached to, as "dvb://onid.tsid.sid" in
    // lower-case hexadecimal; empty without a current service.
    channel = hbbGetCurrentChannel();
    if (channel != nullptr)
        std::snprintf(triplet, sizeof(triplet), "dvb://%x.%x.%x",
                      static_cast<unsigned>(channel->onid), static_cast<unsigned>(channel->tsid),
                      static_cast<unsigned>(channel->sid));
    AM_INFO("XML AIT TRIPLET: %s \n\n", triplet);
    AM_INFO("XML parsed successfully \n\n");
    if (num < 1) {
        AM_INFO("we are not get any ait info form this XML file\n\n");
        free_ait_table(&table);
        channel_destroy(channel);
        return 0;
    }

    int valid = 0;
    for (int i = 0; i < table->app_lenght; ++i)
        if (is_valid_type(table->apps[i].app_type)) ++valid;

    if (valid == num) {
        copy_text(table->dvb_url, sizeof(table->dvb_url), triplet);
        AM_INFO("XML parsed successfully 2\n\n");
        hand_over(table);
        free_ait_table(&table);
    } else {
        // A table that mixes in other application types is handed on as it
        // was read, without the service locator; the copy holding only the
        // valid applications is built and logged, and not used further.
        AitTable* filtered = allocate_ait_table(valid, kUrlLength);
        if (filtered != nullptr) {
            copy_valid_applications(table, filtered);
            filtered->app_type = HBBTV_APPLICATION_TYPE;
            AM_INFO("XML parsed successfully 1\n\n");
            copy_text(filtered->dvb_url, sizeof(filtered->dvb_url), triplet);
            filtered->CRC_count = 0;
            filtered->CRC = nullptr;
            hand_over(table);
            free_ait_table(&filtered);
        } else {
            AM_ERROR("out of memory for the filtered XML AIT table\n");
        }
        free_ait_table(&table);
    }
    channel_destroy(channel);
    AM_INFO("XML parsed successfully and update ait success\n\n");
    return 1;
}

APPMGR_API void Hbbtv_PrintfCURLTime(void* curl) {
    if (curl == nullptr) return;
    double total = 0, name_lookup = 0, connect = 0, pretransfer = 0, start_transfer = 0;
    curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME, &total);
    curl_easy_getinfo(curl, CURLINFO_NAMELOOKUP_TIME, &name_lookup);
    curl_easy_getinfo(curl, CURLINFO_CONNECT_TIME, &connect);
    curl_easy_getinfo(curl, CURLINFO_PRETRANSFER_TIME, &pretransfer);
    curl_easy_getinfo(curl, CURLINFO_STARTTRANSFER_TIME, &start_transfer);
    // Sizes and speeds come as whole numbers (the double forms of these
    // figures are deprecated in libcurl) and are printed as doubles.
    curl_off_t upload_size = 0, download_size = 0, download_speed = 0, upload_speed = 0;
    curl_easy_getinfo(curl, CURLINFO_SIZE_UPLOAD_T, &upload_size);
    curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &download_size);
    curl_easy_getinfo(curl, CURLINFO_SPEED_DOWNLOAD_T, &download_speed);
    curl_easy_getinfo(curl, CURLINFO_SPEED_UPLOAD_T, &upload_speed);
    std::printf("\n***hbbtv->func = %s, line = %d****\n", __func__, __LINE__);
    std::printf(
        "TotalTime:[%f]s | NameLookUpTime:[%f]s | ConnectTime:[%f]s | PretransferTime:[%f]s | "
        "StartTransferTime:[%f]s\n",
        total, name_lookup, connect, pretransfer, start_transfer);
    std::printf(
        "UpLoadSize:[%f]B | DownLoadSize:[%f]B | DownLoadSpeed:[%f]B/s | UpLoadSpeed:[%f]B/s\n",
        static_cast<double>(upload_size), static_cast<double>(download_size),
        static_cast<double>(download_speed), static_cast<double>(upload_speed));
    std::printf("\n***hbbtv->func = %s, line = %d**** end\n", __func__, __LINE__);
    std::printf("\n");
    std::fflush(stdout);
}

}  // extern "C"
