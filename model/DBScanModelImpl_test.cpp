#include "model/DBScanModelImpl.h"

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <limits>
#include <queue>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>
#include "tests/support/ObservationRows.h"

namespace {

using Matrix = std::vector<std::vector<double>>;
using tsanomaly_test::make_obs;

std::vector<int> run(double eps, int min_samples, int run_mode, const Matrix& rows) {
  DBScan model(eps, min_samples, run_mode);
  std::vector<int> labels;
  model.Run(make_obs(rows), labels);
  return labels;
}

std::vector<int> drain(std::queue<int> q) {
  std::vector<int> out;
  for (; !q.empty(); q.pop()) out.push_back(q.front());
  return out;
}

// ---------------------------------------------------------------------------
// Reference implementations, written for clarity rather than speed.

double reference_distance(const std::vector<double>& a, const std::vector<double>& b) {
  double sum = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double x = b[i] - a[i];
    sum += x * x;
  }
  return std::sqrt(sum);
}

Matrix all_distances(const Matrix& rows) {
  Matrix d(rows.size(), std::vector<double>(rows.size(), 0.0));
  for (std::size_t i = 0; i < rows.size(); ++i)
    for (std::size_t j = 0; j < rows.size(); ++j) d[i][j] = reference_distance(rows[i], rows[j]);
  return d;
}

// 0-based indices of i and of every row strictly closer than eps.
std::vector<int> reference_neighbours(const Matrix& dist, int i, double eps) {
  std::vector<int> out;
  for (int j = 0; j < static_cast<int>(dist.size()); ++j)
    if (j == i || dist[i][j] < eps) out.push_back(j);
  return out;
}

// Textbook breadth-first DBSCAN: clusters numbered in the order their seeds
// are met scanning rows ascending; a noise row reached by a core row becomes
// a border row of that cluster; a clustered row is never taken over.
std::vector<int> reference_dbscan(const Matrix& rows, double eps, int min_samples) {
  const Matrix dist = all_distances(rows);
  const int n = static_cast<int>(rows.size());
  std::vector<int> labels(n, 0);
  int k = 0;
  for (int i = 0; i < n; ++i) {
    if (labels[i] != 0) continue;
    const std::vector<int> seeds = reference_neighbours(dist, i, eps);
    if (static_cast<int>(seeds.size()) < min_samples) {
      labels[i] = -1;
      continue;
    }
    labels[i] = ++k;
    std::deque<int> frontier(seeds.begin(), seeds.end());
    while (!frontier.empty()) {
      const int q = frontier.front();
      frontier.pop_front();
      if (labels[q] == -1) labels[q] = k;  // border: it was too sparse to be core
      if (labels[q] != 0) continue;
      labels[q] = k;
      const std::vector<int> more = reference_neighbours(dist, q, eps);
      if (static_cast<int>(more.size()) >= min_samples) frontier.insert(frontier.end(), more.begin(), more.end());
    }
  }
  return labels;
}

struct DescribedOutcome {
  std::vector<int> labels;
  bool completed = false;
};

// Step-by-step replay of the clustering loop as the clusterer documents it,
// with 1-based row ids and plain FIFO queues, including run mode 2's checks.
DescribedOutcome replay_described_run(const Matrix& rows, double eps, int min_samples, int run_mode) {
  const Matrix dist = all_distances(rows);
  const int n = static_cast<int>(rows.size());
  DescribedOutcome out;
  std::vector<int>& labels = out.labels;
  labels.assign(n, 0);
  const auto neighbours = [&](int r, std::queue<int>& q) {
    q.push(r);
    for (int j = 1; j <= n; ++j)
      if (j != r && eps > dist[r - 1][j - 1]) q.push(j);
  };
  const auto stop = [&] { return run_mode == 2 && labels[0] > 0; };

  int k = 0;
  for (int i = 1; i <= n; ++i) {
    if (labels[i - 1] != 0) continue;
    std::queue<int> seeds;
    neighbours(i, seeds);
    if (static_cast<int>(seeds.size()) < min_samples) {
      labels[i - 1] = -1;
      continue;
    }
    labels[i - 1] = ++k;
    if (stop()) return out;
    while (!seeds.empty()) {
      const int p = seeds.front();
      seeds.pop();
      if (labels[p - 1] == 0 || labels[p - 1] == -1) labels[p - 1] = k;
      std::queue<int> found;
      neighbours(p, found);
      if (static_cast<int>(found.size()) < min_samples) continue;
      for (; !found.empty(); found.pop()) {
        const int q = found.front();
        if (labels[q - 1] > 0) continue;
        labels[q - 1] = k;
        if (stop()) return out;
        seeds.push(q);
      }
    }
  }
  out.completed = true;
  return out;
}

