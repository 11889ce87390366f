#include "effects/bokeh/BokehEffect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "core/DebugLog.h"
#include "core/HslColor.h"
#include "core/ImageChecks.h"
#include "core/LightHighlights.h"
#include "core/ShapeDrawing.h"
#include "core/SmartBuffer.h"
#include "effects/bokeh/BokehPaste.h"

namespace Korvane {

using std::max;

namespace {

constexpr int32_t kNeutralLightness = 22848;  // 0.7 of full lightness: the light of uncoloured discs
constexpr int32_t kMinDominantLevel = 9792;   // 0.3: saturation and lightness a pixel needs to vote for a hue


int32_t Ensure(SmartBuffer& b, int32_t w, int32_t h, int32_t fmt) {
  if (b.data && b.width == w && b.height == h && b.pix_fmt == fmt) return S_OK;
  b = SmartBuffer();
  return CreateSmartBufferData(b, w, h, fmt);
}

// Copies a caller image into a working image of the same size.
void CopyRows(const ImageBuffer& from, SmartBuffer& to) {
  const size_t row = static_cast<size_t>(from.width) * BytesPerPixel(from.pix_fmt);
  for (int32_t y = 0; y < from.height; ++y) std::memcpy(RowPtr(to, y), RowPtr(from, y), row);
}

}  // namespace

BokehEffect::BokehEffect(CThreadPool* pool) : EffectCore(pool) { ResetParams(); }

BokehEffect::~BokehEffect() = default;

void BokehEffect::ResetParams() {
  m_param = BokehParam();
  m_prev_param = BokehParam();
  m_shape_param = BokehShapeParam();
  m_prev_shape_param = BokehShapeParam();
  m_has_prev = false;
  m_types_ready = false;
}

// --- Calculation steps ------------------------------------------------------

int32_t BokehEffect::CalScaleRatioFor(int32_t quality_mode, int32_t long_side, float& ratio) {
  if (quality_mode == 0) {
    ratio = 1.0f;
    return S_OK;
  }
  return CalLightMapScaleRatio(long_side, ratio);
}

int32_t BokehEffect::CalScaleRatio(int32_t long_side) {
  return CalScaleRatioFor(m_param.quality_mode, long_side, m_scale_ratio);
}

int32_t BokehEffect::ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio) {
  const bool whole_pixels = m_param.quality_mode == 2 || m_param.quality_mode == 3;
  const int32_t hr = LightRegion::For(roi, ratio, m_scaled_img_size, m_region_mode, whole_pixels, m_region);
  scaled_roi = m_region.area;
  return hr;
}

const TwinkleCurve& BokehEffect::Twinkle() {
  // Dark for most of the cycle: a point lights up only in the middle of it.
  static const TwinkleCurve curve(132, 23, 0.025f, 38, 0.975f, 2, 0.025f, 38);
  return curve;
}

int32_t BokehEffect::CalTwinkleAnimeParam(int32_t count, int32_t index) {
  if (count <= 0 || index < 0) return E_INVALIDARG;
  for (auto& [key, p] : m_bokeh_list) {
    (void)key;
    p.frame_offset = TwinkleFrameOffset(p.phase, Twinkle().Samples(), count, index);
  }
  return S_OK;
}

int32_t BokehEffect::CalHueShiftAnimeParam(int32_t count, int32_t index) {
  if (count == 0) return E_INVALIDARG;
  if (!m_param.hue_shift_switch) return S_OK;
  // One turn of hue over the loop; the offset lives in (-1, 1].
  float h = m_shape_param.hue_offset + LoopPhase(index, count, 2.0f);
  if (h > 1.0f) h -= 2.0f * std::ceil((h - 1.0f) * 0.5f);
  m_shape_param.hue_offset = h;
  return S_OK;
}

