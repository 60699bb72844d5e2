#include "cli/UpgradeCommand.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "contract/BusyTimeout.h"
#include "platform/VisibleText.h"
#include "schema/SchemaAudit.h"
#include "schema/SchemaCatalogSql.h"
#include "storage/DBAccess.h"
#include "cli/CommandArgs.h"
#include "operator/ErrorText.h"
#include "upgrade/TerminalProgress.h"
#include "upgrade/UpgradeAdvice.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::sqlite_exception;
using Remedy = SchemaFinding::Remedy;

const CommandArgs::Syntax kUpgradeSyntax{
    {{.name = "--apply",
      .help = "create the missing indexes and triggers, all in one\ntransaction; no row is rewritten or removed"},
     {.name = "--wal",
      .help = "with --apply, also switch the journal to WAL; every\nprocess that uses DB must then run on this host"},
     {.name = "--busy-timeout",
      .value_name = "MS",
      .help = "how long to wait for another connection's write,\n0-600000 ms (default 10000, as the detector waits)",
      .whole = WholeRange{0, 600000}}},
    1,
    1,
    {"DB"}};

const std::string kUpgradeHelp =
    "usage: tsanomalyctl upgrade DB [--apply [--wal]] [--busy-timeout MS]\n"
    "\n"
    "Compares DB, a detector database the backup product made, with the\n"
    "detector's schema (the indexes, triggers and journal mode of anomaly_db.sql)\n"
    "and lists each difference with what it costs the detector. Indexes count by\n"
    "what they index, not by their name. Without --apply DB is only read.\n"
    "\n" +
    options_help(kUpgradeSyntax.options) +
    "\n"
    "A missing uniqueness or column is reported, never changed in place: a unique\n"
    "index fails on a table that already holds duplicates, and the tables are the\n"
    "product's. A second run finds nothing more to do. On a terminal, building an\n"
    "index shows how long it has been running.\n"
    "\n"
    "Exit status: 0 compared (and, with --apply, brought up to the schema), 1 DB\n"
    "refused or left as it was, 2 bad arguments.\n";

namespace {

constexpr const char* kCommand = "upgrade";
constexpr const char* kOneHostRule =
    "every process that uses the file must run on this host (WAL shares memory through a file beside it)";

std::string read_only_text(const std::string& path) {
  return "cannot write '" + path + "' (read-only for this user or on this file system); nothing was changed";
}

std::string failure_text(int code, const std::string& path, int busy_timeout_ms, const std::exception& e) {
  switch (code) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "'" + path + "' is locked by another connection (waited " + std::to_string(busy_timeout_ms) +
             " ms); nothing was changed: run again once it is done, or wait longer with --busy-timeout";
    case SQLITE_READONLY:
      return read_only_text(path);
    case SQLITE_NOTADB:
      return "'" + path + "' is not an SQLite database";
    default:
      return ErrorText::of(e) + "; nothing was changed";
  }
}

// Runs step on db. A storage failure becomes the operator's message; an
// open transaction is rolled back first, so nothing is left half done.
template <typename Step>
auto guarded(DBAccess& db, const std::string& path, int busy_timeout_ms, Step&& step) -> decltype(step()) {
  try {
    return step();
  } catch (const std::exception& e) {
    const int code = sqlite3_errcode(db.handle);  // before the rollback replaces it
    if (sqlite3_get_autocommit(db.handle) == 0) {
      try {
        db.rollback_transaction();
      } catch (const sqlite_exception&) {
        // The transaction is then left to sqlite3_close, which rolls it back.
      }
    }
    if (dynamic_cast<const sqlite_exception*>(&e) == nullptr) throw;
    throw std::runtime_error(failure_text(code, path, busy_timeout_ms, e));
  }
}

void print_findings(const std::string& path, const std::vector<SchemaFinding>& findings) {
  if (findings.empty()) {
    std::cout << path << " matches the detector's schema: nothing to do.\n";
    return;
  }
  std::cout << path << " differs from the detector's schema:\n";
  for (const SchemaFinding& finding : findings) {
    std::cout << "  - " << finding.what << "\n      costs: " << finding.cost << "\n";
    if (finding.remedy == Remedy::by_hand) std::cout << "      left as it is: " << finding.why_not << "\n";
  }
}

std::string described(const SchemaObject& object, bool on_detector_tables) {
  std::string text = object.type + " " + visible_text(object.name);
  if (object.type == "trigger") text += " on " + visible_text(object.table);
  if (on_detector_tables) {
    text += object.type == "trigger" ? ", a table of the detector" : ", which reads the detector's tables";
    text += ": no tool writes a verdict while it is there";
  }
  return text;
}

// Code in the file the detector's schema does not define. Never removed
// here (it may be the product's), but named, with what it blocks.
void print_foreign_code(DBAccess& db) {
  const std::vector<SchemaObject> unknown = unknown_schema_objects(db);
  if (unknown.empty()) return;
  const std::vector<SchemaObject> blocking = unknown_code_on_detector_tables(db);
  const auto is_blocking = [&](const SchemaObject& object) {
    return std::any_of(blocking.begin(), blocking.end(),
                       [&](const SchemaObject& b) { return b.type == object.type && b.name == object.name; });
  };
  std::cout << "Triggers and views the detector's schema does not define (left as they are: drop the ones "
               "nobody added on purpose):\n";
  for (const SchemaObject& object : unknown) std::cout << "  - " << described(object, is_blocking(object)) << "\n";
}

