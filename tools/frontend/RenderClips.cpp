// The render cores of the clips made from one photo: animate (flow lines
// and a still region) and disperse (a subject that crumbles).
#include <algorithm>

#include <korvane/effects/animation/Animation.h>
#include <korvane/effects/dispersion/Dispersion.h>

#include "RenderSupport.h"

namespace KorvaneFrontend {

namespace {

// ---- Animate ----------------------------------------------------------------------

class AnimateSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    Status s = Begin(v, photo, inputs, "still", &m_still);
    if (!s.ok()) return s;
    if (m_still.empty()) {
      m_nothing_still = Image(photo.width, photo.height, 1, 0);
      m_still = m_nothing_still.View();
    }
    m_lines = inputs.flows;
    for (const FlowLine& l : m_lines) {
      m_flows.push_back({l.points.data(), static_cast<uint32_t>(l.points.size() / 2), l.type});
    }
    Warn(!m_nothing_still.pixels.empty());
    return engine.Create(Korvane::EFFECT_ANIMATION, m_fx);
  }

 protected:
  Status Draw(const OptionValues& v, int32_t index, int32_t count, const ImageView& out) override {
    if (count < 2) return Status::Usage("animate renders loops of 2 frames or more");
    Korvane::ImageBuffer in = m_photo.Buffer(), mask = m_still.Buffer(), dst = out.Buffer();
    Korvane::AnimationParam p;
    p.input = &in;
    p.mask = &mask;
    p.output = &dst;
    p.loop_mode = static_cast<int32_t>(v.Whole("loop-mode"));
    p.anime_frame_count = static_cast<uint32_t>(count);
    p.p_flow = m_flows.empty() ? nullptr : m_flows.data();
    p.flow_num = static_cast<uint32_t>(m_flows.size());
    // The mesh and schedule are prepared for one frame count and loop mode.
    if (count != m_count || p.loop_mode != m_loop_mode) {
      const Status s = Status::Call("animation Init", m_fx->Init(&p));
      if (!s.ok()) return s;
      m_count = count;
      m_loop_mode = p.loop_mode;
    }
    return Status::Call("animation frame " + std::to_string(index), m_fx->Animate(&p, index % count));
  }

 private:
  // Flows that cannot move anything give a loop that barely moves.
  void Warn(bool nothing_still) {
    if (m_lines.empty()) m_warnings.push_back("the flow file has no flows: every frame will be the still photo");
    size_t outside = 0, total = 0;
    for (const FlowLine& l : m_lines)
      for (size_t i = 0; i + 1 < l.points.size(); i += 2, ++total) {
        outside += l.points[i] < 0 || l.points[i + 1] < 0 || l.points[i] >= m_photo.width ||
                   l.points[i + 1] >= m_photo.height;
      }
    if (outside > 0) {
      m_warnings.push_back(std::to_string(outside) + " of " + std::to_string(total) + " flow points lie outside the " +
                           std::to_string(m_photo.width) + "x" + std::to_string(m_photo.height) +
                           " photo (flow points are in the photo's pixels)");
    }
    if (nothing_still) m_warnings.push_back("no --still mask: motion spreads to the corners of the photo");
  }

  Engine::Handle<Korvane::Animation> m_fx;
  ImageView m_still;
  Image m_nothing_still;
  std::vector<FlowLine> m_lines;
  std::vector<Korvane::FlowData> m_flows;
  int32_t m_count = 0, m_loop_mode = -1;
};

// ---- Disperse ---------------------------------------------------------------------

class DisperseSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    Status s = Begin(v, photo, inputs, "mask", &m_mask);
    if (!s.ok()) return s;
    if (m_mask.empty()) return Status::Usage("disperse needs a --mask of the subject");
    bool any = false;
    for (int32_t y = 0; y < m_mask.height && !any; ++y) {
      const uint8_t* row = m_mask.Row(y);
      any = std::any_of(row, row + m_mask.width, [](uint8_t v) { return v != 0; });
    }
    if (!any) m_warnings.push_back("the mask is empty: every frame will be the photo");
    return engine.Create(Korvane::EFFECT_DISPERSION, m_fx);
  }

  bool Loops(const OptionValues& v) const override { return v.Flag("loop"); }

 protected:
  // The effect prepares again by itself when a particle setting changes.
  Status Draw(const OptionValues& v, int32_t index, int32_t count, const ImageView& out) override {
    Korvane::ImageBuffer in = m_photo.Buffer(), mask = m_mask.Buffer(), dst = out.Buffer();
    Korvane::DispersionParam p;
    p.input = &in;
    p.mask = &mask;
    p.output = &dst;
    p.roi = Korvane::Rect{0, 0, m_photo.width, m_photo.height};
    p.anime_frame_count = count;
    p.anime_frame_index = index;
    p.loop_mode = v.Flag("loop") ? Korvane::DISPERSION_LOOP : Korvane::DISPERSION_ONCE;
    p.direction = static_cast<float>(v.Number("direction"));
    p.spread = static_cast<float>(v.Number("spread"));
    p.distance = static_cast<float>(v.Number("distance"));
    p.particle_size = static_cast<float>(v.Number("size"));
    p.density = static_cast<float>(v.Number("density"));
    p.dissolve_width = static_cast<float>(v.Number("width"));
    p.fade = static_cast<float>(v.Number("fade"));
    p.turbulence = static_cast<float>(v.Number("turbulence"));
    p.seed = static_cast<uint32_t>(v.Whole("seed"));
    if (!m_prepared) {
      const Status s = Status::Call("dispersion Init", m_fx->Init(&p));
      if (!s.ok()) return s;
      m_prepared = true;
    }
    return Status::Call("dispersion frame " + std::to_string(index), m_fx->Process(&p));
  }

 private:
  Engine::Handle<Korvane::Dispersion> m_fx;
  ImageView m_mask;
  bool m_prepared = false;
};

}  // namespace

Status OpenAnimate(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                   std::unique_ptr<Session>& s) {
  return OpenAs<AnimateSession>(e, v, p, in, s);
}

Status OpenDisperse(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                    std::unique_ptr<Session>& s) {
  return OpenAs<DisperseSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
