#include "replay/UnjudgeableJobs.h"

#include <sqlite3.h>

#include <algorithm>

#include "schema/ReplaySql.h"
#include "service/PassSettings.h"
#include "storage/DBAccess.h"

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;

namespace {

// Whether the job can end without judgement at all: only a job short of
// history on its own storage (the fallback set) or with features disabled
// for its policy type can. Most jobs are ruled out here without a replay.
bool could_be_unjudgeable(Row& job, const PassSettings& settings) {
  const long long own_history = std::stoll("0" + job["OWN_HISTORY"].text());
  const long long streams = std::max(1LL, std::stoll("0" + job["STREAMS"].text()));
  return own_history < static_cast<long long>(settings.min_observations) * streams ||
         !settings.disabled_features_for(job["POLICY_TYPE"].text()).empty();
}

void count(const Judgement& judgement, UnjudgeableCount& counted) {
  switch (judgement.unjudgeable) {
    case Judgement::Unjudgeable::unequal_features: ++counted.unequal_features; break;
    case Judgement::Unjudgeable::features_disabled: ++counted.features_disabled; break;
    case Judgement::Unjudgeable::pass_failed: ++counted.pass_failed; break;
    case Judgement::Unjudgeable::no: break;
  }
}

}  // namespace

UnjudgeableCount count_unjudgeable_jobs(const std::string& database_path, const ReplaySettings& settings) {
  const PassSettings pass_settings = PassSettings::read(settings.config_file);
  Rows pending;
  {
    DBAccess db(database_path, SQLITE_OPEN_READONLY);
    db.read_data(replay_sql::kPendingJobsWithOwnHistory, pending);
  }
  UnjudgeableCount counted;
  counted.pending = static_cast<long long>(pending.size());
  for (Row& job : pending) {
    if (could_be_unjudgeable(job, pass_settings)) {
      count(replay_judgement(database_path, job["UNIQUE_KEY"].text(), settings), counted);
    }
  }
  return counted;
}
