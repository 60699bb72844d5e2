// The radii that say, for every eps at once, which rows a completed DBSCAN run
// leaves as noise, computed exactly from the rows' squared distances in O(n^2)
// time and O(n) memory, bit for bit as the clusterer's own distances give them.
#pragma once

#include <cstddef>
#include <vector>

#include "model/FeatureColumns.h"

// Whether a row ends as noise after a completed run does not depend on the
// order in which the rows are visited. A row is noise exactly when it is not
// a core row and no core row lies strictly within eps of it. Two radii per
// row therefore settle every eps at once:
//   core radius - the others_needed-th smallest distance to another row
//                 (others_needed = min_samples - 1, as a row counts itself);
//                 the row is core at eps iff it is < eps;
//   reach       - the smaller of the row's own core radius and, over every
//                 other row j, max(core radius of j, distance to j); the row
//                 is not noise at eps iff it is < eps.
//
// All of it is done on the sums of squares that the clusterer takes the root
// of. std::sqrt is correctly rounded and hence monotone, so it commutes with
// min, max and order statistics: the root of a squared radius is, bit for
// bit, the radius the clusterer's distances would give.
namespace noise_reach {

// From row i to every row (rows.rows() values), as the clusterer adds them
// up. A NaN sum becomes +inf: such a pair is never within eps either, and NaN
// would break the ordering that selection relies on. Row i's own entry is
// +inf as well, so that it never counts as one of its other rows.
void squared_distances_from(const FeatureColumns& rows, std::size_t i, std::vector<double>& out);

// Row i's squared core radius, for 1 <= others_needed < rows.rows().
// distances and heap are working space, kept by the caller between rows.
double squared_core_radius(const FeatureColumns& rows, std::size_t i, std::size_t others_needed,
                           std::vector<double>& distances, std::vector<double>& heap);

// Every row's squared core radius (others_needed at least one); +inf for all
// rows when there are too few other rows for any to be core.
std::vector<double> squared_core_radii(const FeatureColumns& rows, std::size_t others_needed);

// The largest squared reach over all rows (at least one), given every row's
// squared core radius.
double largest_squared_reach(const FeatureColumns& rows, const std::vector<double>& core);

}  // namespace noise_reach
