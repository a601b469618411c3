// Broadband AITs inside the library: the XML AIT reader and the HTTP
// transfers that fetch XML AITs and probe broadband applications. None of
// these names leaves the shared object; the one exported diagnostic is
// declared in app_mgr_broadband.h.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <mutex>

#include "app_mgr_types.h"

// Largest download a transfer keeps, including the terminating NUL: a
// document may hold at most kPageSize - 1 bytes.
#define APPMGR_PAGE_SIZE 8192

extern "C" {

// Download buffer of one transfer.
typedef struct PageInfo {
    char data[APPMGR_PAGE_SIZE];  // received bytes, always NUL-terminated
    int len;                      // bytes in data
    int flag;                     // unused
} PageInfo;

// ---- code tables ----------------------------------------------------------
// 0 when recognised (the out value set), 1 otherwise (left untouched).
int getControlCode(const char* value, ControlCode* code);
int getVisibility(const char* value, int* visibility);
// 1 for exactly "true", else 0.
int getIsServiceBound(const char* value);
// 1 for a text beginning with "http://", 3 for anything else.
int getProtocolID(const char* value);

// ---- tree readers ---------------------------------------------------------
// Single-application reader: every known field of the tree goes to `app`
// (made by allocate_application with a 1024-byte URL).
void find_elements(xmlNode* node, Application* app);
// Table reader: `*counter` counts the "Application" elements seen; fields go
// to the record numbered *counter - 1 of `table` (made by allocate_ait_table).
void find_elements_ait_table(xmlNode* node, AitTable* table, int* counter);
// Number of "Application" elements anywhere under `node`.
int find_number_of_applications(xmlNode* node);

// URL of the best HbbTV application of an XML AIT text. `pXMLAitUrl` must
// hold 1024 bytes (the longest URL the reader keeps, with its NUL).
// 1 when a URL was chosen, 0 otherwise (*nXMLAitUrlLen is then 0).
int getUrlFromXMLAitFile(char* pXMLAitFile, int nXMLAitFileLen, char* pXMLAitUrl,
                         int* nXMLAitUrlLen);

// ---- transfers --------------------------------------------------------------
// HEAD request: 1 reachable, 0 not reachable or not tried (network off).
int probe_http_app(char* http_app_url);
// Fetches a list XML AIT and hands its table to the autostart run: 1 handed
// on, 0 otherwise.
int xmlAitUpdate(char* ait_url);

// libcurl callbacks. The header callback's user data is a long that becomes
// 404 when a header line carries the 404 reason phrase; the write callbacks'
// user data is the transfer's PageInfo.
size_t HTTPProbingDataProbeHttp(char* ptr, size_t size, size_t nmemb, void* data);
size_t HTTPProbingDataXmlAit(char* ptr, size_t size, size_t nmemb, void* data);
size_t HTTPProbingDataAitUpdate(char* ptr, size_t size, size_t nmemb, void* data);

}  // extern "C"

namespace appmgr::xml {

// Size of the URL, boundary and name buffers of the records the reader makes;
// longer texts are cut (URLs) or left out (boundary origins).
constexpr unsigned kUrlLength = 1024;
// Applications read from one document; further ones are ignored.
constexpr int kMaxApplications = 256;

// Document URLs given to libxml2 for XML AIT texts and for downloaded list
// AITs. They are names only: nothing is read from or written to them.
constexpr const char* kXmlAitDocumentUrl = "/tmp/xmlait.xml";
constexpr const char* kUpdateDocumentUrl = "/tmp/sevent.xml";

// Serialises every use of libxml2 in the library. Each parse ends with
// xmlCleanupParser, which tears libxml2's global state down, so no other
// parse may be running meanwhile; any other module that parses XML holds
// this lock from its parse to its cleanup.
std::mutex& parser_mutex();

// One parsed document, read from memory with network access and DTD loading
// off. Holds parser_mutex() for its lifetime; releases the document and
// libxml2's parser state on destruction (or release()).
class ParsedDocument {
public:
    ParsedDocument(const char* data, int len, const char* document_url);
    ~ParsedDocument();
    ParsedDocument(const ParsedDocument&) = delete;
    ParsedDocument& operator=(const ParsedDocument&) = delete;

    bool ok() const { return doc_ != nullptr; }
    xmlNode* root() const;
    // Frees the document and the parser state now and drops the lock.
    void release();

private:
    std::unique_lock<std::mutex> lock_;
    xmlDoc* doc_ = nullptr;
};

// The reading of a downloaded single-application XML AIT: fills one
// Application and, when its ids are set and the rating and version checks
// pass, starts it. `source_url` is reported to the load-error handling.
// 1 started, 0 otherwise.
// Parses a document holding one application and reads it (null when none).
Application* read_application_document(const char* data, int len);
int start_downloaded_xml_ait(const char* data, int len, char* source_url);

}  // namespace appmgr::xml
