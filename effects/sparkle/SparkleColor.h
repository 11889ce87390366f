// Colour of the sparkle light: the colour a glint is pasted with, and the
// saturation and brightness change applied to a finished light map.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/LightPaste.h"

namespace Korvane {

// Colour of a glint for colour mode 1 from the photo's pixel (B, G, R): its
// hue at twice its saturation (capped) and full value, so a glint over a
// near-white highlight is nearly white and one over a coloured light is
// clearly tinted.
LightColor SparklePhotoColor(const uint8_t* bgr);

// Colour mode 2: the hue of RandomHueTable at color_index (0..23), 70%
// saturation, full value.
LightColor SparkleRandomColor(int32_t color_index);

// AdjustColor: for every lit pixel of the band (rows) within the columns of
// `region`, the saturation moves away from (or toward) the pixel's grey by
// the factor 1 + saturation, then the light is scaled by
// factor x (1 + brightness) and clamped. Dark pixels (B = G = R = 0) are
// left as they are; alpha is untouched.
struct SparkleAdjustParam {
  SmartBuffer light;     // BGRA32
  Rect region;           // columns to adjust (rows come from the band)
  float factor = 1.0f;
  float saturation = 0.0f;  // -1..1
  float brightness = 0.0f;  // -1..1
};

// True when the settings change nothing (the step can be left out).
bool SparkleAdjustIsIdentity(const SparkleAdjustParam& p);

int32_t AdjustSparkleColor(const SparkleAdjustParam& p, const Rect& band);
// The AVX2 form, with the same bytes (there is no SSE4.1 form).
int32_t AdjustSparkleColor_AVX2(const SparkleAdjustParam& p, const Rect& band);

namespace sparkle_detail {

// One row of `count` pixels adjusted with the saturation factor and the
// gain, both in 1/256; the plain row also finishes the AVX2 rows.
void AdjustRow(uint8_t* px, int32_t count, int32_t sat, int32_t gain);
using AdjustRowFn = void (*)(uint8_t* px, int32_t count, int32_t sat, int32_t gain);
// The checks, then `row` over the band's rows within the region's columns.
int32_t RunAdjust(const SparkleAdjustParam& p, const Rect& band, AdjustRowFn row);

}  // namespace sparkle_detail

}  // namespace Korvane
