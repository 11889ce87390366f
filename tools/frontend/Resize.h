// Resampling images in the front-end core: guides and masks of another size
// than the photo (a phone's depth map is smaller than its photo).
#pragma once

#include "Image.h"

namespace KorvaneFrontend {

// `src` (gray or BGRA) resampled to width x height: each output pixel
// averages the source pixels it covers when shrinking, and interpolates
// linearly between the nearest ones when enlarging.
Image Resized(const ImageView& src, int32_t width, int32_t height);

}  // namespace KorvaneFrontend
