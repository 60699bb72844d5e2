// The shipped restic hook with the real restic: five weeks of daily backups
// of a folder with a little churn, queued by the hook, judged by the built
// detector; then a ransomware day and a mass-deletion day, each reported
// with the features that left their range, and a normal day after them
// accepted.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "tests/ingest/IngestFixture.h"

using tsanomaly_test::IngestFixture;

namespace {

constexpr int kFiles = 2000;
constexpr int kNormalDays = 36;
constexpr long long kDay = 86400;

class ResticHookTest : public IngestFixture {
 protected:
  void SetUp() override {
    IngestFixture::SetUp();
    if (access("/usr/bin/restic", X_OK) != 0) GTEST_SKIP() << "restic is not installed";
    std::filesystem::create_directory(source());
    setenv("RESTIC_REPOSITORY", dir.file("repo").c_str(), 1);
    setenv("RESTIC_PASSWORD", "test-only", 1);
    setenv("RESTIC_CACHE_DIR", dir.file("cache").c_str(), 1);
    setenv("TSANOMALY_DB", db.c_str(), 1);
    setenv("TSANOMALYCTL", TSANOMALYCTL_PATH, 1);
    ASSERT_EQ(program({"/usr/bin/restic", "init", "--quiet"}).exit_code, 0);
    for (int i = 0; i < kFiles; ++i) write_file(i, random_bytes(size_of(i)));
    first_day_ = std::time(nullptr) / kDay * kDay - 60 * kDay + 2 * 3600;
  }

  std::string source() const { return dir.file("data"); }
  std::string path_of(int i) const { return source() + "/f" + std::to_string(i); }
  static std::size_t size_of(int i) { return 2048 + (i * 37) % 8192; }

  std::string random_bytes(std::size_t n) {
    std::string bytes(n, '\0');
    for (char& c : bytes) c = static_cast<char>(random_() & 0xff);
    return bytes;
  }
  void write_file(int i, const std::string& bytes) const { std::ofstream(path_of(i), std::ios::binary) << bytes; }

  // A few percent of the files rewritten, some added, some removed.
  void churn() {
    for (int k = 0; k < kFiles * 3 / 100; ++k) {
      const int i = static_cast<int>(random_() % kFiles);
      if (std::filesystem::exists(path_of(i))) write_file(i, random_bytes(size_of(i)));
    }
    for (int k = 0; k < 10; ++k, ++next_file_) write_file(next_file_, random_bytes(size_of(next_file_)));
    for (int k = 0; k < 10; ++k) std::filesystem::remove(path_of(static_cast<int>(random_() % kFiles)));
  }

  // One backup through the shipped hook, dated by --time; answers its key.
  std::string backup(int day) {
    const long long end = first_day_ + day * kDay;
    setenv("TSANOMALY_INGEST_OPTIONS", ("--client webhost --policy data --time " + std::to_string(end)).c_str(), 1);
    const Run run = program({RESTIC_HOOK_PATH, "--host", "webhost", source()});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_NE(run.err.find("1 jobs queued, 0 already queued, 0 skipped"), std::string::npos) << run.err;
    const std::size_t at = run.out.find("\"snapshot_id\":\"");
    return at == std::string::npos ? "" : "restic:" + run.out.substr(at + 15, 8);
  }

  // The payload's summary of the anomaly reported for the job, or "".
  std::string reported(const std::string& key) const {
    const auto summary = column("SELECT json_extract(ANOMALY_PAYLOAD, '$.Attributes.summary') FROM ANOMALY_DATA WHERE "
                                "DETECTION_KEY = '" + key + "'");
    return summary.empty() ? "" : summary[0];
  }
  // The payload's attributes, for the test's log.
  std::string attributes(const std::string& key) const {
    const auto found = column("SELECT json_extract(ANOMALY_PAYLOAD, '$.Attributes') FROM ANOMALY_DATA WHERE "
                              "DETECTION_KEY = '" + key + "'");
    return found.empty() ? "" : found[0];
  }
  void pass() const { ASSERT_EQ(detect().exit_code, 0); }

  std::mt19937_64 random_{20240501};
  int next_file_ = kFiles;
  long long first_day_ = 0;
};

}  // namespace

TEST_F(ResticHookTest, RansomwareAndMassDeletionAreReportedAndANormalDayAccepted) {
  std::vector<std::string> normal;
  for (int day = 0; day < kNormalDays; ++day) {
    if (day > 0) churn();
    normal.push_back(backup(day));
  }
  pass();
  int false_alarms = 0;
  for (const std::string& key : normal) false_alarms += reported(key).empty() ? 0 : 1;
  std::cout << "false alarms on " << kNormalDays << " normal days: " << false_alarms << "\n";
  EXPECT_LE(false_alarms, 1);

  // Ransomware: most files overwritten with random bytes of the same size.
  std::vector<std::string> originals;
  for (int i = 0; i < kFiles; ++i) {
    std::ifstream in(path_of(i), std::ios::binary);
    originals.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  for (int i = 0; i < kFiles * 7 / 10; ++i) {
    if (!originals[i].empty()) write_file(i, random_bytes(originals[i].size()));
  }
  const std::string ransomware = backup(kNormalDays);
  pass();
  std::cout << "ransomware day: " << attributes(ransomware) << "\n";
  EXPECT_NE(reported(ransomware).find("Data transferred"), std::string::npos);
  EXPECT_NE(reported(ransomware).find("Deduplication ratio"), std::string::npos);

  // Mass deletion: the files put back, then most of them removed.
  for (int i = 0; i < kFiles; ++i) {
    if (!originals[i].empty()) write_file(i, originals[i]);
  }
  for (int i = 0; i < kFiles * 8 / 10; ++i) std::filesystem::remove(path_of(i));
  const std::string deletion = backup(kNormalDays + 1);
  pass();
  std::cout << "mass-deletion day: " << attributes(deletion) << "\n";
  EXPECT_NE(reported(deletion).find("Backup files count"), std::string::npos);
  EXPECT_NE(reported(deletion).find("Anomaly image size"), std::string::npos);

  // Everything back, an ordinary day's churn: accepted into the history.
  for (int i = 0; i < kFiles; ++i) {
    if (!originals[i].empty()) write_file(i, originals[i]);
  }
  churn();
  const std::string after = backup(kNormalDays + 2);
  pass();
  EXPECT_EQ(reported(after), "");
  EXPECT_EQ(column("SELECT COUNT(*) FROM HIST_DATA WHERE UNIQUE_KEY = '" + after + "'"), std::vector<std::string>{"1"});
}
