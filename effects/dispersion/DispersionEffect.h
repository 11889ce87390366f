// The dispersion effect's implementation: the start-time map, the inpainted
// background, the particle list and the circle table made by Init, and the
// per-frame particle states, row-strip bins and band rendering of Process.
#pragma once

#include <cstdint>
#include <vector>

#include "core/EffectCore.h"
#include "effects/dispersion/Dispersion.h"
#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

// A particle as Init makes it; Process moves it along its flight.
struct DispersionParticle {
  float x = 0, y = 0;                // its subject pixel
  float start = 0, life = 1;         // progress at which it leaves, and the length of its flight
  float travel_x = 0, travel_y = 0;  // the whole flight, pixels
  float curl = 0;                    // curl radius reached at the end of the flight, pixels
  float curl_phase = 0, curl_turns = 0;
  float radius = 1;  // at departure, pixels
  uint8_t bgra[4] = {0, 0, 0, 0};
};

class DispersionEffect final : public Dispersion, public EffectCore {
 public:
  // Rows of a bin: each band draws a strip's particles over the strip's rows.
  static constexpr int32_t kStripRows = 16;
  // Share of the clip a particle's flight lasts at most, and the start-time jitter.
  static constexpr float kLife = 0.4f;
  static constexpr float kJitter = 0.03f;
  // Largest curl radius as a share of the flight distance (at turbulence 1).
  static constexpr float kCurlShare = 0.3f;

  explicit DispersionEffect(CThreadPool* pool) : EffectCore(pool) {}
  ~DispersionEffect() override = default;

  int32_t Init(const DispersionParam* param) override;
  int32_t Process(const DispersionParam* param) override;
  int32_t Uninit() override;

  // Progress of a frame through the crumble (0 the photo, 1 all gone): a
  // straight ramp, or for the loop a triangle whose last frame neighbours the
  // first as frame 1 does.
  static float CalProgress(int32_t frame_count, int32_t frame_index, int32_t loop_mode);

  // What Init made, for tests and tools.
  float GetStartTime(int32_t x, int32_t y) const { return m_start[static_cast<size_t>(y) * m_width + x]; }
  const std::vector<DispersionParticle>& GetParticles() const { return m_particles; }
  const SmartBuffer& GetBackground() const { return m_background; }
  // The subject's extent along the wind: projections of pixel centres onto it.
  float GetLeadingProjection() const { return m_proj_max; }
  float GetTrailingProjection() const { return m_proj_min; }

 private:
  // The settings that shape what Init makes.
  struct PreparedKey {
    const unsigned char* input = nullptr;
    const unsigned char* mask = nullptr;
    int32_t width = 0, height = 0, input_stride = 0, mask_stride = 0;
    float direction = 0, spread = 0, distance = 0, particle_size = 0, density = 0, dissolve_width = 0, turbulence = 0;
    uint32_t seed = 0;
    bool operator==(const PreparedKey& o) const;
  };
  static PreparedKey KeyOf(const DispersionParam& p);
  static int32_t Validate(const DispersionParam* param, bool for_process);

  int32_t PrepareFor(const DispersionParam& p);
  int32_t DetectMaskEdge(const DispersionParam& p);
  int32_t CreateTmpBuffer(const DispersionParam& p);
  int32_t CreateCircleTable(const DispersionParam& p);
  void MakeParticles(const DispersionParam& p);
  void ReleaseAll();

  int32_t ComputeFrame(float progress, float fade, const Rect& roi);
  void BinFrame(const Rect& roi);
  int32_t Render(const DispersionParam& p, float progress);
  using FillBaseFn = void (*)(const uint8_t*, const uint8_t*, const float*, float, uint8_t*, int32_t);
  // Row y of the frame's base into the output (whose row 0 is roi.top).
  void FillBaseRow(FillBaseFn fill, const ImageBuffer& in, const ImageBuffer& out, const Rect& roi, int32_t y,
                   float progress) const;

  bool m_prepared = false;
  PreparedKey m_key;
  int32_t m_width = 0, m_height = 0;
  float m_proj_min = 0, m_proj_max = 0;
  bool m_has_subject = false;
  Rect m_subject_box;                           // the subject's bounding box
  std::vector<float> m_start;                   // per pixel; kDispersionNever outside the subject
  SmartBuffer m_background;                     // the photo with the subject inpainted away
  std::vector<DispersionParticle> m_particles;  // in drawing order
  CircleTable m_circles;
  // Per frame, sized by Init so Process allocates nothing.
  std::vector<FrameParticle> m_frame;
  std::vector<int32_t> m_row_span;      // per particle: first and last strip it touches, or -1
  std::vector<uint32_t> m_strip_start;  // per strip of the roi + 1
  std::vector<uint32_t> m_strip_items;  // particle indices, strip by strip, in list order
};

}  // namespace Korvane
