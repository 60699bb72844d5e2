#include "schema/SchemaAudit.h"

#include <gtest/gtest.h>

#include "schema/AnomalySchema.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using tsanomaly_test::TempDir;

namespace {

class SchemaAuditTest : public ::testing::Test {
 protected:
  void SetUp() override { db.execute_query(anomaly_schema::anomaly_db_sql()); }

  static std::vector<std::string> described(const std::vector<SchemaObject>& objects) {
    std::vector<std::string> texts;
    for (const auto& object : objects) texts.push_back(object.type + " " + object.name);
    return texts;
  }

  TempDir dir;
  DBAccess db{dir.file("anomaly.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
};

}  // namespace

TEST_F(SchemaAuditTest, TheShippedSchemaHasNothingUnknown) {
  EXPECT_TRUE(unknown_schema_objects(db).empty());
}

TEST_F(SchemaAuditTest, AddedTriggersAndViewsAreNamedInOrder) {
  db.execute_query("CREATE VIEW V1 AS SELECT 1;"
                   "CREATE TRIGGER ZED AFTER DELETE ON HIST_DATA BEGIN SELECT 1; END;"
                   "CREATE TRIGGER ALPHA AFTER INSERT ON ANOMALY_DATA BEGIN DELETE FROM HIST_DATA; END;");
  EXPECT_EQ(described(unknown_schema_objects(db)),
            (std::vector<std::string>{"trigger ALPHA", "trigger ZED", "view V1"}));
}

TEST_F(SchemaAuditTest, AShippedTriggerWithAnotherBodyIsUnknown) {
  db.execute_query("DROP TRIGGER HIST_DATA_TAKES_JOB_OFF_QUEUE;"
                   "CREATE TRIGGER HIST_DATA_TAKES_JOB_OFF_QUEUE AFTER INSERT ON HIST_DATA BEGIN "
                   "DELETE FROM ANOMALY_DATA; END;");
  EXPECT_EQ(described(unknown_schema_objects(db)),
            (std::vector<std::string>{"trigger HIST_DATA_TAKES_JOB_OFF_QUEUE"}));
}

TEST_F(SchemaAuditTest, TheShippedSchemaHasNoCodeOnItsTables) {
  EXPECT_TRUE(unknown_code_on_detector_tables(db).empty());
}

TEST_F(SchemaAuditTest, ForeignTriggersOnDetectorTablesAndViewsReadingThemAreFound) {
  db.execute_query("CREATE TABLE PRODUCT_NOTES(n TEXT);"
                   "CREATE TRIGGER ON_NOTES AFTER INSERT ON PRODUCT_NOTES BEGIN SELECT 1; END;"
                   "CREATE VIEW CONSTANT AS SELECT 1 AS one;"
                   "CREATE VIEW NOTES_VIEW AS SELECT n FROM PRODUCT_NOTES;"
                   "CREATE TRIGGER ERASE AFTER INSERT ON anomaly_data_feedback BEGIN DELETE FROM ANOMALY_DATA; END;"
                   "CREATE VIEW RECENT AS SELECT * FROM NOTES_VIEW, (SELECT * FROM ANOMALY_DATA);");
  const auto found = unknown_code_on_detector_tables(db);
  EXPECT_EQ(described(found), (std::vector<std::string>{"trigger ERASE", "view RECENT"}));
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found[0].table, "anomaly_data_feedback");
}

TEST_F(SchemaAuditTest, AViewSqliteCannotPrepareCountsAsReadingDetectorTables) {
  db.execute_query("CREATE TABLE GONE(x); CREATE VIEW DANGLING AS SELECT x FROM GONE; DROP TABLE GONE;");
  EXPECT_EQ(described(unknown_code_on_detector_tables(db)), (std::vector<std::string>{"view DANGLING"}));
}

TEST_F(SchemaAuditTest, AFileThatIsNotADatabaseThrows) {
  TempDir::write(dir.file("junk.db"), std::string(4096, 'x'));
  DBAccess junk(dir.file("junk.db"), SQLITE_OPEN_READWRITE);
  EXPECT_THROW(unknown_schema_objects(junk), sqlite_exception);
}
