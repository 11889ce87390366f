// Public header: part of the installed API.
// The light shapes the library draws itself: bokeh discs (lens apertures)
// and sparkle glints (star-filter spikes). Bright pixels are light, black
// adds nothing; the images are BGRA and opaque. Draw one with
// KorvaneEngine::DrawLightShape, or let the effects use their defaults
// (BokehShapeParam::builtin_shape, SparkleParam::default_shape).
#pragma once

#include <cstdint>

namespace Korvane {

enum BuiltinShape : int32_t {
  SHAPE_NONE = 0,     // no built-in shape: the caller supplies the image
  // Bokeh discs: the shape filled evenly with a brighter rim, as a lens draws it.
  SHAPE_CIRCLE = 1,
  SHAPE_HEXAGON = 2,  // six aperture blades, a flat edge at the top
  SHAPE_OCTAGON = 3,
  SHAPE_HEART = 4,
  SHAPE_STAR = 5,     // five points
  // Sparkle glints: a soft core with a faint halo and thin spikes that fade
  // toward their tips.
  SHAPE_STAR4 = 6,    // four spikes
  SHAPE_STAR6 = 7,    // six spikes
  SHAPE_STAR8 = 8,    // four long and four short spikes
  SHAPE_CROSS = 9,    // four spikes and no halo
};

// The sizes the effects' defaults are drawn at (any size may be drawn): a
// bokeh disc is resized to each light's size, so 128 pixels keep its rim
// crisp; a glint is drawn at the sparkle working size (SPK_SIZE, 200).
constexpr int32_t kBokehShapeSide = 128;
constexpr int32_t kGlintShapeSide = 200;

// Whether `shape` is a disc (SHAPE_CIRCLE .. SHAPE_STAR) or a glint
// (SHAPE_STAR4 .. SHAPE_CROSS).
inline bool IsDiscShape(int32_t shape) { return shape >= SHAPE_CIRCLE && shape <= SHAPE_STAR; }
inline bool IsGlintShape(int32_t shape) { return shape >= SHAPE_STAR4 && shape <= SHAPE_CROSS; }

}  // namespace Korvane
