// HTTP transfers of the broadband path, each a blocking single-shot libcurl
// easy transfer on the caller's thread: the HEAD probe of an application's
// entry URL, the download of a single-application XML AIT (HTTPS with a
// client certificate), the download of a list XML AIT, the download of a
// stream-event description, and a timing dump for diagnostics.
//
// Every transfer has its own download buffer and its own 404 marker, so
// transfers on different threads do not touch each other's data.
//
// Besides its connect time-out, every transfer is bounded as a whole
// (kTransferSeconds) and follows at most kMaxRedirects redirects: a server
// that stalls, drips a byte at a time or redirects in a circle cannot hold
// the caller (which may be the middleware's thread) for longer. Whatever
// those limits, a transfer ends within about a second once nobody is left
// to take its result (the browser connection it serves is gone, or the
// library closes; common/interruption.h): libcurl asks the progress
// callback at least once a second, also while nothing arrives.
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "app_mgr_broadband.h"
#include "common/interruption.h"
#include "common/log.h"
#include "common/seams.h"
#include "state/state.h"
#include "xml/xml.h"

namespace {

namespace seams = appmgr::seams;
using appmgr::xml::kMaxRedirects;
using appmgr::xml::kTransferSeconds;

constexpr long kProbeConnectTimeout = 20;
constexpr long kProbeTimeout = 30;
constexpr long kXmlAitConnectTimeout = 10;
constexpr long kUpdateConnectTimeout = 20;
constexpr long kUpdateTimeout = 30;

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


// Sets the options every transfer shares, after its own: the overall limit
// and the redirect limit. False when libcurl refuses one.
bool set_limits(CURL* curl, long total_seconds) {
    return curl_easy_setopt(curl, CURLOPT_TIMEOUT, seams::http_total_timeout(total_seconds)) ==
               CURLE_OK &&
           curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects) == CURLE_OK;
}

int stop_when_interrupted(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return appmgr::interruption::requested() ? 1 : 0;
}

// Runs a transfer whose options are set, with the progress callback that
// ends it when its result has nobody left to take it.
CURLcode perform(CURL* curl) {
    if (seams::transfers_offline()) {
        AM_ERROR("transfer refused: transfers are switched off\n");
        return CURLE_COULDNT_CONNECT;
    }
    if (curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &stop_when_interrupted) != CURLE_OK ||
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L) != CURLE_OK)
        return CURLE_FAILED_INIT;
    const CURLcode res = appmgr::interruption::requested() ? CURLE_ABORTED_BY_CALLBACK
                                                           : curl_easy_perform(curl);
    if (res == CURLE_ABORTED_BY_CALLBACK)
        AM_WARN("transfer ended: the browser connection it serves is gone or the library is "
                "closing\n");
    return res;
}

std::string user_agent() {
    bool stored = false;
    return appmgr::state::user_agent(&stored);
}

}  // namespace

namespace appmgr::xml {

bool head_probe(const char* url) {
    AM_INFO("CALLED probe_http_app WAITING...: %s\n", url);
    const std::string ua = user_agent();
    long page_error = 0;
    CurlHandle handle;
    CURL* curl = handle.curl;
    if (curl == nullptr) {
        AM_ERROR("curl_easy_init call failed !\n");
        return false;
    }
    const std::string ca_bundle = seams::ca_bundle_path();
    CURLcode rc = CURLE_OK;
    auto set = [&](CURLcode result) {
        if (rc == CURLE_OK) rc = result;
        return rc == CURLE_OK;
    };
    bool ok = set(curl_easy_setopt(curl, CURLOPT_URL, url)) &&
              set(curl_easy_setopt(curl, CURLOPT_USERAGENT, ua.empty() ? nullptr : ua.c_str())) &&
              set(curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L)) &&
              set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                                   seams::http_connect_timeout(kProbeConnectTimeout)));
    if (ok) AM_INFO("set probe_http_app timeout is 30S in [%s]\n", url);
    ok = ok && set_limits(curl, kProbeTimeout) &&
         set(curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &HTTPProbingDataProbeHttp)) &&
         set(curl_easy_setopt(curl, CURLOPT_HEADERDATA, &page_error)) &&
         set(curl_easy_setopt(curl, CURLOPT_NOBODY, 1L)) &&
         set(curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str())) &&
         set(curl_easy_setopt(curl, CURLOPT_CAPATH, ca_bundle.c_str())) &&
         set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L));
    if (!ok) {
        AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
        return false;
    }
    const CURLcode res = perform(curl);
    if (res != CURLE_OK) {
        AM_ERROR("curl_easy_perform---ERROR---curl_res = %d!\n", static_cast<int>(res));
        return false;
    }
    if (page_error == 0) {
        AM_INFO("Application probed successully\n");
        return true;
    }
    AM_ERROR("page_error = %d\n\n", static_cast<int>(page_error));
    return false;
}

