// Eight bilinear samples of a BGRA image at once, for the AVX2 kernel forms
// (include only from *_avx2.cpp files).
//
// A sample has four taps, p00 and p01 in the upper row, p10 and p11 in the
// lower one, and 8-bit fractions fx, fy (0 .. 255). Every channel becomes
//   (p00 (256 - fx)(256 - fy) + p01 fx (256 - fy) + p10 (256 - fx) fy + p11 fx fy + 32768) >> 16,
// the integers of the plain forms: each row's pair is mixed across with one
// multiply-add of 16-bit channel pairs (exact), the rows mixed down in 32
// bits. Reading the taps as neighbouring pairs, 8 bytes at a time, is
// cheaper here than the gather instructions.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace Korvane {
namespace bilinear_avx2 {

inline uint64_t Load8(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// One channel (at bit kShift) of a row's two taps mixed across: the
// channels of `left` and `right` as a 16-bit pair in each lane, times the
// pair (256 - fx, fx) in wx.
template <int kShift>
inline __m256i MixAcross(__m256i left, __m256i right, __m256i wx) {
  const __m256i l = kShift ? _mm256_srli_epi32(left, kShift) : left;
  const __m256i r = kShift > 16 ? _mm256_srli_epi32(right, kShift - 16)
                                : (kShift < 16 ? _mm256_slli_epi32(right, 16 - kShift) : right);
  const __m256i pair = _mm256_and_si256(_mm256_blend_epi16(l, r, 0xAA), _mm256_set1_epi32(0x00FF00FF));
  return _mm256_madd_epi16(pair, wx);
}

// The rows mixed down and rounded: (top (256 - fy) + bottom fy + 32768) >> 16.
inline __m256i MixDown(__m256i top, __m256i bottom, __m256i wy0, __m256i wy1) {
  const __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(top, wy0), _mm256_mullo_epi32(bottom, wy1));
  return _mm256_srli_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(32768)), 16);
}

// Eight samples from their taps (one BGRA pixel a lane). kAlpha: alpha is
// mixed like the colours; otherwise it becomes 255.
template <bool kAlpha>
inline __m256i Mix8(__m256i p00, __m256i p01, __m256i p10, __m256i p11, __m256i fx, __m256i fy) {
  const __m256i full = _mm256_set1_epi32(256);
  const __m256i wx = _mm256_or_si256(_mm256_slli_epi32(fx, 16), _mm256_sub_epi32(full, fx));
  const __m256i wy0 = _mm256_sub_epi32(full, fy);
  const __m256i b = MixDown(MixAcross<0>(p00, p01, wx), MixAcross<0>(p10, p11, wx), wy0, fy);
  const __m256i g = MixDown(MixAcross<8>(p00, p01, wx), MixAcross<8>(p10, p11, wx), wy0, fy);
  const __m256i r = MixDown(MixAcross<16>(p00, p01, wx), MixAcross<16>(p10, p11, wx), wy0, fy);
  const __m256i bgr = _mm256_or_si256(_mm256_or_si256(b, _mm256_slli_epi32(g, 8)), _mm256_slli_epi32(r, 16));
  if (!kAlpha) return _mm256_or_si256(bgr, _mm256_set1_epi32(static_cast<int>(0xFF000000u)));
  const __m256i a = MixDown(MixAcross<24>(p00, p01, wx), MixAcross<24>(p10, p11, wx), wy0, fy);
  return _mm256_or_si256(bgr, _mm256_slli_epi32(a, 24));
}

// Eight samples from their taps read in pairs: upper[k] and lower[k] hold
// sample k's two neighbouring pixels of the upper and the lower row, the
// left one first.
template <bool kAlpha>
inline __m256i MixPairs8(const uint64_t* upper, const uint64_t* lower, __m256i fx, __m256i fy) {
  // Samples 0, 1, 4, 5 and 2, 3, 6, 7 in the halves: the split then leaves
  // them in order.
  const auto pairs = [](const uint64_t* p, int i, int j, int k, int l) {
    return _mm256_castsi256_ps(_mm256_setr_epi64x(static_cast<int64_t>(p[i]), static_cast<int64_t>(p[j]),
                                                  static_cast<int64_t>(p[k]), static_cast<int64_t>(p[l])));
  };
  const __m256 t0 = pairs(upper, 0, 1, 4, 5), t1 = pairs(upper, 2, 3, 6, 7);
  const __m256 b0 = pairs(lower, 0, 1, 4, 5), b1 = pairs(lower, 2, 3, 6, 7);
  const auto left = [](__m256 x, __m256 y) { return _mm256_castps_si256(_mm256_shuffle_ps(x, y, _MM_SHUFFLE(2, 0, 2, 0))); };
  const auto right = [](__m256 x, __m256 y) { return _mm256_castps_si256(_mm256_shuffle_ps(x, y, _MM_SHUFFLE(3, 1, 3, 1))); };
  return Mix8<kAlpha>(left(t0, t1), right(t0, t1), left(b0, b1), right(b0, b1), fx, fy);
}

}  // namespace bilinear_avx2
}  // namespace Korvane
