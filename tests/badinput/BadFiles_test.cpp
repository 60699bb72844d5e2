// Configuration and log files that are not what they should be: an INI file
// of binary garbage, an empty one, one with a 1 MB value, one that is a pipe
// or a device, and a log folder that disappears while the service runs. The
// configuration never stops a pass (it falls back to its defaults) and the
// log never stops the detector.
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "platform/DebugLog.h"
#include "tests/badinput/BadInputFixture.h"
#include "tests/support/ChildProcess.h"

namespace badinput {
namespace {

// A usual job k1 and a far job k2 of a workload with 40 history rows and a
// stored eps of 0.5.
class BadConfiguration : public BadInputTest {
 protected:
  void seed() {
    usual_history(40);
    model("0.5");
    queue(job("k1"));
    queue(job("k2", Cells{{"JOB_ID", "43"}} + pass_test::kFarFeatures));
  }

  // The pass with the default settings: k1 accepted, k2 reported, eps as
  // stored.
  void expect_defaults_in_force(const PassOutput& result) {
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(has_line(result.log, info("Using sensitivity parameter 0"))) << testing::PrintToString(result.log);
    EXPECT_TRUE(has_line(result.log, info("Adjusted eps = 0.500000 ")));
    EXPECT_EQ(queue_state(), Strings{"k2:1"});
    EXPECT_EQ(history_row("k1")["JOB_ID"], "42");
    EXPECT_EQ(anomaly_rows(), Strings{"43_1000000|0|k2|c1|1700000000"});
  }

