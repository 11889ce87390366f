// Box blur kernels: running-sum blurs along rows (BoxBlurH) or columns
// (BoxBlurV), in place. The window is 2r - 1 samples centred on the pixel,
// cut at the image ends and averaged over the samples that remain.
//
// Run BoxBlurH with row bands and BoxBlurV with column strips
// (RunTaskByMultiThread(..., false)); each band processes whole rows (or whole
// columns) whatever the band's other extent.
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
// SSE forms: bit-identical results.
int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result);
int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result);

// Runs `passes` horizontal passes and then `passes` vertical passes over
// `roi` with the plain or SSE form chosen from info, logging a failure with
// the call's text. Returns the first failure.
int32_t RunBoxBlur(CThreadAdapter& adapter, const SystemInfo& info, BoxBlurParam& param, Rect roi,
                   int passes = 1);

}  // namespace Korvane
