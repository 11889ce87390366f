// SSE4.1 form of the base row: four start times compared at once, and the
// comparison's lanes pick whole BGRA pixels.
#include <smmintrin.h>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

void DispersionFillBase_SSE(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                             uint8_t* out, int32_t count) {
  const __m128 p = _mm_set1_ps(progress);
  int32_t x = 0;
  for (; x + 4 <= count; x += 4) {
    const __m128i take_bg = _mm_castps_si128(_mm_cmplt_ps(_mm_loadu_ps(start + x), p));
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(photo + x * 4));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(background + x * 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x * 4), _mm_blendv_epi8(a, b, take_bg));
  }
  if (x < count) DispersionFillBase(photo + x * 4, background + x * 4, start + x, progress, out + x * 4, count - x);
}

}  // namespace Korvane
