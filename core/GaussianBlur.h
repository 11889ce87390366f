// Masked Gaussian blur of a BGRA32 working image, in place: GaussianBlurH
// along rows (run with row bands), GaussianBlurV along columns (run with
// column strips, RunTaskByMultiThread(..., false)). GaussianBlurH may instead
// read another image of the same size (`source`) and write every pixel of its
// band into the working image, which saves filling the working image first.
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
  SmartBuffer source;                      // when set: read by GaussianBlurH instead of buffer
  std::shared_ptr<float[]> weights;        // kGaussianHalfTaps weights
  int32_t kernel_length = 1;               // n: 1 (nothing to do) .. 37
  std::shared_ptr<bool[]> mask;            // width x height, true = blur; none: every pixel
  // GaussianBlurHV inside a RowPipeline only, when set: the band's rows go to
  // the chunk's scratch rows (pixel 0 of a scratch row is the band's left
  // column) and buffer, which still gives the image's size, is not written.
  bool to_scratch = false;
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
// AVX2 forms, bit-identical too: eight lanes where the SSE4.1 forms have four.
int32_t GaussianBlurH_AVX2(ThreadJob* job, int32_t* result);
int32_t GaussianBlurV_AVX2(ThreadJob* job, int32_t* result);

// Kernels up to this length may run both passes at once: GaussianBlurHV takes
// a row band, blurs the rows of `source` it needs (the band and n - 1 rows
// either side) into a small ring, and writes the band's rows of `buffer` (or
// of the chunk's scratch rows, with to_scratch) as GaussianBlurH followed by
// GaussianBlurV would, without the intermediate image. Short kernels spend
// most of their time moving pixels, not adding taps, so this halves their
// traffic. Same codes as the single passes, and E_INVALIDARG without a
// source, for a kernel longer than kShortKernel, or with to_scratch for a
// job that carries no scratch rows of the band's width.
constexpr int32_t kShortKernel = 3;
int32_t GaussianBlurHV(ThreadJob* job, int32_t* result);
int32_t GaussianBlurHV_SSE(ThreadJob* job, int32_t* result);
int32_t GaussianBlurHV_AVX2(ThreadJob* job, int32_t* result);

// The taps of one output row. Converted rows hold packed b, g, r floats
// (zero where the mask is false) and, separately, one weight per pixel (1 or
// 0), so a window lying wholly on masked pixels can skip the weight sums:
// its weight sum is then full_weight, the taps added in order.
struct GaussianTapRows {
  const float* const* colour;  // per tap: 3 floats a pixel
  const float* const* weight;  // per tap: 1 float a pixel
  const float* taps;           // tap weights in order
  int32_t count = 0;           // number of taps
  // Per pixel: 0 when every tap of the pixel lies inside the image on a
  // masked pixel, so its weight sum is full_weight; none: no pixel is.
  const uint8_t* open = nullptr;
  float full_weight = 0.0f;
};

// The two row primitives each form supplies; the band bookkeeping around them
// is shared.
struct GaussianRowKernels {
  // colour[3x .. 3x+2] = mask[x] ? (b, g, r) : 0 and weight[x] = mask[x] ? 1 : 0, for x < count.
  void (*convert)(const uint8_t* src, const bool* mask, float* colour, float* weight, int32_t count);
  // For each x < count: if mask[x], accumulate taps[k] x colour[k][3x .. 3x+2]
  // and taps[k] x weight[k][x] for k = 0 .. count - 1 in that order and write
  // the colour sums divided by the weight sum, truncated, with src's alpha;
  // otherwise copy src's pixel. Colour rows may be read one float past a pixel.
  void (*accumulate)(const GaussianTapRows& rows, const bool* mask, const uint8_t* src, uint8_t* dst,
                     int32_t count);
};

// The plain row primitives over pixels [0, count) and [from, to): the plain
// form, and the tails the SIMD forms leave.
void GaussianConvertPixelsPlain(const uint8_t* src, const bool* mask, float* colour, float* weight, int32_t count);
void GaussianAccumulatePixelsPlain(const GaussianTapRows& rows, const bool* mask, const uint8_t* src, uint8_t* dst,
                                   int32_t from, int32_t to);

int32_t RunGaussianBlurH(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels);
int32_t RunGaussianBlurV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels);
int32_t RunGaussianBlurHV(ThreadJob* job, int32_t* result, const GaussianRowKernels& kernels);

}  // namespace Korvane
