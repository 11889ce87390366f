// AVX2 forms of the transforms into and out of ray space: eight samples at a
// time, mixed as core/BilinearAvx2.h does (the plain form's integer weights
// and rounding), so the bytes are the same. Positions, clamps and fractions
// take the plain form's float steps in the same order.
#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "core/BilinearAvx2.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/light_rays/LightRaysKernels.h"
#include "effects/light_rays/LightRaysSampleLoops.h"

namespace Korvane {

namespace {

using bilinear_avx2::Load8;
using bilinear_avx2::MixPairs8;
using light_rays_detail::Cell;
using light_rays_detail::Mix4;

const auto kPlainMix = [](auto... a) { return Mix4(a...); };

// The 8-bit fraction of positions whose integer parts are i, as Frac8.
inline __m256i Frac8(__m256 v, __m256i i) {
  return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_sub_ps(v, _mm256_cvtepi32_ps(i)), _mm256_set1_ps(256.0f)));
}

// The taps of eight samples whose upper left taps lie at base + top[k] and
// whose lower left taps lie at base + bottom[k] + down (byte offsets).
inline __m256i MixAt(const uint8_t* base, const int32_t* top, const int32_t* bottom, ptrdiff_t down, __m256i fx,
                     __m256i fy) {
  uint64_t upper[8], lower[8];
  for (int k = 0; k < 8; ++k) {
    upper[k] = Load8(base + top[k]);
    lower[k] = Load8(base + down + bottom[k]);
  }
  return MixPairs8<false>(upper, lower, fx, fy);
}

// Taps in two rows `down` bytes apart: only the top offsets leave the register.
inline __m256i MixAt(const uint8_t* base, __m256i top, ptrdiff_t down, __m256i fx, __m256i fy) {
  alignas(32) int32_t t[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(t), top);
  return MixAt(base, t, t, down, fx, fy);
}

inline __m256i MixAt(const uint8_t* base, __m256i top, __m256i bottom, __m256i fx, __m256i fy) {
  alignas(32) int32_t t[8], b[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(t), top);
  _mm256_store_si256(reinterpret_cast<__m256i*>(b), bottom);
  return MixAt(base, t, b, 0, fx, fy);
}

// Byte offsets of whole images below 2^31 fit 32-bit lanes.
inline bool OffsetsFit(int64_t bytes) { return bytes < (int64_t{1} << 31); }

// Reads eight cells of a ray space at once when every one lies inside the
// columns its two rows hold (the common case), else each cell alone as the
// plain form does, black where a row holds nothing. Prepared per band: for
// every row pair v, v + 1 the columns u whose cell both rows hold, packed in
// one word for one look-up, and whether rows lie a fixed stride apart.
class RayCells {
 public:
  // False when the space does not suit the fast path (then the caller runs
  // the plain loop): columns past 32767 or no memory for the look-up.
  bool Prepare(const RayRows& rows, int32_t w, int32_t h) {
    if (w > 32767) return false;
    m_rows = &rows;
    m_pairs.reset(new (std::nothrow) uint32_t[static_cast<size_t>(h - 1)]);
    if (!m_pairs) return false;
    m_stride = rows.spans[1].col0 - rows.spans[0].col0;
    // Rows a fixed stride apart from 0 (the rectangle layout): offsets by
    // arithmetic when the w x h rectangle's bytes fit 32 bits.
    m_dense = rows.spans[0].col0 == 0 && m_stride >= 0 && m_stride <= w && OffsetsFit(int64_t{4} * w * h);
    const auto clamp = [](int32_t c) { return static_cast<uint32_t>(std::min(std::max(c, 0), 32767)); };
    for (int32_t v = 0; v + 1 < h; ++v) {
      const RaySpan& a = rows.spans[v];
      const RaySpan& b = rows.spans[v + 1];
      m_dense = m_dense && b.col0 == a.col0 + m_stride;
      // Cells u with lo <= u and u + 1 < hi in both rows, first <= u < end;
      // none where a row's pixels lie beyond 32-bit byte offsets.
      const bool fits = Fits(a) && Fits(b);
      const int32_t first = std::max(a.lo, b.lo), end = fits ? std::min(a.hi, b.hi) - 1 : 0;
      m_pairs[static_cast<size_t>(v)] = clamp(first) | clamp(end) << 16;
    }
    return true;
  }

