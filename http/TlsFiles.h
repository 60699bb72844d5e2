// TlsFiles: the console's certificate and private key, read once at start
// into memory for the server. The key is refused when other users could read
// it (group or others may read, a symbolic link, not a regular file, or
// another user's file); either file is refused beyond kMaxBytes. Failures
// throw std::runtime_error with a message for the operator.
#pragma once

#include <cstddef>
#include <string>

namespace tls_files {

inline constexpr std::size_t kMaxBytes = 256 * 1024;

struct Pem {
  std::string cert, key;
};
Pem load(const std::string& cert_path, const std::string& key_path);

}  // namespace tls_files
