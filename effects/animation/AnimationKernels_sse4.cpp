// SSE4.1 forms of the animator's kernels: four pixels at a time, with the
// same float operations in the same order as the plain forms.
#include <smmintrin.h>

#include "effects/animation/AnimationKernels.h"

namespace Korvane {

namespace {

// Two adjacent BGRA pixels from each of two addresses: [a0, b0, a1, b1].
inline __m128i LoadPairs(const unsigned char* p0, const unsigned char* p1) {
  const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p0));
  return _mm_castpd_si128(_mm_loadh_pd(_mm_castsi128_pd(lo), reinterpret_cast<const double*>(p1)));
}

// Bilinear samples of four consecutive pixels of one row through one affine
// map. Needs a source at least 2 pixels wide whose byte offsets fit in 32 bits.
class Sampler4 {
 public:
  Sampler4(const WarpSource& src, const float m[6], float cx, float cy)
      : m_m0(_mm_set1_ps(m[0])), m_m3(_mm_set1_ps(m[3])), m_cx(_mm_set1_ps(cx)), m_cy(_mm_set1_ps(cy)),
        m_lim_x(_mm_set1_ps(static_cast<float>(src.width - 1))),
        m_lim_y(_mm_set1_ps(static_cast<float>(src.height - 1))),
        m_twice_x(_mm_set1_ps(static_cast<float>(src.width - 1) + static_cast<float>(src.width - 1))),
        m_twice_y(_mm_set1_ps(static_cast<float>(src.height - 1) + static_cast<float>(src.height - 1))),
        m_last_x(_mm_set1_epi32(src.width - 1)), m_before_last_x(_mm_set1_epi32(src.width - 2)),
        m_last_y(_mm_set1_epi32(src.height - 1)), m_stride(_mm_set1_epi32(static_cast<int32_t>(src.stride))),
        m_data(src.data) {}

  // The four pixels at columns xs (B, G, R; the alpha byte is left undefined).
  // kInside: every position lies strictly inside the image, so mirroring,
  // clamping and the last-column fix-up would change nothing and are skipped.
  template <bool kInside>
  __m128i Sample(__m128 xs) const {
    const __m128 abs_mask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const __m128 c256 = _mm_set1_ps(256.0f), half = _mm_set1_ps(0.5f);
    const __m128i i256 = _mm_set1_epi32(256), izero = _mm_setzero_si128();
    // Interleaves the channels of a pixel pair: B a, B b, G a, G b, ...
    const __m128i interleave = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);

