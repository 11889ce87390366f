// AVX2 forms of the masked Gaussian blur: the SSE4.1 scheme on eight lanes.
// Colour sums run over packed b, g, r floats, weight sums over eight pixels'
// weights; every lane sees the same multiplications and additions in the
// same order as the plain form (no fused multiply-add). Sixteen pixels a
// step keep six independent colour chains in flight; the last pixels of a
// row go to the plain code.
#include <immintrin.h>

#include <cstring>

#include "core/GaussianBlur.h"

namespace Korvane {

namespace {

// Eight pixels' mask bytes as 32-bit lanes of all ones (masked) or zero.
inline __m256i MaskLanes(const bool* mask) {
  const __m128i m = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(mask));
  return _mm256_cmpgt_epi32(_mm256_cvtepu8_epi32(m), _mm256_setzero_si256());
}

void ConvertRowAvx2(const uint8_t* src, const bool* mask, float* colour, float* weight, int32_t count) {
  // b, g, r of each lane's four pixels packed into its first twelve bytes.
  const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0, 1, 2, 4, 5, 6, 8, 9,
                                        10, 12, 13, 14, -1, -1, -1, -1);
  const __m256i one = _mm256_set1_epi32(1);
  int32_t x = 0;
  for (; x + 8 <= count; x += 8) {
    const __m256i keep = MaskLanes(mask + x);
    const __m256i px = _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 4 * x)), keep);
    const __m256i bgr = _mm256_shuffle_epi8(px, pack);
    const __m128i lo = _mm256_castsi256_si128(bgr);                     // bytes 0..11 of the row's 24
    const __m128i hi = _mm256_extracti128_si256(bgr, 1);                // bytes 12..23
    const __m128i mid = _mm_unpacklo_epi32(_mm_srli_si128(lo, 8), hi);  // bytes 8..15
    float* c = colour + 3 * x;
    _mm256_storeu_ps(c, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(lo)));
    _mm256_storeu_ps(c + 8, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(mid)));
    _mm256_storeu_ps(c + 16, _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_srli_si128(hi, 4))));
    _mm256_storeu_ps(weight + x, _mm256_cvtepi32_ps(_mm256_and_si256(keep, one)));
  }
  if (x < count) GaussianConvertPixelsPlain(src + 4 * x, mask + x, colour + 3 * x, weight + x, count - x);
}

// Three registers of truncated sums (b, g, r of eight pixels, packed) to 32
// bytes of BGRA, each byte taken from them where `take` is set and from src
// elsewhere.
inline void Store8(__m256i q0, __m256i q1, __m256i q2, const uint8_t* src, __m256i take, uint8_t* dst) {
  // In-lane packs leave 4-byte groups in the order 0 2 4 4 | 1 3 5 5 (each
  // group four values); the permute puts pixels 0..3 in the low lane and
  // 4..7 in the high lane, twelve bytes each, for the spread to BGRA.
  const __m256i words = _mm256_packus_epi32(q0, q1);
  const __m256i last = _mm256_packus_epi32(q2, q2);
  const __m256i bytes = _mm256_packus_epi16(words, last);
  const __m256i ordered = _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 0, 5, 2, 6, 0));
  const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2, -1, 3, 4, 5,
                                          -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m256i px = _mm256_shuffle_epi8(ordered, spread);
  const __m256i s = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm256_blendv_epi8(s, px, take));
}

// Each packed colour lane divided by its own pixel's weight sum, truncated.
inline void DivideByPixel(const __m256* acc, __m256 ws, __m256i* q) {
  const __m256i i0 = _mm256_setr_epi32(0, 0, 0, 1, 1, 1, 2, 2);
  const __m256i i1 = _mm256_setr_epi32(2, 3, 3, 3, 4, 4, 4, 5);
  const __m256i i2 = _mm256_setr_epi32(5, 5, 6, 6, 6, 7, 7, 7);
  q[0] = _mm256_cvttps_epi32(_mm256_div_ps(acc[0], _mm256_permutevar8x32_ps(ws, i0)));
  q[1] = _mm256_cvttps_epi32(_mm256_div_ps(acc[1], _mm256_permutevar8x32_ps(ws, i1)));
  q[2] = _mm256_cvttps_epi32(_mm256_div_ps(acc[2], _mm256_permutevar8x32_ps(ws, i2)));
}

