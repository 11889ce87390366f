// Public header: part of the installed API.
// Light rays: beams of light streaming out of the bright parts of a photo and
// added to it. Radial rays fan out from a centre point (the sun, a lamp);
// directional rays all run one way (shafts of light through a window or
// trees). The rays are built at half size: the highlights are found, smeared
// outward along each ray, cut into separate beams by a fixed random pattern,
// softened, coloured, enlarged and added to the photo inside a rectangle.
//
// Use: CreateEffect(&p, EFFECT_LIGHT_RAYS) gives a LightRays*. Call
// Initialize with the photo's size, then Process as often as needed (one call
// a frame for loops), then ReleaseBuffer (or DeleteEffect).
//
// Angles are in degrees, 0 pointing right and counter-clockwise as a person
// sees the image (90 points up). Lengths and positions are in full-size
// pixels of the photo.
#pragma once

#include <climits>
#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ResultCode.h"

namespace Korvane {

enum LightRaysMode : int32_t {
  LIGHT_RAYS_RADIAL = 0,       // any value other than 1 is radial too
  LIGHT_RAYS_DIRECTIONAL = 1,
};

// A centre coordinate that asks for the automatic centre: the photo's
// brightest compact highlight (LightRays::FindCenter).
constexpr int32_t kLightRaysAutoCenter = INT32_MIN;

// The settings LightRays::SuggestSettings fills, as bits.
enum LightRaysSuggestion : uint32_t {
  SUGGEST_CENTER = 1,     // center_x, center_y: FindCenter
  SUGGEST_THRESHOLD = 2,  // hlr_threshold: from the photo's lightness histogram
  SUGGEST_LENGTH = 4,     // ray_length: a quarter of the longer side
  SUGGEST_SOFTNESS = 8,   // ray_softness: 0.3 % of the longer side
  SUGGEST_STRENGTH = 16,  // blend_strength: capped so the picture does not wash out
  SUGGEST_ALL = 31,
};

// Settings of one Process call. The defaults below are what ReleaseBuffer
// restores. Ranges are those Process enforces (E_INVALIDARG outside them,
// NaN included); W and H are the photo's width and height.
struct LightRaysParam {
  SmartBuffer src;   // photo, PIXEL_BGRA32, the size given to Initialize
  SmartBuffer mask;  // optional (no data = none): PIXEL_GRAY8 of the photo's size;
                     // scales each pixel's light before it becomes a source
                     // (0 emits nothing, 255 everything)
  SmartBuffer dst;   // output, PIXEL_BGRA32, exactly the size of roi

  // 0..1: brightness of the rays. The smeared light is an average along the
  // ray; its value v (0..1) becomes 1 - (1 - v)^(1 + 15 ray_level): 0 keeps
  // the average, 1 lifts faint rays up to 16 times with a soft shoulder, so
  // bright rays saturate gently instead of clipping.
  float ray_level = 0.5f;
  // 0..max(W, H) / 32: softening of the finished rays, a box blur whose
  // window is about ray_softness full-size pixels wide (0: crisp).
  float ray_softness = 2.0f;
  // 0..max(W, H): how far light travels from its source. 0 draws no rays:
  // roi of src is copied into dst unchanged. The smear is done at half size
  // and stops at 4096 half-size pixels (about 8192 pixels of the photo), so
  // longer rays on very large photos end there.
  float ray_length = 300.0f;
  // 0..255: lightness ((max + min) / 2 of B, G, R) a pixel needs to emit
  // light. 255 lets only white pixels shine.
  float hlr_threshold = 200.0f;
  // 0..1: how much of the rays is added to the photo (0: dst = src).
  float blend_strength = 1.0f;

  // Loops: frame anime_frame_index of anime_frame_count (count >= 1,
  // 0 <= index; other values render frame 0). Frame count is frame 0 again.
  int32_t anime_frame_count = 1;
  int32_t anime_frame_index = 0;
  // Non-zero: the beams sway around their still positions with the frame
  // index. Note the pattern that moves: with ray_mode 0 the radial spokes,
  // with any other ray_mode the directional shafts (so ray_mode 2, which
  // draws radial rays, keeps its spokes where the last animated radial
  // frame left them). The pattern is kept between calls: with animate_rays
  // 0 a call draws it as the last animated call left it (as Initialize
  // made it when none did).
  uint8_t animate_rays = 0;
  // Non-zero: the ray colour's hue turns once around over the loop.
  uint8_t animate_hue = 0;

  // LightRaysMode: 1 directional, anything else radial.
  int32_t ray_mode = LIGHT_RAYS_RADIAL;
  // 0..360: direction the directional rays travel in (radial rays ignore it).
  float ray_angle = 0.0f;