  static std::string binary_garbage() {
    std::string bytes("\x7f" "ELF\x02\x01\x01", 7);
    bytes.append(9, '\0');
    for (int i = 0; i < 65536; ++i) bytes.push_back(static_cast<char>((i * 37 + 11) % 256));
    return bytes;
  }
};

TEST_F(BadConfiguration, BinaryGarbageFileLeavesTheDefaultsInForce) {
  write_ini(binary_garbage());
  seed();
  expect_defaults_in_force(pass_capturing_stdout());
}

TEST_F(BadConfiguration, GarbageAfterValidSettingsKeepsTheSettingsReadBeforeIt) {
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=c1\n" + binary_garbage());
  seed();

  EXPECT_EQ(pass(), (Strings{kSetUp1, kSetUp2, info("Ignoring client 'c1' for detection as per configuration."),
                             info("Ignoring client 'c1' for detection as per configuration.")}));
  EXPECT_EQ(queue_state(), Strings{});
}

TEST_F(BadConfiguration, EmptyFileLeavesTheDefaultsInForce) {
  write_ini("");
  seed();
  expect_defaults_in_force(pass_capturing_stdout());
}

TEST_F(BadConfiguration, FileOfNulBytesLeavesTheDefaultsInForce) {
  write_ini(std::string(100000, '\0'));
  seed();
  expect_defaults_in_force(pass_capturing_stdout());
}

// The importer keeps the first 4093 characters of an over-long value and
// stops there. 4093 nines read by strtol saturate, and the low 32 bits of
// the saturated value are -1.
TEST_F(BadConfiguration, OneMegabyteSensitivityValueIsCutAndReadsAsMinusOnePercent) {
  write_ini("[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=" + std::string(1 << 20, '9') + "\n");
  seed();

  const Strings log = pass();

  EXPECT_TRUE(has_line(log, info("Using sensitivity parameter -1"))) << testing::PrintToString(log);
  EXPECT_TRUE(has_line(log, info("Adjusted eps = 0.495000 ")));
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
}

TEST_F(BadConfiguration, OneMegabyteExclusionListIsCutAtTheImporterBufferAndTheSettingsAfterItAreNotRead) {
  std::string clients = "c1";
  while (clients.size() < (1u << 20)) clients += ",client-" + std::to_string(clients.size());
  write_ini("[EXCLUDE_CLIENTS]\nCLIENT_NAME=" + clients +
            "\n[ANOMALY_DETECTION_SENSITIVITY]\nSENSITIVITY_PERCENTAGE=50\n");
  seed();

  const auto started = std::chrono::steady_clock::now();
  const Strings log = pass();
  const auto took = std::chrono::steady_clock::now() - started;

  EXPECT_EQ(log, (Strings{kSetUp1, kSetUp2, info("Ignoring client 'c1' for detection as per configuration."),
                          info("Ignoring client 'c1' for detection as per configuration.")}));
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST_F(BadConfiguration, OneMegabyteSectionNameLeavesTheDefaultsInForce) {
  write_ini("[" + std::string(1 << 20, 'S') + "]\nK=1\n");
  seed();
  expect_defaults_in_force(pass_capturing_stdout());
}

// One pass of the one-pass tool on the fixture's database with the given
// configuration path, in its own process: it is killed if it has not ended
// after 10 s. Returns its exit code, or -1 when it did not exit by itself.
class ConfigurationInAProcess : public BadConfiguration {
 protected:
  int detect_with(const std::string& config_file) {
    service.reset();
    tool = std::make_unique<tsanomaly_test::ChildProcess>(std::vector<std::string>{
        TSANOMALYCTL_PATH, "detect", "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-eps",
        "0.5", "-log_path", dir.path(), "-config_file", config_file});
    const int code = tsanomaly_test::ChildProcess::run(*tool, std::chrono::seconds(10));
    service = std::make_unique<DetectionService>(dir.path(), "anomaly.db", 0.5, 3.0, ini_path());
    return code;
  }
  std::unique_ptr<tsanomaly_test::ChildProcess> tool;
};

// Opening a pipe for reading waits for a writer, which may never come.
TEST_F(ConfigurationInAProcess, PipeInPlaceOfTheFileNeitherHangsNorCrashesThePass) {
  seed();
  const std::string pipe = dir.file("pipe.ini");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);

  EXPECT_EQ(detect_with(pipe), 0) << (tool->timed_out() ? "the pass hung" : "the pass crashed");
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
}

TEST_F(ConfigurationInAProcess, EndlessDeviceInPlaceOfTheFileNeitherHangsNorCrashesThePass) {
  seed();

  EXPECT_EQ(detect_with("/dev/zero"), 0) << (tool->timed_out() ? "the pass hung" : "the pass crashed");
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
}

// ---- the log folder ---------------------------------------------------------

class VanishingLogFolder : public BadConfiguration {
 protected:
  void TearDown() override {
    set_debug_log_rotation(50u * 1024u * 1024u, 5);
    BadConfiguration::TearDown();
  }
};

TEST_F(VanishingLogFolder, PassCompletesWhenTheLogFolderIsRemovedWhileTheServiceRuns) {
  seed();
  const std::string folder = dir.file("tsanomalydetect");
  const std::string log_file = debug_log_path();
  ASSERT_FALSE(log_file.empty());
  std::filesystem::remove_all(folder);

  const PassOutput first = pass_capturing_stdout();

  EXPECT_EQ(first.out, "");
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
  EXPECT_EQ(history_row("k1")["JOB_ID"], "42");
  EXPECT_EQ(anomaly_rows(), Strings{"43_1000000|0|k2|c1|1700000000"});
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_EQ(debug_log_path(), log_file);
}

// Rotation renames and re-creates files in the folder; with the folder gone
// both fail and the detector goes on writing to the file it has open.
TEST_F(VanishingLogFolder, RotationWithTheFolderGoneKeepsLoggingAndThePassCompletes) {
  seed();
  set_debug_log_rotation(256, 2);
  std::filesystem::remove_all(dir.file("tsanomalydetect"));

  const PassOutput first = pass_capturing_stdout();
  queue(job("k3", {{"JOB_ID", "44"}}));
  const PassOutput second = pass_capturing_stdout();

  EXPECT_EQ(first.out + second.out, "");
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
  EXPECT_EQ(history_row("k3")["JOB_ID"], "44");
}

TEST_F(VanishingLogFolder, LogFolderReplacedByAFileStillLetsThePassComplete) {
  seed();
  set_debug_log_rotation(256, 2);
  const std::string folder = dir.file("tsanomalydetect");
  std::filesystem::remove_all(folder);
  tsanomaly_test::TempDir::write(folder, "not a folder");

  const PassOutput result = pass_capturing_stdout();

  EXPECT_EQ(result.out, "");
  EXPECT_EQ(queue_state(), Strings{"k2:1"});
  EXPECT_EQ(tsanomaly_test::TempDir::read(folder), "not a folder");
}

}  // namespace
}  // namespace badinput
