#include "tests/ingest/ChurningFolder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace tsanomaly_test {

ChurningFolder::ChurningFolder(std::string path, std::size_t files, unsigned seed)
    : path_(std::move(path)), random_(seed) {
  if (mkdir(path_.c_str(), 0700) != 0) throw std::runtime_error("cannot create " + path_);
  add_files(files);
}

void ChurningFolder::write_file(const std::string& name, std::size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random_() & 0xFF);
  std::ofstream out(path_ + "/" + name, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + name);
}

std::size_t ChurningFolder::file_size(const std::string& name) const {
  struct stat status {};
  if (stat((path_ + "/" + name).c_str(), &status) != 0) throw std::runtime_error("cannot stat " + name);
  return static_cast<std::size_t>(status.st_size);
}

std::size_t ChurningFolder::random_index() { return random_() % names_.size(); }

void ChurningFolder::add_files(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::string name = "file-" + std::to_string(next_name_++);
    write_file(name, 1024 + random_() % 3072);
    names_.push_back(name);
  }
}

void ChurningFolder::remove_files(std::size_t count) {
  for (std::size_t i = 0; i < count && !names_.empty(); ++i) {
    const std::size_t victim = random_index();
    unlink((path_ + "/" + names_[victim]).c_str());
    names_[victim] = names_.back();
    names_.pop_back();
  }
}

void ChurningFolder::normal_day() {
  const std::size_t files = names_.size();
  for (std::size_t i = 0; i < files * 3 / 100; ++i) write_file(names_[random_index()], 1024 + random_() % 3072);
  add_files(files * 3 / 400);
  remove_files(files / 200);
}

void ChurningFolder::ransomware_day() {
  for (std::size_t i = 0; i < names_.size() * 6 / 10; ++i) {
    const std::string& name = names_[i];
    write_file(name, file_size(name));
  }
}

void ChurningFolder::mass_deletion_day() { remove_files(names_.size() * 7 / 10); }

}  // namespace tsanomaly_test
