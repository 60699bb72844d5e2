// ChurningFolder: a folder of small files that lives like a user's data, for
// the end-to-end tests that back it up with a real tool: a few percent of the
// files change each day, some are added, some removed; and the two bad days a
// detector must see, ransomware (most files overwritten with random bytes of
// the same size) and a mass deletion. Deterministic for a given seed.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace tsanomaly_test {

class ChurningFolder {
 public:
  // Creates `path` with `files` files of 1 to 4 KiB.
  ChurningFolder(std::string path, std::size_t files, unsigned seed);

  const std::string& path() const { return path_; }
  std::size_t file_count() const { return names_.size(); }

  // An ordinary day: 3 % of the files rewritten, 0.75 % added, 0.5 % removed.
  void normal_day();
  // 60 % of the files overwritten with random bytes, each keeping its size.
  void ransomware_day();
  // 70 % of the files removed.
  void mass_deletion_day();

 private:
  void write_file(const std::string& name, std::size_t size);
  std::size_t file_size(const std::string& name) const;
  std::size_t random_index();
  void add_files(std::size_t count);
  void remove_files(std::size_t count);

  std::string path_;
  std::vector<std::string> names_;
  std::size_t next_name_ = 0;
  std::mt19937 random_;
};

}  // namespace tsanomaly_test
