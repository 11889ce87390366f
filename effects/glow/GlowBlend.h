// Compositing of the glow over the photo: 29 blend modes served by a table of
// 38 row tasks ("slots").
//
// Every byte slot composites the glow pixel s over the photo pixel d in 8-bit
// integers:
//   a  = (As * opacity) >> 8          (full alpha at opacity 255 gives 254, so
//                                      the photo always keeps 1/255 of itself)
//   wd = (255 - a) * Ad / 255,  ws = (255 - Ad) * a / 255,  wb = Ad * a / 255
//   Ao = (a + wd) mod 256
//   out = clamp((d * wd + s * ws + wb * F(s, d)) / Ao, 0, 255), out alpha Ao
// with truncating divisions; a <= 0 leaves the output pixel untouched.
//
// Mode -> slot -> F(s, d) (s glow, d photo, 0..255):
//   0 -> 0 normal s            1 -> 1 darken            2 -> 2 multiply
//   3 -> 4 linear burn s+d-255 4 -> 5 lighten           5 -> 6 screen
//   6 -> 8 linear dodge        7 -> 9 overlay           8 -> 11 linear light
//   9 -> 12 difference         10 -> 13 exclusion       11 -> 14 hue (float)
//   12 -> 15 saturation (float) 13 -> 16 luminosity     15 -> 18 hard light
//   16 -> 19 soft light        17 -> 21 colour burn     18 -> 23 colour dodge
//   19 -> 25 vivid light       20 -> 26 pin light       23 -> 30 addition
//   24 -> 32 subtraction       25 -> 34 divide          26 -> 35 darker colour
//   27 -> 36 lighter colour    28 -> 37 normal
//   14 -> 17 soft light (pegtop): (2*s*d + (255 - 2s) * d*d / 255) / 255,
//            written as d * (255*d + 2*s*(255 - d)) / 65025; smooth, no seams.
//   21 -> 27 hard mix: 255 where the vivid light of (s, d) is >= 128, else 0.
//   22 -> 28 reflect: s = 255 gives 255, else min(d*d / (255 - s), 255); a
//            soft dodge that brightens highlights more than shadows.
// Slots no mode reaches, kept as real kernels:
//   3 clamped linear burn max(s+d-255, 0)     7 negation 255 - |255 - s - d|
//   10 clamped linear light clamp(d+2s-255)   20 clamped colour burn (>= 0)
//   22 clamped colour dodge (<= 255)          24 vivid light clamped to 0..255
//   29 clamped addition min(s+d, 255)         31 max(d - s, 0)
//   33 divide clamped to 255
//
// Float modes 11 (hue) and 12 (saturation) read the FLOAT96 glow, whose
// values are 0..1, scaled by 255 onto the byte scale of the mode constants;
// the float glow has no alpha and counts as opaque (As = 255). F is computed
// in floats, rounded, and composited through the same integer frame.
//
// Addressing of dst: with use_sse41 the task writes the result of image pixel
// (x, y) to dst at (x - roi.left, y - roi.top); without it, at (x, y), which
// agrees only for a roi at the origin. Either way a write that would fall
// outside dst is skipped, and the roi must lie inside the glow and the photo.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

constexpr int32_t kGlowBlendModeCount = 29;  // modes 0..28
constexpr int32_t kGlowBlendSlotCount = 38;

// Parameter of every blend row task; the band is a range of rows of `roi`
// (image coordinates).
struct GlowBlendParam {
  const SmartBuffer* glow = nullptr;    // BGRA highlight, image size (byte modes)
  const SmartBuffer* glow_f = nullptr;  // FLOAT96 highlight, values 0..1, image size (modes 11, 12)
  const SmartBuffer* photo = nullptr;   // BGRA photo, image size
  SmartBuffer* dst = nullptr;           // caller's output, roi size
  Rect roi;                             // region of the image composited into dst
  int32_t opacity = 255;
  bool use_sse41 = false;               // the eight-pixel path (simd_level >= 5)
};

// Fills the mode -> slot map and the 38-slot kernel table (row tasks).
// A task answers E_POINTER for missing pixels, E_NOTIMPL for a wrong format
// and E_INVALIDARG for a roi outside the glow or the photo.
void FillGlowBlendTables(int32_t mode_to_slot[kGlowBlendModeCount],
                         ThreadTask kernels[kGlowBlendSlotCount]);

// The slot of a mode, or -1 for a mode outside 0..28.
int32_t GlowBlendSlot(int32_t mode);

// True for the slots that read the float glow (modes 11 and 12).
inline bool IsGlowFloatSlot(int32_t slot) { return slot == 14 || slot == 15; }

// Per-pixel access for checks and tools (BGRA pixels, 4 bytes each).
// F(s, d) of a byte slot for B, G, R, before any clamping.
void GlowBlendFunction(int32_t slot, const uint8_t* s, const uint8_t* d, int32_t f[3]);
// One pixel through a byte slot's per-pixel function. `alpha_mul` takes
// As * Ad / 255 instead of As, `raw` writes F clamped to 0..255 straight to
// the colour channels; the row tasks pass both off.
void GlowBlendPixel(int32_t slot, const uint8_t* s, const uint8_t* d, uint8_t* out,
                    int32_t opacity, bool alpha_mul = false, bool raw = false);
// F of float mode 11 or 12 for a glow colour s (B, G, R on 0..255) over a
// photo pixel d, each channel on 0..255.
void GlowBlendFloatFunction(int32_t mode, const float s[3], const uint8_t* d, float f[3]);

}  // namespace Korvane
