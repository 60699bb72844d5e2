#include "model/StandardizeData.h"

#include <cmath>
#include <stdexcept>

double StandardizeData::mean(const std::vector<double>& values) const {
  if (values.empty()) return 0.0;
  double sum = 0.0;
  for (const double x : values) sum += x;
  return sum / static_cast<double>(values.size());
}

double StandardizeData::std_dev(const std::vector<double>& values, double mean) const {
  if (values.empty()) return 0.0;
  double sum = 0.0;
  for (const double x : values) sum += (x - mean) * (x - mean);
  return std::sqrt(sum / static_cast<double>(values.size()));
}

void StandardizeData::standardize(std::vector<std::vector<double>>& matrix) const {
  if (matrix.empty()) return;
  const std::size_t columns = matrix.front().size();
  if (columns < 1) return;
  // Checked up front so that a rejected matrix is not half standardised.
  for (const std::vector<double>& row : matrix) {
    if (row.size() != columns) {
      throw std::invalid_argument("standardize: every row must have as many values as the first row");
    }
  }

  for (std::size_t j = 0; j < columns; ++j) {
    const std::vector<double> values = column(matrix, j);
    const double m = mean(values);
    const double s = std_dev(values, m);
    // A NaN deviation is not equal to 0.0, so it divides and spreads the NaN.
    for (std::vector<double>& row : matrix) row[j] = s != 0.0 ? (row[j] - m) / s : 0.0;
  }
}

std::vector<double> StandardizeData::column(const std::vector<std::vector<double>>& matrix,
                                            std::size_t j) const {
  std::vector<double> values;
  values.reserve(matrix.size());
  for (const std::vector<double>& row : matrix) values.push_back(row[j]);
  return values;
}
