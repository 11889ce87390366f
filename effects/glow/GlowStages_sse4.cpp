#include <smmintrin.h>

#include <algorithm>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

int32_t GlowDetectHighlight_SSE(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowDetectParam*>(job->param);
  // The masked form reads three mask bytes per pixel with edge rules; it stays
  // on the plain path, which also does every check.
  if (!p->src || !p->dst || !p->src->data || !p->dst->data || (p->mask && p->mask->data) ||
      p->src->pix_fmt != PIXEL_BGRA32 || p->dst->pix_fmt != PIXEL_BGRA32) {
    return GlowDetectHighlight(job, result);
  }
  const int32_t left = std::max(job->rect.left, 0), right = std::min(job->rect.right, p->cols);
  const int32_t top = std::max(job->rect.top, 0), bottom = std::min(job->rect.bottom, p->rows);
  if (right <= left || bottom <= top) {
    return Done(result, S_OK);
  }
  // B, G, R move by the threshold with unsigned saturation; alpha lanes move by 0.
  const int32_t t = std::min(std::max(p->threshold, -255), 255);
  const __m128i up = _mm_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(-t, 0)) * 0x010101u));
  const __m128i down = _mm_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(t, 0)) * 0x010101u));
  const int32_t n = right - left;
  for (int32_t y = top; y < bottom; ++y) {
    const unsigned char* s = p->src->data.get() + static_cast<ptrdiff_t>(y) * p->src->stride + left * 4;
    unsigned char* d = p->dst->data.get() + static_cast<ptrdiff_t>(y) * p->dst->stride + left * 4;
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
      const __m128i o = _mm_subs_epu8(_mm_adds_epu8(v, up), down);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), o);
    }
    glow_detail::DetectPixels(s + 4 * x, d + 4 * x, n - x, t);
  }
  return Done(result, S_OK);
}

int32_t GlowByteToFloat_SSE(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  if (p->tone) return GlowByteToFloat(job, result);  // a table lookup: nothing to vectorise
  const __m128 scale = _mm_set1_ps(0.003921569f);
  const __m128 zero = _mm_setzero_ps();
  // B, G, R of four pixels, alpha dropped, as three groups of four bytes.
  const __m128i pick0 = _mm_setr_epi8(0, 1, 2, 4, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i pick1 = _mm_setr_epi8(5, 6, 8, 9, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i pick2 = _mm_setr_epi8(10, 12, 13, 14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = p->bytes->data.get() + static_cast<ptrdiff_t>(y) * p->bytes->stride + r.left * 4;
    float* d = reinterpret_cast<float*>(p->floats->data.get() + static_cast<ptrdiff_t>(y) * p->floats->stride) +
               r.left * 3;
    const int32_t n = r.right - r.left;
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
      const __m128 f0 = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_shuffle_epi8(v, pick0)));
      const __m128 f1 = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_shuffle_epi8(v, pick1)));
      const __m128 f2 = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_shuffle_epi8(v, pick2)));
      _mm_storeu_ps(d + 3 * x, _mm_add_ps(_mm_mul_ps(f0, scale), zero));
      _mm_storeu_ps(d + 3 * x + 4, _mm_add_ps(_mm_mul_ps(f1, scale), zero));
      _mm_storeu_ps(d + 3 * x + 8, _mm_add_ps(_mm_mul_ps(f2, scale), zero));
    }
    glow_detail::ByteToFloatPixels(s + 4 * x, d + 3 * x, n - x, nullptr);
  }
  return Done(result, S_OK);
}

namespace {

// Four floats to four ints: x * 255 in double (exact), clamped to 0..255
// (NaN to 0), truncated.
inline __m128i ToBytes4(__m128 f) {
  const __m128d k255 = _mm_set1_pd(255.0);
  const __m128d zero = _mm_setzero_pd();
  __m128d lo = _mm_mul_pd(_mm_cvtps_pd(f), k255);
  __m128d hi = _mm_mul_pd(_mm_cvtps_pd(_mm_movehl_ps(f, f)), k255);
  lo = _mm_min_pd(_mm_max_pd(_mm_add_pd(lo, zero), zero), k255);
  hi = _mm_min_pd(_mm_max_pd(_mm_add_pd(hi, zero), zero), k255);
  return _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi));
}

}  // namespace

int32_t GlowFloatToByte_SSE(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  // Twelve bytes b0 g0 r0 b1 ... r3 spread to B, G, R of four pixels; the
  // alpha lanes come from the pixels already there.
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i alpha = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* s = reinterpret_cast<const float*>(p->floats->data.get() +
                                                    static_cast<ptrdiff_t>(y) * p->floats->stride) + r.left * 3;
    unsigned char* d = p->bytes->data.get() + static_cast<ptrdiff_t>(y) * p->bytes->stride + r.left * 4;
    const int32_t n = r.right - r.left;
    int32_t x = 0;
    for (; x + 4 <= n; x += 4) {
      const __m128i i0 = ToBytes4(_mm_loadu_ps(s + 3 * x));
      const __m128i i1 = ToBytes4(_mm_loadu_ps(s + 3 * x + 4));
      const __m128i i2 = ToBytes4(_mm_loadu_ps(s + 3 * x + 8));
      const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(i0, i1), _mm_packs_epi32(i2, i2));
      __m128i* out = reinterpret_cast<__m128i*>(d + 4 * x);
      const __m128i old = _mm_loadu_si128(out);
      _mm_storeu_si128(out, _mm_blendv_epi8(_mm_shuffle_epi8(packed, spread), old, alpha));
    }
    glow_detail::FloatToBytePixels(s + 3 * x, d + 4 * x, n - x);
  }
  return Done(result, S_OK);
}

}  // namespace Korvane
