#include "effects/animation/AnimationKernels.h"

namespace Korvane {

void WarpSpan(const WarpSource& src, const float m[6], int32_t y, int32_t x_begin, int32_t x_end,
              unsigned char* dst) {
  const float fy = static_cast<float>(y);
  animation_detail::WarpPixels(src, m, m[1] * fy + m[2], m[4] * fy + m[5], x_begin, x_end, dst);
}

void WarpBlendSpan(const WarpSource& src, const float m_past[6], const float m_future[6], int32_t alpha,
                   int32_t y, int32_t x_begin, int32_t x_end, unsigned char* dst) {
  const float fy = static_cast<float>(y);
  animation_detail::WarpBlendPixels(src, m_past, m_past[1] * fy + m_past[2], m_past[4] * fy + m_past[5], m_future,
                                    m_future[1] * fy + m_future[2], m_future[4] * fy + m_future[5], alpha,
                                    x_begin, x_end, dst);
}

}  // namespace Korvane
