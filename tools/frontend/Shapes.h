// The built-in light shapes of bokeh and sparkle, drawn as a lens draws
// them. Bright pixels are light; the images are BGRA and opaque.
#pragma once

#include <string>

#include "Image.h"

namespace KorvaneFrontend {

// A bokeh disc, 128 x 128: "circle", "hexagon", "octagon", "heart" or
// "star". False for another name.
bool DrawBokehShape(const std::string& name, Image& shape);

// A sparkle glint, the library's working size (200 x 200): "star4",
// "star6", "star8" or "cross". False for another name.
bool DrawGlintShape(const std::string& name, Image& shape);

}  // namespace KorvaneFrontend
