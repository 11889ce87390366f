#include "effects/light_rays/LightRaysEffect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "core/BandTask.h"
#include "core/BilinearResize.h"
#include "core/BoxBlur.h"
#include "core/ColorSpace.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

// Releases the image references a Process call took, on every way out.
struct ParamImagesGuard {
  LightRaysParam& p;
  ~ParamImagesGuard() {
    p.src = SmartBuffer();
    p.mask = SmartBuffer();
    p.dst = SmartBuffer();
  }
};

// Creates one working image; a refused allocation is a failure code here,
// so it is reported with the buffer's own line like any other failure.
int32_t CreateBuffer(SmartBuffer& buf, int32_t w, int32_t h, int32_t pix_fmt) {
  try {
    return CreateSmartBufferData(buf, w, h, pix_fmt);
  } catch (const std::bad_alloc&) {
    buf = SmartBuffer();
    return E_OUTOFMEMORY;
  }
}

}  // namespace

LightRaysEffect::LightRaysEffect(CThreadPool* pool)
    : EffectCore(pool), m_pool(pool), m_resize_factor(0.5f), m_theta_grid(0.1f) {
  const int32_t n = static_cast<int32_t>(360 / m_theta_grid);
  m_cos_table.resize(static_cast<size_t>(2 * n + 1));
  m_sin_table.resize(static_cast<size_t>(2 * n + 1));
  // Fixed widths and strengths of the spokes and shafts (two numbers each).
  Mt19937 gen(1);
  m_spoke_shape.resize(200);
  m_shaft_shape.resize(100);
  for (float& v : m_spoke_shape) v = DrawUnit(gen);
  for (float& v : m_shaft_shape) v = DrawUnit(gen);
}

bool LightRaysEffect::BuffersReady() const {
  return m_hlr_buff.data && m_resized_src_buff.data && m_resized_msk_buff.data && m_resized_hlr_buff.data &&
         m_polar_map;
}

void LightRaysEffect::ReleaseAll() {
  for (SmartBuffer* b : {&m_hlr_buff, &m_resized_src_buff, &m_resized_msk_buff, &m_resized_hlr_buff}) *b = SmartBuffer();
  m_polar_map.reset();
  m_ray_buff = RayStore();
  m_temp_ray_buff = RayStore();
  m_initialized = false;
  m_map_valid = false;
}

int32_t LightRaysEffect::Initialize(int32_t width, int32_t height) {
  if (width < 1 || height < 1 || width > kMaxImageSide || height > kMaxImageSide) return E_INVALIDARG;
  if (width == m_img_w && height == m_img_h && m_initialized && BuffersReady()) return S_OK;

  ReleaseAll();
  m_img_w = width;
  m_img_h = height;
  // Half size, rounded half up (the product in float, the rounding in double).
  m_resized_img_w = static_cast<int32_t>(static_cast<double>(width * m_resize_factor) + 0.5);
  m_resized_img_h = static_cast<int32_t>(static_cast<double>(height * m_resize_factor) + 0.5);

  int32_t hr = S_OK;
  try {
    // Each failure is logged with the call as written here (the blanks are
    // part of the lines).
    if ((hr = LogCall("CreateSmartBufferData( m_hlr_buff, m_img_w, m_img_h, PIXEL_BGRA32)",
                      CreateBuffer(m_hlr_buff, m_img_w, m_img_h, PIXEL_BGRA32))) < 0 ||
        (hr = LogCall("CreateSmartBufferData(m_resized_hlr_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32)",
                      CreateBuffer(m_resized_hlr_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32))) < 0 ||
        (hr = LogCall("CreateSmartBufferData(m_resized_src_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32)",
                      CreateBuffer(m_resized_src_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32))) < 0 ||
        (hr = LogCall("CreateSmartBufferData(m_resized_msk_buff, m_resized_img_w, m_resized_img_h, PIXEL_GRAY8 )",
                      CreateBuffer(m_resized_msk_buff, m_resized_img_w, m_resized_img_h, PIXEL_GRAY8))) < 0 ||
        KORVANE_FAILED(GenerateSinCosTable(m_cos_table, m_sin_table, m_theta_grid))) {
      ReleaseAll();
      return hr;
    }
    const size_t half_pixels = static_cast<size_t>(m_resized_img_w) * static_cast<size_t>(m_resized_img_h);
    m_polar_map.reset(new float[half_pixels * 2]);
    for (SmartBuffer* b : {&m_hlr_buff, &m_resized_hlr_buff, &m_resized_src_buff}) FillMap(*b);
    FillMap(m_resized_msk_buff, 255);
    m_msk_dirty = false;

    const double rw = m_resized_img_w, rh = m_resized_img_h;
    const int32_t diagonal = static_cast<int32_t>(std::sqrt(rw * rw + rh * rh)) + 1;
    m_max_polar_w = diagonal;
    m_max_polar_h = 1 - static_cast<int32_t>(-360 / m_theta_grid);
    m_max_rotate_w = m_max_rotate_h = diagonal;
    // The ray-space images themselves are made per call, holding only what
    // the call's lines cross (PrepareRaySpace).
    m_lines.resize(static_cast<size_t>(std::max(m_max_polar_h, m_max_rotate_h)));
    m_row_gain.resize(m_lines.size());
    m_cone.resize(static_cast<size_t>(m_max_polar_h));
  } catch (const std::bad_alloc& e) {
    DebugLog("Initialize - %s caught!", e.what());
    ReleaseAll();
    return E_OUTOFMEMORY;
  }

  m_initialized = true;
  Mt19937 gen(0);
  if (KORVANE_FAILED(GenerateRandomAngles(m_radial_angles, 100, gen)) ||
      KORVANE_FAILED(GenerateRandomAngles(m_directional_angles, 50, gen))) {
    return hr;
  }
  return S_OK;
}

