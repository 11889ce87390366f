// Public header: part of the installed API.
// Glitch: a colour-channel split. The blue, green and red channels of a BGRA32
// photo are displaced against one another, each by its own offset, and
// recombined with the photo's alpha. Create it with type code EFFECT_GLITCH.
//
//   Korvane::GlitchImages images{&photo, &result};
//   glitch->SetImages(&images);              // allocates the channel planes
//   Korvane::GlitchParam p{&photo, &result};
//   p.glitch_type = 6; p.radius = 60; p.angle = 25;
//   glitch->Process(&p);                     // renders into result
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// The images the effect prepares for. Both BGRA32 and of one size.
struct GlitchImages {
  ImageBuffer* input = nullptr;   // read only
  ImageBuffer* output = nullptr;  // written by Process
};

// Which channel moves which way. X, Y, R below are shift_x, shift_y and
// radius converted to pixels; "polar" places a channel on a circle of radius
// R around its unshifted position, turned by `angle`.
enum GlitchType : int32_t {
  GLITCH_SPLIT_BG = 0,        // blue (-X,-Y), green (X,Y), red still
  GLITCH_SPLIT_B_GR = 1,      // blue (-X,-Y), green and red (X,Y)
  GLITCH_SPLIT_GR = 2,        // blue still, green (-X,-Y), red (X,Y)
  GLITCH_SPLIT_G_BR = 3,      // green (-X,-Y), blue and red (X,Y)
  GLITCH_SPLIT_R_BG = 4,      // red (-X,-Y), blue and green (X,Y)
  GLITCH_SPLIT_BR = 5,        // blue (X,Y), green still, red (-X,-Y)
  GLITCH_CIRCLE_THREE = 6,    // blue, green, red a third of a turn apart
  GLITCH_CIRCLE_OPPOSED = 7,  // blue and red opposite each other, green still
};

struct GlitchParam {
  ImageBuffer* input = nullptr;   // BGRA32, the size given to SetImages
  ImageBuffer* output = nullptr;  // BGRA32, same size; may be the input itself
  int32_t glitch_type = 0;        // 0..7 (GlitchType); any other value renders nothing and returns 0
  int32_t shift_x = 0;            // -100..100: tenths of a percent of the width (100 = a tenth of it)
  int32_t shift_y = 0;            // -100..100: also tenths of a percent of the *width*
  int32_t radius = 0;             // 0..100: circle radius of types 6 and 7, tenths of a percent of the width
  int32_t angle = 0;              // -100..100: turn of types 6 and 7, hundredths of a half turn
};

class Glitch {
 public:
  virtual ~Glitch() = default;

  // Checks the images and allocates one 8-bit plane per colour channel at
  // their size. Checked in the order every effect keeps: E_POINTER for a
  // missing image or pixel pointer, E_NOTIMPL for a format other than BGRA32,
  // E_INVALIDARG for an empty image, a side over 65536, mismatched sizes or a
  // stride shorter than a row; E_OUTOFMEMORY when allocation fails.
  virtual int32_t SetImages(const GlitchImages* images) = 0;

  // Renders param->output. The glitch's own contract puts the settings
  // first: E_POINTER for a NULL record, then E_INVALIDARG for a setting out
  // of range, before the images are looked at;
  // then E_FAIL before SetImages; then the images as SetImages checks them,
  // and E_INVALIDARG for images of another size than SetImages was given. A
  // failure leaves the output untouched.
  virtual int32_t Process(const GlitchParam* param) = 0;

  // Does nothing (the planes are freed with the instance); returns 0.
  virtual int32_t Release() = 0;
};

}  // namespace Korvane
