// Shared by the kernel tests: a worker pool with its adapter, the SIMD level
// record that picks the plain or SSE4.1 form, and random bytes.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "core/Simd.h"
#include "core/SystemInfo.h"
#include "core/ThreadPool.h"

namespace KorvaneTest {

struct Runner {
  Korvane::CThreadPool pool;
  Korvane::CThreadAdapter adapter;
  explicit Runner(int workers = 2) {
    pool.Create(workers);
    adapter.Init(&pool);
  }
};

// 0 picks the plain forms, Korvane::SIMD_SSE41 the SSE4.1 ones.
inline Korvane::SystemInfo Level(int simd) {
  Korvane::SystemInfo info;
  info.simd_level = simd;
  return info;
}

inline void FillNoise(uint8_t* p, size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(rng());
}

// `produce(runner)` returns the bytes it computed; they must not depend on
// the number of workers (1, 2 or 8).
template <class Produce>
void ExpectSameForWorkerCounts(Produce produce, const std::string& what) {
  std::vector<uint8_t> first;
  for (int workers : {1, 2, 8}) {
    Runner run(workers);
    const std::vector<uint8_t> got = produce(run);
    if (workers == 1) first = got;
    else EXPECT_EQ(got, first) << what << ", " << workers << " workers";
  }
}

}  // namespace KorvaneTest
