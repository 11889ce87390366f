// The frame arithmetic of the sparkle effect: its twinkle curve, its
// light-map scale, and the rotation step.
#pragma once

#include <cstdint>

#include "core/LightMap.h"

namespace Korvane {

// The twinkle curve (90 samples): 23 zeros; 0.2, 0.4, 0.6, 0.8, 1.0; 0.975
// down to 0.025 in steps of 0.025; 23 zeros. A glint flashes on quickly and
// fades slowly.
const TwinkleCurve& SparkleTwinkle();

// Scale of the light map: quality modes 0 and 2 keep 1.0, the others that
// of CalLightMapScaleRatio. E_INVALIDARG for long_side < 1 (in the scaling
// modes).
int32_t CalSparkleScaleRatio(int32_t quality_mode, int32_t long_side, float& ratio);

// rotation + LoopPhase(index, count, 360) when rotating, reduced by 360 once
// when it exceeds 360 (so a loop's frame `count` is its frame 0 again).
// E_INVALIDARG for count < 1.
int32_t CalRotation(float rotation, bool rotate, int32_t count, int32_t index, float& out);

}  // namespace Korvane
