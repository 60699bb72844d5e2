// The service executable: option handling, banner, log set-up, start-up
// failures and the clean stop on SIGTERM / SIGINT.
#include <signal.h>
#include <sys/stat.h>

#include "tests/cli/CliFixture.h"

using tsanomaly_test::ChildProcess;

namespace {

class ServiceMainTest : public CliFixture {
 protected:
  // Runs the service with the given options and returns its exit code.
  int run(const std::vector<std::string>& options) {
    child = std::make_unique<ChildProcess>(with({TSANOMALYDETECT_PATH}, options));
    return ChildProcess::run(*child);
  }
  std::unique_ptr<ChildProcess> child;
};

}  // namespace

TEST_F(ServiceMainTest, UnopenableDatabaseReportsOnStandardOutputAndExitsZero) {
  EXPECT_EQ(run(unopenable_database()), 0);
  EXPECT_EQ(child->out(), "\nWorking with " + dir.file("missing/a/b") + "\\c.db" +
                              "\nUsing EPS = 0 and min samples = 3" +
                              "\nError occurred while anomaly detection std::exception");
  EXPECT_EQ(child->err(), "");
  EXPECT_NE(log_text().find("<16> dbscan_detection: Could not create database c.db\n"), std::string::npos);
}

TEST_F(ServiceMainTest, BannerSeparatesLocationAndFileWithOneBackslash) {
  EXPECT_EQ(run({"-database_location", "/a/b", "-database_file_name", "c.db", "-log_path", log_dir()}), 0);
  EXPECT_EQ(child->out().rfind("\nWorking with /a/b\\c.db\nUsing EPS = ", 0), 0u) << child->out();
}

TEST_F(ServiceMainTest, MinSamplesBelowThreeOrMissingOrMalformedIsThree) {
  for (const char* value : {"1", "2x", "-4"}) {
    run(with(unopenable_database(), {"-min_samples", value}));
    EXPECT_NE(child->out().find("and min samples = 3\n"), std::string::npos) << value << ": " << child->out();
  }
  run(unopenable_database());
  EXPECT_NE(child->out().find("and min samples = 3\n"), std::string::npos);
  run(with(unopenable_database(), {"-min_samples", "7"}));
  EXPECT_NE(child->out().find("and min samples = 7\n"), std::string::npos);
}

TEST_F(ServiceMainTest, EpsIsPrintedWithSixSignificantDigits) {
  run(with(unopenable_database(), {"-eps", "0.5"}));
  EXPECT_NE(child->out().find("\nUsing EPS = 0.5 and"), std::string::npos);
  run(with(unopenable_database(), {"-eps", "1234567.8"}));
  EXPECT_NE(child->out().find("\nUsing EPS = 1.23457e+06 and"), std::string::npos);
  run(with(unopenable_database(), {"-eps", "abc"}));
  EXPECT_NE(child->out().find("\nUsing EPS = 0 and"), std::string::npos);
}

TEST_F(ServiceMainTest, FirstValueOfARepeatedOptionWins) {
  run(with(unopenable_database(), {"-eps", "0.4", "-eps", "0.9"}));
  EXPECT_NE(child->out().find("\nUsing EPS = 0.4 and"), std::string::npos) << child->out();
}

TEST_F(ServiceMainTest, OptionWithoutValueSwallowsTheNextOption) {
  run(with(unopenable_database(), {"-config_file", "-eps", "0.4"}));
  EXPECT_NE(child->out().find("\nUsing EPS = 0 and"), std::string::npos) << child->out();
  EXPECT_EQ(log_text().find("Using configuration file"), std::string::npos);
}

TEST_F(ServiceMainTest, ConfigurationFileIsNamedInTheLog) {
  run(with(unopenable_database(), {"-config_file", "/etc/x.ini"}));
  EXPECT_NE(log_text().find("<2> tsanomalydetect: Using configuration file /etc/x.ini\n"), std::string::npos);
}

TEST_F(ServiceMainTest, UnopenableLogDirectoryExitsOneWithOneLineOnStandardError) {
  const std::string bad = dir.file("no/such/dir");
  EXPECT_EQ(run({"-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path", bad}), 1);
  EXPECT_EQ(child->err(), "Failed to setup logging at [" + bad + "/tsanomalydetect]\n");
  EXPECT_EQ(child->out(), "");
}

TEST_F(ServiceMainTest, UnknownOptionsAndStrayParametersAreIgnored) {
  EXPECT_EQ(run(with(unopenable_database(), {"stray", "-unknown", "x", "-eps", "0.25"})), 0);
  EXPECT_NE(child->out().find("\nUsing EPS = 0.25 and"), std::string::npos) << child->out();
}

TEST_F(ServiceMainTest, LogFileIsCreatedWithMode0644UnderUmask022) {
  const mode_t previous = umask(0);  // the service sets its own mask
  run(unopenable_database());
  umask(previous);
  struct stat st {};
  ASSERT_EQ(stat(dir.file("tsanomalydetect/tsanomalydetect.log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(ServiceMainTest, SigtermStopsCleanlyWithExitZero) {
  for (int number : {SIGTERM, SIGINT}) {
    child = std::make_unique<ChildProcess>(std::vector<std::string>{
        TSANOMALYDETECT_PATH, "-database_location", dir.path(), "-database_file_name", "anomaly.db", "-log_path",
        log_dir(), "-eps", "0.5"});
    child->start();
    ASSERT_TRUE(child->wait_for_output("min samples = 3", std::chrono::seconds(20))) << child->out();
    child->send_signal(number);
    const int status = child->wait(std::chrono::seconds(20));
    EXPECT_FALSE(child->timed_out());
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(log_text().find("<2> tsanomalydetect: Stopping on signal " + std::to_string(number) +
                              "; pending jobs stay queued for the next start.\n"),
              std::string::npos)
        << log_text();
  }
}
