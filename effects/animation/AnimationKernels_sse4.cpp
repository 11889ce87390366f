// SSE4.1 forms of the animator's kernels: four pixels at a time, with the
// same float operations in the same order as the plain forms.
#include <smmintrin.h>

#include "effects/animation/AnimationKernels.h"

namespace Korvane {

namespace {

// The 8 bytes at p (two adjacent BGRA pixels a, b) as the 16-bit words
// a.B, b.B, a.G, b.G, a.R, b.R, a.A, b.A, ready for one multiply-add with a
// (weight of a, weight of b) pair.
inline __m128i LoadPair(const unsigned char* p) {
  const __m128i interleave = _mm_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1);
  return _mm_shuffle_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), interleave);
}

// B, G, R, A sums of one pixel: its upper pair times the weight pair in lane
// `kLane` of w_top, plus its lower pair times that of w_bottom.
template <int kLane>
inline __m128i PixelSum(const unsigned char* top, const unsigned char* bottom, __m128i w_top, __m128i w_bottom) {
  constexpr int kBroadcast = kLane * 0x55;
  return _mm_add_epi32(_mm_madd_epi16(LoadPair(top), _mm_shuffle_epi32(w_top, kBroadcast)),
                       _mm_madd_epi16(LoadPair(bottom), _mm_shuffle_epi32(w_bottom, kBroadcast)));
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
        m_data(src.data), m_data_down(src.data + src.stride) {}

  // The four pixels at columns xs as 16-bit B, G, R, A words: pixels 0 and 1
  // in px01, 2 and 3 in px23 (the alpha words are left undefined).
  // kInside: every position lies strictly inside the image, so mirroring,
  // clamping and the last-row and last-column cases are skipped.
  template <bool kInside>
  void Sample(__m128 xs, __m128i& px01, __m128i& px23) const {
    const __m128 abs_mask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const __m128 c256 = _mm_set1_ps(256.0f), half = _mm_set1_ps(0.5f);
    const __m128i i256 = _mm_set1_epi32(256), izero = _mm_setzero_si128();

    __m128 sx = _mm_add_ps(_mm_mul_ps(m_m0, xs), m_cx);
    __m128 sy = _mm_add_ps(_mm_mul_ps(m_m3, xs), m_cy);
    if (!kInside) {
      sx = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(m_twice_x, sx), _mm_and_ps(sx, abs_mask)), zero), m_lim_x);
      sy = _mm_min_ps(_mm_max_ps(_mm_min_ps(_mm_sub_ps(m_twice_y, sy), _mm_and_ps(sy, abs_mask)), zero), m_lim_y);
    }
    const __m128i ix = _mm_cvttps_epi32(sx), iy = _mm_cvttps_epi32(sy);
    const __m128 fx = _mm_sub_ps(sx, _mm_cvtepi32_ps(ix)), fy = _mm_sub_ps(sy, _mm_cvtepi32_ps(iy));
    // Scaling by 256 commutes with rounding, and (1 - fx)·256 is exactly
    // 256 - fx·256, so these products round exactly like the plain form's
    // ((1 - fy)·fx)·256, ((1 - fx)·fy)·256 and ((1 - fy)·(1 - fx))·256.
    const __m128 fx256 = _mm_mul_ps(fx, c256);
    const __m128 gx256 = _mm_sub_ps(c256, fx256), gy = _mm_sub_ps(one, fy);
    const __m128i w10 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(gy, fx256), half));
    const __m128i w01 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(fy, gx256), half));
    const __m128i w00 = _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(gy, gx256), half));
    const __m128i w11 = _mm_max_epi32(_mm_sub_epi32(i256, _mm_add_epi32(_mm_add_epi32(w00, w10), w01)), izero);

    __m128i top, w_top, w_bottom;
    const unsigned char* d = m_data;
    const unsigned char* d_down = m_data_down;
    uint64_t down01 = 0, down23 = 0;
    if (kInside) {
      top = _mm_add_epi32(_mm_mullo_epi32(iy, m_stride), _mm_slli_epi32(ix, 2));
      w_top = _mm_or_si128(w00, _mm_slli_epi32(w10, 16));
      w_bottom = _mm_or_si128(w01, _mm_slli_epi32(w11, 16));
    } else {
      // In the last column the pair starts one pixel early and its right
      // pixel, the column itself, takes both weights; in the last row the
      // lower pair is the upper one.
      const __m128i at_edge = _mm_cmpeq_epi32(ix, m_last_x);
      const __m128i start_x = _mm_min_epi32(ix, m_before_last_x);
      const __m128i down = _mm_and_si128(_mm_cmplt_epi32(iy, m_last_y), m_stride);
      top = _mm_add_epi32(_mm_mullo_epi32(iy, m_stride), _mm_slli_epi32(start_x, 2));
      const __m128i w10e = _mm_add_epi32(w10, _mm_and_si128(at_edge, w00));
      const __m128i w11e = _mm_add_epi32(w11, _mm_and_si128(at_edge, w01));
      w_top = _mm_or_si128(_mm_andnot_si128(at_edge, w00), _mm_slli_epi32(w10e, 16));
      w_bottom = _mm_or_si128(_mm_andnot_si128(at_edge, w01), _mm_slli_epi32(w11e, 16));
      d_down = m_data;
      down01 = static_cast<uint64_t>(_mm_cvtsi128_si64(down));
      down23 = static_cast<uint64_t>(_mm_extract_epi64(down, 1));
    }
    // Two offsets per 64-bit extraction; the lower row is a stride further
    // (or, off the inside path, the extracted per-pixel step).
    const uint64_t top01 = static_cast<uint64_t>(_mm_cvtsi128_si64(top));
    const uint64_t top23 = static_cast<uint64_t>(_mm_extract_epi64(top, 1));
    const size_t o0 = static_cast<uint32_t>(top01), o1 = static_cast<uint32_t>(top01 >> 32);
    const size_t o2 = static_cast<uint32_t>(top23), o3 = static_cast<uint32_t>(top23 >> 32);
    const size_t b0 = o0 + static_cast<uint32_t>(down01), b1 = o1 + static_cast<uint32_t>(down01 >> 32);
    const size_t b2 = o2 + static_cast<uint32_t>(down23), b3 = o3 + static_cast<uint32_t>(down23 >> 32);
    const __m128i s0 = PixelSum<0>(d + o0, d_down + b0, w_top, w_bottom);
    const __m128i s1 = PixelSum<1>(d + o1, d_down + b1, w_top, w_bottom);
    const __m128i s2 = PixelSum<2>(d + o2, d_down + b2, w_top, w_bottom);
    const __m128i s3 = PixelSum<3>(d + o3, d_down + b3, w_top, w_bottom);
    px01 = _mm_packs_epi32(_mm_srli_epi32(s0, 8), _mm_srli_epi32(s1, 8));
    px23 = _mm_packs_epi32(_mm_srli_epi32(s2, 8), _mm_srli_epi32(s3, 8));
  }

 private:
  __m128 m_m0, m_m3, m_cx, m_cy, m_lim_x, m_lim_y, m_twice_x, m_twice_y;
  __m128i m_last_x, m_before_last_x, m_last_y, m_stride;
  const unsigned char* m_data;
  const unsigned char* m_data_down;  // one row further: the lower pairs on the inside path
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
    __m128i px01, px23;
    s.Sample<kInside>(xs, px01, px23);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_or_si128(_mm_packus_epi16(px01, px23), opaque));
  }
  return x;
}

template <bool kPastInside, bool kFutureInside>
int32_t WarpBlendSpan4(const Sampler4& past, const Sampler4& future, int32_t alpha, int32_t x, int32_t x_end,
                       unsigned char* dst) {
  const __m128i opaque = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  const __m128i wn = _mm_set1_epi16(static_cast<int16_t>(256 - alpha));
  const __m128i wp = _mm_set1_epi16(static_cast<int16_t>(alpha));
  for (__m128 xs = Columns(x); x + 4 <= x_end; x += 4, dst += 16, xs = _mm_add_ps(xs, _mm_set1_ps(4.0f))) {
    __m128i p01, p23, n01, n23;
    past.Sample<kPastInside>(xs, p01, p23);
    future.Sample<kFutureInside>(xs, n01, n23);
    const __m128i lo = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(n01, wn), _mm_mullo_epi16(p01, wp)), 8);
    const __m128i hi = _mm_srli_epi16(_mm_add_epi16(_mm_mullo_epi16(n23, wn), _mm_mullo_epi16(p23, wp)), 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), _mm_or_si128(_mm_packus_epi16(lo, hi), opaque));
  }
  return x;
}

}  // namespace

void WarpSpan_SSE(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
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

void WarpBlendSpan_SSE(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
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
