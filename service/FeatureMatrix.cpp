#include "service/FeatureMatrix.h"

#include <cstddef>

#include "service/JobKey.h"
#include "util/Text.h"

namespace feature_matrix {
namespace {

void capture_feature_if_not_disabled(const std::set<std::string>& disabled, const std::string& feature,
                                     const Row& record, std::vector<double>& row) {
  if (disabled.count(text::to_lower(feature)) == 0) {
    row.push_back(static_cast<double>(job_key::cell(record, feature)));
  }
}

}  // namespace

Columns columns_of(int feature_count, const std::set<std::string>& disabled) {
  Columns columns{};
  for (const FeatureInfo& info : kFeatures) {
    columns[info.feature] = info.feature < feature_count && disabled.count(text::to_lower(info.column)) == 0;
  }
  return columns;
}

std::vector<double> observation_of(const Row& job, int feature_count, const std::set<std::string>& disabled) {
  std::vector<double> observation;
  for (int f = 0; f < feature_count; ++f) {
    capture_feature_if_not_disabled(disabled, kFeatures[f].column, job, observation);
  }
  return observation;
}

void append_rows(const TrainingRecords& records, const Columns& columns, Matrix& matrix) {
  std::size_t width = 0;
  for (const bool taken : columns) width += taken ? 1 : 0;
  matrix.reserve(matrix.size() + records.size());
  for (std::size_t r = 0; r < records.size(); ++r) {
    std::vector<double>& row = matrix.emplace_back();
    row.reserve(width);
    for (int f = 0; f < kFeatureCount; ++f) {
      if (columns[f]) row.push_back(records.feature(r, f));
    }
  }
}

}  // namespace feature_matrix
