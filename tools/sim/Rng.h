// splitmix64: the same sequence on every platform, unlike the standard
// distributions, so that a built-in or generated scenario is the same
// everywhere for the same seed.
#pragma once

#include <cstdint>

namespace vsim {

class Rng {
 public:
  explicit Rng(uint64_t seed) : mState(seed) {}
  uint64_t next() {
    uint64_t z = (mState += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  // In [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }
  // In [lo, hi].
  double between(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  // In [0, n); 0 when n is 0.
  uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }

 private:
  uint64_t mState;
};

}  // namespace vsim