int32_t BokehEffect::CalDominantColor(const SmartBuffer& img, uint32_t& color) {
  int32_t hr = CheckImage(img, PIXEL_BGRA32);
  if (hr < 0) return hr;
  int64_t bins[36] = {};
  for (int32_t y = 0; y < img.height; ++y) {
    const uint8_t* p = RowPtr<const uint8_t>(img, y);
    for (int32_t x = 0; x < img.width; ++x, p += 4) {
      // Lightness and saturation are tested first in integers, exactly as
      // RgbToHsl rounds them, so only voting pixels pay for the hue.
      const int32_t mx = std::max(p[0], std::max(p[1], p[2])), mn = std::min(p[0], std::min(p[1], p[2]));
      const int32_t sum = mx + mn, span = sum <= 255 ? sum : 510 - sum;
      if (sum * 64 <= kMinDominantLevel || span == 0 ||
          (mx - mn) * kHslMax + span / 2 < (kMinDominantLevel + 1) * span) {
        continue;
      }
      int32_t h, s, l;
      RgbToHsl(p[2], p[1], p[0], h, s, l);
      ++bins[(h % kHueFull) / 1000];
    }
  }
  int32_t best = 0;
  for (int32_t i = 1; i < 36; ++i)
    if (bins[i] > bins[best]) best = i;
  // No qualifying pixel leaves bin 0: the same value as a red between 0 and
  // 10 degrees, which the paste treats as "no dominant colour".
  color = static_cast<uint32_t>(best * 1000);
  return S_OK;
}

// --- Source set-up ------------------------------------------------------------

int32_t BokehEffect::InitBokehList(const SmartBuffer& location_map) {
  return InitLightPointList(location_map, Twinkle().Samples(), m_bokeh_random_color_count, m_bokeh_list);
}

int32_t BokehEffect::SetSource(const ImageBuffer* src) {
  if (!src) return E_POINTER;
  ReleaseBuffer();
  try {
    return SetSourceSteps(*src);
  } catch (const std::bad_alloc& e) {
    DebugLog("SetSource - %s caught!", e.what());
    m_source_set = false;
    return E_OUTOFMEMORY;
  }
}

int32_t BokehEffect::SetSourceSteps(const ImageBuffer& src) {
  int32_t hr = CheckImage(src, PIXEL_BGRA32);
  if (hr < 0) return hr;
  if (src.width > kMaxImageSide || src.height > kMaxImageSide) return E_INVALIDARG;
  m_src_buff = src;
  m_norm_img_size = CalNormSize(src.width, src.height);
  SmartBuffer location_map;
  if (KORVANE_FAILED(CreateSmartBufferData(m_norm_src_buff, m_norm_img_size.w, m_norm_img_size.h, PIXEL_BGRA32)) ||
      KORVANE_FAILED(CreateSmartBufferData(location_map, m_norm_img_size.w, m_norm_img_size.h, PIXEL_GRAY8))) {
    return hr;
  }
  FillMap(m_norm_src_buff);
  FillMap(location_map);
  if ((hr = LogStep("ResizeBuffer", ResizeBuffer(m_thread_adapter, m_system_info, SmartBufferView(src),
                                                 m_norm_src_buff))) < 0 ||
      (hr = LogStep("InitAutoBokehMap",
                    InitAutoBokehMap(m_thread_adapter, m_system_info, m_norm_src_buff, location_map))) < 0) {
    return hr;
  }
  if (KORVANE_FAILED(InitBokehList(location_map)) || KORVANE_FAILED(MarkHighlights(m_norm_src_buff, m_bokeh_list)) ||
      KORVANE_FAILED(CalDominantColor(m_norm_src_buff, m_bokeh_global_color)) ||
      KORVANE_FAILED(CalRandomColor(m_bokeh_random_color_count, m_bokeh_random_color_table))) {
    return hr;
  }
  m_source_set = true;
  return S_OK;
}

int32_t BokehEffect::ReleaseBuffer() {
  ResetParams();
  m_source_set = false;
  m_bokeh_list.clear();
  m_norm_src_buff = SmartBuffer();
  m_src = m_blur_mask = m_dst = SmartBuffer();
  m_focus_src_buff = m_focus_src_mask = m_light_buff = m_scaled_light_buff = SmartBuffer();
  m_shape_copy = m_rotated_shape = m_builtin_shape = SmartBuffer();
  m_builtin_id = SHAPE_NONE;
  m_bokeh_types = {};
  int32_t hr;
  if (KORVANE_FAILED(m_focus_effect.ReleaseBuffer())) return hr;
  return S_OK;
}

