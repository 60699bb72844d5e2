#include "console/ConsoleStore.h"

#include <sqlite3.h>

#include <cstdlib>
#include <limits>
#include <variant>

#include "operator/AnomalyHandle.h"
#include "schema/ConsoleSql.h"
#include "storage/Statement.h"
#include "util/Text.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::RecordCursor;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Statement;

namespace {

using Bound = std::variant<std::string, double>;

// A statement with values bound to ?1, ?2, ... in order.
struct Prepared : Statement {
  Prepared(DBAccess& db, const std::string& sql, const std::vector<Bound>& values) : Statement(db.handle, sql) {
    int index = 1;
    for (const Bound& value : values) {
      std::visit([&](const auto& v) { bind(index, v); }, value);
      ++index;
    }
  }
};

long long integer(const char* text) { return std::strtoll(text, nullptr, 10); }

// ?1 to ?5 of console_sql::list_filter.
std::vector<Bound> filter_values(const ListQuery& query) {
  const double to = query.to > 0 ? static_cast<double>(query.to) : std::numeric_limits<double>::max();
  return {text::to_lower(query.client), text::to_lower(query.policy), static_cast<double>(query.from), to,
          static_cast<double>(query.state ? static_cast<int>(*query.state) : -1)};
}

}  // namespace

ConsoleStore::ConsoleStore(std::string path) : path_(std::move(path)) { AnomalyStore check(path_); }

std::vector<ListedAnomaly> ConsoleStore::list(const ListQuery& query) const {
  AnomalyStore store(path_);
  std::vector<Bound> values = filter_values(query);
  values.emplace_back(static_cast<double>(query.limit));
  values.emplace_back(static_cast<double>(query.offset));
  Prepared st(store.database(), console_sql::kListPage, values);
  std::vector<ListedAnomaly> page;
  store.database().visit_records_prepared(st, [&](const RecordCursor& cursor) {
    ListedAnomaly& row = page.emplace_back();
    row.id = cursor.text(0);
    row.client = text::capped(cursor.text(1), kMaxNameBytes);
    row.detection_time = static_cast<time_t>(integer(cursor.text(2)));
    row.policy = text::capped(cursor.text(3), kMaxNameBytes);
    row.summary = text::capped(cursor.text(4), kMaxNameBytes);
    row.score = text::capped(cursor.text(5), kMaxNameBytes);
    row.state = state_from_number(integer(cursor.text(6)));
  });
  return page;
}

ListTotals ConsoleStore::totals(const ListQuery& query, time_t now) const {
  AnomalyStore store(path_);
  std::vector<Bound> values = filter_values(query);
  values.emplace_back(static_cast<double>(now - 86400));
  values.emplace_back(static_cast<double>(now - 7 * 86400));
  Prepared st(store.database(), console_sql::kListTotals, values);
  ListTotals totals;
  store.database().visit_records_prepared(st, [&](const RecordCursor& cursor) {
    totals = {integer(cursor.text(0)), integer(cursor.text(1)), integer(cursor.text(2)), integer(cursor.text(3))};
  });
  return totals;
}

std::optional<std::string> ConsoleStore::id_of_handle(const std::string& handle) const {
  if (!anomaly_handle::is_digest(handle)) return handle;
  return AnomalyStore(path_).id_of_handle(handle);
}

std::vector<std::string> ConsoleStore::ids(const ListQuery& query, long long limit) const {
  AnomalyStore store(path_);
  std::vector<Bound> values = filter_values(query);
  values.emplace_back(static_cast<double>(limit));
  Prepared st(store.database(), console_sql::kListIds, values);
  std::vector<std::string> ids;
  store.database().visit_records_prepared(st, [&](const RecordCursor& cursor) { ids.emplace_back(cursor.text(0)); });
  return ids;
}

std::optional<AnomalyDetail> ConsoleStore::detail(const std::string& id, int days) const {
  AnomalyStore store(path_);
  // One read transaction: the state, the record and the history agree.
  store.database().begin_transaction();
  std::optional<AnomalyDetail> detail;
  if (auto record = store.find(id)) {
    detail.emplace();
    detail->history = store.history_of(*record, days);
    detail->record = std::move(*record);
    Prepared st(store.database(), console_sql::kStateById, {id});
    store.database().visit_records_prepared(
        st, [&](const RecordCursor& cursor) { detail->state = state_from_number(integer(cursor.text(0))); });
  }
  store.database().commit_transaction();
  return detail;
}

StatusFigures ConsoleStore::status() const {
  AnomalyStore store(path_);
  return read_status_figures(store.database(), std::time(nullptr));
}

HistoryTally::Counts ConsoleStore::history_counts() const {
  AnomalyStore store(path_);
  return read_history_counts(store.database(), std::time(nullptr));
}

std::vector<std::pair<std::string, long long>> ConsoleStore::per_day(time_t since) const {
  AnomalyStore store(path_);
  Prepared st(store.database(), console_sql::kAnomaliesPerDay, {static_cast<double>(since)});
  std::vector<std::pair<std::string, long long>> days;
  store.database().visit_records_prepared(
      st, [&](const RecordCursor& cursor) { days.emplace_back(cursor.text(0), integer(cursor.text(1))); });
  return days;
}

VerdictOutcome ConsoleStore::report_false_positive(const std::string& id) const {
  return give_verdict(path_, id, Verdict::false_positive);
}

VerdictOutcome ConsoleStore::acknowledge(const std::string& id) const {
  return give_verdict(path_, id, Verdict::acknowledged);
}

std::vector<VerdictOutcome> ConsoleStore::give(const std::vector<std::string>& ids, Verdict verdict,
                                               const std::string& reason) const {
  return give_verdicts(path_, ids, verdict, reason);
}
