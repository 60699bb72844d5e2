// Secrets read from files and systemd credentials: the line itself, and
// each file that must be refused (a link, a folder, open to every user,
// owned by another user, empty, too large, with a control character), plus
// credential names without a credentials folder.
#include "alerts/SecretFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/TempDir.h"

namespace {

using tsanomaly_test::TempDir;

class SecretFileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    const std::string path = dir.file(name);
    TempDir::write(path, text);
    chmod(path.c_str(), mode);
    return path;
  }
  void TearDown() override { unsetenv("CREDENTIALS_DIRECTORY"); }
  TempDir dir;
};

void expect_refused(const Secret& secret, const std::string& why) {
  EXPECT_EQ(secret.text, "");
  EXPECT_NE(secret.error.find(why), std::string::npos) << secret.error;
}

TEST_F(SecretFileTest, ReadsTheFirstLineWithoutItsEnd) {
  const Secret secret = secret_file::read("URL_FILE", write("url", "https://hooks.example/T0/B0\r\nignored\n"));
  EXPECT_EQ(secret.error, "");
  EXPECT_EQ(secret.text, "https://hooks.example/T0/B0");
  // Readable by its group (root:tsanomaly 0640, as the package sets it up).
  EXPECT_EQ(secret_file::read("URL_FILE", write("group", "Bearer abc\n", 0640)).text, "Bearer abc");
}

TEST_F(SecretFileTest, RefusesWhatOthersCouldHavePlantedOrRead) {
  const std::string good = write("good", "Bearer abc\n");
  const std::string link = dir.file("link");
  ASSERT_EQ(symlink(good.c_str(), link.c_str()), 0);
  expect_refused(secret_file::read("AUTHORIZATION_FILE", link), "AUTHORIZATION_FILE '" + link + "' is a symbolic link");
  expect_refused(secret_file::read("URL_FILE", dir.path()), "is not a regular file");
  expect_refused(secret_file::read("URL_FILE", write("open", "x\n", 0644)), "may be read or changed by every user");
  expect_refused(secret_file::read("URL_FILE", dir.file("absent")), "cannot be read: No such file or directory");
  expect_refused(secret_file::read("URL_FILE", write("empty", "\n")), "is empty");
  expect_refused(secret_file::read("URL_FILE", write("escape", "Bearer \x1b[2Jx\n")),
                 "holds a control or invisible character");
  expect_refused(secret_file::read("URL_FILE", write("large", std::string(secret_file::kMaxBytes + 1, 'a'))),
                 "is larger than 4096 bytes");
}

TEST_F(SecretFileTest, RefusesAFileOfAnotherUserOrGroup) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  const std::string theirs = write("theirs", "Bearer abc\n");
  ASSERT_EQ(chown(theirs.c_str(), 1, 0), 0);  // daemon's
  expect_refused(secret_file::read("URL_FILE", theirs), "belongs to a user other than root");
  const std::string group = write("group", "Bearer abc\n", 0640);
  ASSERT_EQ(chown(group.c_str(), 0, 1), 0);
  expect_refused(secret_file::read("URL_FILE", group), "by a group other than root's");
}

TEST_F(SecretFileTest, ACredentialNameIsReadFromTheCredentialsFolder) {
  write("webhook-url", "https://hooks.example/cred\n", 0400);
  expect_refused(secret_file::read("URL_FILE", "webhook-url"), "the process got no credentials (LoadCredential=");
  setenv("CREDENTIALS_DIRECTORY", dir.path().c_str(), 1);
  const Secret secret = secret_file::read("URL_FILE", "webhook-url");
  EXPECT_EQ(secret.error, "");
  EXPECT_EQ(secret.text, "https://hooks.example/cred");
  expect_refused(secret_file::read("URL_FILE", "../webhook-url"), "is neither an absolute path nor a credential name");
  expect_refused(secret_file::read("URL_FILE", ".."), "is neither an absolute path nor a credential name");
}

}  // namespace
