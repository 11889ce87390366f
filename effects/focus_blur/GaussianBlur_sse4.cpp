// SSE4.1 forms of the masked Gaussian blur. A pixel's blue, green, red and
// weight sums share one register (lanes b, g, r, w), so every lane sees the
// same multiplications and additions in the same order as the plain form.
#include <smmintrin.h>

#include <cstring>

#include "effects/focus_blur/GaussianBlur.h"

namespace Korvane {

namespace {

// Pixel bytes b, g, r, a -> floats b, g, r, 1, or all zero when not masked.
inline __m128 ConvertPixel(const uint8_t* src, bool masked) {
  int32_t bits;
  std::memcpy(&bits, src, 4);
  const __m128 v = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(bits)));
  const __m128 with_one = _mm_blend_ps(v, _mm_set1_ps(1.0f), 0x8);
  return _mm_and_ps(with_one, _mm_castsi128_ps(_mm_set1_epi32(masked ? -1 : 0)));
}

void ConvertRowSse(const uint8_t* src, const bool* mask, float* dst, int32_t count) {
  const __m128i colour = _mm_set1_epi32(0x00FFFFFF);
  const __m128i one = _mm_set1_epi32(0x01000000);
  const __m128i zero = _mm_setzero_si128();
  int32_t x = 0;
  for (; x + 4 <= count; x += 4) {
    // Four pixels: alpha byte replaced by 1, unmasked pixels zeroed, then
    // widened to floats one pixel at a time.
    int32_t m;
    std::memcpy(&m, mask + x, 4);
    const __m128i keep = _mm_cmpgt_epi32(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(m)), zero);
    __m128i px = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * x));
    px = _mm_and_si128(_mm_or_si128(_mm_and_si128(px, colour), one), keep);
    float* d = dst + 4 * x;
    _mm_storeu_ps(d, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(px)));
    _mm_storeu_ps(d + 4, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_srli_si128(px, 4))));
    _mm_storeu_ps(d + 8, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_srli_si128(px, 8))));
    _mm_storeu_ps(d + 12, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_srli_si128(px, 12))));
  }
  for (; x < count; ++x) _mm_storeu_ps(dst + 4 * x, ConvertPixel(src + 4 * x, mask[x]));
}

// Sums / weight, truncated to bytes, with the source pixel's alpha.
inline uint32_t Finish(__m128 acc, const uint8_t* src) {
  const __m128 q = _mm_div_ps(acc, _mm_shuffle_ps(acc, acc, _MM_SHUFFLE(3, 3, 3, 3)));
  __m128i v = _mm_cvttps_epi32(q);
  v = _mm_packus_epi32(v, v);
  v = _mm_packus_epi16(v, v);
  uint32_t out = static_cast<uint32_t>(_mm_cvtsi128_si32(v));
  return (out & 0x00FFFFFFu) | (static_cast<uint32_t>(src[3]) << 24);
}

inline void Put(uint8_t* dst, uint32_t v) { std::memcpy(dst, &v, 4); }

void AccumulateRowSse(const float* const* rows, const float* taps, int32_t tap_count, const bool* mask,
                      const uint8_t* src, uint8_t* dst, int32_t count) {
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    uint64_t any;
    std::memcpy(&any, mask + x, 8);
    if (any == 0) {
      std::memcpy(dst + 4 * x, src + 4 * x, 32);
      continue;
    }
    // Eight pixels at once: independent chains keep the adders and the
    // loads from the cache busy.
    __m128 acc[8];
    for (int32_t j = 0; j < 8; ++j) acc[j] = _mm_setzero_ps();
    const size_t off = static_cast<size_t>(x) * 4;
    for (int32_t k = 0; k < tap_count; ++k) {
      const __m128 w = _mm_set1_ps(taps[k]);
      const float* p = rows[k] + off;
      for (int32_t j = 0; j < 8; ++j) acc[j] = _mm_add_ps(acc[j], _mm_mul_ps(w, _mm_loadu_ps(p + 4 * j)));
    }
    for (int32_t j = 0; j < 8; ++j) {
      const uint8_t* s = src + 4 * (x + j);
      if (mask[x + j]) {
        Put(dst + 4 * (x + j), Finish(acc[j], s));
      } else {
        std::memcpy(dst + 4 * (x + j), s, 4);
      }
    }
  }
  for (; x < count; ++x) {
    const uint8_t* s = src + 4 * x;
    if (!mask[x]) {
      std::memcpy(dst + 4 * x, s, 4);
      continue;
    }
    __m128 a = _mm_setzero_ps();
    for (int32_t k = 0; k < tap_count; ++k) {
      a = _mm_add_ps(a, _mm_mul_ps(_mm_set1_ps(taps[k]), _mm_loadu_ps(rows[k] + 4 * x)));
    }
    Put(dst + 4 * x, Finish(a, s));
  }
}

const GaussianRowKernels kSseKernels = {ConvertRowSse, AccumulateRowSse};

}  // namespace

int32_t GaussianBlurH_SSE(ThreadJob* job, int32_t* result) { return RunGaussianBlurH(job, result, kSseKernels); }
int32_t GaussianBlurV_SSE(ThreadJob* job, int32_t* result) { return RunGaussianBlurV(job, result, kSseKernels); }

}  // namespace Korvane