  void Mix(__m256i ui, __m256i vi, __m256i fu, __m256i fv, uint32_t* out) const {
    const __m256i span = _mm256_i32gather_epi32(reinterpret_cast<const int*>(m_pairs.get()), vi, 4);
    const __m256i first = _mm256_and_si256(span, _mm256_set1_epi32(0xFFFF)), end = _mm256_srli_epi32(span, 16);
    const __m256i outside = _mm256_or_si256(_mm256_cmpgt_epi32(first, ui), _mm256_cmpgt_epi32(_mm256_add_epi32(ui, _mm256_set1_epi32(1)), end));
    if (!_mm256_testz_si256(outside, outside)) {
      alignas(32) int32_t iu[8], iv[8], wu[8], wv[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(iu), ui);
      _mm256_store_si256(reinterpret_cast<__m256i*>(iv), vi);
      _mm256_store_si256(reinterpret_cast<__m256i*>(wu), fu);
      _mm256_store_si256(reinterpret_cast<__m256i*>(wv), fv);
      for (int k = 0; k < 8; ++k) out[k] = light_rays_detail::MixCell(*m_rows, Cell{iu[k], iv[k], wu[k], wv[k]}, kPlainMix);
      return;
    }
    // Pixel col0 + u of each row, as byte offsets.
    const uint8_t* pixels = reinterpret_cast<const uint8_t*>(m_rows->pixels);
    __m256i mixed;
    if (m_dense) {
      const __m256i stride = _mm256_set1_epi32(static_cast<int32_t>(m_stride));
      const __m256i top = _mm256_slli_epi32(_mm256_add_epi32(_mm256_mullo_epi32(vi, stride), ui), 2);
      mixed = MixAt(pixels, top, static_cast<ptrdiff_t>(m_stride) * 4, fu, fv);
    } else {
      const int* words = reinterpret_cast<const int*>(m_rows->spans);  // col0 is the first (low) word of a span
      static_assert(sizeof(RaySpan) == 16, "four 32-bit words a span");
      const __m256i at = _mm256_slli_epi32(vi, 2);
      const __m256i top = _mm256_slli_epi32(_mm256_add_epi32(_mm256_i32gather_epi32(words, at, 4), ui), 2);
      const __m256i bottom = _mm256_slli_epi32(_mm256_add_epi32(_mm256_i32gather_epi32(words + 4, at, 4), ui), 2);
      mixed = MixAt(pixels, top, bottom, fu, fv);
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), mixed);
  }

 private:
  // The row's pixels lie at byte offsets 0 .. 2^31 from the space's start.
  static bool Fits(const RaySpan& r) {
    return r.hi <= r.lo || (r.col0 + r.lo >= 0 && r.col0 + r.hi <= (int64_t{1} << 29));
  }

  const RayRows* m_rows = nullptr;
  std::unique_ptr<uint32_t[]> m_pairs;
  int64_t m_stride = 0;
  bool m_dense = false;
};

// ClampedCell for eight positions, with the SSE4.1 form's clamps and truncations.
struct Cells8 {
  __m256 last_u, last_v;
  __m256i cell_u, cell_v;
  Cells8(int32_t w, int32_t h)
      : last_u(_mm256_set1_ps(static_cast<float>(w - 1))),
        last_v(_mm256_set1_ps(static_cast<float>(h - 1))),
        cell_u(_mm256_set1_epi32(w - 2)),
        cell_v(_mm256_set1_epi32(h - 2)) {}
  void Mix(const RayCells& cells, __m256 u, __m256 v, uint32_t* out) const {
    const __m256 zero = _mm256_setzero_ps();
    const __m256i most = _mm256_set1_epi32(255);
    u = _mm256_min_ps(_mm256_max_ps(u, zero), last_u);
    v = _mm256_min_ps(_mm256_max_ps(v, zero), last_v);
    const __m256i ui = _mm256_min_epi32(_mm256_cvttps_epi32(u), cell_u);
    const __m256i vi = _mm256_min_epi32(_mm256_cvttps_epi32(v), cell_v);
    cells.Mix(ui, vi, _mm256_min_epi32(Frac8(u, ui), most), _mm256_min_epi32(Frac8(v, vi), most), out);
  }
};

