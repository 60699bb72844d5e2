// The session table's limits, judged by a clock the test moves: idle and
// absolute lifetimes, the proof's one claim within its window, and ending
// sessions one by one or all at once.
#include "console/SessionTable.h"

#include <gtest/gtest.h>

namespace {

class SessionTableTest : public ::testing::Test {
 protected:
  SessionTable::Clock::time_point now{std::chrono::hours(1)};
  SessionTable table{[this] { return now; }};
};

}  // namespace

TEST_F(SessionTableTest, AnUnusedSessionEndsAfterTheIdleLimit) {
  const auto opened = table.open();
  now += SessionTable::kIdleLimit - std::chrono::seconds(1);
  EXPECT_EQ(table.csrf_of(opened.id), opened.csrf);
  now += SessionTable::kIdleLimit - std::chrono::seconds(1);
  EXPECT_EQ(table.csrf_of(opened.id), opened.csrf) << "each use restarts the idle limit";
  now += SessionTable::kIdleLimit;
  EXPECT_FALSE(table.csrf_of(opened.id));
}

TEST_F(SessionTableTest, ASessionInUseEndsAtTheAbsoluteLimit) {
  const auto opened = table.open();
  const auto end = now + SessionTable::kAbsoluteLimit;
  while (now + std::chrono::minutes(10) < end) {
    now += std::chrono::minutes(10);
    ASSERT_TRUE(table.csrf_of(opened.id));
  }
  now = end;
  EXPECT_FALSE(table.csrf_of(opened.id));
}

TEST_F(SessionTableTest, TheProofGoesToTheFirstClaimWithinTheWindowOnly) {
  const auto first = table.open();
  EXPECT_FALSE(table.proven(first.id, "")) << "an unclaimed proof proves nothing";
  const auto proof = table.claim_proof(first.id);
  ASSERT_TRUE(proof);
  EXPECT_EQ(proof->size(), 64u);
  EXPECT_FALSE(table.claim_proof(first.id));
  EXPECT_TRUE(table.proven(first.id, *proof));
  EXPECT_FALSE(table.proven(first.id, first.csrf));
  EXPECT_FALSE(table.proven("no-such-session", *proof));

  const auto late = table.open();
  now += SessionTable::kClaimWindow + std::chrono::seconds(1);
  EXPECT_FALSE(table.claim_proof(late.id));
  EXPECT_FALSE(table.claim_proof("no-such-session"));
}

TEST_F(SessionTableTest, SessionsEndOneByOneOrAllAtOnce) {
  const auto a = table.open();
  const auto b = table.open();
  const auto c = table.open();
  table.end(a.id);
  EXPECT_FALSE(table.csrf_of(a.id));
  EXPECT_TRUE(table.csrf_of(b.id));
  table.end_all();
  EXPECT_FALSE(table.csrf_of(b.id));
  EXPECT_FALSE(table.csrf_of(c.id));
}

TEST_F(SessionTableTest, TheOldestSessionGivesWayBeyondTheCap) {
  const auto oldest = table.open();
  for (std::size_t i = 1; i < SessionTable::kMaxSessions; ++i) {
    now += std::chrono::milliseconds(1);
    table.open();
  }
  EXPECT_TRUE(table.csrf_of(oldest.id));
  now += std::chrono::milliseconds(1);
  table.open();
  EXPECT_FALSE(table.csrf_of(oldest.id));
}
