// The two ray spaces: the polar one of radial rays (a row per tenth of a
// degree around the centre, with the lampshade cone) and the rotated one of
// directional rays; the highlights are sampled into the rows, smeared along
// them and brought back to the half-size image.
#include <algorithm>
#include <cmath>
#include <new>

#include "core/BandTask.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/RowPipeline.h"
#include "effects/light_rays/LightRaysEffect.h"

namespace Korvane {

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
  const int32_t hr =
      LogStep("CalPolarMappingTable", RunBands(m_thread_adapter, Rect{0, 0, w, m_resized_img_h}, [&](const Rect& band) {
                for (int32_t y = band.top; y < band.bottom; ++y) {
                  float* m = map + static_cast<size_t>(y) * w * 2;
                  const float dy = cy - static_cast<float>(y);
                  for (int32_t x = 0; x < w; ++x) {
                    const float dx = static_cast<float>(x) - cx;
                    float a = std::atan2(dy, dx);
                    if (a < 0.0f) a += static_cast<float>(kFullTurn);
                    m[2 * x] = std::sqrt(dx * dx + dy * dy);
                    m[2 * x + 1] = std::min(a * rows_per_radian, last_row);
                  }
                }
                return S_OK;
              }));
  if (hr < 0) return hr;
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
  hr = LogStep("CalLampShadeMask", RunBands(m_thread_adapter, Rect{0, 0, w, m_resized_img_h}, [&](const Rect& band) {
                 for (int32_t y = band.top; y < band.bottom; ++y) {
                   const float* m = map + static_cast<size_t>(y) * w * 2;
                   uint8_t* row = RowPtr(mask, y);
                   for (int32_t x = 0; x < w; ++x) {
                     const uint32_t c = cone[static_cast<int32_t>(m[2 * x + 1] + 0.5f)];
                     row[x] = static_cast<uint8_t>((row[x] * c) >> 8);
                   }
                 }
                 return S_OK;
               }));
  m_msk_dirty = true;
  return hr;
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
  const int32_t pw = std::max(2, std::min(m_max_polar_w, static_cast<int32_t>(std::ceil(r_max + margin)) - r_base + 2));
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

  RayRows lines, smeared;
  if ((hr = PrepareRaySpace(ph, pw, true, lines, smeared)) < 0 ||
      (hr = SampleAndSmear(lines, smeared, Rect{0, 0, pw, ph}, "CarteToPolarTransform", "LightRayHalfBlurH")) < 0) {
    return hr;
  }
  const PickedTask back =
      KORVANE_PICK_BAND_AVX2(m_system_info, PolarToCarteParam, PolarToCarte, PolarToCarte_SSE, PolarToCarte_AVX2);
  PolarToCarteParam to_carte;
  to_carte.polar = &smeared;
  to_carte.polar_w = pw;
  to_carte.polar_h = ph;
  to_carte.dst = &m_resized_hlr_buff;
  to_carte.map = m_polar_map.get();
  to_carte.r_base = static_cast<float>(r_base);
  to_carte.area = m_downsized_roi;
  return LogStep("PolarToCarteTransform",
                 m_thread_adapter.RunTaskByMultiThread(back.fn, &to_carte, nullptr, m_downsized_roi));
}

