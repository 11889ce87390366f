// korvane sparkle: star-like glints at the photo's small bright spots and at
// points the user places, as a still or a rotating, twinkling loop (WebP, GIF
// or PNG frames), plus the detected light points as JSON.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Command.h"
#include "JsonInput.h"
#include "LightPointsJson.h"
#include "Options.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"
#include "effects/sparkle/Sparkle.h"
#include "effects/sparkle/SparkleEffect.h"

namespace KorvaneTool {
namespace {

struct SparkleOptions {
  std::string input;
  std::string output;
  std::string shape = "star4";
  std::string manual;
  std::string manual_shape = "star6";
  std::string points_json;
  float amount = 1.0f;
  float size = 2.0f;
  float rotation = 0.0f;
  float saturation = 0.0f;
  float brightness = 0.0f;
  std::string color = "white";
  std::optional<int> quality_mode;  // empty: 2 for a still, 1 for a loop
  bool rotate = false;
  bool twinkle = false;
  int frames = 1;
  int fps = 24;
  int webp_quality = 80;
  bool quiet = false;
};

// --- Built-in shapes ------------------------------------------------------------

// A glint as a star filter draws it: a bright soft core with a faint halo,
// and `spikes` thin diffraction spikes that narrow and fade toward their tips.
// `long_every` > 1 makes every other spike half as long (an eight-pointed
// star with four long and four short rays). `halo` 0 leaves only the core.
Image DrawGlint(int spikes, int long_every, float halo) {
  const int n = Korvane::SPK_SIZE;
  const double c = (n - 1) * 0.5;
  Image img(n, n, 4);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const double dx = (x - c) / c, dy = (y - c) / c, r = std::hypot(dx, dy);
      double v = std::exp(-r * r * 90.0) + halo * std::exp(-r * r * 14.0);
      for (int k = 0; k < spikes; ++k) {
        const double a = M_PI * 2 * k / spikes + M_PI / 2;  // the first spike points up
        const double along = dx * std::cos(a) + dy * std::sin(a);
        if (along <= 0) continue;
        const double length = (long_every > 1 && k % long_every) ? 0.5 : 1.0;
        const double t = along / length;
        if (t >= 1) continue;
        const double across = std::fabs(-dx * std::sin(a) + dy * std::cos(a)) * c;  // in pixels
        const double width = 3.5 * (1.0 - 0.6 * t);
        v += std::exp(-across * across / (width * width)) * std::pow(1 - t, 1.3);
      }
      const int byte = static_cast<int>(std::lround(255.0 * std::min(1.0, v)));
      uint8_t* p = img.at(x, y);
      p[0] = p[1] = p[2] = static_cast<uint8_t>(byte);
      p[3] = 255;
    }
  return img;
}

bool MakeShape(const std::string& name, Image& shape, std::string& error) {
  if (name == "star4") shape = DrawGlint(4, 1, 0.3f);
  else if (name == "star6") shape = DrawGlint(6, 1, 0.3f);
  else if (name == "star8") shape = DrawGlint(8, 2, 0.3f);
  else if (name == "cross") shape = DrawGlint(4, 1, 0.0f);
  else return LoadImage(name, shape, error);
  return true;
}

// Reads {"sparkles": [{"x": X, "y": Y, "scale": S}, ...]} (photo pixels;
// scale optional, 1 when absent).
bool LoadManual(const std::string& path, std::vector<Korvane::SparklePoint>& points, std::string& error) {
  nlohmann::json list;
  if (!ReadJsonList(path, "sparkles", list, error)) return false;
  for (size_t i = 0; i < list.size(); ++i) {
    const auto& s = list[i];
    const std::string where = path + ": sparkles[" + std::to_string(i) + "]";
    auto number = [&](const char* key, double fallback, double& out) {
      if (!s.contains(key)) {
        out = fallback;
        return !std::isnan(fallback);
      }
      if (!s[key].is_number()) return false;
      out = s[key].get<double>();
      return std::isfinite(out);
    };
    double x, y, scale;
    if (!s.is_object() || !number("x", NAN, x) || !number("y", NAN, y)) {
      error = where + " needs \"x\" and \"y\" (numbers, photo pixels)";
      return false;
    }
    if (!number("scale", 1.0, scale) || !(scale > 0 && scale <= Korvane::kSparkleMaxScale)) {
      error = where + ".scale must be a number above 0 and at most 6";
      return false;
    }
    points.push_back({static_cast<float>(x), static_cast<float>(y), static_cast<float>(scale)});
  }
  return true;
}

// --- Rendering ---------------------------------------------------------------------

int ColorMode(const std::string& name) {
  return name == "photo" ? Korvane::SPARKLE_COLOR_PHOTO
                         : name == "random" ? Korvane::SPARKLE_COLOR_RANDOM : Korvane::SPARKLE_COLOR_WHITE;
}

struct Renderer {
  Engine& engine;
  EffectHandle<Korvane::Sparkle> fx;
  Korvane::SparkleParam param;
  Korvane::SparkleRenderParam auto_render, manual_render;

