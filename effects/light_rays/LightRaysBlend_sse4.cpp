// SSE4.1 form of the final blend: the table is built four entries at a time
// and four pixels are added at once with unsigned saturation.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

void BuildBlendTable_SSE(float strength, uint8_t table[256]) {
  const __m128 k = _mm_set1_ps(strength);
  const __m128d half = _mm_set1_pd(0.5);
  const __m128i step = _mm_set1_epi32(4);
  __m128i idx = _mm_setr_epi32(0, 1, 2, 3);
  for (int32_t i = 0; i < 256; i += 4) {
    // Product in float, + 0.5 in double, truncated: the plain form's steps.
    const __m128 prod = _mm_mul_ps(_mm_cvtepi32_ps(idx), k);
    const __m128d lo = _mm_add_pd(_mm_cvtps_pd(prod), half);
    const __m128d hi = _mm_add_pd(_mm_cvtps_pd(_mm_movehl_ps(prod, prod)), half);
    __m128i v = _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi));
    v = _mm_min_epi32(_mm_max_epi32(v, _mm_setzero_si128()), _mm_set1_epi32(255));
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(v, v), v);
    const int32_t four = _mm_cvtsi128_si32(bytes);
    std::memcpy(table + i, &four, 4);
    idx = _mm_add_epi32(idx, step);
  }
}

int32_t BlendRays_SSE(const BlendParam& p, const Rect& band) {
  const uint8_t* t = p.table;
  const __m128i no_alpha = _mm_set1_epi32(0x00FFFFFF);
  const auto looked_up = [t](const uint8_t* ray) -> uint32_t {
    return static_cast<uint32_t>(t[ray[0]]) | static_cast<uint32_t>(t[ray[1]]) << 8 |
           static_cast<uint32_t>(t[ray[2]]) << 16;
  };
  return light_rays_detail::WalkBlendRows(
      p, band, [&](const uint8_t* s, const uint8_t* ray, uint8_t* d, int32_t x0, int32_t x1) {
        int32_t x = x0;
        for (; x + 4 <= x1; x += 4) {
          const uint8_t* q = ray + 4 * x;
          // The alpha lanes add 0, so alpha comes through from the photo.
          const __m128i add = _mm_and_si128(
              _mm_setr_epi32(static_cast<int32_t>(looked_up(q)), static_cast<int32_t>(looked_up(q + 4)),
                             static_cast<int32_t>(looked_up(q + 8)), static_cast<int32_t>(looked_up(q + 12))),
              no_alpha);
          const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
          _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm_adds_epu8(v, add));
        }
        for (; x < x1; ++x) light_rays_detail::BlendPixel(s + 4 * x, ray + 4 * x, d + 4 * x, t);
      });
}

int32_t BlendRaysTask_SSE(ThreadJob* job, int32_t* result) {
  return Done(result, BlendRays_SSE(*static_cast<const BlendParam*>(job->param), job->rect));
}

}  // namespace Korvane
