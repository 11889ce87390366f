// The built-in light shapes of bokeh and sparkle by the names the options
// use. The library draws them (KorvaneEngine::DrawLightShape), so every
// front end and every application gets the same pixels.
#pragma once

#include <string>

#include <korvane/engine/KorvaneEngine.h>

#include "Image.h"

namespace KorvaneFrontend {

// The bokeh disc of a name: "circle", "hexagon", "octagon", "heart" or
// "star"; SHAPE_NONE for another name.
int32_t BokehShapeNamed(const std::string& name);

// The sparkle glint of a name: "star4", "star6", "star8" or "cross";
// SHAPE_NONE for another name.
int32_t GlintShapeNamed(const std::string& name);

// Draws a built-in shape at the side the effects use for it (128 x 128 for
// discs, 200 x 200 for glints). False for SHAPE_NONE or when the library
// refuses.
bool DrawShape(const KorvaneEngine& engine, int32_t shape, Image& image);

}  // namespace KorvaneFrontend
