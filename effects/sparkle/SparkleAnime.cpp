#include "effects/sparkle/SparkleAnime.h"

#include <algorithm>

#include "core/LightPaste.h"
#include "core/LightPointDetect.h"
#include "core/ResultCode.h"

namespace Korvane {

const std::vector<float>& SparkleTwinkleCurve() {
  static const std::vector<float> curve = [] {
    std::vector<float> c(23, 0.0f);
    for (int i = 1; i <= 5; ++i) c.push_back(0.2f * i);
    for (int i = 39; i >= 1; --i) c.push_back(0.025f * i);
    c.resize(kSparkleCurveLength, 0.0f);
    return c;
  }();
  return curve;
}

int32_t CalSparkleScaleRatio(int32_t quality_mode, int32_t long_side, float& ratio) {
  if (quality_mode == 0 || quality_mode == 2) {
    ratio = 1.0f;
    return S_OK;
  }
  return CalLightMapScaleRatio(long_side, ratio);
}

int32_t ScaledLength(int32_t size, float ratio) {
  return std::max(1, static_cast<int32_t>(static_cast<float>(size) * ratio + 0.5f));
}

int32_t CalScaledROI(const Rect& roi, Rect& scaled_roi, float ratio, int32_t w, int32_t h) {
  if (!(ratio > 0.0f)) return E_INVALIDARG;
  scaled_roi.left = std::max(0, static_cast<int32_t>(roi.left * ratio - 1.0f));
  scaled_roi.top = std::max(0, static_cast<int32_t>(roi.top * ratio - 1.0f));
  scaled_roi.right = std::min(static_cast<int32_t>(roi.right * ratio + 1.0f), w);
  scaled_roi.bottom = std::min(static_cast<int32_t>(roi.bottom * ratio + 1.0f), h);
  return S_OK;
}

int32_t CalTwinkleTable(int32_t count, std::vector<float>& table) {
  return StretchTwinkleCurve(SparkleTwinkleCurve().data(), kSparkleCurveLength, count, table);
}

int32_t CalRotation(float rotation, bool rotate, int32_t count, int32_t index, float& out) {
  if (count < 1) return E_INVALIDARG;
  out = rotation;
  if (!rotate) return S_OK;
  out += static_cast<float>(index) * 360.0f / static_cast<float>(count);
  if (out > 360.0f) out -= 360.0f;
  return S_OK;
}

}  // namespace Korvane
