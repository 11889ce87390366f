// AVX2 form of the base row: eight start times compared at once, and the
// comparison's lanes pick whole BGRA pixels.
#include <immintrin.h>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

void DispersionFillBase_AVX2(const uint8_t* photo, const uint8_t* background, const float* start, float progress,
                             uint8_t* out, int32_t count) {
  const __m256 p = _mm256_set1_ps(progress);
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    const __m256i take_bg = _mm256_castps_si256(_mm256_cmp_ps(_mm256_loadu_ps(start + x), p, _CMP_LT_OQ));
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(photo + x * 4));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(background + x * 4));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x * 4), _mm256_blendv_epi8(a, b, take_bg));
  }
  if (x < count) DispersionFillBase(photo + x * 4, background + x * 4, start + x, progress, out + x * 4, count - x);
}

}  // namespace Korvane
