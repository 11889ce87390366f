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

void WarpBlendSpan(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                   int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst_row) {
  const float fy = static_cast<float>(y);
  const float px = m_past[1] * fy + m_past[2], py = m_past[4] * fy + m_past[5];
  const float nx = m_future[1] * fy + m_future[2], ny = m_future[4] * fy + m_future[5];
  for (int32_t x = x_begin; x < x_end; ++x) {
    const float fx = static_cast<float>(x);
    unsigned char past[4];
    unsigned char* out = dst_row + static_cast<size_t>(x) * 4;
    animation_detail::WarpPixel(src, m_past[0] * fx + px, m_past[3] * fx + py, past);
    animation_detail::WarpPixel(src, m_future[0] * fx + nx, m_future[3] * fx + ny, out);
    animation_detail::BlendPixel(out, past, alpha);
  }
}

}  // namespace Korvane
