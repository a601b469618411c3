// Parental-rating objects served from the middleware.
#pragma once

#include "app_mgr_platform_types.h"

extern "C" {

// The viewer's threshold in a rating scheme, or null. Released with
// parental_rating_destroy.
ParentalRating* parental_rating_get_threshold(char* prSchemeName);
// Null-safe; frees name, region and scheme, then the record.
void parental_rating_destroy(ParentalRating* rating);

}  // extern "C"
