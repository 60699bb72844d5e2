// Connections opened through DBAccess treat the file's schema as untrusted.
#include "storage/DefensiveConnection.h"

#include <gtest/gtest.h>

#include <string>

#include "storage/DBAccess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using tsanomaly_test::TempDir;

namespace {

int setting(sqlite3* handle, int option) {
  int value = -1;
  sqlite3_db_config(handle, option, -1, &value);
  return value;
}

// An application function with side effects, as a program could register
// one; not marked innocuous, so schema code must not be able to call it.
int calls = 0;
void side_effect(sqlite3_context* context, int, sqlite3_value**) {
  ++calls;
  sqlite3_result_int(context, 1);
}

void register_side_effect(sqlite3* handle) {
  ASSERT_EQ(sqlite3_create_function_v2(handle, "side_effect", 0, SQLITE_UTF8, nullptr, side_effect, nullptr, nullptr,
                                       nullptr),
            SQLITE_OK);
}

std::string inner_message_of(DBAccess& db, const std::string& sql) {
  try {
    db.execute_query(sql);
  } catch (const sqlite_exception& e) {
    return e.inner_message();
  }
  return "<no failure>";
}

class DefensiveConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The file as someone else prepared it, with a connection of their own.
    sqlite3* planter = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &planter), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(planter,
                           "CREATE TABLE T (A);"
                           "CREATE TABLE LOG (A);"
                           "CREATE TRIGGER PLANTED AFTER INSERT ON T BEGIN INSERT INTO LOG VALUES (side_effect()); END;"
                           "CREATE VIEW PLANTED_VIEW AS SELECT side_effect() AS A;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(planter);
    calls = 0;
  }

  TempDir dir;
  std::string path = dir.file("planted.db");
};

}  // namespace

TEST_F(DefensiveConnectionTest, DefensiveModeIsOnAndTheSchemaIsNotTrusted) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  EXPECT_EQ(setting(db.handle, SQLITE_DBCONFIG_DEFENSIVE), 1);
  EXPECT_EQ(setting(db.handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA), 0);
}

TEST_F(DefensiveConnectionTest, APlantedTriggerCannotCallAFunctionWithSideEffects) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  register_side_effect(db.handle);
  EXPECT_EQ(inner_message_of(db, "INSERT INTO T VALUES (1)"), "unsafe use of side_effect()");
  EXPECT_EQ(calls, 0);
  // The same function is the program's own to call directly.
  db.execute_query("SELECT side_effect()");
  EXPECT_EQ(calls, 1);
}

TEST_F(DefensiveConnectionTest, APlantedViewCannotCallAFunctionWithSideEffects) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  register_side_effect(db.handle);
  EXPECT_EQ(inner_message_of(db, "SELECT * FROM PLANTED_VIEW"), "unsafe use of side_effect()");
  EXPECT_EQ(calls, 0);
}

TEST_F(DefensiveConnectionTest, TheSchemaTableCannotBeRewritten) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  db.execute_query("PRAGMA writable_schema = ON");
  EXPECT_EQ(inner_message_of(db, "UPDATE sqlite_master SET sql = 'CREATE TABLE T (B)' WHERE name = 'T'"),
            "table sqlite_master may not be modified");
}
