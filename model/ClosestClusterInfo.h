// The nearest cluster to one observation, as the clusterer reports it for the
// anomaly statistics: the cluster number of the nearest clustered row and the
// distance to it in the standardised feature space.
#pragma once

struct ClosestClusterInfo {
  // -1 when no clustered row exists or the observation index was out of range.
  int cluster_id = -1;
  // 0.0 when the observation is itself clustered, 2147483647.0 when no
  // clustered row exists, -1.0 when the index was out of range.
  double distance = -1.0;
};
