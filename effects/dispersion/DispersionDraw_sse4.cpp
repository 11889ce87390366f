// SSE4.1 form of the particle blend.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

// Two pixels a step, widened to 16 bits: out * (256 - w) + colour * w + 128
// stays below 2^16, so unsigned 16-bit lanes give the plain form's bytes.
void DispersionDrawParticle_SSE(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                                 int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride) {
  int32_t colour32;
  std::memcpy(&colour32, p.bgra, 4);
  const __m128i colour = _mm_cvtepu8_epi16(_mm_set1_epi32(colour32));
  const __m128i alpha = _mm_set1_epi16(static_cast<int16_t>(p.alpha));
  const __m128i half = _mm_set1_epi16(128);
  const __m128i full = _mm_set1_epi16(256);
  const __m128i spread = _mm_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
  ForEachDiscRow(table, p, x0, x1, y0, y1, origin, ox, oy, stride,
                 [&](int32_t, int32_t a, int32_t b, const uint16_t* cov, uint8_t* row) {
                   for (int32_t x = a; x < b; x += 2) {
                     const bool pair = x + 1 < b;
                     int32_t c2 = cov[x];
                     if (pair) c2 |= static_cast<int32_t>(cov[x + 1]) << 16;
                     // w = (cov * alpha + 128) >> 8 for both pixels; cov * alpha <= 2^16,
                     // so the high half of the product decides the lanes that overflow.
                     const __m128i c = _mm_cvtsi32_si128(c2);
                     const __m128i lo = _mm_mullo_epi16(c, alpha), hi = _mm_mulhi_epu16(c, alpha);
                     const __m128i prod = _mm_add_epi32(_mm_unpacklo_epi16(lo, hi), _mm_set1_epi32(128));
                     const __m128i w32 = _mm_srli_epi32(prod, 8);
                     const __m128i w = _mm_shuffle_epi8(_mm_packus_epi32(w32, w32), spread);
                     uint8_t* px = row + static_cast<int64_t>(x) * 4;
                     __m128i out;
                     if (pair) {
                       out = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(px)));
                     } else {
                       int32_t one;
                       std::memcpy(&one, px, 4);
                       out = _mm_cvtepu8_epi16(_mm_cvtsi32_si128(one));
                     }
                     const __m128i sum = _mm_add_epi16(
                         _mm_add_epi16(_mm_mullo_epi16(out, _mm_sub_epi16(full, w)), _mm_mullo_epi16(colour, w)), half);
                     const __m128i bytes = _mm_packus_epi16(_mm_srli_epi16(sum, 8), _mm_setzero_si128());
                     if (pair) {
                       _mm_storel_epi64(reinterpret_cast<__m128i*>(px), bytes);
                     } else {
                       const int32_t v = _mm_cvtsi128_si32(bytes);
                       std::memcpy(px, &v, 4);
                     }
                   }
                 });
}

}  // namespace Korvane
