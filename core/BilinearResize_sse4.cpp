// SSE4.1 forms of the byte resize. Each source row a destination row needs
// is first interpolated horizontally into a 16-bit row (kept while
// consecutive destination rows share it), then two such rows are mixed
// vertically. Both steps are a + ((b - a) * f) >> 8 on 16-bit lanes:
// _mm_mulhi_epi16((b - a) * 2, f * 128) yields exactly the floor of
// (b - a) * f / 256, the arithmetic shift of the plain form.
#include <smmintrin.h>

#include <cstring>
#include <new>
#include <vector>

#include "core/BilinearResize.h"
#include "core/BilinearResizePlan.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"

namespace Korvane {

namespace {

using resize_detail::kQuadGather;
using resize_detail::kQuadMidpoints;
using resize_detail::ResizePlan;

inline __m128i Load64(const unsigned char* p) {
  return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
}

inline __m128i Lerp16(__m128i a, __m128i b, __m128i f128) {
  return _mm_add_epi16(a, _mm_mulhi_epi16(_mm_slli_epi16(_mm_sub_epi16(b, a), 1), f128));
}

// Horizontal pass of one BGRA source row into `out` (four 16-bit values a
// pixel). `fx128` holds each column's fraction x 128 four times.
void HorizontalRow8uc4(const ResizePlan& plan, const unsigned char* row, const int16_t* fx128,
                       int16_t* out) {
  const int32_t paired = plan.x_paired - plan.x_begin;
  int32_t i = 0;
  for (; i + 2 <= paired; i += 2) {
    // Left and right neighbours of two columns: [l0 r0] and [l1 r1].
    const __m128i v = _mm_unpacklo_epi32(Load64(row + plan.x0[i]), Load64(row + plan.x0[i + 1]));
    const __m128i l = _mm_cvtepu8_epi16(v);
    const __m128i r = _mm_cvtepu8_epi16(_mm_srli_si128(v, 8));
    const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + 4 * i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * i), Lerp16(l, r, f));
  }
  resize_detail::HorizontalSpan(plan, row, 4, i, out);
}

// The neighbour pairs (left byte low, right byte high) of eight gray
// columns whose pairs are consecutive bytes at row + x0[0..7].
inline __m128i GatherPairs8(const unsigned char* row, const int32_t* x0) {
  auto at = [row](int32_t offset) {
    uint16_t v;
    std::memcpy(&v, row + offset, 2);
    return static_cast<int>(v);
  };
  __m128i v = _mm_cvtsi32_si128(at(x0[0]));
  v = _mm_insert_epi16(v, at(x0[1]), 1);
  v = _mm_insert_epi16(v, at(x0[2]), 2);
  v = _mm_insert_epi16(v, at(x0[3]), 3);
  v = _mm_insert_epi16(v, at(x0[4]), 4);
  v = _mm_insert_epi16(v, at(x0[5]), 5);
  v = _mm_insert_epi16(v, at(x0[6]), 6);
  return _mm_insert_epi16(v, at(x0[7]), 7);
}

// Horizontal pass of one gray source row, eight columns at a time.
void HorizontalRow8uc1(const ResizePlan& plan, const unsigned char* row, const int16_t* fx128,
                       int16_t* out) {
  const int32_t paired = plan.x_paired - plan.x_begin;
  const int32_t* x0 = plan.x0.data();
  int32_t i = 0;
  const __m128i low_bytes = _mm_set1_epi16(0x00FF);
  for (; i + 8 <= paired; i += 8) {
    const __m128i v = GatherPairs8(row, x0 + i);
    const __m128i l = _mm_and_si128(v, low_bytes);
    const __m128i r = _mm_srli_epi16(v, 8);
    const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), Lerp16(l, r, f));
  }
  resize_detail::HorizontalSpan(plan, row, 1, i, out);
}

// Both rows and the vertical mix in one sweep, for reductions, where
// consecutive destination rows seldom share a source row: no 16-bit rows are
// stored and the two source rows stream in together.
// floor((a + b) / 2) per byte, which is the bilinear step at fraction 128.
inline __m128i HalfSum(__m128i a, __m128i b) {
  return _mm_sub_epi8(_mm_avg_epu8(a, b), _mm_and_si128(_mm_xor_si128(a, b), _mm_set1_epi8(1)));
}

