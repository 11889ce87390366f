// Public header: part of the installed API.
// Dispersion: the subject of a photo crumbles into small particles that drift
// away with the wind, revealing the background behind it. Create it with type
// code EFFECT_DISPERSION; render one frame per Process call.
//
//   Korvane::DispersionParam p;
//   p.input = &photo; p.mask = &subject; p.output = &frame;
//   p.roi = Korvane::Rect{0, 0, photo.width, photo.height};
//   p.anime_frame_count = 48;
//   dispersion->Init(&p);                  // edge, background, particles
//   for (int i = 0; i < 48; ++i) { p.anime_frame_index = i; dispersion->Process(&p); }
//   dispersion->Uninit();
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

// Loop modes of DispersionParam::loop_mode.
enum DispersionLoopMode : int32_t {
  DISPERSION_ONCE = 0,  // the subject crumbles and stays gone
  DISPERSION_LOOP = 1,  // crumbles over the first half, reassembles over the second
};

struct DispersionParam {
  const ImageBuffer* input = nullptr;   // the photo, PIXEL_BGRA32
  const ImageBuffer* mask = nullptr;    // PIXEL_GRAY8, the photo's size; non-zero is subject
  ImageBuffer* output = nullptr;        // PIXEL_BGRA32 of the roi's size, apart from input and mask (Process only)
  Rect roi;                             // part of the frame written to output; inside the photo
  int32_t anime_frame_count = 48;       // >= 1
  int32_t anime_frame_index = 0;        // >= 0; frame 0 is the photo itself. Beyond the last frame a
                                        // loop starts over and a single crumble shows its last frame
  int32_t loop_mode = DISPERSION_ONCE;  // DispersionLoopMode
  float direction = 0.0f;               // wind, degrees: 0 right, 90 up (counter-clockwise as seen)
  float spread = 40.0f;                 // 0..180: particles fly up to this many degrees either side of
                                        // the wind (180: every way)
  float distance = 0.3f;                // 0..1: how far a particle flies, in image diagonals
  float particle_size = 1.5f;           // 0.5..32: particle radius in pixels
  float density = 0.5f;                 // 0..1: share of subject pixels that become particles
  float dissolve_width = 0.3f;          // 0..1: how much of the subject crumbles at once
                                        // (0 a sharp front, 1 everywhere at once)
  float fade = 1.0f;                    // 0..1: how far particles fade and shrink by the end of their flight
  float turbulence = 0.3f;              // 0..1: how much particles curl on their way
  uint32_t seed = 1;                    // the same seed gives the same particles
};

// Result codes, checked in the order every effect keeps: E_POINTER for a
// missing record, image or pixel pointer; E_NOTIMPL for an image of another
// format; E_INVALIDARG for sizes (a side over 65536 included), strides, a
// roi outside the photo, an output not the roi's size or sharing memory
// with the photo or mask, then for frame numbers and settings out of range.
// Each refusal is logged. After all of these, E_FAIL for Process before a
// successful Init; E_OUTOFMEMORY when memory runs out (nothing prepared is
// kept then).
class Dispersion {
 public:
  virtual ~Dispersion() = default;

  // Checks the record (output may be missing) and does the per-photo work:
  // each subject pixel's distance from the subject's edge facing the wind,
  // the background behind the subject, the particle list and the disc tables.
  virtual int32_t Init(const DispersionParam* param) = 0;

  // Renders frame anime_frame_index into output. Prepares again first when the
  // photo or mask (their pixel pointers or sizes), the seed, the direction or
  // a particle setting differ from the last Init; fade, the frame numbers,
  // loop_mode and roi may change freely. Pixels changed in place behind the
  // same pointers need a new Init.
  virtual int32_t Process(const DispersionParam* param) = 0;

  // Frees everything Init made; Process then needs a new Init.
  virtual int32_t Uninit() = 0;
};

}  // namespace Korvane
