// SSE4.1 forms of the transforms into and out of ray space: the four-pixel
// bilinear mix is done for all channels at once, with the plain form's
// weights and rounding, so the bytes are the same.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/light_rays/LightRaysKernels.h"
#include "effects/light_rays/LightRaysSampleLoops.h"

namespace Korvane {


namespace {

inline __m128i Load4(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}

// Each row's pair is mixed across by one multiply-add of interleaved 16-bit
// channels (exact: bytes times weights up to 256), the two rows in 32 bits.
inline uint32_t Mix4Sse(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10, const uint8_t* p11, int32_t fx,
                        int32_t fy) {
  const __m128i wx = _mm_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(fx) << 16) | (256u - fx)));
  const __m128i top = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_unpacklo_epi8(Load4(p00), Load4(p01))), wx);
  const __m128i bottom = _mm_madd_epi16(_mm_cvtepu8_epi16(_mm_unpacklo_epi8(Load4(p10), Load4(p11))), wx);
  __m128i sum = _mm_add_epi32(_mm_mullo_epi32(top, _mm_set1_epi32(256 - fy)), _mm_mullo_epi32(bottom, _mm_set1_epi32(fy)));
  sum = _mm_srli_epi32(_mm_add_epi32(sum, _mm_set1_epi32(32768)), 16);
  const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(sum, sum), sum);
  return static_cast<uint32_t>(_mm_cvtsi128_si32(bytes)) | 0xFF000000u;
}

}  // namespace

int32_t SampleRows_SSE(const SampleRowsParam& p, const Rect& band) {
  if (!p.src || !p.src->data || !light_rays_detail::RowsThere(p.dst)) return E_POINTER;
  const SmartBuffer& src = *p.src;
  const auto mix = [](auto... a) { return Mix4Sse(a...); };
  const __m128i last_x = _mm_set1_epi32(src.width - 1), last_y = _mm_set1_epi32(src.height - 1);
  const __m128 zero = _mm_setzero_ps(), scale = _mm_set1_ps(256.0f), four = _mm_set1_ps(4.0f);
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    uint32_t* out = p.dst->Row(j);  // out[c - lo] is column c
    const int32_t end = std::min(std::max(l.src_end, l.lo), l.hi);
    const __m128 x0 = _mm_set1_ps(l.x0), y0 = _mm_set1_ps(l.y0), dx = _mm_set1_ps(l.dx), dy = _mm_set1_ps(l.dy);
    __m128 cs = _mm_add_ps(_mm_set1_ps(static_cast<float>(l.lo)), _mm_setr_ps(0.0f, 1.0f, 2.0f, 3.0f));
    int32_t c = l.lo;
    // Four positions at a time, with the plain form's float steps; a group
    // wholly inside (the common case) needs no per-sample test.
    for (; c + 4 <= end; c += 4, cs = _mm_add_ps(cs, four)) {
      const __m128 x = _mm_add_ps(x0, _mm_mul_ps(cs, dx));
      const __m128 y = _mm_add_ps(y0, _mm_mul_ps(cs, dy));
      const __m128i xi = _mm_cvttps_epi32(x), yi = _mm_cvttps_epi32(y);
      const __m128 outside = _mm_or_ps(_mm_cmplt_ps(x, zero), _mm_cmplt_ps(y, zero));
      const __m128i beyond = _mm_or_si128(_mm_cmpgt_epi32(_mm_add_epi32(xi, _mm_set1_epi32(1)), last_x),
                                          _mm_cmpgt_epi32(_mm_add_epi32(yi, _mm_set1_epi32(1)), last_y));
      if (_mm_movemask_ps(_mm_or_ps(outside, _mm_castsi128_ps(beyond))) != 0) {
        for (int32_t k = 0; k < 4; ++k) {
          const float fc = static_cast<float>(c + k);
          out[c + k - l.lo] = light_rays_detail::SampleOrZero(src, l.x0 + fc * l.dx, l.y0 + fc * l.dy);
        }
        continue;
      }
      alignas(16) int32_t ix[4], iy[4], fx[4], fy[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(ix), xi);
      _mm_store_si128(reinterpret_cast<__m128i*>(iy), yi);
      _mm_store_si128(reinterpret_cast<__m128i*>(fx), _mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(x, _mm_cvtepi32_ps(xi)), scale)));
      _mm_store_si128(reinterpret_cast<__m128i*>(fy), _mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(y, _mm_cvtepi32_ps(yi)), scale)));
      for (int32_t k = 0; k < 4; ++k) {
        const uint8_t* r0 = RowPtr(src, iy[k]) + static_cast<ptrdiff_t>(ix[k]) * 4;
        const uint8_t* r1 = r0 + src.stride;
        out[c + k - l.lo] = mix(r0, r0 + 4, r1, r1 + 4, fx[k], fy[k]);
      }
    }
    for (; c < end; ++c) {
      const float fc = static_cast<float>(c);
      out[c - l.lo] = light_rays_detail::SampleOrZero(src, l.x0 + fc * l.dx, l.y0 + fc * l.dy);
    }
    if (end < l.hi) std::memset(out + (end - l.lo), 0, static_cast<size_t>(l.hi - end) * 4);
  }
  return S_OK;
}