// The pixels of `r` tile by tile (16 rows by 64 columns), each tile row as
// span(y, x0, x1): the ray-space pixels a tile reads back lie close
// together (a polar row holds a pixel's neighbours along its ray, not
// along the image row), so a tile finds most of them in cache where whole
// image rows would have pushed them out.
template <class Span>
void ForTiles(const Rect& r, Span&& span) {
  constexpr int32_t kTileRows = 16, kTileColumns = 64;
  for (int32_t y0 = r.top; y0 < r.bottom; y0 += kTileRows) {
    const int32_t y1 = std::min(y0 + kTileRows, r.bottom);
    for (int32_t x0 = r.left; x0 < r.right; x0 += kTileColumns) {
      const int32_t x1 = std::min(x0 + kTileColumns, r.right);
      for (int32_t y = y0; y < y1; ++y) span(y, x0, x1);
    }
  }
}

}  // namespace

int32_t SampleRows_AVX2(const SampleRowsParam& p, const Rect& band) {
  if (!p.src || !p.src->data || !light_rays_detail::RowsThere(p.dst)) return E_POINTER;
  const SmartBuffer& src = *p.src;
  if (!OffsetsFit(static_cast<int64_t>(src.stride) * src.height)) {
    return light_rays_detail::SampleRowsWith(p, band, kPlainMix);
  }
  const uint8_t* base = RowPtr(src, 0);
  const __m256i last_x = _mm256_set1_epi32(src.width - 1), last_y = _mm256_set1_epi32(src.height - 1);
  const __m256i one = _mm256_set1_epi32(1), stride = _mm256_set1_epi32(src.stride);
  const __m256 zero = _mm256_setzero_ps(), eight = _mm256_set1_ps(8.0f);
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    uint32_t* out = p.dst->Row(j);  // out[c - lo] is column c
    const int32_t end = std::min(std::max(l.src_end, l.lo), l.hi);
    const __m256 x0 = _mm256_set1_ps(l.x0), y0 = _mm256_set1_ps(l.y0);
    const __m256 dx = _mm256_set1_ps(l.dx), dy = _mm256_set1_ps(l.dy);
    __m256 cs = _mm256_add_ps(_mm256_set1_ps(static_cast<float>(l.lo)), _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7));
    int32_t c = l.lo;
    // Eight positions at a time, with the plain form's float steps; a group
    // wholly inside (the common case) needs no per-sample test.
    for (; c + 8 <= end; c += 8, cs = _mm256_add_ps(cs, eight)) {
      const __m256 x = _mm256_add_ps(x0, _mm256_mul_ps(cs, dx));
      const __m256 y = _mm256_add_ps(y0, _mm256_mul_ps(cs, dy));
      const __m256i xi = _mm256_cvttps_epi32(x), yi = _mm256_cvttps_epi32(y);
      const __m256 outside = _mm256_or_ps(_mm256_cmp_ps(x, zero, _CMP_LT_OQ), _mm256_cmp_ps(y, zero, _CMP_LT_OQ));
      const __m256i beyond = _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_add_epi32(xi, one), last_x),
                                             _mm256_cmpgt_epi32(_mm256_add_epi32(yi, one), last_y));
      if (_mm256_movemask_ps(_mm256_or_ps(outside, _mm256_castsi256_ps(beyond))) != 0) {
        for (int32_t k = 0; k < 8; ++k) {
          const float fc = static_cast<float>(c + k);
          out[c + k - l.lo] = light_rays_detail::SampleOrZero(src, l.x0 + fc * l.dx, l.y0 + fc * l.dy);
        }
        continue;
      }
      const __m256i top = _mm256_add_epi32(_mm256_mullo_epi32(yi, stride), _mm256_slli_epi32(xi, 2));
      const __m256i mixed = MixAt(base, top, src.stride, Frac8(x, xi), Frac8(y, yi));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + (c - l.lo)), mixed);
    }
    for (; c < end; ++c) {
      const float fc = static_cast<float>(c);
      out[c - l.lo] = light_rays_detail::SampleOrZero(src, l.x0 + fc * l.dx, l.y0 + fc * l.dy);
    }
    if (end < l.hi) std::memset(out + (end - l.lo), 0, static_cast<size_t>(l.hi - end) * 4);
  }
  return S_OK;
}

