// 4 x 4 transpose of 32-bit elements held in four SSE2 registers (its own
// inverse), for SIMD files that turn rows into columns. It has internal
// linkage on purpose: each file that includes it compiles its own copy with
// its own instruction set, so a copy built for AVX2 never stands in for the
// one an SSE4.1 file calls.
#pragma once

#include <emmintrin.h>

namespace Korvane {
namespace {

inline void Transpose4x4(__m128i v[4]) {
  const __m128i t0 = _mm_unpacklo_epi32(v[0], v[1]);
  const __m128i t1 = _mm_unpackhi_epi32(v[0], v[1]);
  const __m128i t2 = _mm_unpacklo_epi32(v[2], v[3]);
  const __m128i t3 = _mm_unpackhi_epi32(v[2], v[3]);
  v[0] = _mm_unpacklo_epi64(t0, t2);
  v[1] = _mm_unpackhi_epi64(t0, t2);
  v[2] = _mm_unpacklo_epi64(t1, t3);
  v[3] = _mm_unpackhi_epi64(t1, t3);
}

}  // namespace
}  // namespace Korvane