// kGroups groups of eight pixels starting at x. kUnitWeight: the full weight
// is exactly 1, so wholly masked windows need no division.
template <bool kUnitWeight, int kGroups>
inline void AccumulateBlock(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst, int32_t x) {
  constexpr int kRegs = 3 * kGroups;
  uint64_t m8[kGroups], open[kGroups];
  bool any = false, full = t.open != nullptr;
  for (int g = 0; g < kGroups; ++g) {
    std::memcpy(&m8[g], mask + x + 8 * g, 8);
    any = any || m8[g] != 0;
    open[g] = 1;
    if (t.open) std::memcpy(&open[g], t.open + x + 8 * g, 8);
    full = full && open[g] == 0;
  }
  if (!any) {
    std::memcpy(dst + 4 * x, src + 4 * x, 32 * kGroups);
    return;
  }
  const size_t off = static_cast<size_t>(x) * 3;
  __m256 acc[kRegs];
  for (int j = 0; j < kRegs; ++j) acc[j] = _mm256_setzero_ps();
  const __m256i colour_bytes = _mm256_set1_epi32(0x00FFFFFF);
  if (full) {
    // Every window wholly masked: the weight sum is the known full one.
    for (int32_t k = 0; k < t.count; ++k) {
      const __m256 w = _mm256_set1_ps(t.taps[k]);
      const float* p = t.colour[k] + off;
      for (int j = 0; j < kRegs; ++j) acc[j] = _mm256_add_ps(acc[j], _mm256_mul_ps(w, _mm256_loadu_ps(p + 8 * j)));
    }
    const __m256 full_weight = _mm256_set1_ps(t.full_weight);
    for (int g = 0; g < kGroups; ++g) {
      __m256i q[3];
      for (int j = 0; j < 3; ++j) {
        const __m256 a = acc[3 * g + j];
        q[j] = _mm256_cvttps_epi32(kUnitWeight ? a : _mm256_div_ps(a, full_weight));
      }
      Store8(q[0], q[1], q[2], src + 4 * (x + 8 * g), colour_bytes, dst + 4 * (x + 8 * g));
    }
    return;
  }
  __m256 ws[kGroups];
  for (int g = 0; g < kGroups; ++g) ws[g] = _mm256_setzero_ps();
  for (int32_t k = 0; k < t.count; ++k) {
    const __m256 w = _mm256_set1_ps(t.taps[k]);
    const float* p = t.colour[k] + off;
    for (int j = 0; j < kRegs; ++j) acc[j] = _mm256_add_ps(acc[j], _mm256_mul_ps(w, _mm256_loadu_ps(p + 8 * j)));
    const float* pw = t.weight[k] + x;
    for (int g = 0; g < kGroups; ++g) ws[g] = _mm256_add_ps(ws[g], _mm256_mul_ps(w, _mm256_loadu_ps(pw + 8 * g)));
  }
  // Unmasked pixels may divide by 0; their bytes are taken from src.
  for (int g = 0; g < kGroups; ++g) {
    __m256i q[3];
    DivideByPixel(acc + 3 * g, ws[g], q);
    const __m256i take = _mm256_and_si256(MaskLanes(mask + x + 8 * g), colour_bytes);
    Store8(q[0], q[1], q[2], src + 4 * (x + 8 * g), take, dst + 4 * (x + 8 * g));
  }
}

template <bool kUnitWeight>
void AccumulateRowAvx2T(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst, int32_t count) {
  int32_t x = 0;
  for (; x + 16 <= count; x += 16) AccumulateBlock<kUnitWeight, 2>(t, mask, src, dst, x);
  for (; x + 8 <= count; x += 8) AccumulateBlock<kUnitWeight, 1>(t, mask, src, dst, x);
  if (x < count) GaussianAccumulatePixelsPlain(t, mask, src, dst, x, count);
}

void AccumulateRowAvx2(const GaussianTapRows& t, const bool* mask, const uint8_t* src, uint8_t* dst, int32_t count) {
  if (t.full_weight == 1.0f) {
    AccumulateRowAvx2T<true>(t, mask, src, dst, count);
  } else {
    AccumulateRowAvx2T<false>(t, mask, src, dst, count);
  }
}

const GaussianRowKernels kAvx2Kernels = {ConvertRowAvx2, AccumulateRowAvx2};

}  // namespace

int32_t GaussianBlurH_AVX2(ThreadJob* job, int32_t* result) { return RunGaussianBlurH(job, result, kAvx2Kernels); }
int32_t GaussianBlurV_AVX2(ThreadJob* job, int32_t* result) { return RunGaussianBlurV(job, result, kAvx2Kernels); }
int32_t GaussianBlurHV_AVX2(ThreadJob* job, int32_t* result) { return RunGaussianBlurHV(job, result, kAvx2Kernels); }

}  // namespace Korvane
