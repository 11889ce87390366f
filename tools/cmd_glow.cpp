// korvane glow: the bright parts of a photo shine, composited with one of 29
// blend modes; or a labelled sheet with one tile per mode.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "PhotoCommand.h"
#include "SheetLayout.h"
#include "ToolSupport.h"
#include "effects/glow/Glow.h"

namespace KorvaneTool {
namespace {

// Mode names in mode order (GlowBlendMode).
const char* const kModeNames[29] = {
    "normal",       "darken",      "multiply",     "linear-burn",       "lighten",    "screen",
    "linear-dodge", "overlay",     "linear-light", "difference",        "exclusion",  "hue",
    "saturation",   "luminosity",  "soft-light-pegtop", "hard-light",   "soft-light", "color-burn",
    "color-dodge",  "vivid-light", "pin-light",    "hard-mix",          "reflect",    "addition",
    "subtraction",  "divide",      "darker-color", "lighter-color",     "normal-alt",
};

// The defaults were chosen by rendering ordinary photos (a white cup on brown
// wood, a launch pad at dusk, a portrait): a threshold of 200 leaves warm
// mid-tones such as wood alone instead of turning them orange-red, and 0.35
// lets a white rim glow without burning it to pure white.
struct GlowOptions {
  PhotoIo io;
  std::string mask;
  std::string roi;
  std::string mode = "screen";
  float intensity = 0.35f;
  float contrast = 2.0f;
  std::optional<float> radius;  // empty: 1.5 % of the longer side
  int threshold = 200;
  float saturation = 0.0f;
  float color_strength = 0.0f;
  float hue = 0.0f;
  float brightness = 1.0f;
  int opacity = 255;
  bool mode_sheet = false;
  int tile_width = 240;
  int columns = 6;
};

// "soft light", "Colour_Dodge", "13" -> a mode number; -1 when unknown.
int ParseMode(const std::string& text) {
  std::string s;
  for (char c : text) s += (c == '_' || c == ' ') ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (size_t at; (at = s.find("colour")) != std::string::npos;) s.replace(at, 6, "color");
  if (!s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
    const int n = s.size() <= 2 ? std::stoi(s) : -1;
    return n <= 28 ? n : -1;
  }
  for (int i = 0; i < 29; ++i) {
    if (s == kModeNames[i]) return i;
  }
  return -1;
}

std::string ModeList() {
  std::string list;
  for (int i = 0; i < 29; ++i) list += (i ? ", " : "") + std::to_string(i) + " " + kModeNames[i];
  return list;
}

bool ParseRoi(const std::string& text, Korvane::Rect& roi) {
  std::istringstream in(text);
  char c1 = 0, c2 = 0, c3 = 0;
  std::string rest;
  if (!(in >> roi.left >> c1 >> roi.top >> c2 >> roi.right >> c3 >> roi.bottom)) return false;
  return c1 == ',' && c2 == ',' && c3 == ',' && !(in >> rest);
}

float AutoRadius(const GlowOptions& o, const Image& photo) {
  const int side = std::max(photo.width, photo.height);
  return o.radius ? *o.radius : std::min(0.015f * side, static_cast<float>(side / 8));
}

// Renders `roi` of the glowing photo into `result` (roi size). 0 or an exit code.
int Render(Korvane::Glow* fx, Image& photo, Image* mask, Image& result, int mode, Korvane::Rect roi,
           const GlowOptions& o, double* ms) {
  Korvane::GlowParam p;
  p.src = Korvane::MakeSmartBufferView(photo.pixels.data(), photo.width, photo.height);
  if (mask) p.mask = Korvane::MakeSmartBufferView(mask->pixels.data(), mask->width, mask->height, Korvane::PIXEL_GRAY8);
  p.dst = Korvane::MakeSmartBufferView(result.pixels.data(), result.width, result.height);
  p.roi = roi;
  p.glow_intensity = o.intensity;
  p.glow_contrast = o.contrast;
  p.glow_radius = AutoRadius(o, photo);
  p.hlr_threshold = o.threshold;
  p.saturation = o.saturation;
  p.color_strength = o.color_strength;
  p.color_hue = o.hue;
  p.brightness = o.brightness;
  p.opacity = o.opacity;
  p.blend_mode = mode;
  // Pixels the glow leaves alone (zero opacity) keep the photo.
  for (int y = 0; y < result.height; ++y)
    std::copy_n(photo.at(roi.left, roi.top + y), static_cast<size_t>(result.width) * 4, result.at(0, y));
  if (int rc = CheckCode(fx->Initialize(photo.width, photo.height), "glow Initialize")) return rc;
  const auto t0 = std::chrono::steady_clock::now();
  const int32_t hr = fx->Process(p);
  if (ms) *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  if (hr < 0) {
    const bool tiny = photo.width < 2 || photo.height < 2;
    return Fail("glow failed: " + CodeText(hr) + (tiny ? " (the photo must be at least 2x2 pixels)" : ""));
  }
  return 0;
}

int RenderGlow(const GlowOptions& o, Image& photo, Rendered& out) {
  const int mode = ParseMode(o.mode);
  std::string error;
  std::unique_ptr<Image> mask;
  if (!o.mask.empty()) {
    mask = std::make_unique<Image>();
    if (!LoadGray(o.mask, *mask, error)) return Fail(error);
    if (mask->width != photo.width || mask->height != photo.height) {
      return Fail("mask " + o.mask + " is " + std::to_string(mask->width) + "x" + std::to_string(mask->height) +
                  ", photo is " + std::to_string(photo.width) + "x" + std::to_string(photo.height) +
                  "; they must match");
    }
  }
  const int side = std::max(photo.width, photo.height);
  if (o.radius && *o.radius > static_cast<float>(side / 8)) {
    return Fail("--radius " + NumberText(*o.radius) + " is more than an eighth of this photo's longer side (" +
                std::to_string(side / 8) + " pixels)");
  }
  Korvane::Rect roi{0, 0, photo.width, photo.height};
  if (!o.roi.empty()) {
    if (!ParseRoi(o.roi, roi)) return Usage("--roi wants L,T,R,B (four integers), got '" + o.roi + "'");
    if (roi.left < 0 || roi.top < 0 || roi.right > photo.width || roi.bottom > photo.height ||
        roi.right <= roi.left || roi.bottom <= roi.top) {
      return Fail("--roi " + o.roi + " must be a non-empty rectangle inside the " + std::to_string(photo.width) +
                  "x" + std::to_string(photo.height) + " photo (right and bottom exclusive)");
    }
  }

  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");
  auto* fx = engine.Create<Korvane::Glow>(Korvane::EFFECT_GLOW);
  if (!fx) return 1;

  if (!o.mode_sheet) {
    Image result(roi.right - roi.left, roi.bottom - roi.top, 4);
    if (int rc = Render(fx, photo, mask.get(), result, mode, roi, o, &out.render_ms)) return rc;
    out.image = std::move(result);
    out.summary = kModeNames[mode];
    return 0;
  }

  // The sheet: every mode on the photo shrunk to the tile width (the mask
  // shrinks with it; the radius is for the full photo, so it shrinks too).
  GlowOptions small = o;
  if (photo.width > o.tile_width) {
    if (o.radius) small.radius = *o.radius * static_cast<float>(o.tile_width) / static_cast<float>(photo.width);
    photo = ScaleToWidth(photo, o.tile_width);
    if (mask) {
      Image m4(mask->width, mask->height, 4);
      for (size_t i = 0; i < mask->pixels.size(); ++i) std::fill_n(&m4.pixels[i * 4], 4, mask->pixels[i]);
      m4 = ScaleToWidth(m4, o.tile_width);
      *mask = Image(m4.width, m4.height, 1);
      for (size_t i = 0; i < mask->pixels.size(); ++i) mask->pixels[i] = m4.pixels[i * 4];
    }
  }
  if (int rc = CheckSheetSize(photo, 29, o.columns)) return rc;
  roi = Korvane::Rect{0, 0, photo.width, photo.height};
  std::vector<Image> tiles;
  std::vector<std::string> labels;
  Progress bar("blend modes", 29);
  for (int m = 0; m < 29; ++m) {
    bar.Step(m);
    Image tile(photo.width, photo.height, 4);
    double ms = 0;
    if (int rc = Render(fx, photo, mask.get(), tile, m, roi, small, &ms)) return rc;
    out.render_ms += ms;
    tiles.push_back(std::move(tile));
    labels.push_back(std::to_string(m) + " " + kModeNames[m]);
  }
  out.image = MakeSheet(tiles, labels, o.columns);
  if (out.image.width == 0) return Fail("cannot lay out the sheet of all 29 blend modes");
  out.summary = "all 29 blend modes";
  return 0;
}

RegisterCommand reg("glow", "Make the bright parts of a photo glow (29 blend modes, or a sheet of all)",
                    [](CLI::App& sub) {
  auto o = std::make_shared<GlowOptions>();
  OptionTable t(sub);
  AddPhotoOptions(t, o->io);
  t.Number("--intensity", o->intensity, 0, 1, "", "Strength of the glow");
  t.Number("--contrast", o->contrast, 1, 3, "", "Tone curve of the glow: 2 neutral, lower harder, higher softer");
  t.Number("--radius", o->radius, 0, 8192, "pixels", "Blur radius, at most an eighth of the photo's longer side",
           "1.5 % of the longer side");
  t.Number("--threshold", o->threshold, -255, 255, "", "Brightness 0..255 a channel must exceed to glow (negative: everything glows)");
  t.Number("--saturation", o->saturation, -1, 1, "", "Saturation change of the glow");
  t.Number("--color-strength", o->color_strength, 0, 100, "", "How strongly the glow is tinted with --hue (above 1 extrapolates)");
  t.Number("--hue", o->hue, 0, 1, "turns", "Tint hue (0 red, 0.17 yellow, 0.33 green, 0.67 blue)");
  t.Number("--brightness", o->brightness, 0, 1, "", "Final brightness of the glow (0: no glow)");
  t.Number("--opacity", o->opacity, 0, 255, "", "Opacity of the glow layer");
  t.Text("--mode", o->mode, "Blend mode, by name or number: " + ModeList());
  sub.get_option("--mode")->check(CLI::Validator(
      [](std::string& text) -> std::string {
        return ParseMode(text) < 0 ? "unknown blend mode '" + text + "'; choose one of: " + ModeList() : std::string();
      },
      ""))->type_name("MODE");
  t.Text("--mask", o->mask, "Gray image of the photo's size: where it is dark, nothing glows");
  t.Text("--roi", o->roi, "Write only this rectangle of the result: L,T,R,B in pixels (right, bottom exclusive)");
  t.Flag("--mode-sheet", o->mode_sheet, "Write every blend mode side by side, labelled, instead of one");
  t.Number("--tile-width", o->tile_width, 16, 4096, "pixels", "With --mode-sheet: shrink the photo to this width first");
  t.Number("--columns", o->columns, 1, 29, "", "With --mode-sheet: tiles per row");
  sub.get_option("--roi")->excludes(sub.get_option("--mode-sheet"));
  return std::function<int()>([o] {
    return RunPhotos(o->io, {o->mask}, [o](Image& photo, Rendered& out) { return RenderGlow(*o, photo, out); });
  });
});

// The sunset scene's sun, glitter and shore lights bloom, once in screen and
// once in a warm tinted addition.
RegisterDemoStep demo(60, "glow: blooming highlights", [](DemoContext& ctx) {
  auto* fx = ctx.engine.Create<Korvane::Glow>(Korvane::EFFECT_GLOW);
  if (!fx) return 1;
  Image photo = ctx.scene.photo;
  Image result(photo.width, photo.height, 4);
  const Korvane::Rect all{0, 0, photo.width, photo.height};
  GlowOptions o;
  o.intensity = 0.45f;
  o.threshold = 170;
  double ms = 0;
  if (int rc = Render(fx, photo, nullptr, result, Korvane::GLOW_BLEND_SCREEN, all, o, &ms)) return rc;
  if (int rc = ctx.Save("glow-screen.png", result, ms)) return rc;
  o.color_strength = 0.5f;
  o.hue = 0.08f;
  o.intensity = 0.3f;
  o.threshold = 190;
  if (int rc = Render(fx, photo, nullptr, result, Korvane::GLOW_BLEND_ADDITION, all, o, &ms)) return rc;
  if (int rc = ctx.Save("glow-warm-addition.png", result, ms)) return rc;
  void* p = fx;
  return CheckCode(ctx.engine.get()->DeleteEffect(&p, Korvane::EFFECT_GLOW), "glow DeleteEffect");
});

}  // namespace
}  // namespace KorvaneTool
