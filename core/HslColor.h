// HSL conversions for the colours of light (bokeh discs).
//
// Scale: hue in hundredths of a degree (0 .. 35999), saturation and
// lightness in 0 .. 32640 (= 255 x 128). Lightness is (max + min) / 2 of the
// channels, so a light point's brightness reads the same whatever its hue.
// These run once per pasted point, not per pixel.
#pragma once

#include <cmath>
#include <cstdint>

#include "core/ColorSpace.h"

namespace Korvane {

constexpr int32_t kHslMax = 32640;

// 8-bit channels to HSL. Grey (max == min) has hue 0 and saturation 0.
inline void RgbToHsl(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& l) {
  const int32_t mx = r > g ? (r > b ? r : b) : (g > b ? g : b);
  const int32_t mn = r < g ? (r < b ? r : b) : (g < b ? g : b);
  const int32_t c = mx - mn;
  const int32_t sum = mx + mn;
  l = sum * 64;
  if (c == 0) {
    h = 0;
    s = 0;
    return;
  }
  const int32_t span = sum <= 255 ? sum : 510 - sum;  // 1 - |2L - 1|, in 255ths x 2
  s = (c * kHslMax + span / 2) / span;
  if (mx == r) {
    h = (kHueSector * (g - b) + (g >= b ? c / 2 : -c / 2)) / c;
    if (h < 0) h += kHueFull;
  } else if (mx == g) {
    h = 2 * kHueSector + (kHueSector * (b - r) + (b >= r ? c / 2 : -c / 2)) / c;
  } else {
    h = 4 * kHueSector + (kHueSector * (r - g) + (r >= g ? c / 2 : -c / 2)) / c;
  }
  if (h >= kHueFull) h -= kHueFull;
}

// HSL to 8-bit channels. A negative hue means no hue (grey at the
// lightness); a hue of a full turn or more is taken modulo a turn.
// Saturation and lightness are clamped to 0 .. kHslMax.
inline void HslToRgb(int32_t h, int32_t s, int32_t l, int32_t& r, int32_t& g, int32_t& b) {
  const float lf = static_cast<float>(l < 0 ? 0 : (l > kHslMax ? kHslMax : l)) / kHslMax;
  float sf = static_cast<float>(s < 0 ? 0 : (s > kHslMax ? kHslMax : s)) / kHslMax;
  if (h < 0) sf = 0.0f;
  const float c = (1.0f - std::fabs(2.0f * lf - 1.0f)) * sf;
  const int32_t hh = h < 0 ? 0 : h % kHueFull;
  const int32_t sector = hh / kHueSector;
  const float f = static_cast<float>(hh - sector * kHueSector) / kHueSector;
  const float x = c * ((sector & 1) ? 1.0f - f : f);
  float rf, gf, bf;
  color_detail::FromSector(sector, c, x, rf, gf, bf);
  const float m = lf - c * 0.5f;
  auto byte = [](float v) {
    const int32_t i = static_cast<int32_t>(v * 255.0f + 0.5f);
    return i < 0 ? 0 : (i > 255 ? 255 : i);
  };
  r = byte(rf + m);
  g = byte(gf + m);
  b = byte(bf + m);
}

}  // namespace Korvane
