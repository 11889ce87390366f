// Public header: part of the installed API.
// Sparkle: star-like glints over a photo, rotating and twinkling from frame
// to frame. Two independent sets are drawn:
// - automatic sparkles, at the small bright spots found in the photo by
//   SetSource, all drawn with the one automatic shape;
// - manual sparkles, placed by the caller in photo pixels, each drawn with
//   the caller-supplied shape of its type identifier and at its own scale.
// Each set is pasted into a light map of its own (reduced for large photos in
// quality modes 1 and 3), which its render record's saturation and
// brightness adjust; the two maps combine by a saturating add, and the sum is
// enlarged and added to the photo.
//
// Use: CreateEffect(&p, EFFECT_SPARKLE) gives a Sparkle*.
//
//   sparkle->SetSource(&photo);                 // finds the light points
//   sparkle->SetAutoSparkleShape(&glint);       // optional (any size, BGRA32): else
//                                               // param.default_shape is drawn
//   sparkle->AddManualSparkles(points, 3, &shape);  // optional, shape 200 x 200
//   for (i = 0; i < frames; ++i) {
//     param.anime_frame_count = frames; param.anime_frame_index = i;
//     sparkle->Process(&param, &auto_render, &manual_render, &photo, &out, roi);
//   }
//
// Shapes: bright pixels are light. A pixel adds its brightness
// trunc((B + G + R) x 0.333) times the glint's colour; black adds nothing.
#pragma once

#include <cstdint>

#include "core/BuiltinShapes.h"
#include "core/ImageBuffer.h"
#include "core/LightPoints.h"
#include "core/ResultCode.h"