int32_t LightRaysEffect::ReleaseBuffer() {
  ReleaseAll();
  m_param = LightRaysParam();
  m_img_w = m_img_h = 0;
  m_resized_img_w = m_resized_img_h = 0;
  m_max_polar_w = m_max_polar_h = m_max_rotate_w = m_max_rotate_h = 0;
  m_radial_angles.clear();
  m_directional_angles.clear();
  m_msk_dirty = false;
  m_lampshade = false;
  return S_OK;
}

int32_t LightRaysEffect::Validate(const LightRaysParam& p) const {
  if (m_img_h < 0 || m_img_w < 0) return E_FAIL;

  if (p.src.width != m_img_w || p.src.height != m_img_h || !p.src.data) return E_INVALIDARG;
  if (p.mask.data && (p.mask.width != m_img_w || p.mask.height != m_img_h || p.mask.pix_fmt != PIXEL_GRAY8)) {
    return E_INVALIDARG;
  }
  const Rect& roi = p.roi;
  if (p.dst.width != static_cast<int64_t>(roi.right) - roi.left ||
      p.dst.height != static_cast<int64_t>(roi.bottom) - roi.top) {
    return E_INVALIDARG;
  }

  if (!InRange(p.color_param, -1.0f, 1.0f) || !InRange(p.hue_shift, -1.0f, 1.0f)) return E_INVALIDARG;
  if (p.src.pix_fmt != PIXEL_BGRA32 || p.dst.pix_fmt != PIXEL_BGRA32) return E_NOTIMPL;

  const float side = static_cast<float>(std::max(p.src.width, p.src.height));
  if (!InRange(p.ray_level, 0.0f, 1.0f) ||
      !InRange(p.ray_softness, 0.0f, static_cast<float>(std::max(p.src.width, p.src.height) / 32)) ||
      !InRange(p.hlr_threshold, 0.0f, 255.0f) || !InRange(p.blend_strength, 0.0f, 1.0f) ||
      !InRange(p.ray_length, 0.0f, side) || !InRange(p.lampshade_angle, 0.0f, 360.0f) ||
      !InRange(p.lampshade_spread, 0.0f, 180.0f) || !InRange(p.ray_radius, 0.0f, side) ||
      !InRange(p.ray_angle, 0.0f, 360.0f)) {
    return E_INVALIDARG;
  }

  // The rectangle is read from the photo and rows are walked in full, so
  // both must really be there before anything is written.
  if (!RectInside(roi, m_img_w, m_img_h)) return E_INVALIDARG;
  if (!RowsFit(p.src, 4) || !RowsFit(p.dst, 4) || (p.mask.data && !RowsFit(p.mask, 1))) return E_INVALIDARG;
  if (!p.dst.data) return E_POINTER;
  if (!m_initialized || !BuffersReady()) return E_FAIL;
  return S_OK;
}

