// sqlite_exception: the one exception type of the storage layer. what() is
// the storage layer's own message; inner_message() is SQLite's error text for
// the failure, or "" when SQLite gave none.
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>

namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase {

class sqlite_exception : public std::exception {
 public:
  explicit sqlite_exception(std::string msg, std::string inner = std::string())
      : message_(std::move(msg)), inner_(std::move(inner)) {}
  explicit sqlite_exception(const std::stringstream& ss, std::string inner = std::string())
      : message_(ss.str()), inner_(std::move(inner)) {}
  ~sqlite_exception() override = default;

  const char* what() const noexcept override { return message_.c_str(); }
  const char* inner_message() const noexcept { return inner_.c_str(); }

 private:
  std::string message_;
  std::string inner_;
};

}  // namespace Corvane::Tessaryn::UsageReporting::SQLiteDatabase
