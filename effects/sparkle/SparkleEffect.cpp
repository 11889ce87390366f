#include "effects/sparkle/SparkleEffect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "core/BandTask.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/LightHighlights.h"
#include "core/RowPipeline.h"
#include "core/ShapeDrawing.h"
#include "core/SmartBuffer.h"
#include "effects/sparkle/SparkleAnime.h"
#include "effects/sparkle/SparkleColor.h"

namespace Korvane {

namespace {

bool FastMode(int32_t quality_mode) { return quality_mode == 2 || quality_mode == 3; }

int32_t CheckRender(const SparkleRenderParam& r) {
  if (r.color_mode < SPARKLE_COLOR_WHITE || r.color_mode > SPARKLE_COLOR_RANDOM) return E_INVALIDARG;
  if (!InRange(r.amount, 0.0f, 1.0f) || !InRange(r.saturation, -1.0f, 1.0f) || !InRange(r.brightness, -1.0f, 1.0f)) {
    return E_INVALIDARG;
  }
  if (!std::isfinite(r.rotation) || !(r.size > 0.0f && r.size <= kSparkleMaxScale)) return E_INVALIDARG;
  if (r.twinkle_cycles < 1) return E_INVALIDARG;
  return S_OK;
}

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
    s.radius = LightPointRadius(kLightNormLongSide, 2.0f);
    s.threshold = 25.5f;
  } else {
    s.radius = 4;
    s.threshold = 2.55f;
  }
  return s;
}

float SparkleEffect::SkipThreshold(int32_t quality_mode, float amount) const {
  if (!FastMode(quality_mode) || m_param.steady_content) return 1.0f - amount;
  const int32_t i = static_cast<int32_t>((1.0f - amount) * 11.0f);
  return m_skip_table[std::min(std::max(i, 0), 10)];
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

LightLevels SparkleEffect::Levels() const {
  LightLevels levels;
  levels.curve = &SparkleTwinkle();
  levels.frame_count = m_param.twinkle ? m_param.anime_frame_count : 0;
  // Steady content: fixed brightness unless twinkling, in every mode.
  if (m_param.steady_content ? !m_param.twinkle : FastMode(m_param.quality_mode)) {
    levels.steps = m_fixed_lightness;
    levels.step_count = 11;
  }
  return levels;
}

// ---------------------------------------------------------------------------
// Source and lists

int32_t SparkleEffect::SetSource(const ImageBuffer* src) {
  int32_t hr = CheckImage(src, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (src->width > kMaxImageSide || src->height > kMaxImageSide) return E_INVALIDARG;
  m_source_set = false;
  m_drawn_known = false;
  m_auto_sparkle_list.clear();
  try {
    m_img_size = LightSize{src->width, src->height};
    m_norm_img_size = CalNormSize(src->width, src->height);
    if ((hr = LogCall("CreateSmartBufferData(m_norm_src_buff, m_norm_img_size.w, m_norm_img_size.h, PIXEL_BGRA32)",
                      CreateSmartBufferData(m_norm_src_buff, m_norm_img_size.w, m_norm_img_size.h,
                                            PIXEL_BGRA32))) < 0 ||
        (hr = LogStep("ResizeBuffer", ResizeBuffer(m_thread_adapter, m_system_info, SmartBufferView(*src),
                                                   m_norm_src_buff))) < 0 ||
        (hr = DetectAutoSparkles(1)) < 0) {
      return hr;
    }
  } catch (const std::bad_alloc& e) {
    DebugLog("SetSource - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
  m_source_set = true;
  return S_OK;
}

int32_t SparkleEffect::DetectAutoSparkles(int32_t quality_mode) {
  int32_t hr;
  if ((hr = LogStep("InitAutoSparkleMap", DetectLightPoints(m_thread_adapter, m_system_info, m_norm_src_buff,
                                                            DetectionSettings(quality_mode), m_auto_sparkle_map))) < 0 ||
      KORVANE_FAILED(InitAutoSparkleList(m_auto_sparkle_map)) ||
      KORVANE_FAILED(MarkHighlights(m_norm_src_buff, m_auto_sparkle_list))) {
    return hr;
  }
  m_detected_fine = FastMode(quality_mode);
  return S_OK;
}

int32_t SparkleEffect::InitAutoSparkleList(const SmartBuffer& map) {
  const int32_t hr = InitLightPointList(map, SparkleTwinkle().Samples(), kLightRandomHueCount, m_auto_sparkle_list);
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
  m_auto_default = SHAPE_NONE;
  m_manual_types.clear();
  m_manual_cache.clear();
  m_auto_spk_dst = SmartBuffer();
  m_auto_pyramid = ShapePyramid();
  m_auto_pyramid_generation = 0;
  for (auto& v : m_auto_variants) v = LightShape();
  m_auto_key = AutoKey();
  return S_OK;
}

int32_t SparkleEffect::ResetSparkleTypes() { return ReleaseAllSparkleTypesBuff(); }

int32_t SparkleEffect::ReleaseBuffer() {
  int32_t hr;
  m_drawn_known = false;
  if (KORVANE_FAILED(ReleaseAllSparkleTypesBuff()) || KORVANE_FAILED(ResetSparkleList())) return hr;
  m_source_set = false;
  m_norm_src_buff = SmartBuffer();
  m_auto_sparkle_map = SmartBuffer();
  m_light_buff = SmartBuffer();
  m_auto_scaled_light_buff = SmartBuffer();
  m_manu_scaled_light_buff = SmartBuffer();
  m_buff_w = m_buff_h = 0;
  m_buff_ratio = 0.0f;
  m_img_size = LightSize();
  m_max_manual_count = -1;
  return S_OK;
}

int32_t SparkleEffect::GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set) return E_FAIL;
  return CopyLightPoints(m_auto_sparkle_list, m_norm_img_size.w, m_norm_img_size.h, SparkleTwinkle().Samples(),
                         summary, points, capacity);
}

int32_t SparkleEffect::GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points,
                                           int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set || !m_drawn_known) return E_FAIL;
  LightPointList drawn;
  if (m_param.auto_sparkle && m_auto_render.amount != 0.0f) {
    // The rule of the last frame's PasteAutoSparkle, over its whole loop.
    ForEachDrawnLightPoint(
        m_region, m_auto_sparkle_list, Levels(), m_auto_render.twinkle_cycles,
        SkipThreshold(m_param.quality_mode, m_auto_render.amount),
        [&](const LightPointList::value_type& entry, LightSpot& spot) { return LocateGlint(entry.second, spot); },
        [](const LightPointList::value_type&) { return true; },
        [&](const LightPointList::value_type& entry) { drawn.insert(entry); });
  }
  return CopyLightPoints(drawn, m_norm_img_size.w, m_norm_img_size.h, SparkleTwinkle().Samples(), summary, points,
                         capacity);
}