ClosestClusterInfo reference_closest(const Matrix& dist, const std::vector<int>& labels, int index) {
  const int m = static_cast<int>(labels.size());
  if (index < 0 || index >= m) return {-1, -1.0};
  if (labels[index] != -1) return {labels[index], 0.0};
  ClosestClusterInfo best{-1, 2147483647.0};
  for (int j = 0; j < m; ++j) {
    if (j == index || labels[j] == -1) continue;
    if (dist[index][j] < best.distance) best = {labels[j], dist[index][j]};
  }
  return best;
}

// ---------------------------------------------------------------------------
// Random inputs. Grid points with integral or sqrt(2) radii and radii copied
// from actual pairwise distances make rows land exactly on eps; copied rows
// give duplicates at distance 0.

struct RandomCase {
  Matrix rows;
  std::vector<double> eps_values;
};

void add_duplicates(Matrix& rows, std::mt19937& rng) {
  std::bernoulli_distribution copy(0.15);
  for (std::size_t i = 1; i < rows.size(); ++i) {
    if (copy(rng)) rows[i] = rows[std::uniform_int_distribution<std::size_t>(0, i - 1)(rng)];
  }
}

RandomCase grid_case(std::mt19937& rng) {
  const int n = std::uniform_int_distribution<int>(1, 60)(rng);
  const int features = std::uniform_int_distribution<int>(1, 4)(rng);
  std::uniform_int_distribution<int> coord(0, 4);
  RandomCase c;
  for (int i = 0; i < n; ++i) {
    std::vector<double> row;
    for (int f = 0; f < features; ++f) row.push_back(coord(rng));
    c.rows.push_back(row);
  }
  add_duplicates(c.rows, rng);
  c.eps_values = {1.0, std::sqrt(2.0), 2.0, 3.0};
  return c;
}

RandomCase blob_case(std::mt19937& rng, int max_rows = 60) {
  const int n = std::uniform_int_distribution<int>(1, max_rows)(rng);
  const int features = std::uniform_int_distribution<int>(1, 5)(rng);
  const int blobs = std::uniform_int_distribution<int>(1, 4)(rng);
  std::normal_distribution<double> centre_at(0.0, 5.0);
  std::normal_distribution<double> spread(0.0, 1.0);
  Matrix centres(blobs);
  for (std::vector<double>& centre : centres)
    for (int f = 0; f < features; ++f) centre.push_back(centre_at(rng));

  RandomCase c;
  std::uniform_int_distribution<int> pick_blob(0, blobs - 1);
  for (int i = 0; i < n; ++i) {
    std::vector<double> row = centres[pick_blob(rng)];
    for (double& x : row) x += spread(rng);
    c.rows.push_back(row);
  }
  add_duplicates(c.rows, rng);

  c.eps_values = {std::uniform_real_distribution<double>(0.3, 3.0)(rng)};
  std::uniform_int_distribution<int> pick_row(0, n - 1);
  for (int t = 0; t < 3 && n > 1; ++t) {
    const int a = pick_row(rng);
    const int b = pick_row(rng);
    if (a != b) c.eps_values.push_back(reference_distance(c.rows[a], c.rows[b]));
  }
  return c;
}

std::vector<RandomCase> random_cases(unsigned seed, int count) {
  std::mt19937 rng(seed);
  std::vector<RandomCase> cases;
  for (int i = 0; i < count; ++i) cases.push_back(i % 2 == 0 ? grid_case(rng) : blob_case(rng));
  return cases;
}

std::string describe(std::size_t case_index, double eps, int min_samples) {
  return "case " + std::to_string(case_index) + " eps " + std::to_string(eps) + " min_samples " +
         std::to_string(min_samples);
}

