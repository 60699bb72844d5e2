// WorkloadKey: the columns of a queue or history row that make a workload,
// the unit every judgement compares like with like. The six that every
// look-up shares, in the order the history look-ups bind them, then the
// storage and asset that narrow a workload to one destination. The
// detector's own SQL texts spell them out as they always have; every other
// reader builds from this list.
#pragma once

#include <array>
#include <string>

namespace workload_key {

inline constexpr std::array<const char*, 6> kColumns = {"CLIENT",   "POLICY",        "POLICY_TYPE",
                                                        "APP_TYPE", "SCHEDULE_TYPE", "SCHEDULE_NAME"};
inline constexpr const char* kStorageColumn = "DESTINATION_STORAGE_NAME";
inline constexpr const char* kAssetColumn = "ASSET_ID";

// "CLIENT, POLICY, ..., SCHEDULE_NAME, DESTINATION_STORAGE_NAME, ASSET_ID".
inline std::string column_list_with_storage() {
  std::string list;
  for (const char* column : kColumns) list += std::string(column) + ", ";
  return list + kStorageColumn + ", " + kAssetColumn;
}

}  // namespace workload_key
