// Broadband AITs: the HTTP transfers that fetch XML documents and probe
// broadband applications, and the XML readers that turn documents into the
// library's records. Nothing here starts an application: the application
// core decides what to do with what this folder fetches and reads.
//
// Transfer limits (every transfer): the connect time-out of its kind, an
// overall time limit (kTransferSeconds) and at most kMaxRedirects
// redirects; a download keeps at most APPMGR_PAGE_SIZE - 1 bytes.
//
// libxml2 is initialised once (xmlInitParser) and never cleaned up: the
// middleware may use libxml2 on its own threads in the same process.
#pragma once

#include <libxml/tree.h>

#include <cstddef>

#include "app_mgr_types.h"
#include "structs/records.h"

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

constexpr long kTransferSeconds = 30;
constexpr long kMaxRedirects = 10;

// Document URLs given to libxml2 for XML AIT texts and for downloaded list
// AITs. They are names only: nothing is read from or written to them.
constexpr const char* kXmlAitDocumentUrl = "/tmp/xmlait.xml";
constexpr const char* kUpdateDocumentUrl = "/tmp/sevent.xml";

// One parsed document, read from memory with network access and DTD loading
// off; released on destruction.
class ParsedDocument {
public:
    ParsedDocument(const char* data, int len, const char* document_url);
    ~ParsedDocument();
    ParsedDocument(const ParsedDocument&) = delete;
    ParsedDocument& operator=(const ParsedDocument&) = delete;

    bool ok() const { return doc_ != nullptr; }
    xmlNode* root() const;

private:
    xmlDoc* doc_ = nullptr;
};

// The one application of a document (null when the text is not XML).
records::ApplicationPtr read_application_document(const char* data, int len);
// Every application of a document as a table (at most kMaxApplications;
// null when the text is not XML or out of memory). *in_document receives
// the number of applications the document holds.
records::AitTablePtr read_ait_document(const char* data, int len, const char* document_url,
                                       int* in_document);
// Logs the fields of an application read from a document.
void log_application(const Application& app);

// Reads an XML stream-event description: *c_tag receives the value of the
// first attribute of a "dsmcc_object" element, *event_id the value of the
// first attribute of the "stream_event" element whose second attribute is
// `name` (both read with atoi; attributes are taken by position, not by
// name). Elements are visited depth first in document order, so a later
// match overwrites an earlier one. An output whose element is missing, and
// both outputs of a text that is not XML, stay as they were. False when the
// text is not XML.
bool read_stream_event_description(const char* data, int len, const char* name, int* event_id,
                                   int* c_tag);

// ---- transfers (blocking, on the caller's thread) ---------------------------

// HEAD request with the stored User-Agent: true when the server answers and
// no header line carries a 404 reason phrase.
bool head_probe(const char* url);
// Download of a single-application XML AIT (HTTPS with the client
// certificate). True when a body was received.
bool fetch_xml_ait(const char* url, PageInfo* page);
// Download of a list XML AIT. True when the transfer succeeded.
bool fetch_ait_update(const char* url, PageInfo* page);
// Plain download (stream-event descriptions) with the given connect
// time-out. True when the transfer succeeded.
bool fetch_document(const char* url, long connect_seconds, PageInfo* page);

}  // namespace appmgr::xml