bool any(const std::vector<SchemaFinding>& findings, Remedy remedy) {
  for (const SchemaFinding& finding : findings) {
    if (finding.remedy == remedy) return true;
  }
  return false;
}

int report(const std::string& path, int busy_timeout_ms) {
  DBAccess db(path, SQLITE_OPEN_READONLY);
  db.set_busy_timeout(busy_timeout_ms);
  const auto findings = guarded(db, path, busy_timeout_ms, [&] { return SchemaDiff().compare(db, path); });
  print_findings(path, findings);
  guarded(db, path, busy_timeout_ms, [&] { print_foreign_code(db); });
  if (any(findings, Remedy::create) || any(findings, Remedy::switch_to_wal)) {
    const Remedy remedy = any(findings, Remedy::switch_to_wal) ? Remedy::switch_to_wal : Remedy::create;
    std::cout << "Nothing was changed. To add what is missing, run: " << upgrade_command(path, remedy) << "\n";
  }
  return 0;
}

// Compares and creates under the write lock, so what is created is what the
// comparison found missing.
std::vector<SchemaFinding> create_missing(DBAccess& db, const std::string& path) {
  db.execute_query(schema_catalog_sql::kBeginImmediate);
  std::vector<SchemaFinding> findings = SchemaDiff().compare(db, path);
  print_findings(path, findings);
  for (const SchemaFinding& finding : findings) {
    if (finding.remedy != Remedy::create) continue;
    TerminalProgress progress(db.handle, "Creating " + finding.object);
    try {
      db.execute_query(finding.sql);
    } catch (const sqlite_exception& e) {
      throw sqlite_exception("cannot create " + finding.object, e.inner_message());
    }
  }
  // In a rollback journal even an empty commit waits for every reader to
  // go; with nothing written there is nothing to wait for.
  if (any(findings, Remedy::create)) {
    db.commit_transaction();
  } else {
    db.rollback_transaction();
  }
  return findings;
}

void switch_to_wal(DBAccess& db, const std::string& path) {
  std::string outcome;
  try {
    Rows rows;
    db.read_data(schema_catalog_sql::kSwitchToWal, rows);
    const std::string mode = rows.empty() ? "" : rows[0]["journal_mode"].text();
    if (mode == SchemaDiff::kDetectorJournalMode) {
      std::cout << "Switched the journal to WAL: " << kOneHostRule << ".\n";
      return;
    }
    outcome = "it stays " + mode;
  } catch (const std::exception& e) {
    outcome = ErrorText::of(e);
  }
  throw std::runtime_error("the journal of '" + path + "' could not be switched to WAL (" + outcome +
                           "); anything created above is kept: run again with --wal once no other process has the "
                           "file open");
}

int apply(const std::string& path, int busy_timeout_ms, bool wal) {
  DBAccess db(path, SQLITE_OPEN_READWRITE);
  if (sqlite3_db_readonly(db.handle, "main") == 1) {
    throw std::runtime_error(read_only_text(path));
  }
  db.set_busy_timeout(busy_timeout_ms);
  const auto findings = guarded(db, path, busy_timeout_ms, [&] { return create_missing(db, path); });
  for (const SchemaFinding& finding : findings) {
    if (finding.remedy == Remedy::create) std::cout << "Created " << finding.object << ".\n";
  }
  guarded(db, path, busy_timeout_ms, [&] { print_foreign_code(db); });
  if (any(findings, Remedy::switch_to_wal)) {
    if (!wal) {
      std::cout << "The journal mode stays as it is: add --wal to switch it to WAL; " << kOneHostRule << ".\n";
      return 0;
    }
    switch_to_wal(db, path);
  }
  return 0;
}

}  // namespace

int run_upgrade(int argc, char** argv) {
  CommandArgs args(argc, argv, kUpgradeSyntax);
  const int busy_timeout_ms = static_cast<int>(args.integer("--busy-timeout", kBusyTimeoutMs));
  if (auto exit_code = args.help_or_usage_error(kCommand, kUpgradeHelp)) return *exit_code;
  if (args.flag("--wal") && !args.flag("--apply")) return CommandArgs::usage_error(kCommand, "--wal goes with --apply");
  const std::string& path = args.positional()[0];
  try {
    if (access(path.c_str(), R_OK) != 0) {
      throw std::runtime_error("cannot read '" + path + "': " + std::strerror(errno));
    }
    return args.flag("--apply") ? apply(path, busy_timeout_ms, args.flag("--wal")) : report(path, busy_timeout_ms);
  } catch (const std::exception& e) {
    std::cerr << "tsanomalyctl " << kCommand << ": " << ErrorText::of(e) << "\n";
    return 1;
  }
}
