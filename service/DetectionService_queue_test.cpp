// Construction of the service and the two queue operations.
#include <chrono>
#include <stdexcept>
#include <thread>

#include "schema/DetectorSql.h"
#include "tests/support/ServiceTestFixture.h"

using QueueTest = ServiceTestFixture;

TEST_F(QueueTest, FeatureListHoldsTheFiveFeaturesInModelOrder) {
  EXPECT_EQ(service->get_feature_list(),
            (std::vector<std::string>{"IMAGE_SIZE", "NUM_FILES", "KB_TRANSFERRED", "TOTAL_TIME", "DEDUP_RATE"}));
}

TEST_F(QueueTest, EmptyQueueYieldsNoRecords) {
  Rows rows;
  service->get_data_for_detection(rows);
  EXPECT_TRUE(rows.empty());
}

TEST_F(QueueTest, ProcessedRecordsAreNotPending) {
  queue(job("k1", "vm1", {{"PROCESSED_STATUS", "1"}}));
  queue(job("k2", "vm1", {{"PROCESSED_STATUS", "1"}}));
  Rows rows;
  service->get_data_for_detection(rows);
  EXPECT_TRUE(rows.empty());
}

TEST_F(QueueTest, PendingRecordsComeWithEveryColumn) {
  queue(job("k1"));
  queue(job("k2", "vm1", {{"PROCESSED_STATUS", "1"}}));
  queue(job("k3"));
  Rows rows;
  service->get_data_for_detection(rows);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[0]["UNIQUE_KEY"] == "k1");
  EXPECT_TRUE(rows[1]["UNIQUE_KEY"] == "k3");
  EXPECT_EQ(rows[0].size(), 23u);
  EXPECT_TRUE(rows[0]["IMAGE_SIZE"] == "2048.0");
}

TEST_F(QueueTest, MarkingProcessedTakesTheRecordOutOfThePendingSet) {
  queue(job("k1"));
  queue(job("k2"));
  trace_sql();
  service->update_processed_status("k1");
  EXPECT_EQ(traced, (std::vector<std::string>{"UPDATE DATA_TO_PROCESS SET  PROCESSED_STATUS = 1  WHERE UNIQUE_KEY = ? "}));
  Rows rows;
  service->get_data_for_detection(rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows[0]["UNIQUE_KEY"] == "k2");
  EXPECT_EQ(count("DATA_TO_PROCESS"), 2);
}

TEST_F(QueueTest, MarkingAnUnknownKeyChangesNothingAndDoesNotThrow) {
  queue(job("k1"));
  EXPECT_NO_THROW(service->update_processed_status("nope"));
  EXPECT_EQ(query("SELECT PROCESSED_STATUS FROM DATA_TO_PROCESS")[0]["PROCESSED_STATUS"], 0);
}

TEST_F(QueueTest, ReadingTheQueueRunsTheQueueSelectOnly) {
  trace_sql();
  Rows rows;
  service->get_data_for_detection(rows);
  EXPECT_EQ(traced, (std::vector<std::string>{"SELECT * FROM DATA_TO_PROCESS where PROCESSED_STATUS = 0"}));
}

TEST_F(QueueTest, MissingQueueTableMakesTheReadThrow) {
  sql("DROP TABLE DATA_TO_PROCESS");
  Rows rows;
  try {
    service->get_data_for_detection(rows);
    FAIL() << "expected sqlite_exception";
  } catch (const Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception& e) {
    EXPECT_STREQ(e.what(), "Query execution failed for  SELECT * FROM DATA_TO_PROCESS where PROCESSED_STATUS = 0");
    EXPECT_STREQ(e.inner_message(), "no such table: DATA_TO_PROCESS");
  }
}

TEST_F(QueueTest, MissingDatabaseDirectoryFailsConstructionNamingOnlyTheFile) {
  try {
    DetectionService broken(dir.file("no/such/dir"), "anomaly.db", 0.5, 3.0, "");
    FAIL() << "expected an exception";
  } catch (const Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception&) {
    FAIL() << "the storage exception must not leak out of the constructor";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), std::exception().what());
  }
  const auto lines = log_lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "<16> dbscan_detection: Could not create database anomaly.db");
}

TEST_F(QueueTest, MissingDatabaseFileIsCreated) {
  DetectionService fresh(dir.path(), "new.db", 0.5, 3.0, "");
  EXPECT_EQ(access(dir.file("new.db").c_str(), F_OK), 0);
}

TEST_F(QueueTest, ServiceWaitsForAWritersShortLock) {
  // A fresh service has the production timeout; a writer holding the queue
  // for a moment delays the update instead of failing it.
  DetectionService patient(dir.path(), "anomaly.db", 0.5, 3.0, "");
  queue(job("k1"));
  Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess writer(dir.file("anomaly.db"), SQLITE_OPEN_READWRITE);
  writer.begin_transaction();
  writer.execute_query("UPDATE DATA_TO_PROCESS SET BACKUP_ID = 'held' WHERE UNIQUE_KEY = 'k1'");
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    writer.commit_transaction();
  });
  EXPECT_NO_THROW(patient.update_processed_status("k1"));
  release.join();
  EXPECT_EQ(query("SELECT PROCESSED_STATUS FROM DATA_TO_PROCESS")[0]["PROCESSED_STATUS"], 1);
}