int32_t SparkleEffect::SetRegionMode(int32_t mode) {
  if (mode != REGION_CENTRES_INSIDE && mode != REGION_SHAPES_REACHING) return E_INVALIDARG;
  m_region_mode = mode;
  return S_OK;
}

// ---------------------------------------------------------------------------
// Frame

int32_t SparkleEffect::ValidateProcess(const SparkleParam* param, const SparkleRenderParam* a,
                                       const SparkleRenderParam* m, const ImageBuffer* src, const ImageBuffer* dst,
                                       const Rect& roi) const {
  if (!param || !a || !m || !src || !dst || !src->data || !dst->data) return E_POINTER;
  if (!m_source_set || (!m_auto_sparkle_type.shape.data && param->default_shape == SHAPE_NONE)) return E_FAIL;
  if (dst->width != static_cast<int64_t>(roi.right) - roi.left ||
      dst->height != static_cast<int64_t>(roi.bottom) - roi.top || !IsBgra(*dst) || !IsBgra(*src) ||
      param->anime_frame_count < 1 || param->anime_frame_index < 0) {
    return E_INVALIDARG;
  }
  if (src->width != m_img_size.w || src->height != m_img_size.h ||
      !RectInside(roi, *src) || !RowsFit(*src, 4) || !RowsFit(*dst, 4)) {
    return E_INVALIDARG;
  }
  int32_t hr;
  if ((hr = CheckRender(*a)) < 0 || (hr = CheckRender(*m)) < 0) return hr;
  const int32_t shape = param->default_shape;
  if (shape != SHAPE_NONE && !IsDiscShape(shape) && !IsGlintShape(shape)) return E_INVALIDARG;
  return S_OK;
}

