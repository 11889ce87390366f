// Plain form of the final blend: the rays added to the photo through a table.
#include <algorithm>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

void BuildBlendTable(float strength, uint8_t table[256]) {
  for (int32_t i = 0; i < 256; ++i) {
    // i * strength in float, the + 0.5 in double, as the SSE form does it.
    const int32_t v = static_cast<int32_t>(static_cast<float>(i) * strength + 0.5);
    table[i] = static_cast<uint8_t>(std::min(std::max(v, 0), 255));
  }
}

int32_t BlendRays(const BlendParam& p, const Rect& band) {
  return light_rays_detail::WalkBlendRows(
      p, band, [t = p.table](const uint8_t* s, const uint8_t* ray, uint8_t* d, int32_t x0, int32_t x1) {
        for (int32_t x = x0; x < x1; ++x) light_rays_detail::BlendPixel(s + 4 * x, ray + 4 * x, d + 4 * x, t);
      });
}

int32_t BlendRaysTask(ThreadJob* job, int32_t* result) {
  return Done(result, BlendRays(*static_cast<const BlendParam*>(job->param), job->rect));
}

}  // namespace Korvane
