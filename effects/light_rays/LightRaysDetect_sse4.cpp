// SSE4.1 form of "HighLightDetect": four pixels at a time, the same bytes as
// the plain form (the threshold compared in float, v * mask / 255 truncated).
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

int32_t HighLightDetect_SSE(const HighLightParam& p, const Rect& band) {
  if (!p.src || !p.mask || !p.dst || !p.src->data || !p.mask->data || !p.dst->data) return E_POINTER;
  const Rect r = Clip(band, p.dst->width, p.dst->height);
  const __m128i low_byte = _mm_set1_epi32(0xFF);
  const __m128i alpha = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const __m128 threshold = _mm_set1_ps(p.threshold);
  // Each pixel's mask byte spread over its B, G, R and A words.
  const __m128i spread_lo = _mm_setr_epi8(0, -1, 0, -1, 0, -1, 0, -1, 1, -1, 1, -1, 1, -1, 1, -1);
  const __m128i spread_hi = _mm_setr_epi8(2, -1, 2, -1, 2, -1, 2, -1, 3, -1, 3, -1, 3, -1, 3, -1);
  const __m128i one = _mm_set1_epi16(1);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const uint8_t* s = RowPtr(*p.src, y);
    const uint8_t* m = RowPtr(*p.mask, y);
    uint8_t* d = RowPtr(*p.dst, y);
    int32_t x = r.left;
    for (; x + 4 <= r.right; x += 4) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
      const __m128i b = _mm_and_si128(v, low_byte);
      const __m128i g = _mm_and_si128(_mm_srli_epi32(v, 8), low_byte);
      const __m128i rr = _mm_and_si128(_mm_srli_epi32(v, 16), low_byte);
      const __m128i mx = _mm_max_epi32(b, _mm_max_epi32(g, rr));
      const __m128i mn = _mm_min_epi32(b, _mm_min_epi32(g, rr));
      const __m128i lightness = _mm_srli_epi32(_mm_add_epi32(mx, mn), 1);
      const __m128i dark = _mm_castps_si128(_mm_cmpgt_ps(threshold, _mm_cvtepi32_ps(lightness)));
      int32_t mask4;
      std::memcpy(&mask4, m + x, 4);
      const __m128i mk = _mm_cvtsi32_si128(mask4);
      // v * mask / 255 in 16 bits: floor(t / 255) = (t + 1 + (t >> 8)) >> 8 for t <= 65025.
      const auto scaled = [&](__m128i px, __m128i weights) {
        const __m128i t = _mm_mullo_epi16(px, weights);
        return _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(t, one), _mm_srli_epi16(t, 8)), 8);
      };
      const __m128i lo = scaled(_mm_cvtepu8_epi16(v), _mm_shuffle_epi8(mk, spread_lo));
      const __m128i hi = scaled(_mm_unpackhi_epi8(v, _mm_setzero_si128()), _mm_shuffle_epi8(mk, spread_hi));
      __m128i colour = _mm_andnot_si128(dark, _mm_packus_epi16(lo, hi));
      // Alpha is not written: it comes from what dst holds.
      const __m128i old = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + 4 * x));
      colour = _mm_blendv_epi8(colour, old, alpha);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), colour);
    }
    if (x < r.right) {
      HighLightParam rest = p;
      HighLightDetect(rest, Rect{x, y, r.right, y + 1});
    }
  }
  return S_OK;
}

}  // namespace Korvane
