// The sparkle shapes at their pasting sizes: the automatic shape at ten
// sizes and each placed sparkle's shape at the sizes drawn this frame, turned
// by the frame's rotation, sampled from halvings of the shape.
#include <algorithm>
#include <set>

#include "core/DebugLog.h"
#include "core/SmartBuffer.h"
#include "effects/sparkle/SparkleEffect.h"

namespace Korvane {

namespace {

bool SameRect(const Rect& a, const Rect& b) {
  return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

}  // namespace

// Only the part of a glint that can land on this frame's light map is made.
Rect SparkleEffect::Window(int32_t d) const { return LightShapeWindow(d, m_scaled_img_size.w, m_scaled_img_size.h); }

int32_t SparkleEffect::CopySparkleShape() {
  const AutoKey key{m_auto_render.rotation, m_auto_render.size, m_scaled_img_size.w, m_scaled_img_size.h,
                    m_auto_sparkle_type.generation};
  m_auto_rebuild = !(key == m_auto_key);
  if (!m_auto_rebuild) return S_OK;
  m_auto_key = AutoKey();  // stays invalid until the variants are rebuilt
  int32_t hr;
  if (!m_auto_spk_dst.data &&
      LogCall("CreateSmartBufferData(auto_spk_dst.shape, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)",
              CreateSmartBufferData(m_auto_spk_dst, SPK_SIZE, SPK_SIZE, PIXEL_BGRA32)) < 0) {
    m_auto_spk_dst = SmartBuffer();
    return E_OUTOFMEMORY;
  }
  if ((hr = LogCall("CopySmartBufferData(shape, m_auto_sparkle_type.shape)",
                    CopySmartBufferData(m_auto_sparkle_type.shape, m_auto_spk_dst))) < 0) {
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
  const int32_t s = Geometry().LongSide();
  std::vector<VariantJob> jobs;
  if (m_auto_rebuild) {
    for (int32_t i = 0; i < kSizeCount; ++i) {
      LightShape& v = m_auto_variants[i];
      v.d = AutoGlintSize(i, m_auto_render.size, s);
      v.window = Window(v.d);
      jobs.push_back(VariantJob{&m_auto_pyramid.LevelFor(v.d), &v, m_auto_cos, m_auto_sin});
    }
  }
  const size_t auto_jobs = jobs.size();
  if (m_param.manual_sparkle) {
    // The sizes the manual sparkles need this frame; others are dropped.
    std::map<uint16_t, std::set<int32_t>> used;
    // Only glints drawn this frame (shown, lit, inside the ROI) need a variant.
    for (const ManualSparkle& m : m_manual_sparkles) {
      const int32_t d = ManualGlintSize(m.scale, m_manual_render.size, s);
      PointF pt;
      if (m_manual_render.amount == 0.0f || !ManualDrawn(m, d, pt)) continue;
      auto c = m_manual_cache.find(m.type_id);
      if (c == m_manual_cache.end() || !c->second.generation) continue;  // its type has no shape
      if (!used[m.type_id].insert(d).second) continue;
      auto v = c->second.variants.find(d);
      const Rect window = Window(d);
      if (v != c->second.variants.end() && !c->second.changed && SameRect(v->second.window, window)) continue;
      LightShape& variant = c->second.variants[d];
      variant.d = d;
      variant.window = window;
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
  const int32_t hr = LogCall(auto_jobs ? "ResizeBuffer(auto_sparkle_type.shape, scaled_sparkle_type.shape)"
                                        : "ResizeBuffer(manual_shape, scaled_sparkle_type.shape)",
                             SampleSparkleVariants(m_thread_adapter, m_system_info, jobs));
  if (hr < 0) {
    // Nothing half made is kept: every variant is sampled again next frame.
    for (auto& kv : m_manual_cache) kv.second.changed = true;
  }
  return hr;
}

int32_t SparkleEffect::InitTempSparkleType() {
  int32_t hr;
  auto make_tmp = [&](LightShape& v) -> int32_t {
    const int32_t w = v.shape.width + 1, h = v.shape.height + 1;
    if (v.tmp.data && v.tmp.width == w && v.tmp.height == h) return S_OK;
    return LogCall("CreateSmartBufferData(tmp_sparkle_type.shape, sparkle_type.shape.width + 1, "
                   "sparkle_type.shape.height + 1, PIXEL_BGRA32)",
                   CreateSmartBufferData(v.tmp, w, h, PIXEL_BGRA32));
  };
  for (LightShape& v : m_auto_variants)
    if ((hr = make_tmp(v)) < 0) return hr;
  for (auto& kv : m_manual_cache)
    for (auto& v : kv.second.variants)
      if ((hr = make_tmp(v.second)) < 0) return hr;
  return S_OK;
}

int32_t SparkleEffect::SparkleProcess() {
  int32_t hr;
  if ((hr = LogStep("InitRotatedSparkleType", InitRotatedSparkleType())) < 0 ||
      (hr = LogStep("InitMultiScaledSparkleType", InitMultiScaledSparkleType())) < 0 ||
      (hr = LogStep("InitTempSparkleType", InitTempSparkleType())) < 0) {
    return hr;
  }
  if (m_auto_rebuild) m_auto_key = m_pending_key;
  return S_OK;
}

}  // namespace Korvane
