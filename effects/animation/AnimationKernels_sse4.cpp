// SSE4.1 forms of the animator's kernels: four pixels at a time, with the
// same float operations in the same order as the plain forms.
#include <smmintrin.h>

#include "effects/animation/AnimationKernels.h"

namespace Korvane {

namespace {

// Per-pixel 16-bit weights [w(p) x4, w(q) x4] for pixels p, q of a group of
// four, from four 32-bit weights.
inline void SpreadWeights(__m128i w, __m128i& w01, __m128i& w23) {
  const __m128i w16 = _mm_packs_epi32(w, w);      // w0 w1 w2 w3 w0 w1 w2 w3
  const __m128i pairs = _mm_unpacklo_epi16(w16, w16);  // w0 w0 w1 w1 w2 w2 w3 w3
  w01 = _mm_unpacklo_epi32(pairs, pairs);
  w23 = _mm_unpackhi_epi32(pairs, pairs);
}

inline __m128i Gather(const unsigned char* const* p) {
  uint32_t v[4];
  for (int i = 0; i < 4; ++i) std::memcpy(&v[i], p[i], 4);
  return _mm_setr_epi32(static_cast<int>(v[0]), static_cast<int>(v[1]), static_cast<int>(v[2]),
                        static_cast<int>(v[3]));
}

}  // namespace

void WarpSpan_SSE4(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin,
                   int32_t x_end, unsigned char* dst_row) {
  const float fy = static_cast<float>(y);
  const float cx = m[1] * fy + m[2], cy = m[4] * fy + m[5];
  const float fw = static_cast<float>(src.width - 1), fh = static_cast<float>(src.height - 1);
  const __m128 m0 = _mm_set1_ps(m[0]), m3 = _mm_set1_ps(m[3]);
  const __m128 vcx = _mm_set1_ps(cx), vcy = _mm_set1_ps(cy);
  const __m128 lim_x = _mm_set1_ps(fw), lim_y = _mm_set1_ps(fh);
  const __m128 twice_x = _mm_set1_ps(fw + fw), twice_y = _mm_set1_ps(fh + fh);
  const __m128 abs_mask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
  const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
  const __m128 c256 = _mm_set1_ps(256.0f), half = _mm_set1_ps(0.5f);
  const __m128i i256 = _mm_set1_epi32(256), ione = _mm_set1_epi32(1), izero = _mm_setzero_si128();
  const __m128i max_x = _mm_set1_epi32(src.width - 1), max_y = _mm_set1_epi32(src.height - 1);
  const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128 step = _mm_set1_ps(4.0f);

  int32_t x = x_begin;
  __m128 xs = _mm_setr_ps(static_cast<float>(x), static_cast<float>(x + 1), static_cast<float>(x + 2),
                          static_cast<float>(x + 3));
  for (; x + 4 <= x_end; x += 4, xs = _mm_add_ps(xs, step)) {
    __m128 sx = _mm_add_ps(_mm_mul_ps(m0, xs), vcx);
    __m128 sy = _mm_add_ps(_mm_mul_ps(m3, xs), vcy);
    sx = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(twice_x, sx), _mm_and_ps(sx, abs_mask)), zero), lim_x);
    sy = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(twice_y, sy), _mm_and_ps(sy, abs_mask)), zero), lim_y);
    const __m128i ix = _mm_cvttps_epi32(sx), iy = _mm_cvttps_epi32(sy);
    const __m128 fx = _mm_sub_ps(sx, _mm_cvtepi32_ps(ix)), fy4 = _mm_sub_ps(sy, _mm_cvtepi32_ps(iy));
    const __m128 gx = _mm_sub_ps(one, fx), gy = _mm_sub_ps(one, fy4);
    const __m128i w10 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gy, fx), c256), half));
    const __m128i w01 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gx, fy4), c256), half));
    const __m128i w00 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gy, gx), c256), half));
    const __m128i w11 =
        _mm_max_epi32(_mm_sub_epi32(i256, _mm_add_epi32(_mm_add_epi32(w00, w10), w01)), izero);
    const __m128i ix1 = _mm_min_epi32(_mm_add_epi32(ix, ione), max_x);
    const __m128i iy1 = _mm_min_epi32(_mm_add_epi32(iy, ione), max_y);

    alignas(16) int32_t cx0[4], cx1[4], ry0[4], ry1[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(cx0), ix);
    _mm_store_si128(reinterpret_cast<__m128i*>(cx1), ix1);
    _mm_store_si128(reinterpret_cast<__m128i*>(ry0), iy);
    _mm_store_si128(reinterpret_cast<__m128i*>(ry1), iy1);
    const unsigned char *p00[4], *p10[4], *p01[4], *p11[4];
    for (int i = 0; i < 4; ++i) {
      const unsigned char* r0 = src.data + static_cast<size_t>(ry0[i]) * src.stride;
      const unsigned char* r1 = src.data + static_cast<size_t>(ry1[i]) * src.stride;
      p00[i] = r0 + static_cast<size_t>(cx0[i]) * 4;
      p10[i] = r0 + static_cast<size_t>(cx1[i]) * 4;
      p01[i] = r1 + static_cast<size_t>(cx0[i]) * 4;
      p11[i] = r1 + static_cast<size_t>(cx1[i]) * 4;
    }
    __m128i lo = _mm_setzero_si128(), hi = _mm_setzero_si128();
    auto accumulate = [&](const unsigned char* const* p, __m128i w) {
      const __m128i px = Gather(p);
      __m128i wa, wb;
      SpreadWeights(w, wa, wb);
      lo = _mm_add_epi16(lo, _mm_mullo_epi16(_mm_unpacklo_epi8(px, izero), wa));
      hi = _mm_add_epi16(hi, _mm_mullo_epi16(_mm_unpackhi_epi8(px, izero), wb));
    };
    accumulate(p00, w00);
    accumulate(p10, w10);
    accumulate(p01, w01);
    accumulate(p11, w11);
    const __m128i out = _mm_or_si128(_mm_packus_epi16(_mm_srli_epi16(lo, 8), _mm_srli_epi16(hi, 8)), alpha);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst_row + static_cast<size_t>(x) * 4), out);
  }
  for (; x < x_end; ++x) {
    const float fx = static_cast<float>(x);
    animation_detail::WarpPixel(src, m[0] * fx + cx, m[3] * fx + cy, dst_row + static_cast<size_t>(x) * 4);
  }
}

void BlendRow_SSE4(unsigned char* next, const unsigned char* pre, int32_t count, int32_t alpha) {
  const __m128i wn = _mm_set1_epi16(static_cast<int16_t>(256 - alpha));
  const __m128i wp = _mm_set1_epi16(static_cast<int16_t>(alpha));
  const __m128i zero = _mm_setzero_si128();
  const __m128i opaque = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  int32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m128i n = _mm_loadu_si128(reinterpret_cast<const __m128i*>(next + 4 * i));
    const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pre + 4 * i));
    const __m128i lo = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(_mm_unpacklo_epi8(n, zero), wn),
                                                    _mm_mullo_epi16(_mm_unpacklo_epi8(p, zero), wp)), 8);
    const __m128i hi = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(_mm_unpackhi_epi8(n, zero), wn),
                                                    _mm_mullo_epi16(_mm_unpackhi_epi8(p, zero), wp)), 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(next + 4 * i), _mm_or_si128(_mm_packus_epi16(lo, hi), opaque));
  }
  for (; i < count; ++i) animation_detail::BlendPixel(next + 4 * i, pre + 4 * i, alpha);
}

}  // namespace Korvane
