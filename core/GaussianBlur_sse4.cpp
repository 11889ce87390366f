// SSE4.1 forms of the masked Gaussian blur. Colour sums run over packed
// b, g, r floats, four lanes of any pixels at a time, and weight sums over
// four pixels' weights; every lane sees the same multiplications and
// additions in the same order as the plain form. Windows lying wholly on
// masked pixels skip the weight sums: theirs is the known full sum.
#include <smmintrin.h>

#include <cstring>

#include "core/GaussianBlur.h"

namespace Korvane {

namespace {

void ConvertRowSse(const uint8_t* src, const bool* mask, float* colour, float* weight, int32_t count) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i one = _mm_set1_epi8(1);
  // Each pixel's mask byte over its four bytes, and b, g, r of four pixels packed.
  const __m128i spread = _mm_setr_epi8(0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3);
  const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  int32_t x = 0;
  for (; x + 4 <= count; x += 4) {
    int32_t m;
    std::memcpy(&m, mask + x, 4);
    const __m128i mv = _mm_cvtsi32_si128(m);
    const __m128i keep = _mm_shuffle_epi8(_mm_cmpgt_epi8(mv, zero), spread);
    const __m128i px = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * x)), keep);
    const __m128i bgr = _mm_shuffle_epi8(px, pack);
    float* c = colour + 3 * x;
    _mm_storeu_ps(c, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(bgr)));
    _mm_storeu_ps(c + 4, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_srli_si128(bgr, 4))));
    _mm_storeu_ps(c + 8, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_srli_si128(bgr, 8))));
    _mm_storeu_ps(weight + x, _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_and_si128(_mm_cmpgt_epi8(mv, zero), one))));
  }
  for (; x < count; ++x) {
    const bool m = mask[x];
    for (int32_t c = 0; c < 3; ++c) colour[3 * x + c] = m ? src[4 * x + c] : 0.0f;
    weight[x] = m ? 1.0f : 0.0f;
  }
}

// Six registers of truncated sums (b, g, r of eight pixels, packed) to
// 32 bytes of BGRA, each pixel taking its colour where `take` is set and
// src's bytes elsewhere.
inline void Store8(const __m128i* v, const uint8_t* src, __m128i take_lo, __m128i take_hi, uint8_t* dst) {
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i a = _mm_packus_epi32(v[0], v[1]);
  const __m128i b = _mm_packus_epi32(v[2], v[3]);
  const __m128i c = _mm_packus_epi32(v[4], v[5]);
  const __m128i lo = _mm_packus_epi16(a, b);  // bytes 0..15 of the packed b, g, r
  const __m128i hi = _mm_packus_epi16(c, c);  // bytes 16..23
  const __m128i p0 = _mm_shuffle_epi8(lo, spread);
  const __m128i p1 = _mm_shuffle_epi8(_mm_alignr_epi8(hi, lo, 12), spread);
  const __m128i s0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
  const __m128i s1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 16));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_blendv_epi8(s0, p0, take_lo));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 16), _mm_blendv_epi8(s1, p1, take_hi));
}

