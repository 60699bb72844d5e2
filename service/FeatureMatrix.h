// FeatureMatrix: the rows the clusterer is given, built from a job's cells
// or from a training set, with the features of the chosen set less those
// disabled for the job's policy type. Disabled names are lower-case; a
// feature that is left out lets the later columns move up.
#pragma once

#include <array>
#include <set>
#include <string>
#include <vector>

#include "contract/Features.h"
#include "service/TrainingRecords.h"
#include "storage/Value.h"

namespace feature_matrix {

using Row = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Matrix = std::vector<std::vector<double>>;
// Which features, by matrix column, a row contributes.
using Columns = std::array<bool, kFeatureCount>;

// The first feature_count features in matrix order (5, or the fallback's 2),
// less the disabled ones.
Columns columns_of(int feature_count, const std::set<std::string>& disabled);

// The job's own row: its cells of the first feature_count features in
// matrix order, less the disabled ones, converted as a Row converts them.
std::vector<double> observation_of(const Row& job, int feature_count, const std::set<std::string>& disabled);

// Appends one row per training record, empty rows included.
void append_rows(const TrainingRecords& records, const Columns& columns, Matrix& matrix);

}  // namespace feature_matrix
