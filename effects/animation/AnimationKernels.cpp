#include "effects/animation/AnimationKernels.h"

namespace Korvane {

void WarpSpan(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
              unsigned char* dst_row) {
  const float fy = static_cast<float>(y);
  const float cx = m[1] * fy + m[2], cy = m[4] * fy + m[5];
  for (int32_t x = x_begin; x < x_end; ++x) {
    const float fx = static_cast<float>(x);
    animation_detail::WarpPixel(src, m[0] * fx + cx, m[3] * fx + cy, dst_row + static_cast<size_t>(x) * 4);
  }
}

void BlendRow(unsigned char* next, const unsigned char* pre, int32_t count, int32_t alpha) {
  for (int32_t i = 0; i < count; ++i) animation_detail::BlendPixel(next + 4 * i, pre + 4 * i, alpha);
}

}  // namespace Korvane
