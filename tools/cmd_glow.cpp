// korvane glow: the bright parts of a photo shine, composited with one of 29
// blend modes; or a labelled sheet with one tile per mode.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
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

struct GlowOptions {
  std::string input;
  std::string output;
  std::string mask;
  std::string roi;
  std::string mode = "screen";
  float intensity = 0.4f;
  float contrast = 2.0f;
  float radius = -1.0f;  // negative: 1.5 % of the longer side
  int threshold = 160;
  float saturation = 0.0f;
  float color_strength = 0.0f;
  float hue = 0.0f;
  float brightness = 1.0f;
  int opacity = 255;
  bool mode_sheet = false;
  int tile_width = 240;
  int columns = 6;
  int quality = 92;
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
  return o.radius >= 0.0f ? o.radius : std::min(0.015f * side, static_cast<float>(side / 8));
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
    std::string hint;
    const int side = std::max(photo.width, photo.height);
    if (p.glow_radius > static_cast<float>(side / 8)) {
      hint = " (--radius is at most " + std::to_string(side / 8) + " for this photo)";
    } else if (photo.width < 2 || photo.height < 2) {
      hint = " (the photo must be at least 2x2 pixels)";
    }
    return Fail("glow failed: " + CodeText(hr) + hint);
  }
  return 0;
}

int RunGlow(const GlowOptions& o) {
  const int mode = ParseMode(o.mode);
  if (mode < 0) return Fail("unknown blend mode '" + o.mode + "'; choose one of: " + ModeList());
  Image photo;
  std::string error;
  if (!LoadImage(o.input, photo, error)) return Fail(error);
  if (int rc = CheckOutputPath(o.output, {o.input, o.mask})) return rc;
  std::unique_ptr<Image> mask;
  if (!o.mask.empty()) {
    mask = std::make_unique<Image>();
    if (!LoadGray(o.mask, *mask, error)) return Fail(error);
    if (mask->width != photo.width || mask->height != photo.height) {
      return Fail("mask is " + std::to_string(mask->width) + "x" + std::to_string(mask->height) + ", photo is " +
                  std::to_string(photo.width) + "x" + std::to_string(photo.height) + "; they must match");
    }
  }
  Korvane::Rect roi{0, 0, photo.width, photo.height};
  if (!o.roi.empty()) {
    if (o.mode_sheet) return Fail("--roi and --mode-sheet cannot be combined");
    if (!ParseRoi(o.roi, roi)) return Fail("--roi wants L,T,R,B (four integers), got '" + o.roi + "'");
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
    double ms = 0;
    if (int rc = Render(fx, photo, mask.get(), result, mode, roi, o, &ms)) return rc;
    if (!SaveImage(o.output, result, o.quality, error)) return Fail(error);
    std::printf("wrote %s (%s, %dx%d, %.1f ms)\n", o.output.c_str(), kModeNames[mode], result.width, result.height,
                ms);
    return 0;
  }

  // The sheet: every mode on the photo shrunk to the tile width (the mask
  // shrinks with it).
  if (photo.width > o.tile_width) {
    photo = ScaleToWidth(photo, o.tile_width);
    if (mask) {
      Image m4(mask->width, mask->height, 4);
      for (size_t i = 0; i < mask->pixels.size(); ++i) std::fill_n(&m4.pixels[i * 4], 4, mask->pixels[i]);
      m4 = ScaleToWidth(m4, o.tile_width);
      *mask = Image(m4.width, m4.height, 1);
      for (size_t i = 0; i < mask->pixels.size(); ++i) mask->pixels[i] = m4.pixels[i * 4];
    }
  }
  roi = Korvane::Rect{0, 0, photo.width, photo.height};
  std::vector<Image> tiles;
  std::vector<std::string> labels;
  for (int m = 0; m < 29; ++m) {
    Image tile(photo.width, photo.height, 4);
    if (int rc = Render(fx, photo, mask.get(), tile, m, roi, o, nullptr)) return rc;
    tiles.push_back(std::move(tile));
    labels.push_back(std::to_string(m) + " " + kModeNames[m]);
  }
  const Image sheet = MakeSheet(tiles, labels, o.columns);
  if (!SaveImage(o.output, sheet, o.quality, error)) return Fail(error);
  std::printf("wrote %s (all 29 blend modes, %dx%d)\n", o.output.c_str(), sheet.width, sheet.height);
  return 0;
}

RegisterCommand reg("glow", "Make the bright parts of a photo glow (29 blend modes, or a sheet of all)",
                    [](CLI::App& sub) {
  auto o = std::make_shared<GlowOptions>();
  sub.add_option("photo", o->input, "Photo to read (PNG or JPEG)")->required();
  sub.add_option("-o,--output", o->output, "File to write (.png, .jpg)")->required();
  sub.add_option("--intensity", o->intensity, "Strength of the glow, 0..1")
      ->check(CLI::Range(0.0f, 1.0f))->capture_default_str();
  sub.add_option("--contrast", o->contrast, "Tone curve of the glow, 1..3: 2 neutral, lower harder, higher softer")
      ->check(CLI::Range(1.0f, 3.0f))->capture_default_str();
  sub.add_option("--radius", o->radius,
                 "Blur radius in pixels, up to an eighth of the longer side (default: 1.5 % of it)");
  sub.add_option("--threshold", o->threshold, "Brightness a channel must exceed to glow, 0..255 (negative: everything glows)")
      ->check(CLI::Range(-255, 255))->capture_default_str();
  sub.add_option("--saturation", o->saturation, "Saturation change of the glow, -1..1")
      ->check(CLI::Range(-1.0f, 1.0f))->capture_default_str();
  sub.add_option("--color-strength", o->color_strength, "How strongly the glow is tinted with --hue, 0..1 (more extrapolates)")
      ->check(CLI::Range(0.0f, 100.0f))->capture_default_str();
  sub.add_option("--hue", o->hue, "Tint hue as a fraction of a turn, 0..1 (0 red, 0.17 yellow, 0.33 green, 0.67 blue)")
      ->check(CLI::Range(0.0f, 1.0f))->capture_default_str();
  sub.add_option("--brightness", o->brightness, "Final brightness of the glow, 0..1 (0: no glow)")
      ->check(CLI::Range(0.0f, 1.0f))->capture_default_str();
  sub.add_option("--opacity", o->opacity, "Opacity of the glow layer, 0..255")
      ->check(CLI::Range(0, 255))->capture_default_str();
  sub.add_option("--mode", o->mode, "Blend mode, by name or number: " + ModeList())->capture_default_str();
  sub.add_option("--mask", o->mask, "Gray image of the photo's size: where it is dark, nothing glows");
  sub.add_option("--roi", o->roi, "Write only this rectangle of the result: L,T,R,B (right, bottom exclusive)");
  sub.add_flag("--mode-sheet", o->mode_sheet, "Write every blend mode side by side, labelled, instead of one");
  sub.add_option("--tile-width", o->tile_width, "With --mode-sheet: shrink the photo to this width first")
      ->check(CLI::Range(16, 4096))->capture_default_str();
  sub.add_option("--columns", o->columns, "With --mode-sheet: tiles per row")
      ->check(CLI::Range(1, 29))->capture_default_str();
  sub.add_option("--quality", o->quality, "JPEG quality")->check(CLI::Range(1, 100))->capture_default_str();
  return std::function<int()>([o] { return RunGlow(*o); });
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
