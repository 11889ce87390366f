// The library's own random draws must give exactly what GCC's distributions
// give for the same Mersenne Twister, so frames match across platforms.
#include <gtest/gtest.h>

#include <random>

#include "core/Random.h"

namespace Korvane {
namespace {

#if defined(__GLIBCXX__)
TEST(Random, IndexMatchesGccUniformInt) {
  for (uint32_t seed : {0u, 1u, 5489u, 123456789u}) {
    for (uint32_t n : {1u, 2u, 3u, 7u, 24u, 50u, 100u, 132u, 1000u, 65537u, 0x7fffffffu, 0xfffffffeu}) {
      Mt19937 ours(seed), theirs(seed);
      std::uniform_int_distribution<uint32_t> dist(0, n - 1);
      for (int i = 0; i < 200; ++i) ASSERT_EQ(DrawIndex(ours, n), dist(theirs)) << "seed " << seed << " n " << n;
    }
  }
  Mt19937 ours(42), theirs(42);
  std::uniform_int_distribution<int32_t> dist(-5, 9);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(DrawInt(ours, -5, 9), dist(theirs));
}

TEST(Random, UnitMatchesGccUniformReal) {
  for (uint32_t seed : {0u, 1u, 5489u, 987654u}) {
    Mt19937 ours(seed), theirs(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f), wide(-3.0f, 7.5f);
    for (int i = 0; i < 1000; ++i) {
      ASSERT_EQ(DrawUnit(ours), unit(theirs));
      ASSERT_EQ(DrawFloat(ours, -3.0f, 7.5f), wide(theirs));
    }
  }
}
#endif

// Words within half an ulp of 2^32 round to 1.0f: the draw must stay below 1.
TEST(Random, UnitNeverReachesOne) {
  std::mt19937 gen(7);
  for (int i = 0; i < 100000; ++i) ASSERT_LT(DrawUnit(gen), 1.0f);
}

}  // namespace
}  // namespace Korvane
