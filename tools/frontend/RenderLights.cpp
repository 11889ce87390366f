// The render cores of bokeh and sparkle: light points found once per photo,
// shapes drawn from their names, and the option values as the effects'
// records.
#include <korvane/effects/bokeh/Bokeh.h>
#include <korvane/effects/sparkle/Sparkle.h>

#include "RenderSupport.h"
#include "Shapes.h"

namespace KorvaneFrontend {

namespace {

// The shape option `name`: a built-in shape the library draws, or the image
// given as the input of the same name. Drawn again only when the name changes.
class ShapeOption {
 public:
  ShapeOption(std::string name, int32_t (*named)(const std::string&)) : m_name(std::move(name)), m_named(named) {}

  // Sets *changed when the shape differs from the last call's.
  Status Get(const Engine& engine, const OptionValues& v, const Inputs& inputs, ImageView& shape,
             bool* changed = nullptr) {
    const std::string& text = v.Text(m_name);
    if (changed) *changed = text != m_drawn_for;
    if (text != m_drawn_for) {
      m_drawn = Image();
      if (v.ChoiceIndex(m_name) >= 0 && (!engine.get() || !DrawShape(*engine.get(), m_named(text), m_drawn))) {
        return Status::Usage("--" + m_name + ": no shape " + text);
      }
      m_drawn_for = text;
    }
    if (!m_drawn.pixels.empty()) {
      shape = m_drawn.View();
      return Status();
    }
    const auto it = inputs.images.find(m_name);
    if (it == inputs.images.end() || it->second.empty() || it->second.channels != 4) {
      return Status::Failed("{input} must be a BGRA image", E_INVALIDARG, m_name);
    }
    shape = it->second;
    return Status();
  }

 private:
  std::string m_name;
  int32_t (*m_named)(const std::string&);
  std::string m_drawn_for;
  Image m_drawn;
};

// What bokeh and sparkle share: an effect that finds the photo's light
// points when it opens, and regions that draw every shape reaching into them.
template <class Fx>
class LightSession : public PhotoSession {
 public:
  // The points the last render drew in some frame of its loop: exactly
  // those that render. Before any render, those of the first frame of the
  // loop the values the session was opened with ask for.
  bool LightPoints(Korvane::LightPointSummary& summary, std::vector<Korvane::LightPointInfo>& points) const override {
    if (!m_fx) return false;
    if (!m_rendered && m_values) {
      Image frame(m_width, m_height, 4);
      const OptionValues values = *m_values;
      const int32_t count = values.cmd().Find("frames") ? static_cast<int32_t>(values.Whole("frames")) : 1;
      if (!const_cast<LightSession*>(this)->Render(values, 0, count, frame.View()).ok()) return false;
    }
    return Query(&Fx::GetDrawnLightPoints, summary, points);
  }

 protected:
  // The photo, the frame size, the gray input and the effect with the
  // photo's light points found.
  Status Start(Engine& engine, int32_t type, const OptionValues& v, const ImageView& photo, const Inputs& inputs,
               const char* gray_name, ImageView* gray) {
    m_inputs = inputs;
    m_engine = &engine;
    m_values = std::make_unique<OptionValues>(v);
    Status s = Begin(v, photo, inputs, gray_name, gray);
    if (s.ok()) s = engine.Create(type, m_fx);
    const Korvane::ImageBuffer in = photo.Buffer();
    if (s.ok()) s = Status::Call(m_name + " SetSource", m_fx->SetSource(&in));
    Korvane::LightPointSummary summary;
    std::vector<Korvane::LightPointInfo> points;
    if (s.ok() && Query(&Fx::GetLightPoints, summary, points)) m_found = summary.count;
    m_summary = std::to_string(m_found) + " light points";
    return s;
  }

  // After a frame: what it drew, of what was found.
  void Drawn(const OptionValues& v, int32_t hr) {
    if (hr < 0) return;
    *m_values = v;
    m_rendered = true;
    Korvane::LightPointSummary summary;
    std::vector<Korvane::LightPointInfo> points;
    if (Query(&Fx::GetDrawnLightPoints, summary, points)) {
      m_summary = std::to_string(summary.count) + " of " + std::to_string(m_found) + " light points drawn";
    }
  }

  // The region of a render. A region draws every shape that reaches into
  // it, so it equals that part of the whole render.
  Status DrawnRegion(const OptionValues& v, Korvane::Rect& roi) {
    const Status s = Region(v, roi);
    const int32_t mode = v.Has("roi") ? Korvane::REGION_SHAPES_REACHING : Korvane::REGION_CENTRES_INSIDE;
    return s.ok() ? Status::Call(m_name + " SetRegionMode", m_fx->SetRegionMode(mode)) : s;
  }

  explicit LightSession(std::string name) : m_name(std::move(name)) {}

  std::string m_name;  // for messages
  const Engine* m_engine = nullptr;
  Engine::Handle<Fx> m_fx;
  Inputs m_inputs;

