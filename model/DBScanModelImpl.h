// DBSCAN density clustering of standardised feature rows. Run labels every row
// as a member of cluster 1, 2, ... (numbered in order of discovery) or as
// noise (-1); afterwards the object can name the nearest cluster of a noise row.
#pragma once

#include <cstddef>
#include <memory>
#include <queue>
#include <vector>

#include "model/ClosestClusterInfo.h"
#include "model/Observations.h"

class LazyDistanceMatrix;

// One object serves one Run. Row ids 1..obs.num_observations are clustered,
// whatever the size of obs.data. Row ids are 1-based (row id 1 is data[0]);
// labels and get_closest_cluster_for_observation use 0-based indices.
//
// Distances are computed lazily: a row's distances to every row are computed
// the first time that row's neighbourhood is needed, so a run that stops
// after row 1 computes a single row. Nothing n x n is kept for a run: a row
// needed again is computed again, bit for bit the same, and a run's memory
// grows with n only. Seen through get_cached_distance, a pair reads -1.0
// until one of its two rows has been computed, and the diagonal always
// does; a pair reads the same from either of its rows. Pairs computed from
// rows that GetNeighborsForRow is later given in another version keep their
// earlier distances.
//
// A second Run on the same object starts from scratch: it drops the previous
// cache and the previous run's cluster_labels, so it behaves exactly like a
// Run on a freshly constructed object.
class DBScan {
 public:
  // What std::runtime_error says when rows of unequal length meet.
  static constexpr const char* kUnequalRowsMessage = "Invalid input. Feature set having different dimensions.";

  // run_mode 1 labels every row; run_mode 2 returns as soon as row id 1 has a
  // positive label, leaving unvisited rows at 0. cluster_labels is written
  // only when a run completes, so after such an early stop it is empty.
  DBScan(double eps, int min_samples, int run_mode);
  ~DBScan();

  // Resizes labels to obs.num_observations (existing entries are kept, new
  // ones are 0) and clusters. Throws std::runtime_error if the rows differ in
  // length.
  void Run(const Observations& obs, std::vector<int>& labels);

  // For a 0-based index into the labels of the last completed run: the row's
  // own label at distance 0.0 if it is clustered, otherwise the label of the
  // nearest clustered row (ties: lowest index). (-1, -1.0) when out of range.
  ClosestClusterInfo get_closest_cluster_for_observation(int index) const;

  static double GetEuclideanDistance(const std::vector<double>& a, const std::vector<double>& b);
  static std::vector<double> GetRowFromRowID(const Observations& obs, int row_id);

  // Appends row_id itself, then every other row id j (ascending) with
  // eps > distance, to the back of neighbours. Uses and fills this object's
  // distance cache, which is started afresh when its size is not
  // obs.num_observations; pairs not cached yet are computed from obs.
  void GetNeighborsForRow(const Observations& obs, int row_id, std::queue<int>& neighbours);

  // Appends size rows of size copies of fill to matrix; never clears it.
  static void Init2DArray(int size, int fill, std::vector<std::vector<double>>& matrix);

  const std::vector<int>& get_cluster_labels() const { return cluster_labels; }
  // Side of the square distance cache (0 before any run).
  int get_distance_matrix_size() const;
  // Cached distance between 0-based rows i and j; -1.0 while not computed.
  double get_cached_distance(int i, int j) const;

 private:
  void start_fresh_cache(int n);
  // Leaves row_id and its neighbours, in GetNeighborsForRow's order, in
  // neighbourhood.
  void find_neighbours(int row_id);
  // Grows cluster k from the seed neighbourhood held in expansion_queue;
  // true when run mode 2 has to stop at once.
  bool expand_cluster(int k, std::vector<int>& labels);
  bool must_stop(const std::vector<int>& labels) const;

  // A row is a neighbour when its squared distance is below this, which is
  // the same as its distance being below eps.
  double neighbour_square_limit;
  int min_samples;
  int run_mode;
  std::unique_ptr<LazyDistanceMatrix> distance_matrix;
  std::vector<int> cluster_labels;

  // Working state of a run, kept between calls so the loops allocate nothing
  // once the buffers have grown.
  std::vector<int> expansion_queue;  // FIFO: entries before expansion_head are popped
  std::size_t expansion_head = 0;
  std::vector<int> neighbourhood;
  int neighbourhood_row = 0;  // whose neighbourhood it holds; 0 = none
  // Rows found not to be core, or already expanded: expanding them again
  // could not change a label, so the expansion skips them.
  std::vector<unsigned char> settled;
};
