// Cost of the clusterer on standardised training sets of the sizes the
// detection service meets: one run in each mode, a calibration-style eps
// sweep, the peak memory of a run on the largest set, and calibration's eps
// search done by the calibrator against the same search by repeated runs.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "model/DBScanModelImpl.h"
#include "model/EpsCalibrator.h"
#include "model/StandardizeData.h"

namespace {

constexpr int kFeatures = 5;
constexpr double kEps = 2.5;
constexpr int kMinSamples = 3;
constexpr int kSweepTries = 15;
constexpr int kLargest = 3000;

// n rows of normal noise, standardised. Row 1 sits at the centre, so it
// clusters and run mode 2 on it ends after one neighbourhood; the last row is
// far enough out to stay noise at every eps of the sweep.
Observations make_training_set(int n) {
  std::mt19937 rng(1000003u + static_cast<unsigned>(n));
  std::normal_distribution<double> normal(0.0, 1.0);
  std::vector<std::vector<double>> rows;
  rows.emplace_back(kFeatures, 0.0);
  for (int i = 1; i < n - 1; ++i) {
    std::vector<double> row(kFeatures);
    for (double& x : row) x = normal(rng);
    rows.push_back(row);
  }
  rows.emplace_back(kFeatures, 12.0);
  StandardizeData().standardize(rows);
  return Observations{rows, kFeatures, n};
}

const Observations& training_set(int n) {
  static std::map<int, Observations> sets;
  auto it = sets.find(n);
  if (it == sets.end()) it = sets.emplace(n, make_training_set(n)).first;
  return it->second;
}

std::vector<int> cluster(const Observations& obs, double eps, int run_mode) {
  DBScan model(eps, kMinSamples, run_mode);
  std::vector<int> labels;
  model.Run(obs, labels);
  return labels;
}

void BM_RunLabelAll(benchmark::State& state) {
  const Observations& obs = training_set(static_cast<int>(state.range(0)));
  std::vector<int> labels;
  for (auto _ : state) {
    labels = cluster(obs, kEps, 1);
    benchmark::DoNotOptimize(labels.data());
  }
  state.counters["noise_rows"] = static_cast<double>(std::count(labels.begin(), labels.end(), -1));
  state.counters["clusters"] = *std::max_element(labels.begin(), labels.end());
}

void BM_RunStopOnFirstRow(benchmark::State& state) {
  const Observations& obs = training_set(static_cast<int>(state.range(0)));
  std::vector<int> labels;
  for (auto _ : state) {
    labels = cluster(obs, kEps, 2);
    benchmark::DoNotOptimize(labels.data());
  }
  state.counters["first_row_label"] = labels.front();
}

// Like calibration: a fresh clusterer per eps, eps grown by repeated addition.
void BM_EpsSweep(benchmark::State& state) {
  const Observations& obs = training_set(static_cast<int>(state.range(0)));
  std::vector<int> labels;
  for (auto _ : state) {
    double eps = kEps;
    for (int t = 0; t < kSweepTries; ++t, eps += 0.1) {
      labels = cluster(obs, eps, 1);
      benchmark::DoNotOptimize(labels.data());
    }
  }
  state.counters["noise_rows_last_eps"] = static_cast<double>(std::count(labels.begin(), labels.end(), -1));
}

// The run happens in a child process so that its high-water mark is not
// mixed up with the other benchmarks; it includes what the child shares with
// this process at the fork (the training sets, the libraries).
void BM_PeakMemoryLargestRun(benchmark::State& state) {
  training_set(kLargest);
  long child_peak_kib = 0;
  for (auto _ : state) {
    const pid_t pid = fork();
    if (pid == 0) {
      cluster(training_set(kLargest), kEps, 1);
      _exit(0);
    }
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || status != 0) {
      state.SkipWithError("measuring child failed");
      return;
    }
    child_peak_kib = usage.ru_maxrss;
  }
  state.counters["run_peak_MiB"] = child_peak_kib / 1024.0;
}

// The far outlier stays noise at every grid value, so both searches go all
// the way and store the value after the last try.
template <double (*Calibrate)(const Observations&, int)>
void BM_CalibrateEps(benchmark::State& state) {
  const Observations& obs = training_set(static_cast<int>(state.range(0)));
  double eps = 0.0;
  for (auto _ : state) {
    eps = Calibrate(obs, kMinSamples);
    benchmark::DoNotOptimize(eps);
  }
  state.counters["eps"] = eps;
}

// A training set as most workloads have one: the same normal noise without
// the far outlier, noise free already at the first grid value, which the
// calibrator settles from a few distances per row.
void BM_CalibrateEpsNoOutlier(benchmark::State& state) {
  Observations obs = training_set(static_cast<int>(state.range(0)));
  obs.num_observations -= 1;  // leave the far row out
  double eps = 0.0;
  for (auto _ : state) {
    eps = EpsCalibrator::find_noise_free_eps(obs, kMinSamples);
    benchmark::DoNotOptimize(eps);
  }
  state.counters["eps"] = eps;
}

BENCHMARK(BM_RunLabelAll)->Arg(365)->Arg(1000)->Arg(kLargest)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RunStopOnFirstRow)->Arg(365)->Arg(1000)->Arg(kLargest)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EpsSweep)->Arg(365)->Arg(1000)->Arg(kLargest)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PeakMemoryLargestRun)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CalibrateEps<EpsCalibrator::find_noise_free_eps>)
    ->Name("BM_CalibrateEpsFast")
    ->Arg(365)
    ->Arg(kLargest)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CalibrateEpsNoOutlier)->Arg(365)->Arg(kLargest)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CalibrateEps<EpsCalibrator::find_noise_free_eps_by_repeated_runs>)
    ->Name("BM_CalibrateEpsRepeatedRuns")
    ->Arg(365)
    ->Arg(kLargest)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
