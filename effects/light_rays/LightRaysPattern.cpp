// The ray pattern: the random angles of the spokes and shafts, their sway
// over a loop, the gains that cut the smeared light into separate beams, and
// the sine/cosine tables of the polar ray space.
#include <algorithm>
#include <cmath>

#include "core/LightMap.h"
#include "effects/light_rays/LightRaysEffect.h"

namespace Korvane {

namespace {

constexpr double kSway = 0.04;         // animated beams move up to this many radians
constexpr float kSpokeBase = 0.22f;    // light between the radial spokes
constexpr float kShaftBase = 0.2f;     // light between the directional shafts

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

}  // namespace

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
  for (double& a : angles) a = kAnglesTwoPi * DrawUnit(gen);
  return S_OK;
}

int32_t LightRaysEffect::CalAnimatedAngles(std::vector<double>& angles, int32_t count, int32_t skip,
                                           int32_t frame_index, int32_t frame_count) {
  Mt19937 gen(0);
  gen.discard(static_cast<unsigned long long>(skip));
  int32_t hr = GenerateRandomAngles(angles, count, gen);
  if (hr < 0) return hr;
  if (frame_count < 1 || frame_index < 0) return S_OK;  // frame 0
  const double t = LoopPhase(frame_index, frame_count, 1.0);
  for (int32_t k = 0; k < count; ++k) {
    // A whole number of swings per loop, starting from the still angle, so
    // frame `count` is frame 0 again.
    const double phase = angles[k] / kAnglesTwoPi;
    const double turns = 1.0 + (k % 2);
    angles[k] += kSway * (std::sin(kFullTurn * (turns * t + phase)) - std::sin(kFullTurn * phase));
  }
  return S_OK;
}

void LightRaysEffect::CalThetaWiseGains(int32_t rows) {
  // Narrow spokes of varying width and strength at the 100 random angles,
  // over a dimmer base, so the smear reads as separate beams.
  std::vector<float> sum(static_cast<size_t>(rows), 0.0f);
  const double rows_per_turn = 360.0 / m_theta_grid;
  for (size_t k = 0; k < m_radial_angles.size(); ++k) {
    const double centre = m_radial_angles[k] / kAnglesTwoPi * rows_per_turn;
    const double width = (0.45 + 1.55 * m_spoke_shape[2 * k]) / m_theta_grid;  // degrees to rows
    AddBump(sum, rows, centre, width, 0.35f + 0.65f * m_spoke_shape[2 * k + 1], rows_per_turn);
  }
  GainsFromPattern(sum, rows, kSpokeBase, m_row_gain);
  if (m_lampshade) {
    for (int32_t j = 0; j < rows; ++j) m_row_gain[j] = static_cast<uint16_t>((m_row_gain[j] * m_cone[j] + 128) >> 8);
  }
  ScaleGainsForFade(rows);
}

float LightRaysEffect::FadeGain() const {
  // The smeared light is kept this many times brighter (the ray_level lift
  // then divides it back out), so its faint end is finer than the 8-bit
  // steps the lift would magnify: half the lift's slope at black, which
  // still leaves the brightest rays at about nine tenths of full light
  // below the smear's ceiling of 255.
  if (!m_param.smooth_fade) return 1.0f;
  return std::max(1.0f, (1.0f + 15.0f * m_param.ray_level) / 2.0f);
}

void LightRaysEffect::ScaleGainsForFade(int32_t rows) {
  const float g = FadeGain();
  if (g == 1.0f) return;
  for (int32_t j = 0; j < rows; ++j) {
    m_row_gain[j] = static_cast<uint16_t>(std::min(65535.0f, std::round(m_row_gain[j] * g)));
  }
}

void LightRaysEffect::CalDirectionalGains(int32_t rows, float v_centre, float period) {
  // Parallel shafts at the 50 random angles read as positions across one
  // period of the pattern, anchored at the centre.
  std::vector<float> sum(static_cast<size_t>(rows), 0.0f);
  for (size_t k = 0; k < m_directional_angles.size(); ++k) {
    const double centre = v_centre + m_directional_angles[k] / kAnglesTwoPi * period;
    const double width = period * (0.004 + 0.016 * m_shaft_shape[2 * k]);
    AddBump(sum, rows, centre, std::max(width, 1.5), 0.35f + 0.65f * m_shaft_shape[2 * k + 1], period);
  }
  GainsFromPattern(sum, rows, kShaftBase, m_row_gain);
  ScaleGainsForFade(rows);
}

}  // namespace Korvane