int32_t BokehEffect::GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set) return E_FAIL;
  return CopyLightPoints(m_bokeh_list, m_norm_img_size.w, m_norm_img_size.h, Twinkle().Samples(), summary, points,
                         capacity);
}

int32_t BokehEffect::GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set || !m_has_prev) return E_FAIL;
  LightPointList drawn;
  // The rule of the last frame's paste (PasteBokehList), over its whole loop.
  ForEachDrawnLightPoint(
      m_region, m_bokeh_list, Levels(), 1, SkipThreshold(),
      [&](const LightPointList::value_type& entry, LightSpot& spot) { return LocateDisc(entry.second, spot); },
      [&](const LightPointList::value_type&) { return m_shape_param.color_mode >= 0 && m_shape_param.color_mode <= 2; },
      [&](const LightPointList::value_type& entry) { drawn.insert(entry); });
  return CopyLightPoints(drawn, m_norm_img_size.w, m_norm_img_size.h, Twinkle().Samples(), summary, points,
                         capacity);
}

int32_t BokehEffect::SetRegionMode(int32_t mode) {
  if (mode != REGION_CENTRES_INSIDE && mode != REGION_SHAPES_REACHING) return E_INVALIDARG;
  m_region_mode = mode;
  return S_OK;
}

// --- Frame --------------------------------------------------------------------

int32_t BokehEffect::CheckFrame(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                                const ImageBuffer* blur_mask, const ImageBuffer* dst, const Rect& roi) const {
  if (!m_source_set || !shape_param) return E_FAIL;
  if (!param || !src || !dst || !src->data || !dst->data) return E_POINTER;
  // The region's size in 64 bits: a caller's rectangle may span more than
  // an int holds.
  if (dst->width != static_cast<int64_t>(roi.right) - roi.left ||
      dst->height != static_cast<int64_t>(roi.bottom) - roi.top || !IsBgra(*dst) || !IsBgra(*src) ||
      param->anime_frame_count < 1 || param->anime_frame_index < 0) {
    return E_INVALIDARG;
  }
  // The photo must be the one the points were found on, the region inside it.
  if (!SameSize(*src, m_src_buff) || !RowsFit(*src, 4) || !RowsFit(*dst, 4) || !RectInside(roi, *src)) {
    return E_INVALIDARG;
  }
  const bool guided = blur_mask && blur_mask->data;
  if (guided && (!IsGray8(*blur_mask) || !SameSize(*blur_mask, *src) || !RowsFit(*blur_mask, 1))) {
    return E_INVALIDARG;
  }
  const ImageBuffer& shape = shape_param->shape;
  if (!shape.data) {
    if (shape_param->builtin_shape == SHAPE_NONE) return E_POINTER;
    return IsDiscShape(shape_param->builtin_shape) || IsGlintShape(shape_param->builtin_shape) ? S_OK : E_INVALIDARG;
  }
  if (!IsBgra(shape) || !RowsFit(shape, 4) || shape.width > kMaxImageSide || shape.height > kMaxImageSide) {
    return E_INVALIDARG;
  }
  return S_OK;
}

