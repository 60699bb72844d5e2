// The detector's 32-bit integer arithmetic, made explicit and defined: the
// product computes times, counts and day gaps in int and relies on how x86-64
// wraps and truncates them, so these helpers reproduce exactly that.
#pragma once

#include <cstdint>

// Keeps the low 32 bits, as 32-bit arithmetic would have wrapped.
inline int32_t wrap_to_int32(int64_t value) { return static_cast<int32_t>(value); }

// A double truncated toward zero to 32 bits; values outside the int range
// (and NaN) give INT_MIN, as the x86-64 conversion instruction does.
inline int truncate_to_int(double value) {
  if (!(value >= -2147483648.0 && value < 2147483648.0)) {
    return INT32_MIN;
  }
  return static_cast<int>(value);
}
