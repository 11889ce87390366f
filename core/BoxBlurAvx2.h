// What the AVX2 box blur files share: 16-bit sums of 32 bytes at a time,
// the exact 16-bit dividers and the masked mix on 256-bit lanes. Included
// only by *_avx2.cpp files; everything here is internal to each of them, so
// no function built with AVX2 can stand in for a baseline one.
#pragma once

#include <immintrin.h>

#include "core/BoxBlurDetail.h"

namespace Korvane {
namespace boxblur_avx2 {
namespace {

// Sixteen bytes widened to sixteen 16-bit lanes, in order.
inline __m256i Widen16(const unsigned char* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}
inline __m256i LoadSums(const uint16_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline void StoreSums(uint16_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
inline void AddBytes(uint16_t* sums, __m256i v) { StoreSums(sums, _mm256_add_epi16(LoadSums(sums), v)); }

// Two registers of sixteen 16-bit values (bytes 0..15 and 16..31) packed
// to 32 bytes in order: the in-lane pack leaves 0..7 16..23 | 8..15 24..31.
inline __m256i PackBytes(__m256i lo, __m256i hi) {
  return _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), _MM_SHUFFLE(3, 1, 2, 0));
}

// Bytes of the alpha channel in a vector of eight BGRA pixels.
inline __m256i AlphaBytes() { return _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u)); }

// boxblur_detail::Div16Params in vectors.
struct Div16x {
  __m256i half;
  __m256i mul;
  __m128i shift;
};

inline Div16x ToDiv16x(const boxblur_detail::Div16Params& p) {
  return Div16x{_mm256_set1_epi16(static_cast<int16_t>(p.half)), _mm256_set1_epi16(static_cast<int16_t>(p.mul)),
                _mm_cvtsi32_si128(static_cast<int>(p.shift))};
}

inline __m256i Divide16(__m256i s, const Div16x& d) {
  return _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(s, d.half), d.mul), d.shift);
}

// The masked mix on 16-bit lanes: (o * (255 - m) + b * m + 127) / 255, exact.
inline __m256i MixByMask16(__m256i o, __m256i b, __m256i m) {
  const __m256i c255 = _mm256_set1_epi16(255);
  __m256i x = _mm256_add_epi16(_mm256_mullo_epi16(o, _mm256_sub_epi16(c255, m)), _mm256_mullo_epi16(b, m));
  x = _mm256_add_epi16(x, _mm256_set1_epi16(127));
  x = _mm256_add_epi16(_mm256_add_epi16(x, _mm256_set1_epi16(1)), _mm256_srli_epi16(x, 8));
  return _mm256_srli_epi16(x, 8);
}

}  // namespace
}  // namespace boxblur_avx2
}  // namespace Korvane
