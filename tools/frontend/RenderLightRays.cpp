// The render core of light rays: the automatic centre, threshold and
// strength, and the option values as the effect's record.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include <korvane/effects/light_rays/LightRays.h>

#include "RaysDefaults.h"
#include "RenderSupport.h"
#include "Resize.h"

namespace KorvaneFrontend {

namespace {

// The centre of the brightest region: lightness averaged over cells of about
// a sixtieth of the longer side, each cell with its eight neighbours, and the
// best cell's centre.
std::pair<int, int> BrightestRegion(const ImageView& photo) {
  const int cell = std::max(1, LongerSide(photo) / 60);
  const int cw = (photo.width + cell - 1) / cell, ch = (photo.height + cell - 1) / cell;
  std::vector<double> sum(static_cast<size_t>(cw) * ch, 0.0), count(sum.size(), 0.0);
  for (int y = 0; y < photo.height; ++y)
    for (int x = 0; x < photo.width; ++x) {
      const uint8_t* p = photo.At(x, y);
      const int mx = std::max(p[0], std::max(p[1], p[2])), mn = std::min(p[0], std::min(p[1], p[2]));
      const size_t i = static_cast<size_t>(y / cell) * cw + x / cell;
      sum[i] += (mx + mn) / 2;
      count[i] += 1;
    }
  double best = -1;
  std::pair<int, int> at{photo.width / 2, photo.height / 2};
  for (int cy = 0; cy < ch; ++cy)
    for (int cx = 0; cx < cw; ++cx) {
      double s = 0, n = 0;
      for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
          const int x = cx + dx, y = cy + dy;
          if (x < 0 || y < 0 || x >= cw || y >= ch) continue;
          s += sum[static_cast<size_t>(y) * cw + x];
          n += count[static_cast<size_t>(y) * cw + x];
        }
      if (n > 0 && s / n > best) {
        best = s / n;
        at = {std::min(cx * cell + cell / 2, photo.width - 1), std::min(cy * cell + cell / 2, photo.height - 1)};
      }
    }
  return at;
}

class LightRaysSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    Status s = Begin(v, photo, inputs, "mask", &m_mask);
    if (s.ok()) s = engine.Create(Korvane::EFFECT_LIGHT_RAYS, m_fx);
    // A second effect renders the reduced copy the automatic strength is measured on.
    if (s.ok()) s = engine.Create(Korvane::EFFECT_LIGHT_RAYS, m_probe_fx);
    return s;
  }

 protected:
  Status Draw(const OptionValues& v, int32_t index, int32_t count, const ImageView& out) override {
    Korvane::LightRaysParam p;
    Status s = Record(v, p);
    if (!s.ok()) return s;
    p.dst = out.Smart();
    p.anime_frame_count = count;
    p.anime_frame_index = index;
    s = Status::Call("light rays Initialize", m_fx->Initialize(m_photo.width, m_photo.height));
    return s.ok() ? Status::Call("light rays", m_fx->Process(p)) : s;
  }

 private:
  // The record of everything but the output and the frame; the lengths are
  // checked against this photo.
  Status Record(const OptionValues& v, Korvane::LightRaysParam& p) {
    const int side = LongerSide(m_photo);
    p.src = m_photo.Smart();
    const Status s = Region(v, p.roi);
    if (!s.ok()) return s;
    if (v.Has("center")) {
      // Whole pixels; the table keeps both within a million of the photo.
      p.center_x = static_cast<int32_t>(std::lround(v.Numbers("center")[0]));
      p.center_y = static_cast<int32_t>(std::lround(v.Numbers("center")[1]));
    } else {
      if (!m_found) m_centre = BrightestRegion(m_photo);
      m_found = true;
      p.center_x = m_centre.first;
      p.center_y = m_centre.second;
    }
    if (v.Has("lampshade")) {
      const std::vector<double>& l = v.Numbers("lampshade");
      p.lampshade_angle = PositiveDegrees(l[0]);
      p.lampshade_spread = static_cast<float>(l[1]);
      p.lampshade_param = static_cast<float>(l[2]);
    }
    p.ray_length = v.Has("length") ? static_cast<float>(v.Number("length")) : 0.25f * side;
    p.ray_softness = v.Has("softness") ? static_cast<float>(v.Number("softness"))
                                       : std::min(0.003f * side, static_cast<float>(side / 32));
    p.ray_radius = static_cast<float>(v.Number("radius"));
    if (p.ray_length > side) return TooLong("--length", p.ray_length, "more than this photo's longer side", side);
    if (p.ray_radius > side) return TooLong("--radius", p.ray_radius, "more than this photo's longer side", side);
    if (p.ray_softness > side / 32) {
      return TooLong("--softness", p.ray_softness, "more than a 32nd of this photo's longer side", side / 32);
    }
    if (!m_mask.empty()) p.mask = m_mask.Smart();
    p.ray_mode = v.ChoiceIndex("mode") == 1 ? Korvane::LIGHT_RAYS_DIRECTIONAL : Korvane::LIGHT_RAYS_RADIAL;
    p.ray_angle = PositiveDegrees(v.Number("direction"));
    if (v.Has("threshold")) {
      p.hlr_threshold = static_cast<float>(v.Number("threshold"));
    } else {
      if (m_threshold < 0) m_threshold = RaysThreshold(m_photo);
      p.hlr_threshold = m_threshold;
    }
    p.ray_level = static_cast<float>(v.Number("brightness"));
    p.color_param = static_cast<float>(v.Number("saturation"));
    p.hue_shift = HalfTurns(v.Number("hue-shift"));
    p.animate_rays = v.Flag("sway");
    p.animate_hue = v.Flag("cycle-hue");
    p.blend_strength = v.Has("strength") ? static_cast<float>(v.Number("strength")) : AutoStrength(p);
    std::ostringstream summary;
    if (p.ray_mode == Korvane::LIGHT_RAYS_DIRECTIONAL) {
      summary << "directional at " << NumberText(p.ray_angle) << " degrees";
    } else {
      summary << "radial from " << p.center_x << "," << p.center_y;
    }
    summary << ", " << NumberText(p.ray_length) << " px long, threshold " << NumberText(p.hlr_threshold)
            << ", strength " << NumberText(p.blend_strength);
    m_summary = summary.str();
    return Status();
  }

  static Status TooLong(const std::string& option, float value, const std::string& what, int limit) {
    return Status::Failed(option + " " + NumberText(value) + " is " + what + " (" + std::to_string(limit) + " pixels)");
  }

  // The strongest blend (up to 1) at which the rays of `full` wash out at
  // most 2.5 % more of the picture, measured on a copy of at most 640
  // pixels a side with the lengths scaled to it (the rays scale with the
  // photo), and kept until a setting it depends on changes.
  float AutoStrength(const Korvane::LightRaysParam& full) {
    const float settings[] = {full.hlr_threshold, full.ray_length, full.ray_softness, full.ray_radius, full.ray_level,
                              full.color_param, full.hue_shift, static_cast<float>(full.ray_mode), full.ray_angle,
                              full.lampshade_angle, full.lampshade_spread, full.lampshade_param,
                              static_cast<float>(full.center_x), static_cast<float>(full.center_y)};
    std::vector<float> key(std::begin(settings), std::end(settings));
    if (key == m_strength_key) return m_strength;
    if (m_probe.pixels.empty()) {
      m_probe = ShrunkTo(m_photo, 640);
      if (!m_mask.empty()) m_probe_mask = Resized(m_mask, m_probe.width, m_probe.height);
      m_probe_base = WashedShare(m_probe.View());
    }
    const float f = static_cast<float>(m_probe.width) / static_cast<float>(m_photo.width);
    const int side = std::max(m_probe.width, m_probe.height);
    Korvane::LightRaysParam p = full;
    Image out(m_probe.width, m_probe.height, 4);
    p.src = m_probe.View().Smart();
    p.mask = m_probe_mask.pixels.empty() ? Korvane::SmartBuffer() : m_probe_mask.View().Smart();
    p.dst = out.View().Smart();
    p.roi = Korvane::Rect{0, 0, m_probe.width, m_probe.height};
    p.ray_length = std::min(full.ray_length * f, static_cast<float>(side));
    p.ray_softness = std::min(full.ray_softness * f, static_cast<float>(side / 32));
    p.ray_radius = std::min(full.ray_radius * f, static_cast<float>(side));
    p.center_x = static_cast<int32_t>(std::lround(full.center_x * f));
    p.center_y = static_cast<int32_t>(std::lround(full.center_y * f));
    p.anime_frame_count = 1;
    p.anime_frame_index = 0;
    p.animate_rays = p.animate_hue = 0;
    const bool ready = m_probe_fx->Initialize(m_probe.width, m_probe.height) >= 0;
    m_strength = CappedStrength(m_probe_base, 0.025, [&](float strength) {
      p.blend_strength = strength;
      return ready && m_probe_fx->Process(p) >= 0 ? WashedShare(out.View()) : -1.0;
    });
    m_strength_key = key;
    return m_strength;
  }

  Engine::Handle<Korvane::LightRays> m_fx, m_probe_fx;
  ImageView m_mask;
  float m_threshold = -1;  // the automatic threshold, once found
  Image m_probe, m_probe_mask;
  double m_probe_base = 0;  // the washed-out share of the reduced copy itself
  std::vector<float> m_strength_key;
  float m_strength = 1;
  std::pair<int, int> m_centre;
  bool m_found = false;
};

}  // namespace

Status OpenLightRays(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                     std::unique_ptr<Session>& s) {
  return OpenAs<LightRaysSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
