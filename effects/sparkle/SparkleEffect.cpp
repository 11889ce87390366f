#include "effects/sparkle/SparkleEffect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <set>

#include "core/BandTask.h"
#include "core/BilinearResize.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/Random.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"
#include "effects/sparkle/SparkleAnime.h"
#include "effects/sparkle/SparkleColor.h"

namespace Korvane {

namespace {

// Logs a failed call under the text given (the call as the effect names it).
int32_t Logged(int32_t hr, const char* text) {
  if (hr < 0) KORVANE_LOG_FAILED_CALL(text, hr);
  return hr;
}

int32_t Step(int32_t hr, const char* name) {
  if (hr < 0) KORVANE_LOG_FAILED_STEP(name, hr);
  return hr;
}

bool FastMode(int32_t quality_mode) { return quality_mode == 2 || quality_mode == 3; }

bool Finite(float v) { return std::isfinite(v); }

int32_t CheckRender(const SparkleRenderParam& r) {
  if (r.color_mode < SPARKLE_COLOR_WHITE || r.color_mode > SPARKLE_COLOR_RANDOM) return E_INVALIDARG;
  if (!(r.amount >= 0.0f && r.amount <= 1.0f)) return E_INVALIDARG;
  if (!(r.saturation >= -1.0f && r.saturation <= 1.0f)) return E_INVALIDARG;
  if (!(r.brightness >= -1.0f && r.brightness <= 1.0f)) return E_INVALIDARG;
  if (!Finite(r.rotation) || !(r.size > 0.0f && r.size <= kSparkleMaxScale)) return E_INVALIDARG;
  if (r.twinkle_cycles < 1) return E_INVALIDARG;
  return S_OK;
}

// The checks of a manual shape record, in the library's order.
int32_t CheckManualShape(const SparkleShape* shape) {
  if (!shape) return E_POINTER;
  const int32_t hr = CheckImage(shape->image, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (shape->image.width != SPK_SIZE || shape->image.height != SPK_SIZE || shape->type_id < 2) return E_INVALIDARG;
  return S_OK;
}

bool InsideRoi(const Rect& r, float x, float y) {
  const int32_t xi = static_cast<int32_t>(x + 0.5f), yi = static_cast<int32_t>(y + 0.5f);
  return x >= r.left && x < r.right && y >= r.top && y < r.bottom && xi >= r.left && xi < r.right &&
         yi >= r.top && yi < r.bottom;
}

bool PointOk(const SparklePoint& p) { return Finite(p.x) && Finite(p.y) && Finite(p.scale); }

}  // namespace

SparkleEffect::SparkleEffect(CThreadPool* pool) : EffectCore(pool) {
  for (int32_t i = 0; i < 11; ++i) m_skip_table[i] = static_cast<float>(i) / 11.0f;
}

SparkleEffect::~SparkleEffect() { ReleaseBuffer(); }

// ---------------------------------------------------------------------------
// Settings and sizes

LightPointSettings SparkleEffect::DetectionSettings(int32_t quality_mode) {
  LightPointSettings s;
  if (FastMode(quality_mode)) {
    s.radius = LightPointRadius(kNormLongSide, 2.0f);
    s.threshold = 25.5f;
  } else {
    s.radius = 4;
    s.threshold = 2.55f;
  }
  return s;
}

float SparkleEffect::SkipThreshold(int32_t quality_mode, float amount) const {
  if (!FastMode(quality_mode)) return 1.0f - amount;
  const int32_t i = static_cast<int32_t>((1.0f - amount) * 11.0f);
  return m_skip_table[std::min(std::max(i, 0), 10)];
}

bool SparkleEffect::Shown(int32_t quality_mode, float amount, float random) const {
  return !(SkipThreshold(quality_mode, amount) > random);
}

int32_t SparkleEffect::AutoGlintSize(int32_t i, float size, int32_t s) {
  const float f = 0.01f + (0.03f - 0.01f) * static_cast<float>(i) / (kSizeCount - 1);
  return OddShapeSize(std::min(size * f, 0.03f * kSparkleMaxScale) * static_cast<float>(s));
}

int32_t SparkleEffect::ManualGlintSize(float scale, float size, int32_t s) {
  const float length = 0.03f * std::min(scale * size, kSparkleMaxScale) * static_cast<float>(s);
  if (!(length > 3.0f)) return OddShapeSize(length);
  // Lengths snap to steps of 5 %: placed glints of nearly the same scale
  // share one prepared shape, which bounds the shapes kept for many glints.
  const float step = std::log(1.05f);
  return OddShapeSize(std::exp(std::round(std::log(length) / step) * step));
}

float SparkleEffect::Lightness(int32_t phase, int32_t frame_offset) const {
  if (FastMode(m_param.quality_mode)) return m_fixed_lightness[phase * 11 / kSparkleCurveLength];
  if (m_param.twinkle) return m_twinkle_table[static_cast<size_t>(frame_offset)];
  return SparkleTwinkleCurve()[static_cast<size_t>(phase)];
}

// ---------------------------------------------------------------------------
// Source and lists

int32_t SparkleEffect::SetSource(const ImageBuffer* src) {
  int32_t hr = CheckImage(src, PIXEL_BGRA32);
  if (hr < 0) return hr;
  m_source_set = false;
  m_auto_sparkle_list.clear();
  try {
    m_img_size_w = src->width;
    m_img_size_h = src->height;
    // The longer side becomes 640, small photos included.
    const float f = static_cast<float>(m_norm_long_side) / static_cast<float>(std::max(src->width, src->height));
    if (src->width <= src->height) {
      m_norm_img_size_h = m_norm_long_side;
      m_norm_img_size_w = std::max(1, static_cast<int32_t>(static_cast<float>(src->width) * f));
    } else {
      m_norm_img_size_w = m_norm_long_side;
      m_norm_img_size_h = std::max(1, static_cast<int32_t>(static_cast<float>(src->height) * f));
    }
    if ((hr = Logged(CreateSmartBufferData(m_norm_src_buff, m_norm_img_size_w, m_norm_img_size_h, PIXEL_BGRA32),
                     "CreateSmartBufferData(m_norm_src_buff, m_norm_img_size.w, m_norm_img_size.h, PIXEL_BGRA32)")) <
        0) {
      return hr;
    }
    ResizeParam rp;
    rp.src = SmartBufferView(*src);
    rp.dst = m_norm_src_buff;
    rp.src_roi = FullRect(*src);
    if ((hr = Step(RunBilinearResize(m_thread_adapter, m_system_info, rp, FullRect(m_norm_src_buff)),
                   "ResizeBuffer")) < 0) {
      return hr;
    }
    if ((hr = DetectAutoSparkles(1)) < 0) return hr;
  } catch (const std::bad_alloc& e) {
    DebugLog("SetSource - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  m_source_set = true;
  return S_OK;
}

int32_t SparkleEffect::DetectAutoSparkles(int32_t quality_mode) {
  int32_t hr;
  if ((hr = Step(DetectLightPoints(m_thread_adapter, m_system_info, m_norm_src_buff, DetectionSettings(quality_mode),
                                   m_auto_sparkle_map),
                 "InitAutoSparkleMap")) < 0) {
    return hr;
  }
  if (KORVANE_FAILED(InitAutoSparkleList(m_auto_sparkle_map))) return hr;
  m_detected_fine = FastMode(quality_mode);
  return S_OK;
}

int32_t SparkleEffect::InitAutoSparkleList(const SmartBuffer& map) {
  const int32_t hr = InitLightPointList(map, kSparkleCurveLength, kColorCount, m_auto_sparkle_list);
  if (hr < 0) return hr;
  // The glint's size follows its random float: as the amount grows from 0
  // the largest glints appear first and smaller ones fill in.
  for (auto& kv : m_auto_sparkle_list) {
    kv.second.size_id = std::min(kSizeCount - 1, static_cast<int32_t>(kv.second.random * kSizeCount));
  }
  return S_OK;
}

int32_t SparkleEffect::ShowAllAutoSparkles() {
  for (auto& kv : m_auto_sparkle_list) kv.second.enabled = 1;
  return S_OK;
}

int32_t SparkleEffect::ResetSparkleList() {
  m_auto_sparkle_list.clear();
  m_manual_sparkles.clear();
  m_manual_serial = 0;
  return S_OK;
}

int32_t SparkleEffect::ReleaseAllSparkleTypesBuff() {
  m_auto_sparkle_type = SparkleType();
  m_manual_types.clear();
  m_manual_cache.clear();
  m_auto_spk_dst = SmartBuffer();
  m_auto_pyramid = ShapePyramid();
  m_auto_pyramid_generation = 0;
  for (auto& v : m_auto_variants) v = SparkleVariant();
  m_auto_key = AutoKey();
  return S_OK;
}

int32_t SparkleEffect::ResetSparkleTypes() { return ReleaseAllSparkleTypesBuff(); }

int32_t SparkleEffect::ReleaseBuffer() {
  int32_t hr;
  if (KORVANE_FAILED(ReleaseAllSparkleTypesBuff()) || KORVANE_FAILED(ResetSparkleList())) return hr;
  m_source_set = false;
  m_norm_src_buff = SmartBuffer();
  m_auto_sparkle_map = SmartBuffer();
  m_light_buff = SmartBuffer();
  m_auto_scaled_light_buff = SmartBuffer();
  m_manu_scaled_light_buff = SmartBuffer();
  m_buff_w = m_buff_h = 0;
  m_buff_ratio = 0.0f;
  m_img_size_w = m_img_size_h = 0;
  m_max_manual_count = -1;
  return S_OK;
}

int32_t SparkleEffect::GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set) return E_FAIL;
  return CopyLightPoints(m_auto_sparkle_list, m_norm_img_size_w, m_norm_img_size_h, kSparkleCurveLength, summary,
                         points, capacity);
}

// ---------------------------------------------------------------------------
// Shapes and manual sparkles

int32_t SparkleEffect::CopyShape(const ImageBuffer& shape, SparkleType& type, bool manual) {
  int32_t hr;
  if (!type.shape.data) {
    if (Logged(CreateSmartBufferData(type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32),
               manual ? "CreateSmartBufferData(manual_sparkle_type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)"
                      : "CreateSmartBufferData(m_auto_sparkle_type.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)") < 0) {
      type.shape = SmartBuffer();
      return E_OUTOFMEMORY;
    }
  }
  const SmartBuffer view = SmartBufferView(shape);
  if (shape.width == SPK_SIZE && shape.height == SPK_SIZE) {
    hr = Logged(CopySmartBufferData(view, type.shape), manual ? "CopySmartBufferData(shape, manual_sparkle_type.shape)"
                                                               : "CopySmartBufferData(shape, m_auto_sparkle_type.shape)");
  } else {
    // Another size: halved while more than twice too large, then resized.
    ShapePyramid pyramid;
    if ((hr = pyramid.Build(view)) >= 0) {
      ResizeParam rp;
      rp.src = pyramid.LevelFor(SPK_SIZE);
      rp.dst = type.shape;
      rp.src_roi = FullRect(rp.src);
      hr = Step(RunBilinearResize(m_thread_adapter, m_system_info, rp, FullRect(type.shape)), "ResizeBuffer");
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
  try {
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
  if (count < 0) return E_INVALIDARG;
  for (int32_t i = 0; i < count; ++i) {
    if (!PointOk(points[i]) || !(points[i].scale > 0.0f && points[i].scale <= kSparkleMaxScale)) return E_INVALIDARG;
  }
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
      // Each sparkle draws from its own generator, seeded with its insertion
      // number, in the order of the automatic list: phase, random, colour.
      Mt19937 gen(m_manual_serial++);
      ManualSparkle s;
      s.x = points[i].x;
      s.y = points[i].y;
      s.scale = points[i].scale;
      s.type_id = shape->type_id;
      s.phase = static_cast<int32_t>(DrawIndex(gen, kSparkleCurveLength));
      s.random = DrawUnit(gen);
      s.color_index = static_cast<int32_t>(DrawIndex(gen, kColorCount));
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
  for (int32_t i = 0; i < count; ++i) {
    if (!PointOk(points[i]) || points[i].scale > kSparkleMaxScale) return E_INVALIDARG;
  }
  // Pick radius: half the largest drawn size, in photo pixels.
  const float pick = 0.015f * static_cast<float>(std::max(m_img_size_w, m_img_size_h));
  auto radius = [&](float scale) { return std::max(2.0f, pick * scale); };
  auto near = [](float ax, float ay, float bx, float by, float r) {
    return (ax - bx) * (ax - bx) + (ay - by) * (ay - by) <= r * r;
  };
  int32_t changed = 0;
  if (value == SPARKLE_MOVE) {
    for (int32_t i = 0; i + 1 < count; i += 2) {
      const SparklePoint& from = points[i];
      ManualSparkle* best = nullptr;
      float best_d = 0.0f;
      for (ManualSparkle& s : m_manual_sparkles) {
        const float d = (s.x - from.x) * (s.x - from.x) + (s.y - from.y) * (s.y - from.y);
        if (near(s.x, s.y, from.x, from.y, radius(s.scale)) && (!best || d < best_d)) {
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
      if (near(x, y, points[i].x, points[i].y, r)) return true;
    return false;
  };
  if (value == SPARKLE_REMOVE) {
    const size_t before = m_manual_sparkles.size();
    m_manual_sparkles.erase(std::remove_if(m_manual_sparkles.begin(), m_manual_sparkles.end(),
                                           [&](const ManualSparkle& s) { return at_any(s.x, s.y, radius(s.scale)); }),
                            m_manual_sparkles.end());
    changed = static_cast<int32_t>(before - m_manual_sparkles.size());
    if (m_norm_img_size_w > 0) {
      // Automatic sparkles sit at normalised pixels; their photo position is
      // the centre of the pixel scaled back.
      const float sx = static_cast<float>(m_img_size_w) / m_norm_img_size_w;
      const float sy = static_cast<float>(m_img_size_h) / m_norm_img_size_h;
      for (auto& kv : m_auto_sparkle_list) {
        LightPoint& p = kv.second;
        if (p.enabled && at_any((p.x + 0.5f) * sx - 0.5f, (p.y + 0.5f) * sy - 0.5f, radius(1.0f))) {
          p.enabled = 0;
          ++changed;
        }
      }
    }
    return changed;
  }
  for (ManualSparkle& s : m_manual_sparkles) {
    if (s.type_id != value && at_any(s.x, s.y, radius(s.scale))) {
      s.type_id = static_cast<uint16_t>(value);
      ++changed;
    }
  }
  return changed;
}

// ---------------------------------------------------------------------------
// Frame

int32_t SparkleEffect::ValidateProcess(const SparkleParam* param, const SparkleRenderParam* a,
                                       const SparkleRenderParam* m, const ImageBuffer* src, const ImageBuffer* dst,
                                       const Rect& roi) const {
  if (!param || !a || !m || !src || !dst || !src->data || !dst->data) return E_POINTER;
  if (!m_source_set || !m_auto_sparkle_type.shape.data) return E_FAIL;
  if (dst->width != static_cast<int64_t>(roi.right) - roi.left ||
      dst->height != static_cast<int64_t>(roi.bottom) - roi.top || !IsBgra(*dst) || !IsBgra(*src) ||
      param->anime_frame_count < 1 || param->anime_frame_index < 0) {
    return E_INVALIDARG;
  }
  if (src->width != m_img_size_w || src->height != m_img_size_h || !RectInside(roi, *src) || !RowsFit(*src, 4) ||
      !RowsFit(*dst, 4)) {
    return E_INVALIDARG;
  }
  int32_t hr;
  if ((hr = CheckRender(*a)) < 0 || (hr = CheckRender(*m)) < 0) return hr;
  return S_OK;
}

int32_t SparkleEffect::Process(const SparkleParam* param, const SparkleRenderParam* auto_render_param,
                               const SparkleRenderParam* manual_render_param, const ImageBuffer* src,
                               ImageBuffer* dst, Rect roi) {
  int32_t hr = ValidateProcess(param, auto_render_param, manual_render_param, src, dst, roi);
  if (hr < 0) return hr;
  try {
    m_param = *param;
    m_auto_render = *auto_render_param;
    m_manual_render = *manual_render_param;
    m_roi = roi;
    hr = RenderFrame(*src, *dst);
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    hr = E_OUTOFMEMORY;
  }
  return Step(hr, "Total cost");
}

int32_t SparkleEffect::CalScaleRatio(int32_t long_side) {
  return CalSparkleScaleRatio(m_param.quality_mode, long_side, m_scale_ratio);
}

int32_t SparkleEffect::InitLightBuffers() {
  int32_t hr;
  m_buff_w = m_buff_h = 0;
  if (KORVANE_FAILED(CreateSmartBufferData(m_auto_scaled_light_buff, m_scaled_img_size_w, m_scaled_img_size_h,
                                           PIXEL_BGRA32)) ||
      KORVANE_FAILED(CreateSmartBufferData(m_manu_scaled_light_buff, m_scaled_img_size_w, m_scaled_img_size_h,
                                           PIXEL_BGRA32))) {
    return hr;
  }
  // At full size the scaled map is the light map itself: no enlargement.
  if (m_scaled_img_size_w == m_img_size_w && m_scaled_img_size_h == m_img_size_h) {
    m_light_buff = SmartBuffer();
  } else if (KORVANE_FAILED(CreateSmartBufferData(m_light_buff, m_img_size_w, m_img_size_h, PIXEL_BGRA32))) {
    return hr;
  }
  m_buff_w = m_img_size_w;
  m_buff_h = m_img_size_h;
  m_buff_ratio = m_scale_ratio;
  return S_OK;
}

int32_t SparkleEffect::ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio) {
  return CalScaledROI(roi, scaled_roi, ratio, m_scaled_img_size_w, m_scaled_img_size_h);
}

int32_t SparkleEffect::CalTwinkleAnimeParam(int32_t count, int32_t index) {
  int32_t hr;
  if ((hr = CalTwinkleTable(count, m_twinkle_table)) < 0) return hr;
  for (auto& kv : m_auto_sparkle_list) {
    kv.second.frame_offset = TwinkleFrameOffset(kv.second.phase, kSparkleCurveLength, count, index,
                                                   m_auto_render.twinkle_cycles);
  }
  for (ManualSparkle& s : m_manual_sparkles) {
    s.frame_offset = TwinkleFrameOffset(s.phase, kSparkleCurveLength, count, index, m_manual_render.twinkle_cycles);
  }
  return S_OK;
}

int32_t SparkleEffect::CalRotateAnimeParam(int32_t count, int32_t index) {
  int32_t hr;
  const bool rotate = m_param.rotate != 0;
  if ((hr = CalRotation(m_auto_render.rotation, rotate, count, index, m_auto_render.rotation)) < 0) return hr;
  return CalRotation(m_manual_render.rotation, rotate, count, index, m_manual_render.rotation);
}

int32_t SparkleEffect::CopySparkleShape() {
  const AutoKey key{m_auto_render.rotation, m_auto_render.size,
                    std::max(m_scaled_img_size_w, m_scaled_img_size_h), m_auto_sparkle_type.generation};
  m_auto_rebuild = !(key == m_auto_key);
  if (!m_auto_rebuild) return S_OK;
  m_auto_key = AutoKey();  // stays invalid until the variants are rebuilt
  int32_t hr;
  if (!m_auto_spk_dst.data &&
      Logged(CreateSmartBufferData(m_auto_spk_dst, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32),
             "CreateSmartBufferData(auto_spk_dst.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)") < 0) {
    m_auto_spk_dst = SmartBuffer();
    return E_OUTOFMEMORY;
  }
  if ((hr = Logged(CopySmartBufferData(m_auto_sparkle_type.shape, m_auto_spk_dst),
                   "CopySmartBufferData(shape, m_auto_sparkle_type.shape)")) < 0) {
    return hr;
  }
  m_pending_key = key;
  return S_OK;
}

// The shapes turn as their variants are sampled: here the angles, and the
// halvings of any shape that changed.
int32_t SparkleEffect::InitRotatedSparkleType() {
  int32_t hr;
  if (!TurnOf(m_auto_render.rotation, m_auto_cos, m_auto_sin) ||
      !TurnOf(m_manual_render.rotation, m_manual_cos, m_manual_sin)) {
    return E_INVALIDARG;
  }
  if (m_auto_rebuild && m_auto_pyramid_generation != m_auto_sparkle_type.generation) {
    m_auto_pyramid_generation = 0;
    if ((hr = m_auto_pyramid.Build(m_auto_spk_dst)) < 0) return hr;
    m_auto_pyramid_generation = m_auto_sparkle_type.generation;
  }
  if (!m_param.manual_sparkle) return S_OK;
  for (const ManualSparkle& s : m_manual_sparkles) {
    auto t = m_manual_types.find(s.type_id);
    if (t == m_manual_types.end() || !t->second.shape.data) continue;
    ManualTypeCache& c = m_manual_cache[s.type_id];
    if (c.generation != t->second.generation) {
      c.generation = 0;
      if ((hr = c.pyramid.Build(t->second.shape)) < 0) return hr;
      c.generation = t->second.generation;
      c.changed = true;
    }
    if (c.rotation != m_manual_render.rotation) {
      c.rotation = m_manual_render.rotation;
      c.changed = true;
    }
  }
  return S_OK;
}

int32_t SparkleEffect::InitMultiScaledSparkleType() {
  const int32_t s = std::max(m_scaled_img_size_w, m_scaled_img_size_h);
  std::vector<VariantJob> jobs;
  if (m_auto_rebuild) {
    for (int32_t i = 0; i < kSizeCount; ++i) {
      SparkleVariant& v = m_auto_variants[i];
      v.d = AutoGlintSize(i, m_auto_render.size, s);
      jobs.push_back(VariantJob{&m_auto_pyramid.LevelFor(v.d), &v, m_auto_cos, m_auto_sin});
    }
  }
  const size_t auto_jobs = jobs.size();
  if (m_param.manual_sparkle) {
    // The sizes the manual sparkles need this frame; others are dropped.
    std::map<uint16_t, std::set<int32_t>> used;
    // Only glints drawn this frame (shown, lit, inside the ROI) need a variant.
    for (const ManualSparkle& m : m_manual_sparkles) {
      float px, py, lightness;
      if (m_manual_render.amount == 0.0f || !ManualDrawn(m, px, py, lightness)) continue;
      auto c = m_manual_cache.find(m.type_id);
      if (c == m_manual_cache.end() || !c->second.generation) continue;  // its type has no shape
      const int32_t d = ManualGlintSize(m.scale, m_manual_render.size, s);
      if (!used[m.type_id].insert(d).second) continue;
      auto v = c->second.variants.find(d);
      if (v != c->second.variants.end() && !c->second.changed) continue;
      SparkleVariant& variant = c->second.variants[d];
      variant.d = d;
      jobs.push_back(VariantJob{&c->second.pyramid.LevelFor(d), &variant, m_manual_cos, m_manual_sin});
    }
    for (auto& kv : m_manual_cache) {
      const std::set<int32_t>& sizes = used[kv.first];
      for (auto v = kv.second.variants.begin(); v != kv.second.variants.end();) {
        v = sizes.count(v->first) ? std::next(v) : kv.second.variants.erase(v);
      }
      kv.second.changed = false;
    }
  }
  const int32_t hr = SampleSparkleVariants(m_thread_adapter, m_system_info, jobs);
  if (hr < 0) {
    KORVANE_LOG_FAILED_CALL(auto_jobs ? "ResizeBuffer(auto_sparkle_type.shape, scaled_sparkle_type.shape)"
                                      : "ResizeBuffer(manual_shape, scaled_sparkle_type.shape)",
                            hr);
    // Nothing half made is kept: every variant is sampled again next frame.
    for (auto& kv : m_manual_cache) kv.second.changed = true;
  }
  return hr;
}

int32_t SparkleEffect::InitTempSparkleType() {
  int32_t hr;
  auto make_tmp = [&](SparkleVariant& v) -> int32_t {
    if (v.tmp.data && v.tmp.width == v.d + 1 && v.tmp.height == v.d + 1) return S_OK;
    return Logged(CreateSmartBufferData(v.tmp, v.d + 1, v.d + 1, PIXEL_BGRA32),
                  "CreateSmartBufferData(tmp_sparkle_type.shape, sparkle_type.shape.width + 1, "
                  "sparkle_type.shape.height + 1, PIXEL_BGRA32)");
  };
  for (SparkleVariant& v : m_auto_variants)
    if ((hr = make_tmp(v)) < 0) return hr;
  for (auto& kv : m_manual_cache)
    for (auto& v : kv.second.variants)
      if ((hr = make_tmp(v.second)) < 0) return hr;
  return S_OK;
}

int32_t SparkleEffect::SparkleProcess() {
  int32_t hr;
  if ((hr = Step(InitRotatedSparkleType(), "InitRotatedSparkleType")) < 0 ||
      (hr = Step(InitMultiScaledSparkleType(), "InitMultiScaledSparkleType")) < 0 ||
      (hr = Step(InitTempSparkleType(), "InitTempSparkleType")) < 0) {
    return hr;
  }
  if (m_auto_rebuild) m_auto_key = m_pending_key;
  return S_OK;
}

int32_t SparkleEffect::ClearLightMaps(bool manual) {
  const Rect r = m_scaled_roi;
  const size_t bytes = static_cast<size_t>(RectWidth(r)) * 4;
  SmartBuffer* a = &m_auto_scaled_light_buff;
  SmartBuffer* m = manual ? &m_manu_scaled_light_buff : nullptr;
  return RunBands(m_thread_adapter, r, [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      std::memset(RowPtr(*a, y) + static_cast<ptrdiff_t>(r.left) * 4, 0, bytes);
      if (m) std::memset(RowPtr(*m, y) + static_cast<ptrdiff_t>(r.left) * 4, 0, bytes);
    }
    return S_OK;
  });
}

int32_t SparkleEffect::PasteOne(const SparkleVariant& variant, SmartBuffer& light, float px, float py,
                                float lightness, const LightColor& color, int32_t color_mode) {
  int32_t hr;
  LightPasteArgs args;
  args.lightness = lightness;
  args.color = color;
  // White glints keep the shape's own colours; tinted ones take the colour.
  args.mode = color_mode == SPARKLE_COLOR_WHITE ? LIGHT_PASTE_CHANNELS : LIGHT_PASTE_INTENSITY;
  Rect spk_roi;
  const int32_t d = variant.d, h = light.height, w = light.width;
  if (FastMode(m_param.quality_mode)) {
    const PointI pt_int{static_cast<int32_t>(px + 0.5f), static_cast<int32_t>(py + 0.5f)};
    if ((hr = Logged(CalPasteLightROI(spk_roi, pt_int, d, h, w), "CalPasteSparkleROI(spk_roi, pt, d, h, w)")) < 0) {
      return hr;
    }
    if (IsEmpty(spk_roi)) return S_OK;
    const auto paste = KORVANE_PICK(m_system_info, PasteLight, PasteLight_SSE);
    if ((hr = paste.fn(variant.shape, light, pt_int, args, spk_roi)) < 0) {
      DebugLog("[Korvane] %s(sparkle_buff, light_buff, pt_int, current_lightness, color, spk_roi) Error! - Return "
               "Code: %x",
               paste.simd ? "PasteSparkle_SSE" : "PasteSparkle", static_cast<unsigned>(hr));
    }
    return hr;
  }
  const PointF pt{px, py};
  PointI origin;
  if ((hr = Logged(CalBilinearPasteLightROI(spk_roi, origin, pt, d, h, w),
                   "CalBilinearPasteSparkleROI(spk_roi, pt, d, h, w)")) < 0) {
    return hr;
  }
  if (IsEmpty(spk_roi)) return S_OK;
  const auto paste = KORVANE_PICK(m_system_info, BilinearPasteLight, BilinearPasteLight_SSE);
  SmartBuffer tmp = variant.tmp;
  if ((hr = paste.fn(variant.shape, tmp, light, pt, args, spk_roi)) < 0) {
    DebugLog("[Korvane] %s(sparkle_buff, tmp_sparkle_buff, light_buff, pt, current_lightness, color, spk_roi) "
             "Error! - Return Code: %x",
             paste.simd ? "BilinearPasteSparkle_SSE" : "BilinearPasteSparkle", static_cast<unsigned>(hr));
  }
  return hr;
}


int32_t SparkleEffect::PasteAutoSparkle(const SparkleRenderParam& rp) {
  if (rp.amount == 0.0f) return S_OK;
  const int32_t sw = m_scaled_img_size_w, sh = m_scaled_img_size_h;
  const float k = static_cast<float>(std::max(sw, sh)) / static_cast<float>(m_norm_long_side);
  const float cx = (m_norm_img_size_w - 1) * 0.5f, cy = (m_norm_img_size_h - 1) * 0.5f;
  const float mx = (sw - 1) * 0.5f, my = (sh - 1) * 0.5f;
  int32_t hr;
  for (const auto& kv : m_auto_sparkle_list) {
    const LightPoint& p = kv.second;
    if (!p.enabled || !Shown(m_param.quality_mode, rp.amount, p.random)) continue;
    const float px = (p.x - cx) * k + mx, py = (p.y - cy) * k + my;
    if (!InsideRoi(m_scaled_roi, px, py)) continue;
    const float lightness = Lightness(p.phase, p.frame_offset);
    if (lightness == 0.0f) continue;
    LightColor color{255, 255, 255};
    if (rp.color_mode == SPARKLE_COLOR_PHOTO) {
      color = SparklePhotoColor(RowPtr(m_norm_src_buff, p.y) + static_cast<ptrdiff_t>(p.x) * 4);
    } else if (rp.color_mode == SPARKLE_COLOR_RANDOM) {
      color = SparkleRandomColor(p.color_index);
    }
    if ((hr = PasteOne(m_auto_variants[p.size_id], m_auto_scaled_light_buff, px, py, lightness, color,
                       rp.color_mode)) < 0) {
      return hr;
    }
  }
  return S_OK;
}

bool SparkleEffect::ManualDrawn(const ManualSparkle& m, float& px, float& py, float& lightness) const {
  if (!Shown(m_param.quality_mode, m_manual_render.amount, m.random)) return false;
  px = (m.x + 0.5f) * static_cast<float>(m_scaled_img_size_w) / m_img_size_w - 0.5f;
  py = (m.y + 0.5f) * static_cast<float>(m_scaled_img_size_h) / m_img_size_h - 0.5f;
  if (!InsideRoi(m_scaled_roi, px, py)) return false;
  lightness = Lightness(m.phase, m.frame_offset);
  return lightness != 0.0f;
}

int32_t SparkleEffect::PasteManualSparkle(const SparkleRenderParam& rp, const ImageBuffer& src, SmartBuffer& light) {
  if (rp.amount == 0.0f) return S_OK;
  const int32_t s = std::max(m_scaled_img_size_w, m_scaled_img_size_h);
  int32_t hr;
  for (const ManualSparkle& m : m_manual_sparkles) {
    float px, py, lightness;
    if (!ManualDrawn(m, px, py, lightness)) continue;
    auto c = m_manual_cache.find(m.type_id);
    if (c == m_manual_cache.end()) continue;  // its type has no shape
    auto v = c->second.variants.find(ManualGlintSize(m.scale, rp.size, s));
    if (v == c->second.variants.end()) continue;
    LightColor color{255, 255, 255};
    if (rp.color_mode == SPARKLE_COLOR_PHOTO) {
      const int32_t x = std::min(std::max(static_cast<int32_t>(m.x + 0.5f), 0), src.width - 1);
      const int32_t y = std::min(std::max(static_cast<int32_t>(m.y + 0.5f), 0), src.height - 1);
      color = SparklePhotoColor(RowPtr(src, y) + static_cast<ptrdiff_t>(x) * 4);
    } else if (rp.color_mode == SPARKLE_COLOR_RANDOM) {
      color = SparkleRandomColor(m.color_index);
    }
    if ((hr = PasteOne(v->second, light, px, py, lightness, color, rp.color_mode)) < 0) return hr;
    m_manual_drawn = true;
  }
  return S_OK;
}

int32_t SparkleEffect::FinishFrame(const ImageBuffer& src, ImageBuffer& dst) {
  const bool full_size = !m_light_buff.data;
  // At full size only the pixels of the ROI are read; otherwise the scaled
  // ROI (with its margin) feeds the enlargement.
  const Rect work = full_size ? m_roi : m_scaled_roi;
  SparkleAdjustParam adjust_auto{m_auto_scaled_light_buff, work, 1.0f, m_auto_render.saturation,
                                 m_auto_render.brightness};
  SparkleAdjustParam adjust_manual{m_manu_scaled_light_buff, work, 1.0f, m_manual_render.saturation,
                                   m_manual_render.brightness};
  const auto add = KORVANE_PICK(m_system_info, ImageAddLightMap, ImageAddLightMap_SSE);
  // The manual light map added into the automatic one (in place).
  LightMapAddTask combine;
  combine.fn = add.fn;
  combine.p.base = m_auto_scaled_light_buff;
  combine.p.light = m_manu_scaled_light_buff;
  combine.p.dst = MapView(m_auto_scaled_light_buff, work);
  combine.p.roi = work;

  LightMapAddTask final_add;
  final_add.fn = add.fn;
  final_add.p.base = SmartBufferView(src);
  final_add.p.light = full_size ? m_auto_scaled_light_buff : m_light_buff;
  final_add.p.dst = dst;
  final_add.p.roi = m_roi;

  const ThreadTask adjust_task = BandTask<SparkleAdjustParam, AdjustSparkleColor>;
  RowPipeline light(16);
  if (!SparkleAdjustIsIdentity(adjust_auto)) light.Then("AdjustColor(Auto Sparkle)", adjust_task, &adjust_auto);
  if (m_manual_drawn) {
    if (!SparkleAdjustIsIdentity(adjust_manual)) {
      light.Then("AdjustColor(Manaul Sparkle)", adjust_task, &adjust_manual);
    }
    light.Then("CombineLightMaps", RunLightMapAdd, &combine);
  }
  int32_t hr;
  if (full_size) {
    // Every step reads and writes the same rows: one sweep does all.
    light.Then("ImageAddLightMap", RunLightMapAdd, &final_add);
    return light.Run(m_thread_adapter, m_roi);
  }
  if (light.StepCount() > 0 && (hr = light.Run(m_thread_adapter, m_scaled_roi)) < 0) return hr;

  ResizeParam up;
  up.src = m_auto_scaled_light_buff;
  up.dst = m_light_buff;
  up.src_roi = m_scaled_roi;
  RowPipeline out(16);
  out.Then("UpsampleLightMap",
           KORVANE_PICK(m_system_info, BilinearResize_8uc4, BilinearResize_8uc4_SSE4).fn, &up)
      .Then("ImageAddLightMap", RunLightMapAdd, &final_add);
  return out.Run(m_thread_adapter, m_roi);
}

int32_t SparkleEffect::RenderFrame(const ImageBuffer& src, ImageBuffer& dst) {
  int32_t hr;
  if (FastMode(m_param.quality_mode) != m_detected_fine && (hr = DetectAutoSparkles(m_param.quality_mode)) < 0) {
    return hr;
  }
  if ((hr = Logged(CalScaleRatio(std::max(m_img_size_w, m_img_size_h)),
                   "CalScaleRatio(max(m_src_buff.width, m_src_buff.height))")) < 0) {
    return hr;
  }
  m_scaled_img_size_w = ScaledLength(m_img_size_w, m_scale_ratio);
  m_scaled_img_size_h = ScaledLength(m_img_size_h, m_scale_ratio);
  if ((m_buff_w != m_img_size_w || m_buff_h != m_img_size_h || m_buff_ratio != m_scale_ratio) &&
      KORVANE_FAILED(InitLightBuffers())) {
    return hr;
  }
  if (KORVANE_FAILED(ResizeROI(m_roi, m_scaled_roi, m_scale_ratio)) ||
      KORVANE_FAILED(CalTwinkleAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index)) ||
      KORVANE_FAILED(CalRotateAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index))) {
    return hr;
  }
  if ((hr = Step(CopySparkleShape(), "CopySparkleShape")) < 0 || (hr = Step(SparkleProcess(), "SparkleProcess")) < 0) {
    return hr;
  }
  const bool manual = m_param.manual_sparkle && !m_manual_sparkles.empty() && m_manual_render.amount != 0.0f;
  // Saturating adds add up in any grouping, so when neither set's colour is
  // adjusted the manual glints go straight into the automatic map, with no
  // second map to clear and combine.
  const bool separate =
      manual && !(SparkleAdjustIsIdentity(SparkleAdjustParam{{}, {}, 1.0f, m_auto_render.saturation,
                                                              m_auto_render.brightness}) &&
                  SparkleAdjustIsIdentity(SparkleAdjustParam{{}, {}, 1.0f, m_manual_render.saturation,
                                                              m_manual_render.brightness}));
  m_manual_drawn = false;
  if ((hr = ClearLightMaps(separate)) < 0) return hr;
  if (m_param.auto_sparkle && (hr = Step(PasteAutoSparkle(m_auto_render), "PasteAutoSparkle")) < 0) return hr;
  if (manual && (hr = Step(PasteManualSparkle(m_manual_render, src,
                                              separate ? m_manu_scaled_light_buff : m_auto_scaled_light_buff),
                           "PasteManualSparkle")) < 0) {
    return hr;
  }
  m_manual_drawn = m_manual_drawn && separate;
  return FinishFrame(src, dst);
}

int32_t SparkleEffect::SetRegionMode(int32_t mode) {
  if (mode != REGION_CENTRES_INSIDE && mode != REGION_SHAPES_REACHING) return E_INVALIDARG;
  m_region_mode = mode;
  return S_OK;
}

}  // namespace Korvane
