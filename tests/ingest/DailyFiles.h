// DailyFiles: a folder of small text files that changes like a real one from
// day to day (a few files edited, some added, some removed), and the two
// attacks a backup anomaly detector must see: ransomware (files overwritten
// with random bytes of the same size) and a mass deletion. Seeded, so every
// run makes the same folder.
#pragma once

#include <random>
#include <string>
#include <vector>

namespace tsanomaly_test {

class DailyFiles {
 public:
  explicit DailyFiles(std::string folder) : folder_(std::move(folder)) {}

  void create(int count);
  // A normal day: the same counts whatever the folder's size, so a day after
  // a mass deletion looks like any other.
  void churn(int edited, int added, int removed);
  // Overwrites this share of the files with random bytes of the same size.
  void encrypt(double share);
  // Deletes this share of the files.
  void delete_share(double share);

 private:
  std::string text(std::size_t bytes);
  void write_new(const std::string& path);
  std::size_t pick() { return std::uniform_int_distribution<std::size_t>(0, files_.size() - 1)(random_); }

  std::string folder_;
  std::vector<std::string> files_;
  std::mt19937 random_{2026};
  int next_name_ = 0;
};

}  // namespace tsanomaly_test
