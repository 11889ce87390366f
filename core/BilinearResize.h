// Bilinear resize kernels: task functions for CThreadAdapter that scale a
// whole image centre to centre, with integer 8-bit weights for the byte
// formats and float arithmetic for PIXEL_FLOAT96.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/Simd.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// Task parameter. The band handed to the task is in destination coordinates.
struct ResizeParam {
  SmartBuffer src;  // source image
  SmartBuffer dst;  // destination, already created at the target size
  Rect src_roi;     // part of the source that may be sampled; indices are clamped into it
};
// src_roi is clipped to the source image; a rectangle with nothing left
// (including the default empty Rect) is refused with E_INVALIDARG. Strides
// shorter than a row of pixels are refused with E_INVALIDARG too.
// The 8-bit tasks keep the integer rule exactly: fractions are 8-bit, the
// column/row fraction wraps in a byte for the slightly negative positions at
// the start of an enlargement, and differences are shifted arithmetically.
// The float task uses float fractions clamped to [0, 1] (edges are held
// flat, no wrap).

// PIXEL_BGRA32 (all four bytes interpolated) and PIXEL_GRAY8.
int32_t BilinearResize_8uc4(ThreadJob* job, int32_t* result);
int32_t BilinearResize_8uc1(ThreadJob* job, int32_t* result);
// SSE4.1 forms: the same values, four destination pixels at a time.
int32_t BilinearResize_8uc4_SSE4(ThreadJob* job, int32_t* result);
int32_t BilinearResize_8uc1_SSE4(ThreadJob* job, int32_t* result);
// AVX2 forms: the same values, eight destination pixels (sixteen gray) at a time.
int32_t BilinearResize_8uc4_AVX2(ThreadJob* job, int32_t* result);
int32_t BilinearResize_8uc1_AVX2(ThreadJob* job, int32_t* result);
// PIXEL_FLOAT96 (three floats a pixel), same mapping and clamping, in float.
int32_t BilinearResize_32fc3(ThreadJob* job, int32_t* result);

// One bilinear sample at float position (x, y) with 8-bit weights; the caller
// guarantees 0 <= trunc(x) < width and 0 <= trunc(y) < height. The 8uc4 form
// writes 255 into alpha. E_POINTER when src or out is NULL; a position whose
// integer part lies outside the image (or NaN) gets E_INVALIDARG and is not read.
int32_t BilinearSample_8uc4(const unsigned char* src, unsigned char* out, int height, int width,
                            int stride, float y, float x);
int32_t BilinearSample_8uc1(const unsigned char* src, unsigned char* out, int height, int width,
                            int stride, float y, float x);

// The task for images of format pix_fmt (BGRA32, GRAY8, FLOAT96), in the
// plain, SSE4.1 or AVX2 form chosen from info; fn is NULL for any other format.
Kernel<ThreadTask> PickBilinearResize(const SystemInfo& info, int32_t pix_fmt);

// The dispatcher every effect reuses: picks the task from src.pix_fmt
// (BGRA32, GRAY8, FLOAT96 when both images are FLOAT96; E_NOTIMPL otherwise)
// and the form from info (PickBilinearResize), runs it over dst_roi in
// row bands and logs a failure with the call's text.
int32_t RunBilinearResize(CThreadAdapter& adapter, const SystemInfo& info, ResizeParam& param,
                          Rect dst_roi);

}  // namespace Korvane