bool fetch_xml_ait(const char* url, PageInfo* page) {
    CurlHandle handle;
    CURL* curl = handle.curl;
    if (curl == nullptr) {
        AM_ERROR("Cannot create curl handle \n\n");
        return false;
    }
    const std::string ua = user_agent();
    const std::string ca_bundle = seams::ca_bundle_path();
    const std::string client_cert = seams::client_cert_path();
    const std::string client_key = seams::client_key_path();
    CURLcode rc = curl_easy_setopt(curl, CURLOPT_URL, url);
    if (rc == CURLE_OK)
        rc = curl_easy_setopt(curl, CURLOPT_USERAGENT, ua.empty() ? nullptr : ua.c_str());
    if (rc != CURLE_OK) {
        AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
        return false;
    }
    rc = curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    if (rc != CURLE_OK) {
        AM_ERROR("curl_easy_setopt CURLOPT_FOLLOWLOCATION failed with code: %d\n",
                 static_cast<int>(rc));
        return false;
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
        set(curl_easy_setopt(curl, CURLOPT_WRITEDATA, page)) &&
        set(curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                             seams::http_connect_timeout(kXmlAitConnectTimeout))) &&
        set(curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L)) && set_limits(curl, kTransferSeconds);
    if (!ok) {
        AM_ERROR("curl_easy_setopt failed with code: %d\n", static_cast<int>(rc));
        return false;
    }
    const CURLcode res = perform(curl);
    if (res != CURLE_OK) {
        AM_ERROR("Sending soup message failed :%d\n\n", static_cast<int>(res));
        return false;
    }
    AM_INFO("parse_xml_ait downloaded %d bytes from %s\n", page->len, url);
    return true;
}

bool fetch_ait_update(const char* url, PageInfo* page) {
    const std::string ua = user_agent();
    CurlHandle handle;
    CURL* curl = handle.curl;
    if (curl == nullptr) {
        AM_ERROR("Cannot create curl handle \n\n");
        return false;
    }
    AM_INFO("xmlAitUpdate ait_url = %s,UA:[%s]\n\n", url, ua.c_str());
    const std::string ca_bundle = seams::ca_bundle_path();
    // Option results are not checked: a refused option shows up as a
    // failed transfer.
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, ua.empty() ? nullptr : ua.c_str());
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca_bundle.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, ca_bundle.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HTTPProbingDataAitUpdate);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, page);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
                     seams::http_connect_timeout(kUpdateConnectTimeout));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    set_limits(curl, kUpdateTimeout);
    const CURLcode res = perform(curl);
    AM_INFO("xmlAitUpdate res = %d\n\n", static_cast<int>(res));
    return res == CURLE_OK;
}

bool fetch_document(const char* url, long connect_seconds, PageInfo* page) {
    CurlHandle handle;
    CURL* curl = handle.curl;
    if (curl == nullptr) {
        AM_ERROR("Cannot create curl handle \n\n");
        return false;
    }
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HTTPProbingDataAitUpdate);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, page);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, seams::http_connect_timeout(connect_seconds));
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    set_limits(curl, kTransferSeconds);
    const CURLcode res = perform(curl);
    if (res != CURLE_OK) AM_ERROR("download of %s failed: %d\n", url, static_cast<int>(res));
    return res == CURLE_OK;
}

}  // namespace appmgr::xml

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
