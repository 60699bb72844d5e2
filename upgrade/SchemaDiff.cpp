#include "upgrade/SchemaDiff.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <set>

#include "schema/AnomalySchema.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Remedy = SchemaFinding::Remedy;

namespace {

// What the detector pays for each part of the schema a database lacks: by
// index name, by table for the index of a UNIQUE constraint, by trigger name.
const std::map<std::string, std::string> kCosts = {
    {"DATA_TO_PROCESS_BY_KEY", "nothing stops a job from being queued twice and judged twice"},
    {"DATA_TO_PROCESS_BY_STATUS",
     "every pass reads the whole queue, jobs awaiting a verdict included, to find the pending ones"},
    {"HIST_DATA", "INSERT OR REPLACE no longer replaces: a job taken into the history twice trains its workload twice"},
    {"HIST_DATA_BY_WORKLOAD",
     "training reads and last-backup lookups go to the table, a page per history row, not to the index alone"},
    {"HIST_DATA_BY_WORKLOAD_ANY_STORAGE",
     "the fallback training read and its count go to the table, not to the index alone"},
    {"HIST_DATA_BY_STREAM", "the stream lookups read the history table itself, not an index alone"},
    {"DBSCAN_MODEL_PARAMS", "nothing keeps a workload to one calibrated model"},
    {"ANOMALY_DATA", "INSERT OR IGNORE no longer ignores: a job reported twice raises two alerts"},
    {"ANOMALY_DATA_FEEDBACK_BY_ID", "each consumed verdict is found by reading the whole feedback table"},
    {"ANOMALY_DATA_FEEDBACK_BY_VERDICT", "every pass reads the whole feedback table for new verdicts"},
    {"HIST_DATA_TAKES_JOB_OFF_QUEUE",
     "a job is moved into the history in two statements: a kill between them leaves it in both tables, to be "
     "judged again"},
    {"ANOMALY_DATA_MARKS_JOB_PROCESSED",
     "a job is reported in two statements: a kill between them leaves it pending, to be judged again"},
};
constexpr const char* kJournalCost =
    "a reader blocks the product's queue writer, and every commit waits for more syncs to the disk";
constexpr const char* kColumnCost = "every statement of the detector that names it fails";
constexpr const char* kOrderCost =
    "the detector inserts into it by position: values land in other columns, or every insert fails";

constexpr const char* kUniqueWhyNot =
    "a unique index fails on a table that already holds duplicates; it belongs to the product's own schema change";
constexpr const char* kTableWhyNot = "changing the product's table belongs to the product's own schema change";
constexpr const char* kNeedsColumnsWhyNot = "it needs the missing columns first";
constexpr const char* kNameTakenWhyNot = "another object of the database has that name; upgrade replaces nothing";

// The detector inserts into these with VALUES and no column list.
const std::set<std::string> kPositionalTables = {"HIST_DATA", "DBSCAN_MODEL_PARAMS", "ANOMALY_DATA"};

const std::string& cost_of(const std::string& key) {
  const auto found = kCosts.find(key);
  if (found == kCosts.end()) throw std::logic_error("no cost is written for the schema's " + key);
  return found->second;
}

SchemaFinding by_hand(std::string what, std::string cost, std::string why_not) {
  return {Remedy::by_hand, std::move(what), "", std::move(cost), "", std::move(why_not)};
}

std::string column_of(const std::string& key) { return key.substr(0, key.find(' ')); }

bool has_column(const SchemaCatalog& catalog, const std::string& table, const std::string& column) {
  const auto& columns = catalog.columns.at(table);
  return std::find(columns.begin(), columns.end(), column) != columns.end();
}

bool same_set(std::vector<std::string> a, std::vector<std::string> b) {
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  return a == b;
}

// A uniqueness is served by a unique index on the same columns in any order;
// a lookup index by any index whose key starts with the same columns.
bool serves(const IndexDefinition& have, const IndexDefinition& want) {
  if (have.table != want.table || have.partial) return false;
  if (want.unique) return have.unique && same_set(have.keys, want.keys);
  return have.keys.size() >= want.keys.size() && std::equal(want.keys.begin(), want.keys.end(), have.keys.begin());
}

void compare_columns(const SchemaCatalog& schema, const SchemaCatalog& target, const std::string& table,
                     std::vector<SchemaFinding>& out) {
  bool complete = true;
  for (const std::string& column : schema.columns.at(table)) {
    if (has_column(target, table, column)) continue;
    complete = false;
    out.push_back(by_hand(table + " has no column " + column, kColumnCost, kTableWhyNot));
  }
  if (complete && kPositionalTables.count(table) != 0 && target.columns.at(table) != schema.columns.at(table)) {
    out.push_back(by_hand(table + "'s columns are not the detector's, in its order", kOrderCost, kTableWhyNot));
  }
}

void compare_index(const IndexDefinition& want, const SchemaCatalog& target, std::vector<SchemaFinding>& out) {
  if (std::any_of(target.indexes.begin(), target.indexes.end(),
                  [&](const IndexDefinition& have) { return serves(have, want); })) {
    return;
  }
  if (want.unique) {
    std::string columns;
    for (const std::string& key : want.keys) columns += (columns.empty() ? "" : ", ") + column_of(key);
    const std::string& cost = cost_of(want.create_sql.empty() ? want.table : want.name);
    out.push_back(by_hand("no uniqueness on " + want.table + " (" + columns + ")", cost, kUniqueWhyNot));
    return;
  }
  const std::string object = "index " + want.name + " on " + want.table;
  SchemaFinding finding{Remedy::create, "missing " + object, object, cost_of(want.name), want.create_sql, ""};
  if (!std::all_of(want.keys.begin(), want.keys.end(),
                   [&](const std::string& key) { return has_column(target, want.table, column_of(key)); })) {
    finding = by_hand(finding.what, finding.cost, kNeedsColumnsWhyNot);
  } else if (target.names.count(upper_name(want.name)) != 0) {
    finding = by_hand(finding.what, finding.cost, kNameTakenWhyNot);
  }
  out.push_back(finding);
}

// A trigger's body may name any of the tables, so it waits until none lacks
// a column.
void compare_trigger(const TriggerDefinition& want, const SchemaCatalog& target, bool columns_complete,
                     std::vector<SchemaFinding>& out) {
  if (std::any_of(target.triggers.begin(), target.triggers.end(), [&](const TriggerDefinition& have) {
        return have.name == want.name && have.table == want.table;
      })) {
    return;
  }
  const std::string object = "trigger " + want.name + " on " + want.table;
  SchemaFinding finding{Remedy::create, "missing " + object, object, cost_of(want.name), want.create_sql, ""};
  if (!columns_complete) {
    finding = by_hand(finding.what, finding.cost, kNeedsColumnsWhyNot);
  } else if (target.names.count(want.name) != 0) {
    finding = by_hand(finding.what, finding.cost, kNameTakenWhyNot);
  }
  out.push_back(finding);
}

void refuse_missing_tables(const std::vector<std::string>& tables, const SchemaCatalog& target,
                           const std::string& path) {
  std::string missing;
  int count = 0;
  for (const std::string& table : tables) {
    if (target.columns.count(table) != 0) continue;
    missing += (missing.empty() ? "" : ", ") + table;
    ++count;
  }
  if (count != 0) {
    throw NotADetectorDatabase("'" + path + "' is not a detector database: it has no " + missing +
                               (count > 1 ? " tables" : " table") + " (create one with 'tsanomalyctl init')");
  }
}

}  // namespace

SchemaDiff::SchemaDiff() {
  DBAccess reference(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  reference.execute_query(anomaly_schema::anomaly_db_sql());
  tables_ = SchemaCatalog::tables_of(reference);
  schema_ = SchemaCatalog::read(reference, tables_);
}

std::vector<SchemaFinding> SchemaDiff::compare(DBAccess& db, const std::string& path) const {
  const SchemaCatalog target = SchemaCatalog::read(db, tables_);
  refuse_missing_tables(tables_, target, path);
  std::vector<SchemaFinding> findings;
  for (const std::string& table : tables_) compare_columns(schema_, target, table, findings);
  const bool columns_complete = findings.empty();
  for (const IndexDefinition& index : schema_.indexes) compare_index(index, target, findings);
  for (const TriggerDefinition& trigger : schema_.triggers) compare_trigger(trigger, target, columns_complete, findings);
  if (target.journal_mode != kDetectorJournalMode) {
    findings.push_back(
        {Remedy::switch_to_wal, "journal mode " + target.journal_mode + ", not WAL", "", kJournalCost, "", ""});
  }
  std::stable_sort(findings.begin(), findings.end(),
                   [](const SchemaFinding& a, const SchemaFinding& b) { return a.remedy < b.remedy; });
  return findings;
}
