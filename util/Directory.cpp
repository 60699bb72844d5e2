#include "util/Directory.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace {

enum class EntryKind { kFolder, kNotFolder };

bool is_dot_entry(const std::string& name) { return name == "." || name == ".."; }

// Lists the names of path's entries of one kind. "." and ".." are folders,
// so they are skipped explicitly for folders and never match for files.
void list_entries(const std::string& path, EntryKind wanted, std::vector<std::string>& out) {
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) {
    return;
  }
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (wanted == EntryKind::kFolder && is_dot_entry(name)) {
      continue;
    }
    const bool folder = Directory::is_folder(Path::Combine(path, name));
    if (folder == (wanted == EntryKind::kFolder)) {
      out.push_back(name);
    }
  }
  closedir(dir);
}

}  // namespace

std::string Path::Combine(const std::string& a, const std::string& b) { return a + "/" + b; }

bool File::Exists(const std::string& path) { return std::ifstream(path).is_open(); }

int File::Delete(const std::string& path) { return Exists(path) ? unlink(path.c_str()) : 0; }

long File::Size(const std::string& path) {
  if (!Exists(path)) {
    return 0;
  }
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  return static_cast<long>(in.tellg()) / 1024;
}

std::string File::ReadAllText(const std::string& path) {
  if (!Exists(path)) {
    throw file_not_found(path);
  }
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void File::WriteAllText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool Directory::CanAccess(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool Directory::Exists(const std::string& path) { return CanAccess(path); }

int Directory::UnlinkFile(const std::string& path) { return Exists(path) ? unlink(path.c_str()) : 0; }

int Directory::RmDir(const std::string& path) { return rmdir(path.c_str()); }

int Directory::MkDir(const std::string& path) { return mkdir(path.c_str(), 0755); }

bool Directory::is_folder(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void Directory::GetDirectories(const std::string& path, std::vector<std::string>& out) {
  list_entries(path, EntryKind::kFolder, out);
}

std::vector<std::string> Directory::GetDirectories(const std::string& path) {
  std::vector<std::string> out;
  GetDirectories(path, out);
  return out;
}

void Directory::GetFiles(const std::string& path, std::vector<std::string>& out) {
  list_entries(path, EntryKind::kNotFolder, out);
}

std::vector<std::string> Directory::GetFiles(const std::string& path) {
  std::vector<std::string> out;
  GetFiles(path, out);
  return out;
}
