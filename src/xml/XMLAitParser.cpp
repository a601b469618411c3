// XML AITs: documents given as text and documents fetched from a location.
#include "common/log.h"
#include "core/core_internal.h"

extern "C" {

// Placeholders until the XML AIT reader lands: nothing is parsed.
int ParseXmlAitFile(char* text, int length) {
    (void)text;
    AM_WARN("ParseXmlAitFile(%d bytes): XML AIT parsing is not available yet", length);
    return 0;
}

int parse_xml_ait(char* url) {
    AM_WARN("parse_xml_ait(%s): XML AIT download is not available yet",
            url != nullptr ? url : "(null)");
    return 0;
}

}  // extern "C"