namespace Korvane {

// Side of a manual sparkle shape, and of the working copies of both kinds.
constexpr int32_t SPK_SIZE = 200;

// Largest glint scale: a manual sparkle's `scale` and a render record's
// `size` lie in (0, 6].
constexpr float kSparkleMaxScale = 6.0f;

// Settings of one frame (16 bytes).
struct SparkleParam {
  // 0: the light map at full size, sub-pixel pastes (smooth motion);
  // 1: the light map reduced for photos longer than 640 pixels (down to a
  //    quarter from 5120 on), sub-pixel pastes;
  // 2: full size, whole-pixel pastes, fixed brightness per glint (fast preview);
  // 3: reduced as 1, whole-pixel pastes, fixed brightness per glint.
  // In 2 and 3 detection also uses a finer radius and a higher threshold
  // (fewer, crisper points), and `amount` is taken in 11 steps (neither
  // with steady_content). Other values behave as 1 (scaling) with sub-pixel
  // pastes.
  int32_t quality_mode = 1;
  uint8_t rotate = 0;          // non-zero: the glints turn once per loop (on top of `rotation`)
  uint8_t twinkle = 0;         // non-zero: each glint flashes once per loop
  uint8_t auto_sparkle = 1;    // non-zero: draw the automatic sparkles
  uint8_t manual_sparkle = 1;  // non-zero: draw the manual sparkles
  int32_t anime_frame_count = 1;  // >= 1: frames of the loop
  int32_t anime_frame_index = 0;  // >= 0: frame to render (index and index + count look the same)
  // The automatic shape while none was given with SetAutoSparkleShape (or
  // since ResetSparkleTypes): a BuiltinShape drawn by the library.
  // SHAPE_NONE: Process answers E_FAIL until a shape is given.
  int32_t default_shape = SHAPE_STAR4;
  // Non-zero: automatic glints only on points that sit on real light
  // (LightPointInfo highlight): bright against the photo and against their
  // surroundings, not on texture or edges. The tool sets it.
  uint8_t highlights_only = 0;
  // Non-zero: the quality mode changes only the light map's size and the
  // pasting precision, never which glints show or how bright: the points
  // SetSource found serve every mode (so glints removed stay removed), the
  // amount is taken as it is, and without twinkling each glint keeps the
  // fixed brightness of its phase (that of modes 2 and 3) in every mode. A
  // still and a loop then show the same glints. The tool sets it.
  uint8_t steady_content = 0;
  uint8_t reserved_flags[2] = {0, 0};  // not read
};

// Colour of the glints of one set.
enum SparkleColorMode : int32_t {
  SPARKLE_COLOR_WHITE = 0,   // white light
  SPARKLE_COLOR_PHOTO = 1,   // the photo's hue at the glint, saturated
  SPARKLE_COLOR_RANDOM = 2,  // one of 24 hues, drawn once per glint
};

// Rendering of one set of sparkles (28 bytes): one record for the automatic
// and one for the manual set.
struct SparkleRenderParam {
  int32_t color_mode = SPARKLE_COLOR_WHITE;  // SparkleColorMode
  float amount = 1.0f;      // 0..1: fraction of the glints shown (0 draws none, 1 all)
  float saturation = 0.0f;  // -1..1: saturation change of the set's light (-1 grey, 1 twice as saturated)
  float brightness = 0.0f;  // -1..1: brightness change of the set's light (-1 dark, 1 twice as bright)
  float rotation = 0.0f;    // degrees, clockwise on screen; 0..360 (advanced per frame when rotating)
  float size = 2.0f;        // (0, 6]: scale of the glints. At 1 the automatic glints span 1% to 3%
                            // of the light map's longer side and a manual glint of scale 1 spans 3%
                            // (both capped at 18%).
  int32_t twinkle_cycles = 1;  // >= 1: flashes of each glint per loop when twinkling
};

// A manual sparkle position (photo pixels) and its size relative to the
// largest automatic glint (scale in (0, 6]). Sizes are drawn in steps of 5 %,
// so glints of nearly the same scale share one prepared shape.
struct SparklePoint {
  float x = 0.0f;
  float y = 0.0f;
  float scale = 1.0f;
};

// A manual sparkle shape: SPK_SIZE x SPK_SIZE, BGRA32, under a type
// identifier of 2 or more (0 and 1 are kept for the automatic shape).
struct SparkleShape {
  ImageBuffer image;
  uint16_t type_id = 2;
};

// Operations of UpdateManualSparkles besides re-shaping.
enum SparkleUpdate : int32_t {
  SPARKLE_REMOVE = 0,  // remove the manual sparkles at the points, hide the automatic ones there
  SPARKLE_MOVE = 1,    // points are (from, to) pairs: the nearest manual sparkle at `from` moves to `to`
  // 2 and above: the manual sparkles at the points take the shape of that type identifier
};

class Sparkle {
 public:
  virtual ~Sparkle() = default;

  // Takes the photo (BGRA32), finds its light points on a copy whose longer
  // side is 640 pixels and builds the automatic sparkle list, with the
  // detection settings of quality modes 0 and 1. Process finds them again
  // when a frame's quality mode needs the other settings (2 and 3), which
  // also shows hidden automatic sparkles again. Shapes and manual sparkles
  // are kept (a new photo of the same size keeps its placed glints).
  // E_POINTER, E_NOTIMPL (format), E_INVALIDARG (empty size, short rows or a
  // side over 65536).
  virtual int32_t SetSource(const ImageBuffer* src) = 0;

  // Copies the automatic shape (BGRA32, any size) into a SPK_SIZE x SPK_SIZE
  // working copy (resized when needed). E_POINTER, E_NOTIMPL, E_INVALIDARG
  // (empty, short rows or a side over 65536).
  virtual int32_t SetAutoSparkleShape(const ImageBuffer* shape) = 0;

  // Registers or replaces the shape of a manual sparkle type. E_POINTER for no
  // shape or pixels, E_NOTIMPL for another format, E_INVALIDARG for a size
  // other than SPK_SIZE x SPK_SIZE or an identifier below 2.
  virtual int32_t SetManualSparkleShape(const SparkleShape* shape) = 0;

