// The render core of light rays: the option values as the effect's record,
// with what the user leaves out (centre, threshold, length, softness,
// strength) suggested by the library for the photo.
#include <algorithm>
#include <cmath>
#include <sstream>

#include <korvane/effects/light_rays/LightRays.h>

#include "RenderSupport.h"

namespace KorvaneFrontend {

namespace {

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
    }
    if (v.Has("lampshade")) {
      const std::vector<double>& l = v.Numbers("lampshade");
      p.lampshade_angle = PositiveDegrees(l[0]);
      p.lampshade_spread = static_cast<float>(l[1]);
      p.lampshade_param = static_cast<float>(l[2]);
    }
    if (v.Has("length")) p.ray_length = static_cast<float>(v.Number("length"));
    if (v.Has("softness")) p.ray_softness = static_cast<float>(v.Number("softness"));
    p.ray_radius = static_cast<float>(v.Number("radius"));
    if (v.Has("length") && p.ray_length > side) return TooLong("--length", p.ray_length, "more than this photo's longer side", side);
    if (p.ray_radius > side) return TooLong("--radius", p.ray_radius, "more than this photo's longer side", side);
    if (v.Has("softness") && p.ray_softness > side / 32) {
      return TooLong("--softness", p.ray_softness, "more than a 32nd of this photo's longer side", side / 32);
    }
    if (!m_mask.empty()) p.mask = m_mask.Smart();
    p.ray_mode = v.ChoiceIndex("mode") == 1 ? Korvane::LIGHT_RAYS_DIRECTIONAL : Korvane::LIGHT_RAYS_RADIAL;
    p.ray_angle = PositiveDegrees(v.Number("direction"));
    if (v.Has("threshold")) p.hlr_threshold = static_cast<float>(v.Number("threshold"));
    // Given, the strength is used as it is; left out, it is the largest up
    // to 1 that the suggestion allows.
    p.blend_strength = v.Has("strength") ? static_cast<float>(v.Number("strength")) : 1.0f;
    p.ray_level = static_cast<float>(v.Number("brightness"));
    p.color_param = static_cast<float>(v.Number("saturation"));
    p.hue_shift = HalfTurns(v.Number("hue-shift"));
    p.animate_rays = v.Flag("sway");
    p.animate_hue = v.Flag("cycle-hue");
    p.smooth_fade = 1;  // rays that end without a step
    const Status s2 = Suggest(v, p);
    if (!s2.ok()) return s2;
    std::ostringstream summary;
    if (p.ray_mode == Korvane::LIGHT_RAYS_DIRECTIONAL) {
      summary << "directional at " << NumberText(p.ray_angle) << " degrees";
    } else {
      summary << "radial from " << p.center_x << "," << p.center_y;
    }
    summary << ", " << NumberText(p.ray_length) << " px long, threshold " << NumberText(p.hlr_threshold)
            << ", strength " << NumberText(std::round(p.blend_strength * 100.0f) / 100.0f);
    m_summary = summary.str();
    return Status();
  }

  // What the user left out, suggested for this photo once per set of
  // settings (the strength is measured by rendering a small copy).
  Status Suggest(const OptionValues& v, Korvane::LightRaysParam& p) {
    uint32_t fields = 0;
    if (!v.Has("center")) fields |= Korvane::SUGGEST_CENTER;
    if (!v.Has("threshold")) fields |= Korvane::SUGGEST_THRESHOLD;
    if (!v.Has("length")) fields |= Korvane::SUGGEST_LENGTH;
    if (!v.Has("softness")) fields |= Korvane::SUGGEST_SOFTNESS;
    if (!v.Has("strength")) fields |= Korvane::SUGGEST_STRENGTH;
    const std::vector<float> key = {static_cast<float>(fields), static_cast<float>(p.center_x),
                                    static_cast<float>(p.center_y), p.hlr_threshold, p.ray_length, p.ray_softness,
                                    p.ray_radius, p.blend_strength, p.ray_level, p.color_param, p.hue_shift,
                                    static_cast<float>(p.ray_mode), p.ray_angle, p.lampshade_angle,
                                    p.lampshade_spread, p.lampshade_param};
    if (fields == 0) return Status();
    if (key != m_suggested_for) {
      Korvane::LightRaysParam q = p;
      const Korvane::ImageBuffer photo = m_photo.Buffer();
      const Status s = Status::Call("light rays SuggestSettings", m_fx->SuggestSettings(&photo, fields, &q));
      if (!s.ok()) return s;
      m_suggested = q;
      m_suggested_for = key;
    }
    p.center_x = m_suggested.center_x;
    p.center_y = m_suggested.center_y;
    p.hlr_threshold = m_suggested.hlr_threshold;
    p.ray_length = m_suggested.ray_length;
    p.ray_softness = m_suggested.ray_softness;
    p.blend_strength = m_suggested.blend_strength;
    return Status();
  }

  static Status TooLong(const std::string& option, float value, const std::string& what, int limit) {
    return Status::Failed(option + " " + NumberText(value) + " is " + what + " (" + std::to_string(limit) + " pixels)");
  }

  Engine::Handle<Korvane::LightRays> m_fx;
  ImageView m_mask;
  Korvane::LightRaysParam m_suggested;
  std::vector<float> m_suggested_for;
};

}  // namespace

Status OpenLightRays(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                     std::unique_ptr<Session>& s) {
  return OpenAs<LightRaysSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
