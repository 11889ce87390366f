// The render cores of the still effects: focus blur, glitch and glow.
#include <algorithm>
#include <cmath>
#include <cstring>

#include <korvane/effects/focus_blur/FocusBlur.h>
#include <korvane/effects/glitch/Glitch.h>
#include <korvane/effects/glow/Glow.h>

#include "RenderSupport.h"

namespace KorvaneFrontend {

namespace {

// ---- Focus blur -------------------------------------------------------------------

class FocusBlurSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    Status s = Begin(v, photo, inputs, "guide", &m_guide);
    if (!s.ok()) return s;
    if (m_guide.empty()) {
      m_radial = RadialGuide(photo.width, photo.height);
      m_guide = m_radial.View();
    }
    m_given = m_radial.pixels.empty();
    return engine.Create(Korvane::EFFECT_FOCUS_BLUR, m_fx);
  }

 protected:
  Status Draw(const OptionValues& v, int32_t, int32_t, const ImageView& out) override {
    Korvane::FocusBlurParam p;
    p.input = m_photo.Buffer();
    p.mask = StretchedGuide(v, m_guide).Buffer();
    p.output = out.Buffer();
    p.blur_level = static_cast<int32_t>(v.Whole("level"));
    p.focus_value = static_cast<int32_t>(v.Whole("focus"));
    p.focus_range = static_cast<int32_t>(v.Whole("range"));
    p.true_scale = 1;  // the blur asked for holds at any photo size
    Status s = Status::Call("focus blur Init", m_fx->Init(&p));
    if (s.ok()) s = Status::Call("focus blur", m_fx->Process(&p));
    if (s.ok()) s = Status::Call("focus blur Uninit", m_fx->Uninit());
    m_summary = "level " + std::to_string(p.blur_level) + ", focus " + std::to_string(p.focus_value) + ", range " +
                std::to_string(p.focus_range) + ", " + (m_given ? "given" : "radial") + " guide";
    return s;
  }

 private:
  Engine::Handle<Korvane::FocusBlur> m_fx;
  ImageView m_guide;
  Image m_radial;
  bool m_given = false;
};

// ---- Glitch -----------------------------------------------------------------------

class GlitchSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    const Status s = Begin(v, photo, inputs, nullptr, nullptr);
    return s.ok() ? engine.Create(Korvane::EFFECT_GLITCH, m_fx) : s;
  }

 protected:
  Status Draw(const OptionValues& v, int32_t, int32_t, const ImageView& out) override {
    Korvane::ImageBuffer in = m_photo.Buffer(), dst = out.Buffer();
    Korvane::GlitchImages images{&in, &dst};
    Status s = Status::Call("glitch SetImages", m_fx->SetImages(&images));
    if (!s.ok()) return s;
    Korvane::GlitchParam p;
    p.input = &in;
    p.output = &dst;
    p.glitch_type = static_cast<int32_t>(v.Whole("type"));
    p.shift_x = static_cast<int32_t>(v.Whole("shift-x"));
    p.shift_y = static_cast<int32_t>(v.Whole("shift-y"));
    p.radius = static_cast<int32_t>(v.Whole("radius"));
    // Degrees as whole hundredths of a half turn (1.8 degrees), within half a
    // turn either way.
    double turn = v.Number("rotation");
    if (turn > 180) turn -= 360;
    if (turn <= -180) turn += 360;
    p.angle = static_cast<int32_t>(std::lround(turn / 1.8));
    m_summary = "type " + std::to_string(p.glitch_type);
    return Status::Call("glitch", m_fx->Process(&p));
  }

 private:
  Engine::Handle<Korvane::Glitch> m_fx;
};

// ---- Glow -------------------------------------------------------------------------

class GlowSession final : public PhotoSession {
 public:
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    const Status s = Begin(v, photo, inputs, "mask", &m_mask);
    return s.ok() ? engine.Create(Korvane::EFFECT_GLOW, m_fx) : s;
  }

 protected:
  Status Draw(const OptionValues& v, int32_t, int32_t, const ImageView& out) override {
    const int side = LongerSide(m_photo);
    if (v.Has("radius") && v.Number("radius") > static_cast<float>(side / 8)) {
      return Status::Failed("--radius " + NumberText(v.Number("radius")) +
                            " is more than an eighth of this photo's longer side (" + std::to_string(side / 8) +
                            " pixels)");
    }
    Korvane::Rect roi;
    Status s = Region(v, roi);
    if (!s.ok()) return s;
    Korvane::GlowParam p;
    p.src = m_photo.Smart();
    if (!m_mask.empty()) p.mask = m_mask.Smart();
    p.dst = out.Smart();
    p.roi = roi;
    p.glow_intensity = static_cast<float>(v.Number("intensity"));
    p.glow_contrast = static_cast<float>(v.Number("contrast"));
    p.glow_radius = v.Has("radius") ? static_cast<float>(v.Number("radius"))
                                    : std::min(0.015f * side, static_cast<float>(side / 8));
    p.hlr_threshold = static_cast<int32_t>(v.Whole("threshold"));
    p.saturation = static_cast<float>(v.Number("saturation"));
    p.color_strength = static_cast<float>(v.Number("tint"));
    p.color_hue = static_cast<float>(v.Number("hue"));
    p.brightness = static_cast<float>(v.Number("brightness"));
    p.opacity = static_cast<int32_t>(std::lround(v.Number("opacity") * 255.0));
    p.blend_mode = v.ChoiceIndex("blend");
    // Pixels the glow leaves alone (zero opacity) keep the photo.
    for (int y = 0; y < out.height; ++y) {
      std::memcpy(out.Row(y), m_photo.At(roi.left, roi.top + y), static_cast<size_t>(out.width) * 4);
    }
    s = Status::Call("glow Initialize", m_fx->Initialize(m_photo.width, m_photo.height));
    if (!s.ok()) return s;
    const int32_t hr = m_fx->Process(p);
    if (hr < 0 && hr != E_OUTOFMEMORY && (m_photo.width < 2 || m_photo.height < 2)) {
      return Status::Failed("glow failed: " + CodeText(hr) + " (the photo must be at least 2x2 pixels)", hr);
    }
    m_summary = v.Text("blend");
    return Status::Call("glow", hr);
  }

 private:
  Engine::Handle<Korvane::Glow> m_fx;
  ImageView m_mask;
};

}  // namespace

Status OpenFocusBlur(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in, std::unique_ptr<Session>& s) {
  return OpenAs<FocusBlurSession>(e, v, p, in, s);
}

Status OpenGlitch(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in, std::unique_ptr<Session>& s) {
  return OpenAs<GlitchSession>(e, v, p, in, s);
}

Status OpenGlow(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in, std::unique_ptr<Session>& s) {
  return OpenAs<GlowSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
