// Another local user prepares the ground, root runs the programs: symbolic
// links planted (as `nobody`, through setpriv) under the names the report
// and the log are written to must never redirect a write. The machine's
// fs.protected_symlinks is left as it is; the shared folders here are not
// sticky, so the kernel's protection does not apply and only the programs'
// own care stands between the planter and the victim file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "schema/AnomalySchema.h"
#include "storage/DBAccess.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

namespace {

constexpr const char* kSetpriv = "/usr/bin/setpriv";
constexpr const char* kVictimText = "root's secret, mode 0600\n";

class SymlinkPlantTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "planting as another user needs root";
    if (access(kSetpriv, X_OK) != 0) GTEST_SKIP() << "setpriv (util-linux) is not installed";
    // nobody may pass through the test's folder and write to shared/ only.
    ASSERT_EQ(chmod(dir.path().c_str(), 0711), 0);
    ASSERT_EQ(mkdir(shared().c_str(), 0777), 0);
    ASSERT_EQ(chmod(shared().c_str(), 0777), 0);
    ASSERT_EQ(mkdir(dir.file("private").c_str(), 0700), 0);
    TempDir::write(victim(), kVictimText);
    ASSERT_EQ(chmod(victim().c_str(), 0600), 0);
    DBAccess db(dir.file("private/anomaly.db"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.execute_query(anomaly_schema::anomaly_db_sql());
  }

  std::string shared() const { return dir.file("shared"); }
  std::string victim() const { return dir.file("private/victim"); }
  std::string database() const { return dir.file("private/anomaly.db"); }

  // Runs a command as nobody; true when it succeeded.
  static bool as_nobody(const std::vector<std::string>& command) {
    std::vector<std::string> argv = {kSetpriv, "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"};
    argv.insert(argv.end(), command.begin(), command.end());
    ChildProcess child(argv);
    return ChildProcess::run(child) == 0;
  }

  static bool plant_link(const std::string& target, const std::string& link) {
    return as_nobody({"/bin/ln", "-s", target, link});
  }

  void expect_victim_intact() const {
    EXPECT_EQ(TempDir::read(victim()), kVictimText);
    struct stat st {};
    ASSERT_EQ(stat(victim().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
  }

  // Runs the detector with its log under log_path; returns its exit code.
  int run_detector(const std::string& log_path, std::string* err = nullptr) const {
    ChildProcess child({TSANOMALYCTL_PATH, "detect", "-database_location", dir.file("private"),
                        "-database_file_name", "anomaly.db", "-log_path", log_path});
    const int code = ChildProcess::run(child);
    if (err != nullptr) *err = child.err();
    return code;
  }

  TempDir dir;
};

// Starts `tsanomalyctl report` held at a gate, so its process id (which the
// old temporary name was made of) is known before it writes anything.
class GatedReport {
 public:
  GatedReport(const std::string& database, const std::string& output) {
    int gate[2];
    if (pipe(gate) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ == 0) {
      close(gate[1]);
      char go;
      if (read(gate[0], &go, 1) != 1) _exit(126);
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
      execl(TSANOMALYCTL_PATH, TSANOMALYCTL_PATH, "report", database.c_str(), "-o", output.c_str(), nullptr);
      _exit(127);
    }
    close(gate[0]);
    gate_ = gate[1];
  }

  pid_t pid() const { return pid_; }

  // Opens the gate and returns the report's exit code.
  int finish() {
    const char go = 'g';
    if (write(gate_, &go, 1) != 1) return -1;
    close(gate_);
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int gate_ = -1;
};

}  // namespace

TEST_F(SymlinkPlantTest, LinksUnderThePredictableTemporaryNamesOfAReportAreNeverFollowed) {
  const std::string output = shared() + "/report.html";
  GatedReport report(database(), output);
  for (const std::string& name : {output + ".tmp." + std::to_string(report.pid()), output + ".tmp"}) {
    ASSERT_TRUE(plant_link(victim(), name)) << name;
  }
  EXPECT_EQ(report.finish(), 0);
  expect_victim_intact();
  EXPECT_NE(TempDir::read(output).find("<!DOCTYPE html>"), std::string::npos);
}

TEST_F(SymlinkPlantTest, ALinkPlantedAtTheReportsOwnNameIsReplacedNotWrittenThrough) {
  const std::string output = shared() + "/report.html";
  ASSERT_TRUE(plant_link(victim(), output));
  ChildProcess report({TSANOMALYCTL_PATH, "report", database(), "-o", output});
  EXPECT_EQ(ChildProcess::run(report), 0) << report.err();
  expect_victim_intact();
  struct stat st {};
  ASSERT_EQ(lstat(output.c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_uid, 0u);
}

TEST_F(SymlinkPlantTest, ALogFolderPreparedByAnotherUserIsRefused) {
  ASSERT_TRUE(as_nobody({"/bin/mkdir", shared() + "/tsanomalydetect"}));
  ASSERT_TRUE(plant_link(victim(), shared() + "/tsanomalydetect/tsanomalydetect.log"));
  std::string err;
  EXPECT_EQ(run_detector(shared(), &err), 1);
  EXPECT_EQ(err, "Failed to setup logging at [" + shared() + "/tsanomalydetect]\n");
  expect_victim_intact();
}

TEST_F(SymlinkPlantTest, ALogFolderThatIsALinkIsRefused) {
  ASSERT_TRUE(plant_link(dir.file("private"), shared() + "/tsanomalydetect"));
  std::string err;
  EXPECT_EQ(run_detector(shared(), &err), 1);
  EXPECT_EQ(err, "Failed to setup logging at [" + shared() + "/tsanomalydetect]\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("private/tsanomalydetect.log")));
}

TEST_F(SymlinkPlantTest, ALinkAtTheLogFileInAWritableFolderIsNotFollowed) {
  ASSERT_EQ(mkdir((shared() + "/tsanomalydetect").c_str(), 0777), 0);
  ASSERT_EQ(chmod((shared() + "/tsanomalydetect").c_str(), 0777), 0);
  ASSERT_TRUE(plant_link(victim(), shared() + "/tsanomalydetect/tsanomalydetect.log"));
  EXPECT_EQ(run_detector(shared()), 1);
  expect_victim_intact();
}

TEST_F(SymlinkPlantTest, TheDetectorStillLogsIntoItsOwnFolder) {
  ASSERT_EQ(run_detector(dir.file("private")), 0);
  EXPECT_NE(TempDir::read(dir.file("private/tsanomalydetect/tsanomalydetect.log")).find("dbscan_detection"),
            std::string::npos);
}
