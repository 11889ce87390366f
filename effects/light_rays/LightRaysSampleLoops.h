// The loops of the ray-space transforms, written once for both kernel forms:
// each form instantiates them with its own four-pixel bilinear mix (the
// plain one in LightRaysSample.cpp, the SSE4.1 one in LightRaysSample_sse4.cpp).
#pragma once

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {
namespace light_rays_detail {

// The bilinear mix of a cell of a ray space: the two rows' pixels at the
// cell's two columns (black where a row holds nothing).
template <class Mix>
inline uint32_t MixCell(const RayRows& rows, const Cell& cell, Mix mix) {
  const RaySpan& a = rows.spans[cell.vi];
  const RaySpan& b = rows.spans[cell.vi + 1];
  if (cell.ui >= a.lo && cell.ui + 1 < a.hi && cell.ui >= b.lo && cell.ui + 1 < b.hi) {
    const uint8_t* r0 = reinterpret_cast<const uint8_t*>(rows.pixels + (a.col0 + cell.ui));
    const uint8_t* r1 = reinterpret_cast<const uint8_t*>(rows.pixels + (b.col0 + cell.ui));
    return mix(r0, r0 + 4, r1, r1 + 4, cell.fu, cell.fv);
  }
  return mix(rows.At(cell.ui, cell.vi), rows.At(cell.ui + 1, cell.vi), rows.At(cell.ui, cell.vi + 1),
             rows.At(cell.ui + 1, cell.vi + 1), cell.fu, cell.fv);
}

// The ray-space kernels' checks: every image and table there.
inline bool RowsThere(const RayRows* r) { return r && r->pixels && r->spans && r->lines; }

template <class Mix>
int32_t SampleRowsWith(const SampleRowsParam& p, const Rect& band, Mix mix) {
  if (!p.src || !p.src->data || !RowsThere(p.dst)) return E_POINTER;
  const SmartBuffer& src = *p.src;
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    uint32_t* row = p.dst->Row(j);  // row[c - lo] is column c
    const int32_t end = std::min(std::max(l.src_end, l.lo), l.hi);
    for (int32_t c = l.lo; c < end; ++c) {
      const float x = l.x0 + static_cast<float>(c) * l.dx;
      const float y = l.y0 + static_cast<float>(c) * l.dy;
      // Most samples lie well inside: four direct reads.
      const int32_t xi = static_cast<int32_t>(x), yi = static_cast<int32_t>(y);
      if (x >= 0.0f && y >= 0.0f && xi + 1 < src.width && yi + 1 < src.height) {
        const uint8_t* r0 = RowPtr(src, yi) + static_cast<ptrdiff_t>(xi) * 4;
        const uint8_t* r1 = r0 + src.stride;
        row[c - l.lo] = mix(r0, r0 + 4, r1, r1 + 4, Frac8(x, xi), Frac8(y, yi));
      } else {
        row[c - l.lo] = SampleOrZero(src, x, y);
      }
    }
    if (end < l.hi) std::memset(row + (end - l.lo), 0, static_cast<size_t>(l.hi - end) * 4);
  }
  return S_OK;
}

template <class Mix>
int32_t PolarToCarteWith(const PolarToCarteParam& p, const Rect& band, Mix mix) {
  if (!RowsThere(p.polar) || !p.dst || !p.map || !p.dst->data) return E_POINTER;
  if (p.polar_w < 2 || p.polar_h < 2) return E_INVALIDARG;
  const Rect r = BandInArea(band, p.area, *p.dst);
  const size_t map_stride = static_cast<size_t>(p.dst->width) * 2;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* m = p.map + map_stride * y;
    uint32_t* out = RowPtr<uint32_t>(*p.dst, y);
    for (int32_t x = r.left; x < r.right; ++x) {
      const Cell cell = ClampedCell(p.polar_w, p.polar_h, m[2 * x] - p.r_base, m[2 * x + 1]);
      out[x] = MixCell(*p.polar, cell, mix);
    }
  }
  return S_OK;
}

template <class Mix>
int32_t RotateBackWith(const RotateBackParam& p, const Rect& band, Mix mix) {
  if (!RowsThere(p.rotated) || !p.dst || !p.dst->data) return E_POINTER;
  if (p.rotated_w < 2 || p.rotated_h < 2) return E_INVALIDARG;
  const Rect r = BandInArea(band, p.area, *p.dst);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    uint32_t* out = RowPtr<uint32_t>(*p.dst, y);
    const float fy = static_cast<float>(y);
    for (int32_t x = r.left; x < r.right; ++x) {
      const float fx = static_cast<float>(x);
      const Cell cell =
          ClampedCell(p.rotated_w, p.rotated_h, p.u0 + fx * p.ux + fy * p.uy, p.v0 + fx * p.vx + fy * p.vy);
      out[x] = MixCell(*p.rotated, cell, mix);
    }
  }
  return S_OK;
}

}  // namespace light_rays_detail
}  // namespace Korvane
