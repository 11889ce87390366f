// AVX2 forms of the glow's pixel stages: the same bytes and floats as the
// plain forms, eight pixels at a time.
#include <immintrin.h>

#include <algorithm>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

namespace {

// Highlights at least this large go past the caches: the next stage reads
// them long after, so their lines need not be read in before being written.
constexpr int64_t kStreamBytes = int64_t{16} << 20;

// n pixels of one row: B, G, R moved by up / down with unsigned saturation
// (alpha lanes move by 0). kStream: d is 16-byte aligned and written past
// the caches.
template <bool kStream>
void DetectRow(const unsigned char* s, unsigned char* d, int32_t n, int32_t t, __m256i up, __m256i down) {
  int32_t x = 0;
  for (; x + 8 <= n; x += 8) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x));
    const __m256i o = _mm256_subs_epu8(_mm256_adds_epu8(v, up), down);
    if (kStream) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm256_castsi256_si128(o));
      _mm_stream_si128(reinterpret_cast<__m128i*>(d + 4 * x + 16), _mm256_extracti128_si256(o, 1));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 4 * x), o);
    }
  }
  glow_detail::DetectPixels(s + 4 * x, d + 4 * x, n - x, t);
}

}  // namespace

int32_t GlowDetectHighlight_AVX2(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowDetectParam*>(job->param);
  // The masked form reads three mask bytes per pixel with edge rules; it stays
  // on the plain path, which also does every check.
  if (!p->src || !p->dst || !p->src->data || !p->dst->data || (p->mask && p->mask->data) ||
      p->src->pix_fmt != PIXEL_BGRA32 || p->dst->pix_fmt != PIXEL_BGRA32) {
    return GlowDetectHighlight(job, result);
  }
  const Rect r = Clip(job->rect, p->cols, p->rows);
  if (IsEmpty(r)) return Done(result, S_OK);
  const int32_t t = std::min(std::max(p->threshold, -255), 255);
  const __m256i up = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(-t, 0)) * 0x010101u));
  const __m256i down = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(t, 0)) * 0x010101u));
  const bool large = int64_t{p->cols} * p->rows * 4 >= kStreamBytes;
  bool streamed = false;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = RowPtr(*p->src, y) + r.left * 4;
    unsigned char* d = RowPtr(*p->dst, y) + r.left * 4;
    if (large && (reinterpret_cast<uintptr_t>(d) & 15) == 0) {
      DetectRow<true>(s, d, r.right - r.left, t, up, down);
      streamed = true;
    } else {
      DetectRow<false>(s, d, r.right - r.left, t, up, down);
    }
  }
  // Streamed stores are weakly ordered: make them visible before the band
  // reports completion.
  if (streamed) _mm_sfence();
  return Done(result, S_OK);
}

namespace {

// B, G, R of eight pixels (alpha dropped) as 24 byte indices, in three groups
// of eight 32-bit lanes, in memory order b0 g0 r0 b1 ...
inline void ChannelIndices(const unsigned char* s, __m256i idx[3]) {
  const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m128i lo = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), pack);
  const __m128i hi = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16)), pack);
  idx[0] = _mm256_cvtepu8_epi32(lo);
  idx[1] = _mm256_cvtepu8_epi32(_mm_unpacklo_epi32(_mm_srli_si128(lo, 8), hi));
  idx[2] = _mm256_cvtepu8_epi32(_mm_srli_si128(hi, 4));
}

}  // namespace

int32_t GlowByteToFloat_AVX2(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  const __m256 scale = _mm256_set1_ps(0.003921569f);
  const __m256 zero = _mm256_setzero_ps();
  const int32_t n = r.right - r.left;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = RowPtr(*p->bytes, y) + r.left * 4;
    float* d = RowPtr<float>(*p->floats, y) + r.left * 3;
    int32_t x = 0;
    if (p->tone) {
      // The tone curve of each byte, gathered from its table.
      for (; x + 8 <= n; x += 8) {
        __m256i idx[3];
        ChannelIndices(s + 4 * x, idx);
        for (int k = 0; k < 3; ++k) _mm256_storeu_ps(d + 3 * x + 8 * k, _mm256_i32gather_ps(p->tone, idx[k], 4));
      }
      glow_detail::ByteToFloatPixels(s + 4 * x, d + 3 * x, n - x, p->tone);
      continue;
    }
    for (; x + 8 <= n; x += 8) {
      __m256i idx[3];
      ChannelIndices(s + 4 * x, idx);
      for (int k = 0; k < 3; ++k) {
        _mm256_storeu_ps(d + 3 * x + 8 * k, _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(idx[k]), scale), zero));
      }
    }
    glow_detail::ByteToFloatPixels(s + 4 * x, d + 3 * x, n - x, nullptr);
  }
  return Done(result, S_OK);
}

namespace {

// Four floats to four ints: x * 255 in double (exact), clamped to 0..255
// (NaN to 0), truncated.
inline __m128i ToBytes4(__m128 f) {
  const __m256d k255 = _mm256_set1_pd(255.0);
  const __m256d zero = _mm256_setzero_pd();
  const __m256d v = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(f), k255), zero);
  return _mm256_cvttpd_epi32(_mm256_min_pd(_mm256_max_pd(v, zero), k255));
}

}  // namespace

int32_t GlowFloatToByte_AVX2(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  // Per 128-bit lane, twelve bytes b0 g0 r0 b1 ... r3 spread to B, G, R of
  // four pixels; the alpha lanes come from the pixels already there.
  const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2, -1, 3, 4, 5,
                                          -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m256i alpha = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const int32_t n = r.right - r.left;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* s = RowPtr<float>(*p->floats, y) + r.left * 3;
    unsigned char* d = RowPtr(*p->bytes, y) + r.left * 4;
    int32_t x = 0;
    for (; x + 8 <= n; x += 8) {
      const float* f = s + 3 * x;
      const __m128i i0 = ToBytes4(_mm_loadu_ps(f)), i1 = ToBytes4(_mm_loadu_ps(f + 4));
      const __m128i i2 = ToBytes4(_mm_loadu_ps(f + 8)), i3 = ToBytes4(_mm_loadu_ps(f + 12));
      const __m128i i4 = ToBytes4(_mm_loadu_ps(f + 16)), i5 = ToBytes4(_mm_loadu_ps(f + 20));
      // Bytes 0..15 and 16..23 of the 24 channel values.
      const __m128i a = _mm_packus_epi16(_mm_packs_epi32(i0, i1), _mm_packs_epi32(i2, i3));
      const __m128i b = _mm_packus_epi16(_mm_packs_epi32(i4, i5), _mm_packs_epi32(i4, i5));
      // Pixels 0..3 from bytes 0..11, pixels 4..7 from bytes 12..23.
      const __m256i both = _mm256_setr_m128i(a, _mm_alignr_epi8(b, a, 12));
      __m256i* out = reinterpret_cast<__m256i*>(d + 4 * x);
      const __m256i old = _mm256_loadu_si256(out);
      _mm256_storeu_si256(out, _mm256_blendv_epi8(_mm256_shuffle_epi8(both, spread), old, alpha));
    }
    glow_detail::FloatToBytePixels(s + 3 * x, d + 4 * x, n - x);
  }
  return Done(result, S_OK);
}

}  // namespace Korvane
