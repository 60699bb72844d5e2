// RowWriter: inserts a Row into a table by column name for a test, every
// cell bound as text (so quotes and odd bytes in the values are safe), the
// way the product's queue writer stores them.
#pragma once

#include <string>

#include "storage/DBAccess.h"
#include "storage/Value.h"

namespace tsanomaly_test {

class RowWriter {
 public:
  static void insert(Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess& db, const std::string& table,
                     const Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row& row);
};

}  // namespace tsanomaly_test
