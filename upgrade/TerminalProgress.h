// TerminalProgress: while one long statement runs on a connection (CREATE
// INDEX over millions of history rows), shows on standard error what it is
// doing and for how long, redrawn about once a second from SQLite's progress
// handler. Shows nothing unless standard error is a terminal, so logs and
// pipes stay clean. Never interrupts the statement; lives for one statement.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <string>

class TerminalProgress {
 public:
  TerminalProgress(sqlite3* db, std::string label);
  // Removes the handler and finishes the line with the time taken ("done",
  // or "failed" when an exception is leaving the statement's scope).
  ~TerminalProgress();
  TerminalProgress(const TerminalProgress&) = delete;
  TerminalProgress& operator=(const TerminalProgress&) = delete;

 private:
  static int on_progress(void* self);
  void draw(const char* suffix);

  sqlite3* db_;
  std::string label_;
  bool shown_;
  int exceptions_at_start_;
  std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point last_drawn_;
};
