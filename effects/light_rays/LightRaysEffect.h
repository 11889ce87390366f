// The light-rays effect's implementation: half-size working images, the
// polar and rotated ray-space images, the ray patterns and the pipeline.
//
// Files: LightRaysEffect.cpp (set-up, checks, the pipeline),
// LightRaysPattern.cpp (the ray pattern and the sine/cosine tables),
// LightRaysTransforms.cpp (the polar and the rotated ray space).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/EffectCore.h"
#include "core/Random.h"
#include "effects/light_rays/LightRays.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

class LightRaysEffect final : public LightRays, public EffectCore {
 public:
  explicit LightRaysEffect(CThreadPool* pool);
  ~LightRaysEffect() override = default;

  int32_t Initialize(int32_t width, int32_t height) override;
  int32_t Process(const LightRaysParam& param) override;
  int32_t ReleaseBuffer() override;
  int32_t FindCenter(const ImageBuffer* photo, int32_t* x, int32_t* y) override;
  int32_t SuggestSettings(const ImageBuffer* photo, uint32_t fields, LightRaysParam* param) override;

  // Sizes chosen by Initialize, for checks and tools.
  int32_t GetResizedWidth() const { return m_resized_img_w; }
  int32_t GetResizedHeight() const { return m_resized_img_h; }
  int32_t GetMaxPolarWidth() const { return m_max_polar_w; }
  int32_t GetMaxPolarHeight() const { return m_max_polar_h; }
  int32_t GetMaxRotateWidth() const { return m_max_rotate_w; }
  int32_t GetMaxRotateHeight() const { return m_max_rotate_h; }
  const std::vector<double>& GetRadialAngles() const { return m_radial_angles; }
  const std::vector<double>& GetDirectionalAngles() const { return m_directional_angles; }
  const std::vector<float>& GetCosTable() const { return m_cos_table; }
  const std::vector<float>& GetSinTable() const { return m_sin_table; }

  // Fills the tables with cos and sin of (i - n) x grid degrees, n = 360 /
  // grid, for every entry they hold (the radian factor is 0.017453).
  static int32_t GenerateSinCosTable(std::vector<float>& cos_table, std::vector<float>& sin_table, float grid);
  // `count` angles 2 pi u, u uniform in [0, 1) drawn from `gen`; count 0 is
  // E_INVALIDARG.
  static int32_t GenerateRandomAngles(std::vector<double>& angles, int32_t count, Mt19937& gen);
  // The angles of frame `index` of a `count`-frame loop: each sways around
  // its still value and is back there at index = count.
  static int32_t CalAnimatedAngles(std::vector<double>& angles, int32_t count, int32_t skip, int32_t frame_index,
                                   int32_t frame_count);

 private:
  int32_t Validate(const LightRaysParam& p) const;
  // The largest strength up to param.blend_strength that washes out at most
  // a few more points of a small copy of `photo` (SuggestSettings).
  int32_t LimitStrength(const ImageBuffer& photo, LightRaysParam& param);
  bool BuffersReady() const;
  void ReleaseAll();
  int32_t RunPipeline();
  int32_t MemCopyROI();

  // Pipeline stages.
  int32_t DownSampleInput();
  int32_t PrepareLampshadeInfo();
  int32_t CalPolarMappingTable();
  int32_t PolarTransformProcess();
  int32_t RotateTransformProcess();
  // Both transforms: the highlights sampled along m_lines into `lines` (one
  // row a line, over `area`), then smeared along those rows into `smeared`;
  // a failure is logged under the step that failed.
  int32_t SampleAndSmear(const RayRows& lines, const RayRows& smeared, const Rect& area, const char* sample_step,
                         const char* smear_step);
  // Lays the first `rows` lines of m_lines (of `cols` columns at most) out
  // in the two ray-space images; E_OUTOFMEMORY (logged as the image's
  // creation) when they cannot be had.
  int32_t PrepareRaySpace(int32_t rows, int32_t cols, bool polar, RayRows& lines, RayRows& smeared);
  int32_t SoftnessProcess();
  int32_t PostProcessRays();
  // UpSampleHLR and Blend, chained row chunk by row chunk.
  int32_t UpSampleAndBlend();

  // Per-call settings derived from the record, in half-size pixels.
  float HalfX(float x) const;
  float HalfY(float y) const;
  int32_t RayLengthHalf() const;
  int32_t SoftnessRadius() const;
  void CalDownsizedRoi();
  // Gains of the ray-space rows: the spoke pattern around the centre (times
  // the lampshade cone), or the shafts across a directional beam.
  void CalThetaWiseGains(int32_t rows);
  void CalDirectionalGains(int32_t rows, float v_centre, float period);
  // smooth_fade: how much brighter the smear keeps the light, and the row
  // gains scaled by it.
  float FadeGain() const;
  void ScaleGainsForFade(int32_t rows);

  // The random angles' 2 pi, truncated as the ray pattern has always drawn it.
  static constexpr double kAnglesTwoPi = 6.283184;
  // Degrees to radians in the sine/cosine tables, truncated likewise.
  static constexpr float kDegToRad = 0.017453f;
  // A full turn in radians.
  static constexpr double kFullTurn = 6.283185307179586;

  CThreadPool* m_pool;  // the engine's, for the small renders of SuggestSettings
  SmartBuffer m_hlr_buff;
  SmartBuffer m_resized_src_buff;
  SmartBuffer m_resized_msk_buff;
  SmartBuffer m_resized_hlr_buff;
  // The ray-space images of a call, the sampled highlights and the smeared
  // rays, kept row by row (RayRows) for the lines of the call's transform;
  // kept between calls and grown when a call needs more.
  struct RayStore {
    std::unique_ptr<uint32_t[]> pixels;
    int64_t capacity = 0;
  };
  RayStore m_ray_buff, m_temp_ray_buff;
  std::vector<RaySpan> m_ray_spans;

  int32_t m_img_w = 0;
  int32_t m_img_h = 0;
  int32_t m_resized_img_w = 0;
  int32_t m_resized_img_h = 0;
  const float m_resize_factor;
  const float m_theta_grid;
  std::vector<float> m_cos_table;
  std::vector<float> m_sin_table;
  std::unique_ptr<float[]> m_polar_map;  // (radius, angle in tenths of a degree) per half-size pixel
  std::vector<double> m_radial_angles;       // 100: the spokes of radial rays
  std::vector<double> m_directional_angles;  // 50: the shafts of directional rays
  // Fixed shape of each spoke and shaft (width and strength, 0..1 each).
  std::vector<float> m_spoke_shape, m_shaft_shape;
  int32_t m_max_polar_w = 0, m_max_polar_h = 0;
  int32_t m_max_rotate_w = 0, m_max_rotate_h = 0;
  LightRaysParam m_param;

  // Per-call state.
  bool m_initialized = false;
  bool m_msk_dirty = false;       // m_resized_msk_buff no longer all 255
  bool m_map_valid = false;       // m_polar_map matches m_map_cx, m_map_cy
  float m_map_cx = 0.0f, m_map_cy = 0.0f;
  bool m_lampshade = false;       // the lampshade cone applies this call
  std::vector<uint16_t> m_cone;   // lampshade weight per polar row, 0..256
  std::vector<uint16_t> m_row_gain;
  std::vector<RayLine> m_lines;
  Rect m_downsized_roi;
};

}  // namespace Korvane
