// TokenWatch: the console's token as its file holds it now, so that an
// operator who replaces the token locks out whoever held the old one without
// a restart. Each look compares the file's identity, size and times with the
// last read and reads a changed file again, with AccessToken's checks; the
// look says whether the token changed, for the caller to end every session.
// A file that became unusable yields no token (every credential is refused)
// until it is mended. Thread-safe.
#pragma once

#include <sys/stat.h>

#include <mutex>
#include <optional>
#include <string>

class TokenWatch {
 public:
  // path empty: token is fixed for the server's life.
  TokenWatch(std::string path, std::string token);

  struct Look {
    std::optional<std::string> token;
    bool changed = false;  // since the previous look
  };
  Look look();

 private:
  struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{}, changed{};
    bool operator==(const Stamp& other) const;
  };
  static std::optional<Stamp> stamp_of(const std::string& path);

  std::mutex mutex_;
  const std::string path_;
  std::optional<std::string> token_;
  std::optional<Stamp> stamp_;
};
