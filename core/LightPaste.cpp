#include "core/LightPaste.h"

#include <algorithm>
#include <cmath>

#include "core/ImageChecks.h"
#include "core/LightPasteDetail.h"

namespace Korvane {

namespace lightpaste_detail {

namespace {

int32_t HalfSize(int32_t d) { return (d & ~1) / 2; }

// The sub-pixel origin: the top-left of the resampled footprint and the
// 8-bit weight of the fraction along one axis. A fraction that rounds to
// 256 moves the origin one pixel on instead.
bool SubPixelOrigin(float p, int32_t d, int32_t& origin, int32_t& weight) {
  const float o = p - static_cast<float>(HalfSize(d));
  if (!(std::fabs(o) <= 1073741824.0f)) return false;  // also refuses NaN
  const float base = std::floor(o);
  weight = static_cast<int32_t>((o - base) * 256.0f + 0.5f);
  origin = static_cast<int32_t>(base);
  if (weight >= 256) {
    weight = 0;
    ++origin;
  }
  return true;
}

// Columns [first, last) of a `size`-wide shape placed at `origin` that fall
// inside [0, extent).
void ClipSpan(int32_t origin, int32_t size, int32_t extent, int32_t& first, int32_t& last) {
  first = std::max(0, -origin);
  last = static_cast<int32_t>(std::min<int64_t>(size, static_cast<int64_t>(extent) - origin));
  if (last < first) last = first;
}

int32_t CheckImages(const LightShape& shape, const SmartBuffer& light) {
  if (!shape.shape.data || !light.data) return E_POINTER;
  if (!IsBgra(shape.shape) || !IsBgra(light)) return E_NOTIMPL;
  const Rect held = shape.Held();
  if (!RowsFit(shape.shape, 4) || !RowsFit(light, 4) || !RectInside(held, shape.d, shape.d) ||
      shape.shape.width != RectWidth(held) || shape.shape.height != RectHeight(held)) {
    return E_INVALIDARG;
  }
  return S_OK;
}

// Columns [lo, hi) and rows [top, bottom) of the shape lie in the held part.
bool Holds(const Rect& held, int32_t lo, int32_t hi, int32_t top, int32_t bottom) {
  return lo >= held.left && hi <= held.right && top >= held.top && bottom <= held.bottom;
}

// Pixel (x, y) of the shape (or of the footprint in tmp), in its held part.
template <class Image>
uint8_t* HeldAt(const Image& img, const Rect& held, int32_t x, int32_t y) {
  return RowPtr(img, y - held.top) + static_cast<ptrdiff_t>(x - held.left) * 4;
}

// shape_roi lies within a size x size footprint at `origin` and inside the map.
bool RoiFits(const Rect& r, int32_t size, PointI origin, const SmartBuffer& light) {
  return r.left >= 0 && r.top >= 0 && r.right <= size && r.bottom <= size &&
         static_cast<int64_t>(origin.x) + r.left >= 0 && static_cast<int64_t>(origin.y) + r.top >= 0 &&
         static_cast<int64_t>(origin.x) + r.right <= light.width &&
         static_cast<int64_t>(origin.y) + r.bottom <= light.height;
}

// c_k = trunc(colour_k x lightness), both clamped to their ranges first.
void ChannelFactors(const LightPasteArgs& args, int32_t c[4]) {
  const float l = std::max(0.0f, std::min(1.0f, args.lightness));
  const int32_t colour[3] = {args.color.b, args.color.g, args.color.r};
  for (int k = 0; k < 3; ++k) c[k] = static_cast<int32_t>(static_cast<float>(std::clamp(colour[k], 0, 255)) * l);
  c[3] = 0;
}

uint8_t* LightAt(SmartBuffer& light, int32_t x, int32_t y) { return RowPtr(light, y) + static_cast<ptrdiff_t>(x) * 4; }

}  // namespace

void PasteRowPlain(const uint8_t* s, uint8_t* d, int32_t count, const int32_t* c, int32_t mode) {
  if (mode == LIGHT_PASTE_CHANNELS) {
    for (int32_t i = 0; i < count; ++i, s += 4, d += 4) {
      for (int k = 0; k < 3; ++k) d[k] = static_cast<uint8_t>(std::min(255, d[k] + ((c[k] * s[k]) >> 8)));
    }
    return;
  }
  for (int32_t i = 0; i < count; ++i, s += 4, d += 4) {
    const int32_t intensity = ((s[0] + s[1] + s[2]) * kIntensityMul) >> 16;
    for (int k = 0; k < 3; ++k) d[k] = static_cast<uint8_t>(std::min(255, d[k] + ((c[k] * intensity) >> 8)));
  }
}

void MixRowPlain(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count) {
  for (int32_t i = 0; i < count * 4; ++i) out[i] = static_cast<uint8_t>((wa * a[i] + wb * b[i] + 128) >> 8);
}

int32_t RunPasteLight(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                      const Rect& shape_roi, PasteRowFn paste) {
  int32_t hr = CheckImages(shape, light);
  if (hr < 0) return hr;
  if (IsEmpty(shape_roi)) return S_OK;
  const PointI origin{pt_int.x - HalfSize(shape.d), pt_int.y - HalfSize(shape.d)};
  const Rect held = shape.Held();
  if (!RoiFits(shape_roi, shape.d, origin, light) ||
      !Holds(held, shape_roi.left, shape_roi.right, shape_roi.top, shape_roi.bottom)) {
    return E_INVALIDARG;
  }
  int32_t c[4];
  ChannelFactors(args, c);
  const int32_t count = shape_roi.right - shape_roi.left;
  for (int32_t y = shape_roi.top; y < shape_roi.bottom; ++y) {
    paste(HeldAt(shape.shape, held, shape_roi.left, y), LightAt(light, origin.x + shape_roi.left, origin.y + y), count,
          c, args.mode);
  }
  return S_OK;
}

int32_t RunBilinearPasteLight(LightShape& light_shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                              const Rect& shape_roi, PasteRowFn paste, MixRowFn mix) {
  int32_t hr = CheckImages(light_shape, light);
  if (hr < 0) return hr;
  const SmartBuffer& shape = light_shape.shape;
  SmartBuffer& tmp = light_shape.tmp;
  if (!tmp.data) return E_POINTER;
  if (!IsBgra(tmp)) return E_NOTIMPL;
  const int32_t d = light_shape.d;
  const Rect held = light_shape.Held();
  if (!RowsFit(tmp, 4) || tmp.width < RectWidth(held) + 1 || tmp.height < RectHeight(held) + 1) return E_INVALIDARG;
  PointI origin;
  int32_t wx = 0, wy = 0;
  if (!SubPixelOrigin(pt.x, d, origin.x, wx) || !SubPixelOrigin(pt.y, d, origin.y, wy)) return E_INVALIDARG;
  if (IsEmpty(shape_roi)) return S_OK;
  const int32_t x0 = shape_roi.left, x1 = shape_roi.right;
  const int32_t first_row = std::max(shape_roi.top - 1, 0), last_row = std::min(shape_roi.bottom, d);
  // The footprint pixels of shape_roi read shape columns x - 1 and x, rows
  // y - 1 and y: those must be held (tmp holds the same part, one larger).
  if (!RoiFits(shape_roi, d + 1, origin, light) ||
      !Holds(held, std::max(x0 - 1, 0), std::min(x1, d), first_row, last_row)) {
    return E_INVALIDARG;
  }

  // Footprint pixel (x, y) takes shape pixel (x, y) with weight (1 - fx)(1 - fy),
  // (x - 1, y) with fx (1 - fy), and so on: the shape's light moves on by the
  // fraction. First the horizontal mix of each needed shape row into the
  // same row of tmp, then the vertical mix in place from the bottom up (row
  // y reads row y - 1, not yet mixed). Rounded to bytes after each stage,
  // as both forms do.
  const int32_t inner0 = std::max(x0, 1), inner1 = std::min(x1, d);
  for (int32_t y = first_row; y < last_row; ++y) {
    if (inner1 > inner0) {
      mix(HeldAt(shape, held, inner0, y), HeldAt(shape, held, inner0 - 1, y), 256 - wx, wx,
          HeldAt(tmp, held, inner0, y), inner1 - inner0);
    }
    for (int k = 0; k < 4; ++k) {
      if (x0 == 0) HeldAt(tmp, held, 0, y)[k] = static_cast<uint8_t>(((256 - wx) * HeldAt(shape, held, 0, y)[k] + 128) >> 8);
      if (x1 == d + 1) {
        HeldAt(tmp, held, d, y)[k] = static_cast<uint8_t>((wx * HeldAt(shape, held, d - 1, y)[k] + 128) >> 8);
      }
    }
  }
  const int32_t count = x1 - x0;
  for (int32_t y = shape_roi.bottom - 1; y >= shape_roi.top; --y) {
    uint8_t* t = HeldAt(tmp, held, x0, y);
    // A missing row (above the shape or below it) takes weight 0 and any
    // valid pointer.
    const uint8_t* cur = y < d ? t : HeldAt(tmp, held, x0, y - 1);
    const uint8_t* above = y > 0 ? HeldAt(tmp, held, x0, y - 1) : t;
    mix(cur, above, y < d ? 256 - wy : 0, y > 0 ? wy : 0, t, count);
  }
  int32_t c[4];
  ChannelFactors(args, c);
  for (int32_t y = shape_roi.top; y < shape_roi.bottom; ++y) {
    paste(HeldAt(tmp, held, x0, y), LightAt(light, origin.x + x0, origin.y + y), count, c, args.mode);
  }
  return S_OK;
}

namespace {

int32_t CheckLightMapAdd(const LightMapAddParam& p, const Rect& band) {
  if (!p.base.data || !p.light.data || !p.dst.data) return E_POINTER;
  if (!IsBgra(p.base) || !IsBgra(p.light) || !IsBgra(p.dst)) return E_NOTIMPL;
  if (!RowsFit(p.base, 4) || !RowsFit(p.light, 4) || !RowsFit(p.dst, 4) || !SameSize(p.base, p.light) ||
      !RectInside(p.roi, p.base) || p.dst.width != RectWidth(p.roi) || p.dst.height != RectHeight(p.roi)) {
    return E_INVALIDARG;
  }
  if (band.left < p.roi.left || band.top < p.roi.top || band.right > p.roi.right || band.bottom > p.roi.bottom) {
    return E_INVALIDARG;
  }
  return S_OK;
}

}  // namespace

void AddRowPlain(const uint8_t* b, const uint8_t* l, uint8_t* o, int32_t count, const uint8_t* table) {
  if (table) {
    for (int32_t x = 0; x < count; ++x, b += 4, l += 4, o += 4) {
      for (int k = 0; k < 3; ++k) o[k] = static_cast<uint8_t>(std::min(255, b[k] + table[l[k]]));
      o[3] = b[3];
    }
    return;
  }
  for (int32_t x = 0; x < count; ++x, b += 4, l += 4, o += 4) {
    for (int k = 0; k < 3; ++k) o[k] = static_cast<uint8_t>(std::min(255, b[k] + l[k]));
    o[3] = b[3];
  }
}

int32_t RunImageAddLightMap(const LightMapAddParam& p, const Rect& band, AddRowFn row) {
  const int32_t hr = CheckLightMapAdd(p, band);
  if (hr < 0) return hr;
  for (int32_t y = band.top; y < band.bottom; ++y) {
    row(RowPtr(p.base, y) + static_cast<ptrdiff_t>(band.left) * 4,
        RowPtr(p.light, y) + static_cast<ptrdiff_t>(band.left) * 4,
        RowPtr(p.dst, y - p.roi.top) + static_cast<ptrdiff_t>(band.left - p.roi.left) * 4, band.right - band.left,
        p.table);
  }
  return S_OK;
}

}  // namespace lightpaste_detail

using namespace lightpaste_detail;

int32_t CalPasteLightROI(Rect& shape_roi, PointI pt, int32_t d, int32_t h, int32_t w) {
  if (d < 1 || h < 1 || w < 1) return E_INVALIDARG;
  const int32_t half = HalfSize(d);
  ClipSpan(pt.x - half, d, w, shape_roi.left, shape_roi.right);
  ClipSpan(pt.y - half, d, h, shape_roi.top, shape_roi.bottom);
  return S_OK;
}

Rect LightShapeWindow(int32_t d, int32_t map_w, int32_t map_h) {
  const int64_t half = HalfSize(d);
  const auto span = [&](int64_t extent, int32_t& lo, int32_t& hi) {
    lo = static_cast<int32_t>(std::max<int64_t>(0, half - extent - 2));
    hi = static_cast<int32_t>(std::min<int64_t>(d, half + extent + 2));
  };
  Rect w;
  span(map_w, w.left, w.right);
  span(map_h, w.top, w.bottom);
  return w;
}

int32_t CalBilinearPasteLightROI(Rect& shape_roi, PointI& origin, PointF pt, int32_t d, int32_t h, int32_t w) {
  if (d < 1 || h < 1 || w < 1) return E_INVALIDARG;
  int32_t wx, wy;
  if (!SubPixelOrigin(pt.x, d, origin.x, wx) || !SubPixelOrigin(pt.y, d, origin.y, wy)) return E_INVALIDARG;
  ClipSpan(origin.x, d + 1, w, shape_roi.left, shape_roi.right);
  ClipSpan(origin.y, d + 1, h, shape_roi.top, shape_roi.bottom);
  return S_OK;
}

int32_t PasteLight(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                   const Rect& shape_roi) {
  return RunPasteLight(shape, light, pt_int, args, shape_roi, PasteRowPlain);
}

int32_t BilinearPasteLight(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                           const Rect& shape_roi) {
  return RunBilinearPasteLight(shape, light, pt, args, shape_roi, PasteRowPlain, MixRowPlain);
}

int32_t ImageAddLightMap(const LightMapAddParam& p, const Rect& band) {
  return RunImageAddLightMap(p, band, AddRowPlain);
}

void CalLightAddTable(float strength, uint8_t table[256]) {
  strength = ClampStrength(strength);
  for (int32_t i = 0; i < 256; ++i) {
    // i x strength in float, the + 0.5 in double, as the SSE form does it.
    const int32_t v = static_cast<int32_t>(static_cast<float>(i) * strength + 0.5);
    table[i] = static_cast<uint8_t>(std::min(std::max(v, 0), 255));
  }
}

}  // namespace Korvane
