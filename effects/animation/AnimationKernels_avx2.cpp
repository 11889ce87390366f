// AVX2 forms of the animator's kernels: eight pixels at a time, with the
// same float operations in the same order as the plain forms. Spans are
// covered by eight-pixel steps only (see CoverSpan): the triangles' spans are
// short, and a one-pixel tail would cost as much as the rest of them.
#include <immintrin.h>

#include <cstring>

#include "effects/animation/AnimationKernels.h"

namespace Korvane {

namespace {

// The 8 bytes at a and at b (two adjacent BGRA pixels each) as the 16-bit
// words p.B, q.B, p.G, q.G, p.R, q.R, p.A, q.A, a in the low 128-bit lane and
// b in the high one, ready for one multiply-add with (weight of p, weight of
// q) pairs.
inline __m256i LoadPairs(const unsigned char* a, const unsigned char* b) {
  const __m256i interleave = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1, 0, -1, 4, -1, 1,
                                              -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1);
  const __m256i both =
      _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a))),
                              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b)), 1);
  return _mm256_shuffle_epi8(both, interleave);
}

// B, G, R, A sums of pixels kLane (low lane) and kLane + 4 (high lane): their
// upper pairs times the weight pairs of w_top, plus their lower pairs times
// those of w_bottom.
template <int kLane>
inline __m256i PixelSums(const unsigned char* d, const unsigned char* d_down, const uint32_t* top,
                         const uint32_t* bottom, __m256i w_top, __m256i w_bottom) {
  constexpr int kBroadcast = kLane * 0x55;
  const __m256i upper = LoadPairs(d + top[kLane], d + top[kLane + 4]);
  const __m256i lower = LoadPairs(d_down + bottom[kLane], d_down + bottom[kLane + 4]);
  return _mm256_add_epi32(_mm256_madd_epi16(upper, _mm256_shuffle_epi32(w_top, kBroadcast)),
                          _mm256_madd_epi16(lower, _mm256_shuffle_epi32(w_bottom, kBroadcast)));
}

// Bilinear samples of eight consecutive pixels of one row through one affine
// map. Needs a source at least 2 pixels wide whose byte offsets fit in 32 bits.
class Sampler8 {
 public:
  Sampler8(const WarpSource& src, const float m[6], float cx, float cy)
      : m_m0(_mm256_set1_ps(m[0])),
        m_m3(_mm256_set1_ps(m[3])),
        m_cx(_mm256_set1_ps(cx)),
        m_cy(_mm256_set1_ps(cy)),
        m_lim_x(_mm256_set1_ps(static_cast<float>(src.width - 1))),
        m_lim_y(_mm256_set1_ps(static_cast<float>(src.height - 1))),
        m_twice_x(_mm256_set1_ps(static_cast<float>(src.width - 1) + static_cast<float>(src.width - 1))),
        m_twice_y(_mm256_set1_ps(static_cast<float>(src.height - 1) + static_cast<float>(src.height - 1))),
        m_last_x(_mm256_set1_epi32(src.width - 1)),
        m_before_last_x(_mm256_set1_epi32(src.width - 2)),
        m_last_y(_mm256_set1_epi32(src.height - 1)),
        m_stride(_mm256_set1_epi32(static_cast<int32_t>(src.stride))),
        m_data(src.data),
        m_data_down(src.data + src.stride) {}

