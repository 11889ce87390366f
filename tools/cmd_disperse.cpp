// korvane disperse: the subject of a photo, given by a mask, crumbles into
// particles that drift away with the wind; written as animated WebP, GIF or
// PNG frames, once through or as a loop that reassembles.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "AnimationWriter.h"
#include "Command.h"
#include "Options.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"
#include "effects/dispersion/Dispersion.h"

namespace KorvaneTool {
namespace {

struct DisperseOptions {
  std::string input;
  std::string mask;
  std::string output;
  float direction = 0.0f;
  float spread = 40.0f;
  float distance = 0.3f;
  float size = 1.5f;
  float density = 0.5f;
  float width = 0.3f;
  float fade = 1.0f;
  float turbulence = 0.3f;
  uint32_t seed = 1;
  int frames = 48;
  int fps = 24;
  int quality = 80;
  bool loop = false;
  bool quiet = false;
};

Korvane::DispersionParam MakeParam(const DisperseOptions& o) {
  Korvane::DispersionParam p;
  p.anime_frame_count = o.frames;
  p.loop_mode = o.loop ? Korvane::DISPERSION_LOOP : Korvane::DISPERSION_ONCE;
  p.direction = o.direction;
  p.spread = o.spread;
  p.distance = o.distance;
  p.particle_size = o.size;
  p.density = o.density;
  p.dissolve_width = o.width;
  p.fade = o.fade;
  p.turbulence = o.turbulence;
  p.seed = o.seed;
  return p;
}

// The effect for one clip: created and prepared with the first frame (the
// preparation counts as render time), given back to the engine at the end.
struct Renderer {
  Engine& engine;
  Image& photo;
  Image& mask;
  EffectHandle<Korvane::Dispersion> fx;
  Korvane::DispersionParam param;
  Korvane::ImageBuffer in, m, out;

