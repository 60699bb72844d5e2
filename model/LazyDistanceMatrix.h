// The clusterer's squared distances between rows, computed only when a row's
// distances are first asked for. A pair reads the same bits from either of its
// rows and whenever it is asked for again; memory grows with the row count.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "model/FeatureColumns.h"
#include "model/Observations.h"

// Row r counts as computed once its distances were first asked for.
//
// While the rows loaded are those every computed row was computed from, no
// distance is kept: a row is computed again whenever it is asked for, and a
// pair again whenever it is looked up, which gives the same bits each time
// (negating a difference is exact, so either row of a pair gives the same
// sum), costs memory in proportion to n only and is cheaper than writing and
// reading back an n x n table. When other rows are loaded while some rows
// are computed (DBScan::GetNeighborsForRow may be given other rows of the
// same count), the computed rows are first written in full into an n x n
// table from the rows they were computed from; from then on rows are filled
// into the table once, taking the pairs of rows computed before from it and
// computing only the others from the rows loaded now.
//
// The root is taken only where a distance itself is asked for: the
// neighbour test compares squares (see least_square_reaching).
class LazyDistanceMatrix {
 public:
  // For n rows (none when n is negative); load_rows comes before anything is
  // computed.
  explicit LazyDistanceMatrix(int n);

  int size() const { return static_cast<int>(side); }

  // Takes the first n rows of obs as the source of distances still to be
  // computed. Rows of unequal length are only noted here; computing a pair
  // throws the clusterer's std::runtime_error.
  void load_rows(const Observations& obs);

  // Squared distances from 0-based row r to every row, the diagonal entry
  // being -1.0; valid until the next call.
  const double* row(int r);

  // The distance (root taken) between 0-based rows i and j; -1.0 on the
  // diagonal, out of range, or while neither row is computed.
  double cached(int i, int j) const;

 private:
  void keep_computed_rows();
  void fill_table_row(std::size_t r);

  std::size_t side;
  std::vector<unsigned char> computed;
  std::size_t uncomputed;           // rows not computed yet
  std::vector<double> scratch;      // the row last computed, padded_rows() values
  std::unique_ptr<double[]> table;  // n x n, once other rows were loaded
  FeatureColumns columns;
};
