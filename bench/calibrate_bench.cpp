// Cost of DetectionService::calibrate as the pass pays it: the training
// records turned into a matrix, standardised, the noise-free eps searched
// and stored. Training sets of 365 and 3000 raw records with one far
// outlier, so every eps of the grid leaves noise (the worst case).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "platform/DebugLog.h"
#include "schema/AnomalySchema.h"
#include "service/DetectionService.h"
#include "storage/DBAccess.h"

namespace {

using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::DBAccess;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Row;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Rows;
using Corvane::Tessaryn::UsageReporting::SQLiteDatabase::Value;

Rows training_records(int n) {
  std::mt19937 rng(4242u + static_cast<unsigned>(n));
  std::normal_distribution<double> noise(0.0, 1.0);
  Rows rows;
  for (int i = 0; i < n; ++i) {
    const double scale = i == n - 1 ? 50.0 : 1.0;  // the last job is far out
    Row row;
    row["NUM_FILES"] = Value(static_cast<int>(10000 + 100 * scale * noise(rng)));
    row["IMAGE_SIZE"] = Value(5e6 + 5e4 * scale * noise(rng));
    row["KB_TRANSFERRED"] = Value(4e6 + 4e4 * scale * noise(rng));
    row["TOTAL_TIME"] = Value(static_cast<int>(3600 + 60 * scale * noise(rng)));
    row["DEDUP_RATE"] = Value(10.0 + 0.5 * scale * noise(rng));
    row["USER_IDENTIFIED_CLUSTER"] = Value(-1);
    rows.push_back(row);
  }
  return rows;
}

class Database {
 public:
  Database() {
    char pattern[] = "/tmp/tsanomaly-bench-XXXXXX";
    folder = mkdtemp(pattern);
    DBAccess(folder + "/bench.db", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).execute_query(anomaly_schema::anomaly_db_sql());
    int status = 0;
    open_debug_log(folder, "tsanomalydetect", "tsanomalydetect", 0644, &status);
  }
  ~Database() {
    close_debug_log();
    std::filesystem::remove_all(folder);
  }
  std::string folder;
};

void BM_ServiceCalibrate(benchmark::State& state) {
  Database database;
  DetectionService service(database.folder, "bench.db", 0.5, 3.0, "");
  const Rows records = training_records(static_cast<int>(state.range(0)));
  Row job;
  for (const char* column : {"CLIENT", "POLICY", "POLICY_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME", "APP_TYPE",
                             "DESTINATION_STORAGE_NAME", "ASSET_ID"}) {
    job[column] = Value(std::string("bench"));
  }
  for (auto _ : state) {
    service.calibrate(job, records, 1);
  }
}
BENCHMARK(BM_ServiceCalibrate)->Arg(365)->Arg(3000)->Unit(benchmark::kMillisecond);

}  // namespace