  // Adds `count` manual sparkles drawn with `shape` (registered as by
  // SetManualSparkleShape). Each gets its own twinkle phase and colour from a
  // random sequence seeded with its insertion number, so the same edits
  // always animate the same way. Returns 0, or 1 when the sparkles would
  // exceed the maximum (nothing is added); E_POINTER for no points or shape
  // pixels, E_INVALIDARG for a negative count, a bad shape, a position off
  // the photo given to SetSource (0 <= x < width, 0 <= y < height; any
  // position before SetSource) or a scale outside (0, 6].
  virtual int32_t AddManualSparkles(const SparklePoint* points, int32_t count, const SparkleShape* shape) = 0;

  // Edits what is placed: `value` is a SparkleUpdate or a type identifier.
  // A sparkle is at a point when the point lies within 1.5% of the photo's
  // longer side times the sparkle's scale (at least 2 pixels) of it.
  // Remove hides the automatic sparkles at the points too (ShowAllAutoSparkles
  // brings them back). Move takes pairs (count even) and moves the nearest
  // manual sparkle at each `from`; a `to.scale` above 0 also sets its scale.
  // Returns how many sparkles changed, or E_POINTER, or E_INVALIDARG for a
  // negative value, an odd count when moving, an unknown type identifier, a
  // point off the photo or a scale that is not finite or above 6.
  virtual int32_t UpdateManualSparkles(const SparklePoint* points, int32_t count, int32_t value) = 0;

  // Renders one frame: the rectangle `roi` of the photo with the glints
  // added, into dst (the size of roi). Sparkle's own order of checks, which
  // differs from the library's usual one (missing, format, size): E_POINTER
  // for a missing record, image or pixels; E_FAIL before SetSource, or
  // without an automatic shape when param->default_shape is SHAPE_NONE;
  // E_INVALIDARG for dst not the size of roi or not BGRA32, src not BGRA32
  // (a wrong format is E_INVALIDARG here, not E_NOTIMPL), anime_frame_count
  // < 1, anime_frame_index < 0, then for src not the size given to
  // SetSource, roi not inside it, short rows, a render setting out of range
  // or a default_shape that is no built-in shape. dst may not overlap src.
  virtual int32_t Process(const SparkleParam* param, const SparkleRenderParam* auto_render_param,
                          const SparkleRenderParam* manual_render_param, const ImageBuffer* src, ImageBuffer* dst,
                          Rect roi) = 0;

  // The largest number of manual sparkles; -1 (the default) means no limit.
  // E_INVALIDARG below -1. Sparkles already placed are kept.
  virtual int32_t SetMaxManualSparkleCount(int32_t n) = 0;

  // Shows every automatic sparkle again (undoes SPARKLE_REMOVE on them).
  virtual int32_t ShowAllAutoSparkles() = 0;

  // Releases the automatic shape and the shapes of all manual types. The
  // manual sparkles stay; those of a type without a shape are not drawn
  // until it is registered again. Process draws the default shape again
  // (or needs a new automatic shape).
  virtual int32_t ResetSparkleTypes() = 0;

  // Releases the shapes, both sparkle lists and the working images and
  // lifts the maximum; the source must be set again.
  virtual int32_t ReleaseBuffer() = 0;

  // The light points SetSource found, in scan order of the detection copy:
  // fills `summary` and copies the first min(capacity, count) points into
  // `points` (which may be NULL when capacity is 0). E_POINTER without a
  // summary, E_INVALIDARG for a negative capacity, E_FAIL before SetSource.
  virtual int32_t GetLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const = 0;

  // Chooses which shapes a region render draws (RegionMode; kept until
  // changed, REGION_CENTRES_INSIDE at creation). E_INVALIDARG for another value.
  virtual int32_t SetRegionMode(int32_t mode) = 0;

  // The automatic light points the last Process call draws a glint at in
  // at least one frame of its loop (its amount, highlight filter, region,
  // removed glints, brightness and twinkle), in the order of
  // GetLightPoints; summary->count is their number. The same arguments and
  // codes as GetLightPoints, and E_FAIL before a Process of this source.
  virtual int32_t GetDrawnLightPoints(LightPointSummary* summary, LightPointInfo* points, int32_t capacity) const = 0;
};

}  // namespace Korvane
