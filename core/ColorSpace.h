// HSV conversions shared by the effects that tint or re-saturate colours.
//
// Integer scale: hue in hundredths of a degree (0 .. 35999), saturation and
// value in 0 .. 32640 (= 255 x 128), so a value is a byte shifted left by 7
// and the seven extra bits keep the round trip exact: for every 8-bit colour,
// HsvToRgb(RgbToHsv(r, g, b)) gives (r, g, b) back.
//
// Float scale: the same hue in hundredths of a degree (0 .. 36000, float),
// saturation and value in 0 .. 1, channels in 0 .. 1.
#pragma once

#include <cstdint>

namespace Korvane {

constexpr int32_t kHueFull = 36000;      // a full turn, in hundredths of a degree
constexpr int32_t kHueSector = 6000;     // 60 degrees
constexpr int32_t kHsvMax = 32640;       // 255 << 7: full saturation and value

// RGB bytes to HSV. Channels outside 0 .. 255 are accepted (tints may push a
// channel below 0): value is max x 128, saturation is chroma / max and may then
// exceed kHsvMax; a colour whose largest channel is <= 0 has saturation 0.
// Channels must lie in -32768 .. 32767 (the arithmetic stays in 32 bits).
inline void RgbToHsv(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& v);

// HSV to RGB bytes. Hue is taken modulo a full turn; saturation and value are
// clamped to 0 .. kHsvMax first, so every result lies in 0 .. 255.
inline void HsvToRgb(int32_t h, int32_t s, int32_t v, int32_t& r, int32_t& g, int32_t& b);

// The float forms. RgbToHsvF accepts any finite channels with the same rules
// as the integer form; HsvToRgbF clamps saturation and value to 0 .. 1.
void RgbToHsvF(float r, float g, float b, float& h, float& s, float& v);
void HsvToRgbF(float h, float s, float v, float& r, float& g, float& b);

// ---- the integer forms are inline: the colour stages call them per pixel.

namespace color_detail {

// n / d rounded to nearest (halves away from zero), d > 0.
inline int32_t DivRound(int32_t n, int32_t d) { return n >= 0 ? (n + d / 2) / d : -((-n + d / 2) / d); }

}  // namespace color_detail

inline void RgbToHsv(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& v) {
  using color_detail::DivRound;
  const int32_t mx = r > g ? (r > b ? r : b) : (g > b ? g : b);
  const int32_t mn = r < g ? (r < b ? r : b) : (g < b ? g : b);
  const int32_t c = mx - mn;
  v = mx * 128;
  s = mx > 0 ? DivRound(c * kHsvMax, mx) : 0;
  if (c == 0) {
    h = 0;
  } else if (mx == r) {
    h = DivRound(kHueSector * (g - b), c);
    if (h < 0) h += kHueFull;
  } else if (mx == g) {
    h = 2 * kHueSector + DivRound(kHueSector * (b - r), c);
  } else {
    h = 4 * kHueSector + DivRound(kHueSector * (r - g), c);
  }
}

inline void HsvToRgb(int32_t h, int32_t s, int32_t v, int32_t& r, int32_t& g, int32_t& b) {
  if (static_cast<uint32_t>(h) >= static_cast<uint32_t>(kHueFull)) {
    h %= kHueFull;
    if (h < 0) h += kHueFull;
  }
  s = s < 0 ? 0 : (s > kHsvMax ? kHsvMax : s);
  v = v < 0 ? 0 : (v > kHsvMax ? kHsvMax : v);
  // Work on the value scale (x 128) and round back to bytes at the end; the
  // extra bits are what make the round trip exact.
  const int32_t c = (v * s + kHsvMax / 2) / kHsvMax;
  const int32_t sector = h / kHueSector;
  const int32_t f = h - sector * kHueSector;
  const int32_t x = (c * ((sector & 1) ? kHueSector - f : f) + kHueSector / 2) / kHueSector;
  const int32_t m = v - c + 64;  // + 64: rounding of the final shift
  int32_t r7, g7, b7;
  switch (sector) {
    case 0: r7 = c; g7 = x; b7 = 0; break;
    case 1: r7 = x; g7 = c; b7 = 0; break;
    case 2: r7 = 0; g7 = c; b7 = x; break;
    case 3: r7 = 0; g7 = x; b7 = c; break;
    case 4: r7 = x; g7 = 0; b7 = c; break;
    default: r7 = c; g7 = 0; b7 = x; break;
  }
  r = (r7 + m) >> 7;
  g = (g7 + m) >> 7;
  b = (b7 + m) >> 7;
}

}  // namespace Korvane
