// Fixture for the bad-input tests: the end-to-end pass fixture (real database
// from the shipped schema, INI file, pinned clock, debug log read back) plus
// what hostile data needs: cells bound byte for byte (quotes, NUL bytes,
// invalid UTF-8, SQL NULL), queue and verdict tables without their NOT NULL
// constraints, an exact dump of every table to prove that nothing was lost
// or altered, and a pass whose standard output is captured.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/pass/PassFixture.h"

namespace badinput {

using pass_test::Cells;
using pass_test::operator+;
using pass_test::Row;
using pass_test::Rows;
using pass_test::Strings;
using pass_test::TextRow;
using pass_test::Value;

// A cell to bind: text (any bytes) or, when empty, SQL NULL.
using Cell = std::optional<std::string>;
using RawCells = std::vector<std::pair<std::string, Cell>>;

inline const Cell kNull = std::nullopt;

inline RawCells operator+(RawCells a, const RawCells& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What one pass did: the log lines it added and what it wrote to standard
// output.
struct PassOutput {
  Strings log;
  std::string out;
};

class BadInputTest : public pass_test::PassFixture {
 protected:
  // ---- tables -------------------------------------------------------------

  // Re-creates a table (and its indexes) from its own DDL with every NOT NULL
  // constraint removed, so that NULL cells can reach the detector. The
  // shipped schema forbids them; another writer's schema may not.
  void without_not_null(const std::string& table) {
    std::string ddl;
    std::vector<std::string> indexes;
    for (Row& row : query("SELECT type, sql FROM sqlite_master WHERE tbl_name = '" + table + "' AND sql IS NOT NULL")) {
      if (row["type"].text() == "table") {
        ddl = row["sql"].text();
      } else {
        indexes.push_back(row["sql"].text());
      }
    }
    ASSERT_FALSE(ddl.empty()) << "no table " << table;
    for (std::string::size_type at; (at = ddl.find(" NOT NULL")) != std::string::npos;) ddl.erase(at, 9);
    sql("DROP TABLE " + table);
    sql(ddl);
    for (const std::string& index : indexes) sql(index);
  }

  // ---- seeding ------------------------------------------------------------

  // Inserts one row, every cell bound as text with its exact length (so NUL
  // bytes and invalid UTF-8 arrive as given) or as NULL. Column affinity then
  // applies as it would for any writer that binds text.
  void insert_raw(const std::string& table, const RawCells& cells) {
    const int stepped = try_insert_raw(table, cells);
    ASSERT_EQ(stepped, SQLITE_DONE) << "insert into " << table << ": " << sqlite3_errmsg(handle());
  }

  // The same, for a row the schema may refuse: SQLite's result code.
  int try_insert_raw(const std::string& table, const RawCells& cells) {
    std::string columns, marks;
    for (const auto& [column, cell] : cells) {
      columns += (columns.empty() ? "" : ", ") + column;
      marks += marks.empty() ? "?" : ", ?";
    }
    const std::string text = "INSERT INTO " + table + " (" + columns + ") VALUES (" + marks + ")";
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(handle(), text.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << text << ": " << sqlite3_errmsg(handle());
      return SQLITE_ERROR;
    }
    int i = 1;
    for (const auto& [column, cell] : cells) {
      if (cell) {
        sqlite3_bind_text(st, i++, cell->data(), static_cast<int>(cell->size()), SQLITE_TRANSIENT);
      } else {
        sqlite3_bind_null(st, i++);
      }
    }
    const int stepped = sqlite3_step(st);
    sqlite3_finalize(st);
    return stepped;
  }

  // The usual pending job of the workload with some cells replaced.
  static RawCells job_cells(const std::string& unique_key, const RawCells& overrides = {}) {
    RawCells cells;
    for (const auto& [column, value] : job(unique_key)) cells.emplace_back(column, value.text());
    for (const auto& [column, cell] : overrides) {
      bool replaced = false;
      for (auto& [name, existing] : cells) {
        if (name == column) {
          existing = cell;
          replaced = true;
        }
      }
      if (!replaced) cells.emplace_back(column, cell);
    }
    return cells;
  }

  void queue_raw(const std::string& unique_key, const RawCells& overrides = {}) {
    insert_raw("DATA_TO_PROCESS", job_cells(unique_key, overrides));
  }

  // A history row of the workload with some cells replaced.
  void history_raw(const std::string& unique_key, const RawCells& overrides = {}) {
    RawCells cells = job_cells(unique_key, RawCells{{"USER_IDENTIFIED_CLUSTER", "-1"}, {"MODE", "1"}});
    cells.erase(std::remove_if(cells.begin(), cells.end(), [](const auto& c) { return c.first == "PROCESSED_STATUS"; }),
                cells.end());
    for (const auto& [column, cell] : overrides) {
      for (auto& [name, existing] : cells) {
        if (name == column) existing = cell;
      }
    }
    insert_raw("HIST_DATA", cells);
  }

  // n usual history rows whose names are replaced as given (so that a job
  // with the same names finds its workload).
  void history_of(int n, const RawCells& names, const std::string& prefix = "h") {
    for (int i = 1; i <= n; ++i) {
      RawCells cells = names;
      cells.emplace_back("BACKUP_TIME", std::to_string(i));
      cells.emplace_back("JOB_ID", std::to_string(1000 + i));
      history_raw(prefix + std::to_string(i), cells);
    }
  }

  // ---- reading back -------------------------------------------------------

  sqlite3* handle() { return service->database().handle; }

  // Every row of a table, each as "COLUMN=type:bytes|..." in column order
  // (bytes outside printable ASCII written as \xNN), sorted. Two dumps are
  // equal only when every cell has the same type and the same bytes.
  Strings dump(const std::string& table) {
    Strings rows;
    sqlite3_stmt* st = nullptr;
    const std::string text = "SELECT * FROM " + table;
    if (sqlite3_prepare_v2(handle(), text.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      return {"<no table " + table + ">"};
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
      std::string row;
      for (int i = 0; i < sqlite3_column_count(st); ++i) {
        const int type = sqlite3_column_type(st, i);
        static const char* const kTypes[] = {"?", "int", "real", "text", "blob", "null"};
        row += std::string(i == 0 ? "" : "|") + sqlite3_column_name(st, i) + "=" + kTypes[type] + ":";
        const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(st, i));
        const int size = sqlite3_column_bytes(st, i);
        for (int b = 0; b < size; ++b) {
          if (bytes[b] >= 0x20 && bytes[b] < 0x7f && bytes[b] != '\\') {
            row += static_cast<char>(bytes[b]);
          } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", bytes[b]);
            row += hex;
          }
        }
      }
      rows.push_back(row);
    }
    sqlite3_finalize(st);
    std::sort(rows.begin(), rows.end());
    return rows;
  }

  // The five tables, dumped.
  std::vector<Strings> dump_all() {
    return {dump("DATA_TO_PROCESS"), dump("HIST_DATA"), dump("DBSCAN_MODEL_PARAMS"), dump("ANOMALY_DATA"),
            dump("ANOMALY_DATA_FEEDBACK")};
  }

  // One column of the rows of a table whose UNIQUE_KEY (or other key
  // column) has the given value, as exact bytes; "<none>" when no row has it.
  std::string cell_of(const std::string& table, const std::string& key_column, const std::string& key,
                      const std::string& column) {
    sqlite3_stmt* st = nullptr;
    const std::string text = "SELECT " + column + " FROM " + table + " WHERE " + key_column + " = ?";
    if (sqlite3_prepare_v2(handle(), text.c_str(), -1, &st, nullptr) != SQLITE_OK) return "<error>";
    sqlite3_bind_text(st, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    std::string out = "<none>";
    if (sqlite3_step(st) == SQLITE_ROW) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(st, 0));
      out = sqlite3_column_type(st, 0) == SQLITE_NULL ? "<null>"
                                                      : std::string(bytes, bytes + sqlite3_column_bytes(st, 0));
    }
    sqlite3_finalize(st);
    return out;
  }

