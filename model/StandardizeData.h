// Column-wise z-score standardisation of a feature matrix, in place, so that
// DBSCAN's single radius weighs every feature alike. Each call uses only the
// statistics of the matrix it is given; nothing is remembered between calls.
#pragma once

#include <cstddef>
#include <vector>

class StandardizeData {
 public:
  // Arithmetic mean; 0.0 for no values.
  double mean(const std::vector<double>& values) const;
  // Population standard deviation (divides by n) about the given mean; 0.0
  // for no values.
  double std_dev(const std::vector<double>& values, double mean) const;

  // Replaces every value by its column z-score; a column whose deviation is
  // exactly 0.0 becomes all 0.0. An empty matrix or an empty first row is
  // left as it is. Throws std::invalid_argument, before changing any value,
  // when a row's length differs from the first row's.
  void standardize(std::vector<std::vector<double>>& matrix) const;

 private:
  std::vector<double> column(const std::vector<std::vector<double>>& matrix, std::size_t j) const;
};
