// Internal to the resize kernels: the validated geometry and the column/row
// tables of one resize task call, shared by the plain and SSE4.1 forms so
// both interpolate from exactly the same indices and fractions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/BilinearResize.h"

namespace Korvane {
namespace resize_detail {

struct ResizePlan {
  const unsigned char* src = nullptr;
  unsigned char* dst = nullptr;
  ptrdiff_t src_stride = 0;
  ptrdiff_t dst_stride = 0;
  // The band, clipped to the destination image.
  int32_t x_begin = 0, x_end = 0, y_begin = 0, y_end = 0;
  // Per band column (index dx - x_begin): byte offsets of the left and right
  // source pixels and the 8-bit fraction.
  std::vector<int32_t> x0, x1;
  std::vector<uint8_t> fx;
  // The float fraction of the same column (float resize only).
  std::vector<float> fxf;
  // Per band row (index dy - y_begin): source rows and fraction.
  std::vector<int32_t> y0, y1;
  std::vector<uint8_t> fy;
  std::vector<float> fyf;
  // Band columns [x_begin, x_paired) all have x1 == x0 + 1 (x0 never
  // decreases, so the columns clamped onto the last source column form a
  // suffix); the SSE forms load both neighbours at once there.
  int32_t x_paired = 0;
};

// Validates param for images of `bpp` bytes a pixel, clips the band and fills
// the tables (float fractions too when `with_float`). S_OK with an empty band
// when there is nothing to do.
int32_t PlanResize(const ResizeParam& param, const Rect& band, int32_t bpp, bool with_float,
                   ResizePlan* plan);

// The integer bilinear step: a + ((b - a) * f) >> 8 with an arithmetic shift.
inline int32_t Lerp8(int32_t a, int32_t b, int32_t f) { return a + (((b - a) * f) >> 8); }

// Plain loops over rows [y_from, y_to) and columns [x_from, x_to) of a plan
// (absolute destination coordinates); the SSE forms use them for the
// columns they do not vectorise.
void ResizeSpan8uc4(const ResizePlan& plan, int32_t y_from, int32_t y_to, int32_t x_from,
                    int32_t x_to);
void ResizeSpan8uc1(const ResizePlan& plan, int32_t y_from, int32_t y_to, int32_t x_from,
                    int32_t x_to);

}  // namespace resize_detail
}  // namespace Korvane
