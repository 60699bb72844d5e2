// TrainingRecords: a training set in the form the pass computes with. For
// each record, in delivery order, the five model features and the user
// verdict, converted once from the cells' text exactly as the record's Row
// would convert them (Value's double and int), a column that the query did
// not return reading 0 as a missing Row entry does. Reading a result into it
// builds no Row per record, which is most of what reading a training set of
// hundreds or thousands of records into Rows costs.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "contract/Features.h"
#include "storage/DBAccess.h"

class TrainingRecords {
 public:
  using DBAccess = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
  using Rows = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
  using Statement = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

  static constexpr const char* kUserVerdictName = "USER_IDENTIFIED_CLUSTER";

  // The same records, taken from Rows.
  static TrainingRecords of(const Rows& rows);

  // Runs st and appends every record it yields: the records that
  // DBAccess::read_data_prepared would append to Rows, with the same
  // failures.
  void read(DBAccess& db, Statement& st);

  std::size_t size() const { return user_verdicts_.size(); }
  bool empty() const { return user_verdicts_.empty(); }
  void clear();

  // The feature in the stored unit; f is its matrix column (Feature).
  double feature(std::size_t record, int f) const { return features_[record][f]; }
  // USER_IDENTIFIED_CLUSTER read as int.
  int user_verdict(std::size_t record) const { return user_verdicts_[record]; }

 private:
  // Cell texts of one record: the five features, then the user verdict.
  using Texts = std::array<const char*, kFeatureCount + 1>;
  void append(const Texts& texts, char decimal_point);

  std::vector<std::array<double, kFeatureCount>> features_;
  std::vector<int> user_verdicts_;
};
