// korvane light-rays: beams of light streaming out of the bright parts of a
// photo, from a centre (radial) or all one way (directional); a still, or a
// loop in which the beams sway and the hue turns.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "DemoScene.h"
#include "PhotoCommand.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"
#include "effects/light_rays/LightRays.h"

namespace KorvaneTool {
namespace {

struct LightRaysOptions {
  PhotoIo io;
  std::string mode = "radial";
  std::string center;     // "X,Y"; empty: the brightest region
  std::string lampshade;  // "ANGLE,SPREAD,SOFTNESS"
  std::string mask;
  std::string roi;
  float angle = 270.0f;
  std::optional<float> length;    // empty: a quarter of the longer side
  std::optional<float> softness;  // empty: 0.3 % of the longer side
  float radius = 0.0f;
  float threshold = 200.0f;
  float strength = 1.0f;
  float level = 0.5f;
  float color = 0.0f;
  float hue = 0.0f;
  int frames = 1;
  int fps = 24;
  bool animate_rays = false;
  bool animate_hue = false;
};

// "1,2.5,3" -> exactly `count` numbers; false for anything else.
bool ParseNumbers(const std::string& text, size_t count, std::vector<double>& out) {
  std::istringstream in(text);
  out.clear();
  for (size_t i = 0; i < count; ++i) {
    double v;
    char comma = ',';
    if ((i > 0 && !(in >> comma)) || comma != ',' || !(in >> v) || !std::isfinite(v)) return false;
    out.push_back(v);
  }
  std::string rest;
  return !(in >> rest);
}

// The list options as numbers, each left empty when not given.
struct Lists {
  std::vector<double> center, roi, lampshade;
};

// Checks the forms of the list options (no photo needed). 0 or Usage().
int ParseLists(const LightRaysOptions& o, Lists& l) {
  if (!o.center.empty() && !ParseNumbers(o.center, 2, l.center)) {
    return Usage("--center wants X,Y in pixels, got '" + o.center + "'");
  }
  if (!o.roi.empty() && !ParseNumbers(o.roi, 4, l.roi)) {
    return Usage("--roi wants L,T,R,B (four integers), got '" + o.roi + "'");
  }
  const std::vector<double>& v = l.lampshade;
  if (!o.lampshade.empty() &&
      (!ParseNumbers(o.lampshade, 3, l.lampshade) || v[0] < 0 || v[0] > 360 || v[1] < 0 || v[1] > 180 || v[2] < 0)) {
    return Usage("--lampshade wants ANGLE,SPREAD,SOFTNESS in degrees (0..360, 0..180, 0 or more), got '" +
                 o.lampshade + "'");
  }
  return 0;
}

// The centre of the brightest region: lightness averaged over cells of about
// a sixtieth of the longer side, each cell with its eight neighbours, and the
// best cell's centre.
std::pair<int, int> BrightestRegion(const Image& photo) {
  const int cell = std::max(1, std::max(photo.width, photo.height) / 60);
  const int cw = (photo.width + cell - 1) / cell, ch = (photo.height + cell - 1) / cell;
  std::vector<double> sum(static_cast<size_t>(cw) * ch, 0.0), count(sum.size(), 0.0);
  for (int y = 0; y < photo.height; ++y)
    for (int x = 0; x < photo.width; ++x) {
      const uint8_t* p = photo.at(x, y);
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

// Everything a render needs besides the photo, checked against it.
struct Prepared {
  Korvane::LightRaysParam param;
  std::unique_ptr<Image> mask;
  std::string summary;
};

int Prepare(const LightRaysOptions& o, Image& photo, Prepared& out) {
  Korvane::LightRaysParam& p = out.param;
  Lists lists;
  if (int rc = ParseLists(o, lists)) return rc;
  const int side = std::max(photo.width, photo.height);
  p.src = Korvane::MakeSmartBufferView(photo.pixels.data(), photo.width, photo.height);
  p.roi = Korvane::Rect{0, 0, photo.width, photo.height};
  if (!o.roi.empty()) {
    const std::vector<double>& v = lists.roi;
    p.roi = Korvane::Rect{static_cast<int32_t>(v[0]), static_cast<int32_t>(v[1]), static_cast<int32_t>(v[2]),
                          static_cast<int32_t>(v[3])};
    if (p.roi.left < 0 || p.roi.top < 0 || p.roi.right > photo.width || p.roi.bottom > photo.height ||
        p.roi.right <= p.roi.left || p.roi.bottom <= p.roi.top) {
      return Fail("--roi " + o.roi + " must be a non-empty rectangle inside the " + std::to_string(photo.width) +
                  "x" + std::to_string(photo.height) + " photo (right and bottom exclusive)");
    }
  }
  if (o.center.empty()) {
    const auto c = BrightestRegion(photo);
    p.center_x = c.first;
    p.center_y = c.second;
  } else {
    const std::vector<double>& v = lists.center;
    p.center_x = static_cast<int32_t>(std::lround(std::min(std::max(v[0], -1e9), 1e9)));
    p.center_y = static_cast<int32_t>(std::lround(std::min(std::max(v[1], -1e9), 1e9)));
  }
  if (!o.lampshade.empty()) {
    const std::vector<double>& v = lists.lampshade;
    p.lampshade_angle = static_cast<float>(v[0]);
    p.lampshade_spread = static_cast<float>(v[1]);
    p.lampshade_param = static_cast<float>(v[2]);
  }
  p.ray_length = o.length ? *o.length : 0.25f * side;
  p.ray_softness = o.softness ? *o.softness : std::min(0.003f * side, static_cast<float>(side / 32));
  if (p.ray_length > side) {
    return Fail("--length " + NumberText(p.ray_length) + " is more than this photo's longer side (" +
                std::to_string(side) + " pixels)");
  }
  if (o.radius > side) {
    return Fail("--radius " + NumberText(o.radius) + " is more than this photo's longer side (" +
                std::to_string(side) + " pixels)");
  }
  if (p.ray_softness > side / 32) {
    return Fail("--softness " + NumberText(p.ray_softness) + " is more than a 32nd of this photo's longer side (" +
                std::to_string(side / 32) + " pixels)");
  }
  if (!o.mask.empty()) {
    std::string error;
    out.mask = std::make_unique<Image>();
    if (!LoadGray(o.mask, *out.mask, error)) return Fail(error);
    if (out.mask->width != photo.width || out.mask->height != photo.height) {
      return Fail("mask " + o.mask + " is " + std::to_string(out.mask->width) + "x" +
                  std::to_string(out.mask->height) + ", photo is " + std::to_string(photo.width) + "x" +
                  std::to_string(photo.height) + "; they must match");
    }
    p.mask = Korvane::MakeSmartBufferView(out.mask->pixels.data(), photo.width, photo.height, Korvane::PIXEL_GRAY8);
  }
  p.ray_mode = o.mode == "directional" ? Korvane::LIGHT_RAYS_DIRECTIONAL : Korvane::LIGHT_RAYS_RADIAL;
  p.ray_angle = o.angle;
  p.ray_radius = o.radius;
  p.hlr_threshold = o.threshold;
  p.blend_strength = o.strength;
  p.ray_level = o.level;
  p.color_param = o.color;
  p.hue_shift = o.hue;
  p.animate_rays = o.animate_rays;
  p.animate_hue = o.animate_hue;
  p.anime_frame_count = o.frames;
  std::ostringstream s;
  if (p.ray_mode == Korvane::LIGHT_RAYS_DIRECTIONAL) {
    s << "directional at " << NumberText(o.angle) << " degrees";
  } else {
    s << "radial from " << p.center_x << "," << p.center_y;
  }
  s << ", " << NumberText(p.ray_length) << " px long";
  out.summary = s.str();
  return 0;
}

// Renders frame `index` into `result` (roi size); adds the effect's time to *ms.
int RenderFrame(Korvane::LightRays* fx, Prepared& prep, Image& photo, Image& result, int index, double* ms) {
  Korvane::LightRaysParam p = prep.param;
  p.dst = Korvane::MakeSmartBufferView(result.pixels.data(), result.width, result.height);
  p.anime_frame_index = index;
  if (int rc = CheckCode(fx->Initialize(photo.width, photo.height), "light rays Initialize")) return rc;
  const auto t0 = std::chrono::steady_clock::now();
  const int32_t hr = fx->Process(p);
  if (ms) *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  return CheckCode(hr, "light rays");
}

// The options checked against the photo, the effect, and the size of the
// result (the roi's).
struct Setup {
  Prepared prep;
  EffectHandle<Korvane::LightRays> fx;
  int width = 0, height = 0;
};

int SetUp(Engine& engine, const LightRaysOptions& o, Image& photo, Setup& s) {
  if (int rc = Prepare(o, photo, s.prep)) return rc;
  s.fx = engine.Own<Korvane::LightRays>(Korvane::EFFECT_LIGHT_RAYS);
  if (!s.fx) return 1;
  const Korvane::Rect& roi = s.prep.param.roi;
  s.width = roi.right - roi.left;
  s.height = roi.bottom - roi.top;
  return 0;
}

int RenderStill(Engine& engine, const LightRaysOptions& o, Image& photo, Rendered& out) {
  Setup s;
  if (int rc = SetUp(engine, o, photo, s)) return rc;
  Image result(s.width, s.height, 4);
  if (int rc = RenderFrame(s.fx.get(), s.prep, photo, result, 0, &out.render_ms)) return rc;
  out.image = std::move(result);
  out.summary = s.prep.summary;
  return 0;
}

// Writes the whole loop through the animation writer. 0 or an exit code.
int RenderLoop(Engine& engine, const LightRaysOptions& o, Image& photo, const std::string& output, bool progress,
               double* ms_per_frame, std::string* kind) {
  Setup s;
  if (int rc = SetUp(engine, o, photo, s)) return rc;
  const LoopSettings loop{o.frames, o.fps, o.io.quality, !progress};
  return WriteLoop(output, s.width, s.height, loop, [&](int index, Image& frame, double* ms) {
    return RenderFrame(s.fx.get(), s.prep, photo, frame, index, ms);
  }, ms_per_frame, *kind);
}

int RunLightRays(const LightRaysOptions& o) {
  // The forms of the list options, before any photo is read.
  Lists lists;
  if (int rc = ParseLists(o, lists)) return rc;
  if (o.frames < 2) {
    if (o.animate_rays || o.animate_hue) return Usage("--animate-rays and --animate-hue need --frames 2 or more");
    Engine engine;
    if (!engine.ok()) return Fail("cannot create the engine");
    return RunPhotos(o.io, {o.mask},
                     [&](Image& photo, Rendered& out) { return RenderStill(engine, o, photo, out); });
  }
  // A loop: one photo into an animated WebP, a GIF or a folder of PNG frames.
  SetQuiet(o.io.quiet);
  if (o.io.inputs.size() != 1 || o.io.inputs[0] == "-") return Usage("a loop (--frames) is made from one photo file");
  if (o.io.output == "-") return Usage("a loop (--frames) is written to a file or folder, not standard output");
  Image photo;
  std::string error;
  if (!LoadImage(o.io.inputs[0], photo, error)) return Fail(error);
  if (int rc = CheckOutputPath(o.io.output, {o.io.inputs[0], o.mask})) return rc;
  const auto t0 = std::chrono::steady_clock::now();
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  double ms = 0;
  std::string kind;
  if (int rc = RenderLoop(engine, o, photo, o.io.output, !o.io.quiet, &ms, &kind)) return rc;
  const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  Note("wrote %s (%s, %d frames at %d fps, %.0f ms, render %.1f ms a frame)\n", o.io.output.c_str(), kind.c_str(),
       o.frames, o.fps, total, ms);
  return 0;
}

RegisterCommand reg("light-rays", "Rays of light from the bright parts of a photo (radial or directional; stills or loops)",
                    [](CLI::App& sub) {
  auto o = std::make_shared<LightRaysOptions>();
  OptionTable t(sub);
  AddPhotoOptions(t, o->io);
  t.Choice("--mode", o->mode, {"radial", "directional"}, "Rays fan out from --center, or all run along --angle");
  t.Text("--center", o->center, "X,Y in pixels: where radial rays start (may lie up to half the photo outside it) "
                                "[default: the brightest region]");
  t.Number("--angle", o->angle, 0, 360, "degrees", "Direction of directional rays: 0 right, 90 up, 270 down");
  t.Number("--length", o->length, 0, 1e6, "pixels", "How far light travels, at most the photo's longer side",
           "a quarter of the longer side");
  t.Number("--radius", o->radius, 0, 1e6, "pixels", "Radial: only highlights this close to the centre shine (0: all)");
  t.Number("--threshold", o->threshold, 0, 255, "", "Lightness a pixel needs to shine (255: only white)");
  t.Number("--softness", o->softness, 0, 1e6, "pixels", "Softening of the rays, at most a 32nd of the longer side",
           "0.3 % of the longer side");
  t.Number("--strength", o->strength, 0, 1, "", "How much of the rays is added to the photo");
  t.Number("--level", o->level, 0, 1, "", "Brightness of the rays: 0 as averaged, 1 up to 16 times brighter");
  t.Number("--color", o->color, -1, 1, "", "Saturation of the rays: -1 white light, 0 the sources' colour, 1 richer");
  t.Number("--hue", o->hue, -1, 1, "half turns", "Turn of the rays' hue");
  t.Text("--lampshade", o->lampshade,
         "ANGLE,SPREAD,SOFTNESS in degrees: radial rays keep to a cone pointing at ANGLE, SPREAD either side, "
         "its edge fading over SOFTNESS");
  t.Text("--mask", o->mask, "Gray image of the photo's size: where it is dark, nothing shines");
  t.Text("--roi", o->roi, "Write only this rectangle of the result: L,T,R,B in pixels (right, bottom exclusive)");
  t.Number("--frames", o->frames, 1, 1000, "", "Frames of a loop (2 or more: -o NAME.webp, NAME.gif or a folder)");
  t.Number("--fps", o->fps, 1, 100, "frames a second", "Playback speed of a loop");
  t.Flag("--animate-rays", o->animate_rays, "In a loop: the beams sway");
  t.Flag("--animate-hue", o->animate_hue, "In a loop: the hue turns once around");
  return std::function<int()>([o] { return RunLightRays(*o); });
});

// The sunset's sun sends radial rays through the sky, still and as a loop of
// swaying beams.
RegisterDemoStep demo(50, "light-rays: rays from the sunset's sun", [](DemoContext& ctx) {
  Image photo = ctx.scene.photo;
  LightRaysOptions o;
  o.center = std::to_string(static_cast<int>(0.26f * photo.width)) + "," +
             std::to_string(static_cast<int>(0.49f * photo.height));
  // Only the sun and the sky around it shine, not the lighthouse's white bands.
  o.radius = 0.1f * photo.width;
  o.threshold = 200;
  o.length = 0.4f * photo.width;
  o.level = 0.35f;
  Rendered still;
  if (int rc = RenderStill(ctx.engine, o, photo, still)) return rc;
  if (int rc = ctx.Save("light-rays-sun.png", still.image, still.render_ms)) return rc;
  o.frames = 12;
  o.fps = 12;
  o.animate_rays = true;
  const std::string loop = ctx.Path("light-rays.webp");
  double ms = 0;
  std::string kind;
  if (int rc = RenderLoop(ctx.engine, o, photo, loop, false, &ms, &kind)) return rc;
  ctx.Report(loop, ms);
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
