// PayloadMembers: the names of the anomaly payload's members that are read
// back, by the payload unit in C++ and by SQL texts through json_extract.
// One list, so a renamed member cannot leave a reader behind. The per-feature
// members are in Features.h.
#pragma once

#include <string>

namespace payload_members {

inline constexpr const char* kAttributes = "Attributes";
inline constexpr const char* kDetectionTime = "DetectionTime";
inline constexpr const char* kClientName = "clientName";
inline constexpr const char* kPolicyName = "policyName";
inline constexpr const char* kPolicyType = "policyType";
inline constexpr const char* kScheduleName = "scheduleName";
inline constexpr const char* kStorageName = "storageName";
inline constexpr const char* kAnomalyId = "anomalyId";
inline constexpr const char* kSummary = "summary";
inline constexpr const char* kCount = "count";
inline constexpr const char* kScore = "score";

// The JSON path of a member of Attributes, for SQLite's JSON functions.
inline std::string attribute_path(const char* member) { return std::string("$.") + kAttributes + "." + member; }

}  // namespace payload_members