    __m128 sx = _mm_add_ps(_mm_mul_ps(m_m0, xs), m_cx);
    __m128 sy = _mm_add_ps(_mm_mul_ps(m_m3, xs), m_cy);
    if (!kInside) {
      sx = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(m_twice_x, sx), _mm_and_ps(sx, abs_mask)), zero), m_lim_x);
      sy = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(m_twice_y, sy), _mm_and_ps(sy, abs_mask)), zero), m_lim_y);
    }
    const __m128i ix = _mm_cvttps_epi32(sx), iy = _mm_cvttps_epi32(sy);
    const __m128 fx = _mm_sub_ps(sx, _mm_cvtepi32_ps(ix)), fy = _mm_sub_ps(sy, _mm_cvtepi32_ps(iy));
    const __m128 gx = _mm_sub_ps(one, fx), gy = _mm_sub_ps(one, fy);
    const __m128i w10 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gy, fx), c256), half));
    const __m128i w01 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gx, fy), c256), half));
    const __m128i w00 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(_mm_mul_ps(gy, gx), c256), half));
    const __m128i w11 = _mm_max_epi32(_mm_sub_epi32(i256, _mm_add_epi32(_mm_add_epi32(w00, w10), w01)), izero);
    // Weight pairs for madd: (w00, w10) on the upper row, (w01, w11) on the lower.
    const __m128i w_top = _mm_or_si128(w00, _mm_slli_epi32(w10, 16));
    const __m128i w_bottom = _mm_or_si128(w01, _mm_slli_epi32(w11, 16));

    __m128i top, bottom, at_edge = izero;
    if (kInside) {
      top = _mm_add_epi32(_mm_mullo_epi32(iy, m_stride), _mm_slli_epi32(ix, 2));
      bottom = _mm_add_epi32(top, m_stride);
    } else {
      // Pairs start one pixel early in the last column, whose right
      // neighbour is itself: the pair is then fixed up to (last, last).
      at_edge = _mm_cmpeq_epi32(ix, m_last_x);
      const __m128i start_x = _mm_min_epi32(ix, m_before_last_x);
      const __m128i down = _mm_and_si128(_mm_cmplt_epi32(iy, m_last_y), m_stride);
      top = _mm_add_epi32(_mm_mullo_epi32(iy, m_stride), _mm_slli_epi32(start_x, 2));
      bottom = _mm_add_epi32(top, down);
    }
    alignas(16) uint32_t ot[4], ob[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(ot), top);
    _mm_store_si128(reinterpret_cast<__m128i*>(ob), bottom);
    const unsigned char* d = m_data;
    __m128i t01 = LoadPairs(d + ot[0], d + ot[1]), t23 = LoadPairs(d + ot[2], d + ot[3]);
    __m128i b01 = LoadPairs(d + ob[0], d + ob[1]), b23 = LoadPairs(d + ob[2], d + ob[3]);
    if (!kInside) {
      const __m128i edge01 = _mm_unpacklo_epi32(at_edge, at_edge), edge23 = _mm_unpackhi_epi32(at_edge, at_edge);
      const int kRight = _MM_SHUFFLE(3, 3, 1, 1);
      t01 = _mm_blendv_epi8(t01, _mm_shuffle_epi32(t01, kRight), edge01);
      t23 = _mm_blendv_epi8(t23, _mm_shuffle_epi32(t23, kRight), edge23);
      b01 = _mm_blendv_epi8(b01, _mm_shuffle_epi32(b01, kRight), edge01);
      b23 = _mm_blendv_epi8(b23, _mm_shuffle_epi32(b23, kRight), edge23);
    }
    t01 = _mm_shuffle_epi8(t01, interleave);
    t23 = _mm_shuffle_epi8(t23, interleave);
    b01 = _mm_shuffle_epi8(b01, interleave);
    b23 = _mm_shuffle_epi8(b23, interleave);
    const __m128i s0 = _mm_add_epi32(_mm_madd_epi16(_mm_cvtepu8_epi16(t01), _mm_shuffle_epi32(w_top, 0x00)),
                                     _mm_madd_epi16(_mm_cvtepu8_epi16(b01), _mm_shuffle_epi32(w_bottom, 0x00)));
    const __m128i s1 = _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi8(t01, izero), _mm_shuffle_epi32(w_top, 0x55)),
                                     _mm_madd_epi16(_mm_unpackhi_epi8(b01, izero), _mm_shuffle_epi32(w_bottom, 0x55)));
    const __m128i s2 = _mm_add_epi32(_mm_madd_epi16(_mm_cvtepu8_epi16(t23), _mm_shuffle_epi32(w_top, 0xAA)),
                                     _mm_madd_epi16(_mm_cvtepu8_epi16(b23), _mm_shuffle_epi32(w_bottom, 0xAA)));
    const __m128i s3 = _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi8(t23, izero), _mm_shuffle_epi32(w_top, 0xFF)),
                                     _mm_madd_epi16(_mm_unpackhi_epi8(b23, izero), _mm_shuffle_epi32(w_bottom, 0xFF)));
    const __m128i s01 = _mm_packs_epi32(_mm_srli_epi32(s0, 8), _mm_srli_epi32(s1, 8));
    const __m128i s23 = _mm_packs_epi32(_mm_srli_epi32(s2, 8), _mm_srli_epi32(s3, 8));
    return _mm_packus_epi16(s01, s23);
  }

 private:
  __m128 m_m0, m_m3, m_cx, m_cy, m_lim_x, m_lim_y, m_twice_x, m_twice_y;
  __m128i m_last_x, m_before_last_x, m_last_y, m_stride;
  const unsigned char* m_data;
};

inline __m128 Columns(int32_t x) {
  return _mm_setr_ps(static_cast<float>(x), static_cast<float>(x + 1), static_cast<float>(x + 2),
                     static_cast<float>(x + 3));
}

