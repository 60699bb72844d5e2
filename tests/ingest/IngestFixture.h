// Fixture for the end-to-end tests of `tsanomalyctl ingest`: a detector
// database made by the built tool in a temporary folder, and helpers that
// run the built programs and read the database back.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace tsanomaly_test {

class IngestFixture : public ::testing::Test {
 protected:
  struct Run {
    int exit_code;
    std::string out;
    std::string err;
  };

  void SetUp() override { ASSERT_EQ(tool({"init", db}).exit_code, 0); }

  static Run program(std::vector<std::string> argv) {
    ChildProcess child(std::move(argv));
    const int code = ChildProcess::run(child, std::chrono::seconds(60));
    return {code, child.out(), child.err()};
  }
  static Run tool(std::vector<std::string> args) {
    args.insert(args.begin(), TSANOMALYCTL_PATH);
    return program(std::move(args));
  }
  // tsanomalyctl ingest DB --format FORMAT, then args.
  Run ingest(const std::string& format, std::vector<std::string> args) const {
    args.insert(args.begin(), {"ingest", db, "--format", format});
    return tool(std::move(args));
  }

  // One detection pass of the built detector over the database.
  Run detect(const std::string& ini = "") const {
    std::vector<std::string> args = {"detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db",
                                     "-log_path", dir.path()};
    if (!ini.empty()) args.insert(args.end(), {"-config_file", ini});
    return tool(args);
  }

  std::vector<std::string> column(const std::string& sql) const {
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess access(db, SQLITE_OPEN_READONLY);
    Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows rows;
    access.read_data(sql, rows);
    std::vector<std::string> values;
    for (auto& row : rows) values.push_back(row.begin()->second);
    return values;
  }
  std::string count(const std::string& table) const { return column("SELECT COUNT(*) FROM " + table).at(0); }

  std::string write(const std::string& name, const std::string& text) const {
    TempDir::write(dir.file(name), text);
    return dir.file(name);
  }

  TempDir dir;
  std::string db = dir.file("anomaly.db");
};

}  // namespace tsanomaly_test
