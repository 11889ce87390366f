// AVX2 form of the one-sided ray smear: two rows at once, each row's four
// channel sums in one half of a register, over the columns both rows hold;
// the SSE4.1 walk does the columns only one of them holds. The running sums
// and the float scale are the plain form's, so the bytes are the same.
#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysSmear.h"

namespace Korvane {

namespace {

using light_rays_detail::SmearSpanSse;
using light_rays_detail::SmearSums;

// Below this many shared columns a pair is smeared row by row.
constexpr int32_t kMinShared = 16;

inline int32_t Load32(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// One row of a pair: its pixels from column lo on, and where its window
// starts to lose columns.
struct PairRow {
  const uint8_t* in;
  uint8_t* out;
  int32_t lo, hi, full;
  float k;
  SmearSums sums;
};

// Columns [c0, c1) of both rows, where row 0 (row 1) loses its column
// c - len exactly when kGone0 (kGone1) is true.
template <bool kGone0, bool kGone1>
void SmearPair(PairRow& a, PairRow& b, int32_t c0, int32_t c1, int32_t len, __m256i& t, __m256i& s, __m256 k) {
  const __m256i weight = _mm256_set1_epi32(len), most = _mm256_set1_epi32(255);
  const __m256 half = _mm256_set1_ps(0.5f);
  for (int32_t c = c0; c < c1; ++c) {
    const int32_t ia = 4 * (c - a.lo), ib = 4 * (c - b.lo);
    const __m256i now = _mm256_cvtepu8_epi32(_mm_insert_epi32(_mm_cvtsi32_si128(Load32(a.in + ia)), Load32(b.in + ib), 1));
    const int32_t ga = kGone0 ? Load32(a.in + ia - 4 * len) : 0, gb = kGone1 ? Load32(b.in + ib - 4 * len) : 0;
    const __m256i gone = _mm256_cvtepu8_epi32(_mm_insert_epi32(_mm_cvtsi32_si128(ga), gb, 1));
    t = _mm256_add_epi32(_mm256_sub_epi32(t, s), _mm256_mullo_epi32(now, weight));
    s = _mm256_sub_epi32(_mm256_add_epi32(s, now), gone);
    __m256i v = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(t), k), half));
    v = _mm256_min_epi32(v, most);
    const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(v, v), v);
    const uint32_t pa = static_cast<uint32_t>(_mm256_extract_epi32(bytes, 0)) | 0xFF000000u;
    const uint32_t pb = static_cast<uint32_t>(_mm256_extract_epi32(bytes, 4)) | 0xFF000000u;
    std::memcpy(a.out + ia, &pa, 4);
    std::memcpy(b.out + ib, &pb, 4);
  }
}

// Two rows: each alone up to the first column both hold, both together up
// to the last such column (in stretches where each row's loss of a column
// is fixed), then each alone to its end.
void SmearTwoRows(PairRow& a, PairRow& b, int32_t len) {
  const int32_t c0 = std::max(a.lo, b.lo), c1 = std::min(a.hi, b.hi);
  if (c1 - c0 < kMinShared) {
    SmearSpanSse(a.in, a.out, a.lo, a.lo, a.hi, len, a.k, a.sums);
    SmearSpanSse(b.in, b.out, b.lo, b.lo, b.hi, len, b.k, b.sums);
    return;
  }
  SmearSpanSse(a.in, a.out, a.lo, a.lo, c0, len, a.k, a.sums);
  SmearSpanSse(b.in, b.out, b.lo, b.lo, c0, len, b.k, b.sums);
  __m256i t = _mm256_setr_m128i(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a.sums.t)),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(b.sums.t)));
  __m256i s = _mm256_setr_m128i(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a.sums.s)),
                                _mm_loadu_si128(reinterpret_cast<const __m128i*>(b.sums.s)));
  const __m256 k = _mm256_setr_m128(_mm_set1_ps(a.k), _mm_set1_ps(b.k));
  // Stretch boundaries: where either row's window starts to lose columns.
  const int32_t first = std::min(std::max(std::min(a.full, b.full), c0), c1);
  const int32_t second = std::min(std::max(std::max(a.full, b.full), c0), c1);
  SmearPair<false, false>(a, b, c0, first, len, t, s, k);
  if (a.full <= b.full) {
    SmearPair<true, false>(a, b, first, second, len, t, s, k);
  } else {
    SmearPair<false, true>(a, b, first, second, len, t, s, k);
  }
  SmearPair<true, true>(a, b, second, c1, len, t, s, k);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(a.sums.t), _mm256_castsi256_si128(t));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(b.sums.t), _mm256_extracti128_si256(t, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(a.sums.s), _mm256_castsi256_si128(s));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(b.sums.s), _mm256_extracti128_si256(s, 1));
  SmearSpanSse(a.in, a.out, a.lo, c1, a.hi, len, a.k, a.sums);
  SmearSpanSse(b.in, b.out, b.lo, c1, b.hi, len, b.k, b.sums);
}

}  // namespace

int32_t SmearRows_AVX2(const SmearRowsParam& p, const Rect& band) {
  const int32_t hr = light_rays_detail::CheckSmear(p);
  if (hr < 0) return hr;
  const int32_t len = p.length;
  const auto row = [&](int32_t j) {
    const RayLine& l = p.dst->lines[j];
    return PairRow{reinterpret_cast<const uint8_t*>(p.src->Row(j)), reinterpret_cast<uint8_t*>(p.dst->Row(j)), l.lo,
                   l.hi, l.lo + len, light_rays_detail::SmearScale(p.row_gain[j], len), SmearSums()};
  };
  int32_t j = std::max(band.top, 0);
  for (; j + 2 <= band.bottom; j += 2) {
    PairRow a = row(j), b = row(j + 1);
    SmearTwoRows(a, b, len);
  }
  if (j < band.bottom) {
    PairRow a = row(j);
    SmearSpanSse(a.in, a.out, a.lo, a.lo, a.hi, len, a.k, a.sums);
  }
  return S_OK;
}

}  // namespace Korvane