bool VectorFits(const WarpSource& src) {
  return src.width >= 2 && static_cast<uint64_t>(src.height) * src.stride < 0x7FFFFFFFu;
}

// Both return the first column left for the one-pixel tail; dst receives
// column x.
template <bool kInside>
int32_t WarpSpan4(const Sampler4& s, int32_t x, int32_t x_end, unsigned char* dst) {
  const __m128i opaque = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  for (__m128 xs = Columns(x); x + 4 <= x_end; x += 4, dst += 16, xs = _mm_add_ps(xs, _mm_set1_ps(4.0f))) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_or_si128(s.Sample<kInside>(xs), opaque));
  }
  return x;
}

template <bool kPastInside, bool kFutureInside>
int32_t WarpBlendSpan4(const Sampler4& past, const Sampler4& future, int32_t alpha, int32_t x, int32_t x_end,
                       unsigned char* dst) {
  const __m128i opaque = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128i wn = _mm_set1_epi16(static_cast<int16_t>(256 - alpha));
  const __m128i wp = _mm_set1_epi16(static_cast<int16_t>(alpha));
  const __m128i zero = _mm_setzero_si128();
  for (__m128 xs = Columns(x); x + 4 <= x_end; x += 4, dst += 16, xs = _mm_add_ps(xs, _mm_set1_ps(4.0f))) {
    const __m128i p = past.Sample<kPastInside>(xs);
    const __m128i n = future.Sample<kFutureInside>(xs);
    const __m128i lo = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(_mm_cvtepu8_epi16(n), wn),
                                                    _mm_mullo_epi16(_mm_cvtepu8_epi16(p), wp)), 8);
    const __m128i hi = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(_mm_unpackhi_epi8(n, zero), wn),
                                                    _mm_mullo_epi16(_mm_unpackhi_epi8(p, zero), wp)), 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_or_si128(_mm_packus_epi16(lo, hi), opaque));
  }
  return x;
}

}  // namespace

void WarpSpan_SSE4(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
                   unsigned char* dst) {
  const float fy = static_cast<float>(y);
  const float cx = m[1] * fy + m[2], cy = m[4] * fy + m[5];
  int32_t x = x_begin;
  if (x_end - x_begin >= 4 && VectorFits(src)) {
    const Sampler4 s(src, m, cx, cy);
    x = animation_detail::SpanInside(src, m, cx, cy, x_begin, x_end) ? WarpSpan4<true>(s, x, x_end, dst)
                                                                      : WarpSpan4<false>(s, x, x_end, dst);
  }
  animation_detail::WarpPixels(src, m, cx, cy, x, x_end, dst + static_cast<size_t>(x - x_begin) * 4);
}

void WarpBlendSpan_SSE4(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                        int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst) {
  const float fy = static_cast<float>(y);
  const float px = m_past[1] * fy + m_past[2], py = m_past[4] * fy + m_past[5];
  const float nx = m_future[1] * fy + m_future[2], ny = m_future[4] * fy + m_future[5];
  int32_t x = x_begin;
  if (x_end - x_begin >= 4 && VectorFits(src)) {
    const Sampler4 past(src, m_past, px, py), future(src, m_future, nx, ny);
    const bool past_in = animation_detail::SpanInside(src, m_past, px, py, x_begin, x_end);
    const bool future_in = animation_detail::SpanInside(src, m_future, nx, ny, x_begin, x_end);
    if (past_in && future_in) {
      x = WarpBlendSpan4<true, true>(past, future, alpha, x, x_end, dst);
    } else if (past_in) {
      x = WarpBlendSpan4<true, false>(past, future, alpha, x, x_end, dst);
    } else if (future_in) {
      x = WarpBlendSpan4<false, true>(past, future, alpha, x, x_end, dst);
    } else {
      x = WarpBlendSpan4<false, false>(past, future, alpha, x, x_end, dst);
    }
  }
  animation_detail::WarpBlendPixels(src, m_past, px, py, m_future, nx, ny, alpha, x, x_end,
                                    dst + static_cast<size_t>(x - x_begin) * 4);
}

}  // namespace Korvane
