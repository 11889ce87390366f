// AVX2 form of the variant sampler: eight pixels of a row at a time. Their
// positions step in 32-bit lanes (the row's whole walk is checked to fit),
// a group wholly inside the level reads its taps in neighbouring pairs and
// is black at once when they all are (most of a star), otherwise mixed as
// core/BilinearAvx2.h does; groups near the level's edge and the row's last
// pixels take the plain per-pixel path. The bytes are the plain form's.
#include <immintrin.h>

#include <cstdlib>

#include "core/BilinearAvx2.h"
#include "effects/sparkle/SparkleShapes.h"
#include "effects/sparkle/SparkleShapesDetail.h"

namespace Korvane {

using namespace sparkle_detail;

namespace {

// The positions su + k du of a row's first `count` pixels, and of the
// groups of eight they are read in, stay well inside 32 bits.
bool WalkFits(int64_t s, int64_t d, int32_t count) {
  const int64_t limit = int64_t{1} << 30;
  const int64_t last = s + (static_cast<int64_t>(count) + 8) * d;
  return std::llabs(s) < limit && std::llabs(last) < limit && std::llabs(d) < limit / 16;
}

}  // namespace

void SampleVariantRow_AVX2(const VariantJob& j, int32_t y) {
  const SmartBuffer& src = *j.level;
  const int32_t n = src.width;
  const Rect held = j.variant->Held();
  const int32_t count = held.right - held.left;
  RowWalk walk(j, y);
  walk.su += held.left * walk.du;
  walk.sv += held.left * walk.dv;
  if (!WalkFits(walk.su, walk.du, count) || !WalkFits(walk.sv, walk.dv, count) ||
      static_cast<int64_t>(src.stride) * src.height >= (int64_t{1} << 31)) {
    WalkVariantRow(j, y, MixTaps);
    return;
  }
  const uint8_t* base = RowPtr(src, 0);
  uint8_t* out = RowPtr(j.variant->shape, y - held.top);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i du = _mm256_set1_epi32(static_cast<int32_t>(walk.du)), dv = _mm256_set1_epi32(static_cast<int32_t>(walk.dv));
  __m256i u = _mm256_add_epi32(_mm256_set1_epi32(static_cast<int32_t>(walk.su)), _mm256_mullo_epi32(lanes, du));
  __m256i v = _mm256_add_epi32(_mm256_set1_epi32(static_cast<int32_t>(walk.sv)), _mm256_mullo_epi32(lanes, dv));
  const __m256i du8 = _mm256_slli_epi32(du, 3), dv8 = _mm256_slli_epi32(dv, 3);
  const __m256i last_tap = _mm256_set1_epi32(n - 1), byte = _mm256_set1_epi32(255);
  const __m256i stride = _mm256_set1_epi32(src.stride), zero = _mm256_setzero_si256();
  int32_t x = 0;
  for (; x + 8 <= count; x += 8, out += 32, u = _mm256_add_epi32(u, du8), v = _mm256_add_epi32(v, dv8)) {
    const __m256i x0 = _mm256_srai_epi32(u, 16), y0 = _mm256_srai_epi32(v, 16);
    const __m256i wx = _mm256_and_si256(_mm256_srli_epi32(u, 8), byte), wy = _mm256_and_si256(_mm256_srli_epi32(v, 8), byte);
    // Inside: 0 <= x0 and x0 + 1 < n, the same for y0.
    const __m256i off = _mm256_or_si256(_mm256_or_si256(_mm256_cmpgt_epi32(zero, x0), _mm256_cmpgt_epi32(zero, y0)),
                                        _mm256_or_si256(_mm256_cmpgt_epi32(x0, _mm256_sub_epi32(last_tap, _mm256_set1_epi32(1))),
                                                        _mm256_cmpgt_epi32(y0, _mm256_sub_epi32(last_tap, _mm256_set1_epi32(1)))));
    if (!_mm256_testz_si256(off, off)) {
      alignas(32) int32_t ix[8], iy[8], fx[8], fy[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(ix), x0);
      _mm256_store_si256(reinterpret_cast<__m256i*>(iy), y0);
      _mm256_store_si256(reinterpret_cast<__m256i*>(fx), wx);
      _mm256_store_si256(reinterpret_cast<__m256i*>(fy), wy);
      for (int k = 0; k < 8; ++k) {
        SamplePixel(src, ix[k], iy[k], static_cast<uint32_t>(fx[k]), static_cast<uint32_t>(fy[k]), out + 4 * k, MixTaps);
      }
      continue;
    }
    alignas(32) int32_t at[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(at),
                       _mm256_add_epi32(_mm256_mullo_epi32(y0, stride), _mm256_slli_epi32(x0, 2)));
    uint64_t upper[8], lower[8], any = 0;
    for (int k = 0; k < 8; ++k) {
      upper[k] = bilinear_avx2::Load8(base + at[k]);
      lower[k] = bilinear_avx2::Load8(base + at[k] + src.stride);
      any |= upper[k] | lower[k];
    }
    const __m256i mixed = any ? bilinear_avx2::MixPairs8<true>(upper, lower, wx, wy) : zero;
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), mixed);
  }
  if (x < count) WalkVariantRow(j, y, MixTaps, x);
}

}  // namespace Korvane
