// Capabilities objects served from the middleware. Each function is one
// call of the porting layer (C functions that cannot throw) or a free.
#include "capabilities/capabilities.h"

#include <cstdlib>

#include "hbb_platform.h"

extern "C" {

APPMGR_API int capabilities_has_capability(const char* profileName) {
    return hbbHasCapability(profileName);
}

APPMGR_API VideoDecodes* capabilities_get_decodes(void) { return hbbGetVideoDecodes(); }

APPMGR_API void capabilities_decodes_destroy(VideoDecodes* decodes) { std::free(decodes); }

APPMGR_API char* capabilities_get_xml_capabilities(void) { return hbbGetXmlCapabilities(); }

}  // extern "C"