int32_t BokehEffect::Process(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                             const ImageBuffer* blur_mask, ImageBuffer* dst, Rect roi) {
  const int32_t hr = CheckFrame(param, shape_param, src, blur_mask, dst, roi);
  if (hr < 0) return hr;
  m_param = *param;
  m_shape_param = *shape_param;
  // Shape settings far outside their ranges are brought into them as
  // floats, so no later conversion to an integer can overflow: the size
  // blend and the saturation are clamped, the hue offset (half a turn of hue
  // per unit) wrapped into one turn either way. In-range values are kept.
  const auto clamp = [](float v, float lo, float hi) { return std::isfinite(v) ? std::max(lo, std::min(hi, v)) : 0.0f; };
  m_shape_param.size_blend = clamp(m_shape_param.size_blend, 0.0f, 1.0f);
  m_shape_param.saturation = clamp(m_shape_param.saturation, -1.0f, 1.0f);
  m_shape_param.hue_offset = std::isfinite(m_shape_param.hue_offset) ? std::fmod(m_shape_param.hue_offset, 2.0f) : 0.0f;
  m_roi = roi;
  m_src = SmartBufferView(*src);
  m_dst = SmartBufferView(*dst);
  m_blur_mask = blur_mask && blur_mask->data ? SmartBufferView(*blur_mask) : SmartBuffer();
  try {
    m_builtin_redrawn = false;
    if (!m_shape_param.shape.data) {
      // The built-in disc, drawn once while the record names the same one.
      if (m_builtin_id != m_shape_param.builtin_shape) {
        m_builtin_redrawn = true;
        m_builtin_id = SHAPE_NONE;
        const int32_t drawn = MakeBuiltinShape(m_shape_param.builtin_shape, m_builtin_shape);
        if (drawn < 0) return drawn;
        m_builtin_id = m_shape_param.builtin_shape;
      }
      m_shape_param.shape = MapView(m_builtin_shape, FullRect(m_builtin_shape));
    }
    m_bok_size = LightSize{m_shape_param.shape.width, m_shape_param.shape.height};
    return RenderFrame();
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

int32_t BokehEffect::RenderFrame() {
  int32_t hr;
  if (KORVANE_FAILED(CalScaleRatio(max(m_src_buff.width, m_src_buff.height))) || KORVANE_FAILED(InitBuffers()) ||
      KORVANE_FAILED(ResizeROI(m_roi, m_scaled_roi, m_scale_ratio))) {
    return hr;
  }
  if ((hr = LogStep("ProcessFocusImg", ProcessFocusImg())) < 0 || (hr = LogStep("Total cost", ProcessBokeh())) < 0) {
    return hr;
  }
  m_prev_param = m_param;
  m_prev_shape_param = m_shape_param;
  m_has_prev = true;
  return S_OK;
}

int32_t BokehEffect::InitBuffers() {
  m_img_size = LightSize{m_src.width, m_src.height};
  m_scaled_img_size = CalScaledSize(m_img_size, m_scale_ratio);
  // Kept while the sizes stay: the background blur may be reused.
  int32_t hr;
  if ((hr = Ensure(m_focus_src_buff, m_img_size.w, m_img_size.h, PIXEL_BGRA32)) < 0) return hr;
  if ((hr = Ensure(m_light_buff, m_img_size.w, m_img_size.h, PIXEL_BGRA32)) < 0) return hr;
  return Ensure(m_scaled_light_buff, m_scaled_img_size.w, m_scaled_img_size.h, PIXEL_BGRA32);
}

int32_t BokehEffect::ProcessFocusImg() {
  BokehFocusParam fp;
  fp.src = m_src;
  fp.guide = m_blur_mask;
  fp.roi = m_roi;
  fp.blur_buff_ratio = m_param.blur_buff_ratio;
  fp.blur_strength = m_param.blur_strength;
  fp.focus_value = m_param.focus_value;
  fp.focus_range = m_param.focus_range;
  return m_focus_effect.Process(m_thread_adapter, m_system_info, fp, m_param.keep_background != 0, m_focus_src_buff,
                                m_focus_src_mask);
}

int32_t BokehEffect::ProcessBokeh() {
  int32_t hr;
  if (KORVANE_FAILED(CalTwinkleAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index)) ||
      KORVANE_FAILED(CalHueShiftAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index))) {
    return hr;
  }
  // The shape is copied so the caller's image is read only here.
  SmartBuffer shape;
  if ((hr = LogStep("CopyBokehShape",
                    LogCall("CreateSmartBufferData(dst.shape, m_bok_size.w, m_bok_size.h, PIXEL_BGRA32)",
                            CreateSmartBufferData(shape, m_bok_size.w, m_bok_size.h, PIXEL_BGRA32)))) < 0) {
    return hr;
  }
  CopyRows(m_shape_param.shape, shape);
  m_shape_copy = shape;

  if ((hr = LogStep("BokehProcess", BokehProcess())) < 0) return hr;
  FillMap(m_scaled_light_buff);
  if ((hr = LogStep("InitBokehListSizeID", InitBokehListSizeID())) < 0) return hr;
  if (m_param.paste_switch && (hr = LogStep("PasteBokehList", PasteBokehList())) < 0) return hr;
  LightMapAddParam add;
  add.base = m_focus_src_buff;
  add.light = m_light_buff;
  add.dst = MapView(m_dst, FullRect(m_dst));
  add.roi = m_roi;
  return RunLightMapEnlargeAdd(m_thread_adapter, m_system_info, m_scaled_light_buff, m_scaled_roi, add);
}