int32_t PolarToCarte_AVX2(const PolarToCarteParam& p, const Rect& band) {
  if (!light_rays_detail::RowsThere(p.polar) || !p.dst || !p.map || !p.dst->data) return E_POINTER;
  if (p.polar_w < 2 || p.polar_h < 2) return E_INVALIDARG;
  RayCells space;
  if (!space.Prepare(*p.polar, p.polar_w, p.polar_h)) return light_rays_detail::PolarToCarteWith(p, band, kPlainMix);
  const size_t map_stride = static_cast<size_t>(p.dst->width) * 2;
  const Cells8 cells(p.polar_w, p.polar_h);
  const __m256 base = _mm256_set1_ps(p.r_base);
  // The map's (u, v) pairs split into the u and the v of eight pixels: per
  // 128-bit lane the shuffles give pixels 0, 1, 4, 5 and 2, 3, 6, 7, which
  // the permutation puts back in order.
  const __m256i order = _mm256_setr_epi32(0, 1, 4, 5, 2, 3, 6, 7);
  ForTiles(light_rays_detail::BandInArea(band, p.area, *p.dst), [&](int32_t y, int32_t x, int32_t x1) {
    const float* m = p.map + map_stride * y;
    uint32_t* out = RowPtr<uint32_t>(*p.dst, y);
    for (; x + 8 <= x1; x += 8) {
      const __m256 a = _mm256_loadu_ps(m + 2 * x), b = _mm256_loadu_ps(m + 2 * x + 8);
      const __m256 u = _mm256_permutevar8x32_ps(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)), order);
      const __m256 v = _mm256_permutevar8x32_ps(_mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)), order);
      cells.Mix(space, _mm256_sub_ps(u, base), v, out + x);
    }
    for (; x < x1; ++x) {
      const Cell cell = light_rays_detail::ClampedCell(p.polar_w, p.polar_h, m[2 * x] - p.r_base, m[2 * x + 1]);
      out[x] = light_rays_detail::MixCell(*p.polar, cell, kPlainMix);
    }
  });
  return S_OK;
}

int32_t RotateBack_AVX2(const RotateBackParam& p, const Rect& band) {
  if (!light_rays_detail::RowsThere(p.rotated) || !p.dst || !p.dst->data) return E_POINTER;
  if (p.rotated_w < 2 || p.rotated_h < 2) return E_INVALIDARG;
  RayCells space;
  if (!space.Prepare(*p.rotated, p.rotated_w, p.rotated_h)) return light_rays_detail::RotateBackWith(p, band, kPlainMix);
  const Cells8 cells(p.rotated_w, p.rotated_h);
  const __m256 u0 = _mm256_set1_ps(p.u0), ux = _mm256_set1_ps(p.ux), uy = _mm256_set1_ps(p.uy);
  const __m256 v0 = _mm256_set1_ps(p.v0), vx = _mm256_set1_ps(p.vx), vy = _mm256_set1_ps(p.vy);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  ForTiles(light_rays_detail::BandInArea(band, p.area, *p.dst), [&](int32_t y, int32_t x, int32_t x1) {
    uint32_t* out = RowPtr<uint32_t>(*p.dst, y);
    const float fy = static_cast<float>(y);
    const __m256 vfy = _mm256_set1_ps(fy);
    for (; x + 8 <= x1; x += 8) {
      // u0 + x ux + y uy, added in the plain form's order.
      const __m256 fx = _mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_set1_epi32(x), lanes));
      const __m256 u = _mm256_add_ps(_mm256_add_ps(u0, _mm256_mul_ps(fx, ux)), _mm256_mul_ps(vfy, uy));
      const __m256 v = _mm256_add_ps(_mm256_add_ps(v0, _mm256_mul_ps(fx, vx)), _mm256_mul_ps(vfy, vy));
      cells.Mix(space, u, v, out + x);
    }
    for (; x < x1; ++x) {
      const float fx = static_cast<float>(x);
      const Cell cell = light_rays_detail::ClampedCell(p.rotated_w, p.rotated_h, p.u0 + fx * p.ux + fy * p.uy,
                                                       p.v0 + fx * p.vx + fy * p.vy);
      out[x] = light_rays_detail::MixCell(*p.rotated, cell, kPlainMix);
    }
  });
  return S_OK;
}

}  // namespace Korvane
