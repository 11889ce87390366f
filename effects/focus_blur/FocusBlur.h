// Public header: part of the installed API.
// Focus blur: a shallow depth of field from a photo and a one-channel guide
// (a depth or focus map). Pixels whose guide value lies within focus_range of
// focus_value stay sharp; the further the guide value lies from it, the more
// the pixel takes a weak and then a strong blur of the photo. Create it with
// type code EFFECT_FOCUS_BLUR.
//
//   Korvane::FocusBlurParam p;
//   p.input = photo;  p.mask = depth;  p.output = result;
//   p.blur_level = 60;  p.focus_value = 200;  p.focus_range = 12;
//   p.true_scale = 1;   // the same look at any photo size
//   blur->Process(&p);
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

struct FocusBlurParam {
  ImageBuffer input;   // the photo, BGRA32
  ImageBuffer mask;    // the guide: first byte of each pixel (pixels `channel` bytes apart), same size
  ImageBuffer output;  // BGRA32, same size as input; may be the input itself
  // Non-zero: the blur keeps the share of the shorter side that blur_level
  // asks for at any photo size; where the kernel's reach (36 pixels either
  // side) would cap it, a reduced copy is blurred and enlarged. 0: the
  // fixed-reach kernel, whose strong blur stops growing at about 700 pixels
  // on the shorter side at level 100.
  uint8_t true_scale = 0;
  uint8_t reserved[3] = {0, 0, 0};  // not read
  int32_t blur_level = 50;   // 0..100: strong-blur sigma in fiftieths of a percent of the shorter side
  int32_t focus_value = 255; // 0..255: the guide value that is in focus
  int32_t focus_range = 16;  // 0..255: guide distance still left sharp (255 or more: nothing is blurred)
};

class FocusBlur {
 public:
  virtual ~FocusBlur() = default;

  // Nothing to prepare; returns 0.
  virtual int32_t Init(const FocusBlurParam* param) = 0;

  // Renders param->output. Returns E_POINTER for a NULL record and
  // E_OUTOFMEMORY when memory runs out; otherwise 0. A record the effect
  // cannot use is checked in the order every effect keeps (a missing pixel
  // pointer, then a format other than BGRA32, then an empty photo or a side
  // over 65536, a guide or output of another size than the input, a stride
  // shorter than a row), but by this effect's own contract the reason only
  // goes to the debugger log: the output is left untouched, as it is by a
  // failing step, and the call still returns 0. Each image may have padded
  // rows (any stride of at least a row), and the output may be the input.
  virtual int32_t Process(const FocusBlurParam* param) = 0;

  // Nothing to release; returns 0.
  virtual int32_t Uninit() = 0;
};

}  // namespace Korvane