void FusedRow8uc4(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1,
                  const unsigned char* next0, const unsigned char* next1, const int16_t* fx128,
                  const uint8_t* quads, int32_t fy, unsigned char* out) {
  const int32_t paired = plan.x_paired - plan.x_begin;
  const int32_t* x0 = plan.x0.data();
  const __m128i fyv = _mm_set1_epi16(static_cast<int16_t>(fy * 128));
  auto two = [&](int32_t i) {
    const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + 4 * i));
    const __m128i v0 = _mm_unpacklo_epi32(Load64(r0 + x0[i]), Load64(r0 + x0[i + 1]));
    const __m128i v1 = _mm_unpacklo_epi32(Load64(r1 + x0[i]), Load64(r1 + x0[i + 1]));
    const __m128i top = Lerp16(_mm_cvtepu8_epi16(v0), _mm_cvtepu8_epi16(_mm_srli_si128(v0, 8)), f);
    const __m128i bottom = Lerp16(_mm_cvtepu8_epi16(v1), _mm_cvtepu8_epi16(_mm_srli_si128(v1, 8)), f);
    return Lerp16(top, bottom, fyv);
  };
  // Four columns whose neighbour pairs are consecutive source pixels (a
  // halving): two 16-byte loads per row, split into left and right pixels.
  auto halved = [&](int32_t i) {
    const __m128i f0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + 4 * i));
    const __m128i f1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + 4 * i + 8));
    auto row = [&](const unsigned char* src, __m128i* lo, __m128i* hi) {
      const __m128 a = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x0[i])));
      const __m128 b = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x0[i] + 16)));
      const __m128i l = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
      const __m128i r = _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
      const __m128i z = _mm_setzero_si128();
      *lo = Lerp16(_mm_unpacklo_epi8(l, z), _mm_unpacklo_epi8(r, z), f0);
      *hi = Lerp16(_mm_unpackhi_epi8(l, z), _mm_unpackhi_epi8(r, z), f1);
    };
    __m128i t0, t1, b0, b1;
    row(r0, &t0, &t1);
    row(r1, &b0, &b1);
    return _mm_packus_epi16(Lerp16(t0, b0, fyv), Lerp16(t1, b1, fyv));
  };
  int32_t i = 0;
  for (; i + 4 <= paired; i += 4) {
    // The next destination row's source rows are fetched during this one,
    // into L2 only: fetched into L1 they evicted the lines being read
    // (about a fifth slower on a 12 MP halving).
    _mm_prefetch(reinterpret_cast<const char*>(next0 + x0[i]), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(next1 + x0[i]), _MM_HINT_T1);
    const uint8_t kind = quads[i / 4];
    __m128i v;
    if (kind == kQuadMidpoints && fy == 128) {
      auto mids = [&](const unsigned char* src) {
        const __m128 a = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x0[i])));
        const __m128 b = _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x0[i] + 16)));
        return HalfSum(_mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))),
                       _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
      };
      v = HalfSum(mids(r0), mids(r1));
    } else if (kind != kQuadGather) {
      v = halved(i);
    } else {
      v = _mm_packus_epi16(two(i), two(i + 2));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * i), v);
  }
  resize_detail::FusedSpan(plan, r0, r1, fy, 4, i, out);
}

void FusedRow8uc1(const ResizePlan& plan, const unsigned char* r0, const unsigned char* r1, const unsigned char* next0,
                  const unsigned char* next1, const int16_t* fx128, const uint8_t* /* quads: BGRA only */, int32_t fy,
                  unsigned char* out) {
  const int32_t paired = plan.x_paired - plan.x_begin;
  const int32_t* x0 = plan.x0.data();
  const __m128i fyv = _mm_set1_epi16(static_cast<int16_t>(fy * 128));
  const __m128i low_bytes = _mm_set1_epi16(0x00FF);
  auto eight = [&](int32_t i) {
    const __m128i f = _mm_loadu_si128(reinterpret_cast<const __m128i*>(fx128 + i));
    const __m128i v0 = GatherPairs8(r0, x0 + i), v1 = GatherPairs8(r1, x0 + i);
    const __m128i top = Lerp16(_mm_and_si128(v0, low_bytes), _mm_srli_epi16(v0, 8), f);
    const __m128i bottom = Lerp16(_mm_and_si128(v1, low_bytes), _mm_srli_epi16(v1, 8), f);
    return Lerp16(top, bottom, fyv);
  };
  int32_t i = 0;
  for (; i + 16 <= paired; i += 16) {
    _mm_prefetch(reinterpret_cast<const char*>(next0 + x0[i]), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(next1 + x0[i]), _MM_HINT_T1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(eight(i), eight(i + 8)));
  }
  resize_detail::FusedSpan(plan, r0, r1, fy, 1, i, out);
}

// Vertical mix of two horizontal rows into `count` output bytes.
void VerticalRow(const int16_t* top, const int16_t* bottom, int32_t fy, int32_t count,
                 unsigned char* out) {
  const __m128i f = _mm_set1_epi16(static_cast<int16_t>(fy * 128));
  int32_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i t0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(top + i));
    const __m128i t1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(top + i + 8));
    const __m128i b0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom + i));
    const __m128i b1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom + i + 8));
    const __m128i v = _mm_packus_epi16(Lerp16(t0, b0, f), Lerp16(t1, b1, f));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), v);
  }
  resize_detail::VerticalSpan(top, bottom, fy, i, count, out);
}

const resize_detail::ResizeRowKernels kSse4Rows4 = {HorizontalRow8uc4, VerticalRow, FusedRow8uc4};
const resize_detail::ResizeRowKernels kSse4Rows1 = {HorizontalRow8uc1, VerticalRow, FusedRow8uc1};

}  // namespace

int32_t BilinearResize_8uc4_SSE4(ThreadJob* job, int32_t* result) {
  return resize_detail::RunSimdResize(job, result, 4, kSse4Rows4);
}

int32_t BilinearResize_8uc1_SSE4(ThreadJob* job, int32_t* result) {
  return resize_detail::RunSimdResize(job, result, 1, kSse4Rows1);
}

}  // namespace Korvane
