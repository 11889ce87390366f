// korvane bokeh: out-of-focus light discs over a photo whose background is
// blurred, as a still or a twinkling loop (WebP, GIF or PNG frames), plus
// the detected light points as JSON or drawn on the photo.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "LightPointsJson.h"
#include "Options.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"
#include "effects/bokeh/Bokeh.h"
#include "effects/bokeh/BokehEffect.h"

namespace KorvaneTool {
namespace {

struct BokehOptions {
  std::string input;
  std::string guide;
  std::string shape = "circle";
  std::string output;
  std::string points_json;
  std::string points_overlay;
  float amount = 0.8f;
  float size_blend = 0.0f;
  float rotation = 0.0f;
  float saturation = 0.0f;
  float hue_offset = 0.0f;
  std::string color = "photo";
  int quality_mode = 1;
  int blur_level = 100;
  int focus = 230;
  int range = 51;
  bool twinkle = false;
  bool hue_shift = false;
  int frames = 1;
  int fps = 24;
  int webp_quality = 80;
  bool quiet = false;
};

// --- Built-in shapes ------------------------------------------------------------

constexpr int kShapeSize = 128;

// Inside test of a shape in the unit square [-1, 1]^2.
using Inside = std::function<bool(double x, double y)>;

Inside RegularPolygon(int sides, double radius) {
  const double apothem = radius * std::cos(M_PI / sides);
  return [=](double x, double y) {
    for (int k = 0; k < sides; ++k) {
      const double a = (k + 0.5) * 2 * M_PI / sides;  // a flat edge at the top, as aperture blades make
      if (x * std::sin(a) - y * std::cos(a) > apothem) return false;
    }
    return true;
  };
}

Inside Star(double radius) {
  return [=](double x, double y) {
    // Five points: the boundary radius swings between the outer and inner
    // radius with the angle.
    const double r = std::hypot(x, y), a = std::atan2(x, -y);
    const double sector = 2 * M_PI / 5, t = std::fabs(std::fmod(std::fabs(a) + sector / 2, sector) - sector / 2);
    const double inner = radius * 0.42, outer = radius;
    // Straight edges between a tip (t = 0) and a notch (t = sector / 2).
    const double tip_x = 0, tip_y = outer, notch_x = inner * std::sin(sector / 2),
                 notch_y = inner * std::cos(sector / 2);
    const double px = r * std::sin(t), py = r * std::cos(t);
    return (notch_x - tip_x) * (py - tip_y) - (notch_y - tip_y) * (px - tip_x) <= 0;
  };
}

Inside Heart(double radius) {
  return [=](double x, double y) {
    const double hx = x / radius * 1.2, hy = -y / radius * 1.2 + 0.2;
    const double q = hx * hx + hy * hy - 1;
    return q * q * q - hx * hx * hy * hy * hy <= 0;
  };
}

// A lens-drawn light: the shape filled at 205 with a rim that reaches 255,
// anti-aliased by 4 x 4 samples a pixel.
Image DrawShape(const Inside& inside) {
  Image img(kShapeSize, kShapeSize, 4);
  for (int y = 0; y < kShapeSize; ++y)
    for (int x = 0; x < kShapeSize; ++x) {
      int outer = 0, inner = 0;
      for (int sy = 0; sy < 4; ++sy)
        for (int sx = 0; sx < 4; ++sx) {
          const double u = ((x + (sx + 0.5) / 4) / kShapeSize) * 2 - 1, v = ((y + (sy + 0.5) / 4) / kShapeSize) * 2 - 1;
          outer += inside(u, v);
          inner += inside(u / 0.9, v / 0.9);
        }
      const double value = (205.0 * outer + 50.0 * (outer - inner)) / 16.0;
      uint8_t* p = img.at(x, y);
      p[0] = p[1] = p[2] = static_cast<uint8_t>(std::lround(value));
      p[3] = 255;
    }
  return img;
}

// The named shapes, or any image file.
bool MakeShape(const std::string& name, Image& shape, std::string& error) {
  if (name == "circle")
    shape = DrawShape([](double x, double y) { return x * x + y * y <= 0.9 * 0.9; });
  else if (name == "hexagon")
    shape = DrawShape(RegularPolygon(6, 0.9));
  else if (name == "octagon")
    shape = DrawShape(RegularPolygon(8, 0.9));
  else if (name == "heart")
    shape = DrawShape(Heart(0.9));
  else if (name == "star")
    shape = DrawShape(Star(0.92));
  else
    return LoadImage(name, shape, error);
  return true;
}

// --- Rendering ---------------------------------------------------------------------

int ColorMode(const std::string& name) { return name == "global" ? 0 : name == "random" ? 2 : 1; }

struct Renderer {
  Engine& engine;
  EffectHandle<Korvane::Bokeh> fx;
  Korvane::BokehParam param;
  Korvane::BokehShapeParam shape_param;

