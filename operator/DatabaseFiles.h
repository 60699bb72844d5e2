// DatabaseFiles: the files a detector database consists of, the database
// itself and the ones SQLite keeps beside it (-journal, -wal, -shm). A verb
// that writes a file refuses to write over any of them, however the operator
// spelled either path: a page written as the journal corrupts the database.
// Pure path arithmetic on the file system as it is now; never throws.
#pragma once

#include <optional>
#include <string>

namespace database_files {

// Which of database's files output names: "" for the database itself, else
// the suffix ("-journal", "-wal", "-shm"); none when it names another file.
// Both paths are compared after resolving them (the database fully, as
// SQLite does; output's folder, since a file written there replaces what
// stands at the name), and an existing output that is the same file as one
// of them (a hard link) counts too.
std::optional<std::string> named_by(const std::string& database, const std::string& output);

// The operator's message refusing option's value for the file named_by found.
std::string refusal(const std::string& option, const std::string& suffix);

}  // namespace database_files
