// Plain forms of the transforms between the half-size image and ray space.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"
#include "effects/light_rays/LightRaysSampleLoops.h"

namespace Korvane {

using light_rays_detail::Mix4;

void CalLineRange(RayLine& line, int32_t w, int32_t h, float margin, int32_t cols) {
  double lo = 0.0, hi = static_cast<double>(cols) - 1.0;
  // Slab test per axis: the columns where the coordinate lies strictly inside.
  const double start[2] = {line.x0, line.y0};
  const double step[2] = {line.dx, line.dy};
  const double limit[2] = {static_cast<double>(w) - 1.0 + margin, static_cast<double>(h) - 1.0 + margin};
  for (int a = 0; a < 2 && lo <= hi; ++a) {
    if (std::fabs(step[a]) < 1e-9) {
      if (start[a] <= -margin || start[a] >= limit[a]) hi = lo - 1.0;
      continue;
    }
    double c0 = (-margin - start[a]) / step[a];
    double c1 = (limit[a] - start[a]) / step[a];
    if (c0 > c1) std::swap(c0, c1);
    lo = std::max(lo, c0);
    hi = std::min(hi, c1);
  }
  if (!(lo <= hi)) {
    line.lo = line.hi = 0;
    return;
  }
  line.lo = std::max(0, static_cast<int32_t>(std::floor(lo)));
  line.hi = std::min(cols, static_cast<int32_t>(std::ceil(hi)) + 1);
  if (line.lo >= line.hi) line.lo = line.hi = 0;
}

int32_t SampleRows(const SampleRowsParam& p, const Rect& band) {
  return light_rays_detail::SampleRowsWith(p, band, [](auto... a) { return Mix4(a...); });
}

int32_t PolarToCarte(const PolarToCarteParam& p, const Rect& band) {
  return light_rays_detail::PolarToCarteWith(p, band, [](auto... a) { return Mix4(a...); });
}

int32_t RotateBack(const RotateBackParam& p, const Rect& band) {
  return light_rays_detail::RotateBackWith(p, band, [](auto... a) { return Mix4(a...); });
}

}  // namespace Korvane
