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
// Channels must lie in -32768 .. 32767.
void RgbToHsv(int32_t r, int32_t g, int32_t b, int32_t& h, int32_t& s, int32_t& v);

// HSV to RGB bytes. Hue is taken modulo a full turn; saturation and value are
// clamped to 0 .. kHsvMax first, so every result lies in 0 .. 255.
void HsvToRgb(int32_t h, int32_t s, int32_t v, int32_t& r, int32_t& g, int32_t& b);

// The float forms. RgbToHsvF accepts any finite channels with the same rules
// as the integer form; HsvToRgbF clamps saturation and value to 0 .. 1.
void RgbToHsvF(float r, float g, float b, float& h, float& s, float& v);
void HsvToRgbF(float h, float s, float v, float& r, float& g, float& b);

}  // namespace Korvane
