// SIMD forms of the glitch kernels, sixteen pixels per step. SSE2 only, which
// every x86-64 processor has, so this file is built at the baseline; where
// SSE2 is absent the plain forms stand in.
#include "effects/glitch/GlitchKernels.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KORVANE_GLITCH_SSE2 1
#else
#define KORVANE_GLITCH_SSE2 0
#endif

namespace Korvane {

#if KORVANE_GLITCH_SSE2

using GlitchDetail::ClampRow;
using GlitchDetail::RowSpans;
using GlitchDetail::SpansFor;

void ShiftChannel_SSE(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                      int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  const RowSpans span = SpansFor(w, sx);
  const int32_t run = span.tail - span.lead;
  const int32_t run16 = run & ~15;
  const __m128i shift = _mm_cvtsi32_si128(channel * 8);
  const __m128i low_byte = _mm_set1_epi32(0xFF);
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* row = src.data + static_cast<size_t>(ClampRow(int64_t{y} - sy, src.height)) * src.stride;
    uint8_t* d = plane + static_cast<size_t>(y) * w;
    std::memset(d, row[channel], static_cast<size_t>(span.lead));
    if (run > 0) {
      const uint8_t* from = row + (static_cast<ptrdiff_t>(span.lead) - sx) * 4;
      uint8_t* to = d + span.lead;
      int32_t i = 0;
      for (; i < run16; i += 16) {
        // Move the wanted byte of each pixel to the bottom of its lane, then
        // narrow 32 -> 16 -> 8 bits; values stay below 256, so the
        // saturating packs keep them exactly.
        const __m128i a = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i * 4)), shift), low_byte);
        const __m128i b = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i * 4 + 16)), shift), low_byte);
        const __m128i c = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i * 4 + 32)), shift), low_byte);
        const __m128i e = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i * 4 + 48)), shift), low_byte);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i),
                         _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, e)));
      }
      for (; i < run; ++i) to[i] = from[i * 4 + channel];
    }
    std::memset(d + span.tail, row[static_cast<size_t>(w - 1) * 4 + channel], static_cast<size_t>(w - span.tail));
  }
}

void MergePlanes_SSE(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                     uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  const int32_t w16 = w & ~15;
  const __m128i alpha_mask = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128i zero = _mm_setzero_si128();
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const size_t p = static_cast<size_t>(y) * w;
    const uint8_t* s = src.data + static_cast<size_t>(y) * src.stride;
    uint8_t* d = dst + static_cast<size_t>(y) * dst_stride;
    int32_t x = 0;
    for (; x < w16; x += 16) {
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blue + p + x));
      const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(green + p + x));
      const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(red + p + x));
      // All source pixels of the step are loaded before any store, so dst may alias src.
      const __m128i a0 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4)), alpha_mask);
      const __m128i a1 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 16)), alpha_mask);
      const __m128i a2 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 32)), alpha_mask);
      const __m128i a3 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 48)), alpha_mask);
      const __m128i bg_lo = _mm_unpacklo_epi8(b, g);
      const __m128i bg_hi = _mm_unpackhi_epi8(b, g);
      const __m128i r_lo = _mm_unpacklo_epi8(r, zero);
      const __m128i r_hi = _mm_unpackhi_epi8(r, zero);
      __m128i* out = reinterpret_cast<__m128i*>(d + x * 4);
      _mm_storeu_si128(out + 0, _mm_or_si128(_mm_unpacklo_epi16(bg_lo, r_lo), a0));
      _mm_storeu_si128(out + 1, _mm_or_si128(_mm_unpackhi_epi16(bg_lo, r_lo), a1));
      _mm_storeu_si128(out + 2, _mm_or_si128(_mm_unpacklo_epi16(bg_hi, r_hi), a2));
      _mm_storeu_si128(out + 3, _mm_or_si128(_mm_unpackhi_epi16(bg_hi, r_hi), a3));
    }
    for (; x < w; ++x) {
      const uint8_t a = s[x * 4 + 3];
      d[x * 4 + 0] = blue[p + x];
      d[x * 4 + 1] = green[p + x];
      d[x * 4 + 2] = red[p + x];
      d[x * 4 + 3] = a;
    }
  }
}

#else  // no SSE2 on this target: the plain forms give the same bytes

void ShiftChannel_SSE(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                      int32_t y0, int32_t y1) {
  ShiftChannel(src, channel, sx, sy, plane, y0, y1);
}

void MergePlanes_SSE(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                     uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1) {
  MergePlanes(src, blue, green, red, dst, dst_stride, y0, y1);
}

#endif

}  // namespace Korvane