int32_t SparkleEffect::UseDefaultShape(int32_t shape) {
  // A shape the caller gave stays; the default is drawn while there is none
  // (and again when the record names another one).
  const bool callers = m_auto_sparkle_type.shape.data && m_auto_default == SHAPE_NONE;
  if (callers || shape == SHAPE_NONE || shape == m_auto_default) return S_OK;
  SmartBuffer drawn;
  int32_t hr;
  if ((hr = MakeBuiltinShape(shape, drawn)) < 0) return hr;
  const ImageBuffer view = MapView(drawn, FullRect(drawn));
  m_auto_default = SHAPE_NONE;
  if ((hr = CopyShape(view, m_auto_sparkle_type, false)) < 0) return hr;
  m_auto_default = shape;
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
    hr = UseDefaultShape(param->default_shape);
    if (hr >= 0) hr = RenderFrame(*src, *dst);
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    hr = E_OUTOFMEMORY;
  }
  return LogStep("Total cost", hr);
}

int32_t SparkleEffect::CalScaleRatio(int32_t long_side) {
  return CalSparkleScaleRatio(m_param.quality_mode, long_side, m_scale_ratio);
}

int32_t SparkleEffect::InitLightBuffers() {
  int32_t hr;
  m_buff_w = m_buff_h = 0;
  if (KORVANE_FAILED(CreateSmartBufferData(m_auto_scaled_light_buff, m_scaled_img_size.w, m_scaled_img_size.h,
                                           PIXEL_BGRA32)) ||
      KORVANE_FAILED(CreateSmartBufferData(m_manu_scaled_light_buff, m_scaled_img_size.w, m_scaled_img_size.h,
                                           PIXEL_BGRA32))) {
    return hr;
  }
  // At full size the scaled map is the light map itself: no enlargement.
  if (m_scaled_img_size.w == m_img_size.w && m_scaled_img_size.h == m_img_size.h) {
    m_light_buff = SmartBuffer();
  } else if (KORVANE_FAILED(CreateSmartBufferData(m_light_buff, m_img_size.w, m_img_size.h, PIXEL_BGRA32))) {
    return hr;
  }
  m_buff_w = m_img_size.w;
  m_buff_h = m_img_size.h;
  m_buff_ratio = m_scale_ratio;
  return S_OK;
}

int32_t SparkleEffect::ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio) {
  const int32_t hr =
      LightRegion::For(roi, ratio, m_scaled_img_size, m_region_mode, FastMode(m_param.quality_mode), m_region);
  scaled_roi = m_region.area;
  return hr;
}

int32_t SparkleEffect::CalTwinkleAnimeParam(int32_t count, int32_t index) {
  if (count < 1) return E_INVALIDARG;
  const int32_t samples = SparkleTwinkle().Samples();
  for (auto& kv : m_auto_sparkle_list) {
    kv.second.frame_offset = TwinkleFrameOffset(kv.second.phase, samples, count, index, m_auto_render.twinkle_cycles);
  }
  for (ManualSparkle& s : m_manual_sparkles) {
    s.frame_offset = TwinkleFrameOffset(s.phase, samples, count, index, m_manual_render.twinkle_cycles);
  }
  return S_OK;
}

