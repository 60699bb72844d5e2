// A cheap proof that no row is noise at one eps, for the common training set
// in which every row has enough other rows close by. It may fail to find a
// proof where one exists, but never claims one where a row is noise.
#pragma once

#include <cstddef>

#include "model/FeatureColumns.h"

namespace noise_free_proof {

// True when it is proven that no row is noise at the eps for which a squared
// distance d is within eps exactly when d <= largest_square_within, with
// others_needed (at least one) other rows within eps making a row core.
// False when no proof was found, leaving the question to the exact search of
// noise_reach; always so for rows with a NaN or infinite feature.
bool found(const FeatureColumns& rows, std::size_t others_needed, double largest_square_within);

}  // namespace noise_free_proof
