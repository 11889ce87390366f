// korvane focus-blur: shallow depth of field from a photo and a depth guide.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "Command.h"
#include "PhotoCommand.h"
#include "ToolSupport.h"
#include "effects/focus_blur/FocusBlur.h"

namespace KorvaneTool {
namespace {

struct FocusBlurOptions {
  PhotoIo io;
  std::string guide;
  int level = Korvane::FocusBlurParam().blur_level;
  int focus = Korvane::FocusBlurParam().focus_value;
  int range = Korvane::FocusBlurParam().focus_range;
};

// Without a guide: 255 in the middle of the picture falling to 0 in the
// corners, so the default focus keeps the centre sharp and blurs outwards.
Image RadialGuide(int width, int height) {
  Image g(width, height, 1);
  const double cx = (width - 1) / 2.0, cy = (height - 1) / 2.0;
  const double corner = std::hypot(cx, cy) + 1e-9;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const double d = std::hypot(x - cx, y - cy) / corner;
      *g.at(x, y) = static_cast<uint8_t>(std::lround(255.0 * (1.0 - d)));
    }
  return g;
}

// Renders `photo` with `guide` (same size) into `result`. Returns 0 or an exit code.
int Render(Korvane::FocusBlur* fx, Image& photo, Image& guide, Image& result, const FocusBlurOptions& o,
           double* ms) {
  Korvane::FocusBlurParam p;
  p.input = photo.Buffer();
  p.mask = guide.Buffer();
  p.output = result.Buffer();
  p.blur_level = o.level;
  p.focus_value = o.focus;
  p.focus_range = o.range;
  if (int rc = CheckCode(fx->Init(&p), "focus blur Init")) return rc;
  const auto t0 = std::chrono::steady_clock::now();
  const int32_t hr = fx->Process(&p);
  if (ms) *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  if (int rc = CheckCode(hr, "focus blur")) return rc;
  return CheckCode(fx->Uninit(), "focus blur Uninit");
}

int RenderFocusBlur(const FocusBlurOptions& o, Image& photo, Rendered& out) {
  std::string error;
  Image guide;
  if (o.guide.empty()) {
    guide = RadialGuide(photo.width, photo.height);
  } else {
    if (!LoadGray(o.guide, guide, error)) return Fail(error);
    if (guide.width != photo.width || guide.height != photo.height) {
      return Fail("guide " + o.guide + " is " + std::to_string(guide.width) + "x" + std::to_string(guide.height) +
                  " but the photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height) + ": " +
                  CodeText(E_INVALIDARG));
    }
  }
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  auto* fx = engine.Create<Korvane::FocusBlur>(Korvane::EFFECT_FOCUS_BLUR);
  if (!fx) return 1;
  Image result(photo.width, photo.height, 4);
  if (int rc = Render(fx, photo, guide, result, o, &out.render_ms)) return rc;
  out.image = std::move(result);
  out.summary = "level " + std::to_string(o.level) + ", focus " + std::to_string(o.focus) + ", range " +
                std::to_string(o.range) + ", " + (o.guide.empty() ? "radial" : "given") + " guide";
  return 0;
}

RegisterCommand reg("focus-blur", "Blur a photo by depth: sharp at the focus value, softer further away",
                    [](CLI::App& sub) {
  auto o = std::make_shared<FocusBlurOptions>();
  OptionTable t(sub);
  AddPhotoOptions(t, o->io);
  t.Text("--guide", o->guide,
         "Depth or focus guide (read as gray, same size as the photo). Without it a radial guide is used: "
         "255 in the centre falling to 0 in the corners, so the centre stays sharp");
  t.Number("--level", o->level, 0, 100, "fiftieths of a percent of the shorter side",
           "Blur strength: the strong blur's sigma (100 = 2 %); the weak blur has a sixth of it");
  t.Number("--focus", o->focus, 0, 255, "", "Guide value that is in focus");
  t.Number("--range", o->range, 0, 255, "",
           "Guide distance still left sharp; beyond it pixels blend towards the weak and then the strong blur "
           "(fully strong from a distance of 139)");
  return std::function<int()>([o] {
    return RunPhotos(o->io, {o->guide},
                     [o](Image& photo, Rendered& out) { return RenderFocusBlur(*o, photo, out); });
  });
});

// The demo focuses on the lighthouse: the sea and the sky melt away behind it.
RegisterDemoStep demo(10, "focus-blur: depth of field on the lighthouse", [](DemoContext& ctx) {
  auto* fx = ctx.engine.Create<Korvane::FocusBlur>(Korvane::EFFECT_FOCUS_BLUR);
  if (!fx) return 1;
  Image photo = ctx.scene.photo;
  Image guide = ctx.scene.depth;
  Image result(photo.width, photo.height, 4);
  FocusBlurOptions o;
  o.level = 100;
  o.focus = ctx.scene.subject_depth;
  o.range = 10;
  double ms = 0;
  if (int rc = Render(fx, photo, guide, result, o, &ms)) return rc;
  if (int rc = ctx.Save("focus-blur.png", result, ms)) return rc;
  void* p = fx;
  return CheckCode(ctx.engine.get()->DeleteEffect(&p, Korvane::EFFECT_FOCUS_BLUR), "focus blur DeleteEffect");
});

}  // namespace
}  // namespace KorvaneTool