  // The eight pixels at columns xs as 16-bit B, G, R, A words: pixels 0, 1
  // (low lane) and 4, 5 (high lane) in px_a, pixels 2, 3 and 6, 7 in px_b
  // (the alpha words are left undefined). kInside: every position lies
  // strictly inside the image, so mirroring, clamping and the last-row and
  // last-column cases are skipped.
  template <bool kInside>
  void Sample(__m256 xs, __m256i& px_a, __m256i& px_b) const {
    const __m256 abs_mask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 c256 = _mm256_set1_ps(256.0f), half = _mm256_set1_ps(0.5f);
    const __m256i i256 = _mm256_set1_epi32(256), izero = _mm256_setzero_si256();

    __m256 sx = _mm256_add_ps(_mm256_mul_ps(m_m0, xs), m_cx);
    __m256 sy = _mm256_add_ps(_mm256_mul_ps(m_m3, xs), m_cy);
    if (!kInside) {
      sx = _mm256_min_ps(_mm256_max_ps(_mm256_min_ps(_mm256_sub_ps(m_twice_x, sx), _mm256_and_ps(sx, abs_mask)), zero),
                         m_lim_x);
      sy = _mm256_min_ps(_mm256_max_ps(_mm256_min_ps(_mm256_sub_ps(m_twice_y, sy), _mm256_and_ps(sy, abs_mask)), zero),
                         m_lim_y);
    }
    const __m256i ix = _mm256_cvttps_epi32(sx), iy = _mm256_cvttps_epi32(sy);
    const __m256 fx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix)), fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
    // The products round exactly like the plain form's (see the SSE4.1 form).
    const __m256 fx256 = _mm256_mul_ps(fx, c256);
    const __m256 gx256 = _mm256_sub_ps(c256, fx256), gy = _mm256_sub_ps(one, fy);
    const __m256i w10 = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(gy, fx256), half));
    const __m256i w01 = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(fy, gx256), half));
    const __m256i w00 = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(gy, gx256), half));
    const __m256i w11 =
        _mm256_max_epi32(_mm256_sub_epi32(i256, _mm256_add_epi32(_mm256_add_epi32(w00, w10), w01)), izero);

    __m256i top, w_top, w_bottom;
    const unsigned char* d_down = m_data_down;
    alignas(32) uint32_t top_at[8], bottom_at[8];
    if (kInside) {
      top = _mm256_add_epi32(_mm256_mullo_epi32(iy, m_stride), _mm256_slli_epi32(ix, 2));
      w_top = _mm256_or_si256(w00, _mm256_slli_epi32(w10, 16));
      w_bottom = _mm256_or_si256(w01, _mm256_slli_epi32(w11, 16));
      _mm256_store_si256(reinterpret_cast<__m256i*>(bottom_at), top);
    } else {
      // In the last column the pair starts one pixel early and its right
      // pixel, the column itself, takes both weights; in the last row the
      // lower pair is the upper one.
      const __m256i at_edge = _mm256_cmpeq_epi32(ix, m_last_x);
      const __m256i start_x = _mm256_min_epi32(ix, m_before_last_x);
      const __m256i down = _mm256_and_si256(_mm256_cmpgt_epi32(m_last_y, iy), m_stride);
      top = _mm256_add_epi32(_mm256_mullo_epi32(iy, m_stride), _mm256_slli_epi32(start_x, 2));
      const __m256i w10e = _mm256_add_epi32(w10, _mm256_and_si256(at_edge, w00));
      const __m256i w11e = _mm256_add_epi32(w11, _mm256_and_si256(at_edge, w01));
      w_top = _mm256_or_si256(_mm256_andnot_si256(at_edge, w00), _mm256_slli_epi32(w10e, 16));
      w_bottom = _mm256_or_si256(_mm256_andnot_si256(at_edge, w01), _mm256_slli_epi32(w11e, 16));
      d_down = m_data;
      _mm256_store_si256(reinterpret_cast<__m256i*>(bottom_at), _mm256_add_epi32(top, down));
    }
    _mm256_store_si256(reinterpret_cast<__m256i*>(top_at), top);
    const unsigned char* d = m_data;
    const __m256i s04 = PixelSums<0>(d, d_down, top_at, bottom_at, w_top, w_bottom);
    const __m256i s15 = PixelSums<1>(d, d_down, top_at, bottom_at, w_top, w_bottom);
    const __m256i s26 = PixelSums<2>(d, d_down, top_at, bottom_at, w_top, w_bottom);
    const __m256i s37 = PixelSums<3>(d, d_down, top_at, bottom_at, w_top, w_bottom);
    px_a = _mm256_packs_epi32(_mm256_srli_epi32(s04, 8), _mm256_srli_epi32(s15, 8));
    px_b = _mm256_packs_epi32(_mm256_srli_epi32(s26, 8), _mm256_srli_epi32(s37, 8));
  }

 private:
  __m256 m_m0, m_m3, m_cx, m_cy, m_lim_x, m_lim_y, m_twice_x, m_twice_y;
  __m256i m_last_x, m_before_last_x, m_last_y, m_stride;
  const unsigned char* m_data;
  const unsigned char* m_data_down;  // one row further: the lower pairs on the inside path
};

inline __m256 Columns(int32_t x) {
  return _mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7));
}

bool VectorFits(const WarpSource& src) {
  return src.width >= 2 && static_cast<uint64_t>(src.height) * src.stride < 0x7FFFFFFFu;
}

// Eight warped pixels from column x into out.
template <bool kInside>
inline void Warp8(const Sampler8& s, int32_t x, unsigned char* out) {
  const __m256i opaque = _mm256_set1_epi32(static_cast<int>(0xFF000000u));
  __m256i px_a, px_b;
  s.Sample<kInside>(Columns(x), px_a, px_b);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_or_si256(_mm256_packus_epi16(px_a, px_b), opaque));
}

