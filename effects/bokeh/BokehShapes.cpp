// The bokeh disc variants: the caller's shape turned, softened and resized
// to ten sizes, and the size each light point takes from the blur mask.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "core/BandTask.h"
#include "core/BoxBlur.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"
#include "effects/bokeh/BokehEffect.h"

namespace Korvane {

namespace {

// Bilinear rotation of a BGRA32 image about its centre into one of the
// same size; pixels that come from outside are transparent black.
void RotateRows(const SmartBuffer& src, SmartBuffer& dst, float degrees, int32_t top, int32_t bottom) {
  const float rad = degrees * 3.14159265f / 180.0f;
  const float c = std::cos(rad), s = std::sin(rad);
  const float cx = (src.width - 1) * 0.5f, cy = (src.height - 1) * 0.5f;
  for (int32_t y = top; y < bottom; ++y) {
    uint8_t* out = RowPtr(dst, y);
    for (int32_t x = 0; x < dst.width; ++x, out += 4) {
      const float dx = x - cx, dy = y - cy;
      const float sx = c * dx + s * dy + cx, sy = -s * dx + c * dy + cy;
      const float fx0 = std::floor(sx), fy0 = std::floor(sy);
      const int32_t x0 = static_cast<int32_t>(fx0), y0 = static_cast<int32_t>(fy0);
      const float fx = sx - fx0, fy = sy - fy0;
      float acc[4] = {0, 0, 0, 0};
      const float wts[4] = {(1 - fx) * (1 - fy), fx * (1 - fy), (1 - fx) * fy, fx * fy};
      for (int32_t k = 0; k < 4; ++k) {
        const int32_t xx = x0 + (k & 1), yy = y0 + (k >> 1);
        if (xx < 0 || yy < 0 || xx >= src.width || yy >= src.height || wts[k] == 0.0f) continue;
        const uint8_t* p = RowPtr<const uint8_t>(src, yy) + 4 * xx;
        for (int ch = 0; ch < 4; ++ch) acc[ch] += wts[k] * p[ch];
      }
      for (int ch = 0; ch < 4; ++ch) out[ch] = static_cast<uint8_t>(std::min(255.0f, acc[ch] + 0.5f));
    }
  }
}

}  // namespace

std::array<int32_t, BokehEffect::kSizeCount> BokehEffect::CalBokehSizes(float size_blend, int32_t long_side) {
  const float t = size_blend;
  const float f = (1.0f - t) * kMinSizeFactor + t * kMaxSizeFactor;
  const float a = f * kMinSizeRatio, b = f * kMaxSizeRatio;
  // Divided by the step count but multiplied by one less: the largest disc
  // is a + 0.9 (b - a), deliberately.
  const float step = (b - a) / kSizeSteps;
  std::array<int32_t, kSizeCount> sizes{};
  for (int32_t i = 0; i < kSizeCount; ++i) {
    const float u = static_cast<float>(i) / (kSizeCount - 1);
    int32_t s = static_cast<int32_t>((a + 9.0f * step * u * (2.0f - u)) * static_cast<float>(long_side));
    if (s % 2 == 0) ++s;  // odd sizes have a centre pixel
    sizes[static_cast<size_t>(i)] = std::max(s, 1);
  }
  return sizes;
}

int32_t BokehEffect::CalSizeID(int32_t mask_value, int32_t source_mode, float focus_value) {
  constexpr int32_t step = 128 / (kSizeCount - 1);  // 14
  int32_t v = mask_value, o = 0;
  if (source_mode == 3) {
    v = 255 - v;
    // Clamped as a float first: beyond +-1024 every identifier is out of
    // range either way, so the clamp changes no result and nothing overflows.
    const float offset = (1.0f - focus_value) * 255.0f;
    o = std::isfinite(offset) ? static_cast<int32_t>(std::max(-1024.0f, std::min(1024.0f, offset))) : 0;
  }
  // Below the middle of the mask the identifier is negative (no disc); with
  // an offset, values below it count upward again.
  return (std::abs(v - o) - 127) / step;
}

int32_t BokehEffect::BokehProcess() {
  // The variants of the last frame serve while nothing they depend on changed.
  if (m_types_ready && m_has_prev && m_shape_param.size_blend == m_prev_shape_param.size_blend &&
      m_shape_param.rotation == m_prev_shape_param.rotation && m_shape_param.shape_changed == 0 &&
      !m_builtin_redrawn &&
      m_param.rebuild_shapes == 0 && m_types_map.w == m_scaled_img_size.w && m_types_map.h == m_scaled_img_size.h &&
      m_rotated_shape.width == m_bok_size.w && m_rotated_shape.height == m_bok_size.h) {
    return S_OK;
  }
  m_types_ready = false;
  int32_t hr;
  if ((hr = LogStep("InitRotatedBokehType", InitRotatedBokehType())) < 0 ||
      (hr = LogStep("InitMultiScaledBokehType", InitMultiScaledBokehType())) < 0 ||
      (hr = LogStep("InitTempBokehType", InitTempBokehType())) < 0) {
    return hr;
  }
  m_types_ready = true;
  m_types_map = m_scaled_img_size;
  return S_OK;
}

int32_t BokehEffect::InitRotatedBokehType() {
  const int32_t w = m_bok_size.w, h = m_bok_size.h;
  SmartBuffer shape;
  int32_t hr;
  if (KORVANE_FAILED(CreateSmartBufferData(shape, w, h, PIXEL_BGRA32))) return hr;
  const float angle = std::isfinite(m_shape_param.rotation) ? std::fmod(m_shape_param.rotation, 360.0f) : 0.0f;
  if (angle == 0.0f) {
    // A whole turn gives the shape back exactly.
    for (int32_t y = 0; y < h; ++y) std::memcpy(RowPtr(shape, y), RowPtr(m_shape_copy, y), 4u * w);
  } else {
    const SmartBuffer& from = m_shape_copy;
    hr = RunBands(m_thread_adapter, FullRect(shape), [&](const Rect& band) {
      RotateRows(from, shape, angle, band.top, band.bottom);
      return S_OK;
    });
    if (hr < 0) return hr;
  }
  m_rotated_shape = shape;
  return S_OK;
}

int32_t BokehEffect::InitMultiScaledBokehType() {
  const float t = m_shape_param.size_blend;
  const std::array<int32_t, kSizeCount> scale_list = CalBokehSizes(t, std::max(m_scaled_img_size.w, m_scaled_img_size.h));
  int32_t hr;
  SmartBuffer blur_shape;
  if (KORVANE_FAILED(CreateSmartBufferData(blur_shape, m_bok_size.w, m_bok_size.h, PIXEL_BGRA32))) return hr;
  for (int32_t y = 0; y < m_bok_size.h; ++y) {
    std::memcpy(RowPtr(blur_shape, y), RowPtr(m_rotated_shape, y), 4u * m_bok_size.w);
  }
  // Soften the lens shape before scaling it down; the same radius at both
  // ends of the blend, so the blend does not change it. The width is at most
  // kMaxImageSide, so the product stays far inside the int range.
  const int32_t r = static_cast<int32_t>(m_bok_size.w * 16 / kShapeBlurBase);
  BoxBlurParam blur;
  blur.src = MapView(blur_shape, FullRect(blur_shape));
  blur.radius = static_cast<int32_t>((1.0f - t) * r + t * r);
  if ((hr = RunBoxBlur(m_thread_adapter, m_system_info, blur, FullRect(blur_shape), 2)) < 0) return hr;
  for (int32_t i = 0; i < kSizeCount; ++i) {
    // Each variant keeps only the part that can land on the light map: all
    // of it unless the map is narrower or lower than the disc.
    LightShape& scaled_bokeh_type = m_bokeh_types[static_cast<size_t>(i)];
    scaled_bokeh_type.d = scale_list[i];
    scaled_bokeh_type.window = LightShapeWindow(scale_list[i], m_scaled_img_size.w, m_scaled_img_size.h);
    const Rect held = scaled_bokeh_type.Held();
    SmartBuffer& scaled_shape = scaled_bokeh_type.shape;
    if ((hr = LogCall("CreateSmartBufferData(scaled_shape, scale_list[i], scale_list[i], PIXEL_BGRA32)",
                      CreateSmartBufferData(scaled_shape, RectWidth(held), RectHeight(held), PIXEL_BGRA32))) < 0 ||
        (hr = LogCall("ResizeBuffer(blur_shape, scaled_bokeh_type.shape)",
                      ResizeShape(m_thread_adapter, m_system_info, blur_shape, scaled_bokeh_type))) < 0) {
      return hr;
    }
  }
  return S_OK;
}

int32_t BokehEffect::InitTempBokehType() {
  int32_t hr;
  for (LightShape& bokeh_type : m_bokeh_types) {
    // One pixel larger each way: the sub-pixel paste spreads the shape over it.
    if ((hr = LogCall("CreateSmartBufferData(tmp_bokeh_type.shape, bokeh_type.shape.width, "
                      "bokeh_type.shape.height, PIXEL_BGRA32)",
                      CreateSmartBufferData(bokeh_type.tmp, bokeh_type.shape.width + 1, bokeh_type.shape.height + 1,
                                            PIXEL_BGRA32))) < 0) {
      return hr;
    }
  }
  return S_OK;
}

int32_t BokehEffect::InitBokehListSizeID() {
  const bool from_focus = m_param.bokeh_source_mode == 1 || m_param.bokeh_source_mode == 2;
  const SmartBuffer& reference = from_focus ? m_focus_src_mask : m_blur_mask;
  SmartBuffer norm_blur_mask;
  int32_t hr;
  if (KORVANE_FAILED(CreateSmartBufferData(norm_blur_mask, m_norm_img_size.w, m_norm_img_size.h, PIXEL_GRAY8))) {
    return hr;
  }
  if (reference.data) {
    if ((hr = LogStep("ResizeBuffer", ResizeBuffer(m_thread_adapter, m_system_info, reference, norm_blur_mask))) < 0) {
      return hr;
    }
  } else {
    // No mask: the whole photo is background.
    FillMap(norm_blur_mask, 255);
  }
  for (auto& [key, p] : m_bokeh_list) {
    (void)key;
    p.size_id =
        CalSizeID(RowPtr<const uint8_t>(norm_blur_mask, p.y)[p.x], m_param.bokeh_source_mode, m_param.focus_value);
  }
  return S_OK;
}

}  // namespace Korvane
