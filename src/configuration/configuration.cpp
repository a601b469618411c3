// The local-system configuration object served from the middleware.
#include "configuration/configuration.h"

#include <cstdlib>

#include "hbb_platform.h"

extern "C" {

APPMGR_API Configuration* configuration_get(void) { return hbbGetConfiguration(); }

// DeviceId is not freed: the middleware keeps that text.
APPMGR_API void configuration_destroy(Configuration* configuration) {
    if (configuration == nullptr) return;
    std::free(configuration->countryID);
    std::free(configuration->preferredAudioLanguage);
    std::free(configuration->preferredSubtitleLanguage);
    std::free(configuration->preferredUILanguage);
    std::free(configuration);
}

}  // extern "C"
