// Filling the still region of a photo with colour carried in from the
// nearest pixels outside it, so that warping the filled image never drags the
// colours of still objects into moving parts.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"

namespace Korvane {

// Chamfer weights of a distance-transform mask: axis step, diagonal step and,
// for the 5x5 masks, the knight step. Types 30, 31, 32 (3x3) and 50, 51, 52
// (5x5); any other type is E_INVALIDARG, a NULL metric E_POINTER. metric must
// hold 3 floats (the third is 0 for 3x3 masks).
int32_t GetDistanceTransformMetric(int32_t mask_type, float* metric);

// Writes into background (PIXEL_BGRA32, the input's size, allocated by the
// caller) the input where mask is 0, and elsewhere the colour of the nearest
// unmasked pixels by a two-pass 3x3 chamfer distance transform in 16.16 fixed
// point; equally near neighbours are averaged. input is PIXEL_BGRA32 and mask
// PIXEL_GRAY8 of the same size; rows may be padded (stride). Pixels of a mask
// with no unmasked pixel at all keep their own colour.
int32_t InpaintMaskByDistTransform(const ImageBuffer& input, const ImageBuffer& mask,
                                   SmartBuffer& background);

}  // namespace Korvane
