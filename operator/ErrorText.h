// ErrorText: one line for the operator from any failure, with SQLite's own
// explanation appended when the storage layer carried one, and any control
// character or byte that is not UTF-8 shown as an escape.
#pragma once

#include <exception>
#include <string>

class ErrorText {
 public:
  static std::string of(const std::exception& e);
};
