#include <smmintrin.h>

#include <algorithm>

#include "core/ResultCode.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

int32_t GlowDetectHighlight_SSE4(ThreadJob* job, int32_t* result) {
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
    *result = S_OK;
    return S_OK;
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
    for (; x < n; ++x) {
      for (int32_t c = 0; c < 3; ++c) {
        d[4 * x + c] = static_cast<unsigned char>(std::min(std::max(s[4 * x + c] - t, 0), 255));
      }
      d[4 * x + 3] = s[4 * x + 3];
    }
  }
  *result = S_OK;
  return S_OK;
}

}  // namespace Korvane