 private:
  using PointQuery = int32_t (Fx::*)(Korvane::LightPointSummary*, Korvane::LightPointInfo*, int32_t) const;
  bool Query(PointQuery query, Korvane::LightPointSummary& summary, std::vector<Korvane::LightPointInfo>& points) const {
    if (((*m_fx).*query)(&summary, nullptr, 0) < 0) return false;
    points.resize(static_cast<size_t>(summary.count));
    return ((*m_fx).*query)(&summary, points.data(), summary.count) >= 0;
  }

  std::unique_ptr<OptionValues> m_values;  // those of the last render, or of the opening
  bool m_rendered = false;
  int32_t m_found = 0;
};

// ---- Bokeh ------------------------------------------------------------------------

class BokehSession final : public LightSession<Korvane::Bokeh> {
 public:
  BokehSession() : LightSession("bokeh") {}
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    ImageView shape;
    Status s = m_shape.Get(engine, v, inputs, shape);
    if (s.ok()) s = Start(engine, Korvane::EFFECT_BOKEH, v, photo, inputs, "guide", &m_guide);
    if (s.ok() && m_guide.empty()) {
      // Without a guide the centre stays sharp, as in focus blur.
      m_radial = RadialGuide(photo.width, photo.height);
      m_guide = m_radial.View();
    }
    return s;
  }

 protected:
  Status Draw(const OptionValues& v, int32_t index, int32_t count, const ImageView& out) override {
    Korvane::Rect roi;
    ImageView shape;
    Status s = DrawnRegion(v, roi);
    if (s.ok()) s = m_shape.Get(*m_engine, v, m_inputs, shape);
    if (!s.ok()) return s;
    Korvane::BokehParam param;
    param.quality_mode = static_cast<int32_t>(v.Whole("quality-mode"));
    param.twinkle_switch = v.Flag("twinkle");
    param.hue_shift_switch = v.Flag("cycle-hue");
    param.anime_frame_count = count;
    param.anime_frame_index = index;
    param.blur_strength = static_cast<float>(v.Whole("level")) / 100.0f;
    param.focus_value = static_cast<float>(v.Whole("focus")) / 255.0f;
    param.focus_range = static_cast<float>(v.Whole("range")) / 255.0f;
    param.highlights_only = 1;  // discs on lights, not on texture
    param.true_scale = 1;       // the background blur holds at any photo size
    Korvane::BokehShapeParam shape_param;
    shape_param.shape = shape.Buffer();
    shape_param.amount = static_cast<float>(v.Number("amount"));
    shape_param.size_blend = static_cast<float>(v.Number("size-blend"));
    shape_param.rotation = static_cast<float>(v.Number("rotation"));
    shape_param.saturation = static_cast<float>(v.Number("saturation"));
    shape_param.hue_offset = HalfTurns(v.Number("hue-shift"));
    shape_param.color_mode = v.ChoiceIndex("color");  // dominant, photo, random as the library numbers them
    Korvane::ImageBuffer in = m_photo.Buffer(), dst = out.Buffer(), guide = StretchedGuide(v, m_guide).Buffer();
    const int32_t hr = m_fx->Process(&param, &shape_param, &in, &guide, &dst, roi);
    Drawn(v, hr);
    return Status::Call("bokeh frame " + std::to_string(index), hr);
  }

 private:
  ImageView m_guide;
  Image m_radial;
  ShapeOption m_shape{"shape", BokehShapeNamed};
};

// ---- Sparkle ----------------------------------------------------------------------

// Placed glints of this type carry the --manual-shape.
constexpr uint16_t kPlacedType = 2;

class SparkleSession final : public LightSession<Korvane::Sparkle> {
 public:
  SparkleSession() : LightSession("sparkle") {}
  std::string Summary() const override { return m_summary + m_placed; }
  Status Open(Engine& engine, const OptionValues& v, const ImageView& photo, const Inputs& inputs) {
    Status s = CheckPlaced(inputs.sparkles, photo);
    if (s.ok()) s = Start(engine, Korvane::EFFECT_SPARKLE, v, photo, inputs, nullptr, nullptr);
    if (s.ok()) s = Shapes(v);
    if (!s.ok()) return s;
    if (!inputs.sparkles.empty()) {
      std::vector<Korvane::SparklePoint> points;
      for (const PlacedSparkle& p : inputs.sparkles) {
        points.push_back({static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.scale)});
      }
      Korvane::SparkleShape shape;
      shape.image = m_manual_view.Buffer();
      shape.type_id = kPlacedType;
      s = Status::Call("sparkle AddManualSparkles",
                       m_fx->AddManualSparkles(points.data(), static_cast<int32_t>(points.size()), &shape));
    }
    m_placed = ", " + std::to_string(inputs.sparkles.size()) + " placed";
    return s;
  }

