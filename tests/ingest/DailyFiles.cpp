#include "tests/ingest/DailyFiles.h"

#include <filesystem>
#include <fstream>

#include "tests/support/TempDir.h"

namespace tsanomaly_test {

// Log-like lines: compressible about threefold, as real text files are.
std::string DailyFiles::text(std::size_t bytes) {
  std::string out;
  std::uniform_int_distribution<int> value(0, 99999);
  while (out.size() < bytes) out += "row " + std::to_string(out.size()) + " status ok value " + std::to_string(value(random_)) + "\n";
  out.resize(bytes);
  return out;
}

void DailyFiles::write_new(const std::string& path) {
  TempDir::write(path, text(std::uniform_int_distribution<std::size_t>(500, 3000)(random_)));
}

void DailyFiles::create(int count) {
  for (int i = 0; i < count; ++i) {
    files_.push_back(folder_ + "/file-" + std::to_string(next_name_++) + ".log");
    write_new(files_.back());
  }
}

void DailyFiles::churn(int edited, int added, int removed) {
  for (int i = 0; i < edited; ++i) write_new(files_[pick()]);
  for (int i = 0; i < removed; ++i) {
    const std::size_t at = pick();
    std::filesystem::remove(files_[at]);
    files_.erase(files_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  create(added);
}

void DailyFiles::encrypt(double share) {
  std::uniform_int_distribution<int> byte(0, 255);
  for (std::size_t i = 0; i < files_.size() * share; ++i) {
    const std::string& path = files_[i];
    std::string noise(std::filesystem::file_size(path), '\0');
    for (char& c : noise) c = static_cast<char>(byte(random_));
    TempDir::write(path, noise);
  }
}

void DailyFiles::delete_share(double share) {
  const auto doomed = static_cast<std::size_t>(files_.size() * share);
  for (std::size_t i = 0; i < doomed; ++i) std::filesystem::remove(files_[i]);
  files_.erase(files_.begin(), files_.begin() + static_cast<std::ptrdiff_t>(doomed));
}

}  // namespace tsanomaly_test