  std::string history_cell(const std::string& unique_key, const std::string& column) {
    return cell_of("HIST_DATA", "UNIQUE_KEY", unique_key, column);
  }

  // The queue as "UNIQUE_KEY:PROCESSED_STATUS" in key order; a NULL key or
  // status shows as <null>.
  Strings queue_keys() {
    Strings out;
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(handle(), "SELECT UNIQUE_KEY, PROCESSED_STATUS FROM DATA_TO_PROCESS ORDER BY UNIQUE_KEY", -1,
                       &st, nullptr);
    while (sqlite3_step(st) == SQLITE_ROW) {
      const auto text = [&](int i) {
        return sqlite3_column_type(st, i) == SQLITE_NULL
                   ? std::string("<null>")
                   : std::string(reinterpret_cast<const char*>(sqlite3_column_text(st, i)));
      };
      out.push_back(text(0) + ":" + text(1));
    }
    sqlite3_finalize(st);
    return out;
  }

  // No job lost: each key is still queued or is in the history.
  void expect_every_job_kept(const Strings& keys) {
    for (const std::string& key : keys) {
      const bool queued = cell_of("DATA_TO_PROCESS", "UNIQUE_KEY", key, "UNIQUE_KEY") == key;
      const bool kept = history_cell(key, "UNIQUE_KEY") == key;
      EXPECT_TRUE(queued || kept) << "job " << key << " is neither queued nor in the history";
    }
  }

  // The payload of the only anomaly, parsed (nullptr and a failure if there
  // is not exactly one, or it is not JSON). Release with json_decref.
  json_t* only_payload() {
    const Rows rows = query("SELECT ANOMALY_PAYLOAD FROM ANOMALY_DATA");
    if (rows.size() != 1) {
      ADD_FAILURE() << rows.size() << " anomalies instead of one";
      return nullptr;
    }
    json_error_t error;
    json_t* root = json_loads(rows[0].at("ANOMALY_PAYLOAD").text().c_str(), 0, &error);
    if (root == nullptr) ADD_FAILURE() << "payload is not JSON: " << error.text;
    return root;
  }

  static std::string attribute(json_t* root, const char* key) {
    return json_member(json_object_get(root, "Attributes"), key);
  }

  // ---- running ------------------------------------------------------------

  PassOutput pass_capturing_stdout() {
    testing::internal::CaptureStdout();
    PassOutput result;
    result.log = pass();
    result.out = testing::internal::GetCapturedStdout();
    return result;
  }

  static bool has_line(const Strings& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  static bool has_line_starting(const Strings& lines, const std::string& start) {
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(start, 0) == 0; });
  }
};

}  // namespace badinput
