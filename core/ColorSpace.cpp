#include "core/ColorSpace.h"

#include <algorithm>
#include <cmath>

namespace Korvane {

namespace {

// Places chroma c, the intermediate x and 0 into (r, g, b) by hue sector.
template <class T>
inline void FromSector(int32_t sector, T c, T x, T& r, T& g, T& b) {
  switch (sector) {
    case 0: r = c; g = x; b = 0; break;
    case 1: r = x; g = c; b = 0; break;
    case 2: r = 0; g = c; b = x; break;
    case 3: r = 0; g = x; b = c; break;
    case 4: r = x; g = 0; b = c; break;
    default: r = c; g = 0; b = x; break;
  }
}

}  // namespace

void RgbToHsvF(float r, float g, float b, float& h, float& s, float& v) {
  const float mx = std::max(r, std::max(g, b));
  const float mn = std::min(r, std::min(g, b));
  const float c = mx - mn;
  v = mx;
  s = mx > 0.0f ? c / mx : 0.0f;
  if (!(c > 0.0f)) {
    h = 0.0f;
    return;
  }
  float hue;
  if (mx == r) {
    hue = kHueSector * (g - b) / c;
    if (hue < 0.0f) hue += kHueFull;
  } else if (mx == g) {
    hue = 2.0f * kHueSector + kHueSector * (b - r) / c;
  } else {
    hue = 4.0f * kHueSector + kHueSector * (r - g) / c;
  }
  h = hue >= kHueFull ? hue - kHueFull : hue;
}

void HsvToRgbF(float h, float s, float v, float& r, float& g, float& b) {
  if (!std::isfinite(h)) h = 0.0f;
  h -= std::floor(h / kHueFull) * kHueFull;
  s = std::min(std::max(s, 0.0f), 1.0f);
  v = std::min(std::max(v, 0.0f), 1.0f);
  const float c = v * s;
  const float hp = h / kHueSector;
  const int32_t sector = std::min(std::max(static_cast<int32_t>(hp), 0), 5);
  const float f = hp - static_cast<float>(sector);
  const float x = c * ((sector & 1) ? 1.0f - f : f);
  FromSector(sector, c, x, r, g, b);
  const float m = v - c;
  r += m;
  g += m;
  b += m;
}

}  // namespace Korvane
