// Helpers shared by the photo animation tests.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace AnimationTest {

// n random bytes, the same for the same seed.
inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(seed);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

}  // namespace AnimationTest
