// korvane glitch: colour-channel split of a photo, one type or a labelled
// sheet of all eight.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "SheetLayout.h"
#include "ToolSupport.h"
#include "effects/glitch/Glitch.h"

namespace KorvaneTool {
namespace {

struct GlitchOptions {
  std::string input;
  std::string output;
  int type = 0;
  int shift_x = 30;
  int shift_y = 0;
  int radius = 40;
  int angle = 0;
  SheetOptions sheet;
  int quality = 92;
};

const char* const kTypeNames[8] = {
    "0 blue/green split", "1 blue vs green+red", "2 green/red split",  "3 green vs blue+red",
    "4 red vs blue+green", "5 blue/red split",   "6 three on a circle", "7 blue/red opposed",
};

// Which option is outside the range the effect accepts, for the error line.
std::string RangeHint(const GlitchOptions& o) {
  auto out = [](const char* name, int v, int lo, int hi) {
    return v < lo || v > hi ? std::string(" (") + name + " " + std::to_string(v) + " is outside " +
                                  std::to_string(lo) + ".." + std::to_string(hi) + ")"
                            : std::string();
  };
  return out("--shift-x", o.shift_x, -100, 100) + out("--shift-y", o.shift_y, -100, 100) +
         out("--radius", o.radius, 0, 100) + out("--angle", o.angle, -100, 100);
}

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
  if (hr < 0) return Fail("glitch failed: " + CodeText(hr) + RangeHint(o));
  return 0;
}

int RunGlitch(const GlitchOptions& o) {
  Image photo;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  if (int rc = CheckOutputPath(o.output, {o.input})) return rc;
  if (o.sheet.on) photo = SheetPhoto(photo, o.sheet);

  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  auto* fx = engine.Create<Korvane::Glitch>(Korvane::EFFECT_GLITCH);
  if (!fx) return 1;

  Image result(photo.width, photo.height, 4);
  if (!o.sheet.on) {
    double ms = 0;
    if (int rc = Render(fx, photo, result, o.type, o, &ms)) return rc;
    if (!SaveImage(o.output, result, o.quality, error)) return Fail(error);
    std::printf("wrote %s (type %d, %dx%d, %.1f ms)\n", o.output.c_str(), o.type, photo.width, photo.height, ms);
    return 0;
  }
  std::vector<Image> tiles;
  for (int type = 0; type < 8; ++type) {
    if (int rc = Render(fx, photo, result, type, o, nullptr)) return rc;
    tiles.push_back(result);
  }
  return WriteSheet(o.output, tiles, std::vector<std::string>(kTypeNames, kTypeNames + 8), o.sheet.columns, o.quality,
                    "all 8 types");
}

RegisterCommand reg("glitch", "Split the colour channels of a photo (eight types, or a sheet of all)", [](CLI::App& sub) {
  auto o = std::make_shared<GlitchOptions>();
  sub.add_option("photo", o->input, "Photo to read (PNG or JPEG)")->required();
  sub.add_option("-o,--output", o->output, "File to write (.png, .jpg)")->required();
  sub.add_option("--type", o->type,
                 "0 blue/green split, 1 blue vs green+red, 2 green/red split, 3 green vs blue+red, "
                 "4 red vs blue+green, 5 blue/red split, 6 three channels on a circle, 7 blue/red opposed "
                 "on a circle")
      ->check(CLI::Range(0, 7))
      ->capture_default_str();
  sub.add_option("--shift-x", o->shift_x, "Horizontal shift of types 0-5, -100..100 (100 = a tenth of the width)")
      ->capture_default_str();
  sub.add_option("--shift-y", o->shift_y, "Vertical shift of types 0-5, -100..100 (also in tenths of the width)")
      ->capture_default_str();
  sub.add_option("--radius", o->radius, "Circle radius of types 6 and 7, 0..100 (100 = a tenth of the width)")
      ->capture_default_str();
  sub.add_option("--angle", o->angle, "Circle turn of types 6 and 7, -100..100 (100 = half a turn)")
      ->capture_default_str();
  AddSheetOptions(sub, "--type-sheet", "all eight types", 8, &o->sheet);
  sub.add_option("--quality", o->quality, "JPEG quality")->check(CLI::Range(1, 100))->capture_default_str();
  return std::function<int()>([o] { return RunGlitch(*o); });
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
