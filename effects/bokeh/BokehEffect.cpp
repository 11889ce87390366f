#include "effects/bokeh/BokehEffect.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/BandTask.h"
#include "core/BilinearResize.h"
#include "core/BoxBlur.h"
#include "core/DebugLog.h"
#include "core/HslColor.h"
#include "core/ImageChecks.h"
#include "core/LightPaste.h"
#include "core/RowPipeline.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"

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

int32_t ResizeBuffer(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, const Rect& from_roi,
                     SmartBuffer& to, const Rect& to_roi) {
  ResizeParam rp;
  rp.src = from;
  rp.dst = to;
  rp.src_roi = from_roi;
  return RunBilinearResize(adapter, info, rp, to_roi);
}

// Copies a caller image into a working image of the same size.
void CopyRows(const ImageBuffer& from, SmartBuffer& to) {
  const size_t row = static_cast<size_t>(from.width) * BytesPerPixel(from.pix_fmt);
  for (int32_t y = 0; y < from.height; ++y) std::memcpy(RowPtr(to, y), RowPtr(from, y), row);
}

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

bool Inside(const Rect& r, float x, float y) { return x >= r.left && x < r.right && y >= r.top && y < r.bottom; }

// A named step's result, logged with the step's name when it failed.
int32_t Step(const char* name, int32_t code) {
  if (code < 0) KORVANE_LOG_FAILED_STEP(name, code);
  return code;
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

BokehSize BokehEffect::CalNormSize(int32_t width, int32_t height) {
  BokehSize n;
  const float side = static_cast<float>(kNormLongSide);
  if (width <= height) {
    n.h = kNormLongSide;
    n.w = static_cast<int32_t>(static_cast<float>(width) * (side / static_cast<float>(height)));
  } else {
    n.w = kNormLongSide;
    n.h = static_cast<int32_t>(static_cast<float>(height) * (side / static_cast<float>(width)));
  }
  // A sliver of a photo still keeps one pixel across.
  n.w = max(n.w, 1);
  n.h = max(n.h, 1);
  return n;
}

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

int32_t BokehEffect::ResizeROIFor(const Rect& roi, Rect& scaled_roi, float ratio, BokehSize scaled) {
  if (!(ratio > 0.0f)) return E_INVALIDARG;
  scaled_roi.left = max(0, static_cast<int32_t>(roi.left * ratio - 1));
  scaled_roi.top = max(0, static_cast<int32_t>(roi.top * ratio - 1));
  scaled_roi.right = std::min(static_cast<int32_t>(roi.right * ratio + 1), scaled.w);
  scaled_roi.bottom = std::min(static_cast<int32_t>(roi.bottom * ratio + 1), scaled.h);
  return S_OK;
}

int32_t BokehEffect::ResizeROI(const Rect& roi, Rect& scaled_roi, float ratio) {
  return ResizeROIFor(roi, scaled_roi, ratio, m_scaled_img_size);
}

const std::array<float, BokehEffect::kTwinkleSamples>& BokehEffect::TwinkleCurve() {
  // Dark for most of the cycle: a point lights up only in the middle of it.
  static const std::array<float, kTwinkleSamples> curve = [] {
    std::array<float, kTwinkleSamples> c{};
    int32_t i = 23;                                         // 23 zeros
    for (int32_t k = 1; k <= 38; ++k) c[i++] = 0.025f * k;  // rise to 0.95
    c[i++] = 0.975f;
    c[i++] = 0.975f;
    for (int32_t k = 38; k >= 1; --k) c[i++] = 0.025f * k;  // fall to 0.025, then 31 zeros
    return c;
  }();
  return curve;
}

int32_t BokehEffect::CalTwinkleAnimeParam(int32_t count, int32_t index) {
  if (count <= 0 || index < 0) return E_INVALIDARG;
  const int32_t hr = StretchTwinkleCurve(TwinkleCurve().data(), kTwinkleSamples, count, m_twinkle_table);
  if (hr < 0) return hr;
  for (auto& [key, p] : m_bokeh_list) {
    (void)key;
    p.frame_offset = TwinkleFrameOffset(p.phase, kTwinkleSamples, count, index);
  }
  return S_OK;
}

int32_t BokehEffect::CalHueShiftAnimeParam(int32_t count, int32_t index) {
  if (count == 0) return E_INVALIDARG;
  if (!m_param.hue_shift_switch) return S_OK;
  // One turn of hue over the loop; the offset lives in (-1, 1].
  float h = m_shape_param.hue_offset + 2.0f * static_cast<float>(index) / static_cast<float>(count);
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

int32_t BokehEffect::CalRandomColor(int32_t count, std::vector<uint32_t>& table) {
  if (count < 1) return E_INVALIDARG;
  table.resize(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) table[static_cast<size_t>(i)] = static_cast<uint32_t>(i * 36000 / count);
  return S_OK;
}

std::array<int32_t, BokehEffect::kSizeCount> BokehEffect::CalBokehSizes(float size_blend, int32_t long_side) {
  const float t = size_blend;
  const float f = (1.0f - t) * kMinSizeFactor + t * kMaxSizeFactor;
  const float a = f * kMinSizeRatio, b = f * kMaxSizeRatio;
  // Divided by the step count but multiplied by one less: the largest disc
  // is a + 0.9 (b - a), by design.
  const float step = (b - a) / kSizeSteps;
  std::array<int32_t, kSizeCount> sizes{};
  for (int32_t i = 0; i < kSizeCount; ++i) {
    const float u = static_cast<float>(i) / (kSizeCount - 1);
    int32_t s = static_cast<int32_t>((a + 9.0f * step * u * (2.0f - u)) * static_cast<float>(long_side));
    if (s % 2 == 0) ++s;  // odd sizes have a centre pixel
    sizes[static_cast<size_t>(i)] = max(s, 1);
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

// --- Source set-up ------------------------------------------------------------

int32_t BokehEffect::InitBokehList(const SmartBuffer& location_map) {
  return InitLightPointList(location_map, kTwinkleSamples, m_bokeh_random_color_count, m_bokeh_list);
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
  m_src_buff = src;
  m_norm_img_size = CalNormSize(src.width, src.height);
  SmartBuffer location_map;
  if (KORVANE_FAILED(CreateSmartBufferData(m_norm_src_buff, m_norm_img_size.w, m_norm_img_size.h, PIXEL_BGRA32))) {
    return hr;
  }
  if (KORVANE_FAILED(CreateSmartBufferData(location_map, m_norm_img_size.w, m_norm_img_size.h, PIXEL_GRAY8))) {
    return hr;
  }
  FillMap(m_norm_src_buff);
  FillMap(location_map);
  const SmartBuffer view = SmartBufferView(src);
  if ((hr = Step("ResizeBuffer", ResizeBuffer(m_thread_adapter, m_system_info, view, FullRect(view), m_norm_src_buff,
                                              FullRect(m_norm_src_buff)))) < 0)
    return hr;
  if ((hr = Step("InitAutoBokehMap",
                 InitAutoBokehMap(m_thread_adapter, m_system_info, m_norm_src_buff, location_map))) < 0)
    return hr;
  if (KORVANE_FAILED(InitBokehList(location_map))) return hr;
  if (KORVANE_FAILED(CalDominantColor(m_norm_src_buff, m_bokeh_global_color))) return hr;
  if (KORVANE_FAILED(CalRandomColor(m_bokeh_random_color_count, m_bokeh_random_color_table))) return hr;
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
  m_shape_copy = m_rotated_shape = SmartBuffer();
  m_scaled_bokeh_type = {};
  m_tmp_bokeh_type = {};
  int32_t hr;
  if (KORVANE_FAILED(m_focus_effect.ReleaseBuffer())) return hr;
  return S_OK;
}

int32_t BokehEffect::GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const {
  if (!summary) return E_POINTER;
  if (!m_source_set) return E_FAIL;
  return CopyLightPoints(m_bokeh_list, m_norm_img_size.w, m_norm_img_size.h, kTwinkleSamples, summary, points,
                         capacity);
}

// --- Frame --------------------------------------------------------------------

int32_t BokehEffect::Process(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                             const ImageBuffer* blur_mask, ImageBuffer* dst, Rect roi) {
  if (!m_source_set || !shape_param) return E_FAIL;
  if (!param || !src || !dst || !src->data || !dst->data) return E_POINTER;
  if (dst->width != RectWidth(roi) || dst->height != RectHeight(roi) || !IsBgra(*dst) || !IsBgra(*src) ||
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
  m_blur_mask = guided ? SmartBufferView(*blur_mask) : SmartBuffer();
  const ImageBuffer& shape = m_shape_param.shape;
  if (!shape.data) return E_POINTER;
  if (!IsBgra(shape) || shape.width < 1 || shape.height < 1 || !RowsFit(shape, 4)) return E_INVALIDARG;
  m_bok_size = BokehSize{shape.width, shape.height};
  try {
    return RenderFrame();
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    return E_OUTOFMEMORY;
  }
}

int32_t BokehEffect::RenderFrame() {
  int32_t hr;
  if (KORVANE_FAILED(CalScaleRatio(max(m_src_buff.width, m_src_buff.height)))) return hr;
  if (KORVANE_FAILED(InitBuffers())) return hr;
  if (KORVANE_FAILED(ResizeROI(m_roi, m_scaled_roi, m_scale_ratio))) return hr;
  if ((hr = Step("ProcessFocusImg", ProcessFocusImg())) < 0) return hr;
  if ((hr = Step("Total cost", ProcessBokeh())) < 0) return hr;
  m_prev_param = m_param;
  m_prev_shape_param = m_shape_param;
  m_has_prev = true;
  return S_OK;
}

int32_t BokehEffect::InitBuffers() {
  m_img_size = BokehSize{m_src.width, m_src.height};
  m_scaled_img_size.w = max(1, static_cast<int32_t>(m_img_size.w * m_scale_ratio + 0.5f));
  m_scaled_img_size.h = max(1, static_cast<int32_t>(m_img_size.h * m_scale_ratio + 0.5f));
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
  if (KORVANE_FAILED(CalTwinkleAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index))) return hr;
  if (KORVANE_FAILED(CalHueShiftAnimeParam(m_param.anime_frame_count, m_param.anime_frame_index))) return hr;

  // The shape is copied so the caller's image is read only here.
  BokehType dst;
  if (KORVANE_FAILED(CreateSmartBufferData(dst.shape, m_bok_size.w, m_bok_size.h, PIXEL_BGRA32))) {
    KORVANE_LOG_FAILED_STEP("CopyBokehShape", hr);
    return hr;
  }
  CopyRows(m_shape_param.shape, dst.shape);
  m_shape_copy = dst.shape;

  if ((hr = Step("BokehProcess", BokehProcess())) < 0) return hr;
  FillMap(m_scaled_light_buff);
  if ((hr = Step("InitBokehListSizeID", InitBokehListSizeID())) < 0) return hr;
  if (m_param.paste_switch && (hr = PasteBokehList()) < 0) {
    KORVANE_LOG_FAILED_STEP("PasteBokehList", hr);
    return hr;
  }
  // The light map is enlarged and added to the photo a few rows at a time, so
  // the enlarged rows are still in cache when they are added.
  ResizeParam up;
  up.src = m_scaled_light_buff;
  up.dst = m_light_buff;
  up.src_roi = m_scaled_roi;
  LightMapAddTask add;
  add.fn = KORVANE_PICK(m_system_info, ImageAddLightMap, ImageAddLightMap_SSE).fn;
  add.p.base = m_focus_src_buff;
  add.p.light = m_light_buff;
  add.p.dst = MapView(m_dst, FullRect(m_dst));
  add.p.roi = m_roi;
  RowPipeline out(16);
  out.Then("UpsampleLightMap", PickBilinearResize(m_system_info, PIXEL_BGRA32).fn, &up)
      .Then("ImageAddLightMap", RunLightMapAdd, &add);
  return out.Run(m_thread_adapter, m_roi);
}

// --- Shapes -------------------------------------------------------------------

int32_t BokehEffect::BokehProcess() {
  const int32_t long_side = max(m_scaled_img_size.w, m_scaled_img_size.h);
  // The variants of the last frame serve while nothing they depend on changed.
  if (m_types_ready && m_has_prev && m_shape_param.size_blend == m_prev_shape_param.size_blend &&
      m_shape_param.rotation == m_prev_shape_param.rotation && m_shape_param.shape_changed == 0 &&
      m_param.rebuild_shapes == 0 && m_types_long_side == long_side && m_rotated_shape.width == m_bok_size.w &&
      m_rotated_shape.height == m_bok_size.h) {
    return S_OK;
  }
  m_types_ready = false;
  int32_t hr;
  if ((hr = Step("InitRotatedBokehType", InitRotatedBokehType())) < 0) return hr;
  if ((hr = Step("InitMultiScaledBokehType", InitMultiScaledBokehType())) < 0) return hr;
  if ((hr = Step("InitTempBokehType", InitTempBokehType())) < 0) return hr;
  m_types_ready = true;
  m_types_long_side = long_side;
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
  const std::array<int32_t, kSizeCount> scale_list = CalBokehSizes(t, max(m_scaled_img_size.w, m_scaled_img_size.h));
  int32_t hr;
  SmartBuffer blur_shape;
  if (KORVANE_FAILED(CreateSmartBufferData(blur_shape, m_bok_size.w, m_bok_size.h, PIXEL_BGRA32))) return hr;
  for (int32_t y = 0; y < m_bok_size.h; ++y) {
    std::memcpy(RowPtr(blur_shape, y), RowPtr(m_rotated_shape, y), 4u * m_bok_size.w);
  }
  // Soften the lens shape before scaling it down; the same radius at both
  // ends of the blend, so the blend does not change it.
  const int32_t r = static_cast<int32_t>(m_bok_size.w * 16 / kShapeBlurBase);
  BoxBlurParam blur;
  blur.src = MapView(blur_shape, FullRect(blur_shape));
  blur.radius = static_cast<int32_t>((1.0f - t) * r + t * r);
  if ((hr = RunBoxBlur(m_thread_adapter, m_system_info, blur, FullRect(blur_shape), 2)) < 0) return hr;
  for (int32_t i = 0; i < kSizeCount; ++i) {
    SmartBuffer scaled_shape;
    if (KORVANE_FAILED(CreateSmartBufferData(scaled_shape, scale_list[i], scale_list[i], PIXEL_BGRA32))) return hr;
    BokehType& scaled_bokeh_type = m_scaled_bokeh_type[static_cast<size_t>(i)];
    scaled_bokeh_type.shape = scaled_shape;
    if ((hr = ResizeBuffer(m_thread_adapter, m_system_info, blur_shape, FullRect(blur_shape), scaled_bokeh_type.shape,
                           FullRect(scaled_shape))) < 0) {
      KORVANE_LOG_FAILED_CALL("ResizeBuffer(blur_shape, scaled_bokeh_type.shape)", hr);
      return hr;
    }
  }
  return S_OK;
}

int32_t BokehEffect::InitTempBokehType() {
  int32_t hr;
  for (int32_t i = 0; i < kSizeCount; ++i) {
    const BokehType& bokeh_type = m_scaled_bokeh_type[static_cast<size_t>(i)];
    BokehType& tmp_bokeh_type = m_tmp_bokeh_type[static_cast<size_t>(i)];
    // One pixel larger each way: the sub-pixel paste spreads the shape over it.
    if (KORVANE_FAILED(CreateSmartBufferData(tmp_bokeh_type.shape, bokeh_type.shape.width + 1,
                                             bokeh_type.shape.height + 1, PIXEL_BGRA32))) {
      return hr;
    }
  }
  return S_OK;
}

// --- Placement ----------------------------------------------------------------

int32_t BokehEffect::InitBokehListSizeID() {
  const bool from_focus = m_param.bokeh_source_mode == 1 || m_param.bokeh_source_mode == 2;
  const SmartBuffer& reference = from_focus ? m_focus_src_mask : m_blur_mask;
  SmartBuffer norm_blur_mask;
  int32_t hr;
  if (KORVANE_FAILED(CreateSmartBufferData(norm_blur_mask, m_norm_img_size.w, m_norm_img_size.h, PIXEL_GRAY8))) {
    return hr;
  }
  if (reference.data) {
    if ((hr = ResizeBuffer(m_thread_adapter, m_system_info, reference, FullRect(reference), norm_blur_mask,
                           FullRect(norm_blur_mask))) < 0) {
      KORVANE_LOG_FAILED_STEP("ResizeBuffer", hr);
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

int32_t BokehEffect::PasteBokehList() {
  const float amount = m_shape_param.amount;
  const int32_t S = max(m_scaled_img_size.w, m_scaled_img_size.h);
  const float scale = static_cast<float>(S) / kNormLongSide;
  const float norm_cx = (m_norm_img_size.w - 1) * 0.5f, norm_cy = (m_norm_img_size.h - 1) * 0.5f;
  const float scaled_cx = (m_scaled_img_size.w - 1) * 0.5f, scaled_cy = (m_scaled_img_size.h - 1) * 0.5f;
  const int32_t hue_shift = static_cast<int32_t>(m_shape_param.hue_offset * 36000.0f * 0.5f);
  const float sat_weight = (m_shape_param.saturation + 1.0f) * 0.5f;
  const int32_t w = m_scaled_light_buff.width, h = m_scaled_light_buff.height;
  const bool whole_pixels = m_param.quality_mode == 2 || m_param.quality_mode == 3;
  const auto paste = KORVANE_PICK(m_system_info, PasteLight, PasteLight_SSE);
  const auto bilinear_paste = KORVANE_PICK(m_system_info, BilinearPasteLight, BilinearPasteLight_SSE);
  const auto& curve = TwinkleCurve();
  SmartBuffer& light_buff = m_scaled_light_buff;
  int32_t hr;

  for (const auto& [key, entry] : m_bokeh_list) {
    (void)key;
    if (!entry.enabled || 1.0f - amount > entry.random) continue;
    PointF pt;
    pt.x = (entry.x - norm_cx) * scale + scaled_cx;
    pt.y = (entry.y - norm_cy) * scale + scaled_cy;
    const PointI pt_int{static_cast<int32_t>(pt.x + 0.5f), static_cast<int32_t>(pt.y + 0.5f)};
    if (!Inside(m_scaled_roi, pt.x, pt.y) ||
        !Inside(m_scaled_roi, static_cast<float>(pt_int.x), static_cast<float>(pt_int.y))) {
      continue;
    }
    const float current_lightness = m_param.twinkle_switch ? m_twinkle_table[static_cast<size_t>(entry.frame_offset)]
                                                           : curve[static_cast<size_t>(entry.phase)];
    if (current_lightness == 0.0f) continue;

    int32_t hue = 0, sat = 0, lit = kNeutralLightness;
    bool neutral = false;  // no hue: grey light
    switch (m_shape_param.color_mode) {
      case 0:
        neutral = m_bokeh_global_color == 0;
        hue = static_cast<int32_t>(m_bokeh_global_color) + hue_shift;
        sat = neutral ? 0 : static_cast<int32_t>(sat_weight * kHslMax);
        break;
      case 1: {
        const uint8_t* px = RowPtr<const uint8_t>(m_norm_src_buff, entry.y) + 4 * entry.x;
        RgbToHsl(px[2], px[1], px[0], hue, sat, lit);
        hue += hue_shift;
        sat = std::min(static_cast<int32_t>(static_cast<float>(sat) * 3.0f * sat_weight), kHslMax);
        break;
      }
      case 2:
        hue = static_cast<int32_t>(m_bokeh_random_color_table[static_cast<size_t>(entry.color_index)]) + hue_shift;
        sat = static_cast<int32_t>(sat_weight * kHslMax);
        break;
      default: continue;  // no colour: the paste would add nothing
    }
    if (hue > kHueFull) hue -= kHueFull;
    if (hue < 0) hue += kHueFull;
    LightPasteArgs args;
    args.lightness = current_lightness;
    args.mode = LIGHT_PASTE_INTENSITY;
    HslToRgb(neutral ? -1 : hue, sat, lit, args.color.r, args.color.g, args.color.b);

    if (entry.size_id < 0 || entry.size_id >= kSizeCount) continue;
    const SmartBuffer& bokeh_buff = m_scaled_bokeh_type[static_cast<size_t>(entry.size_id)].shape;
    const int32_t d = bokeh_buff.width;
    Rect bok_roi;
    if (whole_pixels) {
      if (KORVANE_FAILED(CalPasteLightROI(bok_roi, pt_int, d, h, w))) return hr;
      if ((hr = paste.fn(bokeh_buff, light_buff, pt_int, args, bok_roi)) < 0) {
        KORVANE_LOG_FAILED_CALL(
            paste.simd ? "PasteBokeh_SSE(bokeh_buff, light_buff, pt_int, current_lightness, color, bok_roi)"
                       : "PasteBokeh(bokeh_buff, light_buff, pt_int, current_lightness, color, bok_roi)",
            hr);
        return hr;
      }
    } else {
      PointI origin;
      SmartBuffer& tmp_bokeh_buff = m_tmp_bokeh_type[static_cast<size_t>(entry.size_id)].shape;
      if (KORVANE_FAILED(CalBilinearPasteLightROI(bok_roi, origin, pt, d, h, w))) return hr;
      if ((hr = bilinear_paste.fn(bokeh_buff, tmp_bokeh_buff, light_buff, pt, args, bok_roi)) < 0) {
        KORVANE_LOG_FAILED_CALL(bilinear_paste.simd ? "BilinearPasteBokeh_SSE(bokeh_buff, tmp_bokeh_buff, light_buff, "
                                                      "pt, current_lightness, color, bok_roi)"
                                                    : "BilinearPasteBokeh(bokeh_buff, tmp_bokeh_buff, light_buff, pt, "
                                                      "current_lightness, color, bok_roi)",
                                hr);
        return hr;
      }
    }
  }
  return S_OK;
}

int32_t BokehEffect::SetRegionMode(int32_t mode) {
  if (mode != REGION_CENTRES_INSIDE && mode != REGION_SHAPES_REACHING) return E_INVALIDARG;
  m_region_mode = mode;
  return S_OK;
}

}  // namespace Korvane
