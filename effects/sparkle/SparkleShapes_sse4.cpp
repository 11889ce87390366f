// SSE4.1 form of the variant sampler: the four channels of a pixel in one
// register, the two taps of a row paired for one multiply-add.
#include <smmintrin.h>

#include "effects/sparkle/SparkleShapes.h"
#include "effects/sparkle/SparkleShapesDetail.h"

namespace Korvane {

using namespace sparkle_detail;

void SampleVariantRow_SSE(const VariantJob& j, int32_t y) {
  // B0 B1 G0 G1 R0 R1 A0 A1: each channel of the left and right tap side by side.
  const __m128i pair = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i half = _mm_set1_epi32(32768);
  WalkVariantRow(j, y, [pair, half](const uint8_t* a, const uint8_t* b, uint32_t wxu, uint32_t wyu, uint8_t* out) {
    const int32_t wx = static_cast<int32_t>(wxu), wy = static_cast<int32_t>(wyu);
    const __m128i wpair = _mm_set1_epi32((wx << 16) | (256 - wx));  // (256 - wx, wx) per channel
    const __m128i ta = _mm_cvtepu8_epi16(_mm_shuffle_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a)), pair));
    const __m128i tb = _mm_cvtepu8_epi16(_mm_shuffle_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(b)), pair));
    const __m128i top = _mm_madd_epi16(ta, wpair), bottom = _mm_madd_epi16(tb, wpair);
    __m128i acc = _mm_add_epi32(_mm_mullo_epi32(top, _mm_set1_epi32(256 - wy)), _mm_mullo_epi32(bottom, _mm_set1_epi32(wy)));
    acc = _mm_srli_epi32(_mm_add_epi32(acc, half), 16);
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(acc, acc), _mm_setzero_si128());
    const int32_t px = _mm_cvtsi128_si32(bytes);
    std::memcpy(out, &px, 4);
  });
}

}  // namespace Korvane