int32_t LightRaysEffect::Process(const LightRaysParam& param) {
  int32_t hr = Validate(param);
  if (hr < 0) return hr;
  try {
    m_param = param;
    ParamImagesGuard guard{m_param};
    if (m_param.center_x == kLightRaysAutoCenter || m_param.center_y == kLightRaysAutoCenter) {
      const ImageBuffer photo = MapView(m_param.src, FullRect(m_param.src));
      if ((hr = FindCenter(&photo, &m_param.center_x, &m_param.center_y)) < 0) return hr;
    }
    // The centre may lie up to half an image beyond each edge.
    m_param.center_x = std::min(std::max(m_param.center_x, static_cast<int32_t>(-0.5 * m_img_w)),
                                static_cast<int32_t>(1.5 * m_img_w));
    m_param.center_y = std::min(std::max(m_param.center_y, static_cast<int32_t>(-0.5 * m_img_h)),
                                static_cast<int32_t>(1.5 * m_img_h));
    if (m_param.ray_length > 0.0f) {
      hr = LogStep("Total cost", RunPipeline());
    } else {
      hr = MemCopyROI();
    }
  } catch (const std::bad_alloc& e) {
    DebugLog("Process - %s caught!", e.what());
    hr = E_OUTOFMEMORY;
  }
  return hr;
}

int32_t LightRaysEffect::MemCopyROI() {
  const Rect roi = m_param.roi;
  const SmartBuffer& src = m_param.src;
  SmartBuffer& dst = m_param.dst;
  const size_t row_bytes = static_cast<size_t>(RectWidth(roi)) * 4;
  const int32_t hr = RunBands(m_thread_adapter, roi, [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      std::memcpy(RowPtr(dst, y - roi.top), RowPtr(src, y) + static_cast<ptrdiff_t>(roi.left) * 4, row_bytes);
    }
    return S_OK;
  });
  return LogStep("MemCopyROI", hr);
}

int32_t LightRaysEffect::RunPipeline() {
  int32_t hr;
  if (m_param.animate_rays) {
    // ray_mode 0 sways the spokes, any other mode the shafts.
    if (m_param.ray_mode != 0) {
      hr = CalAnimatedAngles(m_directional_angles, 50, 100, m_param.anime_frame_index, m_param.anime_frame_count);
    } else {
      hr = CalAnimatedAngles(m_radial_angles, 100, 0, m_param.anime_frame_index, m_param.anime_frame_count);
    }
    if (hr < 0) return hr;
  }
  if (KORVANE_FAILED(DownSampleInput()) || KORVANE_FAILED(PrepareLampshadeInfo())) return hr;

  HighLightParam detect;
  detect.src = &m_resized_src_buff;
  detect.mask = &m_resized_msk_buff;
  detect.dst = &m_resized_hlr_buff;
  detect.threshold = m_param.hlr_threshold;
  const Rect resized{0, 0, m_resized_img_w, m_resized_img_h};
  const PickedTask find =
      KORVANE_PICK_BAND_AVX2(m_system_info, HighLightParam, HighLightDetect, HighLightDetect_SSE, HighLightDetect_AVX2);
  if ((hr = LogStep("HighLightDetect", m_thread_adapter.RunTaskByMultiThread(find.fn, &detect, nullptr, resized))) < 0) {
    return hr;
  }
  if (m_param.ray_mode == LIGHT_RAYS_DIRECTIONAL) {
    if (KORVANE_FAILED(RotateTransformProcess())) return hr;
  } else if ((hr = LogCall("PolarTransformProcess ()", PolarTransformProcess())) < 0) {
    return hr;
  }
  // The step keeps the name it has always had in the log.
  if ((hr = LogStep("SoftneessProcess", SoftnessProcess())) < 0 || (hr = PostProcessRays()) < 0) return hr;
  return UpSampleAndBlend();
}

