// Public header: part of the installed API.
// Bokeh: soft, coloured out-of-focus light discs over a photo whose
// background is blurred. Light points are found once per source image
// (SetSource); every Process call renders one frame of a loop: the
// background blur guided by a depth-like mask, one disc per light point
// (sized by how far out of focus it lies, coloured, twinkling), added to the
// blurred photo. Create it with type code EFFECT_BOKEH.
//
//   bokeh->SetSource(&photo);
//   Korvane::BokehParam p;          p.anime_frame_count = 48;  p.twinkle_switch = 1;
//   Korvane::BokehShapeParam shape; shape.builtin_shape = Korvane::SHAPE_HEXAGON;
//   for (int i = 0; i < 48; ++i) {
//     p.anime_frame_index = i;
//     bokeh->Process(&p, &shape, &photo, &depth, &frame, Korvane::Rect{0, 0, w, h});
//   }
#pragma once

#include <cstdint>

#include "core/BuiltinShapes.h"
#include "core/ImageBuffer.h"
#include "core/LightPoints.h"
#include "core/ResultCode.h"

namespace Korvane {

// Frame settings, copied whole on every Process.
struct BokehParam {
  // 0: the light map is built at the photo's size. Any other value: at a
  // reduced size for photos longer than 640 pixels (down to a quarter from
  // 5120 on). 2 and 3 also place discs on whole pixels instead of sub-pixel.
  int32_t quality_mode = 1;
  // 1 or 2: disc sizes follow the background blur (how far each point lies
  // from the focus); any other value: the caller's blur mask directly, which
  // mode 3 inverts around the focus value (larger discs further from it).
  int32_t bokeh_source_mode = 1;
  uint8_t paste_switch = 1;        // non-zero: paste the discs
  uint8_t hue_shift_switch = 0;    // non-zero: the hue offset turns once over the loop
  uint8_t twinkle_switch = 0;      // non-zero: each point's lightness follows the twinkle curve over the loop
  uint8_t reserved_twinkle = 0;    // not read
  int32_t anime_frame_count = 0;   // >= 1
  int32_t anime_frame_index = -1;  // >= 0
  uint8_t rebuild_shapes = 1;      // non-zero: rebuild the disc variants every frame
  // Non-zero: keep the background blur between frames while the photo and
  // mask pointers and sizes, the region and the focus settings stay the same
  // (a loop's frames then cost only the discs). Set 0 after changing the
  // photo's or the mask's pixels in place.
  uint8_t keep_background = 1;
  // Background blur (the focus blur of the photo guided by the blur mask).
  int32_t reserved_focus[4] = {0, 0, 0, 0};  // not read
  float blur_buff_ratio = 0.5f;              // 0.1..1: the blur runs on a copy reduced by this factor
  int32_t reserved_blur[3] = {0, 0, 0};      // not read
  float blur_strength = 1.0f;                // 0..1: blur level 0..100 of the focus blur
  int32_t reserved_mode = 0;                 // not read
  float focus_value = 0.9f;                  // 0..1: the mask value in focus (x 255)
  float focus_range = 0.2f;                  // 0..1: mask distance still left sharp (x 255)
  // Non-zero: discs only on points that sit on real light (LightPointInfo
  // highlight): bright against the photo and against their surroundings,
  // not on texture such as leaf edges or fabric. The tool sets it.
  uint8_t highlights_only = 0;
  uint8_t reserved_flags[3] = {0, 0, 0};     // not read
};

// Shape settings, copied whole on every Process.
struct BokehShapeParam {
  ImageBuffer shape;          // BGRA32 disc image, its brightness is the light (any size, square is best);
                              // no pixels: the built-in shape below
  int32_t reserved = 0;       // not read
  float size_blend = 0.0f;    // 0..1: disc size factor from 1.0 to 1.5
  float amount = 0.8f;        // 0..1: fraction of the light points shown
  float rotation = 0.0f;      // degrees, about the shape's centre
  float hue_offset = 0.0f;    // -1..1: a half turn of hue per unit
  float saturation = 0.0f;    // -1..1
  int32_t shape_changed = 1;  // non-zero: rebuild the disc variants
  int32_t color_mode = 1;     // 0 the photo's dominant hue, 1 the photo's colour at the point, 2 random hues
  // The disc drawn when `shape` has no pixels: a BuiltinShape, drawn by the
  // library at kBokehShapeSide. SHAPE_NONE: a shape image is required.
  int32_t builtin_shape = SHAPE_CIRCLE;
};

class Bokeh {
 public:
  virtual ~Bokeh() = default;

  // Takes the photo (BGRA32; its pixels must stay valid while frames are
  // rendered), finds its light points on a copy whose longer side is 640 and
  // takes its dominant hue. E_POINTER for a NULL image or pixels, E_NOTIMPL
  // for another format, E_INVALIDARG for an empty image, short rows or a
  // side over 65536; releases whatever was set before.
  virtual int32_t SetSource(const ImageBuffer* src) = 0;

  // Renders frame param->anime_frame_index of param->anime_frame_count into
  // dst, which shows the rectangle roi of the photo (dst is roi's size).
  // src is the photo given to SetSource (same size); blur_mask a GRAY8 guide
  // of its size (a depth-like map: values near focus_value stay sharp), or
  // NULL to treat the whole photo as background.
  // Bokeh's own order of checks, which differs from the library's usual one
  // (missing, format, size): E_FAIL before SetSource or without a shape
  // record; E_POINTER for missing records, images or pixels; E_INVALIDARG
  // for dst not roi's size, src or dst not BGRA32 (a wrong format is
  // E_INVALIDARG here, not E_NOTIMPL), a frame count below 1 or a negative
  // index, src not the photo's size, short rows, roi outside the photo, a
  // mask that is not GRAY8 of the photo's size; then, for a shape without
  // pixels, E_POINTER when builtin_shape is SHAPE_NONE and E_INVALIDARG
  // when it is no built-in shape (else the built-in disc is drawn);
  // E_INVALIDARG for a shape not BGRA32, empty, with short rows or a side
  // over 65536.
  virtual int32_t Process(const BokehParam* param, const BokehShapeParam* shape_param, const ImageBuffer* src,
                          const ImageBuffer* blur_mask, ImageBuffer* dst, Rect roi) = 0;

  // Resets both records to their defaults, forgets the source and frees the
  // background blur's buffers. Returns 0.
  virtual int32_t ReleaseBuffer() = 0;

  // The light points SetSource found, in scan order of the detection copy:
  // fills `summary` and copies the first min(capacity, count) points into
  // `points` (which may be NULL when capacity is 0). E_POINTER without a
  // summary, E_INVALIDARG for a negative capacity, E_FAIL before SetSource.
  virtual int32_t GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const = 0;

  // Chooses which shapes a region render draws (RegionMode; kept until
  // changed, REGION_CENTRES_INSIDE at creation). E_INVALIDARG for another value.
  virtual int32_t SetRegionMode(int32_t mode) = 0;

  // The light points the last Process call draws a disc at in at least one
  // frame of its loop (its amount, highlight filter, region, disc sizes and
  // twinkle), in the order of GetLightPoints; summary->count is their
  // number. The same arguments and codes as GetLightPoints, and E_FAIL
  // before a Process of this source.
  virtual int32_t GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const = 0;
};

}  // namespace Korvane
