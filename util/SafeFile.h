// SafeFile: creating files in folders other local users may write to,
// without letting them redirect the write. Nothing is ever opened through
// a symbolic link or under a name anybody could guess in advance, and the
// file's mode is at most the one asked for, further narrowed by the umask.
// Failures are thrown as std::runtime_error naming the path and the reason.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

class SafeFile {
 public:
  // Writes content to a fresh file made by mkstemp in path's folder and
  // renames it onto path: readers never see half a file, a failed write
  // leaves an earlier file intact, and whatever stood at path (a symbolic
  // link included) is replaced, never written through.
  static void replace(const std::string& path, std::string_view content, mode_t mode = 0644);

  // Creates path as a new, empty regular file; fails when anything already
  // exists there, a dangling symbolic link included.
  static void create_new(const std::string& path, mode_t mode = 0644);

  // mode without the bits the process's umask takes away.
  static mode_t under_umask(mode_t mode);
};
