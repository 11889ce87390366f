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

int32_t SmearRows_SSE(const SmearRowsParam& p, const Rect& band) {
  const int32_t hr = light_rays_detail::CheckSmear(p);
  if (hr < 0) return hr;
  const int32_t len = p.length;
  const __m128i weight = _mm_set1_epi32(len);
  const __m128 half = _mm_set1_ps(0.5f);
  const __m128i most = _mm_set1_epi32(255);
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    // Both rows hold columns [lo, hi): byte 4 (c - lo) is column c.
    const uint8_t* in = reinterpret_cast<const uint8_t*>(p.src->Row(j));
    uint8_t* out = reinterpret_cast<uint8_t*>(p.dst->Row(j));
    const __m128 k = _mm_set1_ps(light_rays_detail::SmearScale(p.row_gain[j], len));
    __m128i t = _mm_setzero_si128(), s = _mm_setzero_si128();
    const auto step = [&](int32_t c, __m128i gone) {
      const __m128i now = Widen(in + 4 * (c - l.lo));
      t = _mm_add_epi32(_mm_sub_epi32(t, s), _mm_mullo_epi32(now, weight));
      s = _mm_sub_epi32(_mm_add_epi32(s, now), gone);
      __m128i v = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_cvtepi32_ps(t), k), half));
      v = _mm_min_epi32(v, most);
      const uint32_t bytes = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_packus_epi16(_mm_packus_epi32(v, v), v)));
      const uint32_t px = bytes | 0xFF000000u;
      std::memcpy(out + 4 * (c - l.lo), &px, 4);
    };
    const int32_t full = std::min(l.hi, l.lo + len);
    int32_t c = l.lo;
    for (; c < full; ++c) step(c, _mm_setzero_si128());
    for (; c < l.hi; ++c) step(c, Widen(in + 4 * (c - len - l.lo)));
  }
  return S_OK;
}

}  // namespace Korvane