float LightRaysEffect::HalfX(float x) const {
  return (x - (m_img_w - 1) * 0.5f) * m_resized_img_w / m_img_w + (m_resized_img_w - 1) * 0.5f;
}
float LightRaysEffect::HalfY(float y) const {
  return (y - (m_img_h - 1) * 0.5f) * m_resized_img_h / m_img_h + (m_resized_img_h - 1) * 0.5f;
}

int32_t LightRaysEffect::RayLengthHalf() const {
  const float scale = static_cast<float>(m_resized_img_w) / m_img_w;
  const int32_t len = static_cast<int32_t>(m_param.ray_length * scale + 0.5f);
  return std::min(std::max(len, 1), kMaxRayLength);
}

int32_t LightRaysEffect::SoftnessRadius() const {
  // A window of 2r - 1 half-size pixels, about ray_softness full-size pixels.
  const float half = m_param.ray_softness * m_resized_img_w / m_img_w;
  return half > 0.0f ? static_cast<int32_t>(half * 0.5f + 1.0f) : 0;
}

void LightRaysEffect::CalDownsizedRoi() {
  // The half-size pixels the enlargement reads for the roi (the resize's own
  // centre-to-centre mapping), plus what the softening needs around them.
  const int32_t margin = 2 + SoftnessRadius();
  const auto span = [margin](int32_t lo, int32_t hi, int32_t full, int32_t half, int32_t& out_lo, int32_t& out_hi) {
    const float ratio = static_cast<float>(full) / static_cast<float>(half);
    const auto at = [&](int32_t d) {
      return (static_cast<float>(d) - static_cast<float>(full - 1) / 2.0f) / ratio +
             static_cast<float>(half - 1) / 2.0f;
    };
    out_lo = std::max(0, static_cast<int32_t>(std::floor(at(lo))) - margin);
    out_hi = std::min(half, static_cast<int32_t>(std::floor(at(hi - 1))) + 2 + margin);
  };
  span(m_param.roi.left, m_param.roi.right, m_img_w, m_resized_img_w, m_downsized_roi.left, m_downsized_roi.right);
  span(m_param.roi.top, m_param.roi.bottom, m_img_h, m_resized_img_h, m_downsized_roi.top, m_downsized_roi.bottom);
}

int32_t LightRaysEffect::DownSampleInput() {
  int32_t hr;
  const Rect resized{0, 0, m_resized_img_w, m_resized_img_h};
  ResizeParam down;
  down.src = m_param.src;
  down.dst = m_resized_src_buff;
  down.src_roi = Rect{0, 0, m_img_w, m_img_h};
  if ((hr = LogStep("src downsample", RunBilinearResize(m_thread_adapter, m_system_info, down, resized))) < 0) {
    return hr;
  }
  if (m_param.mask.data) {
    ResizeParam mask;
    mask.src = m_param.mask;
    mask.dst = m_resized_msk_buff;
    mask.src_roi = down.src_roi;
    if ((hr = LogStep("msk downsample", RunBilinearResize(m_thread_adapter, m_system_info, mask, resized))) < 0) {
      return hr;
    }
    m_msk_dirty = true;
  } else if (m_msk_dirty) {
    FillMap(m_resized_msk_buff, 255);
    m_msk_dirty = false;
  }
  CalDownsizedRoi();
  return S_OK;
}

int32_t LightRaysEffect::SoftnessProcess() {
  const int32_t radius = SoftnessRadius();
  if (radius <= 1) return S_OK;  // a window of one pixel changes nothing
  // The blur runs on the working rectangle alone, as an image of its own, so
  // the highlights left around it never mix into the rays.
  const Rect& area = m_downsized_roi;
  BoxBlurParam boxblur_param;
  boxblur_param.src = MapView(m_resized_hlr_buff, area);
  boxblur_param.radius = radius;
  const Rect downsized_roi{0, 0, RectWidth(area), RectHeight(area)};
  const auto h = KORVANE_PICK(m_system_info, BoxBlurH, BoxBlurH_SSE);
  const auto v = KORVANE_PICK(m_system_info, BoxBlurV, BoxBlurV_SSE);
  int32_t hr;
  if ((hr = LogKernelCall("m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, downsized_roi)",
                          h.name,
                          m_thread_adapter.RunTaskByMultiThread(h.fn, &boxblur_param, nullptr, downsized_roi))) < 0) {
    return hr;
  }
  return LogKernelCall(
      "m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, downsized_roi, false)", v.name,
      m_thread_adapter.RunTaskByMultiThread(v.fn, &boxblur_param, nullptr, downsized_roi, false));
}

