// HSV conversions shared by the effects that tint or re-saturate colours.
//
// Integer scale: hue in hundredths of a degree (0 .. 35999), saturation and
// value in 0 .. 32640 (= 255 x 128), so a value is a byte shifted left by 7
// and the seven extra bits keep the round trip exact: for every 8-bit colour,
// HsvToRgb(RgbToHsv(r, g, b)) gives (r, g, b) back.
//
// Float scale: the same hue in hundredths of a degree (0 .. 36000, float),
// saturation and value in 0 .. 1, channels in 0 .. 1.
//
// Everything is inline: the colour stages of the effects call these per pixel.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

namespace Korvane {

constexpr int32_t kHueFull = 36000;      // a full turn, in hundredths of a degree
constexpr int32_t kHueSector = 6000;     // 60 degrees
constexpr int32_t kHsvMax = 32640;       // 255 << 7: full saturation and value

// RGB to HSV. Channels outside 0 .. 255 are accepted (tints may push a
// channel below 0): value is max x 128, saturation is chroma / max and may then
// exceed kHsvMax; a colour whose largest channel is <= 0 has saturation 0.
// Channels must lie in -32768 .. 32767 (the arithmetic stays in 32 bits).
inline void RgbToHsv(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& v);

// HSV to RGB bytes. Hue is taken modulo a full turn; saturation and value are
// clamped to 0 .. kHsvMax first, so every result lies in 0 .. 255.
inline void HsvToRgb(int32_t h, int32_t s, int32_t v, int32_t& r, int32_t& g, int32_t& b);

// The float forms. RgbToHsvF accepts any finite channels with the same rules
// as the integer form; HsvToRgbF clamps saturation and value to 0 .. 1.
inline void RgbToHsvF(float r, float g, float b, float& h, float& s, float& v);
inline void HsvToRgbF(float h, float s, float v, float& r, float& g, float& b);

// ---------------------------------------------------------------------------

namespace color_detail {

// ceil(2^40 / d) for d = 1 .. 255 (entry 0 unused): floor(n * m >> 40) is
// n / d exactly for every n below 2^32, so the 8-bit cases divide by a
// multiplication.
extern const std::array<uint64_t, 256> kReciprocal40;

// n / d rounded to nearest (halves away from zero), d > 0.
inline int32_t DivRound(int32_t n, int32_t d) { return n >= 0 ? (n + d / 2) / d : -((-n + d / 2) / d); }

// The same for d <= 255 and |n| below 2^31 - 128, through the table.
inline int32_t DivRound8(int32_t n, int32_t d) {
  const uint64_t m = kReciprocal40[static_cast<uint32_t>(d)];
  const int32_t half = d >> 1;
  return n >= 0 ? static_cast<int32_t>((static_cast<uint64_t>(n + half) * m) >> 40)
                : -static_cast<int32_t>((static_cast<uint64_t>(-n + half) * m) >> 40);
}

template <int32_t (*Div)(int32_t, int32_t)>
inline void RgbToHsvWith(int32_t r, int32_t g, int32_t b, int32_t mx, int32_t mn, int32_t& h, int32_t& s,
                         int32_t& v) {
  const int32_t c = mx - mn;
  v = mx * 128;
  s = mx > 0 ? Div(c * kHsvMax, mx) : 0;
  if (c == 0) {
    h = 0;
  } else if (mx == r) {
    h = Div(kHueSector * (g - b), c);
    if (h < 0) h += kHueFull;
  } else if (mx == g) {
    h = 2 * kHueSector + Div(kHueSector * (b - r), c);
  } else {
    h = 4 * kHueSector + Div(kHueSector * (r - g), c);
  }
}

// Places chroma c, the intermediate x and 0 into (r, g, b) by hue sector.
template <class T>
inline void FromSector(int32_t sector, T c, T x, T& r, T& g, T& b) {
  switch (sector) {
    case 0: r = c; g = x; b = 0; break;
    case 1: r = x; g = c; b = 0; break;
    case 2: r = 0; g = c; b = x; break;
    case 3: r = 0; g = x; b = c; break;
    case 4: r = x; g = 0; b = c; break;
    default: r = c; g = 0; b = x; break;
  }
}

}  // namespace color_detail

inline void RgbToHsv(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& v) {
  const int32_t mx = r > g ? (r > b ? r : b) : (g > b ? g : b);
  const int32_t mn = r < g ? (r < b ? r : b) : (g < b ? g : b);
  if (mn >= 0 && mx <= 255) {
    color_detail::RgbToHsvWith<color_detail::DivRound8>(r, g, b, mx, mn, h, s, v);
  } else {
    color_detail::RgbToHsvWith<color_detail::DivRound>(r, g, b, mx, mn, h, s, v);
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
  color_detail::FromSector(sector, c, x, r7, g7, b7);
  r = (r7 + m) >> 7;
  g = (g7 + m) >> 7;
  b = (b7 + m) >> 7;
}

inline void RgbToHsvF(float r, float g, float b, float& h, float& s, float& v) {
  const float mx = r > g ? (r > b ? r : b) : (g > b ? g : b);
  const float mn = r < g ? (r < b ? r : b) : (g < b ? g : b);
  const float c = mx - mn;
  v = mx;
  s = mx > 0.0f ? c / mx : 0.0f;
  if (!(c > 0.0f)) {
    h = 0.0f;
    return;
  }
  const float k = kHueSector / c;
  float hue;
  if (mx == r) {
    hue = (g - b) * k;
    if (hue < 0.0f) hue += kHueFull;
  } else if (mx == g) {
    hue = 2.0f * kHueSector + (b - r) * k;
  } else {
    hue = 4.0f * kHueSector + (r - g) * k;
  }
  h = hue >= kHueFull ? hue - kHueFull : hue;
}

inline void HsvToRgbF(float h, float s, float v, float& r, float& g, float& b) {
  if (!(h >= 0.0f && h < kHueFull)) h = std::isfinite(h) ? h - std::floor(h / kHueFull) * kHueFull : 0.0f;
  s = s > 0.0f ? (s < 1.0f ? s : 1.0f) : 0.0f;
  v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
  const float c = v * s;
  const float hp = h * (1.0f / kHueSector);
  int32_t sector = static_cast<int32_t>(hp);
  sector = sector < 0 ? 0 : (sector > 5 ? 5 : sector);
  const float f = hp - static_cast<float>(sector);
  const float x = c * ((sector & 1) ? 1.0f - f : f);
  color_detail::FromSector(sector, c, x, r, g, b);
  const float m = v - c;
  r += m;
  g += m;
  b += m;
}

}  // namespace Korvane
