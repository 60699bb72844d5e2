// TempDir: a fresh folder under the system's temporary directory for one
// test, removed with everything in it when the object goes away. Tests build
// their SQLite files, INI files and logs inside it.
#pragma once

#include <string>

namespace tsanomaly_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const;

  // Helpers for the files a test writes and reads back.
  static std::string read(const std::string& path);
  static void write(const std::string& path, const std::string& text);

 private:
  std::string path_;
};

// The repository's top folder, for tests that load files it ships.
std::string source_dir();

}  // namespace tsanomaly_test