// ---------------------------------------------------------------------------
// Edge cases.

TEST(DBScan, EmptyInputGivesEmptyLabelsAndComputesNoDistance) {
  DBScan model(1.0, 2, 1);
  std::vector<int> labels{4, 5};
  model.Run(make_obs({}), labels);
  EXPECT_TRUE(labels.empty());
  EXPECT_TRUE(model.get_cluster_labels().empty());
  EXPECT_EQ(model.get_distance_matrix_size(), 0);
}

TEST(DBScan, SingleRowWithMinSamplesOneIsItsOwnCluster) {
  DBScan model(0.5, 1, 1);
  std::vector<int> labels;
  model.Run(make_obs({{3.0, 4.0}}), labels);
  EXPECT_EQ(labels, std::vector<int>{1});
  EXPECT_EQ(model.get_cluster_labels(), std::vector<int>{1});
}

TEST(DBScan, SingleRowWithMinSamplesTwoOrMoreIsNoise) {
  EXPECT_EQ(run(0.5, 2, 1, {{3.0, 4.0}}), std::vector<int>{-1});
  EXPECT_EQ(run(0.5, 5, 1, {{3.0, 4.0}}), std::vector<int>{-1});
}

TEST(DBScan, RowsExactlyEpsApartAreNotNeighbours) {
  const Matrix rows{{0.0, 0.0}, {3.0, 4.0}};
  EXPECT_EQ(run(5.0, 2, 1, rows), (std::vector<int>{-1, -1}));

  DBScan model(5.0, 2, 1);
  std::queue<int> q;
  model.GetNeighborsForRow(make_obs(rows), 1, q);
  EXPECT_EQ(drain(q), std::vector<int>{1});
}

TEST(DBScan, RowsJustUnderEpsApartAreNeighbours) {
  const double eps = std::nextafter(5.0, 6.0);
  EXPECT_EQ(run(eps, 2, 1, {{0.0, 0.0}, {3.0, 4.0}}), (std::vector<int>{1, 1}));
}

TEST(DBScan, NoiseSeedIsLaterClaimedAsBorderOfCluster) {
  // P-Q and Q-R are 0.1 apart, P-R 0.2: only Q has three neighbours.
  const Matrix rows{{0.0}, {0.1}, {0.2}};
  DBScan probe(0.15, 3, 1);
  std::queue<int> around_p;
  probe.GetNeighborsForRow(make_obs(rows), 1, around_p);
  ASSERT_EQ(drain(around_p), (std::vector<int>{1, 2}));  // too few: P is noise as a seed

  EXPECT_EQ(run(0.15, 3, 1, rows), (std::vector<int>{1, 1, 1}));
}