 protected:
  Status Draw(const OptionValues& v, int32_t index, int32_t count, const ImageView& out) override {
    Korvane::Rect roi;
    Status s = DrawnRegion(v, roi);
    if (s.ok()) s = Shapes(v);
    if (!s.ok()) return s;
    Korvane::SparkleParam param;
    // A still and a loop show the same glints, each at a fixed brightness
    // of its own unless it twinkles, in any quality mode; glints only on
    // lights, not on texture.
    param.quality_mode = v.Has("quality-mode") ? static_cast<int32_t>(v.Whole("quality-mode")) : 1;
    param.steady_content = 1;
    param.highlights_only = 1;
    param.rotate = v.Flag("spin");
    param.twinkle = v.Flag("twinkle");
    param.anime_frame_count = count;
    param.anime_frame_index = index;
    Korvane::SparkleRenderParam auto_render, manual_render;
    for (Korvane::SparkleRenderParam* r : {&auto_render, &manual_render}) {
      r->color_mode = v.ChoiceIndex("color");  // white, photo, random as the library numbers them
      r->amount = static_cast<float>(v.Number("amount"));
      r->size = static_cast<float>(v.Number("size"));
      r->rotation = static_cast<float>(v.Number("rotation"));
      r->saturation = static_cast<float>(v.Number("saturation"));
      r->brightness = static_cast<float>(v.Number("brightness"));
    }
    manual_render.amount = 1.0f;  // placed glints always show
    Korvane::ImageBuffer in = m_photo.Buffer(), dst = out.Buffer();
    const int32_t hr = m_fx->Process(&param, &auto_render, &manual_render, &in, &dst, roi);
    Drawn(v, hr);
    return Status::Call("sparkle frame " + std::to_string(index), hr);
  }

 private:
  // Placed glints lie inside the photo, at a scale in (0, 6]; checked here,
  // before any becomes a float of the library's record.
  static Status CheckPlaced(const std::vector<PlacedSparkle>& placed, const ImageView& photo) {
    for (size_t i = 0; i < placed.size(); ++i) {
      const PlacedSparkle& p = placed[i];
      const std::string where = "{input}: sparkles[" + std::to_string(i) + "]";
      if (!(p.x >= 0 && p.x < photo.width && p.y >= 0 && p.y < photo.height)) {
        return Status::Failed(where + " at " + NumberText(p.x) + "," + NumberText(p.y) + " lies outside the " +
                                  std::to_string(photo.width) + "x" + std::to_string(photo.height) + " photo",
                              E_INVALIDARG, "manual");
      }
      if (!(p.scale > 0 && p.scale <= Korvane::kSparkleMaxScale)) {
        return Status::Failed(where + ".scale must be a number above 0 and at most 6", E_INVALIDARG, "manual");
      }
    }
    return Status();
  }

  // Hands the shapes to the effect when they differ from the last ones.
  Status Shapes(const OptionValues& v) {
    ImageView shape;
    bool changed = false;
    Status s = m_auto_shape.Get(*m_engine, v, m_inputs, shape, &changed);
    if (s.ok() && changed) {
      const Korvane::ImageBuffer b = shape.Buffer();
      s = Status::Call("sparkle SetAutoSparkleShape", m_fx->SetAutoSparkleShape(&b));
    }
    if (!s.ok() || m_inputs.sparkles.empty()) return s;
    s = m_manual_shape.Get(*m_engine, v, m_inputs, m_manual_view, &changed);
    if (!s.ok() || !changed) return s;
    if (m_manual_view.width != Korvane::SPK_SIZE || m_manual_view.height != Korvane::SPK_SIZE) {
      return Status::Failed("{input} is " + std::to_string(m_manual_view.width) + "x" +
                                std::to_string(m_manual_view.height) + "; manual shapes must be 200x200",
                            E_INVALIDARG, "manual-shape");
    }
    if (m_manual_registered) {
      Korvane::SparkleShape shape;
      shape.image = m_manual_view.Buffer();
      shape.type_id = kPlacedType;
      s = Status::Call("sparkle SetManualSparkleShape", m_fx->SetManualSparkleShape(&shape));
    }
    m_manual_registered = true;
    return s;
  }

  std::string m_placed;  // the summary's note of the placed glints
  ImageView m_manual_view;
  ShapeOption m_auto_shape{"shape", GlintShapeNamed}, m_manual_shape{"manual-shape", GlintShapeNamed};
  bool m_manual_registered = false;
};

}  // namespace

Status OpenBokeh(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in, std::unique_ptr<Session>& s) {
  return OpenAs<BokehSession>(e, v, p, in, s);
}

Status OpenSparkle(Engine& e, const OptionValues& v, const ImageView& p, const Inputs& in,
                   std::unique_ptr<Session>& s) {
  return OpenAs<SparkleSession>(e, v, p, in, s);
}

}  // namespace KorvaneFrontend
