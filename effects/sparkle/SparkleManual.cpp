// The sparkle shapes and the sparkles the caller places, moves, re-shapes
// and removes.
#include <algorithm>
#include <cmath>
#include <new>

#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"
#include "effects/sparkle/SparkleAnime.h"
#include "effects/sparkle/SparkleEffect.h"

namespace Korvane {

namespace {

// The checks of a manual shape record, in the library's order.
int32_t CheckManualShape(const SparkleShape* shape) {
  if (!shape) return E_POINTER;
  const int32_t hr = CheckImage(shape->image, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (shape->image.width != SPK_SIZE || shape->image.height != SPK_SIZE || shape->type_id < 2) return E_INVALIDARG;
  return S_OK;
}

bool Near(float ax, float ay, float bx, float by, float r) { return (ax - bx) * (ax - bx) + (ay - by) * (ay - by) <= r * r; }

}  // namespace

int32_t SparkleEffect::CheckPoints(const SparklePoint* points, int32_t count, bool positive_scale) const {
  // Positions are photo pixels: a point must lie on the photo (so none
  // can overflow a conversion to a pixel later), its scale be finite.
  const float w = static_cast<float>(m_img_size.w), h = static_cast<float>(m_img_size.h);
  for (int32_t i = 0; i < count; ++i) {
    const SparklePoint& p = points[i];
    if (!(p.x >= 0.0f && p.x < w && p.y >= 0.0f && p.y < h) || !(p.scale <= kSparkleMaxScale) ||
        (positive_scale ? !(p.scale > 0.0f) : !std::isfinite(p.scale))) {
      return E_INVALIDARG;
    }
  }
  return S_OK;
}

int32_t SparkleEffect::CopyShape(const ImageBuffer& shape, SparkleType& type, bool manual) {
  int32_t hr;
  if (!type.shape.data &&
      LogCall(manual ? "CreateSmartBufferData(manual_sparkle_type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)"
                     : "CreateSmartBufferData(m_auto_sparkle_type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)",
              CreateSmartBufferData(type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)) < 0) {
    type.shape = SmartBuffer();
    return E_OUTOFMEMORY;
  }
  const SmartBuffer view = SmartBufferView(shape);
  if (shape.width == SPK_SIZE && shape.height == SPK_SIZE) {
    hr = LogCall(manual ? "CopySmartBufferData(shape, manual_sparkle_type.shape)"
                        : "CopySmartBufferData(shape, m_auto_sparkle_type.shape)",
                 CopySmartBufferData(view, type.shape));
  } else {
    // Another size: halved while more than twice too large, then resized.
    ShapePyramid pyramid;
    if ((hr = pyramid.Build(view)) >= 0) {
      hr = LogStep("ResizeBuffer", ResizeBuffer(m_thread_adapter, m_system_info, pyramid.LevelFor(SPK_SIZE), type.shape));
    }
  }
  if (hr < 0) {
    type.shape = SmartBuffer();
    return hr;
  }
  type.generation = ++m_generation;
  return S_OK;
}

int32_t SparkleEffect::SetAutoSparkleShape(const ImageBuffer* shape) {
  const int32_t hr = CheckImage(shape, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (shape->width > kMaxImageSide || shape->height > kMaxImageSide) return E_INVALIDARG;
  try {
    m_auto_default = SHAPE_NONE;  // the caller's shape from now on
    return CopyShape(*shape, m_auto_sparkle_type, false);
  } catch (const std::bad_alloc& e) {
    DebugLog("SetAutoSparkleShape - %s caught!", e.what());
    m_auto_sparkle_type = SparkleType();
    return E_OUTOFMEMORY;
  }
}

int32_t SparkleEffect::SetManualSparkleShape(const SparkleShape* shape) {
  const int32_t hr = CheckManualShape(shape);
  if (hr < 0) return hr;
  try {
    return CopyShape(shape->image, m_manual_types[shape->type_id], true);
  } catch (const std::bad_alloc& e) {
    DebugLog("SetManualSparkleShape - %s caught!", e.what());
    m_manual_types.erase(shape->type_id);
    return E_OUTOFMEMORY;
  }
}

int32_t SparkleEffect::AddManualSparkles(const SparklePoint* points, int32_t count, const SparkleShape* shape) {
  if (!points || !shape || !shape->image.data) return E_POINTER;
  int32_t hr = CheckManualShape(shape);
  if (hr < 0) return hr;
  if (count < 0 || (hr = CheckPoints(points, count, true)) < 0) return E_INVALIDARG;
  if (m_max_manual_count != -1 &&
      static_cast<int64_t>(m_manual_sparkles.size()) + count > static_cast<int64_t>(m_max_manual_count)) {
    return 1;
  }
  try {
    if ((hr = CopyShape(shape->image, m_manual_types[shape->type_id], true)) < 0) {
      m_manual_types.erase(shape->type_id);
      return hr;
    }
    m_manual_sparkles.reserve(m_manual_sparkles.size() + static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
      // Drawn as a found light point is, from a generator seeded with the
      // sparkle's insertion number.
      const LightPoint drawn = DrawLightPoint(m_manual_serial++, SparkleTwinkle().Samples(), kLightRandomHueCount);
      ManualSparkle s;
      s.x = points[i].x;
      s.y = points[i].y;
      s.scale = points[i].scale;
      s.type_id = shape->type_id;
      s.phase = drawn.phase;
      s.random = drawn.random;
      s.color_index = drawn.color_index;
      m_manual_sparkles.push_back(s);
    }
  } catch (const std::bad_alloc& e) {
    DebugLog("AddManualSparkles - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

int32_t SparkleEffect::SetMaxManualSparkleCount(int32_t n) {
  if (n < -1) return E_INVALIDARG;
  m_max_manual_count = n;
  return S_OK;
}

int32_t SparkleEffect::UpdateManualSparkles(const SparklePoint* points, int32_t count, int32_t value) {
  if (!points) return E_POINTER;
  if (count < 0 || value < 0 || value > 0xFFFF) return E_INVALIDARG;
  if (value == SPARKLE_MOVE && count % 2 != 0) return E_INVALIDARG;
  if (value >= 2 && m_manual_types.find(static_cast<uint16_t>(value)) == m_manual_types.end()) return E_INVALIDARG;
  if (CheckPoints(points, count, false) < 0) return E_INVALIDARG;
  // Pick radius: half the largest drawn size, in photo pixels.
  const float pick = 0.015f * static_cast<float>(std::max(m_img_size.w, m_img_size.h));
  auto radius = [&](float scale) { return std::max(2.0f, pick * scale); };
  int32_t changed = 0;
  if (value == SPARKLE_MOVE) {
    for (int32_t i = 0; i + 1 < count; i += 2) {
      const SparklePoint& from = points[i];
      ManualSparkle* best = nullptr;
      float best_d = 0.0f;
      for (ManualSparkle& s : m_manual_sparkles) {
        const float d = (s.x - from.x) * (s.x - from.x) + (s.y - from.y) * (s.y - from.y);
        if (Near(s.x, s.y, from.x, from.y, radius(s.scale)) && (!best || d < best_d)) {
          best = &s;
          best_d = d;
        }
      }
      if (!best) continue;
      best->x = points[i + 1].x;
      best->y = points[i + 1].y;
      if (points[i + 1].scale > 0.0f) best->scale = points[i + 1].scale;
      ++changed;
    }
    return changed;
  }
  auto at_any = [&](float x, float y, float r) {
    for (int32_t i = 0; i < count; ++i)
      if (Near(x, y, points[i].x, points[i].y, r)) return true;
    return false;
  };
  if (value != SPARKLE_REMOVE) {
    for (ManualSparkle& s : m_manual_sparkles) {
      if (s.type_id != value && at_any(s.x, s.y, radius(s.scale))) {
        s.type_id = static_cast<uint16_t>(value);
        ++changed;
      }
    }
    return changed;
  }
  const size_t before = m_manual_sparkles.size();
  m_manual_sparkles.erase(std::remove_if(m_manual_sparkles.begin(), m_manual_sparkles.end(),
                                         [&](const ManualSparkle& s) { return at_any(s.x, s.y, radius(s.scale)); }),
                          m_manual_sparkles.end());
  changed = static_cast<int32_t>(before - m_manual_sparkles.size());
  if (m_norm_img_size.w < 1 || m_norm_img_size.h < 1) return changed;
  // Automatic sparkles sit at pixels of the detection copy; their photo
  // position is the centre of the pixel scaled back.
  const float sx = static_cast<float>(m_img_size.w) / m_norm_img_size.w;
  const float sy = static_cast<float>(m_img_size.h) / m_norm_img_size.h;
  for (auto& kv : m_auto_sparkle_list) {
    LightPoint& p = kv.second;
    if (p.enabled && at_any((p.x + 0.5f) * sx - 0.5f, (p.y + 0.5f) * sy - 0.5f, radius(1.0f))) {
      p.enabled = 0;
      ++changed;
    }
  }
  return changed;
}

}  // namespace Korvane
