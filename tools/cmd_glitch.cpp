// korvane glitch: colour-channel split of a photo, one type or a labelled
// sheet of all eight.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "PhotoCommand.h"
#include "SheetLayout.h"
#include "ToolSupport.h"
#include "effects/glitch/Glitch.h"

namespace KorvaneTool {
namespace {

struct GlitchOptions {
  PhotoIo io;
  int type = 0;
  int shift_x = 30;
  int shift_y = 0;
  int radius = 40;
  int angle = 0;
  SheetOptions sheet;
};

const char* const kTypeNames[8] = {
    "0 blue/green split", "1 blue vs green+red", "2 green/red split",  "3 green vs blue+red",
    "4 red vs blue+green", "5 blue/red split",   "6 three on a circle", "7 blue/red opposed",
};

// Renders one type of `photo` into `result` (same size). 0 or an exit code.
int Render(Korvane::Glitch* fx, Image& photo, Image& result, int type, const GlitchOptions& o,
           double* ms) {
  Korvane::ImageBuffer in = photo.Buffer(), out = result.Buffer();
  Korvane::GlitchImages images{&in, &out};
  if (int rc = CheckCode(fx->SetImages(&images), "glitch SetImages")) return rc;
  Korvane::GlitchParam p;
  p.input = &in;
  p.output = &out;
  p.glitch_type = type;
  p.shift_x = o.shift_x;
  p.shift_y = o.shift_y;
  p.radius = o.radius;
  p.angle = o.angle;
  const auto t0 = std::chrono::steady_clock::now();
  const int32_t hr = fx->Process(&p);
  if (ms) *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  if (hr < 0) return Fail("glitch failed: " + CodeText(hr));
  return 0;
}

int RenderGlitch(const GlitchOptions& o, Image& photo, Rendered& out) {
  if (o.sheet.on) {
    photo = SheetPhoto(photo, o.sheet);
    if (int rc = CheckSheetSize(photo, 8, o.sheet.columns)) return rc;
  }
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  auto* fx = engine.Create<Korvane::Glitch>(Korvane::EFFECT_GLITCH);
  if (!fx) return 1;

  Image result(photo.width, photo.height, 4);
  if (!o.sheet.on) {
    if (int rc = Render(fx, photo, result, o.type, o, &out.render_ms)) return rc;
    out.image = std::move(result);
    out.summary = "type " + std::to_string(o.type);
    return 0;
  }
  std::vector<Image> tiles;
  Progress bar("types", 8);
  for (int type = 0; type < 8; ++type) {
    bar.Step(type);
    double ms = 0;
    if (int rc = Render(fx, photo, result, type, o, &ms)) return rc;
    out.render_ms += ms;
    tiles.push_back(result);
  }
  out.image = MakeSheet(tiles, std::vector<std::string>(kTypeNames, kTypeNames + 8), o.sheet.columns);
  if (out.image.width == 0) return Fail("cannot lay out the sheet of all 8 types");
  out.summary = "all 8 types";
  return 0;
}

RegisterCommand reg("glitch", "Split the colour channels of a photo (eight types, or a sheet of all)", [](CLI::App& sub) {
  auto o = std::make_shared<GlitchOptions>();
  OptionTable t(sub);
  // One-pixel colour fringes are the point: JPEG keeps full colour resolution.
  AddPhotoOptions(t, o->io, "444");
  t.Number("--type", o->type, 0, 7, "",
           "0 blue/green split, 1 blue vs green+red, 2 green/red split, 3 green vs blue+red, "
           "4 red vs blue+green, 5 blue/red split, 6 three channels on a circle, 7 blue/red opposed on a circle");
  t.Number("--shift-x", o->shift_x, -100, 100, "thousandths of the width", "Horizontal shift of types 0-5");
  t.Number("--shift-y", o->shift_y, -100, 100, "thousandths of the width", "Vertical shift of types 0-5");
  t.Number("--radius", o->radius, 0, 100, "thousandths of the width", "Circle radius of types 6 and 7");
  t.Number("--angle", o->angle, -100, 100, "hundredths of half a turn", "Circle turn of types 6 and 7");
  AddSheetOptions(t, "--type-sheet", "all eight types", 8, &o->sheet);
  return std::function<int()>([o] {
    return RunPhotos(o->io, {}, [o](Image& photo, Rendered& out) { return RenderGlitch(*o, photo, out); });
  });
});

// The demo shows the two kinds: a straight split and the three-way circle.
RegisterDemoStep demo(40, "glitch: colour-channel split", [](DemoContext& ctx) {
  auto* fx = ctx.engine.Create<Korvane::Glitch>(Korvane::EFFECT_GLITCH);
  if (!fx) return 1;
  Image photo = ctx.scene.photo;
  Image result(photo.width, photo.height, 4);
  GlitchOptions o;
  o.shift_x = 40;
  o.shift_y = 10;
  o.radius = 50;
  o.angle = 20;
  double ms = 0;
  if (int rc = Render(fx, photo, result, 0, o, &ms)) return rc;
  if (int rc = ctx.Save("glitch-split.png", result, ms)) return rc;
  if (int rc = Render(fx, photo, result, 6, o, &ms)) return rc;
  if (int rc = ctx.Save("glitch-circle.png", result, ms)) return rc;
  void* p = fx;
  return CheckCode(ctx.engine.get()->DeleteEffect(&p, Korvane::EFFECT_GLITCH), "glitch DeleteEffect");
});

}  // namespace
}  // namespace KorvaneTool