// Eight cross-faded pixels from column x into out.
template <bool kPastInside, bool kFutureInside>
inline void WarpBlend8(const Sampler8& past, const Sampler8& future, int32_t alpha, int32_t x, unsigned char* out) {
  const __m256i opaque = _mm256_set1_epi32(static_cast<int>(0xFF000000u));
  const __m256i wn = _mm256_set1_epi16(static_cast<int16_t>(256 - alpha));
  const __m256i wp = _mm256_set1_epi16(static_cast<int16_t>(alpha));
  __m256i p_a, p_b, n_a, n_b;
  const __m256 xs = Columns(x);
  past.Sample<kPastInside>(xs, p_a, p_b);
  future.Sample<kFutureInside>(xs, n_a, n_b);
  const __m256i a = _mm256_srli_epi16(_mm256_add_epi16(_mm256_mullo_epi16(n_a, wn), _mm256_mullo_epi16(p_a, wp)), 8);
  const __m256i b = _mm256_srli_epi16(_mm256_add_epi16(_mm256_mullo_epi16(n_b, wn), _mm256_mullo_epi16(p_b, wp)), 8);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_or_si256(_mm256_packus_epi16(a, b), opaque));
}

// Covers columns x_begin .. x_end - 1 (dst receives x_begin) with eight-pixel
// steps put(x, out), every pixel's value depending on its column alone. A
// span of eight or more ends with a step that overlaps the one before it (the
// pixels it writes again get the same bytes); a shorter span is sampled
// through put_short, whose positions are clamped into the image (its lanes
// past the span may lie anywhere), and only its own pixels are copied out.
template <class Put, class PutShort>
inline void CoverSpan(int32_t x_begin, int32_t x_end, unsigned char* dst, Put put, PutShort put_short) {
  const int32_t n = x_end - x_begin;
  if (n < 8) {
    alignas(32) unsigned char tmp[32];
    put_short(x_begin, tmp);
    std::memcpy(dst, tmp, static_cast<size_t>(n) * 4);
    return;
  }
  int32_t x = x_begin;
  for (; x + 8 <= x_end; x += 8) put(x, dst + static_cast<size_t>(x - x_begin) * 4);
  if (x < x_end) put(x_end - 8, dst + static_cast<size_t>(n - 8) * 4);
}

}  // namespace

void WarpSpan_AVX2(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
                   unsigned char* dst) {
  const float fy = static_cast<float>(y);
  const float cx = m[1] * fy + m[2], cy = m[4] * fy + m[5];
  if (x_end <= x_begin) return;
  if (!VectorFits(src)) {
    animation_detail::WarpPixels(src, m, cx, cy, x_begin, x_end, dst);
    return;
  }
  const Sampler8 s(src, m, cx, cy);
  auto clamped = [&](int32_t x, unsigned char* out) { Warp8<false>(s, x, out); };
  if (x_end - x_begin >= 8 && animation_detail::SpanInside(src, m, cx, cy, x_begin, x_end)) {
    CoverSpan(
        x_begin, x_end, dst, [&](int32_t x, unsigned char* out) { Warp8<true>(s, x, out); }, clamped);
  } else {
    CoverSpan(x_begin, x_end, dst, clamped, clamped);
  }
}

void WarpBlendSpan_AVX2(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha, int32_t y,
                        int32_t x_begin, int32_t x_end, unsigned char* dst) {
  const float fy = static_cast<float>(y);
  const float px = m_past[1] * fy + m_past[2], py = m_past[4] * fy + m_past[5];
  const float nx = m_future[1] * fy + m_future[2], ny = m_future[4] * fy + m_future[5];
  if (x_end <= x_begin) return;
  if (!VectorFits(src)) {
    animation_detail::WarpBlendPixels(src, m_past, px, py, m_future, nx, ny, alpha, x_begin, x_end, dst);
    return;
  }
  const Sampler8 past(src, m_past, px, py), future(src, m_future, nx, ny);
  auto clamped = [&](int32_t x, unsigned char* out) { WarpBlend8<false, false>(past, future, alpha, x, out); };
  const bool wide = x_end - x_begin >= 8;
  const bool past_in = wide && animation_detail::SpanInside(src, m_past, px, py, x_begin, x_end);
  const bool future_in = wide && animation_detail::SpanInside(src, m_future, nx, ny, x_begin, x_end);
  if (past_in && future_in) {
    CoverSpan(
        x_begin, x_end, dst,
        [&](int32_t x, unsigned char* out) { WarpBlend8<true, true>(past, future, alpha, x, out); }, clamped);
  } else if (past_in) {
    CoverSpan(
        x_begin, x_end, dst,
        [&](int32_t x, unsigned char* out) { WarpBlend8<true, false>(past, future, alpha, x, out); }, clamped);
  } else if (future_in) {
    CoverSpan(
        x_begin, x_end, dst,
        [&](int32_t x, unsigned char* out) { WarpBlend8<false, true>(past, future, alpha, x, out); }, clamped);
  } else {
    CoverSpan(x_begin, x_end, dst, clamped, clamped);
  }
}

}  // namespace Korvane
