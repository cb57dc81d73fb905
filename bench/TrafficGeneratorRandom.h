// The generator's own random numbers: the same seed gives the same capture on
// every platform and standard library, so the distributions are written here
// rather than taken from <random> (whose distributions are implementation
// defined).
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>

namespace pelka {

class TrafficRandom {
 public:
  explicit TrafficRandom(uint64_t seed) {
    // splitmix64 spreads a small seed over the whole state.
    for (uint64_t& word : state_) {
      seed += 0x9E3779B97F4A7C15ull;
      uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      word = z ^ (z >> 31);
    }
  }

  // xoshiro256**.
  uint64_t Next() {
    const uint64_t result = Rotl(state_[1] * 5, 7) * 9;
    const uint64_t t = state_[1] << 17;
    state_[2] ^= state_[0];
    state_[3] ^= state_[1];
    state_[1] ^= state_[2];
    state_[0] ^= state_[3];
    state_[2] ^= t;
    state_[3] = Rotl(state_[3], 45);
    return result;
  }

  // Uniform in [0, n); 0 when n is 0. The modulo bias is far below what a
  // benchmark can notice.
  uint64_t Below(uint64_t n) { return n == 0 ? 0 : Next() % n; }

  // Uniform in [low, high], both included.
  uint64_t Between(uint64_t low, uint64_t high) { return low + Below(high - low + 1); }

  // Uniform in [0, 1).
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

  bool Chance(double probability) { return Unit() < probability; }

  // Standard normal (Box-Muller; one value per call keeps the stream simple).
  double Normal() {
    const double u1 = 1.0 - Unit();  // (0, 1]: log stays finite
    const double u2 = Unit();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  }

  // Log-normal with the given median and shape.
  double LogNormal(double median, double sigma) { return median * std::exp(sigma * Normal()); }

  // One element of a non-empty array or container.
  template <typename Container>
  const auto& Pick(const Container& items) {
    return items[Below(std::size(items))];
  }

  // A child generator whose stream does not depend on how many numbers this
  // one hands out later.
  TrafficRandom Fork() { return TrafficRandom(Next()); }

 private:
  static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

  uint64_t state_[4];
};

}  // namespace pelka
