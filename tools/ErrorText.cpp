#include "tools/ErrorText.h"

#include "storage/Exception.h"

std::string ErrorText::of(const std::exception& e) {
  using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
  if (const auto* storage = dynamic_cast<const sqlite_exception*>(&e); storage && *storage->inner_message()) {
    return std::string(storage->what()) + " (" + storage->inner_message() + ")";
  }
  return e.what();
}