// kUnitWeight: the full weight is exactly 1, so wholly masked windows need
// no division (a sum divided by 1 is the sum itself). Most kernels sum to
// exactly 1 in tap order, and the division costs as much as a short kernel.
template <bool kUnitWeight>
void AccumulateRowSseT(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst,
                       int32_t count) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i colour_bytes = _mm_set1_epi32(0x00FFFFFF);
  const __m128i spread_lo = _mm_setr_epi8(0, 0, 0, -1, 1, 1, 1, -1, 2, 2, 2, -1, 3, 3, 3, -1);
  const __m128i spread_hi = _mm_setr_epi8(4, 4, 4, -1, 5, 5, 5, -1, 6, 6, 6, -1, 7, 7, 7, -1);
  const __m128 full_weight = _mm_set1_ps(t.full_weight);
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    const __m128i m8 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(mask + x));
    if (_mm_testz_si128(m8, m8)) {
      std::memcpy(dst + 4 * x, src + 4 * x, 32);
      continue;
    }
    // Eight pixels: six registers of packed colour, independent chains that
    // keep the adders and the loads from the cache busy.
    const size_t off = static_cast<size_t>(x) * 3;
    __m128 acc[6];
    for (int32_t j = 0; j < 6; ++j) acc[j] = _mm_setzero_ps();
    __m128i q[6];
    uint64_t open = 1;
    if (t.open) std::memcpy(&open, t.open + x, 8);
    const bool full = open == 0;  // all eight windows wholly masked
    if (full) {
      for (int32_t k = 0; k < t.count; ++k) {
        const __m128 w = _mm_set1_ps(t.taps[k]);
        const float* p = t.colour[k] + off;
        for (int32_t j = 0; j < 6; ++j) acc[j] = _mm_add_ps(acc[j], _mm_mul_ps(w, _mm_loadu_ps(p + 4 * j)));
      }
      for (int32_t j = 0; j < 6; ++j) {
        q[j] = _mm_cvttps_epi32(kUnitWeight ? acc[j] : _mm_div_ps(acc[j], full_weight));
      }
      Store8(q, src + 4 * x, colour_bytes, colour_bytes, dst + 4 * x);
      continue;
    }
    __m128 ws0 = _mm_setzero_ps(), ws1 = _mm_setzero_ps();
    for (int32_t k = 0; k < t.count; ++k) {
      const __m128 w = _mm_set1_ps(t.taps[k]);
      const float* p = t.colour[k] + off;
      for (int32_t j = 0; j < 6; ++j) acc[j] = _mm_add_ps(acc[j], _mm_mul_ps(w, _mm_loadu_ps(p + 4 * j)));
      const float* pw = t.weight[k] + x;
      ws0 = _mm_add_ps(ws0, _mm_mul_ps(w, _mm_loadu_ps(pw)));
      ws1 = _mm_add_ps(ws1, _mm_mul_ps(w, _mm_loadu_ps(pw + 4)));
    }
    // Each colour lane divided by its own pixel's weight sum. Unmasked
    // pixels may divide by 0; their bytes are replaced by src's below.
    const __m128 ws[2] = {ws0, ws1};
    for (int32_t h = 0; h < 2; ++h) {
      const __m128 v = ws[h];
      q[3 * h] = _mm_cvttps_epi32(_mm_div_ps(acc[3 * h], _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 0, 0, 0))));
      q[3 * h + 1] = _mm_cvttps_epi32(_mm_div_ps(acc[3 * h + 1], _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 2, 1, 1))));
      q[3 * h + 2] = _mm_cvttps_epi32(_mm_div_ps(acc[3 * h + 2], _mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 3, 2))));
    }
    const __m128i take = _mm_cmpgt_epi8(m8, zero);
    Store8(q, src + 4 * x, _mm_shuffle_epi8(take, spread_lo), _mm_shuffle_epi8(take, spread_hi), dst + 4 * x);
  }
  for (; x < count; ++x) {
    const uint8_t* s = src + 4 * x;
    if (!mask[x]) {
      std::memcpy(dst + 4 * x, s, 4);
      continue;
    }
    // Lane 3 holds the next pixel's blue and is dropped.
    __m128 a = _mm_setzero_ps();
    float sw = 0.0f;
    for (int32_t k = 0; k < t.count; ++k) {
      a = _mm_add_ps(a, _mm_mul_ps(_mm_set1_ps(t.taps[k]), _mm_loadu_ps(t.colour[k] + 3 * x)));
      sw += t.taps[k] * t.weight[k][x];
    }
    __m128i v = _mm_cvttps_epi32(_mm_div_ps(a, _mm_set1_ps(sw)));
    v = _mm_packus_epi32(v, v);
    v = _mm_packus_epi16(v, v);
    const uint32_t out = (static_cast<uint32_t>(_mm_cvtsi128_si32(v)) & 0x00FFFFFFu) | (static_cast<uint32_t>(s[3]) << 24);
    std::memcpy(dst + 4 * x, &out, 4);
  }
}

void AccumulateRowSse(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst,
                      int32_t count) {
  if (t.full_weight == 1.0f) {
    AccumulateRowSseT<true>(t, mask, src, dst, count);
  } else {
    AccumulateRowSseT<false>(t, mask, src, dst, count);
  }
}

const GaussianRowKernels kSseKernels = {ConvertRowSse, AccumulateRowSse};

}  // namespace

int32_t GaussianBlurH_SSE(ThreadJob* job, int32_t* result) { return RunGaussianBlurH(job, result, kSseKernels); }
int32_t GaussianBlurV_SSE(ThreadJob* job, int32_t* result) { return RunGaussianBlurV(job, result, kSseKernels); }
int32_t GaussianBlurHV_SSE(ThreadJob* job, int32_t* result) { return RunGaussianBlurHV(job, result, kSseKernels); }

}  // namespace Korvane
