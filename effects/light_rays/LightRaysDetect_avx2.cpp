// AVX2 form of "HighLightDetect": eight pixels at a time with the SSE4.1
// form's steps (the threshold compared in float, v * mask / 255 truncated),
// the SSE4.1 form for each row's last pixels; the same bytes as the plain form.
#include <immintrin.h>

#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

int32_t HighLightDetect_AVX2(const HighLightParam& p, const Rect& band) {
  if (!p.src || !p.mask || !p.dst || !p.src->data || !p.mask->data || !p.dst->data) return E_POINTER;
  const Rect r = Clip(band, p.dst->width, p.dst->height);
  const __m256i low_byte = _mm256_set1_epi32(0xFF);
  const __m256i alpha = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m256 threshold = _mm256_set1_ps(p.threshold);
  // Each pixel's mask byte spread over its B, G, R and A words: the low
  // words hold pixels 0, 1 (4, 5 in the upper lane), the high ones 2, 3 (6, 7).
  const __m256i spread_lo = _mm256_setr_epi8(0, -1, 0, -1, 0, -1, 0, -1, 1, -1, 1, -1, 1, -1, 1, -1,  //
                                             4, -1, 4, -1, 4, -1, 4, -1, 5, -1, 5, -1, 5, -1, 5, -1);
  const __m256i spread_hi = _mm256_setr_epi8(2, -1, 2, -1, 2, -1, 2, -1, 3, -1, 3, -1, 3, -1, 3, -1,  //
                                             6, -1, 6, -1, 6, -1, 6, -1, 7, -1, 7, -1, 7, -1, 7, -1);
  const __m256i one = _mm256_set1_epi16(1), zero = _mm256_setzero_si256();
  // v * mask / 255 in 16 bits: floor(t / 255) = (t + 1 + (t >> 8)) >> 8 for t <= 65025.
  const auto scaled = [one](__m256i px, __m256i weights) {
    const __m256i t = _mm256_mullo_epi16(px, weights);
    return _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(t, one), _mm256_srli_epi16(t, 8)), 8);
  };
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const uint8_t* s = RowPtr(*p.src, y);
    const uint8_t* m = RowPtr(*p.mask, y);
    uint8_t* d = RowPtr(*p.dst, y);
    int32_t x = r.left;
    for (; x + 8 <= r.right; x += 8) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x));
      const __m256i b = _mm256_and_si256(v, low_byte);
      const __m256i g = _mm256_and_si256(_mm256_srli_epi32(v, 8), low_byte);
      const __m256i rr = _mm256_and_si256(_mm256_srli_epi32(v, 16), low_byte);
      const __m256i mx = _mm256_max_epi32(b, _mm256_max_epi32(g, rr));
      const __m256i mn = _mm256_min_epi32(b, _mm256_min_epi32(g, rr));
      const __m256i lightness = _mm256_srli_epi32(_mm256_add_epi32(mx, mn), 1);
      const __m256i dark = _mm256_castps_si256(_mm256_cmp_ps(threshold, _mm256_cvtepi32_ps(lightness), _CMP_GT_OS));
      int64_t mask8;
      std::memcpy(&mask8, m + x, 8);
      const __m256i mk = _mm256_set1_epi64x(mask8);
      const __m256i lo = scaled(_mm256_unpacklo_epi8(v, zero), _mm256_shuffle_epi8(mk, spread_lo));
      const __m256i hi = scaled(_mm256_unpackhi_epi8(v, zero), _mm256_shuffle_epi8(mk, spread_hi));
      __m256i colour = _mm256_andnot_si256(dark, _mm256_packus_epi16(lo, hi));
      // Alpha is not written: it comes from what dst holds.
      const __m256i old = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(d + 4 * x));
      colour = _mm256_blendv_epi8(colour, old, alpha);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 4 * x), colour);
    }
    if (x < r.right) HighLightDetect_SSE(p, Rect{x, y, r.right, y + 1});
  }
  return S_OK;
}

}  // namespace Korvane
