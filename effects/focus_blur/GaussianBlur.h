// Masked Gaussian blur of a BGRA32 working image, in place: GaussianBlurH
// along rows (run with row bands), GaussianBlurV along columns (run with
// column strips, RunTaskByMultiThread(..., false)).
//
// Only pixels whose blur mask is true change. Such a pixel becomes the
// weighted mean of the masked-true pixels within n - 1 of it that lie inside
// the image, renormalised by the weight actually used, so the sharp region
// never bleeds into the blurred one and the border needs no padding. Sums
// are single precision, taken in tap order from -(n - 1) to n - 1, and
// truncated to bytes; alpha is kept.
#pragma once

#include <cstdint>
#include <memory>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

constexpr int32_t kGaussianHalfTaps = 37;  // weights w[0] (centre) .. w[36]

struct GaussianBlurParam {
  SmartBuffer buffer;                      // BGRA32, blurred in place
  std::shared_ptr<float[]> weights;        // kGaussianHalfTaps weights
  int32_t kernel_length = 1;               // n: 1 (nothing to do) .. 37
  std::shared_ptr<bool[]> mask;            // width x height, true = blur; none: every pixel
};

// Fills w[0..36] for `level` on an image of width x height and returns the
// kernel length n (1..37). Weights past n are 0 and the full kernel
// w[n-1] .. w[0] .. w[n-1] sums to exactly 1.
int32_t MakeGaussianWeights(int32_t level, int32_t width, int32_t height, float* w);

// Tasks. E_POINTER when the buffer, its pixels or the weights are missing,
// E_INVALIDARG for a band outside the buffer or a kernel length out of range,
// E_NOTIMPL for a buffer that is not BGRA32, E_OUTOFMEMORY when the band's
// private buffer cannot be allocated.
int32_t GaussianBlurH(ThreadJob* job, int32_t* result);
int32_t GaussianBlurV(ThreadJob* job, int32_t* result);
// SSE4.1 forms, bit-identical to the plain ones.
int32_t GaussianBlurH_SSE(ThreadJob* job, int32_t* result);
int32_t GaussianBlurV_SSE(ThreadJob* job, int32_t* result);

// The two row primitives each form supplies; the band bookkeeping around them
// is shared.
struct GaussianRowKernels {
  // dst[4x .. 4x+3] = mask[x] ? (b, g, r, 1) : (0, 0, 0, 0), for x < count.
  void (*convert)(const uint8_t* src, const bool* mask, float* dst, int32_t count);
  // For each x < count: if mask[x], accumulate taps[k] x rows[k][4x .. 4x+3]
  // for k = 0 .. tap_count - 1 in that order and write the colour sums divided
  // by the weight sum, truncated, with src's alpha; otherwise copy src's pixel.
  void (*accumulate)(const float* const* rows, const float* taps, int32_t tap_count,
                     const bool* mask, const uint8_t* src, uint8_t* dst, int32_t count);
};

int32_t RunGaussianBlurH(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels);
int32_t RunGaussianBlurV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels);

}  // namespace Korvane
