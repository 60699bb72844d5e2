#include "simulator/SeededRandom.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace seeded_random {
namespace {

std::uint64_t mix(std::uint64_t a, std::uint64_t b) {
  std::uint64_t state = a ^ splitmix64(b);
  return splitmix64(state);
}

}  // namespace

// Spreads neighbouring inputs (workload 7 day 8, workload 7 day 9) over
// unrelated 64-bit outputs.
std::uint64_t splitmix64(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

std::uint64_t stream_key(std::uint64_t seed, std::uint64_t purpose, std::uint64_t a, std::uint64_t b) {
  return mix(mix(mix(seed, purpose), a), b);
}

std::vector<int> choose(int n, int k, Random& rng) {
  std::vector<int> items(static_cast<std::size_t>(n));
  std::iota(items.begin(), items.end(), 0);
  for (int i = 0; i < k; ++i) {
    std::swap(items[i], items[i + rng.below(static_cast<std::uint64_t>(n - i))]);
  }
  items.resize(static_cast<std::size_t>(k));
  std::sort(items.begin(), items.end());
  return items;
}

}  // namespace seeded_random
