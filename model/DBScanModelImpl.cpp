#include "model/DBScanModelImpl.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>

#include "model/LazyDistanceMatrix.h"
#include "model/SquaredDistance.h"

namespace {

constexpr const char* kUnequalRows = DBScan::kUnequalRowsMessage;
constexpr double kNotComputed = -1.0;
constexpr double kNoClusterDistance = 2147483647.0;

}  // namespace

DBScan::DBScan(double eps, int min_samples, int run_mode)
    : neighbour_square_limit(least_square_reaching(eps)), min_samples(min_samples), run_mode(run_mode) {}

DBScan::~DBScan() = default;

void DBScan::Run(const Observations& obs, std::vector<int>& labels) {
  const int n = std::max(obs.num_observations, 0);
  labels.resize(n);
  cluster_labels.clear();
  start_fresh_cache(n);
  distance_matrix->load_rows(obs);
  settled.assign(n, 0);

  int k = 0;
  for (int i = 1; i <= n; ++i) {
    if (labels[i - 1] != 0) continue;
    find_neighbours(i);
    if (static_cast<int>(neighbourhood.size()) < min_samples) {
      // May still be claimed later as a border row of another cluster.
      labels[i - 1] = -1;
      settled[i - 1] = 1;
      continue;
    }
    labels[i - 1] = ++k;
    if (must_stop(labels)) return;
    expansion_queue.assign(neighbourhood.begin(), neighbourhood.end());
    expansion_head = 0;
    if (expand_cluster(k, labels)) return;
  }
  cluster_labels = labels;
}

// The seed is the first entry of its own neighbourhood, so it is popped first
// and claims its neighbours then; the labels equal those of plain
// breadth-first expansion. A row that already has a positive label keeps it,
// so a border row stays with the first cluster that reached it.
bool DBScan::expand_cluster(int k, std::vector<int>& labels) {
  while (expansion_head < expansion_queue.size()) {
    const int p = expansion_queue[expansion_head++];
    if (labels[p - 1] == 0 || labels[p - 1] == -1) labels[p - 1] = k;
    // Once a core row has been expanded all its neighbours carry positive
    // labels for good, and a row too sparse to be core stays so.
    if (settled[p - 1]) continue;
    settled[p - 1] = 1;

    find_neighbours(p);
    if (static_cast<int>(neighbourhood.size()) < min_samples) continue;
    for (const int q : neighbourhood) {
      if (labels[q - 1] > 0) continue;
      labels[q - 1] = k;
      if (must_stop(labels)) return true;
      expansion_queue.push_back(q);
    }
  }
  return false;
}

bool DBScan::must_stop(const std::vector<int>& labels) const {
  return run_mode == 2 && labels[0] > 0;
}

void DBScan::start_fresh_cache(int n) {
  // Give back a previous cache before taking the new one, so two never
  // coexist.
  distance_matrix.reset();
  distance_matrix = std::make_unique<LazyDistanceMatrix>(n);
  neighbourhood_row = 0;
}

void DBScan::find_neighbours(int row_id) {
  if (neighbourhood_row == row_id) return;
  const int n = distance_matrix->size();
  const double* squares = distance_matrix->row(row_id - 1);

  neighbourhood.resize(n);
  int* out = neighbourhood.data();
  std::size_t count = 0;
  out[count++] = row_id;
  // Every candidate is written and kept only if it is a neighbour: no branch
  // to mispredict on the hottest loop of a run.
  const auto scan = [&](int from, int to) {
    for (int j = from; j < to; ++j) {
      out[count] = j + 1;
      count += squares[j] < neighbour_square_limit ? 1 : 0;
    }
  };
  scan(0, row_id - 1);
  scan(row_id, n);
  neighbourhood.resize(count);
  neighbourhood_row = row_id;
}

ClosestClusterInfo DBScan::get_closest_cluster_for_observation(int index) const {
  const int m = static_cast<int>(cluster_labels.size());
  if (index < 0 || index > m - 1) return {-1, -1.0};
  if (cluster_labels[index] != -1) return {cluster_labels[index], 0.0};

  ClosestClusterInfo closest{-1, kNoClusterDistance};
  for (int j = 0; j < m; ++j) {
    if (j == index) continue;
    const double d = distance_matrix->cached(index, j);
    if (d < closest.distance && cluster_labels[j] != -1) closest = {cluster_labels[j], d};
  }
  return closest;
}

int DBScan::get_distance_matrix_size() const {
  return distance_matrix ? distance_matrix->size() : 0;
}

double DBScan::get_cached_distance(int i, int j) const {
  return distance_matrix ? distance_matrix->cached(i, j) : kNotComputed;
}

double DBScan::GetEuclideanDistance(const std::vector<double>& a, const std::vector<double>& b) {
  if (a.size() != b.size()) throw std::runtime_error(kUnequalRows);
  return std::sqrt(squared_euclidean(a.data(), b.data(), a.size()));
}

std::vector<double> DBScan::GetRowFromRowID(const Observations& obs, int row_id) {
  return obs.data[row_id - 1];
}

void DBScan::GetNeighborsForRow(const Observations& obs, int row_id, std::queue<int>& neighbours) {
  if (!distance_matrix || distance_matrix->size() != std::max(obs.num_observations, 0)) {
    start_fresh_cache(obs.num_observations);
  }
  distance_matrix->load_rows(obs);
  find_neighbours(row_id);
  for (const int j : neighbourhood) neighbours.push(j);
}

void DBScan::Init2DArray(int size, int fill, std::vector<std::vector<double>>& matrix) {
  if (size < 1) return;
  matrix.insert(matrix.end(), static_cast<std::size_t>(size),
                std::vector<double>(static_cast<std::size_t>(size), static_cast<double>(fill)));
}
