// ConsoleStore: what the operator console reads from and writes to the
// detector's database. Every call opens its own connection (the server
// answers requests on several threads), reads on a read-only one, and
// writes a verdict in one short BEGIN IMMEDIATE transaction that waits for
// the detector's lock up to a busy timeout. Failures are thrown as
// std::runtime_error or sqlite_exception; an unknown id is not a failure.
#pragma once

#include <array>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operator/AnomalyStore.h"
#include "operator/StatusFigures.h"
#include "operator/AnomalyState.h"
#include "operator/Verdict.h"
#include "console/HistoryTally.h"

struct ListQuery {
  std::string client;   // exact, letter case ignored; empty for any
  std::string policy;   // exact, letter case ignored; empty for any
  time_t from = 0;      // detection time at or after
  time_t to = 0;        // detection time before; 0 for no end
  std::optional<AnomalyState> state;
  long long limit = 50;
  long long offset = 0;
};

struct ListedAnomaly {
  std::string id, client, policy, summary, score;
  time_t detection_time = 0;
  AnomalyState state = AnomalyState::open;
};

// The tiles above the list, for the anomalies the filter selects.
struct ListTotals {
  long long anomalies = 0, clients = 0, last_day = 0, last_week = 0;
};

struct AnomalyDetail {
  AnomalyRecord record;
  WorkloadHistory history;
  AnomalyState state = AnomalyState::open;
};

class ConsoleStore {
 public:
  // Checks once that path is a readable detector database (see AnomalyStore).
  explicit ConsoleStore(std::string path);

  std::vector<ListedAnomaly> list(const ListQuery& query) const;
  ListTotals totals(const ListQuery& query, time_t now) const;
  // The ids the filter selects, the latest reported first, at most limit
  // (query.limit and offset are not used).
  std::vector<std::string> ids(const ListQuery& query, long long limit) const;
  // With days, the workload history of that many days before the job.
  std::optional<AnomalyDetail> detail(const std::string& id, int days) const;
  // The id an address names by its handle (see AnomalyStore::id_of_handle).
  std::optional<std::string> id_of_handle(const std::string& handle) const;
  // Every figure but the history's two, which history_counts() gives.
  StatusFigures status() const;
  // The history's rows and distinct workloads: a pass over the whole table.
  HistoryTally::Counts history_counts() const;
  // Anomalies per local day, oldest first, from since on: (YYYY-MM-DD, count),
  // days without anomalies left out.
  std::vector<std::pair<std::string, long long>> per_day(time_t since) const;

  VerdictOutcome report_false_positive(const std::string& id) const;
  VerdictOutcome acknowledge(const std::string& id) const;
  // One verdict for many (see give_verdicts).
  std::vector<VerdictOutcome> give(const std::vector<std::string>& ids, Verdict verdict,
                                   const std::string& reason) const;

 private:
  std::string path_;
};
