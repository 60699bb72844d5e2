// Fixture for tests that run the built executables: a temporary folder with
// a database built from the shipped schema and a log folder, and helpers to
// run a program and read its debug log.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

class CliFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess db(dir.file("anomaly.db"),
                                                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
  }

  std::string log_dir() const { return dir.path(); }
  std::string log_text() const { return tsanomaly_test::TempDir::read(dir.file("tsanomalydetect/tsanomalydetect.log")); }

  // Options that make the service fail to open its database at once, so
  // it prints its banner and exits instead of running for ever.
  std::vector<std::string> unopenable_database() const {
    return {"-database_location", dir.file("missing/a/b"), "-database_file_name", "c.db", "-log_path", log_dir()};
  }

  static std::vector<std::string> with(std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
  }

  tsanomaly_test::TempDir dir;
};
