#include "core/LightMap.h"

#include <algorithm>
#include <cmath>

#include "core/BilinearResize.h"
#include "core/BilinearResizePlan.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"

namespace Korvane {

// --- Sizes --------------------------------------------------------------------

LightSize CalNormSize(int32_t width, int32_t height) {
  LightSize n;
  const float side = static_cast<float>(kLightNormLongSide);
  if (width <= height) {
    n.h = kLightNormLongSide;
    n.w = static_cast<int32_t>(static_cast<float>(width) * (side / static_cast<float>(height)));
  } else {
    n.w = kLightNormLongSide;
    n.h = static_cast<int32_t>(static_cast<float>(height) * (side / static_cast<float>(width)));
  }
  // A sliver of a photo still keeps one pixel across.
  n.w = std::max(n.w, 1);
  n.h = std::max(n.h, 1);
  return n;
}

int32_t CalLightMapScaleRatio(int32_t long_side, float& ratio) {
  if (long_side < 1) return E_INVALIDARG;
  if (long_side <= 640) {
    ratio = 1.0f;
  } else if (long_side < 5120) {
    const float t = static_cast<float>(long_side - 640) / 4480.0f;
    ratio = 1.0f - t + 0.25f * t;
  } else {
    ratio = 0.25f;
  }
  return S_OK;
}

LightSize CalScaledSize(LightSize photo, float ratio) {
  LightSize s;
  s.w = std::max(1, static_cast<int32_t>(static_cast<float>(photo.w) * ratio + 0.5f));
  s.h = std::max(1, static_cast<int32_t>(static_cast<float>(photo.h) * ratio + 0.5f));
  return s;
}

int32_t ResizeLightMapROI(const Rect& roi, Rect& scaled_roi, float ratio, LightSize scaled, int32_t margin) {
  if (!(ratio > 0.0f) || !(ratio <= 1.0f)) return E_INVALIDARG;
  const float m = static_cast<float>(margin);
  scaled_roi.left = std::max(0, static_cast<int32_t>(roi.left * ratio - m));
  scaled_roi.top = std::max(0, static_cast<int32_t>(roi.top * ratio - m));
  scaled_roi.right = std::min(static_cast<int32_t>(roi.right * ratio + m), scaled.w);
  scaled_roi.bottom = std::min(static_cast<int32_t>(roi.bottom * ratio + m), scaled.h);
  return S_OK;
}

PointF LightMapGeometry::FromNorm(int32_t x, int32_t y) const {
  const float k = static_cast<float>(LongSide()) / static_cast<float>(kLightNormLongSide);
  const float norm_cx = (norm.w - 1) * 0.5f, norm_cy = (norm.h - 1) * 0.5f;
  const float scaled_cx = (scaled.w - 1) * 0.5f, scaled_cy = (scaled.h - 1) * 0.5f;
  return PointF{(x - norm_cx) * k + scaled_cx, (y - norm_cy) * k + scaled_cy};
}

PointF LightMapGeometry::FromPhoto(float x, float y) const {
  return PointF{(x + 0.5f) * static_cast<float>(scaled.w) / photo.w - 0.5f,
                (y + 0.5f) * static_cast<float>(scaled.h) / photo.h - 0.5f};
}

// --- Regions ------------------------------------------------------------------

namespace {

bool Inside(const Rect& r, float x, float y) { return x >= r.left && x < r.right && y >= r.top && y < r.bottom; }

// Positions this far out are no light point of any map.
constexpr float kFarOut = 1073741824.0f;

}  // namespace

int32_t LightRegion::For(const Rect& roi, float ratio, LightSize scaled, int32_t mode, bool whole,
                         LightRegion& region) {
  region.map = Rect{0, 0, scaled.w, scaled.h};
  region.mode = mode;
  region.whole_pixels = whole;
  const bool reaching = mode == REGION_SHAPES_REACHING;
  const int32_t hr = ResizeLightMapROI(roi, region.area, ratio, scaled, reaching ? 2 : 1);
  if (hr < 0) return hr;
  // The render of the whole photo draws the points centred on the map.
  region.centres = reaching ? region.map : region.area;
  return S_OK;
}

bool LightRegion::Draws(PointF pt, int32_t d) const {
  if (!(std::fabs(pt.x) < kFarOut && std::fabs(pt.y) < kFarOut)) return false;
  const int32_t xi = static_cast<int32_t>(pt.x + 0.5f), yi = static_cast<int32_t>(pt.y + 0.5f);
  if (!Inside(centres, pt.x, pt.y) || !Inside(centres, static_cast<float>(xi), static_cast<float>(yi))) return false;
  if (mode != REGION_SHAPES_REACHING) return true;
  // The pixels either placement may touch: the shape's top-left lies at
  // floor(pt) - half or one on, and the sub-pixel footprint is d + 1 wide.
  const int32_t half = (d & ~1) / 2;
  const int32_t x0 = static_cast<int32_t>(std::floor(pt.x)) - half - 1, y0 = static_cast<int32_t>(std::floor(pt.y)) - half - 1;
  return x0 < area.right && x0 + d + 3 > area.left && y0 < area.bottom && y0 + d + 3 > area.top;
}

// --- Twinkling ----------------------------------------------------------------

TwinkleCurve::TwinkleCurve(int32_t samples, int32_t dark_before, float rise_step, int32_t rise_steps, float peak,
                           int32_t peak_count, float fall_step, int32_t fall_steps) {
  m_values.assign(static_cast<size_t>(dark_before), 0.0f);
  for (int32_t k = 1; k <= rise_steps; ++k) m_values.push_back(rise_step * k);
  m_values.insert(m_values.end(), static_cast<size_t>(peak_count), peak);
  for (int32_t k = fall_steps; k >= 1; --k) m_values.push_back(fall_step * k);
  m_values.resize(static_cast<size_t>(std::max(samples, 2)), 0.0f);
}

float TwinkleCurve::AtFrame(int32_t i, int32_t count) const {
  const int32_t samples = Samples();
  if (count < 1 || i < 0 || i >= count) return 0.0f;
  const float step = static_cast<float>(samples) / static_cast<float>(count);
  const float x = static_cast<float>(i) * step;
  const int32_t k = std::min(static_cast<int32_t>(x), samples - 2);
  const float f = x - static_cast<float>(k);
  return (1.0f - f) * m_values[static_cast<size_t>(k)] + f * m_values[static_cast<size_t>(k) + 1];
}

int32_t TwinkleFrameOffset(int32_t phase, int32_t samples, int32_t count, int32_t index, int32_t cycles) {
  if (count < 1 || samples < 1) return 0;
  const int32_t frame = std::min(
      static_cast<int32_t>(static_cast<float>(phase) * static_cast<float>(count) / static_cast<float>(samples) + 0.5f),
      count - 1);
  return static_cast<int32_t>((frame + static_cast<int64_t>(LoopFrame(index, count)) * cycles) % count);
}

float LightLevels::At(const LightPoint& p) const {
  if (steps) return steps[p.phase * step_count / curve->Samples()];
  if (frame_count > 0) return curve->AtFrame(p.frame_offset, frame_count);
  return (*curve)[p.phase];
}

bool LightLevels::LitInLoop(const LightPoint& p, int32_t cycles) const {
  if (steps || frame_count <= 0) return At(p) != 0.0f;
  // Over the loop the point shows the frames start + k g of the stretched
  // curve, g = gcd(cycles, count). Closer than a quarter of a curve sample
  // apart they cannot miss its lit stretch, which is wider than that.
  const int32_t count = frame_count;
  int64_t a = cycles > 0 ? cycles % count : 0, b = count;
  while (a != 0) {
    const int64_t t = b % a;
    b = a;
    a = t;
  }
  const int64_t g = b, shown = count / g;
  if (shown > 4 * static_cast<int64_t>(curve->Samples())) return true;
  const int32_t start = TwinkleFrameOffset(p.phase, curve->Samples(), count, 0, cycles);
  for (int64_t k = 0; k < shown; ++k) {
    if (curve->AtFrame(static_cast<int32_t>((start + k * g) % count), count) != 0.0f) return true;
  }
  return false;
}

// --- Colours --------------------------------------------------------------------

int32_t CalRandomColor(int32_t count, std::vector<uint32_t>& table) {
  if (count < 1) return E_INVALIDARG;
  table.resize(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    table[static_cast<size_t>(i)] = static_cast<uint32_t>(static_cast<int64_t>(i) * kLightHueTurn / count);
  }
  return S_OK;
}

const std::vector<uint32_t>& RandomHueTable() {
  static const std::vector<uint32_t> table = [] {
    std::vector<uint32_t> t;
    CalRandomColor(kLightRandomHueCount, t);
    return t;
  }();
  return table;
}

// --- Painting -------------------------------------------------------------------

int32_t LightMapPainter::Paste(LightShape& shape, PointF pt, const LightPasteArgs& args) const {
  const int32_t d = shape.d, h = m_light.height, w = m_light.width;
  Rect roi;
  int32_t hr;
  if (m_region.whole_pixels) {
    const PointI pt_int{static_cast<int32_t>(pt.x + 0.5f), static_cast<int32_t>(pt.y + 0.5f)};
    if ((hr = LogCall(m_names.roi_call, CalPasteLightROI(roi, pt_int, d, h, w))) < 0) return hr;
    if (IsEmpty(roi)) return S_OK;
    return LogKernelCall(m_names.paste_call, m_names.paste.name, m_names.paste.fn(shape, m_light, pt_int, args, roi));
  }
  PointI origin;
  if ((hr = LogCall(m_names.bilinear_roi_call, CalBilinearPasteLightROI(roi, origin, pt, d, h, w))) < 0) return hr;
  if (IsEmpty(roi)) return S_OK;
  return LogKernelCall(m_names.bilinear_paste_call, m_names.bilinear_paste.name,
                       m_names.bilinear_paste.fn(shape, m_light, pt, args, roi));
}

// --- Images and the finished map ----------------------------------------------------

int32_t ResizeShape(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, LightShape& shape) {
  const Rect held = shape.Held();
  int32_t hr;
  if (!shape.shape.data || !from.data) return E_POINTER;
  if (!RectInside(held, shape.d, shape.d) || shape.shape.width != RectWidth(held) ||
      shape.shape.height != RectHeight(held)) {
    return E_INVALIDARG;
  }
  if (RectWidth(held) == shape.d && RectHeight(held) == shape.d) return ResizeBuffer(adapter, info, from, shape.shape);
  // The resize's own tables for the held part of a d x d destination (the
  // destination image is only measured, never written), then its two
  // interpolations into the part.
  ResizeParam rp;
  rp.src = from;
  rp.src_roi = FullRect(from);
  rp.dst = shape.shape;
  rp.dst.width = rp.dst.height = shape.d;
  rp.dst.stride = shape.d * 4;
  resize_detail::ResizePlan plan;
  if ((hr = resize_detail::PlanResize(rp, held, 4, false, &plan)) < 0) return hr;
  using resize_detail::Lerp8;
  for (int32_t dy = held.top; dy < held.bottom; ++dy) {
    const int32_t iy = dy - plan.y_begin;
    const uint8_t* r0 = plan.src + plan.y0[iy] * plan.src_stride;
    const uint8_t* r1 = plan.src + plan.y1[iy] * plan.src_stride;
    uint8_t* out = RowPtr(shape.shape, dy - held.top);
    for (int32_t dx = held.left; dx < held.right; ++dx, out += 4) {
      const int32_t ix = dx - plan.x_begin;
      const uint8_t *a = r0 + plan.x0[ix], *b = r0 + plan.x1[ix], *c = r1 + plan.x0[ix], *e = r1 + plan.x1[ix];
      for (int k = 0; k < 4; ++k) {
        out[k] = static_cast<uint8_t>(
            Lerp8(Lerp8(a[k], b[k], plan.fx[ix]), Lerp8(c[k], e[k], plan.fx[ix]), plan.fy[iy]));
      }
    }
  }
  return S_OK;
}

int32_t ResizeBuffer(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, SmartBuffer& to) {
  ResizeParam rp;
  rp.src = from;
  rp.dst = to;
  rp.src_roi = FullRect(from);
  return RunBilinearResize(adapter, info, rp, FullRect(to));
}

int32_t RunLightMapEnlargeAdd(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& scaled,
                              const Rect& scaled_roi, LightMapAddParam& add, const LightMapAddSteps& steps,
                              int32_t* failed_step) {
  ResizeParam up;
  up.src = scaled;
  up.dst = add.light;
  up.src_roi = scaled_roi;
  RowPipeline chain(16);
  chain.Then(steps.upsample, PickBilinearResize(info, PIXEL_BGRA32).fn, &up)
      .Then(steps.add, PickLightMapAdd(info).fn, &add);
  const int32_t hr = chain.Run(adapter, add.roi);
  if (failed_step) *failed_step = hr < 0 ? std::max(chain.FailedStep(), 0) : -1;
  return hr;
}

}  // namespace Korvane
