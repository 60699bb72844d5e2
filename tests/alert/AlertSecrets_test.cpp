// The webhook's URL and Authorization header kept out of the INI file: in
// files of their own or as systemd credentials, delivered to the receiver
// on 127.0.0.1; a secret file others may read, or a link, turns the channel
// off with a message that does not show the secret.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/alert/AlertFixture.h"

namespace {

using tsanomaly_test::ChildProcess;
using tsanomaly_test::TempDir;

class AlertSecrets : public AlertFixture {
 protected:
  void SetUp() override { receiver.start(); }
  void TearDown() override { unsetenv("CREDENTIALS_DIRECTORY"); }
  std::string secret(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    const std::string path = dir.file(name);
    TempDir::write(path, text + "\n");
    chmod(path.c_str(), mode);
    return path;
  }
};

TEST_F(AlertSecrets, UrlAndAuthorizationComeFromFilesOfTheirOwn) {
  const auto ids = detect_anomalies(4);
  ASSERT_FALSE(ids.empty());
  write_ini("[ALERT_WEBHOOK]\nURL_FILE=" + secret("url", receiver.url()) +
            "\nAUTHORIZATION_FILE=" + secret("authorization", "Bearer fr0m-a-file", 0640) + "\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), ids.size()) << log_;
  for (const auto& alert : receiver.received()) EXPECT_EQ(alert.authorization, "Bearer fr0m-a-file");
}

TEST_F(AlertSecrets, SecretsComeFromSystemdCredentials) {
  const auto ids = detect_anomalies(4);
  ASSERT_FALSE(ids.empty());
  secret("webhook-url", receiver.url(), 0400);
  secret("webhook-authorization", "Bearer cr3dential", 0400);
  setenv("CREDENTIALS_DIRECTORY", dir.path().c_str(), 1);
  write_ini("[ALERT_WEBHOOK]\nURL_FILE=webhook-url\nAUTHORIZATION_FILE=webhook-authorization\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  ASSERT_EQ(receiver.received().size(), ids.size()) << log_;
  EXPECT_EQ(receiver.received()[0].authorization, "Bearer cr3dential");
}

TEST_F(AlertSecrets, ASecretOthersMayReadOrALinkTurnsTheChannelOff) {
  ASSERT_FALSE(detect_anomalies(4).empty());
  const std::string url = secret("url", receiver.url());
  const std::string open = secret("open", "Bearer everyone-can-read", 0644);
  write_ini("[ALERT_WEBHOOK]\nURL_FILE=" + url + "\nAUTHORIZATION_FILE=" + open + "\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_NE(log_.find("webhook channel not used: AUTHORIZATION_FILE '" + open +
                      "' may be read or changed by every user"),
            std::string::npos)
      << log_;
  EXPECT_EQ(log_.find("everyone-can-read"), std::string::npos) << log_;
  const std::string link = dir.file("link");
  ASSERT_EQ(symlink(url.c_str(), link.c_str()), 0);
  write_ini("[ALERT_WEBHOOK]\nURL_FILE=" + link + "\n");
  ASSERT_EQ(alert_once(), 0) << log_;
  EXPECT_NE(log_.find("webhook channel not used: URL_FILE '" + link + "' is a symbolic link"), std::string::npos)
      << log_;
  EXPECT_TRUE(receiver.received().empty());
}

TEST_F(AlertSecrets, AMalformedUrlFromAFileIsNotShown) {
  write_ini("[ALERT_WEBHOOK]\nURL_FILE=" + secret("url", "hooks.example/T0/s3cret-path") + "\n");
  ChildProcess test({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(test), 1);
  EXPECT_NE(test.out().find("configuration error: URL from URL_FILE is malformed"), std::string::npos) << test.out();
  EXPECT_EQ(test.out().find("s3cret-path"), std::string::npos) << test.out();
}

TEST_F(AlertSecrets, AKeyAndItsFileTogetherAreRefused) {
  write_ini("[ALERT_WEBHOOK]\nURL=" + receiver.url() + "\nURL_FILE=" + secret("url", receiver.url()) + "\n");
  ChildProcess test({TSANOMALYCTL_PATH, "alert-test", "--config", ini()});
  EXPECT_EQ(ChildProcess::run(test), 1);
  EXPECT_NE(test.out().find("configuration error: set URL or URL_FILE, not both"), std::string::npos) << test.out();
  EXPECT_TRUE(receiver.received().empty());
}

}  // namespace