int32_t PolarToCarte_SSE(const PolarToCarteParam& p, const Rect& band) {
  if (!light_rays_detail::RowsThere(p.polar) || !p.dst || !p.map || !p.dst->data) return E_POINTER;
  if (p.polar_w < 2 || p.polar_h < 2) return E_INVALIDARG;
  const Rect r = light_rays_detail::BandInArea(band, p.area, *p.dst);
  const size_t map_stride = static_cast<size_t>(p.dst->width) * 2;
  const auto mix = [](auto... a) { return Mix4Sse(a...); };
  const __m128 base = _mm_set1_ps(p.r_base), zero = _mm_setzero_ps(), scale = _mm_set1_ps(256.0f);
  const __m128 last_u = _mm_set1_ps(static_cast<float>(p.polar_w - 1));
  const __m128 last_v = _mm_set1_ps(static_cast<float>(p.polar_h - 1));
  const __m128i cell_u = _mm_set1_epi32(p.polar_w - 2), cell_v = _mm_set1_epi32(p.polar_h - 2);
  const __m128i most = _mm_set1_epi32(255);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* m = p.map + map_stride * y;
    uint32_t* out = RowPtr<uint32_t>(*p.dst, y);
    int32_t x = r.left;
    // ClampedCell for four pixels at once: the same clamps and truncations.
    for (; x + 4 <= r.right; x += 4) {
      const __m128 a = _mm_loadu_ps(m + 2 * x), b = _mm_loadu_ps(m + 2 * x + 4);
      __m128 u = _mm_sub_ps(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)), base);
      __m128 v = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
      u = _mm_min_ps(_mm_max_ps(u, zero), last_u);
      v = _mm_min_ps(_mm_max_ps(v, zero), last_v);
      const __m128i ui = _mm_min_epi32(_mm_cvttps_epi32(u), cell_u);
      const __m128i vi = _mm_min_epi32(_mm_cvttps_epi32(v), cell_v);
      const __m128i fu = _mm_min_epi32(_mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(u, _mm_cvtepi32_ps(ui)), scale)), most);
      const __m128i fv = _mm_min_epi32(_mm_cvttps_epi32(_mm_mul_ps(_mm_sub_ps(v, _mm_cvtepi32_ps(vi)), scale)), most);
      alignas(16) int32_t iu[4], iv[4], wu[4], wv[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(iu), ui);
      _mm_store_si128(reinterpret_cast<__m128i*>(iv), vi);
      _mm_store_si128(reinterpret_cast<__m128i*>(wu), fu);
      _mm_store_si128(reinterpret_cast<__m128i*>(wv), fv);
      for (int32_t k = 0; k < 4; ++k) {
        out[x + k] = light_rays_detail::MixCell(*p.polar, light_rays_detail::Cell{iu[k], iv[k], wu[k], wv[k]}, mix);
      }
    }
    for (; x < r.right; ++x) {
      const light_rays_detail::Cell cell = light_rays_detail::ClampedCell(p.polar_w, p.polar_h, m[2 * x] - p.r_base, m[2 * x + 1]);
      out[x] = light_rays_detail::MixCell(*p.polar, cell, mix);
    }
  }
  return S_OK;
}

int32_t RotateBack_SSE(const RotateBackParam& p, const Rect& band) {
  return light_rays_detail::RotateBackWith(p, band, [](auto... a) { return Mix4Sse(a...); });
}

}  // namespace Korvane
