#include "effects/sparkle/SparkleAnime.h"

#include "core/ResultCode.h"

namespace Korvane {

const TwinkleCurve& SparkleTwinkle() {
  static const TwinkleCurve curve(90, 23, 0.2f, 5, 0.0f, 0, 0.025f, 39);
  return curve;
}

int32_t CalSparkleScaleRatio(int32_t quality_mode, int32_t long_side, float& ratio) {
  if (quality_mode == 0 || quality_mode == 2) {
    ratio = 1.0f;
    return S_OK;
  }
  return CalLightMapScaleRatio(long_side, ratio);
}

int32_t CalRotation(float rotation, bool rotate, int32_t count, int32_t index, float& out) {
  if (count < 1) return E_INVALIDARG;
  out = rotation;
  if (!rotate) return S_OK;
  out += LoopPhase(index, count, 360.0f);
  if (out > 360.0f) out -= 360.0f;
  return S_OK;
}

}  // namespace Korvane
