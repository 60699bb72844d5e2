// Static helpers over POSIX file-system calls: Path joins path parts, File
// answers questions about one file, Directory about folders. They never throw
// for file-system errors (they return the system call's result or false);
// only File::ReadAllText reports a missing file, as file_not_found.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

class file_not_found : public std::exception {
 public:
  explicit file_not_found(const std::string& path) : message_("File not found '" + path + "'.") {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

class Path {
 public:
  // a + "/" + b, always: no check for an existing separator, an empty part
  // or an absolute b.
  static std::string Combine(const std::string& a, const std::string& b);
};

class File {
 public:
  static bool Exists(const std::string& path);  // can be opened for reading
  static int Delete(const std::string& path);   // unlink's result; 0 when missing
  static long Size(const std::string& path);    // whole kilobytes; 0 when missing
  static std::string ReadAllText(const std::string& path);
  static void WriteAllText(const std::string& path, const std::string& text);
};

class Directory {
 public:
  static bool CanAccess(const std::string& path);
  static bool Exists(const std::string& path);
  static int UnlinkFile(const std::string& path);  // unlink's result; 0 when missing
  static int RmDir(const std::string& path);
  static int MkDir(const std::string& path);  // mode 0755, parents not created
  // A symbolic link to a directory is not a folder.
  static bool is_folder(const std::string& path);
  // Names (not paths) of the folders in path, without "." and "..", in
  // listing order; appended to out.
  static void GetDirectories(const std::string& path, std::vector<std::string>& out);
  static std::vector<std::string> GetDirectories(const std::string& path);
  // Names of the entries of path that are not folders; appended to out.
  static void GetFiles(const std::string& path, std::vector<std::string>& out);
  static std::vector<std::string> GetFiles(const std::string& path);
};