int32_t LightRaysEffect::PrepareRaySpace(int32_t rows, int32_t cols, bool polar, RayRows& lines,
                                         RayRows& smeared) {
  // Rows packed one after another cost only what the lines cross; rows a
  // full width apart are read faster by the inverse transforms (a fixed
  // stride the processor prefetches along). The rectangle is taken unless
  // it would cost more than twice the packed rows (a thin photo's ray space).
  m_ray_spans.resize(static_cast<size_t>(rows));
  int64_t packed = 0;
  for (int32_t j = 0; j < rows; ++j) packed += m_lines[static_cast<size_t>(j)].hi - m_lines[static_cast<size_t>(j)].lo;
  const int64_t rectangle = static_cast<int64_t>(rows) * cols;
  const bool dense = rectangle <= 2 * packed;
  int64_t total = 0;
  for (int32_t j = 0; j < rows; ++j) {
    const RayLine& l = m_lines[static_cast<size_t>(j)];
    m_ray_spans[static_cast<size_t>(j)] = RaySpan{dense ? static_cast<int64_t>(j) * cols : total - l.lo, l.lo, l.hi};
    total += l.hi - l.lo;
  }
  if (dense) total = rectangle;
  const auto grow = [total](RayStore& store) {
    if (store.capacity >= total) return S_OK;
    store = RayStore();
    // At least one pixel, so every row pointer points into the image.
    store.pixels.reset(new (std::nothrow) uint32_t[static_cast<size_t>(std::max<int64_t>(total, 1))]);
    if (!store.pixels) return E_OUTOFMEMORY;
    store.capacity = total;
    return S_OK;
  };
  int32_t hr;
  if ((hr = LogCall(polar ? "CreateSmartBufferData(m_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32)"
                          : "CreateSmartBufferData(m_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32)",
                    grow(m_ray_buff))) < 0 ||
      (hr = LogCall(polar ? "CreateSmartBufferData(m_temp_polar_buff, m_max_polar_w, m_max_polar_h, PIXEL_BGRA32)"
                          : "CreateSmartBufferData(m_temp_rotate_buff, m_max_rotate_w, m_max_rotate_h, PIXEL_BGRA32)",
                    grow(m_temp_ray_buff))) < 0) {
    return hr;
  }
  lines = RayRows{m_ray_buff.pixels.get(), m_ray_spans.data(), m_lines.data()};
  smeared = RayRows{m_temp_ray_buff.pixels.get(), m_ray_spans.data(), m_lines.data()};
  return S_OK;
}

int32_t LightRaysEffect::SampleAndSmear(const RayRows& lines, const RayRows& smeared, const Rect& area,
                                        const char* sample_step, const char* smear_step) {
  const PickedTask sample =
      KORVANE_PICK_BAND_AVX2(m_system_info, SampleRowsParam, SampleRows, SampleRows_SSE, SampleRows_AVX2);
  const PickedTask blur = KORVANE_PICK_BAND_AVX2(m_system_info, SmearRowsParam, SmearRows, SmearRows_SSE, SmearRows_AVX2);
  SampleRowsParam to_lines{&m_resized_hlr_buff, &lines};
  SmearRowsParam smear{&lines, &smeared, m_row_gain.data(), RayLengthHalf()};
  // A few rows at a time: each row is smeared while its samples are still
  // in cache. A failure is logged under the step that failed.
  RowPipeline chain(8);
  chain.Then(sample_step, sample.fn, &to_lines).Then(smear_step, blur.fn, &smear);
  return chain.Run(m_thread_adapter, area);
}

int32_t LightRaysEffect::RotateTransformProcess() {
  const int32_t rw = m_resized_img_w, rh = m_resized_img_h;
  const int32_t n = static_cast<int32_t>(360 / m_theta_grid);
  const int32_t a = static_cast<int32_t>(m_param.ray_angle / m_theta_grid + 0.5f);
  const float c = m_cos_table[n + a], s = m_sin_table[n + a];
  // Along the rays (d) and across them (e), in image coordinates (y down).
  const float dx = c, dy = -s, ex = s, ey = c;

  // GetRotateBuffSize: the turned image's bounding box.
  const int32_t wr =
      std::max(2, std::min(m_max_rotate_w, static_cast<int32_t>(std::ceil(rw * std::fabs(c) + rh * std::fabs(s))) + 2));
  const int32_t hr_rows =
      std::max(2, std::min(m_max_rotate_h, static_cast<int32_t>(std::ceil(rw * std::fabs(s) + rh * std::fabs(c))) + 2));
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

  RayRows lines, smeared;
  int32_t hr;
  if ((hr = PrepareRaySpace(hr_rows, wr, false, lines, smeared)) < 0 ||
      (hr = SampleAndSmear(lines, smeared, Rect{0, 0, wr, hr_rows}, "ImageRotateTransform", "LightRayBlurH")) < 0) {
    return hr;
  }
  RotateBackParam back;
  back.rotated = &smeared;
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
  const PickedTask inverse =
      KORVANE_PICK_BAND_AVX2(m_system_info, RotateBackParam, RotateBack, RotateBack_SSE, RotateBack_AVX2);
  return LogStep("InverseRotateTransform",
                 m_thread_adapter.RunTaskByMultiThread(inverse.fn, &back, nullptr, m_downsized_roi));
}

}  // namespace Korvane
