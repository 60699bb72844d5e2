#include "model/DBScanModelImpl.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>
#include <numeric>
#include <stdexcept>

namespace {

constexpr const char* kUnequalRows = DBScan::kUnequalRowsMessage;
constexpr double kNotComputed = -1.0;
constexpr double kNoClusterDistance = 2147483647.0;

// Summed strictly in feature order, so a cached distance is bit-identical to
// what GetEuclideanDistance returns for the same two rows.
double euclidean(const double* a, const double* b, std::size_t width) {
  double sum = 0.0;
  for (std::size_t i = 0; i < width; ++i) {
    const double x = b[i] - a[i];
    sum += x * x;
  }
  return std::sqrt(sum);
}

struct FreeBuffer {
  void operator()(double* p) const noexcept { std::free(p); }
};
using SquareBuffer = std::unique_ptr<double[], FreeBuffer>;

// Uninitialised: a row is written in full before it is first read. Large
// buffers ask for huge pages, since filling a row reads one value from every
// row filled before it and would otherwise miss the TLB on nearly each read.
SquareBuffer allocate_square(std::size_t side) {
  constexpr std::size_t kHugePage = std::size_t{2} << 20;
  const std::size_t bytes = side * side * sizeof(double);
  if (bytes == 0) return nullptr;
  void* memory = nullptr;
  if (bytes >= kHugePage) {
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    memory = std::aligned_alloc(kHugePage, rounded);
    if (memory != nullptr) madvise(memory, rounded, MADV_HUGEPAGE);  // a hint; failure is harmless
  } else {
    memory = std::malloc(bytes);
  }
  if (memory == nullptr) throw std::bad_alloc();
  return SquareBuffer(static_cast<double*>(memory));
}

}  // namespace

// The n x n distance cache together with a flat copy of the rows it is
// computed from. Row r of the buffer is valid only once complete[r] is set;
// it is then filled in full, so the neighbour scan can read it without
// checking each entry.
class DBScan::DistanceMatrix {
 public:
  explicit DistanceMatrix(int n)
      : side(static_cast<std::size_t>(std::max(n, 0))),
        distances(allocate_square(side)),
        complete(side, 0),
        incomplete_rows(side),
        incomplete_position(side) {
    complete_rows.reserve(side);
    std::iota(incomplete_rows.begin(), incomplete_rows.end(), 0);
    std::iota(incomplete_position.begin(), incomplete_position.end(), 0);
  }

  int size() const { return static_cast<int>(side); }

  // Takes the first n rows of obs as the source of distances still to be
  // computed. Rows of unequal length are only noted here; computing a pair
  // throws.
  void load_rows(const Observations& obs) {
    rows.clear();
    uneven = false;
    width = side > 0 ? obs.data[0].size() : 0;
    rows.reserve(side * width);
    for (std::size_t i = 0; i < side; ++i) {
      const std::vector<double>& row = obs.data[i];
      if (row.size() != width) {
        uneven = true;
        rows.clear();
        return;
      }
      rows.insert(rows.end(), row.begin(), row.end());
    }
  }

  // Distances from 0-based row r to every row, the diagonal entry being -1.0.
  const double* row(int r) {
    if (!complete[r]) fill_row(r);
    return distances.get() + static_cast<std::size_t>(r) * side;
  }

  double cached(int i, int j) const {
    if (i < 0 || j < 0 || i >= size() || j >= size() || i == j) return kNotComputed;
    if (complete[i]) return at(i, j);
    if (complete[j]) return at(j, i);
    return kNotComputed;
  }

 private:
  double at(int i, int j) const { return distances[static_cast<std::size_t>(i) * side + j]; }

  // Pairs with a row filled earlier are copied from it; only pairs with rows
  // not filled yet are computed, so no pair is ever computed twice.
  void fill_row(int r) {
    // With rows of unequal length every row has a partner of another length,
    // so the first pair to compute fails.
    if (uneven && incomplete_rows.size() > 1) throw std::runtime_error(kUnequalRows);
    drop_incomplete(r);
    double* out = distances.get() + static_cast<std::size_t>(r) * side;
    for (const int j : complete_rows) out[j] = at(j, r);
    const double* own = rows.data() + static_cast<std::size_t>(r) * width;
    for (const int j : incomplete_rows) out[j] = euclidean(rows.data() + j * width, own, width);
    out[r] = kNotComputed;
    complete[r] = 1;
    complete_rows.push_back(r);
  }

  // Moves the last entry of the unordered incomplete list into r's place.
  void drop_incomplete(int r) {
    const int last = incomplete_rows.back();
    incomplete_rows[incomplete_position[r]] = last;
    incomplete_position[last] = incomplete_position[r];
    incomplete_rows.pop_back();
  }

  std::size_t side;
  SquareBuffer distances;
  std::vector<unsigned char> complete;
  std::vector<int> complete_rows;
  std::vector<int> incomplete_rows;
  std::vector<int> incomplete_position;  // index of each incomplete row in incomplete_rows

  std::vector<double> rows;  // row-major, width values per row
  std::size_t width = 0;
  bool uneven = false;
};

DBScan::DBScan(double eps, int min_samples, int run_mode)
    : eps(eps), min_samples(min_samples), run_mode(run_mode) {}

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
  distance_matrix = std::make_unique<DistanceMatrix>(n);
  neighbourhood_row = 0;
}

void DBScan::find_neighbours(int row_id) {
  if (neighbourhood_row == row_id) return;
  const int n = distance_matrix->size();
  const double* d = distance_matrix->row(row_id - 1);

  neighbourhood.resize(n);
  int* out = neighbourhood.data();
  std::size_t count = 0;
  out[count++] = row_id;
  // Every candidate is written and kept only if it is a neighbour: no branch
  // to mispredict on the hottest loop of a run.
  const auto scan = [&](int from, int to) {
    for (int j = from; j < to; ++j) {
      out[count] = j + 1;
      count += eps > d[j] ? 1 : 0;
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
  return euclidean(a.data(), b.data(), a.size());
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
