// Public header: part of the installed API.
// The glow effect: the bright parts of a photo shine. What lies above a
// brightness threshold is kept, softened at half size with a tone curve and a
// blur, tinted, enlarged again and laid over the photo with one of 29 blend
// modes; a rectangle of the result is written into the caller's image.
//
// Use: CreateEffect(&p, EFFECT_GLOW) gives a Glow*. Call Initialize with the
// photo's size, then Process as often as needed (each call re-reads src), then
// ReleaseBuffer (or DeleteEffect).
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// Blend modes of GlowParam::blend_mode (s is the glow, d the photo).
enum GlowBlendMode : int32_t {
  GLOW_BLEND_NORMAL = 0,
  GLOW_BLEND_DARKEN = 1,
  GLOW_BLEND_MULTIPLY = 2,
  GLOW_BLEND_LINEAR_BURN = 3,
  GLOW_BLEND_LIGHTEN = 4,
  GLOW_BLEND_SCREEN = 5,
  GLOW_BLEND_LINEAR_DODGE = 6,
  GLOW_BLEND_OVERLAY = 7,
  GLOW_BLEND_LINEAR_LIGHT = 8,
  GLOW_BLEND_DIFFERENCE = 9,
  GLOW_BLEND_EXCLUSION = 10,
  GLOW_BLEND_HUE = 11,         // computed in floats from the float highlight
  GLOW_BLEND_SATURATION = 12,  // computed in floats from the float highlight
  GLOW_BLEND_LUMINOSITY = 13,
  GLOW_BLEND_SOFT_LIGHT_PEGTOP = 14,
  GLOW_BLEND_HARD_LIGHT = 15,
  GLOW_BLEND_SOFT_LIGHT = 16,
  GLOW_BLEND_COLOR_BURN = 17,
  GLOW_BLEND_COLOR_DODGE = 18,
  GLOW_BLEND_VIVID_LIGHT = 19,
  GLOW_BLEND_PIN_LIGHT = 20,
  GLOW_BLEND_HARD_MIX = 21,
  GLOW_BLEND_REFLECT = 22,
  GLOW_BLEND_ADDITION = 23,  // the default
  GLOW_BLEND_SUBTRACTION = 24,
  GLOW_BLEND_DIVIDE = 25,
  GLOW_BLEND_DARKER_COLOR = 26,
  GLOW_BLEND_LIGHTER_COLOR = 27,
  GLOW_BLEND_NORMAL_ALT = 28,  // the same as GLOW_BLEND_NORMAL
};

// Settings of one Process call. Out-of-range values are refused with
// E_INVALIDARG (formats with E_NOTIMPL); nothing is clamped silently.
struct GlowParam {
  SmartBuffer src;   // photo, PIXEL_BGRA32, the size given to Initialize
  SmartBuffer mask;  // optional (no data = none): PIXEL_GRAY8 of the photo's size;
                     // weights the highlight, 0 removes it, 255 keeps it
  SmartBuffer dst;   // output, PIXEL_BGRA32, exactly the size of roi
  float glow_intensity = 0.0f;  // 0..1: gain of the softened highlight
  float glow_contrast = 1.0f;   // 1..3: tone curve of the highlight, 2 neutral,
                                // below 2 steeper, above 2 flatter
  float glow_radius = 0.0f;     // 0..max(width, height) / 8: blur radius in pixels
  int32_t hlr_threshold = 0;    // <= 255: brightness subtracted before the glow
  float saturation = 0.0f;      // -1..1: relative saturation change of the glow
  float color_strength = 0.0f;  // >= 0: weight (and saturation) of the tint colour
  float color_hue = 0.0f;       // 0..1: hue of the tint colour, a full turn
  float brightness = 1.0f;      // 0..1: final multiplier of the glow
  int32_t opacity = 255;        // <= 255: opacity of the glow layer (<= 0: dst untouched)
  int32_t blend_mode = GLOW_BLEND_ADDITION;  // GlowBlendMode, 0..28
  Rect roi;                     // rectangle of the photo written to dst; inside the photo
};

class Glow {
 public:
  virtual ~Glow() = default;

  // Allocates the working images for a width x height photo. E_INVALIDARG for
  // a size below 1 (or too large to address); the same size again does nothing.
  virtual int32_t Initialize(int32_t width, int32_t height) = 0;

  // Renders roi of the glowing photo into param.dst. Returns 0 or the code of
  // the first failure. The glow's own contract fixes the order of its checks,
  // which is not the usual pixels-formats-sizes one: E_INVALIDARG for a photo
  // that is not the size given to Initialize (so also before it) or has no
  // pixels, a mask of another size or format, a dst not the size of roi or a
  // roi outside the photo; then E_NOTIMPL for src or dst not PIXEL_BGRA32;
  // then E_INVALIDARG for short rows, settings out of range and a mode
  // outside 0..28; then E_FAIL when Initialize has not prepared the working
  // images (0 x 0 photos); last E_POINTER for a dst without pixels. Photos
  // need at least 2 x 2 pixels. Modes 11 and 12 keep the glow in floats from
  // the tone curve on.
  virtual int32_t Process(const GlowParam& param) = 0;

  // Frees the working images; Initialize must be called again before Process.
  virtual int32_t ReleaseBuffer() = 0;
};

}  // namespace Korvane