  explicit Renderer(Engine& e) : engine(e) {}
  int Start(Image& photo, Image& shape, const BokehOptions& o) {
    fx = engine.Own<Korvane::Bokeh>(Korvane::EFFECT_BOKEH);
    if (!fx) return 1;
    Korvane::ImageBuffer in = photo.Buffer();
    if (int rc = CheckCode(fx->SetSource(&in), "bokeh SetSource")) return rc;
    param.quality_mode = o.quality_mode;
    param.twinkle_switch = o.twinkle;
    param.hue_shift_switch = o.hue_shift;
    param.anime_frame_count = o.frames;
    param.blur_strength = o.blur_level / 100.0f;
    param.focus_value = o.focus / 255.0f;
    param.focus_range = o.range / 255.0f;
    shape_param.shape = shape.Buffer();
    shape_param.amount = o.amount;
    shape_param.size_blend = o.size_blend;
    shape_param.rotation = o.rotation;
    shape_param.saturation = o.saturation;
    shape_param.hue_offset = o.hue_offset;
    shape_param.color_mode = ColorMode(o.color);
    return 0;
  }
  // Frame `index` into `frame`; adds the effect's time to *ms.
  int Frame(Image& photo, Image* guide, int index, Image& frame, double* ms) {
    Korvane::ImageBuffer in = photo.Buffer(), out = frame.Buffer(), mask;
    if (guide) mask = guide->Buffer();
    param.anime_frame_index = index;
    const auto t0 = std::chrono::steady_clock::now();
    const int32_t hr = fx->Process(&param, &shape_param, &in, guide ? &mask : nullptr, &out,
                                   Korvane::Rect{0, 0, photo.width, photo.height});
    *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    return CheckCode(hr, "bokeh frame " + std::to_string(index));
  }
};

const Korvane::BokehEffect& Inspect(const Korvane::Bokeh* fx) { return *static_cast<const Korvane::BokehEffect*>(fx); }

// A ring around every light point, on a copy of the photo.
int WritePointsOverlay(const Korvane::Bokeh* fx, const Image& photo, const std::string& path) {
  const auto& fxi = Inspect(fx);
  Image img = photo;
  const double sx = static_cast<double>(photo.width) / fxi.GetNormSize().w;
  const double sy = static_cast<double>(photo.height) / fxi.GetNormSize().h;
  const double r = std::max(4.0, std::max(photo.width, photo.height) / 160.0);
  for (const auto& [key, p] : fxi.GetBokehList()) {
    (void)key;
    const double cx = (p.x + 0.5) * sx - 0.5, cy = (p.y + 0.5) * sy - 0.5;
    for (int y = static_cast<int>(cy - r - 2); y <= static_cast<int>(cy + r + 2); ++y)
      for (int x = static_cast<int>(cx - r - 2); x <= static_cast<int>(cx + r + 2); ++x) {
        if (x < 0 || y < 0 || x >= img.width || y >= img.height) continue;
        if (std::fabs(std::hypot(x - cx, y - cy) - r) > 1.0) continue;
        uint8_t* q = img.at(x, y);
        q[0] = 40, q[1] = 255, q[2] = 60;
      }
  }
  std::string error;
  if (!SaveImage(path, img, 92, error)) return Fail(error);
  Note("wrote %s (%zu light points)\n", path.c_str(), fxi.GetBokehList().size());
  return 0;
}

// Renders every frame into `output`: a still image for one frame, else an
// animation as `animate` writes them. Returns 0 or an exit code.
int RenderOutput(Renderer& r, Image& photo, Image* guide, const BokehOptions& o, double* ms_per_frame,
                 std::string& kind) {
  const LoopSettings loop{o.frames, o.fps, o.webp_quality, o.quiet};
  const FrameRenderer render = [&](int index, Image& frame, double* ms) {
    return r.Frame(photo, guide, index, frame, ms);
  };
  // One frame is a still unless the output can only hold an animation (a
  // GIF or a frame folder).
  const std::string ext = Extension(o.output);
  if (ext.empty() || ext == ".gif") return WriteLoop(o.output, photo.width, photo.height, loop, render, ms_per_frame, kind);
  return WriteStillOrLoop(o.output, photo, loop, render, ms_per_frame, kind);
}

int RunBokeh(const BokehOptions& o) {
  SetQuiet(o.quiet);
  if (o.output.empty() && o.points_json.empty() && o.points_overlay.empty()) {
    return Usage("bokeh: give -o OUT, --points-json FILE or --points-overlay FILE");
  }
  Image photo, guide, shape;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  if (!o.guide.empty()) {
    if (!LoadGray(o.guide, guide, error)) return Fail(error);
    if (guide.width != photo.width || guide.height != photo.height) {
      return Fail("guide " + o.guide + " is " + std::to_string(guide.width) + "x" + std::to_string(guide.height) +
                  " but the photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height));
    }
  }
  if (!MakeShape(o.shape, shape, error)) return Fail(error);
  if (int rc = CheckOutputPaths({o.output, o.points_json, o.points_overlay}, {o.input, o.guide, o.shape})) return rc;

  const auto t0 = std::chrono::steady_clock::now();
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  Renderer r(engine);
  if (int rc = r.Start(photo, shape, o)) return rc;
  if (!o.points_json.empty()) {
    const auto& fxi = Inspect(r.fx.get());
    if (int rc = WriteLightPointsJson(o.points_json, fxi.GetNormSize().w, fxi.GetNormSize().h, fxi.GetBokehList())) {
      return rc;
    }
  }
  if (!o.points_overlay.empty()) {
    if (int rc = WritePointsOverlay(r.fx.get(), photo, o.points_overlay)) return rc;
  }
  // The inspection outputs stand alone: they are for tuning before rendering.
  if (o.output.empty() || !o.points_json.empty()) return 0;
  double ms = 0;
  std::string kind;
  if (int rc = RenderOutput(r, photo, o.guide.empty() ? nullptr : &guide, o, &ms, kind)) return rc;
  const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  Note("wrote %s (%s, %d frame%s, %zu light points, %dx%d, %.0f ms, render %.1f ms a frame)\n", o.output.c_str(),
       kind.c_str(), o.frames, o.frames == 1 ? "" : "s", Inspect(r.fx.get()).GetBokehList().size(), photo.width, photo.height,
       total, ms);
  return 0;
}

RegisterCommand reg(
    "bokeh", "Out-of-focus light discs over a blurred background, still or twinkling loop", [](CLI::App& sub) {
      auto o = std::make_shared<BokehOptions>();
      OptionTable t(sub);
      t.Text("photo", o->input,
             "Photo to read (JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF, JPEG XL; '-' reads standard input)", true);
      t.Text("-o,--output", o->output,
             "Where to write: an image for one frame; NAME.webp, NAME.gif or a folder of PNG frames for a loop");
      t.Text("--guide", o->guide,
             "Depth guide (gray, same size): values near --focus stay sharp, discs grow with the distance from it. "
             "Without it the whole photo is background");
      t.Text("--shape", o->shape,
             "Disc shape: circle, hexagon, octagon, heart, star, or an image file [default circle]");
      t.Number("--amount", o->amount, 0, 1, "", "Fraction of the light points that get a disc");
      t.Number("--size-blend", o->size_blend, 0, 1, "", "Disc size from 1x (0) to 1.5x (1)");
      t.Number("--rotation", o->rotation, -360, 360, "degrees", "Turn of the shape");
      t.Number("--saturation", o->saturation, -1, 1, "", "Colour strength of the discs");
      t.Number("--hue-offset", o->hue_offset, -1, 1, "", "Hue turn of the discs (1 = half a turn)");
      t.Choice("--color", o->color, {"global", "photo", "random"},
               "Disc colour: the photo's dominant hue, the photo's colour at each point, or random hues");
      t.Number("--quality-mode", o->quality_mode, 0, 3, "",
               "0 light map at full size; 1 reduced for large photos; 2 and 3 also place discs on whole pixels");
      t.Number("--blur-level", o->blur_level, 0, 100, "", "Background blur, as focus-blur's --level");
      t.Number("--focus", o->focus, 0, 255, "", "Guide value that is in focus");
      t.Number("--range", o->range, 0, 255, "", "Guide distance still left sharp");
      t.Flag("--twinkle", o->twinkle, "Points light up and fade over the loop");
      t.Flag("--hue-shift", o->hue_shift, "The discs' hue turns once over the loop");
      t.Number("--frames", o->frames, 1, 1000, "", "Frames: 1 writes a still, more a loop");
      t.Number("--fps", o->fps, 1, 100, "frames a second", "Playback speed of a loop");
      t.Number("--webp-quality", o->webp_quality, 1, 100, "", "Quality of an animated WebP (100 = lossless)");
      t.Text("--points-json", o->points_json,
             "Write the detected light points as JSON (positions on the 640-pixel detection copy) and stop");
      t.Text("--points-overlay", o->points_overlay, "Write the photo with a ring around every detected light point");
      t.Flag("-q,--quiet", o->quiet, "Print nothing on success");
      return std::function<int()>([o] { return RunBokeh(*o); });
    });

// The demo's distant shore lights become discs behind the sharp lighthouse.
RegisterDemoStep demo(70, "bokeh: the shore lights as twinkling discs", [](DemoContext& ctx) {
  Image photo = ctx.scene.photo, guide = ctx.scene.depth, shape;
  std::string error;
  if (!MakeShape("hexagon", shape, error)) return Fail(error);
  BokehOptions o;
  o.amount = 1.0f;
  o.focus = ctx.scene.subject_depth;
  o.range = 10;
  o.twinkle = true;
  o.frames = 24;
  Renderer r(ctx.engine);
  if (int rc = r.Start(photo, shape, o)) return rc;
  Image frame(photo.width, photo.height, 4);
  double ms = 0;
  if (int rc = r.Frame(photo, &guide, 12, frame, &ms)) return rc;
  if (int rc = ctx.Save("bokeh.png", frame, ms)) return rc;
  o.output = ctx.Path("bokeh.webp");
  std::string kind;
  if (int rc = RenderOutput(r, photo, &guide, o, &ms, kind)) return rc;
  ctx.Report(o.output, ms);
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
