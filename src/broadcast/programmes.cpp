// Programmes of the current service and the programme notifications. The
// forwarders are one porting call each; the records are freed here.
#include <cstdlib>

#include "broadcast/broadcast.h"
#include "common/c_api.h"
#include "common/log.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

using appmgr::protocol::Command;

extern "C" {

APPMGR_API ProgrammeCollection* programme_get_list(void) { return hbbGetProgrammeList(); }

APPMGR_API Programme* broadcast_get_programme_item(int index) { return hbbGetProgrammeItem(index); }

APPMGR_API int programme_get_si_descriptors_length(const char* cc_id, const char* event_id,
                                                   int descriptor_tag,
                                                   int descriptor_tag_extension,
                                                   int private_data_specifier) {
    return hbbGetSIDescriptorsLength(cc_id, event_id, descriptor_tag, descriptor_tag_extension,
                                     private_data_specifier);
}

APPMGR_API char* programme_get_si_descriptors_item(const char* cc_id, const char* event_id,
                                                   int descriptor_tag,
                                                   int descriptor_tag_extension, int position) {
    return hbbGetSIDescriptorsItem(cc_id, event_id, descriptor_tag, descriptor_tag_extension,
                                   position);
}

APPMGR_API char* programme_get_long_description(const char* cc_id, const char* event_id) {
    return hbbGetProgrammeLongDescription(cc_id, event_id);
}

// The middleware owns its programme lists.
APPMGR_API void broadcast_free_programmes_list(void) {}

APPMGR_API ProgrammeCollection* programme_collection_create(void) {
    auto* collection =
        static_cast<ProgrammeCollection*>(std::calloc(1, sizeof(ProgrammeCollection)));
    if (collection == nullptr) AM_ERROR("Creating programme collection failed");
    return collection;
}

APPMGR_API void programme_collection_destroy(ProgrammeCollection* collection) {
    std::free(collection);
}

// longDescription is the middleware's and stays.
APPMGR_API void programme_destroy(Programme* p) {
    if (p == nullptr) return;
    std::free(p->name);
    std::free(p->description);
    std::free(p->channelID);
    std::free(p->programmeID);
    parental_rating_destroy(p->parentalRatings);
    std::free(p);
}

APPMGR_API void short_programme_destroy(ShortProgramme* p) {
    if (p == nullptr) return;
    std::free(p->name);
    std::free(p->programmeID);
    std::free(p->channelID);
    parental_rating_collection_destroy(p->parentalRating);
    std::free(p);
}

APPMGR_API void programmesListChanged(void) {
    appmgr::c_entry_void(__func__, [] {
        if (!appmgr::state::active()) return;
        appmgr::protocol::send(Command::ProgrammeListChanged);
        AM_INFO("Programme list changed");
    });
}

APPMGR_API void programmesChanged(void) {
    appmgr::c_entry_void(__func__, [] { appmgr::protocol::send(Command::ProgrammesChanged); });
}

}  // extern "C"
