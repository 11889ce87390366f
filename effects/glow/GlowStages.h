// The per-pixel stages of the glow pipeline, as row tasks for
// CThreadAdapter::RunTaskByMultiThread. Each task clips its band to the
// images it touches, so no region can make it read or write outside them.
#pragma once

#include <algorithm>
#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// "copy src": rows of src into the (wider-strided) working copy. With
// in_place the later stages read src itself: only the checks run.
struct GlowCopyParam {
  const SmartBuffer* src = nullptr;
  SmartBuffer* dst = nullptr;
  bool in_place = false;
};
int32_t GlowCopySrc(ThreadJob* job, int32_t* result);

// "detect hlr": B, G, R minus the threshold (clamped to 0..255), alpha copied.
// With a mask, channel c of pixel x is weighted by the mask byte of column
// x + c in the same row (B by the pixel's own, G and R by its right-hand
// neighbours): out = (m * v) >> 8. Mask bytes beyond the mask's width or
// height count as 0. The region may reach past the images' width and height
// fields up to `cols` x `rows`, the size the working images are allocated at.
struct GlowDetectParam {
  const SmartBuffer* src = nullptr;   // BGRA, allocated rows x stride
  SmartBuffer* dst = nullptr;         // BGRA, same stride as src
  const SmartBuffer* mask = nullptr;  // GRAY8 or nullptr
  int32_t threshold = 0;
  int32_t cols = 0;                   // allocated width of src and dst
  int32_t rows = 0;                   // allocated height of src and dst
};
int32_t GlowDetectHighlight(ThreadJob* job, int32_t* result);
// SSE4.1 and AVX2 forms: the same bytes, sixteen or thirty-two at a time
// where there is no mask.
int32_t GlowDetectHighlight_SSE(ThreadJob* job, int32_t* result);
int32_t GlowDetectHighlight_AVX2(ThreadJob* job, int32_t* result);

// "convert BYTE to Float": B, G, R bytes to floats x 1/255, or through `tone`
// when given: the tone curve of "adjust light" depends on the byte alone, so
// the two stages fold into one lookup (GlowToneTable), with the same floats.
// "convert Float to BYTE": floats x 255, truncated and clamped to 0..255; alpha kept.
struct GlowConvertParam {
  SmartBuffer* bytes = nullptr;   // BGRA
  SmartBuffer* floats = nullptr;  // FLOAT96, same width and height
  const float* tone = nullptr;    // 256 floats, or nullptr for the plain x 1/255
};
int32_t GlowByteToFloat(ThreadJob* job, int32_t* result);
int32_t GlowFloatToByte(ThreadJob* job, int32_t* result);
// SSE4.1 forms: the same values, four pixels at a time; AVX2 forms, eight
// (the AVX2 byte-to-float form also gathers through `tone`).
int32_t GlowByteToFloat_SSE(ThreadJob* job, int32_t* result);
int32_t GlowFloatToByte_SSE(ThreadJob* job, int32_t* result);
int32_t GlowByteToFloat_AVX2(ThreadJob* job, int32_t* result);
int32_t GlowFloatToByte_AVX2(ThreadJob* job, int32_t* result);
// The checks of both conversions, and their band clipped to both images. Null
// when the task is already done (*result set: an error, or nothing to convert).
const GlowConvertParam* GlowConvertBand(ThreadJob* job, int32_t* result, Rect& r);

// "adjust light": every float x becomes gain * curve(x) + 0.0625. The curve
// is three sigmoid stages S(u, k) = (u - u k) / (k - 2 |u| k + 1): on x with
// strength k_in, on 2x - 1 with the contrast strength k in [-0.5, 0.5], and
// on the result with k_out. The outer strengths are 0 in the effect (no
// change); they are where further curve controls attach. The values are not
// clamped: only the conversion back to bytes clamps.
struct GlowLightParam {
  float gain = 0.0f;
  float k = 0.0f;
  float k_in = 0.0f;
  float k_out = 0.0f;
};
// The tone curve itself, for one sample.
float GlowToneCurve(float x, float gain, float k, float k_in = 0.0f, float k_out = 0.0f);
// "adjust light" of byte v converted to a float (v x 1/255), for v = 0..255;
// equal to GlowToneCurve of that float.
void GlowToneTable(const GlowLightParam& p, float table[256]);

// "adjust color": tint towards the colour of hue `hue` (0..1 of a turn) with
// weight `strength`, scale the saturation by (1 + saturation), multiply by
// `brightness`. The byte task works on BGRA (alpha untouched); the float task
// on FLOAT96 values, which it first clamps to 0..1.
struct GlowColorParam {
  SmartBuffer* img = nullptr;
  float strength = 0.0f;
  float hue = 0.0f;
  float saturation = 0.0f;
  float brightness = 1.0f;
};
int32_t GlowAdjustColor(ThreadJob* job, int32_t* result);
int32_t GlowAdjustColorFloat(ThreadJob* job, int32_t* result);
// AVX2 form of the byte task: the same bytes, thirty-two pixels at a time.
int32_t GlowAdjustColor_AVX2(ThreadJob* job, int32_t* result);
// The checks of the byte task, its band clipped to the image, and which of
// its steps can change an 8-bit colour. Null when the task is already done
// (*result set: an error, or nothing to change).
struct GlowColorSteps {
  bool tint = false, hsv = false, scale = false;
};
const GlowColorParam* GlowColorBand(ThreadJob* job, int32_t* result, Rect& r, GlowColorSteps& steps);
// The tint colour (R, G, B) of each value v = 0..255 (v = the pixel's largest
// channel): HSV to RGB of the tint's hue, saturation `strength` and v.
void GlowTintTable(const GlowColorParam& p, int32_t tint[256][3]);

// Per-pixel forms of the stages, with which the SIMD forms finish their rows.
// Static: each file, whatever instruction set it is built for, keeps its own
// copy.
namespace glow_detail {

// "detect hlr" without a mask: n BGRA pixels, B, G, R minus t (-255..255)
// clamped, alpha copied.
static inline void DetectPixels(const unsigned char* s, unsigned char* d, int32_t n, int32_t t) {
  for (int32_t x = 0; x < n; ++x) {
    for (int32_t c = 0; c < 3; ++c) {
      d[4 * x + c] = static_cast<unsigned char>(std::min(std::max(s[4 * x + c] - t, 0), 255));
    }
    d[4 * x + 3] = s[4 * x + 3];
  }
}

// "convert BYTE to Float" of n pixels, through `tone` when given.
static inline void ByteToFloatPixels(const unsigned char* s, float* d, int32_t n, const float* tone) {
  if (tone) {
    for (int32_t x = 0; x < n; ++x) {
      for (int32_t c = 0; c < 3; ++c) d[3 * x + c] = tone[s[4 * x + c]];
    }
    return;
  }
  for (int32_t x = 0; x < n; ++x) {
    for (int32_t c = 0; c < 3; ++c) d[3 * x + c] = s[4 * x + c] * 0.003921569f + 0.0f;
  }
}

// "convert Float to BYTE" of n pixels: x * 255 in double (exact), clamped to
// 0..255 (NaN to 0), truncated; alpha kept.
static inline void FloatToBytePixels(const float* s, unsigned char* d, int32_t n) {
  for (int32_t x = 0; x < n; ++x) {
    for (int32_t c = 0; c < 3; ++c) {
      const double v = std::min(std::max(0.0, s[3 * x + c] * 255.0 + 0.0), 255.0);
      d[4 * x + c] = static_cast<unsigned char>(static_cast<int32_t>(v));
    }
  }
}

}  // namespace glow_detail

}  // namespace Korvane
