// Blending the photo with its weak and strong blur by the guide's distance
// from the focus value.
#pragma once

#include <cstdint>
#include <memory>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

struct FocusBlendParam {
  SmartBuffer output;                  // BGRA32, written
  SmartBuffer input;                   // BGRA32: the photo (P)
  SmartBuffer effect;                  // BGRA32: strong blur (S)
  SmartBuffer sub_effect;              // BGRA32: weak blur (W)
  SmartBuffer mask;                    // the guide: first byte of each pixel, pixels `channel` bytes apart
  std::shared_ptr<int32_t[]> table;    // 256 blend weights t(v), 0..255
  // Inside a RowPipeline: W is the chunk's scratch rows (pixel 0 of a row is
  // the band's left column), as GaussianBlurHV writes them; sub_effect unused.
  bool weak_in_scratch = false;
};

// t(v) = truncate(255 x clamp(d + 2^d - 1, 0, 1)) with d = |focus_value - v| / 255,
// for v = 0..255: 0 in focus, 255 from a guide distance of 139 on.
void MakeBlendTable(int32_t focus_value, int32_t* table);

// Per colour channel, with t = table[guide]: t > 127 mixes S and W, otherwise
// P and W, in 255ths (see FocusBlend.cpp); alpha comes from P.
// E_POINTER for missing images or table, E_NOTIMPL for images other than
// BGRA32, E_INVALIDARG for images of different sizes or a band outside them
// (or, with weak_in_scratch, a job without scratch rows).
int32_t FocusBlend(ThreadJob* job, int32_t* result);
int32_t FocusBlend_SSE(ThreadJob* job, int32_t* result);
int32_t FocusBlend_AVX2(ThreadJob* job, int32_t* result);

// One row of `count` pixels; guide bytes are `guide_step` apart.
using FocusBlendRow = void (*)(const uint8_t* p, const uint8_t* s, const uint8_t* w, const uint8_t* guide,
                               int32_t guide_step, const int32_t* table, uint8_t* out, int32_t count);
int32_t RunFocusBlend(ThreadJob* job, int32_t* result, FocusBlendRow row);
// The plain row; the SIMD forms finish their rows with it.
void FocusBlendRowPlain(const uint8_t* p, const uint8_t* s, const uint8_t* w, const uint8_t* guide, int32_t guide_step,
                        const int32_t* table, uint8_t* out, int32_t count);

}  // namespace Korvane
