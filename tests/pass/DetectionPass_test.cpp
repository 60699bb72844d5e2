// One detection pass end to end, one test per outcome a pending job can
// have. Each test asserts the final contents of all five tables and the exact
// log of the pass.
#include <jansson.h>

#include "tests/pass/PassFixture.h"

namespace pass_test {
namespace {

using DetectionPassOutcome = PassFixture;

TEST_F(DetectionPassOutcome, ExcludedClientIsAcceptedWithoutDetection) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=c1\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Ignoring client 'c1' for detection as per configuration.")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, DisabledPolicyTypeIsAcceptedWithoutDetection) {
  write_ini("[DISABLE_POLICY_TYPE]\nPOLICY_TYPE=Oracle,standard\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(),
            (Strings{kSetUp1, kSetUp2, info("Ignoring policy type 'Standard' for detection as per configuration.")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, ExcludedPolicyOfClientIsAcceptedWithoutDetection) {
  write_ini("[EXCLUDE_CLIENT_POLICY]\nHost1=weekly,Daily\n");
  queue(job("k1", {{"CLIENT", "Host1"}, {"POLICY", "DAILY"}}));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Ignoring policy 'DAILY' on client 'Host1' for detection as per configuration.")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 1);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, MultiStreamJobWithoutHistoryOfItsStreamIsAccepted) {
  // Stream 1 has history, stream 2 has none.
  usual_history(40, {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "1"}});
  queue(job("k1", {{"ASSET_ID", "NA"}, {"STREAM_NUMBER", "2"}}));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Not enough data for training for client - c1 , policy - p1")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, JobOfWorkloadWithoutAnyHistoryIsAcceptedSilently) {
  // History of another asset only: the job's own workload has none.
  usual_history(40, {{"ASSET_ID", "vm2"}});
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, TooLittleTrainingDataAcceptsTheJob) {
  usual_history(29);
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2,
                             info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                             info("Not enough data for training for client - c1 , policy - p1. ")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 30);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, AllFeaturesDisabledLeavesTheJobPendingAndLogsOncePerPass) {
  write_ini("[DISABLE_FEATURE_PER_POLICY_TYPE]\nStandard=num_files,image_size,kb_transferred,total_time,dedup_rate\n");
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  const Strings one_pass = {kSetUp1,
                            kSetUp2,
                            info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                            info("Completed getting training data set for detection."),
                            info("Preparing input data for detection."),
                            info("All features are disabled for policy type = Standard. Detection aborted.")};

  EXPECT_EQ(pass(), one_pass);
  EXPECT_EQ(pass(), one_pass);

  EXPECT_EQ(queue_state(), Strings{"k1:0"});
  EXPECT_EQ(count("HIST_DATA"), 40);
  EXPECT_EQ(history_row("k1"), TextRow{});
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, JobThatJoinsAClusterIsAcceptedAsNormalAfterCalibratingTheWorkload) {
  usual_history(40);
  queue(job("k1"));
  const TextRow queued = pending_row("k1");

  // No stored eps: the identical training rows calibrate to the first grid
  // value, 2.5, which the detection then uses.
  EXPECT_EQ(pass(),
            (Strings{kSetUp1, kSetUp2, info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                     info("Completed getting training data set for detection."),
                     info("Calibrated model parameters for client - c1 , policy - p1, policy type - Standard, "
                          "schedule name - daily"),
                     info("EPS value = 2.500000"), info("Preparing input data for detection."),
                     info("Completed preparing input data for detection."), info("Calling StandardizeData."),
                     info("Completed StandardizeData activity."), info("Calculated eps = 2.500000 "),
                     info("Using sensitivity parameter 0"), info("Adjusted eps = 2.500000 "),
                     info("Calling DBScan for detection for job 42"), info("Done detection."),
                     info("Anomaly not detected.")}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|2.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, OutlierAfterLongGapIsAccepted) {
  usual_history(40);  // last backup at 40
  model("0.5");
  queue(job("k1", kFarFeatures + Cells{{"BACKUP_TIME", std::to_string(40 + 365 * 86400 + 1)}}));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Valid record considered since current backup done after 365 days.")}}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, OutlierWithinEpsOfUserConfirmedObservationIsAccepted) {
  usual_history(40);
  // One earlier job like this one, confirmed by a user: together they are
  // two, fewer than the three DBSCAN needs, so the job stays noise.
  history("u1", kFarFeatures + Cells{{"BACKUP_TIME", "41"}, {"USER_IDENTIFIED_CLUSTER", "1"}});
  model("0.5");
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {error("Found a match for this anomaly with user identified cluster."),
                             info("Valid record considered based on user feedback.")}}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 42);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(history_row("u1")["USER_IDENTIFIED_CLUSTER"], "1");
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, OutlierInsideItsNearestClusterRangeIsAcceptedAndItsModelIsDropped) {
  // The history lies on a line (NUM_FILES 100+i, IMAGE_SIZE 1000+i) that
  // forms one cluster; the job sits at the far corner (100, 1039): far from
  // every point of the line, yet inside the range of each feature.
  for (int i = 0; i < 40; ++i) {
    history("h" + std::to_string(i + 1), {{"BACKUP_TIME", std::to_string(i + 1)},
                                          {"NUM_FILES", std::to_string(100 + i)},
                                          {"IMAGE_SIZE", std::to_string(1000 + i)}});
  }
  model("0.5");
  queue(job("k1", {{"NUM_FILES", "100"}, {"IMAGE_SIZE", "1039"}}));
  const TextRow queued = pending_row("k1");

  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Re-calibration is required for job 42"),
                             info("Valid record considered based on cluster range analysis.")}}));

  EXPECT_EQ(queue_state(), Strings{});
  EXPECT_EQ(count("HIST_DATA"), 41);
  EXPECT_EQ(history_row("k1"), as_history(queued, "-1"));
  EXPECT_EQ(model_rows(), Strings{});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

