// Parental-rating objects served from the middleware.
#include "parental_rating/parental_rating.h"

#include <cstdlib>

#include "common/c_api.h"
#include "common/log.h"
#include "hbb_platform.h"
#include "protocol/protocol.h"
#include "state/state.h"

using appmgr::protocol::Command;

extern "C" {

APPMGR_API ParentalRatingSchemeCollection* parental_rating_get_schemes(void) {
    return hbbGetParentalRatingSchemes();
}

APPMGR_API void parental_rating_release_schemes(void) { hbbReleaseParentalRatingSchemes(); }

APPMGR_API ParentalRating* parental_rating_get_threshold(const char* prSchemeName) {
    return hbbGetCurrentParentalRatingThreshold(prSchemeName);
}

APPMGR_API void parental_rating_destroy(ParentalRating* rating) {
    if (rating == nullptr) return;
    std::free(rating->name);
    std::free(rating->region);
    std::free(rating->scheme);
    std::free(rating);
}

APPMGR_API ParentalRatingCollection* parental_rating_collection_create(void) {
    auto* collection =
        static_cast<ParentalRatingCollection*>(std::calloc(1, sizeof(ParentalRatingCollection)));
    if (collection == nullptr) AM_ERROR("Creating parental rating collection failed");
    return collection;
}

APPMGR_API void parental_rating_collection_destroy(ParentalRatingCollection* collection) {
    std::free(collection);
}

APPMGR_API void parentalRatingChanged(ParentalRatingCollection* ratings, int blocked) {
    if (ratings == nullptr) {
        AM_ERROR("parentalRatingChanged without ratings");
        return;
    }
    appmgr::c_entry_void(__func__, [&] {
        if (!appmgr::state::active()) return;
        ParentalRatingCallbackData data{ratings->lenght, blocked};
        appmgr::protocol::send(Command::ParentalRatingChanged, &data);
    });
}

// The browser receives the number of ratings: the collection's first field
// is what the callback carries.
APPMGR_API void parentalRatingError(ParentalRatingCollection* ratings) {
    if (ratings == nullptr) {
        AM_ERROR("parentalRatingError without ratings");
        return;
    }
    appmgr::c_entry_void(__func__, [&] {
        if (!appmgr::state::active()) return;
        appmgr::protocol::send(Command::ParentalRatingError, &ratings->lenght);
    });
}

}  // extern "C"
