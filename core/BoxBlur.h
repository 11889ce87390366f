// Box blur kernels: running-sum blurs along rows (BoxBlurH) or columns
// (BoxBlurV), in place. The window is 2r - 1 samples centred on the pixel,
// cut at the image ends and averaged over the samples that remain.
//
// Run BoxBlurH with row bands and BoxBlurV with column strips
// (RunTaskByMultiThread(..., false)); each band processes whole rows (or whole
// columns) whatever the band's other extent.
//
// Window: pixel p of a line of length L gets the mean of the samples
// [max(0, p - r + 1), min(L - 1, p + r - 1)], divided by their count n. The
// same rule covers a window wider than the line (2r - 1 > L): it is cut at
// both ends, so once r >= L every pixel becomes the line's mean. Nothing
// outside the image is ever read or written, whatever the radius.
//
// Rounding:
// - 8-bit variants: exact integer sums; each output is trunc(sum / n + 0.5),
//   computed with an exact fixed-point reciprocal (no division per sample).
// - FLOAT32 / FLOAT96: running sums in double; a step where one sample
//   enters and one leaves adds (double(entering) - double(leaving)) to the
//   sum, the window's edges add or subtract single samples; output
//   float(sum * (1.0 / n)). The SSE forms do the same operations in the same
//   order, so the results are bit-identical. A NaN or infinity spreads along
//   the rest of its line.
// - INT32: exact 64-bit sums; output floor(sum / n + 1/2) (halves round up).
// - Masked BGRA32: the mask (one byte a pixel, rows packed, the image's
//   width and height) sets how much of the blur each pixel takes:
//   out = round((orig * (255 - m) + blurred * m) / 255), where blurred is the
//   unmasked result. 255 blurs fully, 0 keeps the pixel; every pixel of the
//   window counts whatever its own mask value. Alpha is untouched.
//
// Limits: the window (min(2r - 1, L)) may hold at most 2^21 samples, and
// float and integer images need a stride that is a multiple of 4; otherwise
// E_INVALIDARG.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

struct BoxBlurParam {
  ImageBuffer src;                       // blurred in place; pix_fmt selects the variant
  int32_t radius = 0;                    // r: window of 2r - 1 samples
  const unsigned char* mask = nullptr;   // when set, the masked BGRA32 variant (one byte per pixel)
};

// Variants: BGRA32 (alpha untouched), GRAY8, FLOAT32, FLOAT96, INT32, and
// BGRA32 with a mask. Result codes: E_POINTER for missing data (or mask),
// E_INVALIDARG for a negative radius, E_NOTIMPL for other formats; radius 0
// changes nothing.
int32_t BoxBlurH(ThreadJob* job, int32_t* result);
int32_t BoxBlurV(ThreadJob* job, int32_t* result);
// SSE forms: bit-identical results. They vectorise BGRA32, GRAY8, the masked
// form (windows up to 185 samples, where 16-bit sums stay exact), FLOAT32
// and FLOAT96; INT32 images and longer 8-bit windows run the plain code.
int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result);
int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result);
// AVX2 forms: bit-identical results; the same fallbacks as the SSE forms,
// and 8-bit rows blurred by the SSE4.1 row code.
int32_t BoxBlurH_AVX2(ThreadJob* job, int32_t* result);
int32_t BoxBlurV_AVX2(ThreadJob* job, int32_t* result);

// Several horizontal passes as one task: each band gets all its passes before
// the task returns. Rows are blurred independently, so the result is that of
// the passes run over the whole image in turn. The SSE form keeps float rows
// transposed from one pass to the next.
struct BoxBlurRepeatParam {
  BoxBlurParam* param = nullptr;
  int32_t passes = 1;
};
int32_t BoxBlurHRepeat(ThreadJob* job, int32_t* result);
int32_t BoxBlurHRepeat_SSE(ThreadJob* job, int32_t* result);
int32_t BoxBlurHRepeat_AVX2(ThreadJob* job, int32_t* result);

// Runs `passes` horizontal passes and then `passes` vertical passes over
// `roi` with the plain, SSE or AVX2 form chosen from info, logging a failure
// with the call's text. Returns the first failure. With the SIMD forms, one
// pass each way over a whole 8-bit BGRA32 or GRAY8 image runs as a single
// sweep per row band (the image is read and written once); the bytes are
// those of the two passes.
int32_t RunBoxBlur(CThreadAdapter& adapter, const SystemInfo& info, BoxBlurParam& param, Rect roi,
                   int passes = 1);

}  // namespace Korvane
