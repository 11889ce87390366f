// AVX2 form of the particle blend: up to eight pixels of a disc row a step,
// with a per-pixel lane mask, so a small disc's row is one step whatever its
// width.
#include <immintrin.h>

#include <cstring>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

namespace {

// Lanes 0 .. n - 1 set: loaded from kLanes + 8 - n.
alignas(32) constexpr int32_t kLanes[16] = {-1, -1, -1, -1, -1, -1, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0};

}  // namespace

// In 16-bit lanes, as the SSE4.1 form: out * (256 - w) + colour * w + 128
// stays below 2^16, so the bytes are the plain form's.
void DispersionDrawParticle_AVX2(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                                 int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride) {
  int64_t colour64;
  uint16_t colour16[4] = {p.bgra[0], p.bgra[1], p.bgra[2], p.bgra[3]};
  std::memcpy(&colour64, colour16, 8);
  const __m256i colour = _mm256_set1_epi64x(colour64);
  const __m256i alpha = _mm256_set1_epi32(p.alpha);
  const __m256i round32 = _mm256_set1_epi32(128);
  const __m256i half = _mm256_set1_epi16(128);
  const __m256i full = _mm256_set1_epi16(256);
  // Weights of pixels 0..7 (u16, in both 128-bit lanes) spread to the four
  // channels of pixels 0..3 and 4..7, per lane two pixels.
  const __m256i spread_lo =
      _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3, 4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
  const __m256i spread_hi = _mm256_setr_epi8(8, 9, 8, 9, 8, 9, 8, 9, 10, 11, 10, 11, 10, 11, 10, 11, 12, 13, 12, 13, 12,
                                             13, 12, 13, 14, 15, 14, 15, 14, 15, 14, 15);
  ForEachDiscRow(
      table, p, x0, x1, y0, y1, origin, ox, oy, stride,
      [&](int32_t, int32_t a, int32_t b, const uint16_t* cov, uint8_t* row) {
        for (int32_t x = a; x < b; x += 8) {
          const int32_t n = b - x < 8 ? b - x : 8;
          const __m256i lanes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kLanes + 8 - n));
          // The table keeps eight spare coverages after its last row,
          // so this read stays inside it; lanes past n are unused.
          const __m256i c32 = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cov + x)));
          // w = (cov * alpha + 128) >> 8, at most 256.
          const __m256i w32 = _mm256_srli_epi32(_mm256_add_epi32(_mm256_mullo_epi32(c32, alpha), round32), 8);
          const __m256i w16 = _mm256_permute4x64_epi64(_mm256_packus_epi32(w32, w32), 0x88);
          const __m256i w_lo = _mm256_shuffle_epi8(w16, spread_lo);
          const __m256i w_hi = _mm256_shuffle_epi8(w16, spread_hi);
          int32_t* px = reinterpret_cast<int32_t*>(row + static_cast<int64_t>(x) * 4);
          // Where eight pixels fit before the clip's right edge they are
          // read and written whole (the pixels past the disc keep their
          // bytes, and no other band touches these rows); masked
          // stores are slow on some processors.
          const bool whole = x + 8 <= x1;
          const __m256i old =
              whole ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(px)) : _mm256_maskload_epi32(px, lanes);
          const __m256i o_lo = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(old));
          const __m256i o_hi = _mm256_cvtepu8_epi16(_mm256_extracti128_si256(old, 1));
          const __m256i s_lo = _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(o_lo, _mm256_sub_epi16(full, w_lo)),
                                                                 _mm256_mullo_epi16(colour, w_lo)),
                                                half);
          const __m256i s_hi = _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(o_hi, _mm256_sub_epi16(full, w_hi)),
                                                                 _mm256_mullo_epi16(colour, w_hi)),
                                                half);
          // Pixels [0 1 4 5 | 2 3 6 7] after the pack, back in order.
          const __m256i bytes = _mm256_permute4x64_epi64(
              _mm256_packus_epi16(_mm256_srli_epi16(s_lo, 8), _mm256_srli_epi16(s_hi, 8)), 0xD8);
          if (whole) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(px), _mm256_blendv_epi8(old, bytes, lanes));
          } else {
            _mm256_maskstore_epi32(px, lanes, bytes);
          }
        }
      });
}

}  // namespace Korvane