// --- Placement ----------------------------------------------------------------

bool BokehEffect::BokehColor(const LightPoint& p, int32_t hue_shift, float sat_weight, LightPasteArgs& args) const {
  int32_t hue = 0, sat = 0, lit = kNeutralLightness;
  bool neutral = false;  // no hue: grey light
  switch (m_shape_param.color_mode) {
    case 0:
      neutral = m_bokeh_global_color == 0;
      hue = static_cast<int32_t>(m_bokeh_global_color) + hue_shift;
      sat = neutral ? 0 : static_cast<int32_t>(sat_weight * kHslMax);
      break;
    case 1: {
      const uint8_t* px = RowPtr<const uint8_t>(m_norm_src_buff, p.y) + 4 * p.x;
      RgbToHsl(px[2], px[1], px[0], hue, sat, lit);
      hue += hue_shift;
      sat = std::min(static_cast<int32_t>(static_cast<float>(sat) * 3.0f * sat_weight), kHslMax);
      break;
    }
    case 2:
      hue = static_cast<int32_t>(m_bokeh_random_color_table[static_cast<size_t>(p.color_index)]) + hue_shift;
      sat = static_cast<int32_t>(sat_weight * kHslMax);
      break;
    default: return false;  // no colour: the paste would add nothing
  }
  // Bokeh hues wrap by the full turn.
  hue = WrapHue(hue, kLightHueTurn);
  args.mode = LIGHT_PASTE_INTENSITY;
  HslToRgb(neutral ? -1 : hue, sat, lit, args.color.r, args.color.g, args.color.b);
  return true;
}

LightLevels BokehEffect::Levels() const {
  LightLevels levels;
  levels.curve = &Twinkle();
  levels.frame_count = m_param.twinkle_switch ? m_param.anime_frame_count : 0;
  return levels;
}

bool BokehEffect::LocateDisc(const LightPoint& p, LightSpot& spot) const {
  if (p.size_id < 0 || p.size_id >= kSizeCount || (m_param.highlights_only && !p.highlight)) return false;
  spot.point = p;
  spot.pt = LightMapGeometry{m_img_size, m_norm_img_size, m_scaled_img_size}.FromNorm(p.x, p.y);
  // The paste writes only the variant's temporary image, never its shape.
  spot.shape = const_cast<LightShape*>(&m_bokeh_types[static_cast<size_t>(p.size_id)]);
  return true;
}

int32_t BokehEffect::PasteBokehList() {
  const int32_t hue_shift = static_cast<int32_t>(m_shape_param.hue_offset * 36000.0f * 0.5f);
  const float sat_weight = (m_shape_param.saturation + 1.0f) * 0.5f;
  const LightPasteNames names = BokehPasteNames(m_system_info);
  const LightMapPainter painter(m_scaled_light_buff, m_region, names);
  return PasteLightPoints(
      painter, m_bokeh_list, Levels(), SkipThreshold(),
      [&](const LightPointList::value_type& entry, LightSpot& spot) { return LocateDisc(entry.second, spot); },
      [&](const LightPointList::value_type& entry, LightPasteArgs& args) {
        return BokehColor(entry.second, hue_shift, sat_weight, args);
      });
}

}  // namespace Korvane
