// The program's debug log, as the product's platform provides it: one
// process-wide file <dir>/<folder>/<file>.log, one line per logmsgf call
// ("YYYY-MM-DD HH:MM:SS.mmm [PID] <LEVEL> CATEGORY: MESSAGE"), written with a
// single write(2) so a crash never loses a line already logged, and rotated by
// size so a service that runs for years cannot fill the disk.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

// The levels the detector logs at: progress and ordinary outcomes, the
// re-calibration warning, errors. They appear in the line as <2>, <4>, <16>.
inline constexpr int kLogProgress = 2;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogError = 16;

// Opens (creating the folder when missing) the debug log and makes it the
// target of logmsgf. Returns the file descriptor; on failure returns -1 and
// sets *status negative. *status is left alone on success.
int open_debug_log(const std::string& dir, const std::string& folder_name, const std::string& file_name,
                   int mode, int* status);

// Writes one line at level under category; format follows printf's rules.
// Before open_debug_log succeeds, lines are discarded.
void logmsgf(int level, const char* category, const char* format, ...) __attribute__((format(printf, 3, 4)));

// The two halves of logmsgf, for a writer that decides per call where its
// lines go (the detection service hands them to an onlooker instead of the
// file): the message as a line carries it, escaped so no value can break the
// line or act on a terminal; and that message written as one line.
std::string format_log_message(const char* format, va_list args);
void write_log_message(int level, const char* category, const std::string& message);

// Closes the log; later logmsgf calls are discarded until it is opened again.
void close_debug_log();

// Rotation policy: when a line would take the file past max_bytes, it is
// renamed to .log.1 (older files shift up to .log.<keep>, the oldest is
// dropped) and a new file is started. Defaults: 50 MB, 5 old files.
void set_debug_log_rotation(std::size_t max_bytes, int keep);

// Path of the open log file, or "" when none is open.
std::string debug_log_path();
