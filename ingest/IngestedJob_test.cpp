// The job number and key derived from a tool's id, and the ratio every
// format computes the same way.
#include "ingest/IngestedJob.h"

#include <gtest/gtest.h>

TEST(IngestedJob, DecimalIdIsItsOwnJobNumber) {
  EXPECT_EQ(ingest_job_number("42"), 42);
  EXPECT_EQ(ingest_job_number("2147483647"), 2147483647);
}

TEST(IngestedJob, OtherIdsHashWithinTheDetectorsIntRange) {
  for (const char* id : {"2147483648", "33a5acb7", "+5", "-5", "", "4f2a1c9e0011aabb"}) {
    const std::int64_t number = ingest_job_number(id);
    EXPECT_GE(number, 0) << id;
    EXPECT_LE(number, kMaxJobNumber) << id;
    EXPECT_EQ(number, ingest_job_number(id)) << "not stable: " << id;
  }
  EXPECT_NE(ingest_job_number("33a5acb7"), ingest_job_number("33a5acb8"));
}

TEST(IngestedJob, KeyJoinsToolAndId) {
  IngestedJob job;
  job.tool = "restic";
  job.tool_job_id = "33a5acb7";
  EXPECT_EQ(ingest_unique_key(job), "restic:33a5acb7");
}

TEST(IngestedJob, DedupRatioCountsAtLeastOneKilobyteAddedAndIsCapped) {
  EXPECT_DOUBLE_EQ(ingest_dedup_ratio(102400, 10240), 10);
  EXPECT_DOUBLE_EQ(ingest_dedup_ratio(102400, 0), 100);
  EXPECT_DOUBLE_EQ(ingest_dedup_ratio(102400, 512), 100);
  EXPECT_DOUBLE_EQ(ingest_dedup_ratio(1e15, 0), kIngestDedupCap);
  EXPECT_DOUBLE_EQ(ingest_dedup_ratio(0, 0), 0);
}
