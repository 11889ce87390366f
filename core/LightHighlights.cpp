#include "core/LightHighlights.h"

#include <algorithm>

#include "core/ImageChecks.h"
#include "core/PhotoMeasures.h"

namespace Korvane {

int32_t MarkHighlights(const SmartBuffer& norm, LightPointList& list, const HighlightRule& rule) {
  const int32_t hr = CheckImage(&norm, PIXEL_BGRA32);
  if (hr < 0) return hr;
  const LightnessPlane plane(norm);
  const int32_t top = LightnessOfBrightest(plane.Histogram(), rule.top_share);
  const double bright = std::max<double>(LightnessOfBrightest(plane.Histogram(), rule.bright_share),
                                         rule.top_fraction * top);
  for (auto& entry : list) {
    LightPoint& p = entry.second;
    if (p.x < 0 || p.y < 0 || p.x >= plane.Width() || p.y >= plane.Height()) return E_INVALIDARG;
    // The detector's peak may sit a pixel beside the light's brightest one.
    int32_t peak = 0;
    for (int32_t y = std::max(0, p.y - 1); y <= std::min(plane.Height() - 1, p.y + 1); ++y)
      for (int32_t x = std::max(0, p.x - 1); x <= std::min(plane.Width() - 1, p.x + 1); ++x)
        peak = std::max<int32_t>(peak, plane.At(x, y));
    const double around = plane.BoxMean(p.x, p.y, rule.surround);
    p.highlight = peak >= bright && peak - around >= rule.contrast ? 1 : 0;
  }
  return S_OK;
}

}  // namespace Korvane
