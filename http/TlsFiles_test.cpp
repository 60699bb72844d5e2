// What the console refuses to take as its TLS key: anything another user
// could have planted or read, and files too large to be a key.
#include "http/TlsFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "tests/support/TempDir.h"

using tsanomaly_test::TempDir;

namespace {

std::string refusal(const std::string& cert, const std::string& key) {
  try {
    tls_files::load(cert, key);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

class TlsFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TempDir::write(cert, "certificate");
    TempDir::write(key, "key");
    ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
  }
  TempDir dir;
  std::string cert = dir.file("cert.pem");
  std::string key = dir.file("key.pem");
};

}  // namespace

TEST_F(TlsFilesTest, APrivateKeyIsRead) {
  const tls_files::Pem pem = tls_files::load(cert, key);
  EXPECT_EQ(pem.cert, "certificate");
  EXPECT_EQ(pem.key, "key");
}

TEST_F(TlsFilesTest, AKeyOthersMayReadIsRefused) {
  for (const mode_t mode : {0640, 0604, 0660}) {
    ASSERT_EQ(::chmod(key.c_str(), mode), 0);
    EXPECT_NE(refusal(cert, key).find("may be read by other users; run: chmod 600"), std::string::npos) << mode;
  }
  ASSERT_EQ(::chmod(cert.c_str(), 0644), 0);
  ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
  EXPECT_EQ(refusal(cert, key), "") << "a certificate is public";
}

TEST_F(TlsFilesTest, LinksOtherFilesAndStrangersAreRefused) {
  const std::string link = dir.file("link.pem");
  ASSERT_EQ(::symlink(key.c_str(), link.c_str()), 0);
  EXPECT_NE(refusal(cert, link).find("is a symbolic link"), std::string::npos);
  EXPECT_NE(refusal(cert, dir.path()).find("is not a regular file"), std::string::npos);
  EXPECT_NE(refusal(cert, dir.file("missing.pem")).find("cannot be read"), std::string::npos);
  EXPECT_NE(refusal(dir.file("missing.pem"), key).find("TLS certificate"), std::string::npos);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(key.c_str(), 65534, 65534), 0);
    EXPECT_NE(refusal(cert, key).find("belongs to another user"), std::string::npos);
  }
}

TEST_F(TlsFilesTest, FilesTooLargeToBeAKeyAreRefused) {
  TempDir::write(key, std::string(tls_files::kMaxBytes + 1, 'k'));
  ASSERT_EQ(::chmod(key.c_str(), 0600), 0);
  EXPECT_NE(refusal(cert, key).find("larger than 256 KiB"), std::string::npos);
}
