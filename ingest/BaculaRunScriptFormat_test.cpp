#include "ingest/BaculaRunScriptFormat.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/CollectingJobSink.h"

namespace {

using tsanomaly_test::CollectingJobSink;

// One line as the shipped hook writes it for an incremental of 300 files.
std::string hook_line(const std::string& jobid = "12", const std::string& status = "OK") {
  return "jobid=" + jobid + "\tjob=files." + jobid +
         "\tname=files\tclient=web-fd\tlevel=Incremental\tjobstatus=" + status +
         "\tstarttime=1795600000\tendtime=1795600042\tjobfiles=300\tjobbytes=1048576\treadbytes=3145728"
         "\tfileset=Full Set\tpool=File\tdirector=t-dir\n";
}

CollectingJobSink read(const std::string& input) {
  std::istringstream in(input);
  CollectingJobSink sink;
  read_bacula_runscript(in, sink);
  return sink;
}

TEST(BaculaRunScriptFormat, MapsEveryFeatureAndKeyOfTheHookLine) {
  const auto sink = read(hook_line());
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_TRUE(sink.skips.empty());
  const IngestedJob& job = sink.jobs[0];
  EXPECT_EQ(job.tool, "bacula");
  EXPECT_EQ(job.tool_job_id, "files.12");
  EXPECT_EQ(job.client, "web-fd");
  EXPECT_EQ(job.policy, "files");
  EXPECT_EQ(job.schedule_type, "Incremental");
  EXPECT_EQ(job.storage, "File");
  EXPECT_EQ(job.asset, "Full Set");
  EXPECT_EQ(job.start_time, 1795600000);
  EXPECT_EQ(job.end_time, 1795600042);
  EXPECT_DOUBLE_EQ(job.num_files, 300);
  EXPECT_DOUBLE_EQ(job.image_size_kb, 3072);
  EXPECT_DOUBLE_EQ(job.kb_transferred, 1024);
  EXPECT_DOUBLE_EQ(job.total_time_s, 42);
  EXPECT_DOUBLE_EQ(job.dedup_rate, 3);
}

TEST(BaculaRunScriptFormat, ReadsTheCatalogsLocalTimeTextAndLevelLetter) {
  std::string line = hook_line();
  line.replace(line.find("starttime=1795600000"), 20, "starttime=2026-11-20 23:05:00");
  line.replace(line.find("endtime=1795600042"), 18, "endtime=2026-11-20 23:06:40");
  line.replace(line.find("level=Incremental"), 17, "level=D");
  const auto sink = read(line);
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_EQ(sink.jobs[0].schedule_type, "Differential");
  EXPECT_DOUBLE_EQ(sink.jobs[0].total_time_s, 100);
}

TEST(BaculaRunScriptFormat, AFailedJobIsSkippedWithItsStatusAndTheOthersDelivered) {
  const auto sink = read(hook_line("11") + hook_line("12", "Error") + hook_line("13", "T"));
  ASSERT_EQ(sink.jobs.size(), 2u);
  EXPECT_EQ(sink.jobs[1].tool_job_id, "files.13");
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "line 2 (JobId 12)");
  EXPECT_NE(sink.skips[0].second.find("\"Error\""), std::string::npos);
}

TEST(BaculaRunScriptFormat, ATruncatedLineNamesWhatIsMissing) {
  const std::string line = hook_line();
  const auto sink = read(line.substr(0, line.find("\tjobfiles=")) + "\n" + hook_line("13"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "line 1 (JobId 12)");
  EXPECT_NE(sink.skips[0].second.find("no jobfiles"), std::string::npos);
}

TEST(BaculaRunScriptFormat, AnotherToolsOutputIsRefusedLineByLine) {
  const auto sink = read("{\"message_type\":\"summary\",\"files_new\":3}\nArchive name: x\n");
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 2u);
  EXPECT_NE(sink.skips[0].second.find("not key=value"), std::string::npos);
  EXPECT_EQ(sink.skips[1].first, "line 2");
}

TEST(BaculaRunScriptFormat, NegativeHugeAndNonNumericCountsAreRefused) {
  for (const char* bad : {"-5", "99999999999999999999", "12abc", "1e3", ""}) {
    std::string line = hook_line();
    line.replace(line.find("jobfiles=300"), 12, std::string("jobfiles=") + bad);
    const auto sink = read(line + hook_line("13"));
    EXPECT_EQ(sink.jobs.size(), 1u) << bad;
    ASSERT_EQ(sink.skips.size(), 1u) << bad;
    EXPECT_NE(sink.skips[0].second.find("jobfiles"), std::string::npos) << bad;
  }
}

TEST(BaculaRunScriptFormat, ImpossibleTimesAreRefused) {
  for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
           {"endtime=1795600042", "endtime=1795599999"},            // ends before it starts
           {"starttime=1795600000", "starttime=2026-13-01 10:00:00"},  // no such month
           {"starttime=1795600000", "starttime=yesterday"},
           {"endtime=1795600042", "endtime=99999999999999"}}) {
    std::string line = hook_line();
    line.replace(line.find(from), from.size(), to);
    const auto sink = read(line);
    EXPECT_TRUE(sink.jobs.empty()) << to;
    EXPECT_EQ(sink.skips.size(), 1u) << to;
  }
}

TEST(BaculaRunScriptFormat, NamesThatAreNotPrintableUtf8AreRefused) {
  for (const std::string& bad : {std::string("web\xff-fd"), std::string("web\x1b[2J"), std::string(2000, 'a')}) {
    std::string line = hook_line();
    line.replace(line.find("client=web-fd"), 13, "client=" + bad);
    const auto sink = read(line);
    EXPECT_TRUE(sink.jobs.empty());
    ASSERT_EQ(sink.skips.size(), 1u);
    EXPECT_NE(sink.skips[0].second.find("client"), std::string::npos);
  }
}

TEST(BaculaRunScriptFormat, ATenMegabyteLineIsSkippedAndTheNextLineRead) {
  const auto sink = read("jobid=1\tname=" + std::string(10 << 20, 'x') + "\n" + hook_line("13"));
  ASSERT_EQ(sink.jobs.size(), 1u);
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_EQ(sink.skips[0].first, "line 1");
  EXPECT_NE(sink.skips[0].second.find("longer than"), std::string::npos);
}

TEST(BaculaRunScriptFormat, AKeyGivenTwiceIsRefused) {
  const auto sink = read("jobid=1\t" + hook_line());
  EXPECT_TRUE(sink.jobs.empty());
  ASSERT_EQ(sink.skips.size(), 1u);
  EXPECT_NE(sink.skips[0].second.find("jobid comes twice"), std::string::npos);
}

TEST(BaculaRunScriptFormat, AJobThatWroteNothingHasARatioOfZero) {
  std::string line = hook_line();
  line.replace(line.find("jobbytes=1048576"), 16, "jobbytes=0");
  line.replace(line.find("readbytes=3145728"), 17, "readbytes=0");
  const auto sink = read(line);
  ASSERT_EQ(sink.jobs.size(), 1u);
  EXPECT_DOUBLE_EQ(sink.jobs[0].dedup_rate, 0);
}

TEST(BaculaRunScriptFormat, EmptyAndBlankInputsDeliverNothing) {
  for (const std::string& input : {std::string(), std::string("\n  \n\r\n")}) {
    const auto sink = read(input);
    EXPECT_TRUE(sink.jobs.empty());
    EXPECT_TRUE(sink.skips.empty());
  }
}

}  // namespace
