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
  if (!p.src || !p.rays || !p.dst || !p.table || !p.src->data || !p.rays->data || !p.dst->data) return E_POINTER;
  Rect r = Clip(p.roi, p.src->width, p.src->height);
  r.top = std::max(r.top, band.top);
  r.bottom = std::min(r.bottom, band.bottom);
  const uint8_t* t = p.table;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const uint8_t* s = RowPtr(*p.src, y);
    const uint8_t* ray = RowPtr(*p.rays, y);
    uint8_t* d = RowPtr(*p.dst, y - p.roi.top) - static_cast<ptrdiff_t>(p.roi.left) * 4;
    for (int32_t x = r.left; x < r.right; ++x) {
      const int32_t i = 4 * x;
      d[i + 0] = static_cast<uint8_t>(std::min(s[i + 0] + t[ray[i + 0]], 255));
      d[i + 1] = static_cast<uint8_t>(std::min(s[i + 1] + t[ray[i + 1]], 255));
      d[i + 2] = static_cast<uint8_t>(std::min(s[i + 2] + t[ray[i + 2]], 255));
      d[i + 3] = s[i + 3];
    }
  }
  return S_OK;
}

int32_t BlendRaysTask(ThreadJob* job, int32_t* result) {
  return Done(result, BlendRays(*static_cast<const BlendParam*>(job->param), job->rect));
}

}  // namespace Korvane
