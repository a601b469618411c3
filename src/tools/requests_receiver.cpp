// Requests about the receiver on "dtvPlugins": parental rating,
// configuration, free memory and capabilities. Each forwards to the
// middleware; none touches manager state.
#include <string>

#include "capabilities/capabilities.h"
#include "common/log.h"
#include "configuration/configuration.h"
#include "core/core.h"
#include "parental_rating/parental_rating.h"
#include "tools/request_records.h"
#include "tools/requests.h"

namespace appmgr::msg {
namespace {

void release_rating_schemes(Request& request) {
    parental_rating_release_schemes();
    request.ack();
}

// Field: the rating scheme's name.
void get_rating_threshold(Request& request) {
    std::string scheme;
    RatingPtr rating;
    if (take_text(request, kMaxNameLength, "rating scheme name", &scheme))
        rating.reset(parental_rating_get_threshold(scheme.c_str()));
    if (rating == nullptr) {
        request.not_available("Information about active parental rating threshold not available!");
        return;
    }
    protocol::Fields fields;
    add_rating(fields, *rating);
    request.reply(fields);
}

void get_configuration(Request& request) {
    ConfigurationPtr configuration(configuration_get());
    if (configuration == nullptr) {
        request.not_available("Information about configuration not available!");
        return;
    }
    protocol::Fields fields;
    add_configuration(fields, *configuration);
    request.reply(fields);
}

void get_free_memory(Request& request) { request.reply_int(get_free_mem()); }

// Field: the capability's name. A name too long to be one has not got it.
void has_capability(Request& request) {
    std::string name;
    request.reply_int(take_text(request, kMaxNameLength, "capability name", &name)
                          ? capabilities_has_capability(name.c_str())
                          : 0);
}

void get_decodes(Request& request) {
    DecodesPtr decodes(capabilities_get_decodes());
    if (decodes == nullptr) {
        request.not_available("Information about decodes not available");
        return;
    }
    request.reply(protocol::Fields().add(decodes->extraSDVideoDecodes).add(decodes->extraHDVideoDecodes));
}

void get_xml_capabilities(Request& request) {
    AM_INFO("Command CMD_GET_XML_CAPABILITIES received");
    const char* document = capabilities_get_xml_capabilities();
    if (document == nullptr) {
        request.not_available("Information about capabilities not available!");
        return;
    }
    request.reply(protocol::Fields().add(document));
}

constexpr RequestRow kRows[] = {
    {9, "release parental rating schemes", Lock::None, release_rating_schemes},
    {41, "get parental rating threshold", Lock::None, get_rating_threshold},
    {42, "get configuration", Lock::None, get_configuration},
    {44, "get free memory", Lock::None, get_free_memory},
    {70, "has capability", Lock::None, has_capability},
    {71, "get decodes", Lock::None, get_decodes},
    {72, "CMD_GET_XML_CAPABILITIES", Lock::None, get_xml_capabilities},
};

}  // namespace

const RequestTable kReceiverRequests{kRows};

}  // namespace appmgr::msg