int32_t LightRaysEffect::PostProcessRays() {
  // Value: 1 - (1 - v)^(1 + 15 ray_level), a gain with a soft shoulder.
  // Saturation: scaled down towards white for negative color_param, lifted
  // with a soft shoulder (about x2 at 1) for positive.
  // With smooth_fade the smeared light arrives FadeGain times brighter and
  // is divided back here: the lift then magnifies steps of a finer light,
  // and the far ends of the rays fade without visible steps.
  int32_t value_lut[256], sat_lut[256];
  const double gamma = 1.0 + 15.0 * m_param.ray_level;
  const double cp = m_param.color_param;
  const double fade_gain = FadeGain();
  for (int32_t i = 0; i < 256; ++i) {
    const double x = i / 255.0;
    const double v = 1.0 - std::pow(1.0 - x / fade_gain, gamma);
    const double s = cp < 0.0 ? x * (1.0 + cp) : 1.0 - std::pow(1.0 - x, 1.0 + cp);
    value_lut[i] = static_cast<int32_t>(v * kHsvMax + 0.5);
    sat_lut[i] = static_cast<int32_t>(s * kHsvMax + 0.5);
  }
  // hue_shift turns by up to half a turn; animate_hue adds 2 index / count
  // of that, a full turn over the loop. The total is brought into one turn
  // around 0 so the single wrap of the stage keeps every hue in range.
  double h = m_param.hue_shift;
  if (m_param.animate_hue) h += LoopPhase(m_param.anime_frame_index, m_param.anime_frame_count, 2.0);
  int32_t shift = static_cast<int32_t>(std::lround(h * 18000.0));
  while (shift > 18000) shift -= 36000;
  while (shift < -18000) shift += 36000;

  PostProcessParam p;
  p.img = &m_resized_hlr_buff;
  p.value_lut = value_lut;
  p.sat_lut = sat_lut;
  p.hue_shift = shift;
  // The colour stage has a plain and an AVX2 form.
  const PickedTask post = ChooseKernel<ThreadTask>(m_system_info, &BandTask<PostProcessParam, PostProcess>, "PostProcess",
                                                   nullptr, "", KORVANE_AVX2_BAND(PostProcessParam, PostProcess_AVX2),
                                                   "PostProcess_AVX2");
  return RunPicked(m_thread_adapter, post, &p, m_downsized_roi);
}

int32_t LightRaysEffect::UpSampleAndBlend() {
  // "hlr upsample" and "Blend" are the light-map enlargement and add, the
  // rays added at the blend strength through a table.
  uint8_t table[256];
  KORVANE_PICK_AVX2(m_system_info, CalLightAddTable, CalLightAddTable_SSE, CalLightAddTable_AVX2)
      .fn(m_param.blend_strength, table);
  LightMapAddParam blend;
  blend.base = m_param.src;
  blend.light = m_hlr_buff;
  blend.dst = MapView(m_param.dst, FullRect(m_param.dst));
  blend.roi = m_param.roi;
  blend.table = table;
  LightMapAddSteps steps;
  steps.upsample = "hlr upsample";
  steps.add = "Blend";
  int32_t failed = -1;
  const int32_t hr =
      RunLightMapEnlargeAdd(m_thread_adapter, m_system_info, m_resized_hlr_buff, m_downsized_roi, blend, steps, &failed);
  // A failure of the enlargement (or of the chain itself) is UpSampleHLR's.
  if (failed == 0) LogCall("UpSampleHLR()", hr);
  return hr;
}

}  // namespace Korvane
