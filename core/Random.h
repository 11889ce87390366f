// Random draws that give the same numbers on every platform.
//
// The generator is the 32-bit Mersenne Twister, whose output the C++ standard
// fixes exactly. The standard distributions are not fixed (each library has
// its own algorithm), so the two draws the effects need are written here;
// they reproduce what GCC's library gives for a 32-bit generator, so a photo
// twinkles the same way wherever the library runs.
#pragma once

#include <cstdint>
#include <limits>
#include <random>

namespace Korvane {

using Mt19937 = std::mt19937;

// An integer in [0, n), n >= 1: the high 32 bits of word x n, redrawn while
// the low 32 bits fall below (2^32 - n) mod n (tested only when they are
// below n, which keeps the division off the common path). Unbiased. `gen`
// is an Mt19937, or anything giving the same 32-bit words.
template <class Gen>
inline uint32_t DrawIndex(Gen& gen, uint32_t n) {
  uint64_t product = static_cast<uint64_t>(static_cast<uint32_t>(gen())) * n;
  uint32_t low = static_cast<uint32_t>(product);
  if (low < n) {
    const uint32_t threshold = static_cast<uint32_t>(-n) % n;
    while (low < threshold) {
      product = static_cast<uint64_t>(static_cast<uint32_t>(gen())) * n;
      low = static_cast<uint32_t>(product);
    }
  }
  return static_cast<uint32_t>(product >> 32);
}

// An integer in [lo, hi] (hi >= lo, hi - lo < 2^32 - 1).
inline int32_t DrawInt(Mt19937& gen, int32_t lo, int32_t hi) {
  const uint32_t span = static_cast<uint32_t>(static_cast<int64_t>(hi) - lo) + 1u;
  return static_cast<int32_t>(static_cast<int64_t>(lo) + DrawIndex(gen, span));
}

// A float in [0, 1): the word converted to float (round to nearest) over
// 2^32; a word that rounds up to 1.0 gives the largest float below 1.
template <class Gen>
inline float DrawUnit(Gen& gen) {
  const float v = static_cast<float>(static_cast<uint32_t>(gen())) / 4294967296.0f;
  return v < 1.0f ? v : 0.99999994f;
}

// A float in [lo, hi): DrawUnit scaled, as the standard's uniform real
// distribution defines it.
inline float DrawFloat(Mt19937& gen, float lo, float hi) { return DrawUnit(gen) * (hi - lo) + lo; }

}  // namespace Korvane
