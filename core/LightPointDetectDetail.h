// Shared by the plain and AVX2 forms of the light-point detector's kernels:
// the checks every kernel makes and the plain row steps, which also finish
// the AVX2 rows.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "core/ImageBuffer.h"

namespace Korvane {
namespace lightpoint_detail {

// Pixels present (E_POINTER), format right (E_NOTIMPL), rows long enough
// (E_INVALIDARG).
int32_t CheckMap(const SmartBuffer& b, bool is_float);
// Inside the image; may be empty.
int32_t CheckRoi(const Rect& roi, const SmartBuffer& a);
// FLOAT32 maps of one size with roi inside them.
int32_t CheckFloatMaps(std::initializer_list<const SmartBuffer*> maps, const Rect& roi);

// Columns [x0, x1) of one row, each step as the kernel's comment in
// core/LightPointDetect.h gives it.
void LightnessRow(const uint8_t* bgra, float* out, int32_t x0, int32_t x1);
// The gradients at distance d (l: the row's lightness, above and below: the
// rows d away, already clamped) and their products, for columns whose
// samples need no clamping.
void ProductsRow(const float* l, const float* above, const float* below, int32_t d, float* xx, float* yy, float* xy,
                 int32_t x0, int32_t x1);
void ResponseRow(const float* xx, const float* yy, const float* xy, float k, float* out, int32_t x0, int32_t x1);
void MinMaxRow(const float* p, int32_t x0, int32_t x1, float& lo, float& hi);
void NormalizeRow(float* p, float from_lo, float to_span, float from_span, float to_lo, float to_hi, int32_t x0,
                  int32_t x1);
// out = s where no window value is strictly greater (win: the window maxima).
void SuppressRow(const float* win, const float* s, float* out, int32_t x0, int32_t x1);
void ThreshRow(float* p, float t, int32_t x0, int32_t x1);
void CvtRow(const float* s, uint8_t* out, int32_t x0, int32_t x1);

// AVX2 forms of the two row steps HarrisCorner runs itself.
void LightnessRow_AVX2(const uint8_t* bgra, float* out, int32_t x0, int32_t x1);
void ProductsRow_AVX2(const float* l, const float* above, const float* below, int32_t d, float* xx, float* yy,
                      float* xy, int32_t x0, int32_t x1);

}  // namespace lightpoint_detail
}  // namespace Korvane
