// Opening the debug log so that no other local user can redirect it: the
// log's folder must be a real folder (not a symbolic link) owned by this
// process's user or by root, and the file inside it is opened without
// following a symbolic link and only when it is a regular file. A folder or
// file planted by someone else therefore fails the open instead of making
// the service append to a file of the planter's choosing.
#pragma once

#include <string>

// Creates folder (mode 0755 before the umask) when it is missing, then opens
// folder/file_name for appending, creating it with mode. Returns the file
// descriptor (close-on-exec), or -1 with errno set when any check fails.
int open_log_file(const std::string& folder, const std::string& file_name, int mode);