int32_t SparkleEffect::CalRotateAnimeParam(int32_t count, int32_t index) {
  int32_t hr;
  const bool rotate = m_param.rotate != 0;
  if ((hr = CalRotation(m_auto_render.rotation, rotate, count, index, m_auto_render.rotation)) < 0) return hr;
  return CalRotation(m_manual_render.rotation, rotate, count, index, m_manual_render.rotation);
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

int32_t SparkleEffect::FinishFrame(const ImageBuffer& src, ImageBuffer& dst) {
  const bool full_size = !m_light_buff.data;
  // At full size only the pixels of the ROI are read; otherwise the scaled
  // ROI (with its margin) feeds the enlargement.
  const Rect work = full_size ? m_roi : m_scaled_roi;
  SparkleAdjustParam adjust_auto{m_auto_scaled_light_buff, work, 1.0f, m_auto_render.saturation,
                                 m_auto_render.brightness};
  SparkleAdjustParam adjust_manual{m_manu_scaled_light_buff, work, 1.0f, m_manual_render.saturation,
                                   m_manual_render.brightness};
  const PickedTask add = PickLightMapAdd(m_system_info);
  // The manual light map added into the automatic one (in place).
  LightMapAddParam combine;
  combine.base = m_auto_scaled_light_buff;
  combine.light = m_manu_scaled_light_buff;
  combine.dst = MapView(m_auto_scaled_light_buff, work);
  combine.roi = work;

  LightMapAddParam final_add;
  final_add.base = SmartBufferView(src);
  final_add.light = full_size ? m_auto_scaled_light_buff : m_light_buff;
  final_add.dst = dst;
  final_add.roi = m_roi;

  // The colour adjustment has a plain and an AVX2 form.
  const ThreadTask adjust_task =
      ChooseKernel<ThreadTask>(m_system_info, &BandTask<SparkleAdjustParam, AdjustSparkleColor>, "AdjustSparkleColor",
                               nullptr, "", KORVANE_AVX2_BAND(SparkleAdjustParam, AdjustSparkleColor_AVX2),
                               "AdjustSparkleColor_AVX2")
          .fn;
  RowPipeline light(16);
  if (!SparkleAdjustIsIdentity(adjust_auto)) light.Then("AdjustColor(Auto Sparkle)", adjust_task, &adjust_auto);
  if (m_manual_drawn) {
    if (!SparkleAdjustIsIdentity(adjust_manual)) {
      light.Then("AdjustColor(Manaul Sparkle)", adjust_task, &adjust_manual);
    }
    light.Then(add, &combine);
  }
  if (full_size) {
    // Every step reads and writes the same rows: one sweep does all.
    light.Then("ImageAddLightMap", add.fn, &final_add);
    return light.Run(m_thread_adapter, m_roi);
  }
  int32_t hr;
  if (light.StepCount() > 0 && (hr = light.Run(m_thread_adapter, m_scaled_roi)) < 0) return hr;
  return RunLightMapEnlargeAdd(m_thread_adapter, m_system_info, m_auto_scaled_light_buff, m_scaled_roi, final_add);
}

int32_t SparkleEffect::RenderFrame(const ImageBuffer& src, ImageBuffer& dst) {
  int32_t hr;
  // Steady content keeps the points SetSource found (those of modes 0 and 1).
  const bool fine = FastMode(m_param.quality_mode) && !m_param.steady_content;
  if (fine != m_detected_fine && (hr = DetectAutoSparkles(fine ? 2 : 1)) < 0) return hr;
  m_drawn_known = false;
  if ((hr = LogCall("CalScaleRatio(max(m_src_buff.width, m_src_buff.height))",
                    CalScaleRatio(std::max(m_img_size.w, m_img_size.h)))) < 0) {
    return hr;
  }
  m_scaled_img_size = CalScaledSize(m_img_size, m_scale_ratio);
  if ((m_buff_w != m_img_size.w || m_buff_h != m_img_size.h || m_buff_ratio != m_scale_ratio) &&
      KORVANE_FAILED(InitLightBuffers())) {
    return hr;
  }
  if (KORVANE_FAILED(ResizeROI(m_roi, m_scaled_roi, m_scale_ratio)) ||
      KORVANE_FAILED(CalTwinkleAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index)) ||
      KORVANE_FAILED(CalRotateAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index))) {
    return hr;
  }
  if ((hr = LogStep("CopySparkleShape", CopySparkleShape())) < 0 ||
      (hr = LogStep("SparkleProcess", SparkleProcess())) < 0) {
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
  if (m_param.auto_sparkle && (hr = LogStep("PasteAutoSparkle", PasteAutoSparkle(m_auto_render))) < 0) return hr;
  if (manual && (hr = LogStep("PasteManualSparkle",
                              PasteManualSparkle(m_manual_render, src,
                                                 separate ? m_manu_scaled_light_buff : m_auto_scaled_light_buff))) <
                    0) {
    return hr;
  }
  m_manual_drawn = m_manual_drawn && separate;
  m_drawn_known = true;
  return FinishFrame(src, dst);
}

}  // namespace Korvane