TEST(DBScan, RunModeTwoStopsAsSoonAsRowOneIsCore) {
  const Matrix rows{{0.0}, {0.1}, {0.2}, {10.0}, {10.1}, {10.2}};
  ASSERT_EQ(run(0.5, 3, 1, rows), (std::vector<int>{1, 1, 1, 2, 2, 2}));

  DBScan model(0.5, 3, 2);
  std::vector<int> labels;
  model.Run(make_obs(rows), labels);
  EXPECT_EQ(labels, (std::vector<int>{1, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(model.get_cluster_labels().empty());
}

TEST(DBScan, RunModeTwoCompletesWhenRowOneStaysNoise) {
  DBScan model(0.5, 3, 2);
  std::vector<int> labels;
  model.Run(make_obs({{5.0}, {0.0}, {0.1}, {0.2}}), labels);
  EXPECT_EQ(labels, (std::vector<int>{-1, 1, 1, 1}));
  EXPECT_EQ(model.get_cluster_labels(), labels);
}

TEST(DBScan, ClosestClusterOfClusteredRowIsItsOwnAtDistanceZero) {
  // Row 2 (index 2) is the only clustered row in cluster 2.
  const Matrix rows{{0.0}, {0.1}, {10.0}, {10.1}, {20.0}};
  DBScan model(0.5, 2, 1);
  std::vector<int> labels;
  model.Run(make_obs(rows), labels);
  ASSERT_EQ(labels, (std::vector<int>{1, 1, 2, 2, -1}));
  const ClosestClusterInfo info = model.get_closest_cluster_for_observation(2);
  EXPECT_EQ(info.cluster_id, 2);
  EXPECT_EQ(info.distance, 0.0);
}

TEST(DBScan, ClosestClusterOutOfRangeIndexIsMinusOne) {
  DBScan model(0.5, 2, 1);
  std::vector<int> labels;
  model.Run(make_obs({{0.0}, {0.1}, {5.0}}), labels);
  for (const int index : {-1, 3, 100}) {
    const ClosestClusterInfo info = model.get_closest_cluster_for_observation(index);
    EXPECT_EQ(info.cluster_id, -1) << index;
    EXPECT_EQ(info.distance, -1.0) << index;
  }
}

TEST(DBScan, ClosestClusterBeforeAnyRunIsMinusOne) {
  const ClosestClusterInfo info = DBScan(0.5, 2, 1).get_closest_cluster_for_observation(0);
  EXPECT_EQ(info.cluster_id, -1);
  EXPECT_EQ(info.distance, -1.0);
}

TEST(DBScan, ClosestClusterOfNoiseRowIsNearestClusteredRowLowestIndexOnTie) {
  // Noise row 0 at 5.0 is exactly 3.0 from row 1 (cluster 1) and from row 3
  // (cluster 2): the tie goes to the lower index.
  const Matrix rows{{5.0}, {2.0}, {1.9}, {8.0}, {8.1}};
  DBScan model(0.5, 2, 1);
  std::vector<int> labels;
  model.Run(make_obs(rows), labels);
  ASSERT_EQ(labels, (std::vector<int>{-1, 1, 1, 2, 2}));
  const ClosestClusterInfo info = model.get_closest_cluster_for_observation(0);
  EXPECT_EQ(info.cluster_id, 1);
  EXPECT_EQ(info.distance, 3.0);
}

TEST(DBScan, ClosestClusterWhenNothingIsClusteredIsMaxIntDistance) {
  DBScan model(0.5, 2, 1);
  std::vector<int> labels;
  model.Run(make_obs({{0.0}, {3.0}}), labels);
  const ClosestClusterInfo info = model.get_closest_cluster_for_observation(1);
  EXPECT_EQ(info.cluster_id, -1);
  EXPECT_EQ(info.distance, 2147483647.0);
}

TEST(DBScan, EuclideanDistanceOfEqualLengthRows) {
  EXPECT_EQ(DBScan::GetEuclideanDistance({1.0, 2.0}, {4.0, 6.0}), 5.0);
  EXPECT_EQ(DBScan::GetEuclideanDistance({}, {}), 0.0);
}

TEST(DBScan, EuclideanDistanceRejectsRowsOfDifferentLength) {
  try {
    DBScan::GetEuclideanDistance({1.0, 2.0}, {1.0});
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Invalid input. Feature set having different dimensions.");
  }
}

TEST(DBScan, RunWithRowsOfDifferentLengthThrowsAndCompletesNothing) {
  DBScan model(1.0, 2, 1);
  std::vector<int> labels;
  try {
    model.Run(make_obs({{0.0, 0.0}, {0.5, 0.5}, {1.0}}), labels);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Invalid input. Feature set having different dimensions.");
  }
  EXPECT_EQ(labels, (std::vector<int>{0, 0, 0}));
  EXPECT_TRUE(model.get_cluster_labels().empty());
}

TEST(DBScan, RunKeepsLabelsTheCallerAlreadyHeld) {
  // Row 3 arrives labelled 7: it is never a seed and, being positive, never
  // relabelled; rows 1 and 2 form cluster 1 around it.
  DBScan model(0.5, 1, 1);
  std::vector<int> labels{0, 0, 7};
  model.Run(make_obs({{0.0}, {0.1}, {0.2}}), labels);
  EXPECT_EQ(labels, (std::vector<int>{1, 1, 7}));
}

TEST(DBScan, OnlyTheFirstNumObservationsRowsAreClustered) {
  Observations obs = make_obs({{0.0}, {0.1}, {0.2}});
  obs.num_observations = 2;
  DBScan model(0.5, 2, 1);
  std::vector<int> labels;
  model.Run(obs, labels);
  EXPECT_EQ(labels, (std::vector<int>{1, 1}));
}

TEST(DBScan, SecondRunBehavesLikeAFreshObject) {
  DBScan model(0.5, 2, 2);
  std::vector<int> first;
  model.Run(make_obs({{9.0}, {0.0}, {0.1}}), first);
  ASSERT_EQ(model.get_cluster_labels(), (std::vector<int>{-1, 1, 1}));

  const Matrix second_rows{{0.0}, {0.1}, {0.2}, {5.0}};
  std::vector<int> second;
  model.Run(make_obs(second_rows), second);
  EXPECT_EQ(second, run(0.5, 2, 2, second_rows));
  EXPECT_TRUE(model.get_cluster_labels().empty());  // early stop, nothing left over
  EXPECT_EQ(model.get_distance_matrix_size(), 4);
  EXPECT_EQ(model.get_cached_distance(0, 1), 0.1);
  EXPECT_EQ(model.get_cached_distance(1, 2), -1.0);  // new cache, not the first run's
}

TEST(DBScan, Init2DArrayAppendsSquareBlockOfFill) {
  std::vector<std::vector<double>> matrix{{9.0}};
  DBScan::Init2DArray(2, -1, matrix);
  EXPECT_EQ(matrix, (std::vector<std::vector<double>>{{9.0}, {-1.0, -1.0}, {-1.0, -1.0}}));
  DBScan::Init2DArray(1, 3, matrix);
  EXPECT_EQ(matrix.back(), std::vector<double>{3.0});
  EXPECT_EQ(matrix.size(), 4u);
}

TEST(DBScan, Init2DArrayIgnoresSizeBelowOne) {
  std::vector<std::vector<double>> matrix{{1.0}};
  DBScan::Init2DArray(0, -1, matrix);
  DBScan::Init2DArray(-3, -1, matrix);
  EXPECT_EQ(matrix, (std::vector<std::vector<double>>{{1.0}}));
}

TEST(DBScan, GetRowFromRowIdIsOneBased) {
  const Observations obs = make_obs({{1.0, 2.0}, {3.0, 4.0}});
  EXPECT_EQ(DBScan::GetRowFromRowID(obs, 2), (std::vector<double>{3.0, 4.0}));
}

TEST(DBScan, NeighboursStartWithTheRowThenAscendAndFillTheCacheBothWays) {
  const Observations obs = make_obs({{0.0}, {5.0}, {0.3}, {0.2}, {9.0}});
  DBScan model(0.5, 2, 1);
  std::queue<int> q;
  q.push(42);
  model.GetNeighborsForRow(obs, 4, q);
  EXPECT_EQ(drain(q), (std::vector<int>{42, 4, 1, 3}));

  ASSERT_EQ(model.get_distance_matrix_size(), 5);
  for (int j = 0; j < 5; ++j) {
    if (j == 3) continue;
    EXPECT_EQ(model.get_cached_distance(3, j), std::abs(obs.data[j][0] - 0.2)) << j;
    EXPECT_EQ(model.get_cached_distance(j, 3), model.get_cached_distance(3, j)) << j;
  }
  EXPECT_EQ(model.get_cached_distance(3, 3), -1.0);
  EXPECT_EQ(model.get_cached_distance(0, 1), -1.0);  // not asked for yet
}

// ---------------------------------------------------------------------------
// Properties over random inputs.

TEST(DBScanProperty, RunModeOneMatchesTextbookDbscan) {
  const std::vector<RandomCase> cases = random_cases(20240611u, 400);
  int compared = 0;
  for (std::size_t c = 0; c < cases.size(); ++c) {
    for (const double eps : cases[c].eps_values) {
      for (int min_samples = 1; min_samples <= 6; ++min_samples) {
        SCOPED_TRACE(describe(c, eps, min_samples));
        ASSERT_EQ(run(eps, min_samples, 1, cases[c].rows), reference_dbscan(cases[c].rows, eps, min_samples));
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 5000);
}

TEST(DBScanProperty, RunModeOneLeavesEveryDistanceComputedAndLabelsStored) {
  const std::vector<RandomCase> cases = random_cases(77u, 60);
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const Matrix& rows = cases[c].rows;
    SCOPED_TRACE(describe(c, cases[c].eps_values.front(), 3));
    DBScan model(cases[c].eps_values.front(), 3, 1);
    std::vector<int> labels;
    model.Run(make_obs(rows), labels);
    ASSERT_EQ(model.get_cluster_labels(), labels);

    const Matrix dist = all_distances(rows);
    const int n = static_cast<int>(rows.size());
    ASSERT_EQ(model.get_distance_matrix_size(), n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) ASSERT_EQ(model.get_cached_distance(i, j), i == j ? -1.0 : dist[i][j]);
  }
}

TEST(DBScanProperty, RunModeTwoFollowsTheDescribedLoopAndStopsOnRowOne) {
  const std::vector<RandomCase> cases = random_cases(99173u, 300);
  int stopped = 0;
  int completed = 0;
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const Matrix& rows = cases[c].rows;
    for (const double eps : cases[c].eps_values) {
      for (int min_samples = 1; min_samples <= 6; ++min_samples) {
        SCOPED_TRACE(describe(c, eps, min_samples));
        DBScan model(eps, min_samples, 2);
        std::vector<int> labels;
        model.Run(make_obs(rows), labels);
        const DescribedOutcome expected = replay_described_run(rows, eps, min_samples, 2);
        ASSERT_EQ(labels, expected.labels);

        const std::vector<int> full = reference_dbscan(rows, eps, min_samples);
        if (expected.completed) {
          ++completed;
          ASSERT_EQ(full[0], -1);  // only a noise row 1 lets the run finish
          ASSERT_EQ(labels, full);
          ASSERT_EQ(model.get_cluster_labels(), labels);
        } else {
          ++stopped;
          ASSERT_GT(labels[0], 0);
          ASSERT_TRUE(model.get_cluster_labels().empty());
          // Positive labels are final, so everything labelled so far agrees
          // with the complete run.
          for (std::size_t i = 0; i < labels.size(); ++i) {
            if (labels[i] > 0) {
              ASSERT_EQ(labels[i], full[i]) << "row index " << i;
            }
          }
        }
      }
    }
  }
  EXPECT_GT(stopped, 500);
  EXPECT_GT(completed, 500);
}

TEST(DBScanProperty, DescribedLoopInRunModeOneMatchesTextbookDbscan) {
  // Ties the replay used above to the independent textbook reference.
  const std::vector<RandomCase> cases = random_cases(5u, 100);
  for (std::size_t c = 0; c < cases.size(); ++c) {
    for (const double eps : cases[c].eps_values) {
      for (int min_samples = 1; min_samples <= 6; ++min_samples) {
        SCOPED_TRACE(describe(c, eps, min_samples));
        const DescribedOutcome replay = replay_described_run(cases[c].rows, eps, min_samples, 1);
        ASSERT_TRUE(replay.completed);
        ASSERT_EQ(replay.labels, reference_dbscan(cases[c].rows, eps, min_samples));
      }
    }
  }
}

TEST(DBScanProperty, LargerMatricesMatchTextbookDbscanAndBruteForceClosest) {
  // Hundreds of rows: a cache of several megabytes, filled in a scattered
  // order by the breadth-first expansion.
  std::mt19937 rng(8675309u);
  for (int c = 0; c < 6; ++c) {
    RandomCase big = blob_case(rng, 700);
    while (big.rows.size() < 520) big = blob_case(rng, 700);  // past 2 MiB of cache
    const Matrix dist = all_distances(big.rows);
    for (const double eps : big.eps_values) {
      for (const int min_samples : {3, 6}) {
        SCOPED_TRACE(describe(c, eps, min_samples));
        DBScan model(eps, min_samples, 1);
        std::vector<int> labels;
        model.Run(make_obs(big.rows), labels);
        ASSERT_EQ(labels, reference_dbscan(big.rows, eps, min_samples));
        for (int index = 0; index < static_cast<int>(labels.size()); ++index) {
          const ClosestClusterInfo got = model.get_closest_cluster_for_observation(index);
          const ClosestClusterInfo want = reference_closest(dist, labels, index);
          ASSERT_EQ(got.cluster_id, want.cluster_id) << "index " << index;
          ASSERT_EQ(got.distance, want.distance) << "index " << index;
        }
      }
    }
  }
}

TEST(DBScanProperty, ClosestClusterMatchesBruteForce) {
  const std::vector<RandomCase> cases = random_cases(314159u, 200);
  int noise_rows_checked = 0;
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const Matrix& rows = cases[c].rows;
    const Matrix dist = all_distances(rows);
    for (const double eps : cases[c].eps_values) {
      for (const int min_samples : {2, 4}) {
        SCOPED_TRACE(describe(c, eps, min_samples));
        DBScan model(eps, min_samples, 1);
        std::vector<int> labels;
        model.Run(make_obs(rows), labels);
        const int n = static_cast<int>(rows.size());
        for (int index = -2; index <= n + 1; ++index) {
          const ClosestClusterInfo got = model.get_closest_cluster_for_observation(index);
          const ClosestClusterInfo want = reference_closest(dist, labels, index);
          ASSERT_EQ(got.cluster_id, want.cluster_id) << "index " << index;
          ASSERT_EQ(got.distance, want.distance) << "index " << index;
          if (index >= 0 && index < n && labels[index] == -1) ++noise_rows_checked;
        }
      }
    }
  }
  EXPECT_GT(noise_rows_checked, 1000);
}

}  // namespace

namespace {

Matrix grid_rows(int n, double step) {
  Matrix rows;
  for (int i = 0; i < n; ++i) rows.push_back({step * (i % 7), step * (i / 7), (i % 3) * 0.25});
  return rows;
}

}  // namespace

// One object run again and again yields what fresh objects yield, and each
// pair it reports is either not computed yet or exactly the distance.
TEST(DBScan, RunsOfOneObjectYieldWhatFreshRunsYield) {
  const std::vector<Matrix> sets = {grid_rows(300, 0.4), grid_rows(40, 0.7), grid_rows(120, 0.3), grid_rows(300, 1.1)};
  for (const int mode : {1, 2}) {
    DBScan reused(0.75, 4, mode);
    for (std::size_t s = 0; s < sets.size(); ++s) {
      SCOPED_TRACE("set " + std::to_string(s) + ", mode " + std::to_string(mode));
      std::vector<int> labels;
      reused.Run(make_obs(sets[s]), labels);
      EXPECT_EQ(labels, run(0.75, 4, mode, sets[s]));
      const Matrix dist = all_distances(sets[s]);
      const int n = static_cast<int>(sets[s].size());
      // Row 0 is always filled; other pairs are either not computed or exact.
      for (int j = 1; j < n; ++j) ASSERT_EQ(reused.get_cached_distance(0, j), dist[0][j]);
      for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
          const double cached = reused.get_cached_distance(i, j);
          if (i == j || cached != -1.0) {
            ASSERT_EQ(cached, i == j ? -1.0 : dist[i][j]);
          }
        }
      }
    }
  }
}

// A pair cached from earlier rows keeps its distance when GetNeighborsForRow
// is given other rows of the same count; only pairs not cached yet come from
// the new rows.
TEST(DBScan, CachedPairsOutliveTheRowsTheyWereComputedFrom) {
  DBScan model(1.5, 2, 1);
  const auto neighbours = [&model](const Matrix& rows, int row_id) {
    std::queue<int> q;
    model.GetNeighborsForRow(make_obs(rows), row_id, q);
    return drain(q);
  };
  EXPECT_EQ(neighbours({{0.0}, {1.0}, {2.0}}, 1), (std::vector<int>{1, 2}));
  EXPECT_EQ(neighbours({{0.0}, {5.0}, {0.5}}, 2), (std::vector<int>{2, 1}));  // 1-2 still 1.0; 2-3 newly 4.5
  EXPECT_EQ(model.get_cached_distance(1, 0), 1.0);
  EXPECT_EQ(model.get_cached_distance(1, 2), 4.5);
  EXPECT_EQ(neighbours({{0.0}, {5.0}, {0.5}}, 3), (std::vector<int>{3}));  // 1-3 cached as 2.0, 2-3 as 4.5
  EXPECT_EQ(model.get_cached_distance(2, 0), 2.0);
}
