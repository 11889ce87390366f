// SSE4.1 forms of the transforms into and out of ray space: the four-pixel
// bilinear mix is done for all channels at once in 32-bit lanes, with the
// plain form's weights and rounding, so the bytes are the same.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"
#include "effects/light_rays/LightRaysSampleLoops.h"

namespace Korvane {


namespace {

inline __m128i Widen(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(v));
}

inline uint32_t Mix4Sse(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10, const uint8_t* p11, int32_t fx,
                        int32_t fy) {
  const __m128i w00 = _mm_set1_epi32((256 - fx) * (256 - fy));
  const __m128i w01 = _mm_set1_epi32(fx * (256 - fy));
  const __m128i w10 = _mm_set1_epi32((256 - fx) * fy);
  const __m128i w11 = _mm_set1_epi32(fx * fy);
  __m128i sum = _mm_add_epi32(_mm_mullo_epi32(Widen(p00), w00), _mm_mullo_epi32(Widen(p01), w01));
  sum = _mm_add_epi32(sum, _mm_add_epi32(_mm_mullo_epi32(Widen(p10), w10), _mm_mullo_epi32(Widen(p11), w11)));
  sum = _mm_srli_epi32(_mm_add_epi32(sum, _mm_set1_epi32(32768)), 16);
  const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(sum, sum), sum);
  return static_cast<uint32_t>(_mm_cvtsi128_si32(bytes)) | 0xFF000000u;
}

}  // namespace

int32_t SampleRows_SSE4(const SampleRowsParam& p, const Rect& band) {
  return light_rays_detail::SampleRowsWith(p, band, [](auto... a) { return Mix4Sse(a...); });
}

int32_t PolarToCarte_SSE4(const PolarToCarteParam& p, const Rect& band) {
  return light_rays_detail::PolarToCarteWith(p, band, [](auto... a) { return Mix4Sse(a...); });
}

int32_t RotateBack_SSE4(const RotateBackParam& p, const Rect& band) {
  return light_rays_detail::RotateBackWith(p, band, [](auto... a) { return Mix4Sse(a...); });
}

}  // namespace Korvane
