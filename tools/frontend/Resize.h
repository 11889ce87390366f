// Resampling images in the front-end core: guides and masks of another size
// than the photo (a phone's depth map is smaller than its photo), and the
// reduced copies the automatic settings are measured on.
#pragma once

#include "Image.h"

namespace KorvaneFrontend {

// `src` (gray or BGRA) resampled to width x height: each output pixel
// averages the source pixels it covers when shrinking, and interpolates
// linearly between the nearest ones when enlarging.
Image Resized(const ImageView& src, int32_t width, int32_t height);

// `src` shrunk so that its longer side is at most `max_side` (its own size
// when it already is), keeping its proportions.
Image ShrunkTo(const ImageView& src, int32_t max_side);

}  // namespace KorvaneFrontend