TEST_F(DetectionPassOutcome, OutlierOutsideItsNearestClusterRangeIsReportedAsAnomaly) {
  usual_history(40);
  model("0.5");
  queue(job("k1", kFarFeatures));
  const TextRow queued = pending_row("k1");

  // Row 0 sits sqrt(40) standard deviations out in each of the five
  // columns, the history -1/sqrt(40): a distance of 41/sqrt(8).
  EXPECT_EQ(pass(), concat({{kSetUp1, kSetUp2},
                            detection_lines("0.500000", 0, "0.500000"),
                            {info("Anomaly detected for job 42"), info("Closest cluster for this anomaly 1"),
                             info("Closest cluster distance for this anomaly 14.495689")}}));

  EXPECT_EQ(queue_state(), Strings{"k1:1"});
  TextRow still_queued = queued;
  still_queued["PROCESSED_STATUS"] = "1";
  EXPECT_EQ(pending_row("k1"), still_queued);
  EXPECT_EQ(count("HIST_DATA"), 40);
  EXPECT_EQ(history_row("k1"), TextRow{});
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|0.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{"42_1000000|0|k1|c1|1700000000"});
  EXPECT_EQ(feedback_rows(), Strings{});

  json_t* root = stored_payload("42_1000000");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(json_object_size(root), 4u);
  EXPECT_EQ(json_member(root, "DetectionType"), "dbscan");
  EXPECT_EQ(json_member(root, "DetectionTime"), "2023-11-14T22:13:20.66Z");
  EXPECT_EQ(json_member(root, "SizeUnit"), "MB");
  json_t* attributes = json_object_get(root, "Attributes");
  ASSERT_TRUE(json_is_object(attributes));
  EXPECT_EQ(json_object_size(attributes), 16u);
  ASSERT_TRUE(json_is_integer(json_object_get(attributes, "jobid")));
  EXPECT_EQ(json_integer_value(json_object_get(attributes, "jobid")), 42);
  EXPECT_EQ(json_member(attributes, "clientName"), "c1");
  EXPECT_EQ(json_member(attributes, "policyName"), "p1");
  EXPECT_EQ(json_member(attributes, "policyType"), "Standard");
  EXPECT_EQ(json_member(attributes, "scheduleName"), "daily");
  EXPECT_EQ(json_member(attributes, "anomalyImageSize"), "10.00 MB (Usual: 1.00 MB - 1.00 MB)");
  EXPECT_EQ(json_member(attributes, "anomalyBackupFilesCount"), "5000 (Usual: 100 - 100)");
  EXPECT_EQ(json_member(attributes, "anomalyDataTransferred"), "20.00 MB (Usual: 2.00 MB - 2.00 MB)");
  EXPECT_EQ(json_member(attributes, "anomalyTimeTaken"), "6000 (Usual: 600 - 600)");
  EXPECT_EQ(json_member(attributes, "anomalyDeduplicationRatio"), "0.5 (Usual: 2.5 - 2.5)");
  EXPECT_EQ(json_member(attributes, "anomalyFeedback"), "Report as false positive");
  EXPECT_EQ(json_member(attributes, "anomalyId"), "42_1000000");
  EXPECT_EQ(json_member(attributes, "summary"),
            "Anomaly image size,Backup files count,Data transferred,Total time,Deduplication ratio");
  EXPECT_EQ(json_member(attributes, "count"), "5");
  EXPECT_EQ(json_member(attributes, "score"), "14.50");
  EXPECT_EQ(json_member(attributes, "storageName"), "stu1");
  json_decref(root);
}

TEST_F(DetectionPassOutcome, InnerFailureLeavesTheJobPendingAndTellsStandardOutput) {
  // The job's storage has no history, so the two-feature fallback across
  // storages is taken; the job itself still offers all five features, and
  // the ragged matrix makes standardisation fail.
  usual_history(40, {{"DESTINATION_STORAGE_NAME", "stu2"}});
  queue(job("k1"));

  testing::internal::CaptureStdout();
  const Strings lines = pass();
  const std::string out = testing::internal::GetCapturedStdout();

  EXPECT_EQ(out, "\nUnexpected error during anomaly detection.");
  EXPECT_EQ(lines, (Strings{kSetUp1, kSetUp2,
                            info("Getting training set for detection client - c1, policy - p1 and job - 42."),
                            info("Detection using historical data."),
                            info("Completed getting training data set for detection."),
                            info("Calibrated model parameters for client - c1 , policy - p1, policy type - "
                                 "Standard, schedule name - daily"),
                            info("EPS value = 2.500000"), info("Preparing input data for detection."),
                            info("Completed preparing input data for detection."), info("Calling StandardizeData.")}));

  EXPECT_EQ(queue_state(), Strings{"k1:0"});
  EXPECT_EQ(count("HIST_DATA"), 40);
  EXPECT_EQ(history_row("k1"), TextRow{});
  // Calibration ran on the fallback set and stored its eps under the job's
  // own storage.
  EXPECT_EQ(model_rows(), Strings{"c1|p1|Standard|FULL|daily|app|2.5|1700000000|stu1|vm1"});
  EXPECT_EQ(anomaly_rows(), Strings{});
  EXPECT_EQ(feedback_rows(), Strings{});
}

}  // namespace
}  // namespace pass_test
