#include "upgrade/TerminalProgress.h"

#include <unistd.h>

#include <exception>
#include <iostream>

namespace {

// Virtual machine instructions between two looks at the clock: well under a
// millisecond of work, so a redraw is never late by much and the clock costs
// nothing measurable.
constexpr int kInstructionsPerLook = 100000;

}  // namespace

TerminalProgress::TerminalProgress(sqlite3* db, std::string label)
    : db_(db),
      label_(std::move(label)),
      shown_(isatty(STDERR_FILENO) == 1),
      exceptions_at_start_(std::uncaught_exceptions()),
      started_(std::chrono::steady_clock::now()),
      last_drawn_(started_) {
  if (!shown_) return;
  draw("");
  sqlite3_progress_handler(db_, kInstructionsPerLook, on_progress, this);
}

TerminalProgress::~TerminalProgress() {
  if (!shown_) return;
  sqlite3_progress_handler(db_, 0, nullptr, nullptr);
  draw(std::uncaught_exceptions() > exceptions_at_start_ ? " failed" : " done");
  std::cerr << "\n" << std::flush;
}

int TerminalProgress::on_progress(void* self) {
  auto& progress = *static_cast<TerminalProgress*>(self);
  const auto now = std::chrono::steady_clock::now();
  if (now - progress.last_drawn_ >= std::chrono::seconds(1)) {
    progress.last_drawn_ = now;
    progress.draw("");
  }
  return 0;  // go on
}

void TerminalProgress::draw(const char* suffix) {
  const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_);
  std::cerr << "\r" << label_ << " ..." << suffix << " " << elapsed.count() << " s" << std::flush;
}
