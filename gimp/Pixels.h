// Pixels between GIMP drawables and the front-end core's 8-bit images. babl
// converts: a layer of any precision is read as 8-bit R'G'B'A in its own
// colour space (so no colour conversion happens, only a change of bit depth)
// and written back the same way.
#pragma once

#include <libgimp/gimp.h>

#include "frontend/Image.h"

namespace KorvaneGimp {

// The whole layer as BGRA; opaque where the layer has no alpha.
KorvaneFrontend::Image ReadLayer(gint32 layer);

// A gray input for `layer`: the pixels of `item` that lie under the layer, at
// the layer's size (0 where the item does not reach). A channel or the
// selection gives its values as they are; a layer gives the luma the tool
// reads from an image file (R, G, B weighted 77, 150, 29 out of 256).
KorvaneFrontend::Image ReadGray(gint32 item, gint32 layer);

// Writes `bgra` into `layer` with its top-left corner at x, y (layer
// pixels) through the shadow buffer, so GIMP merges it over the selection
// only, blending its soft edges; `undo` records the change. Where the layer
// has alpha it is left as it was. False when the selection misses the layer.
bool WriteLayer(gint32 layer, const KorvaneFrontend::Image& bgra, gint32 x, gint32 y, bool undo);

}  // namespace KorvaneGimp