  // Lampshade (radial rays only): the rays keep to a cone around the centre,
  // pointing at lampshade_angle (0..360) with half-width lampshade_spread
  // (0..180 degrees) and an edge that fades over lampshade_param degrees
  // (negative or NaN counts as 0: a hard edge). A spread of 180 is no
  // lampshade.
  float lampshade_param = 10.0f;
  float lampshade_spread = 180.0f;
  float lampshade_angle = 90.0f;

  // 0..max(W, H): radial rays only. When above 0, only highlights within
  // this distance of the centre emit rays (the sun, not every bright shirt
  // in the picture); the rays themselves still run ray_length. 0: the whole
  // photo emits.
  float ray_radius = 0.0f;
  // Centre of the radial rays, and the anchor of the directional shafts'
  // pattern. Not checked: clamped to half an image beyond each edge. Either
  // at kLightRaysAutoCenter (the default): the automatic centre of the photo.
  int32_t center_x = kLightRaysAutoCenter;
  int32_t center_y = kLightRaysAutoCenter;

  // -1..1: turn of the rays' hue, a half turn each way.
  float hue_shift = 0.0f;
  // -1..1: saturation of the rays. -1 white light, 0 the colour of the
  // sources, 1 about twice as saturated (soft shoulder).
  float color_param = 0.0f;

  // Rectangle of the photo written to dst; inside the photo, with dst's size.
  Rect roi;

  // Non-zero: the rays fade smoothly to nothing at their far ends, without
  // the steps that faint light lifted by ray_level otherwise shows: the
  // smeared light is kept (1 + 15 ray_level) / 2 times finer before the
  // lift, which caps the brightest rays near nine tenths of full light
  // instead of full. The tool sets it.
  uint8_t smooth_fade = 0;
  uint8_t reserved_flags[3] = {0, 0, 0};  // not read
};

class LightRays {
 public:
  virtual ~LightRays() = default;

  // Allocates the working images for a width x height photo: E_INVALIDARG
  // for a side below 1 or over 65536, E_OUTOFMEMORY when a
  // working image cannot be had (Process then answers E_FAIL until an
  // Initialize succeeds); the same size again does nothing. Fixes the ray
  // pattern (a Mersenne Twister seeded 0), so the same settings always
  // render the same picture.
  virtual int32_t Initialize(int32_t width, int32_t height) = 0;

  // Renders roi of the photo with its rays into param.dst. Returns 0 or the
  // first failure, checked in light rays' own order, which differs from the
  // library's usual one (missing, format, size): E_INVALIDARG for a photo of
  // another size than Initialize was given (so also before Initialize and
  // after ReleaseBuffer) or without pixels, a mask of another size or
  // format, a dst that is not roi's size, color_param or hue_shift out of
  // range; E_NOTIMPL for src or dst not PIXEL_BGRA32; E_INVALIDARG for the
  // other settings out of range, an empty roi or one outside the photo, rows
  // shorter than the width; E_POINTER for a dst without pixels; later
  // E_OUTOFMEMORY when the ray space of this centre and angle cannot be had
  // (it holds only what the rays cross, so it stays within a small multiple
  // of the photo). Writes nothing but dst's pixels, and nothing at all on a
  // refusal.
  virtual int32_t Process(const LightRaysParam& param) = 0;

  // Frees the working images and returns the stored settings (and the ray
  // pattern) to their constructed state; Initialize must run again before
  // Process.
  virtual int32_t ReleaseBuffer() = 0;

  // The automatic centre of `photo` (BGRA32): the middle of its brightest
  // compact highlight (a lamp, the sun, a window: bright and brighter than
  // what surrounds it, found at several sizes), in photo pixels. A frame
  // edge is chosen only when that highlight lies there. Needs no
  // Initialize. E_POINTER, E_NOTIMPL, E_INVALIDARG as Process checks the
  // photo.
  virtual int32_t FindCenter(const ImageBuffer* photo, int32_t* x, int32_t* y) = 0;

  // Fills the settings named by `fields` (LightRaysSuggestion bits) so the
  // rays suit `photo` (BGRA32, the size of param->src need not be set):
  // the centre (FindCenter), the threshold (so about the brightest 2 % of
  // the photo shines, kept within 160..250), the length and softness by
  // the photo's size, and last the strength: the largest at most
  // param->blend_strength with which the share of near-white pixels (every
  // channel 245 or more) grows by at most 3 points, measured by rendering a
  // copy of at most 400 pixels with the record's other settings. Leaves
  // the other fields alone. E_POINTER, E_NOTIMPL, E_INVALIDARG (photo; or
  // settings Process would refuse for the copy).
  virtual int32_t SuggestSettings(const ImageBuffer* photo, uint32_t fields, LightRaysParam* param) = 0;
};

}  // namespace Korvane
