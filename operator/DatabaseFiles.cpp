#include "operator/DatabaseFiles.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

namespace {

constexpr const char* kSuffixes[] = {"", "-journal", "-wal", "-shm"};

std::optional<std::string> real_path(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  if (!real) return std::nullopt;
  return std::string(real.get());
}

// The real path of path's folder joined with its last name, whether or not
// that name exists yet: where a file created at path would be.
std::optional<std::string> resolved_place(const std::string& path) {
  const std::filesystem::path spelled(path);
  const std::string name = spelled.filename().string();
  if (name.empty() || name == "." || name == "..") return real_path(path);
  const auto folder = real_path(spelled.has_parent_path() ? spelled.parent_path().string() : ".");
  if (!folder) return std::nullopt;
  return (std::filesystem::path(*folder) / name).string();
}

// SQLite opens the database through its links and names the companions
// after the file it reached.
std::optional<std::string> resolved_database(const std::string& database) {
  auto real = real_path(database);
  return real ? real : resolved_place(database);
}

bool same_file(const std::string& a, const std::string& b) {
  struct stat sa {}, sb {};
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

namespace database_files {

std::optional<std::string> named_by(const std::string& database, const std::string& output) {
  const auto base = resolved_database(database);
  const auto target = resolved_place(output);
  for (const char* suffix : kSuffixes) {
    if (base && target && *base + suffix == *target) return suffix;
    if (same_file(database + suffix, output) || (base && same_file(*base + suffix, output))) return suffix;
  }
  return std::nullopt;
}

std::string refusal(const std::string& option, const std::string& suffix) {
  return suffix.empty() ? option + " names the database itself; choose another file"
                        : option + " names the database's " + suffix + " file; choose another file";
}

}  // namespace database_files
