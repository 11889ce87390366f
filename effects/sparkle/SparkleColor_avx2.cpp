// AVX2 form of the sparkle light's colour adjustment: eight pixels at a time
// with the plain row's 32-bit integer steps (dark pixels kept as they are),
// the plain row for each row's last pixels; the same bytes.
#include <immintrin.h>

#include "core/ImageChecks.h"
#include "effects/sparkle/SparkleColor.h"

namespace Korvane {

namespace {

void AdjustRowAvx2(uint8_t* px, int32_t count, int32_t sat, int32_t gain) {
  const __m256i low = _mm256_set1_epi32(0xFF), colour = _mm256_set1_epi32(0x00FFFFFF);
  const __m256i vsat = _mm256_set1_epi32(sat), vgain = _mm256_set1_epi32(gain);
  const __m256i zero = _mm256_setzero_si256(), most = _mm256_set1_epi32(255), half = _mm256_set1_epi32(32768);
  int32_t x = 0;
  for (; x + 8 <= count; x += 8, px += 32) {
    const __m256i in = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(px));
    const __m256i dark = _mm256_cmpeq_epi32(_mm256_and_si256(in, colour), zero);
    if (_mm256_movemask_epi8(dark) == -1) continue;  // most of a light map is dark
    const __m256i b = _mm256_and_si256(in, low);
    const __m256i g = _mm256_and_si256(_mm256_srli_epi32(in, 8), low);
    const __m256i r = _mm256_and_si256(_mm256_srli_epi32(in, 16), low);
    const __m256i weighted = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_mullo_epi32(b, _mm256_set1_epi32(29)), _mm256_mullo_epi32(g, _mm256_set1_epi32(150))),
        _mm256_add_epi32(_mm256_mullo_epi32(r, _mm256_set1_epi32(77)), _mm256_set1_epi32(128)));
    const __m256i grey = _mm256_srai_epi32(weighted, 8);
    const __m256i grey256 = _mm256_slli_epi32(grey, 8);
    // s = grey 256 + (c - grey) sat; v = (max(s, 0) gain + 32768) >> 16, at
    // most 255, its low byte kept as the plain form's cast keeps it.
    const auto channel = [&](__m256i c) {
      const __m256i s = _mm256_add_epi32(grey256, _mm256_mullo_epi32(_mm256_sub_epi32(c, grey), vsat));
      const __m256i v = _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(_mm256_max_epi32(s, zero), vgain), half), 16);
      return _mm256_and_si256(_mm256_min_epi32(v, most), low);
    };
    const __m256i out = _mm256_or_si256(
        _mm256_or_si256(channel(b), _mm256_slli_epi32(channel(g), 8)),
        _mm256_or_si256(_mm256_slli_epi32(channel(r), 16), _mm256_andnot_si256(colour, in)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(px), _mm256_blendv_epi8(out, in, dark));
  }
  if (x < count) sparkle_detail::AdjustRow(px, count - x, sat, gain);
}

}  // namespace

int32_t AdjustSparkleColor_AVX2(const SparkleAdjustParam& p, const Rect& band) {
  return sparkle_detail::RunAdjust(p, band, AdjustRowAvx2);
}

}  // namespace Korvane
