// The render core of light rays: the automatic centre and the option values
// as the effect's record.
#include <algorithm>
#include <cmath>
#include <sstream>

#include <korvane/effects/light_rays/LightRays.h>

#include "RenderSupport.h"

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
    const Status s = Begin(v, photo, inputs, "mask", &m_mask);
    return s.ok() ? engine.Create(Korvane::EFFECT_LIGHT_RAYS, m_fx) : s;
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
      p.lampshade_angle = static_cast<float>(l[0]);
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
    p.ray_angle = static_cast<float>(v.Number("angle"));
    p.hlr_threshold = static_cast<float>(v.Number("threshold"));
    p.blend_strength = static_cast<float>(v.Number("strength"));
    p.ray_level = static_cast<float>(v.Number("level"));
    p.color_param = static_cast<float>(v.Number("color"));
    p.hue_shift = static_cast<float>(v.Number("hue"));
    p.animate_rays = v.Flag("animate-rays");
    p.animate_hue = v.Flag("animate-hue");
    std::ostringstream summary;
    if (p.ray_mode == Korvane::LIGHT_RAYS_DIRECTIONAL) {
      summary << "directional at " << NumberText(p.ray_angle) << " degrees";
    } else {
      summary << "radial from " << p.center_x << "," << p.center_y;
    }
    summary << ", " << NumberText(p.ray_length) << " px long";
    m_summary = summary.str();
    return Status();
  }

  static Status TooLong(const std::string& option, float value, const std::string& what, int limit) {
    return Status::Failed(option + " " + NumberText(value) + " is " + what + " (" + std::to_string(limit) + " pixels)");
  }

  Engine::Handle<Korvane::LightRays> m_fx;
  ImageView m_mask;
  std::pair<int, int> m_centre;
  bool m_found = false;
};

}  // namespace

Status OpenLightRays(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                     std::unique_ptr<Session>& s) {
  return OpenAs<LightRaysSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