  explicit Renderer(Engine& e) : engine(e) {}
  int Start(Image& photo, Image& shape, Image* manual_shape, const std::vector<Korvane::SparklePoint>& manual,
            const SparkleOptions& o) {
    fx = engine.Own<Korvane::Sparkle>(Korvane::EFFECT_SPARKLE);
    if (!fx) return 1;
    Korvane::ImageBuffer in = photo.Buffer(), star = shape.Buffer();
    if (int rc = CheckCode(fx->SetSource(&in), "sparkle SetSource")) return rc;
    if (int rc = CheckCode(fx->SetAutoSparkleShape(&star), "sparkle SetAutoSparkleShape")) return rc;
    if (manual_shape && !manual.empty()) {
      Korvane::SparkleShape s;
      s.image = manual_shape->Buffer();
      s.type_id = 2;
      const int32_t hr = fx->AddManualSparkles(manual.data(), static_cast<int32_t>(manual.size()), &s);
      if (int rc = CheckCode(hr, "sparkle AddManualSparkles")) return rc;
    }
    param.quality_mode = o.quality_mode ? *o.quality_mode : (o.frames == 1 ? 2 : 1);
    param.rotate = o.rotate;
    param.twinkle = o.twinkle;
    param.anime_frame_count = o.frames;
    for (Korvane::SparkleRenderParam* r : {&auto_render, &manual_render}) {
      r->color_mode = ColorMode(o.color);
      r->amount = o.amount;
      r->size = o.size;
      r->rotation = o.rotation;
      r->saturation = o.saturation;
      r->brightness = o.brightness;
    }
    manual_render.amount = 1.0f;  // placed glints always show
    return 0;
  }
  // Frame `index` into `frame`; adds the effect's time to *ms.
  int Frame(Image& photo, int index, Image& frame, double* ms) {
    Korvane::ImageBuffer in = photo.Buffer(), out = frame.Buffer();
    param.anime_frame_index = index;
    const auto t0 = std::chrono::steady_clock::now();
    const int32_t hr = fx->Process(&param, &auto_render, &manual_render, &in, &out,
                                   Korvane::Rect{0, 0, photo.width, photo.height});
    *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    return CheckCode(hr, "sparkle frame " + std::to_string(index));
  }
};

const Korvane::SparkleEffect& Inspect(const Korvane::Sparkle* fx) {
  return *static_cast<const Korvane::SparkleEffect*>(fx);
}

// Every frame into `output`: a still for one frame, else a loop.
int RenderOutput(Renderer& r, Image& photo, const SparkleOptions& o, double* ms_per_frame, std::string& kind) {
  const LoopSettings loop{o.frames, o.fps, o.webp_quality, o.quiet};
  return WriteStillOrLoop(o.output, photo, loop, [&](int index, Image& frame, double* ms) {
    return r.Frame(photo, index, frame, ms);
  }, ms_per_frame, kind);
}

int RunSparkle(const SparkleOptions& o) {
  SetQuiet(o.quiet);
  if (o.output.empty() && o.points_json.empty()) return Usage("sparkle: give -o OUT or --points-json FILE");
  Image photo, shape, manual_shape;
  std::vector<Korvane::SparklePoint> manual;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  if (!MakeShape(o.shape, shape, error)) return Fail(error);
  if (!o.manual.empty()) {
    if (!LoadManual(o.manual, manual, error)) return Fail(error);
    if (!MakeShape(o.manual_shape, manual_shape, error)) return Fail(error);
    if (manual_shape.width != Korvane::SPK_SIZE || manual_shape.height != Korvane::SPK_SIZE) {
      return Fail("manual shape " + o.manual_shape + " is " + std::to_string(manual_shape.width) + "x" +
                  std::to_string(manual_shape.height) + "; manual shapes must be 200x200");
    }
  }
  if (int rc = CheckOutputPaths({o.output, o.points_json}, {o.input, o.shape, o.manual, o.manual_shape})) return rc;

  const auto t0 = std::chrono::steady_clock::now();
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  Renderer r(engine);
  if (int rc = r.Start(photo, shape, o.manual.empty() ? nullptr : &manual_shape, manual, o)) return rc;
  // The inspection output stands alone: it is for tuning before rendering.
  if (!o.points_json.empty()) {
    const auto& fxi = Inspect(r.fx.get());
    return WriteLightPointsJson(o.points_json, fxi.NormWidth(), fxi.NormHeight(), fxi.AutoSparkleList());
  }
  double ms = 0;
  std::string kind;
  if (int rc = RenderOutput(r, photo, o, &ms, kind)) return rc;
  const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  Note("wrote %s (%s, %d frame%s, %zu light points, %zu placed, %dx%d, %.0f ms, render %.1f ms a frame)\n",
       o.output.c_str(), kind.c_str(), o.frames, o.frames == 1 ? "" : "s", Inspect(r.fx.get()).AutoSparkleList().size(),
       manual.size(), photo.width, photo.height, total, ms);
  return 0;
}

RegisterCommand reg("sparkle", "Star-like glints on bright spots and placed points, still or rotating, twinkling loop",
                    [](CLI::App& sub) {
  auto o = std::make_shared<SparkleOptions>();
  OptionTable t(sub);
  t.Text("photo", o->input, "Photo to read (JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF, JPEG XL; '-' reads standard input)",
         true);
  t.Text("-o,--output", o->output,
         "Where to write: an image for one frame; NAME.webp, NAME.gif or a folder of PNG frames for a loop");
  t.Text("--shape", o->shape,
         "Glint shape at the bright spots: star4, star6, star8, cross, or an image file [default star4]");
  t.Text("--manual", o->manual,
         "Placed glints: JSON {\"sparkles\": [{\"x\": X, \"y\": Y, \"scale\": S}, ...]} in photo pixels, "
         "scale 0..6 (1 = 3% of the longer side at --size 1)");
  t.Text("--manual-shape", o->manual_shape,
         "Shape of the placed glints: star4, star6, star8, cross, or a 200x200 image file [default star6]");
  t.Number("--amount", o->amount, 0, 1, "", "Fraction of the bright spots that get a glint");
  t.Number("--size", o->size, 0.05, 6, "", "Glint size: at 1 the glints span 1% to 3% of the longer side");
  t.Number("--rotation", o->rotation, -360, 360, "degrees", "Turn of the glints (clockwise)");
  t.Number("--saturation", o->saturation, -1, 1, "", "Colour change of the glints' light (-1 grey, 1 twice as vivid)");
  t.Number("--brightness", o->brightness, -1, 1, "", "Brightness change of the glints (-1 dark, 1 twice as bright)");
  t.Choice("--color", o->color, {"white", "photo", "random"},
           "Glint colour: white light, the photo's colour at each glint, or a random hue per glint");
  t.Number("--quality-mode", o->quality_mode, 0, 3, "",
           "0 full-size light map; 1 reduced for large photos; 2 and 3 place glints on whole pixels at a fixed "
           "brightness each (every glint shows)",
           "2 for a still, 1 for a loop");
  t.Flag("--rotate", o->rotate, "The glints turn once over the loop");
  t.Flag("--twinkle", o->twinkle, "Each glint flashes on quickly and fades slowly once over the loop");
  t.Number("--frames", o->frames, 1, 1000, "", "Frames: 1 writes a still, more a loop");
  t.Number("--fps", o->fps, 1, 100, "frames a second", "Playback speed of a loop");
  t.Number("--webp-quality", o->webp_quality, 1, 100, "", "Quality of an animated WebP (100 = lossless)");
  t.Text("--points-json", o->points_json,
         "Write the detected light points as JSON (positions on the 640-pixel detection copy) and stop");
  t.Flag("-q,--quiet", o->quiet, "Print nothing on success");
  return std::function<int()>([o] { return RunSparkle(*o); });
});

// The sun's glitter on the sea twinkles, and a large star flares on the sun.
RegisterDemoStep demo(75, "sparkle: glints on the sea", [](DemoContext& ctx) {
  Image photo = ctx.scene.photo, shape, flare;
  std::string error;
  if (!MakeShape("star4", shape, error) || !MakeShape("star8", flare, error)) return Fail(error);
  const float w = static_cast<float>(photo.width), h = static_cast<float>(photo.height);
  const std::vector<Korvane::SparklePoint> sun = {{0.26f * w, 0.49f * h, 2.5f}};
  SparkleOptions o;
  o.amount = 0.9f;
  o.size = 2.5f;
  o.rotate = true;
  o.twinkle = true;
  o.frames = 24;
  Renderer r(ctx.engine);
  if (int rc = r.Start(photo, shape, &flare, sun, o)) return rc;
  // The still shows the frame in which the sun's star is near its peak.
  // (The library is linked as the shared library, which exports only the
  // engine, so the star's first frame is worked out here.)
  const int phase = Inspect(r.fx.get()).ManualSparkles()[0].phase;
  const int start = std::min(static_cast<int>(phase * o.frames / 90.0f + 0.5f), o.frames - 1);
  Image frame(photo.width, photo.height, 4);
  double ms = 0;
  if (int rc = r.Frame(photo, (o.frames + 8 - start) % o.frames, frame, &ms)) return rc;
  if (int rc = ctx.Save("sparkle.png", frame, ms)) return rc;
  o.output = ctx.Path("sparkle.webp");
  std::string kind;
  if (int rc = RenderOutput(r, photo, o, &ms, kind)) return rc;
  ctx.Report(o.output, ms);
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
