// AnomalyHandle: how an anomaly is named in a URL (the console's addresses,
// the alerts' links). An id the backup product made can hold anything: line
// breaks no router matches, or thousands of characters no server accepts.
// A short id free of control characters is its own handle, so readable
// addresses and earlier links keep working; any other id is named by "~" and
// the SHA-256 of its bytes in hex, 65 characters whatever it holds. Pure
// functions; they never fail.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace anomaly_handle {

// The longest id (in bytes) that is its own handle.
inline constexpr std::size_t kLongestPlainId = 256;

// The handle of id, to be percent-encoded into a URL path segment.
std::string of(std::string_view id);

// Whether a handle is a digest ("~" and 64 lower-case hex digits), to be
// resolved by looking for the id whose digest it is (AnomalyStore); any other
// handle is the id itself.
bool is_digest(std::string_view handle);

// The digest handle of id, whatever id holds.
std::string digest_of(std::string_view id);

}  // namespace anomaly_handle
