// The reader of XML stream-event descriptions:
//
//   <dsmcc xmlns="urn:dvb:mis:dsmcc:2009">
//     <dsmcc_object component_tag="19">
//       <stream_event stream_event_id="1" stream_event_name="testevent"/>
//     </dsmcc_object>
//   </dsmcc>
//
// Attributes are taken by position: the first is the value, the second the
// event's name, whatever they are called.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/log.h"
#include "xml/xml.h"

namespace appmgr::xml {
namespace {

// atoi of an attribute's text; 0 for an attribute without text.
int attribute_number(xmlAttr* attribute) {
    xmlChar* text = xmlNodeGetContent(reinterpret_cast<xmlNode*>(attribute));
    const int value = text != nullptr ? std::atoi(reinterpret_cast<const char*>(text)) : 0;
    xmlFree(text);
    return value;
}

bool attribute_equals(xmlAttr* attribute, const char* expected) {
    xmlChar* text = xmlNodeGetContent(reinterpret_cast<xmlNode*>(attribute));
    const bool equal = text != nullptr && std::strcmp(reinterpret_cast<const char*>(text), expected) == 0;
    xmlFree(text);
    return equal;
}

bool named(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && node->name != nullptr &&
           std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

}  // namespace

bool read_stream_event_description(const char* data, int len, const char* name, int* event_id,
                                   int* c_tag) {
    ParsedDocument doc(data, len, kUpdateDocumentUrl);
    if (!doc.ok()) {
        AM_ERROR("stream event description is not XML\n");
        return false;
    }
    // Depth first in document order, with an explicit stack: the depth of a
    // downloaded document is not ours to choose.
    std::vector<xmlNode*> pending{doc.root()};
    while (!pending.empty()) {
        xmlNode* node = pending.back();
        pending.pop_back();
        if (node == nullptr) continue;
        if (node->next != nullptr) pending.push_back(node->next);
        if (node->children != nullptr) pending.push_back(node->children);
        if (named(node, "dsmcc_object") && node->properties != nullptr) {
            *c_tag = attribute_number(node->properties);
        } else if (named(node, "stream_event") && node->properties != nullptr &&
                   node->properties->next != nullptr && name != nullptr &&
                   attribute_equals(node->properties->next, name)) {
            *event_id = attribute_number(node->properties);
        }
    }
    return true;
}

}  // namespace appmgr::xml
