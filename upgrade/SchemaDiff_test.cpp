// SchemaDiff on real databases: one made from the schema, and the five bare
// tables (the detector's columns, nothing else) with what a product might
// have added to them.
#include "upgrade/SchemaDiff.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/Statement.h"
#include "tests/support/TempDir.h"
#include "upgrade/UpgradeAdvice.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;
using tsanomaly_test::TempDir;
using Remedy = SchemaFinding::Remedy;

namespace {

constexpr const char* kTables[] = {"DATA_TO_PROCESS", "HIST_DATA", "DBSCAN_MODEL_PARAMS", "ANOMALY_DATA",
                                   "ANOMALY_DATA_FEEDBACK"};

class SchemaDiffTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBAccess detector(detector_path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    detector.execute_query(anomaly_schema::anomaly_db_sql());
  }

  // The detector's tables with their columns only: no index, constraint or
  // trigger, the default journal.
  DBAccess& bare() {
    Statement attach(bare_db.handle, "ATTACH ? AS src");
    attach.bind(1, detector_path);
    bare_db.execute_query_prepared(attach);
    for (const char* table : kTables) {
      bare_db.execute_query(std::string("CREATE TABLE ") + table + " AS SELECT * FROM src." + table + " WHERE 0");
    }
    bare_db.execute_query("DETACH src");
    return bare_db;
  }

  std::vector<SchemaFinding> compare(DBAccess& db) { return SchemaDiff().compare(db, "the.db"); }

  static const SchemaFinding* find(const std::vector<SchemaFinding>& findings, const std::string& what) {
    for (const SchemaFinding& finding : findings) {
      if (finding.what == what) return &finding;
    }
    return nullptr;
  }

