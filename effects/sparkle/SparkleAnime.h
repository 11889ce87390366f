// The frame arithmetic of the sparkle effect: light-map scale, the region of
// the scaled map, the twinkle curve and table, and the rotation step.
#pragma once

#include <cstdint>
#include <vector>

#include "core/ImageBuffer.h"

namespace Korvane {

// Samples of the twinkle curve: dark, a fast rise, a slow fall, dark.
constexpr int32_t kSparkleCurveLength = 90;

// The curve: 23 zeros; 0.2, 0.4, 0.6, 0.8, 1.0; 0.975 down to 0.025 in steps
// of 0.025; 23 zeros. A glint flashes on quickly and fades slowly.
const std::vector<float>& SparkleTwinkleCurve();

// Scale of the light map for a photo whose longer side is long_side.
// Quality modes 0 and 2 keep 1.0; otherwise 1.0 up to 640 pixels, falling
// linearly to 0.25 at 5120 and staying there. E_INVALIDARG for long_side < 1
// (in the scaling modes).
int32_t CalSparkleScaleRatio(int32_t quality_mode, int32_t long_side, float& ratio);

// trunc(size x ratio + 0.5), at least 1.
int32_t ScaledLength(int32_t size, float ratio);

// The ROI in light-map pixels with a one-pixel margin each side, cut to the
// w x h map. E_INVALIDARG for ratio <= 0.
int32_t CalScaledROI(const Rect& roi, Rect& scaled_roi, float ratio, int32_t w, int32_t h);

// The per-frame twinkle table: `count` samples of the curve stretched over
// the loop, linearly interpolated. E_INVALIDARG for count < 1. A glint's
// entry in it is TwinkleFrameOffset (core/LightPointDetect.h) of its phase.
int32_t CalTwinkleTable(int32_t count, std::vector<float>& table);

// rotation + index x 360 / count when rotating, reduced by 360 once when it
// exceeds 360 (so a loop's frame `count` is its frame 0 again).
// E_INVALIDARG for count < 1.
int32_t CalRotation(float rotation, bool rotate, int32_t count, int32_t index, float& out);

}  // namespace Korvane
