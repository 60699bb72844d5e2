// PassStatus: the one line the service manager shows about the last pass
// (when it ended, jobs judged, anomalies reported, how long it took). The
// counts come from the database as the caller sees it before and after the
// pass: pending jobs that left the queue, anomaly rows added. The pass
// itself is not touched; a count that cannot be read is left out.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "storage/DBAccess.h"

class PassStatus {
 public:
  using DBAccess = Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;

  // Where the queue and the anomaly table stand before a pass.
  static PassStatus before_pass(DBAccess& db);

  // The status line once the pass has ended at `ended`, `seconds` after it began.
  std::string after_pass(DBAccess& db, time_t ended, double seconds) const;

 private:
  struct Marks {
    double queue_mark = 0;
    long long pending = 0;
    double anomaly_mark = 0;
  };
  std::optional<Marks> marks_;
};
