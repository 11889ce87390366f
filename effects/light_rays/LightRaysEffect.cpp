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
#include "core/LightPaste.h"
#include "core/RowPipeline.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

// Largest side Initialize accepts: every row and buffer size stays far from
// the 32-bit limits.
constexpr int32_t kMaxSide = 1 << 16;

constexpr double kTwoPi = 6.283184;        // the angle arrays' 2 pi
constexpr float kDegToRad = 0.017453f;     // the sine/cosine tables' factor
constexpr double kFullTurn = 6.283185307179586;
constexpr double kSway = 0.04;             // animated beams move up to this many radians
constexpr float kSpokeBase = 0.22f;        // light between the radial spokes
constexpr float kShaftBase = 0.2f;         // light between the directional shafts



// Stores `code` in hr; on a failure logs it with `text` and returns true.
bool FailedCall(int32_t code, const char* text, int32_t& hr) {
  hr = code;
  if (code >= 0) return false;
  KORVANE_LOG_FAILED_CALL(text, code);
  return true;
}

// Releases the image references a Process call took, on every way out.
struct ParamImagesGuard {
  LightRaysParam& p;
  ~ParamImagesGuard() {
    p.src = SmartBuffer();
    p.mask = SmartBuffer();
    p.dst = SmartBuffer();
  }
};

// Adds bumps (1 - |d| / width)^2 x strength centred on `centre` and on its
// repeats every `period`, to the rows [0, rows) of `sum`.
void AddBump(std::vector<float>& sum, int32_t rows, double centre, double width, float strength, double period) {
  const double first = centre - std::ceil((centre + width) / period) * period;
  for (double c = first; c - width < rows; c += period) {
    const int32_t lo = std::max(0, static_cast<int32_t>(std::ceil(c - width)));
    const int32_t hi = std::min(rows - 1, static_cast<int32_t>(std::floor(c + width)));
    for (int32_t j = lo; j <= hi; ++j) {
      const double u = 1.0 - std::fabs(j - c) / width;
      if (u > 0.0) sum[j] += strength * static_cast<float>(u * u);
    }
  }
}

