#include "operator/ErrorText.h"

#include "platform/VisibleText.h"
#include "storage/Exception.h"

std::string ErrorText::of(const std::exception& e) {
  using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
  // Messages can carry names from the database or a file: escaped for the terminal.
  if (const auto* storage = dynamic_cast<const sqlite_exception*>(&e); storage && *storage->inner_message()) {
    return visible_text(std::string(storage->what()) + " (" + storage->inner_message() + ")");
  }
  return visible_text(e.what());
}
