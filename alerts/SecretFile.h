// SecretFile: a secret of the alert configuration (the webhook's URL or
// Authorization header) kept out of the INI file, in a file of its own or a
// systemd credential. Reading answers the text or why it was refused, never
// throws, and refuses whatever others could have planted or read: a
// symbolic link, anything but a regular file, a file owned by anyone but
// root or the process's user, or one that other users (or a group but root's
// or the process's) may read or write.
#pragma once

#include <string>

struct Secret {
  std::string text;   // the file's first line, without its line end
  std::string error;  // empty when text is good; else one line, naming where
};

namespace secret_file {

// The longest secret read, in bytes; a longer file is refused.
inline constexpr std::size_t kMaxBytes = 4096;

// where is an absolute path, or the name of a credential the service
// manager passed in $CREDENTIALS_DIRECTORY (LoadCredential= in the unit).
// key names the setting in messages ("URL_FILE").
Secret read(const std::string& key, const std::string& where);

}  // namespace secret_file
