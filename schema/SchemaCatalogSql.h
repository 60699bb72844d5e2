// The SQL texts with which tsanomalyctl reads what a database defines (its
// tables' columns, indexes and triggers, and its journal mode) and brings it
// up to anomaly_db.sql. Table and index names are bound, never spliced in,
// so a hostile name in someone else's database cannot change a statement.
#pragma once

namespace schema_catalog_sql {

// The tables, in the order they were created.
inline constexpr const char* kTables =
    "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite%' ORDER BY rowid";
// Columns of the table bound to ?1, in their order; none for a missing table.
inline constexpr const char* kTableColumns = "SELECT name FROM pragma_table_info(?) ORDER BY cid";
// Every index of the table bound to ?1, with the CREATE text of the ones made
// by CREATE INDEX (NULL for those a UNIQUE or PRIMARY KEY constraint made).
inline constexpr const char* kTableIndexes =
    "SELECT list.name AS name, list.\"unique\" AS is_unique, list.partial AS partial, master.sql AS sql "
    "FROM pragma_index_list(?) AS list "
    "LEFT JOIN sqlite_master AS master ON master.type = 'index' AND master.name = list.name";
// The key columns of the index bound to ?1, in order, with their collation;
// an expression has no name.
inline constexpr const char* kIndexKeys =
    "SELECT coalesce(name, '') AS name, coll FROM pragma_index_xinfo(?) WHERE key = 1 ORDER BY seqno";
inline constexpr const char* kTriggers = "SELECT name, tbl_name, sql FROM sqlite_master WHERE type = 'trigger'";
// Every name in the schema: a new index or trigger cannot take one of them.
inline constexpr const char* kObjectNames = "SELECT name FROM sqlite_master";
inline constexpr const char* kJournalMode = "PRAGMA journal_mode";
inline constexpr const char* kSwitchToWal = "PRAGMA journal_mode = WAL";
// Takes the write lock at once (waiting under the busy timeout), so the
// schema read inside the transaction is the one the changes apply to.
inline constexpr const char* kBeginImmediate = "BEGIN IMMEDIATE";

}  // namespace schema_catalog_sql
