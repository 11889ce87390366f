// SIMD forms of the glitch kernels, sixteen pixels per step. SSE2 only, which
// every x86-64 processor has, so this file is built at the baseline; where
// SSE2 is absent the plain forms stand in.
#include "effects/glitch/GlitchKernels.h"

#include <algorithm>
#include <cstdint>
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

namespace {

// Images at least this large go past the caches: writing planes and output
// with non-temporal stores saves reading every destination line in first.
constexpr size_t kStreamBytes = size_t{16} << 20;

bool StreamsFor(const GlitchSource& src) {
  return static_cast<size_t>(src.width) * static_cast<size_t>(std::max(src.height, 0)) * 4 >= kStreamBytes;
}

template <bool kStream>
inline void Store(uint8_t* to, __m128i v) {
  if (kStream) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(to), v);
  } else {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), v);
  }
}

// to[i] = byte `channel` of pixel i of `from`, for i < run.
template <bool kStream>
void GatherChannel(const uint8_t* from, int32_t channel, uint8_t* to, int32_t run) {
  const __m128i shift = _mm_cvtsi32_si128(channel * 8);
  const __m128i low_byte = _mm_set1_epi32(0xFF);
  int32_t i = 0;
  if (kStream) {
    // Byte by byte up to the first 16-byte boundary of the plane row.
    const int32_t head = static_cast<int32_t>((16 - (reinterpret_cast<uintptr_t>(to) & 15)) & 15);
    for (; i < head && i < run; ++i) to[i] = from[i * 4 + channel];
  }
  for (; i + 16 <= run; i += 16) {
    // Move the wanted byte of each pixel to the bottom of its lane, then
    // narrow 32 -> 16 -> 8 bits; values stay below 256, so the saturating
    // packs keep them exactly.
    const __m128i* f = reinterpret_cast<const __m128i*>(from + i * 4);
    const __m128i a = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(f + 0), shift), low_byte);
    const __m128i b = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(f + 1), shift), low_byte);
    const __m128i c = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(f + 2), shift), low_byte);
    const __m128i e = _mm_and_si128(_mm_srl_epi32(_mm_loadu_si128(f + 3), shift), low_byte);
    Store<kStream>(to + i, _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, e)));
  }
  for (; i < run; ++i) to[i] = from[i * 4 + channel];
}

}  // namespace

void ShiftChannel_SSE(const GlitchSource& src, int32_t channel, int32_t sx, int32_t sy, uint8_t* plane,
                      int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  const RowSpans span = SpansFor(w, sx);
  const int32_t run = span.tail - span.lead;
  const bool stream = StreamsFor(src);
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* row = src.data + static_cast<size_t>(ClampRow(int64_t{y} - sy, src.height)) * src.stride;
    uint8_t* d = plane + static_cast<size_t>(y) * w;
    std::memset(d, row[channel], static_cast<size_t>(span.lead));
    if (run > 0) {
      const uint8_t* from = row + (static_cast<ptrdiff_t>(span.lead) - sx) * 4;
      if (stream) {
        GatherChannel<true>(from, channel, d + span.lead, run);
      } else {
        GatherChannel<false>(from, channel, d + span.lead, run);
      }
    }
    std::memset(d + span.tail, row[static_cast<size_t>(w - 1) * 4 + channel], static_cast<size_t>(w - span.tail));
  }
  // Non-temporal stores are weakly ordered: make them visible before the
  // band reports completion.
  if (stream) _mm_sfence();
}

namespace {

inline void MergePixel(const uint8_t* s, uint8_t b, uint8_t g, uint8_t r, uint8_t* d) {
  const uint8_t a = s[3];
  d[0] = b;
  d[1] = g;
  d[2] = r;
  d[3] = a;
}

template <bool kStream>
void MergeRow(const uint8_t* s, const uint8_t* blue, const uint8_t* green, const uint8_t* red, uint8_t* d,
              int32_t w) {
  const __m128i alpha_mask = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128i zero = _mm_setzero_si128();
  int32_t x = 0;
  if (kStream) {
    // Pixel by pixel up to the first 16-byte boundary of the output (which
    // is 4-byte aligned whenever streaming is chosen).
    const int32_t head = static_cast<int32_t>(((16 - (reinterpret_cast<uintptr_t>(d) & 15)) & 15) / 4);
    for (; x < head && x < w; ++x) MergePixel(s + x * 4, blue[x], green[x], red[x], d + x * 4);
  }
  for (; x + 16 <= w; x += 16) {
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blue + x));
    const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(green + x));
    const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(red + x));
    // All source pixels of the step are loaded before any store, so dst may alias src.
    const __m128i a0 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4)), alpha_mask);
    const __m128i a1 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 16)), alpha_mask);
    const __m128i a2 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 32)), alpha_mask);
    const __m128i a3 = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x * 4 + 48)), alpha_mask);
    const __m128i bg_lo = _mm_unpacklo_epi8(b, g);
    const __m128i bg_hi = _mm_unpackhi_epi8(b, g);
    const __m128i r_lo = _mm_unpacklo_epi8(r, zero);
    const __m128i r_hi = _mm_unpackhi_epi8(r, zero);
    const __m128i p0 = _mm_or_si128(_mm_unpacklo_epi16(bg_lo, r_lo), a0);
    const __m128i p1 = _mm_or_si128(_mm_unpackhi_epi16(bg_lo, r_lo), a1);
    const __m128i p2 = _mm_or_si128(_mm_unpacklo_epi16(bg_hi, r_hi), a2);
    const __m128i p3 = _mm_or_si128(_mm_unpackhi_epi16(bg_hi, r_hi), a3);
    Store<kStream>(d + x * 4, p0);
    Store<kStream>(d + x * 4 + 16, p1);
    Store<kStream>(d + x * 4 + 32, p2);
    Store<kStream>(d + x * 4 + 48, p3);
  }
  for (; x < w; ++x) MergePixel(s + x * 4, blue[x], green[x], red[x], d + x * 4);
}

}  // namespace

void MergePlanes_SSE(const GlitchSource& src, const uint8_t* blue, const uint8_t* green, const uint8_t* red,
                     uint8_t* dst, int32_t dst_stride, int32_t y0, int32_t y1) {
  const int32_t w = src.width;
  // Streaming needs whole pixels on 16-byte boundaries.
  const bool stream = StreamsFor(src) && (reinterpret_cast<uintptr_t>(dst) & 3) == 0 && (dst_stride & 3) == 0;
  y0 = std::max(y0, 0);
  y1 = std::min(y1, src.height);
  for (int32_t y = y0; y < y1; ++y) {
    const size_t p = static_cast<size_t>(y) * w;
    const uint8_t* s = src.data + static_cast<size_t>(y) * src.stride;
    uint8_t* d = dst + static_cast<size_t>(y) * dst_stride;
    if (stream) {
      MergeRow<true>(s, blue + p, green + p, red + p, d, w);
    } else {
      MergeRow<false>(s, blue + p, green + p, red + p, d, w);
    }
  }
  // Non-temporal stores are weakly ordered: make them visible before the
  // band reports completion.
  if (stream) _mm_sfence();
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
