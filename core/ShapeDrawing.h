// Drawing the built-in light shapes (core/BuiltinShapes.h) into an image:
// what KorvaneEngine::DrawLightShape answers and what bokeh and sparkle use
// when the caller gives no shape of its own.
#pragma once

#include <cstdint>

#include "core/BuiltinShapes.h"
#include "core/ImageBuffer.h"

namespace Korvane {

// Draws `shape` over the whole of `image` (BGRA32, any size; a disc fills
// the rectangle, a glint is centred with spikes reaching the shorter side).
// E_POINTER without pixels, E_NOTIMPL for another format, E_INVALIDARG for
// an empty image, short rows or an unknown shape (SHAPE_NONE included).
int32_t DrawBuiltinShape(int32_t shape, const ImageBuffer& image);
int32_t DrawBuiltinShape(int32_t shape, SmartBuffer& image);

// `shape` drawn at its default side (kBokehShapeSide for discs,
// kGlintShapeSide for glints) into a new image; E_INVALIDARG for an unknown
// shape.
int32_t MakeBuiltinShape(int32_t shape, SmartBuffer& image);

}  // namespace Korvane
