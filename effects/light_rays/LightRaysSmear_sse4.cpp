// SSE4.1 form of the one-sided ray smear: the three channels (and alpha) of
// a pixel in one register of 32-bit sums, with the plain form's float scale.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysSmear.h"

namespace Korvane {

namespace {

inline __m128i Widen(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(v));
}

}  // namespace

namespace light_rays_detail {

void SmearSpanSse(const uint8_t* in, uint8_t* out, int32_t lo, int32_t c0, int32_t c1, int32_t len, float scale,
                  SmearSums& sums) {
  const __m128i weight = _mm_set1_epi32(len);
  const __m128 half = _mm_set1_ps(0.5f), k = _mm_set1_ps(scale);
  const __m128i most = _mm_set1_epi32(255);
  __m128i t = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sums.t));
  __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sums.s));
  const auto step = [&](int32_t c, __m128i gone) {
    const __m128i now = Widen(in + 4 * (c - lo));
    t = _mm_add_epi32(_mm_sub_epi32(t, s), _mm_mullo_epi32(now, weight));
    s = _mm_sub_epi32(_mm_add_epi32(s, now), gone);
    __m128i v = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_cvtepi32_ps(t), k), half));
    v = _mm_min_epi32(v, most);
    const uint32_t bytes = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(_mm_packus_epi32(v, v), v)));
    const uint32_t px = bytes | 0xFF000000u;
    std::memcpy(out + 4 * (c - lo), &px, 4);
  };
  // Until column lo + len nothing leaves the window.
  const int32_t full = std::min(c1, lo + len);
  int32_t c = c0;
  for (; c < full; ++c) step(c, _mm_setzero_si128());
  for (; c < c1; ++c) step(c, Widen(in + 4 * (c - len - lo)));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(sums.t), t);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(sums.s), s);
}

}  // namespace light_rays_detail

int32_t SmearRows_SSE(const SmearRowsParam& p, const Rect& band) {
  const int32_t hr = light_rays_detail::CheckSmear(p);
  if (hr < 0) return hr;
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    light_rays_detail::SmearSums sums;
    light_rays_detail::SmearSpanSse(reinterpret_cast<const uint8_t*>(p.src->Row(j)),
                                    reinterpret_cast<uint8_t*>(p.dst->Row(j)), l.lo, l.lo, l.hi, p.length,
                                    light_rays_detail::SmearScale(p.row_gain[j], p.length), sums);
  }
  return S_OK;
}

}  // namespace Korvane
