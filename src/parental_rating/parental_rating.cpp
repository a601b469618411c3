// Parental-rating objects served from the middleware.
#include "parental_rating/parental_rating.h"

#include <cstdlib>

#include "hbb_platform.h"

extern "C" {

ParentalRating* parental_rating_get_threshold(char* prSchemeName) {
    return hbbGetCurrentParentalRatingThreshold(prSchemeName);
}

void parental_rating_destroy(ParentalRating* rating) {
    if (rating == nullptr) return;
    std::free(rating->name);
    std::free(rating->region);
    std::free(rating->scheme);
    std::free(rating);
}

}  // extern "C"