  Renderer(Engine& e, Image& photo_, Image& mask_, const DisperseOptions& o)
      : engine(e), photo(photo_), mask(mask_), param(MakeParam(o)) {}
  // Frame `index` into `frame` (the photo's size); adds the effect's time to *ms.
  int Frame(int index, Image& frame, double* ms) {
    out = frame.Buffer();
    if (!fx) {
      fx = engine.Own<Korvane::Dispersion>(Korvane::EFFECT_DISPERSION);
      if (!fx) return kExitFailure;
      in = photo.Buffer();
      m = mask.Buffer();
      param.input = &in;
      param.mask = &m;
      param.output = &out;
      param.roi = Korvane::Rect{0, 0, photo.width, photo.height};
      const auto t0 = std::chrono::steady_clock::now();
      if (int rc = CheckCode(fx->Init(&param), "dispersion Init")) return rc;
      *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    }
    param.anime_frame_index = index;
    const auto t0 = std::chrono::steady_clock::now();
    const int32_t hr = fx->Process(&param);
    *ms += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    return CheckCode(hr, "dispersion frame " + std::to_string(index));
  }
};

// The whole clip into o.output through the animation writer.
int RenderClip(Engine& engine, Image& photo, Image& mask, const DisperseOptions& o, bool progress,
               double* ms_per_frame, std::string& kind) {
  Renderer r(engine, photo, mask, o);
  const LoopSettings loop{o.frames, o.fps, o.quality, !progress};
  return WriteLoop(o.output, photo.width, photo.height, loop,
                   [&](int index, Image& frame, double* ms) { return r.Frame(index, frame, ms); }, ms_per_frame,
                   kind);
}

int RunDisperse(const DisperseOptions& o) {
  SetQuiet(o.quiet);
  Image photo, mask;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  if (!LoadGray(o.mask, mask, error)) return Fail(error);
  if (mask.width != photo.width || mask.height != photo.height) {
    return Fail("the mask " + o.mask + " is " + std::to_string(mask.width) + "x" + std::to_string(mask.height) +
                " but the photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height));
  }
  if (int rc = CheckOutputPath(o.output, {o.input, o.mask})) return rc;
  if (int rc = CreateOutputFolder(o.output)) return rc;
  bool any = false;
  for (uint8_t v : mask.pixels) any = any || v != 0;
  if (!any && !o.quiet) std::fprintf(stderr, "korvane: warning: the mask is empty: every frame will be the photo\n");

  const auto t0 = std::chrono::steady_clock::now();
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  double ms = 0;
  std::string kind;
  if (int rc = RenderClip(engine, photo, mask, o, !o.quiet, &ms, kind)) return rc;
  const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  Note("wrote %s (%s, %d frames at %d fps, %dx%d, %.0f ms, render %.1f ms a frame)\n", o.output.c_str(),
       kind.c_str(), o.frames, o.fps, photo.width, photo.height, total, ms);
  return 0;
}

RegisterCommand reg(
    "disperse", "Crumble the masked subject of a photo into drifting particles (WebP, GIF or PNG frames)",
    [](CLI::App& sub) {
      auto o = std::make_shared<DisperseOptions>();
      OptionTable t(sub);
      t.Text("photo", o->input,
             "Photo to read (JPEG, PNG, WebP, TIFF, GIF, HEIF/AVIF, JPEG XL; '-' reads standard input)", true);
      t.Text("--mask", o->mask, "Mask image (same size): white parts are the subject that crumbles", true);
      t.Text("-o,--output", o->output,
             "Where to write: NAME.webp, NAME.gif, or a folder for PNG frames (its old frame_*.png are removed)", true);
      t.Number("--direction", o->direction, -360, 360, "degrees", "Wind direction: 0 right, 90 up, 180 left");
      t.Number("--spread", o->spread, 0, 180, "degrees", "How far either side of the wind particles may fly (180: every way)");
      t.Number("--distance", o->distance, 0, 1, "image diagonals", "How far a particle flies");
      t.Number("--size", o->size, 0.5, 32, "pixels", "Particle radius");
      t.Number("--density", o->density, 0, 1, "", "Share of the subject's pixels that become particles");
      t.Number("--width", o->width, 0, 1, "",
               "How much of the subject crumbles at once: 0 a sharp front, 1 everywhere");
      t.Number("--fade", o->fade, 0, 1, "", "How far particles fade and shrink by the end of their flight");
      t.Number("--turbulence", o->turbulence, 0, 1, "", "How much the particles curl on their way");
      t.Number("--seed", o->seed, 0, 4294967295.0, "", "Seed of the particles and the crumbling order");
      t.Number("--frames", o->frames, 1, 1000, "", "Frames in the clip");
      t.Number("--fps", o->fps, 1, 100, "frames a second",
               "Playback speed (GIF rounds a frame to hundredths of a second)");
      t.Flag("--loop", o->loop, "Crumble over the first half and reassemble over the second, so the clip loops");
      t.Number("--quality", o->quality, 1, 100, "", "WebP quality (100 = lossless)");
      t.Flag("-q,--quiet", o->quiet, "Print nothing on success (no warnings, no progress)");
      return std::function<int()>([o] { return RunDisperse(*o); });
    });

// The demo's lighthouse crumbles into the evening wind and comes back.
RegisterDemoStep demo(90, "disperse: the lighthouse crumbles into the wind", [](DemoContext& ctx) {
  Image photo = ctx.scene.photo, mask = ctx.scene.subject;
  // The mask this clip uses, for a newcomer to try the command with.
  if (int rc = ctx.Save("scene-subject.png", mask, -1)) return rc;
  DisperseOptions o;
  o.direction = 10.0f;
  o.spread = 50.0f;
  o.distance = 0.35f;
  o.size = 1.5f;
  o.density = 0.7f;
  o.width = 0.35f;
  o.turbulence = 0.4f;
  o.frames = 48;
  o.fps = 24;
  o.loop = true;
  o.output = ctx.Path("dispersion.webp");
  double ms = 0;
  std::string kind;
  if (int rc = RenderClip(ctx.engine, photo, mask, o, false, &ms, kind)) return rc;
  ctx.Report(o.output, ms);
  // One still in the middle of the crumble, for pages that show no animation.
  o.loop = false;
  o.frames = 9;
  Renderer r(ctx.engine, photo, mask, o);
  Image frame(photo.width, photo.height, 4);
  for (int f = 0; f < o.frames; ++f) {
    if (int rc = r.Frame(f, frame, &ms)) return rc;
    if (f == 4) {
      if (int rc = ctx.Save("dispersion.png", frame, -1)) return rc;
    }
  }
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
