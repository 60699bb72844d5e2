// SeededRandom: the simulator's random numbers, the same for a seed on
// every system: xoshiro256** with uniform, log-uniform and normal draws
// written out here, and independent streams keyed by seed, purpose, workload
// and day. Pure computation; nothing fails.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace seeded_random {

// One step of SplitMix64 (advances state).
std::uint64_t splitmix64(std::uint64_t& state);

// The seed of one independent stream of numbers: one per purpose, and one
// per workload and day, so that each job is drawn on its own and the order in
// which jobs are written cannot change their values.
std::uint64_t stream_key(std::uint64_t seed, std::uint64_t purpose, std::uint64_t a = 0, std::uint64_t b = 0);


// xoshiro256** with uniform and normal draws written out here: the standard
// distributions' output is left to each library, which would make a seed
// mean different data on different systems.
class Random {
 public:
  explicit Random(std::uint64_t key) {
    for (std::uint64_t& word : state_) word = splitmix64(key);
  }

  std::uint64_t next() {
    const std::uint64_t result = rotl(state_[1] * 5, 7) * 9;
    const std::uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = rotl(state_[3], 45);
    return result;
  }

  // [0, 1), 53 random bits.
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  // As likely between 10 and 100 as between 100 and 1000, as sizes are.
  double log_uniform(double lo, double hi) { return lo * std::exp(std::log(hi / lo) * uniform()); }

  // 0 .. n-1 without the bias of a plain modulo.
  std::uint64_t below(std::uint64_t n) {
    const std::uint64_t threshold = (0 - n) % n;  // 2^64 mod n
    for (;;) {
      if (const std::uint64_t r = next(); r >= threshold) return r % n;
    }
  }

  template <typename T, std::size_t N>
  const T& pick(const T (&items)[N]) {
    return items[below(N)];
  }

  // Standard normal by the Box-Muller transform; each draw yields a pair and
  // the second is kept for the next call.
  double normal() {
    if (has_spare_) {
      has_spare_ = false;
      return spare_;
    }
    const double radius = std::sqrt(-2.0 * std::log(1.0 - uniform()));  // 1 - u > 0: never log(0)
    const double angle = 6.283185307179586 * uniform();
    spare_ = radius * std::sin(angle);
    has_spare_ = true;
    return radius * std::cos(angle);
  }

 private:
  static std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  std::uint64_t state_[4];
  double spare_ = 0.0;
  bool has_spare_ = false;
};

// k distinct numbers out of 0..n-1, ascending (a partial Fisher-Yates shuffle).
std::vector<int> choose(int n, int k, Random& rng);

}  // namespace seeded_random
