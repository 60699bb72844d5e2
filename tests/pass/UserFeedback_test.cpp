// Users' "Report as false positive" verdicts folded into the history, alone
// and across detection passes.
#include <jansson.h>

#include "tests/pass/PassFixture.h"

namespace pass_test {
namespace {

using UserFeedback = PassFixture;

const char* const kSelectVerdicts = "SELECT * FROM ANOMALY_DATA_FEEDBACK WHERE FEEDBACK = 1";

TEST_F(UserFeedback, WithoutConfirmedVerdictsOnlyTheVerdictQueryRuns) {
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  anomaly("42_1000000", "k1");
  trace_sql();

  service->accomodate_user_feedback_received();

  EXPECT_EQ(traced, Strings{kSelectVerdicts});
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(count("HIST_DATA"), 0);
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1600000000"});
  EXPECT_EQ(feedback_rows(), Strings{});
  EXPECT_EQ(log_lines(), Strings{});
}

TEST_F(UserFeedback, RejectedVerdictIsLeftUntouched) {
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  anomaly("42_1000000", "k1");
  feedback("42_1000000", 0);
  trace_sql();

  service->accomodate_user_feedback_received();

  EXPECT_EQ(traced, Strings{kSelectVerdicts});
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  EXPECT_EQ(count("HIST_DATA"), 0);
  EXPECT_EQ(feedback_rows(), Strings{"42_1000000|0"});
  EXPECT_EQ(log_lines(), Strings{});
}

TEST_F(UserFeedback, ConfirmedVerdictMovesTheJobIntoHistoryAsUserIdentified) {
  queue(job("k1", kFarFeatures + Cells{{"PROCESSED_STATUS", "1"}, {"USER_IDENTIFIED_CLUSTER", "-1"}}));
  queue(job("k2", {{"JOB_ID", "43"}}));
  const TextRow queued = pending_row("k1");
  anomaly("42_1000000", "k1");
  feedback("42_1000000", 1);
  feedback("other", 0);
  trace_sql();

  service->accomodate_user_feedback_received();

  EXPECT_EQ(traced, (Strings{kSelectVerdicts, "SELECT DETECTION_KEY FROM ANOMALY_DATA WHERE ANOMALY_UNIQUE_ID = ?",
                             "SELECT * FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ?",
                             "INSERT OR REPLACE INTO HIST_DATA  VALUES ( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                             "?, ?, ?, ?, ?, ?, ? );",
                             "DELETE FROM DATA_TO_PROCESS WHERE UNIQUE_KEY = ? ",
                             "DELETE FROM ANOMALY_DATA_FEEDBACK WHERE ANOMALY_UNIQUE_ID = ?"}));
  EXPECT_EQ(log_lines(), Strings{info("Updating user feedback for training for client = c1, policy = p1, "
                                      "policy_type = Standard, schedule_name = daily & app_type = app")});
  EXPECT_EQ(queue_state(), Strings{"k2:0"});
  EXPECT_EQ(history_row("k1"), as_history(queued, "1"));
  EXPECT_EQ(count("HIST_DATA"), 1);
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1600000000"});
  EXPECT_EQ(feedback_rows(), Strings{"other|0"});
}

TEST_F(UserFeedback, VerdictsAreFoldedInAtTheStartOfEveryPass) {
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  anomaly("42_1000000", "k1");
  feedback("42_1000000", 1);

  EXPECT_EQ(pass(), (Strings{info("Updating user feedback for training for client = c1, policy = p1, policy_type = "
                                  "Standard, schedule_name = daily & app_type = app"),
                             kSetUp1, kSetUp2}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(history_row("k1")["USER_IDENTIFIED_CLUSTER"], "1");
  EXPECT_EQ(history_row("k1")["MODE"], "1");
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(UserFeedback, VerdictsForUnknownAnomaliesOrVanishedJobsAreSkippedAndKept) {
  // An id that no anomaly has, and an anomaly whose job left the queue.
  feedback("999_1", 1);
  anomaly("42_1000000", "gone");
  feedback("42_1000000", 1);
  // A good one after them is still handled.
  queue(job("k3", {{"PROCESSED_STATUS", "1"}, {"JOB_ID", "44"}}));
  anomaly("44_1000000", "k3");
  feedback("44_1000000", 1);

  const Strings first = pass();
  const Strings second = pass();

  EXPECT_EQ(first, (Strings{info("Updating user feedback for training for client = c1, policy = p1, policy_type = "
                                  "Standard, schedule_name = daily & app_type = app"),
                             kSetUp1, kSetUp2}));
  EXPECT_EQ(second, (Strings{kSetUp1, kSetUp2}));
  EXPECT_EQ(feedback_rows(), (Strings{"42_1000000|1", "999_1|1"}));
  EXPECT_EQ(anomaly_rows(), (Strings{"42_1000000|0|gone|c1|1600000000", "44_1000000|0|k3|c1|1600000000"}));
  EXPECT_EQ(count("HIST_DATA"), 1);
  EXPECT_EQ(history_row("k3")["USER_IDENTIFIED_CLUSTER"], "1");
}

TEST_F(UserFeedback, FailureWhileFoldingKeepsWhatWasDoneAndThePassGoesOn) {
  queue(job("k1", {{"PROCESSED_STATUS", "1"}}));
  anomaly("42_1000000", "k1");
  feedback("42_1000000", 1);
  // The verdict cannot be consumed: the job reaches the history, its verdict
  // stays, and the next pass skips it because the job has left the queue.
  sql("CREATE TRIGGER keep_verdicts BEFORE DELETE ON ANOMALY_DATA_FEEDBACK BEGIN SELECT RAISE(ABORT, 'kept'); END;");

  EXPECT_EQ(pass(), (Strings{info("Updating user feedback for training for client = c1, policy = p1, policy_type = "
                                  "Standard, schedule_name = daily & app_type = app"),
                             info("Error occurred during incorporating user feedback into training set."), kSetUp1,
                             kSetUp2}));
  EXPECT_EQ(history_row("k1")["USER_IDENTIFIED_CLUSTER"], "1");
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{"42_1000000|1"});

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));
}

TEST_F(UserFeedback, FalsePositiveVerdictLetsALaterSimilarJobThrough) {
  usual_history(40);
  model("0.5");

  // Pass 1: a job far from the usual ones is reported.
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", "1000000"}}));
  const TextRow queued = pending_row("k1");
  const Strings first = pass();
  EXPECT_EQ(first.back(), info("Closest cluster distance for this anomaly 14.495689"));
  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  ASSERT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(json_member(json_object_get(root, "Attributes"), "anomalyFeedback"), "Report as false positive");
  json_decref(root);

  // The operator reports it as a false positive.
  feedback("42_1000000", 1);

  // Pass 2: the verdict brings the job into the history as user-confirmed.
  EXPECT_EQ(pass(), (Strings{info("Updating user feedback for training for client = c1, policy = p1, policy_type = "
                                  "Standard, schedule_name = daily & app_type = app"),
                             kSetUp1, kSetUp2}));
  TextRow confirmed = queued;
  confirmed["PROCESSED_STATUS"] = "1";
  EXPECT_EQ(history_row("k1"), as_history(confirmed, "1"));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);

  // Pass 3: a later job like it is still noise (it and k1 are only two), but
  // it lies within eps of the confirmed job and is accepted.
  queue(job("k2", kFarFeatures + Cells{{"BACKUP_TIME", "1000100"}, {"JOB_ID", "43"}, {"NUM_FILES", "5001"}}));
  const TextRow later = pending_row("k2");
  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000", 43),
                            {error("Found a match for this anomaly with user identified cluster."),
                             info("Valid record considered based on user feedback.")}}));
  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(history_row("k2"), as_history(later, "-1"));
  EXPECT_EQ(count("HIST_DATA"), 42);
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(feedback_rows(), Strings{});
}

}  // namespace
}  // namespace pass_test