// The row gains (256 = 1) of a pattern: a base level with the bumps on top.
void GainsFromPattern(const std::vector<float>& sum, int32_t rows, float base, std::vector<uint16_t>& gain) {
  for (int32_t j = 0; j < rows; ++j) {
    const float level = base + (1.0f - base) * std::min(sum[j], 1.0f);
    gain[j] = static_cast<uint16_t>(level * 256.0f + 0.5f);
  }
}

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
    : EffectCore(pool), m_resize_factor(0.5f), m_theta_grid(0.1f) {
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

int32_t LightRaysEffect::GenerateSinCosTable(std::vector<float>& cos_table, std::vector<float>& sin_table,
                                             float grid) {
  if (!(grid > 0.0f) || cos_table.size() != sin_table.size()) return E_INVALIDARG;
  const int32_t n = static_cast<int32_t>(360 / grid);
  for (size_t i = 0; i < cos_table.size(); ++i) {
    const float theta = (static_cast<int32_t>(i) - n) * grid * kDegToRad;
    cos_table[i] = std::cos(theta);
    sin_table[i] = std::sin(theta);
  }
  return S_OK;
}

int32_t LightRaysEffect::GenerateRandomAngles(std::vector<double>& angles, int32_t count, Mt19937& gen) {
  if (count <= 0) return E_INVALIDARG;
  angles.resize(static_cast<size_t>(count));
  for (double& a : angles) a = kTwoPi * DrawUnit(gen);
  return S_OK;
}

int32_t LightRaysEffect::CalAnimatedAngles(std::vector<double>& angles, int32_t count, int32_t skip,
                                           int32_t frame_index, int32_t frame_count) {
  Mt19937 gen(0);
  gen.discard(static_cast<unsigned long long>(skip));
  int32_t hr = GenerateRandomAngles(angles, count, gen);
  if (hr < 0) return hr;
  if (frame_count < 1 || frame_index < 0) return S_OK;  // frame 0
  const double t = static_cast<double>(frame_index % frame_count) / frame_count;
  for (int32_t k = 0; k < count; ++k) {
    // A whole number of swings per loop, starting from the still angle, so
    // frame `count` is frame 0 again.
    const double phase = angles[k] / kTwoPi;
    const double turns = 1.0 + (k % 2);
    angles[k] += kSway * (std::sin(kFullTurn * (turns * t + phase)) - std::sin(kFullTurn * phase));
  }
  return S_OK;
}

bool LightRaysEffect::BuffersReady() const {
  return m_hlr_buff.data && m_resized_src_buff.data && m_resized_msk_buff.data && m_resized_hlr_buff.data &&
         m_polar_buff.data && m_temp_polar_buff.data && m_rotate_buff.data && m_temp_rotate_buff.data &&
         m_polar_map;
}

void LightRaysEffect::ReleaseAll() {
  for (SmartBuffer* b : {&m_hlr_buff, &m_resized_src_buff, &m_resized_msk_buff, &m_resized_hlr_buff, &m_polar_buff,
                         &m_temp_polar_buff, &m_rotate_buff, &m_temp_rotate_buff}) {
    *b = SmartBuffer();
  }
  m_polar_map.reset();
  m_initialized = false;
  m_map_valid = false;
}

int32_t LightRaysEffect::Initialize(int32_t width, int32_t height) {
  if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide) return E_INVALIDARG;
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
    if (FailedCall(CreateBuffer(m_hlr_buff, m_img_w, m_img_h, PIXEL_BGRA32),
                   "CreateSmartBufferData( m_hlr_buff, m_img_w, m_img_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_resized_hlr_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_resized_hlr_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_resized_src_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_resized_src_buff, m_resized_img_w, m_resized_img_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_resized_msk_buff, m_resized_img_w, m_resized_img_h, PIXEL_GRAY8),
                   "CreateSmartBufferData(m_resized_msk_buff, m_resized_img_w, m_resized_img_h, PIXEL_GRAY8 )", hr) ||
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
    m_polar_buff_size = static_cast<int64_t>(m_max_polar_w) * m_max_polar_h * 4;
    m_rotate_buff_size = static_cast<int64_t>(m_max_rotate_w) * m_max_rotate_h * 4;
    if (FailedCall(CreateBuffer(m_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_temp_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_temp_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32)", hr) ||
        FailedCall(CreateBuffer(m_temp_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32),
                   "CreateSmartBufferData(m_temp_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32)", hr)) {
      ReleaseAll();
      return hr;
    }
    for (SmartBuffer* b : {&m_polar_buff, &m_temp_polar_buff, &m_rotate_buff, &m_temp_rotate_buff}) FillMap(*b);
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
  m_polar_buff_size = m_rotate_buff_size = 0;
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
    // The centre may lie up to half an image beyond each edge.
    m_param.center_x = std::min(std::max(m_param.center_x, static_cast<int32_t>(-0.5 * m_img_w)),
                                static_cast<int32_t>(1.5 * m_img_w));
    m_param.center_y = std::min(std::max(m_param.center_y, static_cast<int32_t>(-0.5 * m_img_h)),
                                static_cast<int32_t>(1.5 * m_img_h));
    if (m_param.ray_length > 0.0f) {
      hr = RunPipeline();
      if (hr < 0) KORVANE_LOG_FAILED_STEP("Total cost", hr);
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
  if (hr < 0) KORVANE_LOG_FAILED_STEP("MemCopyROI", hr);
  return hr;
}

int32_t LightRaysEffect::RunStage(const char* stage, ThreadTask task, void* param, const Rect& region) {
  const int32_t hr = m_thread_adapter.RunTaskByMultiThread(task, param, this, region);
  if (hr < 0) KORVANE_LOG_FAILED_STEP(stage, hr);
  return hr;
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
  const auto find = KORVANE_PICK(m_system_info, HighLightDetect, HighLightDetect_SSE);
  if ((hr = RunBands(m_thread_adapter, resized, [&](const Rect& band) { return find.fn(detect, band); })) < 0) {
    KORVANE_LOG_FAILED_STEP("HighLightDetect", hr);
    return hr;
  }

  if (m_param.ray_mode == LIGHT_RAYS_DIRECTIONAL) {
    if (KORVANE_FAILED(RotateTransformProcess())) return hr;
  } else if ((hr = PolarTransformProcess()) < 0) {
    DebugLog("[Korvane] PolarTransformProcess () Error! - Return Code: %x", static_cast<unsigned>(hr));
    return hr;
  }
  if ((hr = SoftneessProcess()) < 0) {
    KORVANE_LOG_FAILED_STEP("SoftneessProcess", hr);
    return hr;
  }
  if ((hr = PostProcessRays()) < 0) return hr;
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
  if ((hr = RunBilinearResize(m_thread_adapter, m_system_info, down, resized)) < 0) {
    KORVANE_LOG_FAILED_STEP("src downsample", hr);
    return hr;
  }
  if (m_param.mask.data) {
    ResizeParam mask;
    mask.src = m_param.mask;
    mask.dst = m_resized_msk_buff;
    mask.src_roi = down.src_roi;
    if ((hr = RunBilinearResize(m_thread_adapter, m_system_info, mask, resized)) < 0) {
      KORVANE_LOG_FAILED_STEP("msk downsample", hr);
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

int32_t LightRaysEffect::CalPolarMappingTable() {
  const float cx = HalfX(static_cast<float>(m_param.center_x));
  const float cy = HalfY(static_cast<float>(m_param.center_y));
  if (m_map_valid && cx == m_map_cx && cy == m_map_cy) return S_OK;
  m_map_valid = false;
  float* map = m_polar_map.get();
  const int32_t w = m_resized_img_w;
  const float last_row = static_cast<float>(m_max_polar_h - 1);
  // Angles with the sine/cosine tables' own degree, so a pixel's row is the
  // row whose table angle points at it.
  const float rows_per_radian = 1.0f / (m_theta_grid * kDegToRad);
  const int32_t hr = RunBands(m_thread_adapter, Rect{0, 0, w, m_resized_img_h}, [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      float* m = map + static_cast<size_t>(y) * w * 2;
      const float dy = cy - static_cast<float>(y);
      for (int32_t x = 0; x < w; ++x) {
        const float dx = static_cast<float>(x) - cx;
        float a = std::atan2(dy, dx);
        if (a < 0.0f) a += 6.2831853f;
        m[2 * x] = std::sqrt(dx * dx + dy * dy);
        m[2 * x + 1] = std::min(a * rows_per_radian, last_row);
      }
    }
    return S_OK;
  });
  if (hr < 0) {
    KORVANE_LOG_FAILED_STEP("CalPolarMappingTable", hr);
    return hr;
  }
  m_map_cx = cx;
  m_map_cy = cy;
  m_map_valid = true;
  return S_OK;
}

int32_t LightRaysEffect::PrepareLampshadeInfo() {
  m_lampshade = m_param.ray_mode != LIGHT_RAYS_DIRECTIONAL && m_param.lampshade_spread < 180.0f;
  if (!m_lampshade) return S_OK;
  const float spread = m_param.lampshade_spread;
  const float soft = m_param.lampshade_param > 0.0f ? m_param.lampshade_param : 0.0f;  // NaN too
  for (int32_t j = 0; j < m_max_polar_h; ++j) {
    float d = std::fabs(std::fmod(j * m_theta_grid - m_param.lampshade_angle, 360.0f));
    if (d > 180.0f) d = 360.0f - d;
    float w = d <= spread ? 1.0f : 0.0f;
    if (d > spread && soft > 0.0f) w = std::max(0.0f, 1.0f - (d - spread) / soft);
    m_cone[j] = static_cast<uint16_t>(w * 256.0f + 0.5f);
  }
  int32_t hr;
  if ((hr = CalPolarMappingTable()) < 0) return hr;

  // Sources outside the cone are masked out, so no light from them can reach
  // inside it through the softening either.
  const float* map = m_polar_map.get();
  const int32_t w = m_resized_img_w;
  const uint16_t* cone = m_cone.data();
  SmartBuffer& mask = m_resized_msk_buff;
  hr = RunBands(m_thread_adapter, Rect{0, 0, w, m_resized_img_h}, [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      const float* m = map + static_cast<size_t>(y) * w * 2;
      uint8_t* row = RowPtr(mask, y);
      for (int32_t x = 0; x < w; ++x) {
        const uint32_t c = cone[static_cast<int32_t>(m[2 * x + 1] + 0.5f)];
        row[x] = static_cast<uint8_t>((row[x] * c) >> 8);
      }
    }
    return S_OK;
  });
  m_msk_dirty = true;
  if (hr < 0) KORVANE_LOG_FAILED_STEP("CalLampShadeMask", hr);
  return hr;
}

void LightRaysEffect::CalThetaWiseGains(int32_t rows) {
  // Narrow spokes of varying width and strength at the 100 random angles,
  // over a dimmer base, so the smear reads as separate beams.
  std::vector<float> sum(static_cast<size_t>(rows), 0.0f);
  const double rows_per_turn = 360.0 / m_theta_grid;
  for (size_t k = 0; k < m_radial_angles.size(); ++k) {
    const double centre = m_radial_angles[k] / kTwoPi * rows_per_turn;
    const double width = (0.45 + 1.55 * m_spoke_shape[2 * k]) / m_theta_grid;  // degrees to rows
    AddBump(sum, rows, centre, width, 0.35f + 0.65f * m_spoke_shape[2 * k + 1], rows_per_turn);
  }
  GainsFromPattern(sum, rows, kSpokeBase, m_row_gain);
  if (m_lampshade) {
    for (int32_t j = 0; j < rows; ++j) m_row_gain[j] = static_cast<uint16_t>((m_row_gain[j] * m_cone[j] + 128) >> 8);
  }
}

void LightRaysEffect::CalDirectionalGains(int32_t rows, float v_centre, float period) {
  // Parallel shafts at the 50 random angles read as positions across one
  // period of the pattern, anchored at the centre.
  std::vector<float> sum(static_cast<size_t>(rows), 0.0f);
  for (size_t k = 0; k < m_directional_angles.size(); ++k) {
    const double centre = v_centre + m_directional_angles[k] / kTwoPi * period;
    const double width = period * (0.004 + 0.016 * m_shaft_shape[2 * k]);
    AddBump(sum, rows, centre, std::max(width, 1.5), 0.35f + 0.65f * m_shaft_shape[2 * k + 1], period);
  }
  GainsFromPattern(sum, rows, kShaftBase, m_row_gain);
}

int32_t LightRaysEffect::PolarTransformProcess() {
  const int32_t rw = m_resized_img_w, rh = m_resized_img_h;
  const float cx = HalfX(static_cast<float>(m_param.center_x));
  const float cy = HalfY(static_cast<float>(m_param.center_y));

  // GetPolarBuffSize: the radii between the centre and the image (the
  // buffer's column 0 is radius r_base), cut to the buffer's width.
  const float nx = std::min(std::max(cx, 0.0f), static_cast<float>(rw - 1));
  const float ny = std::min(std::max(cy, 0.0f), static_cast<float>(rh - 1));
  const float r_min = std::hypot(cx - nx, cy - ny);
  const float far_x = std::max(std::fabs(cx), std::fabs(cx - (rw - 1)));
  const float far_y = std::max(std::fabs(cy), std::fabs(cy - (rh - 1)));
  const float r_max = std::hypot(far_x, far_y);
  // Neighbouring rows drift apart by a tenth of a degree: the margin keeps
  // every pixel the inverse transform reads inside a sampled range.
  const float margin = 2.0f + 0.002f * (r_max + 4.0f);
  const int32_t r_base = std::max(0, static_cast<int32_t>(std::floor(r_min - margin)));
  const int32_t pw =
      std::max(2, std::min(m_max_polar_w, static_cast<int32_t>(std::ceil(r_max + margin)) - r_base + 2));
  const int32_t ph = m_max_polar_h;

  int32_t hr;
  if ((hr = CalPolarMappingTable()) < 0) return hr;
  CalThetaWiseGains(ph);

  const int32_t n = static_cast<int32_t>(360 / m_theta_grid);
  const float radius = m_param.ray_radius * m_resized_img_w / m_img_w;
  for (int32_t j = 0; j < ph; ++j) {
    RayLine& l = m_lines[j];
    const float c = m_cos_table[n + j], s = m_sin_table[n + j];
    l.dx = c;
    l.dy = -s;  // counter-clockwise as seen: up is -y
    l.x0 = cx + r_base * c;
    l.y0 = cy - r_base * s;
    CalLineRange(l, rw, rh, margin, pw);
    l.src_end = radius > 0.0f ? static_cast<int32_t>(std::ceil(radius)) - r_base + 1 : pw;
    if (m_row_gain[j] == 0) l.src_end = l.lo;  // no light on this row: just clear it
  }

  if ((hr = SampleAndSmear(m_polar_buff, m_temp_polar_buff, Rect{0, 0, pw, ph}, "CarteToPolarTransform",
                            "LightRayHalfBlurH")) < 0)
    return hr;

  const auto back = KORVANE_PICK(m_system_info, PolarToCarte, PolarToCarte_SSE);
  PolarToCarteParam to_carte;
  to_carte.polar = &m_temp_polar_buff;
  to_carte.polar_w = pw;
  to_carte.polar_h = ph;
  to_carte.dst = &m_resized_hlr_buff;
  to_carte.map = m_polar_map.get();
  to_carte.r_base = static_cast<float>(r_base);
  to_carte.area = m_downsized_roi;
  hr = RunBands(m_thread_adapter, m_downsized_roi, [&](const Rect& band) { return back.fn(to_carte, band); });
  if (hr < 0) KORVANE_LOG_FAILED_STEP("PolarToCarteTransform", hr);
  return hr;
}

int32_t LightRaysEffect::SampleAndSmear(SmartBuffer& lines, SmartBuffer& smeared, const Rect& area,
                                        const char* sample_step, const char* smear_step) {
  const auto sample = KORVANE_PICK(m_system_info, SampleRows, SampleRows_SSE);
  SampleRowsParam to_lines{&m_resized_hlr_buff, &lines, m_lines.data()};
  int32_t hr = RunBands(m_thread_adapter, area, [&](const Rect& band) { return sample.fn(to_lines, band); });
  if (hr < 0) {
    KORVANE_LOG_FAILED_STEP(sample_step, hr);
    return hr;
  }
  const auto blur = KORVANE_PICK(m_system_info, SmearRows, SmearRows_SSE);
  SmearRowsParam smear{&lines, &smeared, m_lines.data(), m_row_gain.data(), RayLengthHalf()};
  hr = RunBands(m_thread_adapter, area, [&](const Rect& band) { return blur.fn(smear, band); });
  if (hr < 0) KORVANE_LOG_FAILED_STEP(smear_step, hr);
  return hr;
}

int32_t LightRaysEffect::RotateTransformProcess() {
  const int32_t rw = m_resized_img_w, rh = m_resized_img_h;
  const int32_t n = static_cast<int32_t>(360 / m_theta_grid);
  const int32_t a = static_cast<int32_t>(m_param.ray_angle / m_theta_grid + 0.5f);
  const float c = m_cos_table[n + a], s = m_sin_table[n + a];
  // Along the rays (d) and across them (e), in image coordinates (y down).
  const float dx = c, dy = -s, ex = s, ey = c;

  // GetRotateBuffSize: the turned image's bounding box.
  const int32_t wr = std::max(2, std::min(m_max_rotate_w, static_cast<int32_t>(std::ceil(rw * std::fabs(c) + rh * std::fabs(s))) + 2));
  const int32_t hr_rows = std::max(2, std::min(m_max_rotate_h, static_cast<int32_t>(std::ceil(rw * std::fabs(s) + rh * std::fabs(c))) + 2));
  const float icx = (rw - 1) * 0.5f, icy = (rh - 1) * 0.5f;
  const float rcu = (wr - 1) * 0.5f, rcv = (hr_rows - 1) * 0.5f;
  for (int32_t v = 0; v < hr_rows; ++v) {
    RayLine& l = m_lines[v];
    l.dx = dx;
    l.dy = dy;
    l.x0 = icx - rcu * dx + (v - rcv) * ex;
    l.y0 = icy - rcu * dy + (v - rcv) * ey;
    CalLineRange(l, rw, rh, 3.0f, wr);
    l.src_end = l.hi;
  }
  const float cx = HalfX(static_cast<float>(m_param.center_x));
  const float cy = HalfY(static_cast<float>(m_param.center_y));
  CalDirectionalGains(hr_rows, rcv + (cx - icx) * ex + (cy - icy) * ey, static_cast<float>(m_max_rotate_h));

  int32_t hr = SampleAndSmear(m_rotate_buff, m_temp_rotate_buff, Rect{0, 0, wr, hr_rows}, "ImageRotateTransform",
                              "LightRayBlurH");
  if (hr < 0) return hr;

  RotateBackParam back;
  back.rotated = &m_temp_rotate_buff;
  back.rotated_w = wr;
  back.rotated_h = hr_rows;
  back.dst = &m_resized_hlr_buff;
  back.u0 = rcu - icx * dx - icy * dy;
  back.ux = dx;
  back.uy = dy;
  back.v0 = rcv - icx * ex - icy * ey;
  back.vx = ex;
  back.vy = ey;
  back.area = m_downsized_roi;
  const auto inverse = KORVANE_PICK(m_system_info, RotateBack, RotateBack_SSE);
  hr = RunBands(m_thread_adapter, m_downsized_roi, [&](const Rect& band) { return inverse.fn(back, band); });
  if (hr < 0) KORVANE_LOG_FAILED_STEP("InverseRotateTransform", hr);
  return hr;
}

int32_t LightRaysEffect::SoftneessProcess() {
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
  int32_t hr = m_thread_adapter.RunTaskByMultiThread(h.fn, (void*)&boxblur_param, nullptr, downsized_roi);
  if (hr < 0) {
    DebugLog("[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, downsized_roi) "
             "Error! - Return Code: %x",
             h.name, static_cast<unsigned>(hr));
    return hr;
  }
  hr = m_thread_adapter.RunTaskByMultiThread(v.fn, (void*)&boxblur_param, nullptr, downsized_roi, false);
  if (hr < 0) {
    DebugLog("[Korvane] m_thread_adapter.RunTaskByMultiThread(%s, (void*)&boxblur_param, nullptr, downsized_roi, "
             "false) Error! - Return Code: %x",
             v.name, static_cast<unsigned>(hr));
  }
  return hr;
}

int32_t LightRaysEffect::PostProcessRays() {
  // Value: 1 - (1 - v)^(1 + 15 ray_level), a gain with a soft shoulder.
  // Saturation: scaled down towards white for negative color_param, lifted
  // with a soft shoulder (about x2 at 1) for positive.
  int32_t value_lut[256], sat_lut[256];
  const double gamma = 1.0 + 15.0 * m_param.ray_level;
  const double cp = m_param.color_param;
  for (int32_t i = 0; i < 256; ++i) {
    const double x = i / 255.0;
    const double v = 1.0 - std::pow(1.0 - x, gamma);
    const double s = cp < 0.0 ? x * (1.0 + cp) : 1.0 - std::pow(1.0 - x, 1.0 + cp);
    value_lut[i] = static_cast<int32_t>(v * kHsvMax + 0.5);
    sat_lut[i] = static_cast<int32_t>(s * kHsvMax + 0.5);
  }
  // hue_shift turns by up to half a turn; animate_hue adds 2 index / count
  // of that, a full turn over the loop. The total is brought into one turn
  // around 0 so the single wrap of the stage keeps every hue in range.
  double h = m_param.hue_shift;
  if (m_param.animate_hue && m_param.anime_frame_count >= 1 && m_param.anime_frame_index >= 0) {
    h += 2.0 * (m_param.anime_frame_index % m_param.anime_frame_count) / m_param.anime_frame_count;
  }
  int32_t shift = static_cast<int32_t>(std::lround(h * 18000.0));
  while (shift > 18000) shift -= 36000;
  while (shift < -18000) shift += 36000;

  PostProcessParam p;
  p.img = &m_resized_hlr_buff;
  p.value_lut = value_lut;
  p.sat_lut = sat_lut;
  p.hue_shift = shift;
  return RunStage("PostProcess", BandTask<PostProcessParam, PostProcess>, &p, m_downsized_roi);
}

int32_t LightRaysEffect::UpSampleAndBlend() {
  // "hlr upsample" and "Blend" run a few rows at a time, so the enlarged rays
  // are blended while they are still in cache.
  ResizeParam up;
  up.src = m_resized_hlr_buff;
  up.dst = m_hlr_buff;
  up.src_roi = m_downsized_roi;
  const auto table_fn = KORVANE_PICK(m_system_info, BuildBlendTable, BuildBlendTable_SSE);
  uint8_t table[256];
  table_fn.fn(m_param.blend_strength, table);
  BlendParam blend;
  blend.src = &m_param.src;
  blend.rays = &m_hlr_buff;
  blend.dst = &m_param.dst;
  blend.table = table;
  blend.roi = m_param.roi;
  RowPipeline chain(16);
  chain.Then("hlr upsample", KORVANE_PICK(m_system_info, BilinearResize_8uc4, BilinearResize_8uc4_SSE4).fn, &up)
      .Then("Blend", KORVANE_PICK(m_system_info, BlendRaysTask, BlendRaysTask_SSE).fn, &blend);
  const int32_t hr = chain.Run(m_thread_adapter, m_param.roi);
  // A failure of the chain itself (no step failed) counts as the first step's.
  if (hr < 0 && chain.FailedStep() <= 0) KORVANE_LOG_FAILED_CALL("UpSampleHLR()", hr);
  return hr;
}

}  // namespace Korvane