  TempDir dir;
  std::string detector_path = dir.file("detector.db");
  DBAccess bare_db{dir.file("bare.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
};

}  // namespace

TEST_F(SchemaDiffTest, ADatabaseMadeFromTheSchemaMatchesIt) {
  DBAccess detector(detector_path, SQLITE_OPEN_READONLY);
  EXPECT_TRUE(compare(detector).empty());
}

TEST_F(SchemaDiffTest, BareTablesLackEveryIndexTriggerAndTheJournalEachWithItsOwnCost) {
  const auto findings = compare(bare());
  const std::vector<std::pair<std::string, Remedy>> expected = {
      {"missing index DATA_TO_PROCESS_BY_STATUS on DATA_TO_PROCESS", Remedy::create},
      {"missing index HIST_DATA_BY_WORKLOAD on HIST_DATA", Remedy::create},
      {"missing index HIST_DATA_BY_WORKLOAD_ANY_STORAGE on HIST_DATA", Remedy::create},
      {"missing index HIST_DATA_BY_STREAM on HIST_DATA", Remedy::create},
      {"missing index ANOMALY_DATA_FEEDBACK_BY_ID on ANOMALY_DATA_FEEDBACK", Remedy::create},
      {"missing index ANOMALY_DATA_FEEDBACK_BY_VERDICT on ANOMALY_DATA_FEEDBACK", Remedy::create},
      {"missing trigger HIST_DATA_TAKES_JOB_OFF_QUEUE on HIST_DATA", Remedy::create},
      {"missing trigger ANOMALY_DATA_MARKS_JOB_PROCESSED on ANOMALY_DATA", Remedy::create},
      {"journal mode delete, not WAL", Remedy::switch_to_wal},
      {"no uniqueness on DATA_TO_PROCESS (UNIQUE_KEY)", Remedy::by_hand},
      {"no uniqueness on HIST_DATA (UNIQUE_KEY)", Remedy::by_hand},
      {"no uniqueness on DBSCAN_MODEL_PARAMS (CLIENT, POLICY, POLICY_TYPE, SCHEDULE_TYPE, SCHEDULE_NAME, APP_TYPE, "
       "DESTINATION_STORAGE_NAME, ASSET_ID)",
       Remedy::by_hand},
      {"no uniqueness on ANOMALY_DATA (ANOMALY_UNIQUE_ID)", Remedy::by_hand},
  };
  ASSERT_EQ(findings.size(), expected.size());
  std::vector<std::string> costs;
  for (const auto& [what, remedy] : expected) {
    const SchemaFinding* finding = find(findings, what);
    ASSERT_NE(finding, nullptr) << what;
    EXPECT_EQ(finding->remedy, remedy) << what;
    EXPECT_EQ(finding->sql.empty(), remedy != Remedy::create) << what;
    EXPECT_EQ(finding->why_not.empty(), remedy != Remedy::by_hand) << what;
    costs.push_back(finding->cost);
  }
  std::sort(costs.begin(), costs.end());
  EXPECT_EQ(std::unique(costs.begin(), costs.end()), costs.end()) << "each difference names its own cost";
  EXPECT_TRUE(std::is_sorted(findings.begin(), findings.end(),
                             [](const SchemaFinding& a, const SchemaFinding& b) { return a.remedy < b.remedy; }));
  EXPECT_NE(find(findings, "no uniqueness on HIST_DATA (UNIQUE_KEY)")->why_not.find("duplicates"), std::string::npos);
}

TEST_F(SchemaDiffTest, IndexesCountByWhatTheyIndexNotByName) {
  DBAccess& db = bare();
  // The verdict lookup served by a wider index; the model key's uniqueness
  // in another column order; names and columns in lower case.
  db.execute_query("CREATE INDEX mine_1 ON anomaly_data_feedback (anomaly_unique_id, feedback)");
  db.execute_query(
      "CREATE UNIQUE INDEX mine_2 ON dbscan_model_params (asset_id, destination_storage_name, app_type, "
      "schedule_name, schedule_type, policy_type, policy, client)");
  // Neither a partial index nor another collation serves the detector.
  db.execute_query("CREATE INDEX mine_3 ON DATA_TO_PROCESS (PROCESSED_STATUS) WHERE PROCESSED_STATUS = 0");
  db.execute_query("CREATE UNIQUE INDEX mine_4 ON HIST_DATA (UNIQUE_KEY COLLATE NOCASE)");
  const auto findings = compare(db);
  EXPECT_EQ(find(findings, "missing index ANOMALY_DATA_FEEDBACK_BY_ID on ANOMALY_DATA_FEEDBACK"), nullptr);
  EXPECT_NE(find(findings, "missing index ANOMALY_DATA_FEEDBACK_BY_VERDICT on ANOMALY_DATA_FEEDBACK"), nullptr);
  for (const SchemaFinding& finding : findings) {
    EXPECT_EQ(finding.what.find("no uniqueness on DBSCAN_MODEL_PARAMS"), std::string::npos);
  }
  EXPECT_NE(find(findings, "missing index DATA_TO_PROCESS_BY_STATUS on DATA_TO_PROCESS"), nullptr);
  EXPECT_NE(find(findings, "no uniqueness on HIST_DATA (UNIQUE_KEY)"), nullptr);
  EXPECT_EQ(findings.size(), 11u);
}

TEST_F(SchemaDiffTest, AnIndexNameTakenByAnotherDefinitionIsLeftAlone) {
  DBAccess& db = bare();
  db.execute_query("CREATE INDEX HIST_DATA_BY_STREAM ON HIST_DATA (BACKUP_ID)");
  const auto findings = compare(db);
  const SchemaFinding* finding = find(findings, "missing index HIST_DATA_BY_STREAM on HIST_DATA");
  ASSERT_NE(finding, nullptr);
  EXPECT_EQ(finding->remedy, Remedy::by_hand);
  EXPECT_NE(finding->why_not.find("has that name"), std::string::npos);
}

TEST_F(SchemaDiffTest, AMissingColumnIsReportedAndHoldsBackWhatNeedsIt) {
  DBAccess& db = bare();
  db.execute_query("ALTER TABLE HIST_DATA DROP COLUMN MODE");
  const auto findings = compare(db);
  const SchemaFinding* column = find(findings, "HIST_DATA has no column MODE");
  ASSERT_NE(column, nullptr);
  EXPECT_EQ(column->remedy, Remedy::by_hand);
  EXPECT_EQ(find(findings, "missing index HIST_DATA_BY_WORKLOAD on HIST_DATA")->remedy, Remedy::by_hand);
  EXPECT_EQ(find(findings, "missing index HIST_DATA_BY_STREAM on HIST_DATA")->remedy, Remedy::create);
  EXPECT_EQ(find(findings, "missing trigger HIST_DATA_TAKES_JOB_OFF_QUEUE on HIST_DATA")->remedy, Remedy::by_hand);
  // One finding for the column, not a second one for the order it broke.
  EXPECT_EQ(find(findings, "HIST_DATA's columns are not the detector's, in its order"), nullptr);
}

TEST_F(SchemaDiffTest, TablesTheDetectorInsertsIntoByPositionMustKeepItsColumns) {
  DBAccess& db = bare();
  db.execute_query("ALTER TABLE ANOMALY_DATA ADD COLUMN ACKNOWLEDGED_BY TEXT");
  db.execute_query("ALTER TABLE DATA_TO_PROCESS ADD COLUMN RECEIVED_AT INTEGER");  // read with SELECT *: fine
  const auto findings = compare(db);
  const SchemaFinding* order = find(findings, "ANOMALY_DATA's columns are not the detector's, in its order");
  ASSERT_NE(order, nullptr);
  EXPECT_EQ(order->remedy, Remedy::by_hand);
  EXPECT_EQ(find(findings, "DATA_TO_PROCESS's columns are not the detector's, in its order"), nullptr);
}

TEST_F(SchemaDiffTest, ADatabaseWithoutTheDetectorsTablesIsRefused) {
  bare_db.execute_query("CREATE TABLE HIST_DATA (UNIQUE_KEY TEXT); CREATE TABLE payroll (x)");
  try {
    compare(bare_db);
    FAIL() << "compared a database without the detector's tables";
  } catch (const NotADetectorDatabase& e) {
    EXPECT_EQ(std::string(e.what()),
              "'the.db' is not a detector database: it has no DATA_TO_PROCESS, DBSCAN_MODEL_PARAMS, ANOMALY_DATA, "
              "ANOMALY_DATA_FEEDBACK tables (create one with 'tsanomalyctl init')");
  }
}

TEST_F(SchemaDiffTest, TheJournalModeExpectedIsTheOneTheSchemaSets) {
  DBAccess detector(detector_path, SQLITE_OPEN_READONLY);
  Rows rows;
  detector.read_data("PRAGMA journal_mode", rows);
  EXPECT_EQ(rows[0]["journal_mode"].text(), SchemaDiff::kDetectorJournalMode);
}

TEST(UpgradeCommandLine, NamesTheOptionsForEachRemedyAndQuotesThePathForAShell) {
  EXPECT_EQ(upgrade_command("/var/lib/x.db", Remedy::create), "tsanomalyctl upgrade /var/lib/x.db --apply");
  EXPECT_EQ(upgrade_command("x.db", Remedy::switch_to_wal), "tsanomalyctl upgrade x.db --apply --wal");
  EXPECT_EQ(upgrade_command("x.db", Remedy::by_hand), "tsanomalyctl upgrade x.db");
  EXPECT_EQ(upgrade_command("my dir/it's.db", Remedy::by_hand), "tsanomalyctl upgrade 'my dir/it'\\''s.db'");
  EXPECT_EQ(upgrade_command("a\x1b[2Jb", Remedy::by_hand), "tsanomalyctl upgrade 'a?[2Jb'");
}
